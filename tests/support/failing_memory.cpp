#include "support/failing_memory.h"

#include <cerrno>
#include <cstring>

extern "C" {
// The C library's own entries.
void* __libc_malloc(size_t size) noexcept;
void* __libc_calloc(size_t count, size_t size) noexcept;
void* __libc_realloc(void* memory, size_t size) noexcept;
}

namespace {

support::FailingMemoryOrders* orders = nullptr;
std::atomic<size_t> seen;

// Only the front process has this word on its command line.
bool isFront()
{
    char line[4096] = {};
    const int descriptor = open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC);
    const ssize_t size = read(descriptor, line, sizeof line - 1);
    close(descriptor);
    return size > 0 && memmem(line, static_cast<size_t>(size), "\0serve", 7) != nullptr;
}

__attribute__((constructor)) void readOrders()
{
    const char* file = getenv(support::failingMemoryVariable);
    if (file != nullptr && isFront())
        orders = support::mapOrders(file);
}

bool fails(size_t size)
{
    if (orders == nullptr || orders->every == 0 || size < orders->atLeast)
        return false;
    if (++seen % orders->every != 0)
        return false;
    ++orders->failed;
    errno = ENOMEM;
    return true;
}

}  // namespace

extern "C" void* malloc(size_t size) noexcept
{
    return fails(size) ? nullptr : __libc_malloc(size);
}

extern "C" void* calloc(size_t count, size_t size) noexcept
{
    return fails(count * size) ? nullptr : __libc_calloc(count, size);
}

extern "C" void* realloc(void* memory, size_t size) noexcept
{
    return fails(size) ? nullptr : __libc_realloc(memory, size);
}
