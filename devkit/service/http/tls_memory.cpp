#include "tls_memory.h"

#include <dlfcn.h>
#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

void wipeAndFree(void* memory)
{
    if (memory != nullptr)
        explicit_bzero(memory, malloc_usable_size(memory));
    free(memory);
}

// The C library's own leaves the old bytes where they were.
void* moveAndWipe(void* memory, size_t size)
{
    if (memory == nullptr)
        return malloc(size);
    void* const moved = malloc(std::max<size_t>(size, 1));
    if (moved == nullptr)
        return nullptr;
    memcpy(moved, memory, std::min(size, malloc_usable_size(memory)));
    wipeAndFree(memory);
    return moved;
}

// GnuTLS gets and gives back all its memory by pointers that it exports.
template <class Function>
void replace(const char* name, Function function)
{
    if (void* const place = dlsym(RTLD_DEFAULT, name))
        *static_cast<Function*>(place) = function;
}

}  // namespace

void wipeTlsMemory()
{
    replace("gnutls_free", &wipeAndFree);
    replace("gnutls_realloc", &moveAndWipe);
}
