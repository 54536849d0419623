#include "engine_double.h"

#include <cstring>

#include "engine_call.h"

#define EXPORT __attribute__((visibility("default")))

// The definitions below must agree with the contract to compile.
extern "C" {
#define DECLARE(result, name, params) EXPORT result name params;
AVEN_ENGINE_FUNCTIONS(DECLARE)
#undef DECLARE
EXPORT void engine_double_attach(doubles::EngineDouble* engine);
}

namespace {

using namespace doubles;

EngineDouble* state = nullptr;

using Bytes = const unsigned char*;

std::string copyOf(Bytes data, uint32_t size)
{
    return data == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(data), size);
}

// in, out, out_len: what most functions end with.
int transform(EngineCall& call, Bytes in, uint32_t inLen, unsigned char* out, uint32_t* outLen)
{
    call.bytes("in", in, inLen);
    call.number("in_len", inLen);
    call.offered(out, outLen, 1);
    return call.answer(out, outLen, copyOf(in, inLen));
}

void recordSymm(EngineCall& call, const void* params)
{
    call.address("params", params);
    if (params == nullptr)
        return;
    const auto& block = *static_cast<const SymmCipherParams*>(params);
    call.number("params.alg", block.alg);
    call.number("params.mode", block.mode);
    call.number("params.padding", block.padding);
    call.bytes("params.key", block.key, block.key_len);
    call.number("params.key_len", block.key_len);
    call.bytes("params.iv", block.iv, block.iv_len);
    call.number("params.iv_len", block.iv_len);
    call.bytes("params.aad", block.aad, block.aad_len);
    call.number("params.aad_len", block.aad_len);
}

void recordPkey(EngineCall& call, const void* params)
{
    call.address("params", params);
    if (params == nullptr)
        return;
    const auto& block = *static_cast<const PkeyCipherParams*>(params);
    call.address("params.keypair", block.keypair);
    call.number("params.rsa_padding_e", block.rsa_padding_e);
    call.number("params.no_asn1", block.no_asn1);
    call.number("params.no_c1c3c2", block.no_c1c3c2);
}

void recordMac(EngineCall& call, const void* params)
{
    call.address("params", params);
    if (params == nullptr)
        return;
    const auto& block = *static_cast<const MacParams*>(params);
    call.number("params.alg", block.alg);
    call.bytes("params.key", block.key, block.key_len);
    call.number("params.key_len", block.key_len);
}

void recordEnvelope(EngineCall& call, const void* params)
{
    call.address("params", params);
    if (params == nullptr)
        return;
    const auto& block = *static_cast<const EnvelopeParams*>(params);
    call.number("params.alg", block.alg);
    call.number("params.mode", block.mode);
    call.address("params.keypair", block.keypair);
    call.address("params.certificate", block.certificate);
}

int blockTransform(const char* function, void (*record)(EngineCall&, const void*),
                   const void* params, Bytes in, uint32_t inLen, unsigned char* out,
                   uint32_t* outLen)
{
    if (state == nullptr)
        return DETACHED;
    EngineCall call(*state, function);
    record(call, params);
    return transform(call, in, inLen, out, outLen);
}

int sessionTransform(const char* function, void* ke, Bytes in, uint32_t inLen, unsigned char* out,
                     uint32_t* outLen)
{
    if (state == nullptr)
        return DETACHED;
    EngineCall call(*state, function, out == nullptr);
    call.address("ke", ke);
    return transform(call, in, inLen, out, outLen);
}

int base64(const char* function, Bytes in, uint32_t inLen, unsigned char* out, uint32_t* outLen)
{
    if (state == nullptr)
        return DETACHED;
    EngineCall call(*state, function, out == nullptr);
    return transform(call, in, inLen, out, outLen);
}

