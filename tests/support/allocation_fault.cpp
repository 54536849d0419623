#include "support/allocation_fault.h"

#include <malloc.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

extern "C" {
// The C library's own entries, and those of the address sanitizer where it runs. They
// throw nothing, or else the calls below would not be jumps.
void* __libc_malloc(size_t size) noexcept;
void* __libc_calloc(size_t count, size_t size) noexcept;
void* __libc_realloc(void* memory, size_t size) noexcept;
__attribute__((weak)) void* __interceptor_malloc(size_t size) noexcept;
__attribute__((weak)) void* __interceptor_calloc(size_t count, size_t size) noexcept;
__attribute__((weak)) void* __interceptor_realloc(void* memory, size_t size) noexcept;
}

namespace {

enum Kind { OFF, NTH, EXACTLY, AT_LEAST };

// Constant-initialised: malloc runs before any constructor.
Kind kind = OFF;
size_t threshold = 0;
size_t seen = 0;
bool hasStruck = false;
const doubles::Journal* spared = nullptr;

std::string_view sought;
size_t found = 0;

void look(const void* memory)
{
    if (sought.empty() || memory == nullptr)
        return;
    const size_t size = malloc_usable_size(const_cast<void*>(memory));
    if (memmem(memory, size, sought.data(), sought.size()) != nullptr)
        ++found;
}

bool strikes(size_t size)
{
    if (kind == OFF || (spared != nullptr && spared->busy > 0))
        return false;
    ++seen;
    if (kind == NTH ? seen != threshold : kind == EXACTLY ? size != threshold : size < threshold)
        return false;
    kind = OFF;
    hasStruck = true;
    errno = ENOMEM;
    return true;
}

void arm(Kind newKind, const doubles::Journal* journal, size_t value)
{
    threshold = value;
    seen = 0;
    hasStruck = false;
    spared = journal;
    kind = newKind;
}

}  // namespace

extern "C" void* malloc(size_t size) noexcept
{
    if (strikes(size))
        return nullptr;
    return __interceptor_malloc != nullptr ? __interceptor_malloc(size) : __libc_malloc(size);
}

extern "C" void* calloc(size_t count, size_t size) noexcept
{
    if (strikes(count * size))
        return nullptr;
    return __interceptor_calloc != nullptr ? __interceptor_calloc(count, size)
                                           : __libc_calloc(count, size);
}

extern "C" void* realloc(void* memory, size_t size) noexcept
{
    if (strikes(size))
        return nullptr;
    return __interceptor_realloc != nullptr ? __interceptor_realloc(memory, size)
                                            : __libc_realloc(memory, size);
}

void* operator new(size_t size)
{
    void* memory = malloc(size > 0 ? size : 1);
    if (memory == nullptr)
        throw std::bad_alloc();
    // What was there before does not count when it is freed again.
    if (!sought.empty())
        memset(memory, 0, malloc_usable_size(memory));
    return memory;
}

void operator delete(void* memory) noexcept
{
    look(memory);
    free(memory);
}

void operator delete(void* memory, size_t) noexcept
{
    look(memory);
    free(memory);
}

namespace support {

AllocationFault AllocationFault::nth(const doubles::Journal& journal, size_t n)
{
    arm(NTH, &journal, n);
    return {};
}

AllocationFault AllocationFault::exactly(const doubles::Journal& journal, size_t bytes)
{
    arm(EXACTLY, &journal, bytes);
    return {};
}

AllocationFault AllocationFault::atLeast(const doubles::Journal& journal, size_t bytes)
{
    arm(AT_LEAST, &journal, bytes);
    return {};
}

AllocationFault::~AllocationFault()
{
    kind = OFF;
}

bool AllocationFault::struck() const
{
    return hasStruck;
}

FreedBlocks::FreedBlocks(std::string_view marker)
{
    found = 0;
    sought = marker;
}

FreedBlocks::~FreedBlocks()
{
    sought = {};
}

size_t FreedBlocks::counted() const
{
    return found;
}

bool allocationFaultsWork()
{
    void* (*volatile allocate)(size_t) = malloc;
    arm(EXACTLY, nullptr, 12347);
    void* memory = allocate(12347);
    kind = OFF;
    free(memory);
    return memory == nullptr;
}

}  // namespace support
