#include "differential/prepared_keys.h"

#include <botan/ecdsa.h>
#include <botan/pkcs8.h>
#include <botan/system_rng.h>

namespace differential {

const Botan::EC_Group& sm2Curve()
{
    static const Botan::EC_Group curve("sm2p256v1");
    return curve;
}

std::string privatePem(const Botan::SM2_PrivateKey& key)
{
    return Botan::PKCS8::PEM_encode(
        Botan::ECDSA_PrivateKey(Botan::system_rng(), key.domain(), key.private_value()));
}

std::string privatePem(const Botan::RSA_PrivateKey& key)
{
    return Botan::PKCS8::PEM_encode(key);
}

const Sm2Key& sm2Key()
{
    return kept<Sm2Key>(std::string("SM2"), [] {
        Trial trial("SM2", 1, 0);
        botan::Chance chance(trial);
        return std::make_unique<Sm2Key>(
            std::make_unique<Botan::SM2_PrivateKey>(chance, sm2Curve()));
    });
}

const RsaKey& rsaKey(size_t bits)
{
    return kept<RsaKey>(bits, [bits] {
        Trial trial("RSA", bits, 0);
        botan::Chance chance(trial);
        return std::make_unique<RsaKey>(std::make_unique<Botan::RSA_PrivateKey>(chance, bits));
    });
}

std::string botan::encrypt(const Botan::Public_Key& key, const std::string& padding,
                           const std::string& text, Trial& trial)
{
    Chance chance(trial);
    const Botan::PK_Encryptor_EME encryptor(key, chance, padding);
    return textOf(encryptor.encrypt(bytesOf(text), text.size(), chance));
}

Answer botan::decrypt(const Botan::PK_Decryptor& key, const std::string& ciphertext)
{
    return answerOf([&] { return textOf(key.decrypt(bytesOf(ciphertext), ciphertext.size())); });
}

}  // namespace differential
