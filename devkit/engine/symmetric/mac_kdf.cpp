// The functions for MACs and key derivation.

#include "engine/buffers.h"
#include "engine/engine.h"
#include "engine/exported_call.h"
#include "engine/exports.h"
#include "engine/kdf.h"
#include "engine/mac.h"

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

        deriveKey(engine, hash.name, secret, out, out_len);
    });
}
