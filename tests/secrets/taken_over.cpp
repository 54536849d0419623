#include "taken_over.h"

#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

extern "C" {
void* __libc_malloc(size_t size) noexcept;
void* __libc_calloc(size_t count, size_t size) noexcept;
void* __libc_realloc(void* memory, size_t size) noexcept;
void __libc_free(void* memory) noexcept;
}

namespace {

// Constant-initialised: malloc runs before any constructor.
constexpr size_t REGION_SIZE = size_t{256} << 20;  // of addresses; memory only as it is used
constexpr size_t HEADER = 16;                      // holds the block's size
char* region = nullptr;
size_t used = 0;
size_t live = 0;
bool keepsBlocks = false;

size_t failing = 0;  // counts down to the allocation that fails; 0: none does
bool hasFailed = false;
bool wipes = true;

// Also what only a wrong length can ask for.
bool fails(size_t size)
{
    if (size > REGION_SIZE)
        return true;
    if (failing == 0 || --failing > 0)
        return false;
    hasFailed = true;
    errno = ENOMEM;
    return true;
}

bool inRegion(const void* memory)
{
    const auto at = reinterpret_cast<uintptr_t>(memory);
    const auto begin = reinterpret_cast<uintptr_t>(region);
    return region != nullptr && begin <= at && at < begin + REGION_SIZE;
}

size_t sizeOf(const void* memory)
{
    size_t size;
    memcpy(&size, static_cast<const char*>(memory) - HEADER, sizeof size);
    return size;
}

// Zero-filled, as each block is new.
void* takeBlock(size_t size)
{
    const size_t whole = HEADER + ((size + 15) & ~size_t{15});
    if (whole > REGION_SIZE - used)
        return nullptr;
    char* const block = region + used + HEADER;
    memcpy(block - HEADER, &size, sizeof size);
    used += whole;
    ++live;
    return block;
}

}  // namespace

extern "C" void* malloc(size_t size) noexcept
{
    if (fails(size))
        return nullptr;
    return keepsBlocks ? takeBlock(size) : __libc_malloc(size);
}

extern "C" void* calloc(size_t count, size_t size) noexcept
{
    if (fails(count * size))
        return nullptr;
    return keepsBlocks ? takeBlock(count * size) : __libc_calloc(count, size);
}

extern "C" void free(void* memory) noexcept
{
    if (inRegion(memory))
        --live;
    else
        __libc_free(memory);
}

extern "C" void* realloc(void* memory, size_t size) noexcept
{
    if (fails(size))
        return nullptr;
    if (memory != nullptr ? !inRegion(memory) : !keepsBlocks)
        return __libc_realloc(memory, size);
    void* const larger = takeBlock(size);
    if (larger != nullptr && memory != nullptr) {
        memcpy(larger, memory, std::min(size, sizeOf(memory)));
        free(memory);
    }
    return larger;
}

// By names of our own in the source, as the headers have fortified inline functions of these names.
// The second is what callers with checked sizes call.
void overwrite(void* memory, size_t size) noexcept __asm__("explicit_bzero");
void overwriteChecked(void* memory, size_t size, size_t room) noexcept
    __asm__("__explicit_bzero_chk");

void overwrite(void* memory, size_t size) noexcept
{
    if (wipes)
        support::wipeByHand(memory, size);
}

void overwriteChecked(void* memory, size_t size, size_t room) noexcept
{
    if (size > room)
        abort();
    overwrite(memory, size);
}

namespace secrets {

KeptBlocks::KeptBlocks()
{
    if (region == nullptr) {
        void* const memory = mmap(nullptr, REGION_SIZE, PROT_READ | PROT_WRITE,
                                  MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (memory == MAP_FAILED)
            throw std::runtime_error("no region for blocks");
        region = static_cast<char*>(memory);
    }
    keepsBlocks = true;
}

KeptBlocks::~KeptBlocks()
{
    keepsBlocks = false;
}

void wipeFreedBlocks()
{
    if (live > 0)
        return;
    support::wipeByHand(region, used);
    used = 0;
}

support::MemoryRange unusedBlocks()
{
    const auto begin = reinterpret_cast<uintptr_t>(region);
    return {begin + used, begin + (region != nullptr ? REGION_SIZE : 0)};
}

FailedAllocation::FailedAllocation(size_t n)
{
    hasFailed = false;
    failing = n;
}

FailedAllocation::~FailedAllocation()
{
    failing = 0;
}

bool FailedAllocation::struck() const
{
    return hasFailed;
}

WipingOff::WipingOff()
{
    wipes = false;
}

WipingOff::~WipingOff()
{
    wipes = true;
}

}  // namespace secrets
