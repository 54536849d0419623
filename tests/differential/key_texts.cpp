// Keys as Botan writes them: whether the engine reads them as the same keys, and refuses those with
// a changed bit in a number or a point as Botan does.

#include <botan/base64.h>
#include <botan/data_src.h>
#include <botan/ecdsa.h>
#include <botan/pkcs8.h>
#include <botan/system_rng.h>
#include <botan/x509_key.h>

#include "differential/algorithm.h"
#include "differential/prepared_keys.h"

namespace differential {

namespace {

using Botan::BigInt;

// A key of both libraries.
struct Subject {
    const Botan::Private_Key& written;  // as Botan writes it
    const Botan::Private_Key& used;     // as Botan encrypts with it
    const char* padding;
};

std::string base64(const std::string& bytes)
{
    return Botan::base64_encode(botan::bytesOf(bytes), bytes.size());
}

// ---- Texts of the right key

void comparePrivate(Trial& trial, const Subject& key, const char* what, const std::string& text,
                    const char* password = nullptr)
{
    const engine::KeyPair read(text, "", password);
    const std::string data = trial.bytes(1 + trial.below(40));
    const Answer encrypted =
        botan::answerOf([&] { return botan::encrypt(key.used, key.padding, data, trial); });
    must(encrypted.has_value(), "Botan does not encrypt");
    trial.expectSame(what, read.isThere() ? read.decrypt({}, *encrypted) : std::nullopt, data);
}

void comparePublic(Trial& trial, const Subject& key, const char* what, const std::string& text)
{
    const engine::KeyPair read("", text);
    const std::string data = trial.bytes(1 + trial.below(40));
    const Answer encrypted = read.isThere() ? read.encrypt({}, data) : std::nullopt;
    const Botan::PK_Decryptor_EME decryptor(key.used, Botan::system_rng(), key.padding);
    trial.expectSame(what, encrypted ? botan::decrypt(decryptor, *encrypted) : std::nullopt, data);
}

void compareEncrypted(Trial& trial, const Subject& key)
{
    static const char* const ciphers[] = {"AES-128/CBC", "AES-192/CBC", "AES-256/CBC"};
    static const char* const hashes[] = {"SHA-160", "SHA-256", "SHA-512"};
    const std::string password = base64(trial.bytes(1 + trial.below(40)));
    botan::Chance chance(trial);
    const std::string der = botan::textOf(Botan::PKCS8::BER_encode_encrypted_pbkdf_iter(
        key.written, chance, password, 1000 + trial.below(2000), ciphers[trial.below(3)],
        hashes[trial.below(3)]));
    comparePrivate(trial, key, "encrypted private key", base64(der), password.c_str());

    const std::string wrong = base64(trial.bytes(12));
    Botan::DataSource_Memory source(der);
    const Answer other = botan::answerOf([&] {
        Botan::PKCS8::load_key(source, wrong);
        return "read";
    });
    const bool isThere = engine::KeyPair(base64(der), "", wrong.c_str()).isThere();
    trial.expectSameVerdict("another password", der, isThere ? Answer("read") : std::nullopt,
                            other);
}

void compareTexts(Trial& trial, const Subject& key)
{
    comparePrivate(trial, key, "private key in PEM", Botan::PKCS8::PEM_encode(key.written));
    comparePrivate(trial, key, "private key in DER",
                   base64(botan::textOf(Botan::PKCS8::BER_encode(key.written))));
    comparePublic(trial, key, "public key in PEM", Botan::X509::PEM_encode(key.written));
    comparePublic(trial, key, "public key in DER",
                  base64(botan::textOf(Botan::X509::BER_encode(key.written))));
    compareEncrypted(trial, key);
}

// ---- Texts with a changed bit

// Botan looks at a key's numbers when it is asked to.
template <class Load>
Answer botanReads(Load load)
{
    return botan::answerOf([&]() -> Answer {
        const std::unique_ptr<const Botan::Public_Key> key(load());
        return key->check_key(Botan::system_rng(), true) ? Answer("read") : std::nullopt;
    });
}

void compareDamagedPrivate(Trial& trial, const std::string& der)
{
    const bool isThere = engine::KeyPair(base64(der), "").isThere();
    Botan::DataSource_Memory source(der);
    trial.expectSameVerdict("a bit of the private key", der,
                            isThere ? Answer("read") : std::nullopt,
                            botanReads([&] { return Botan::PKCS8::load_key(source).release(); }));
}

void compareDamagedPublic(Trial& trial, const std::string& der)
{
    const bool isThere = engine::KeyPair("", base64(der)).isThere();
    Botan::DataSource_Memory source(der);
    trial.expectSameVerdict("a bit of the public key", der, isThere ? Answer("read") : std::nullopt,
                            botanReads([&] { return Botan::X509::load_key(source); }));
}

// The first bit of the bytes in the DER.
size_t bitOf(const std::string& der, const std::string& bytes)
{
    const size_t at = der.find(bytes);
    must(at != std::string::npos, "a number is not in the key's text");
    return 8 * at;
}

// ---- The kinds of keys

void compareSm2(Trial& trial)
{
    botan::Chance chance(trial);
    const Botan::ECDSA_PrivateKey written(chance, sm2Curve());
    const Botan::SM2_PrivateKey used(chance, sm2Curve(), written.private_value());
    const Subject key = {written, used, "SM3"};
    compareTexts(trial, key);
    for (auto encoding : {Botan::PointGFp::COMPRESSED, Botan::PointGFp::HYBRID}) {
        Botan::ECDSA_PublicKey publicKey(sm2Curve(), written.public_point());
        publicKey.set_point_encoding(encoding);
        comparePublic(trial, key, "public key with its point in another form",
                      Botan::X509::PEM_encode(publicKey));
    }

    const std::string privateDer = botan::textOf(Botan::PKCS8::BER_encode(written));
    const std::string publicDer = botan::textOf(Botan::X509::BER_encode(written));
    // Botan writes it without zeros at its start, which a scalar may have.
    const std::string scalar = botan::textOf(BigInt::encode(written.private_value()));
    const std::string point =
        botan::textOf(written.public_point().encode(Botan::PointGFp::UNCOMPRESSED)).substr(1);
    for (size_t bit : trial.bits(8 * scalar.size()))
        compareDamagedPrivate(trial, flipped(privateDer, bitOf(privateDer, scalar) + bit));
    for (size_t bit : trial.bits(8 * point.size())) {
        compareDamagedPrivate(trial, flipped(privateDer, bitOf(privateDer, point) + bit));
        compareDamagedPublic(trial, flipped(publicDer, bitOf(publicDer, point) + bit));
    }
}

void compareRsa(Trial& trial)
{
    const Botan::RSA_PrivateKey& key = *rsaKey(2048).botan;
    compareTexts(trial, {key, key, "OAEP(SHA-256)"});

    const std::string der = botan::textOf(Botan::PKCS8::BER_encode(key));
    for (const BigInt* number : {&key.get_n(), &key.get_e(), &key.get_d(), &key.get_p(),
                                 &key.get_q(), &key.get_d1(), &key.get_d2(), &key.get_c()}) {
        const std::string bytes = botan::textOf(BigInt::encode(*number));
        const size_t bit = bitOf(der, bytes) + trial.below(8 * bytes.size());
        compareDamagedPrivate(trial, flipped(der, bit));
    }

    // Behind the first byte, which has the sign and, of the modulus, the size.
    const std::string publicDer = botan::textOf(Botan::X509::BER_encode(key));
    for (const BigInt* number : {&key.get_n(), &key.get_e()}) {
        const std::string bytes = botan::textOf(BigInt::encode(*number));
        const size_t bit = bitOf(publicDer, bytes) + 8 + trial.below(8 * (bytes.size() - 1));
        compareDamagedPublic(trial, flipped(publicDer, bit));
    }
}

}  // namespace

void addKeyTexts(Algorithms& all)
{
    all.push_back({"texts of SM2 keys", 10, compareSm2});
    all.push_back({"texts of RSA keys", 3, compareRsa});
}

}  // namespace differential
