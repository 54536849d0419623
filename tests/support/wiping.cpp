#include "wiping.h"

#include <cstddef>
#include <cstdlib>
#include <iterator>

namespace {

bool wipes = true;

bool keeps = false;
void* kept[1 << 16];  // more are freed at once
size_t keptCount = 0;

void wipe(void* memory, size_t size)
{
    volatile unsigned char* bytes = static_cast<volatile unsigned char*>(memory);
    for (size_t i = 0; wipes && i < size; ++i)
        bytes[i] = 0;
}

}  // namespace

extern "C" {
void __libc_free(void* memory) noexcept;

void free(void* memory) noexcept
{
    if (keeps && memory != nullptr && keptCount < std::size(kept))
        kept[keptCount++] = memory;
    else
        __libc_free(memory);
}

void OPENSSL_cleanse(void* memory, size_t size)
{
    wipe(memory, size);
}

void explicit_bzero(void* memory, size_t size) noexcept
{
    wipe(memory, size);
}

void __explicit_bzero_chk(void* memory, size_t size, size_t)
{
    wipe(memory, size);
}
}

namespace support {

WithoutWiping::WithoutWiping()
{
    wipes = false;
}

WithoutWiping::~WithoutWiping()
{
    wipes = true;
}

KeptBlocks::KeptBlocks()
{
    keeps = true;
}

KeptBlocks::~KeptBlocks()
{
    keeps = false;
    while (keptCount > 0)
        __libc_free(kept[--keptCount]);
}

}  // namespace support
