#include <openssl/evp.h>

#include <algorithm>
#include <cstring>

#include "engine/buffers.h"
#include "engine/engine.h"
#include "engine/exported_call.h"
#include "engine/exports.h"
#include "engine/mac.h"

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

// ANSI X9.63. libcrypto's own would hash the secret for each block anew, which takes a minute
// for a long one and a long key.
void deriveKey(const EVP_MD_CTX* hashedSecret, unsigned char* out, size_t size)
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

int aven_crypto_hmac(const void* params, const unsigned char* in, uint32_t in_len,
                     unsigned char* out, uint32_t* out_len)
{
    return answer("aven_crypto_hmac", out, out_len, [&](const Engine& engine, Output& output) {
        const MacParams& p = parameterBlock<MacParams>(params);
        const Bytes key = input(p.key, p.key_len);
        const Bytes data = input(in, in_len);

        const HashInfo& hash = hashInfo(p.alg);
        require(key.size > 0, AVEN_E_KEY_LENGTH);
        mac(engine.preparedHmac(p.alg), key, data, output.room(hash.size), hash.size);
        output.setLength(hash.size);
    });
}

int aven_crypto_cmac(const void* params, const unsigned char* in, uint32_t in_len,
                     unsigned char* out, uint32_t* out_len)
{
    return answer("aven_crypto_cmac", out, out_len, [&](const Engine& engine, Output& output) {
        const MacParams& p = parameterBlock<MacParams>(params);
        const Bytes key = input(p.key, p.key_len);
        const Bytes data = input(in, in_len);

        const CipherInfo& cipher = cipherInfo(p.alg);
        require(key.size == cipher.keyLength, AVEN_E_KEY_LENGTH);
        mac(engine.preparedCmac(p.alg), key, data, output.room(cipher.block), cipher.block);
        output.setLength(cipher.block);
    });
}

int aven_crypto_kdf(int alg, const unsigned char* in, uint32_t in_len, uint32_t out_len,
                    unsigned char* out)
{
    return answer("aven_crypto_kdf", [&](const Engine& engine) {
        const Bytes secret = input(in, in_len);
        require(out != nullptr, AVEN_E_NULL_POINTER);

        const HashInfo& hash = hashInfo(alg == AVEN_HASH_DEFAULT ? AVEN_HASH_SM3 : alg);
        require(secret.size > 0, AVEN_E_INPUT_EMPTY);
        require(secret.size <= AVEN_KDF_MAX, AVEN_E_INPUT_TOO_LONG);
        require(out_len > 0 && out_len <= AVEN_KDF_MAX, AVEN_E_OUTPUT_LENGTH);

        const HashContext hashed = hashedSecret(engine, hash.name, secret);
        WipeUnlessKept wipe(out, out_len);
        deriveKey(hashed.get(), out, out_len);
        wipe.keep();
    });
}
