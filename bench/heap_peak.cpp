// The most heap memory that the plug-in itself holds during a symmetric encryption, per
// byte of payload. Takes over the C library's allocation and counts what is allocated and freed
// during the request while no function of the parameter module runs; the copying engine
// allocates nothing.

#include <malloc.h>

#include <algorithm>
#include <cstddef>

#include "host.h"
#include "requests.h"
#include "row.h"

// The C library's own, behind the functions that are taken over.
extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* __libc_realloc(void* memory, size_t size);
extern "C" void __libc_free(void* memory);

namespace {

bool counting = false;
int depth = 0;  // of functions of the module
size_t live = 0;
size_t peak = 0;

bool isPlugin()
{
    return counting && depth == 0;
}

void* counted(void* memory)
{
    if (isPlugin()) {
        live += malloc_usable_size(memory);
        peak = std::max(peak, live);
    }
    return memory;
}

void uncount(void* memory)
{
    if (isPlugin())
        live -= malloc_usable_size(memory);
}

}  // namespace

extern "C" void bench_outside(int entered)
{
    depth += entered != 0 ? 1 : -1;
}

extern "C" void* malloc(size_t size)
{
    return counted(__libc_malloc(size));
}

extern "C" void* calloc(size_t count, size_t size)
{
    return counted(__libc_calloc(count, size));
}

extern "C" void* realloc(void* memory, size_t size)
{
    uncount(memory);
    return counted(__libc_realloc(memory, size));
}

extern "C" void free(void* memory)
{
    uncount(memory);
    __libc_free(memory);
}

int main()
{
    constexpr size_t payload = 16 * 1024 * 1024;

    const BareHost host;
    const Pairs parameters = encryption().parameters(payload);
    host.expectSuccess(encryption().name, parameters);
    host.store(parameters);

    counting = true;
    host.send(encryption().name);
    counting = false;

    if (live != 0)
        giveUp("the plug-in kept memory, or not all of its memory was seen");
    printRow("the plug-in's own live heap at its peak, x payload",
             {{static_cast<double>(peak) / payload, 4, 2.5}});
}
