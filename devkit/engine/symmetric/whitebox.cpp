// The white-box functions. They offer the interface of a white-box cipher and plain
// SM4-CBC with PKCS#7 behind it: the key is as exposed as in any other cipher call.

#include "engine/exported_call.h"
#include "engine/exports.h"
#include "symmetric.h"

namespace {

CipherSetup whiteboxSetup(int kind, Bytes key, Bytes iv)
{
    require(kind == 1, AVEN_E_WHITEBOX_KIND);
    const CipherSetup setup = {AVEN_CIPHER_SM4,  AVEN_MODE_CBC, AVEN_PADDING_PKCS7, key, iv,
                               input(nullptr, 0)};
    checkSetup(setup);
    return setup;
}

}  // namespace

int aven_wbsm4_encrypt(int kind, const unsigned char* key, uint32_t key_len,
                       const unsigned char* iv, uint32_t iv_len, const unsigned char* in,
                       uint32_t in_len, unsigned char* out, uint32_t* out_len)
{
    return answer("aven_wbsm4_encrypt", out, out_len, [&](const Engine& engine, Output& output) {
        const CipherSetup setup = whiteboxSetup(kind, input(key, key_len), input(iv, iv_len));
        const Bytes data = input(in, in_len);

        const size_t needed = encryptedLength(setup, data.size);
        output.setLength(encrypt(engine, setup, data, output.room(needed)));
    });
}

int aven_wbsm4_decrypt(int kind, const unsigned char* key, uint32_t key_len,
                       const unsigned char* iv, uint32_t iv_len, const unsigned char* in,
                       uint32_t in_len, unsigned char* out, uint32_t* out_len)
{
    return answer("aven_wbsm4_decrypt", out, out_len, [&](const Engine& engine, Output& output) {
        const CipherSetup setup = whiteboxSetup(kind, input(key, key_len), input(iv, iv_len));
        const Bytes data = input(in, in_len);

        output.setLength(decrypt(engine, setup, data, output.room(data.size)));
    });
}
