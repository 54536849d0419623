#include "wiping.h"

#include <cstddef>

namespace {

bool wipes = true;

void wipe(void* memory, size_t size)
{
    volatile unsigned char* bytes = static_cast<volatile unsigned char*>(memory);
    for (size_t i = 0; wipes && i < size; ++i)
        bytes[i] = 0;
}

}  // namespace

extern "C" {
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

}  // namespace support