int wbsm4(const char* function, int kind, Bytes key, uint32_t keyLen, Bytes iv, uint32_t ivLen,
          Bytes in, uint32_t inLen, unsigned char* out, uint32_t* outLen)
{
    if (state == nullptr)
        return DETACHED;
    EngineCall call(*state, function);
    call.number("kind", kind);
    call.bytes("key", key, keyLen);
    call.number("key_len", keyLen);
    call.bytes("iv", iv, ivLen);
    call.number("iv_len", ivLen);
    return transform(call, in, inLen, out, outLen);
}

}  // namespace

void engine_double_attach(EngineDouble* engine)
{
    state = engine;
}

int aven_global_init()
{
    if (state == nullptr)
        return DETACHED;
    return EngineCall(*state, __func__).answer();
}

int aven_global_cleanup()
{
    if (state == nullptr)
        return DETACHED;
    return EngineCall(*state, __func__).answer();
}

int aven_global_set_logger(const char* target)
{
    if (state == nullptr)
        return DETACHED;
    EngineCall call(*state, __func__);
    call.text("target", target);
    return call.answer();
}

const char* aven_version()
{
    if (state == nullptr)
        return nullptr;
    return EngineCall(*state, __func__).answerText("engine double 1.0");
}

const char* aven_strerror(int code)
{
    if (state == nullptr)
        return nullptr;
    EngineCall call(*state, __func__);
    call.number("code", code);
    return call.answerText("text of " + std::to_string(code));
}

int aven_crypto_base64_encode(Bytes in, uint32_t in_len, unsigned char* out, uint32_t* out_len)
{
    return base64(__func__, in, in_len, out, out_len);
}

int aven_crypto_base64_decode(Bytes in, uint32_t in_len, unsigned char* out, uint32_t* out_len)
{
    return base64(__func__, in, in_len, out, out_len);
}

int aven_ke_new(void** ke)
{
    if (state == nullptr)
        return DETACHED;
    EngineCall call(*state, __func__);
    call.address("ke", *ke);
    return call.giveObject(state->sessions, ke);
}

int aven_ke_free(void* ke)
{
    if (state == nullptr)
        return DETACHED;
    EngineCall call(*state, __func__);
    call.address("ke", ke);
    state->sessions.free(ke);
    return call.answer();
}

int aven_ke_set_public_key(void* ke, Bytes sig_key, uint32_t sig_key_len, Bytes enc_key,
                           uint32_t enc_key_len, const char* password)
{
    if (state == nullptr)
        return DETACHED;
    EngineCall call(*state, __func__);
    call.address("ke", ke);
    call.bytes("sig_key", sig_key, sig_key_len);
    call.number("sig_key_len", sig_key_len);
    call.bytes("enc_key", enc_key, enc_key_len);
    call.number("enc_key_len", enc_key_len);
    call.text("password", password);
    return call.answer();
}

int aven_ke_set_certificate(void* ke, Bytes sig_cert, uint32_t sig_cert_len, Bytes enc_cert,
                            uint32_t enc_cert_len, const char* password)
{
    if (state == nullptr)
        return DETACHED;
    EngineCall call(*state, __func__);
    call.address("ke", ke);
    call.bytes("sig_cert", sig_cert, sig_cert_len);
    call.number("sig_cert_len", sig_cert_len);
    call.bytes("enc_cert", enc_cert, enc_cert_len);
    call.number("enc_cert_len", enc_cert_len);
    call.text("password", password);
    return call.answer();
}

int aven_ke_set_root_certificate(void* ke, const char* ca_file, const char* ca_path)
{
    if (state == nullptr)
        return DETACHED;
    EngineCall call(*state, __func__);
    call.address("ke", ke);
    call.text("ca_file", ca_file);
    call.text("ca_path", ca_path);
    return call.answer();
}

int aven_ke_client_hello(void* ke, unsigned char* out, uint32_t* out_len)
{
    if (state == nullptr)
        return DETACHED;
    EngineCall call(*state, __func__);
    call.address("ke", ke);
    call.offered(out, out_len, 0);
    return call.answer(out, out_len, pattern(32));
}

