#include "claims.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

static_assert(std::atomic<uint32_t>::is_always_lock_free, "a lock would be each process's own");

namespace {

[[noreturn]] void fail()
{
    throw std::system_error(errno, std::generic_category(), "cannot share memory with a worker");
}

}  // namespace

Claims::Claims() : descriptor_(memfd_create("claims", MFD_CLOEXEC))
{
    if (!descriptor_ || ftruncate(descriptor_.get(), sizeof(Places)) != 0)
        fail();
    map(descriptor_.get());
}

Claims::Claims(const Descriptor& shared)
{
    map(shared.get());
}

Claims::~Claims()
{
    munmap(places_, sizeof(Places));
}

void Claims::map(int descriptor)
{
    void* memory = mmap(nullptr, sizeof(Places), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    if (memory == MAP_FAILED)
        fail();
    places_ = static_cast<Places*>(memory);
}
