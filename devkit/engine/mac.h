// HMAC (RFC 2104) and CMAC (SP 800-38B) for all that need one.
#ifndef CORVANE_ENGINE_MAC_H
#define CORVANE_ENGINE_MAC_H

#include <openssl/evp.h>

#include <memory>

#include "buffers.h"

struct MacContextFree {
    void operator()(EVP_MAC_CTX* context) const { EVP_MAC_CTX_free(context); }
};
using MacContext = std::unique_ptr<EVP_MAC_CTX, MacContextFree>;

// A context to be copied for each MAC, by any number of threads at once. Naming the hash or
// cipher takes libcrypto about as long as the MAC of a short text, so this is done once.
// `kind` is libcrypto's HMAC with the name of a hash, or its CMAC with the name of a cipher in
// CBC mode and its key's length.
MacContext prepareHmac(EVP_MAC* kind, const char* hash);
MacContext prepareCmac(EVP_MAC* kind, const char* cipher, size_t keyLength);

// Writes the MAC of `in`, which has `size` bytes.
void mac(const EVP_MAC_CTX* prepared, Bytes key, Bytes in, unsigned char* out, size_t size);

#endif
