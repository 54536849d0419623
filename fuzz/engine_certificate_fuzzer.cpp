// Certificate texts: from what is read, a public key is read too and envelopes can be made,
// and PEM reads the same when it comes in Base64. Input: a byte for the form, then the text,
// or with form 1 the DER.

#include "engine_fuzz.h"
#include "oracles.h"

using fuzz::Certificate;
using fuzz::Exact;
using fuzz::KeyPair;
using fuzz::Outcome;

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::startEngine();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    const bool isDer = input.pick(2) == 1;
    const std::string text = isDer ? fuzz::toBase64(input.rest()) : input.rest();
    Certificate certificate;
    const int code = fuzz::readCertificate(text, &certificate.value);
    if (fuzz::isPem(text)) {
        Certificate wrapped;
        HOLDS(fuzz::readCertificate(fuzz::toBase64(text), &wrapped.value) == code);
    }

    KeyPair holder;
    const int holderCode = fuzz::readPublicKey(AVEN_KEY_ANY, text, &holder.value);
    HOLDS(code == holderCode || code == AVEN_E_KEY_ROLE);
    if (code != AVEN_OK)
        return 0;

    // An envelope is longer than its content by at most 800 bytes and the issuer's name.
    EnvelopeParams params = {};
    params.alg = AVEN_CIPHER_SM4;
    params.mode = AVEN_MODE_CBC;
    params.certificate = certificate.value;
    Exact in(std::string("text"));
    const Outcome sealed =
        fuzz::withRoom(in.size() + 800 + text.size(), [&](unsigned char* out, uint32_t* length) {
            return aven_crypto_pkcs7_encrypt(&params, in.data(), in.size32(), out, length);
        });
    HOLDS(isSuccess(sealed));
    return 0;
}
