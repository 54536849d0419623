// Public-key encryption and private-key decryption, for the key's kind.

#include <cstring>

#include "engine/exported_call.h"
#include "engine/exports.h"
#include "keys.h"
#include "rsa.h"
#include "sm2.h"

namespace {

// Numbers that do not concern the key's kind must be valid all the same.
struct PkeyCall {
    std::shared_ptr<const KeyPair> keyPair;
    RsaPadding rsaPadding;
    Sm2Form sm2Form;

    PkeyCall(const Engine& engine, const PkeyCipherParams& params)
        : keyPair(keyPairOf(engine, params.keypair)),
          rsaPadding{params.rsa_padding_e},
          sm2Form{params.no_asn1 == 0, params.no_c1c3c2 == 0}
    {
        require(rsaPadding.number == AVEN_RSA_OAEP || rsaPadding.number == AVEN_RSA_PKCS1,
                AVEN_E_RSA_PADDING);
        for (int flag : {params.no_asn1, params.no_c1c3c2})
            require(flag == 0 || flag == 1, AVEN_E_SM2_FORM);
    }

    const Key& key() const { return keyPair->key; }
};

template <class Result>
void put(Output& output, const Result& result)
{
    memcpy(output.room(result.size()), result.data(), result.size());
    output.setLength(result.size());
}

}  // namespace

int aven_crypto_public_encrypt(const void* params, const unsigned char* in, uint32_t in_len,
                               unsigned char* out, uint32_t* out_len)
{
    return answer("aven_crypto_public_encrypt", out, out_len,
                  [&](const Engine& engine, Output& output) {
                      const PkeyCall call(engine, parameterBlock<PkeyCipherParams>(params));
                      const Bytes data = input(in, in_len);

                      if (call.key().kind == AVEN_KEY_RSA)
                          put(output, rsaEncrypt(engine, call.key(), call.rsaPadding, data));
                      else
                          put(output, sm2Encrypt(engine, call.key(), call.sm2Form, data));
                  });
}

int aven_crypto_private_decrypt(const void* params, const unsigned char* in, uint32_t in_len,
                                unsigned char* out, uint32_t* out_len)
{
    return answer("aven_crypto_private_decrypt", out, out_len,
                  [&](const Engine& engine, Output& output) {
                      const PkeyCall call(engine, parameterBlock<PkeyCipherParams>(params));
                      require(call.keyPair->isPrivate, AVEN_E_KEY_NOT_PRIVATE);
                      const Bytes data = input(in, in_len);

                      if (call.key().kind == AVEN_KEY_RSA)
                          put(output, rsaDecrypt(engine, call.key(), call.rsaPadding, data));
                      else
                          put(output, sm2Decrypt(engine, call.key(), call.sm2Form, data));
                  });
}
