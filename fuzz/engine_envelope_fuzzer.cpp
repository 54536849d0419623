// Envelopes: what is sealed opens to the same, not with another key, and with a tag and one
// byte changed to nothing else. Any bytes may be offered for opening. Input: a byte each for the
// key's kind, cipher and mode, and the room that is missing; three for a change; then the bytes.

#include <algorithm>

#include "engine_fuzz.h"

using fuzz::Damage;
using fuzz::Exact;
using fuzz::Outcome;

namespace {

constexpr size_t ROOM = 3072;

void* keypairs[2];  // SM2, RSA
void* otherKeypairs[2];
void* certificates[2];

Outcome use(decltype(aven_crypto_pkcs7_encrypt)* function, const EnvelopeParams& params,
            const std::string& bytes, size_t room)
{
    Exact in(bytes);
    return fuzz::withRoom(room, [&](unsigned char* out, uint32_t* length) {
        return function(&params, in.data(), in.size32(), out, length);
    });
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::startEngine();
    int kind = 0;
    for (const std::string name : {"sm2", "rsa"}) {
        HOLDS(fuzz::readPrivateKey(0, fuzz::keyFile(name + ".key"), nullptr, &keypairs[kind]) ==
              AVEN_OK);
        HOLDS(fuzz::readPrivateKey(0, fuzz::keyFile(name + "_other.key"), nullptr,
                                   &otherKeypairs[kind]) == AVEN_OK);
        HOLDS(fuzz::readCertificate(fuzz::keyFile(name + ".crt"), &certificates[kind]) == AVEN_OK);
        ++kind;
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    const unsigned kind = input.pick(2);
    EnvelopeParams params = {};
    params.alg = static_cast<int>(input.pick(9));
    params.mode = static_cast<int>(input.pick(8));
    params.keypair = keypairs[kind];
    params.certificate = certificates[kind];
    const size_t missing = input.pick(20);
    const Damage damage(input);
    const std::string bytes = input.rest();
    const auto open = [&](const std::string& envelope, size_t room) {
        return use(aven_crypto_pkcs7_decrypt, params, envelope, room);
    };

    open(bytes, bytes.size() - std::min(bytes.size(), missing));

    const Outcome sealed = use(aven_crypto_pkcs7_encrypt, params, bytes, bytes.size() + ROOM);
    if (!isSuccess(sealed)) {
        HOLDS(sealed.code == AVEN_E_CIPHER_NUMBER || sealed.code == AVEN_E_MODE_NUMBER ||
              sealed.code == AVEN_E_ENVELOPE_ALGORITHM);
        return 0;
    }
    const Outcome opened = open(sealed.bytes, sealed.bytes.size());
    HOLDS(isSuccess(opened) && opened.bytes == bytes);
    params.keypair = otherKeypairs[kind];
    HOLDS(open(sealed.bytes, sealed.bytes.size()).code == AVEN_E_ENVELOPE_OPEN);
    params.keypair = keypairs[kind];
    const Outcome forged = open(damage.in(sealed.bytes), sealed.bytes.size());
    if (params.mode == AVEN_MODE_GCM)  // the recipient's name, for one, is not protected
        HOLDS(!isSuccess(forged) || forged.bytes == bytes);
    return 0;
}
