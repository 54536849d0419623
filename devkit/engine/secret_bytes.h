// Bytes that are wiped before their memory is given back, on the heap and on the stack.
#ifndef CORVANE_ENGINE_SECRET_BYTES_H
#define CORVANE_ENGINE_SECRET_BYTES_H

#include <openssl/crypto.h>

#include <cstring>
#include <memory>
#include <vector>

#include "buffers.h"

template <class Item>
struct WipingAllocator : std::allocator<Item> {
    template <class Other>
    struct rebind {
        using other = WipingAllocator<Other>;
    };

    void deallocate(Item* items, size_t count)
    {
        OPENSSL_cleanse(items, count * sizeof(Item));
        std::allocator<Item>::deallocate(items, count);
    }
};

using SecretBytes = std::vector<unsigned char, WipingAllocator<unsigned char>>;

inline Bytes view(const SecretBytes& bytes)
{
    static constexpr unsigned char none = 0;
    return {bytes.empty() ? &none : bytes.data(), bytes.size()};
}

// Overwrites what functions that have returned left on the stack: libcrypto's, which do not wipe
// all of theirs, and registers that were saved there. `DEPTH` is how far down they went.
template <size_t DEPTH>
[[gnu::noinline]] void wipeStack()
{
    unsigned char used[DEPTH];
    explicit_bzero(used, sizeof used);  // faster than OPENSSL_cleanse
}

// More than a call takes without a public or private key, and more than one takes with it. As
// measured, these are 6 KiB and 13 KiB.
constexpr size_t STACK_OF_CALL = 8 << 10;
constexpr size_t STACK_OF_KEY_USE = 16 << 10;

#endif
