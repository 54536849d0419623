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

Claims::Claims() : m_descriptor(memfd_create("claims", MFD_CLOEXEC))
{
    if (!m_descriptor || ftruncate(m_descriptor.get(), sizeof(Places)) != 0)
        fail();
    map(m_descriptor.get());
}

Claims::Claims(const Descriptor& shared)
{
    map(shared.get());
}

Claims::~Claims()
{
    munmap(m_places, sizeof(Places));
}

void Claims::map(int descriptor)
{
    void* memory = mmap(nullptr, sizeof(Places), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    if (memory == MAP_FAILED)
        fail();
    m_places = static_cast<Places*>(memory);
}
