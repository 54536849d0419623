// Bytes that are wiped before their memory is given back.
#ifndef CORVANE_ENGINE_SECRET_BYTES_H
#define CORVANE_ENGINE_SECRET_BYTES_H

#include <openssl/crypto.h>

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

#endif
