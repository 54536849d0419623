#include "kdf.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstring>

namespace {

using Hash = Owned<EVP_MD_free, EVP_MD>;
using HashContext = Owned<EVP_MD_CTX_free, EVP_MD_CTX>;

// A hash that has taken the secret in.
HashContext hashedSecret(const Engine& engine, const char* hashName, Bytes secret)
{
    const Hash hash(EVP_MD_fetch(engine.library(), hashName, nullptr));
    HashContext context(EVP_MD_CTX_new());
    require(hash != nullptr && context != nullptr, AVEN_E_NO_MEMORY);
    require(EVP_DigestInit_ex2(context.get(), hash.get(), nullptr) == 1 &&
                EVP_DigestUpdate(context.get(), secret.data, secret.size) == 1,
            AVEN_E_INTERNAL);
    return context;
}

// libcrypto's own would hash the secret for each block anew, which takes a minute
// for a long one and a long key.
void fill(const EVP_MD_CTX* hashedSecret, unsigned char* out, size_t size)
{
    const HashContext context(EVP_MD_CTX_new());
    require(context != nullptr, AVEN_E_NO_MEMORY);
    unsigned char block[EVP_MAX_MD_SIZE];
    const WipeUnlessKept wipe(block, sizeof block);
    const auto blockSize = static_cast<size_t>(EVP_MD_CTX_get_size(hashedSecret));

    for (uint32_t counter = 1; size > 0; ++counter) {
        const unsigned char bytes[] = {
            static_cast<unsigned char>(counter >> 24), static_cast<unsigned char>(counter >> 16),
            static_cast<unsigned char>(counter >> 8), static_cast<unsigned char>(counter)};
        require(EVP_MD_CTX_copy_ex(context.get(), hashedSecret) == 1, AVEN_E_NO_MEMORY);
        require(EVP_DigestUpdate(context.get(), bytes, sizeof bytes) == 1 &&
                    EVP_DigestFinal_ex(context.get(), block, nullptr) == 1,
                AVEN_E_INTERNAL);
        const size_t part = std::min(size, blockSize);
        memcpy(out, block, part);
        out += part;
        size -= part;
    }
}

}  // namespace

void deriveKey(const Engine& engine, const char* hash, Bytes secret, unsigned char* out,
               size_t size)
{
    WipeUnlessKept wipe(out, size);
    fill(hashedSecret(engine, hash, secret).get(), out, size);
    wipe.keep();
}