int aven_ke_client_key_exchange(void* ke, Bytes srvr_rand, uint32_t srvr_rand_len,
                                Bytes srvr_sig_cert, uint32_t srvr_sig_cert_len,
                                Bytes srvr_enc_cert, uint32_t srvr_enc_cert_len, Bytes srvr_sign,
                                uint32_t srvr_sign_len, unsigned char* out, uint32_t* out_len)
{
    if (state == nullptr)
        return DETACHED;
    EngineCall call(*state, __func__);
    call.address("ke", ke);
    call.bytes("srvr_rand", srvr_rand, srvr_rand_len);
    call.number("srvr_rand_len", srvr_rand_len);
    call.bytes("srvr_sig_cert", srvr_sig_cert, srvr_sig_cert_len);
    call.number("srvr_sig_cert_len", srvr_sig_cert_len);
    call.bytes("srvr_enc_cert", srvr_enc_cert, srvr_enc_cert_len);
    call.number("srvr_enc_cert_len", srvr_enc_cert_len);
    call.bytes("srvr_sign", srvr_sign, srvr_sign_len);
    call.number("srvr_sign_len", srvr_sign_len);
    call.offered(out, out_len, 0);
    return call.answer(out, out_len, pattern(200));
}

int aven_ke_encrypt(void* ke, Bytes in, uint32_t in_len, unsigned char* out, uint32_t* out_len)
{
    return sessionTransform(__func__, ke, in, in_len, out, out_len);
}

int aven_ke_decrypt(void* ke, Bytes in, uint32_t in_len, unsigned char* out, uint32_t* out_len)
{
    return sessionTransform(__func__, ke, in, in_len, out, out_len);
}

int aven_ke_hmac(void* ke, Bytes in, uint32_t in_len, unsigned char* out, uint32_t* out_len)
{
    return sessionTransform(__func__, ke, in, in_len, out, out_len);
}

int aven_ke_cmac(void* ke, Bytes in, uint32_t in_len, unsigned char* out, uint32_t* out_len)
{
    return sessionTransform(__func__, ke, in, in_len, out, out_len);
}

int aven_crypto_public_encrypt(const void* params, Bytes in, uint32_t in_len, unsigned char* out,
                               uint32_t* out_len)
{
    return blockTransform(__func__, recordPkey, params, in, in_len, out, out_len);
}

int aven_crypto_private_decrypt(const void* params, Bytes in, uint32_t in_len, unsigned char* out,
                                uint32_t* out_len)
{
    return blockTransform(__func__, recordPkey, params, in, in_len, out, out_len);
}

int aven_crypto_encrypt(const void* params, Bytes in, uint32_t in_len, unsigned char* out,
                        uint32_t* out_len, int tag_len, unsigned char* tag)
{
    if (state == nullptr)
        return DETACHED;
    EngineCall call(*state, __func__);
    recordSymm(call, params);
    call.number("tag_len", tag_len);
    call.output("tag", tag, 512, 0);
    if (tag != nullptr && (call.step().code == 0 || call.step().tag)) {
        const std::string bytes =
            call.step().tag.value_or(pattern(static_cast<size_t>(std::max(tag_len, 0))));
        memcpy(tag, bytes.data(), std::min<size_t>(bytes.size(), 512));
    }
    return transform(call, in, in_len, out, out_len);
}

int aven_crypto_decrypt(const void* params, Bytes in, uint32_t in_len, Bytes tag, uint32_t tag_len,
                        unsigned char* out, uint32_t* out_len)
{
    if (state == nullptr)
        return DETACHED;
    EngineCall call(*state, __func__);
    recordSymm(call, params);
    call.bytes("tag", tag, tag_len);
    call.number("tag_len", tag_len);
    return transform(call, in, in_len, out, out_len);
}

