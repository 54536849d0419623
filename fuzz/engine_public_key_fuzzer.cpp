// Public-key ciphertexts: what is encrypted comes back, SM2 and OAEP refuse whatever was
// changed, and any bytes may be offered for decryption. Input: a byte each for the key's
// kind, the padding and the two flags; three for a change; then the bytes.

#include "engine_fuzz.h"

using fuzz::Damage;
using fuzz::Exact;
using fuzz::Outcome;

namespace {

constexpr size_t ROOM = 528;  // more than any ciphertext adds

void* keypairs[2];  // SM2, RSA

Outcome use(decltype(aven_crypto_public_encrypt)* function, const PkeyCipherParams& params,
            const std::string& bytes, size_t room)
{
    Exact in(bytes);
    return fuzz::withRoom(room, [&](unsigned char* out, uint32_t* length) {
        return function(&params, in.data(), in.size32(), out, length);
    });
}

Outcome decrypt(const PkeyCipherParams& params, const std::string& bytes)
{
    return use(aven_crypto_private_decrypt, params, bytes, bytes.size());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::startEngine();
    HOLDS(fuzz::readPrivateKey(0, fuzz::keyFile("sm2.key"), nullptr, &keypairs[0]) == AVEN_OK);
    HOLDS(fuzz::readPrivateKey(0, fuzz::keyFile("rsa.key"), nullptr, &keypairs[1]) == AVEN_OK);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    const bool isRsa = input.pick(2) == 1;
    PkeyCipherParams params = {};
    params.keypair = keypairs[isRsa ? 1 : 0];
    params.rsa_padding_e = static_cast<int>(input.pick(3));
    params.no_asn1 = static_cast<int>(input.pick(3));
    params.no_c1c3c2 = static_cast<int>(input.pick(3));
    const Damage damage(input);
    const std::string bytes = input.rest();

    const Outcome sealed = use(aven_crypto_public_encrypt, params, bytes, bytes.size() + ROOM);
    if (isSuccess(sealed)) {
        const Outcome opened = decrypt(params, sealed.bytes);
        HOLDS(isSuccess(opened) && opened.bytes == bytes);
        const Outcome forged = decrypt(params, damage.in(sealed.bytes));
        const bool isPkcs1 = isRsa && params.rsa_padding_e == AVEN_RSA_PKCS1;
        HOLDS(!isSuccess(forged) || isPkcs1);  // which has nothing to tell it by
        const Outcome tooSmall =
            use(aven_crypto_public_encrypt, params, bytes, sealed.bytes.size() - 8);
        HOLDS(tooSmall.code == AVEN_E_BUFFER_TOO_SMALL);
        PkeyCipherParams other = params;
        other.no_asn1 = 1 - params.no_asn1;
        HOLDS(isRsa || decrypt(other, sealed.bytes).code == AVEN_E_SM2_FORM_DIFFERS);
    } else {
        const bool isBadNumber =
            params.rsa_padding_e == 2 || params.no_asn1 == 2 || params.no_c1c3c2 == 2;
        HOLDS(isBadNumber || (isRsa ? bytes.size() > 190 : bytes.empty()));
    }
    const int code = decrypt(params, bytes).code;
    HOLDS(code == AVEN_OK || code == AVEN_E_DECRYPTION || code == AVEN_E_SM2_FORM_DIFFERS ||
          code == AVEN_E_SM2_FORM || code == AVEN_E_RSA_PADDING);
    return 0;
}