int aven_crypto_gen_symmkey(int type, unsigned char* out, uint32_t* out_len)
{
    if (state == nullptr)
        return DETACHED;
    EngineCall call(*state, __func__);
    call.number("type", type);
    call.offered(out, out_len, 0);
    return call.answer(out, out_len, pattern(16));
}

int aven_crypto_hmac(const void* params, Bytes in, uint32_t in_len, unsigned char* out,
                     uint32_t* out_len)
{
    return blockTransform(__func__, recordMac, params, in, in_len, out, out_len);
}

int aven_crypto_cmac(const void* params, Bytes in, uint32_t in_len, unsigned char* out,
                     uint32_t* out_len)
{
    return blockTransform(__func__, recordMac, params, in, in_len, out, out_len);
}

int aven_keypair_unmarshal(int type, Bytes private_key, uint32_t private_key_len, Bytes public_key,
                           uint32_t public_key_len, const char* password, void** keypair)
{
    if (state == nullptr)
        return DETACHED;
    EngineCall call(*state, __func__);
    call.number("type", type);
    call.bytes("private_key", private_key, private_key_len);
    call.number("private_key_len", private_key_len);
    call.bytes("public_key", public_key, public_key_len);
    call.number("public_key_len", public_key_len);
    call.text("password", password);
    call.address("keypair", *keypair);
    return call.giveObject(state->keypairs, keypair);
}

int aven_keypair_free(void* keypair)
{
    if (state == nullptr)
        return DETACHED;
    EngineCall call(*state, __func__);
    call.address("keypair", keypair);
    state->keypairs.free(keypair);
    return call.answer();
}

int aven_certificate_unmarshal(Bytes cert, uint32_t cert_len, const char* password,
                               void** certificate)
{
    if (state == nullptr)
        return DETACHED;
    EngineCall call(*state, __func__);
    call.bytes("cert", cert, cert_len);
    call.number("cert_len", cert_len);
    call.text("password", password);
    call.address("certificate", *certificate);
    return call.giveObject(state->certificates, certificate);
}

int aven_certificate_free(void* certificate)
{
    if (state == nullptr)
        return DETACHED;
    EngineCall call(*state, __func__);
    call.address("certificate", certificate);
    state->certificates.free(certificate);
    return call.answer();
}

int aven_crypto_kdf(int alg, Bytes in, uint32_t in_len, uint32_t out_len, unsigned char* out)
{
    if (state == nullptr)
        return DETACHED;
    EngineCall call(*state, __func__);
    call.number("alg", alg);
    call.bytes("in", in, in_len);
    call.number("in_len", in_len);
    call.offered(out, &out_len, 1);
    call.start();
    call.write(out, out_len, pattern(out_len));
    return call.finish(call.step());
}

int aven_crypto_pkcs7_encrypt(const void* params, Bytes in, uint32_t in_len, unsigned char* out,
                              uint32_t* out_len)
{
    return blockTransform(__func__, recordEnvelope, params, in, in_len, out, out_len);
}

int aven_crypto_pkcs7_decrypt(const void* params, Bytes in, uint32_t in_len, unsigned char* out,
                              uint32_t* out_len)
{
    return blockTransform(__func__, recordEnvelope, params, in, in_len, out, out_len);
}

int aven_wbsm4_encrypt(int kind, Bytes key, uint32_t key_len, Bytes iv, uint32_t iv_len, Bytes in,
                       uint32_t in_len, unsigned char* out, uint32_t* out_len)
{
    return wbsm4(__func__, kind, key, key_len, iv, iv_len, in, in_len, out, out_len);
}

int aven_wbsm4_decrypt(int kind, Bytes key, uint32_t key_len, Bytes iv, uint32_t iv_len, Bytes in,
                       uint32_t in_len, unsigned char* out, uint32_t* out_len)
{
    return wbsm4(__func__, kind, key, key_len, iv, iv_len, in, in_len, out, out_len);
}
