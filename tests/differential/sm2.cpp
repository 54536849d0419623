// SM2 encryption (GB/T 32918.4) in its four forms. Botan knows ASN.1 with C1C3C2 alone; the others
// are rearranged for it. It wants DER, where the engine reads BER: encodings between are not
// compared.

#include <botan/ber_dec.h>
#include <botan/der_enc.h>
#include <botan/numthry.h>
#include <botan/system_rng.h>

#include <algorithm>

#include "differential/algorithm.h"
#include "differential/prepared_keys.h"

namespace differential {

namespace {

using Botan::BigInt;
using Botan::PointGFp;

constexpr size_t COORDINATE = 32;
constexpr size_t DIGEST = 32;
constexpr PkeyCipherParams forms[] = {
    {nullptr, 0, 0, 0}, {nullptr, 0, 0, 1}, {nullptr, 0, 1, 0}, {nullptr, 0, 1, 1}};

std::string nameOf(const PkeyCipherParams& form)
{
    return std::string("SM2 ") + (form.no_asn1 == 0 ? "ASN.1 " : "raw ") +
           (form.no_c1c3c2 == 0 ? "C1C3C2" : "C1C2C3");
}

// ---- A ciphertext in its parts

struct Parts {
    BigInt x, y;         // C1
    std::string digest;  // C3
    std::string data;    // C2
};

std::string coordinate(const BigInt& number)
{
    return botan::textOf(BigInt::encode_1363(number, COORDINATE));
}

std::vector<uint8_t> vectorOf(const std::string& text)
{
    return {text.begin(), text.end()};
}

std::string written(const Parts& parts, const PkeyCipherParams& form)
{
    const std::string& third = form.no_c1c3c2 == 0 ? parts.digest : parts.data;
    const std::string& fourth = form.no_c1c3c2 == 0 ? parts.data : parts.digest;
    if (form.no_asn1 == 1)
        return '\4' + coordinate(parts.x) + coordinate(parts.y) + third + fourth;
    std::vector<uint8_t> der;
    Botan::DER_Encoder(der)
        .start_cons(Botan::SEQUENCE)
        .encode(parts.x)
        .encode(parts.y)
        .encode(vectorOf(third), Botan::OCTET_STRING)
        .encode(vectorOf(fourth), Botan::OCTET_STRING)
        .end_cons();
    return botan::textOf(der);
}

Parts readRaw(const std::string& text, const PkeyCipherParams& form)
{
    if (text.size() <= 1 + 2 * COORDINATE + DIGEST || text[0] != 4)
        throw Botan::Decoding_Error("raw");
    const uint8_t* at = botan::bytesOf(text) + 1;
    const std::string behind = text.substr(1 + 2 * COORDINATE);
    const size_t digestAt = form.no_c1c3c2 == 0 ? 0 : behind.size() - DIGEST;
    std::string data = behind;
    data.erase(digestAt, DIGEST);
    return {BigInt(at, COORDINATE), BigInt(at + COORDINATE, COORDINATE),
            behind.substr(digestAt, DIGEST), data};
}

Parts readAsn1(const std::string& text, const PkeyCipherParams& form)
{
    BigInt x, y;
    std::vector<uint8_t> third, fourth;
    Botan::BER_Decoder(botan::bytesOf(text), text.size())
        .start_cons(Botan::SEQUENCE)
        .decode(x)
        .decode(y)
        .decode(third, Botan::OCTET_STRING)
        .decode(fourth, Botan::OCTET_STRING)
        .end_cons()
        .verify_end();
    if (form.no_c1c3c2 == 1)
        third.swap(fourth);
    // Botan would compare as many bytes as a digest has, even if there are fewer.
    if (third.size() != DIGEST || fourth.empty())
        throw Botan::Decoding_Error("sizes");
    return {x, y, botan::textOf(third), botan::textOf(fourth)};
}

// Throws what Botan does if it is wrong. It must be in DER, as Botan wants of its own form.
Parts read(const std::string& text, const PkeyCipherParams& form)
{
    const Parts parts = form.no_asn1 == 1 ? readRaw(text, form) : readAsn1(text, form);
    if (written(parts, form) != text)
        throw Botan::Decoding_Error("DER");
    return parts;
}

// ---- Both sides

std::string botanEncrypt(const std::string& text, const PkeyCipherParams& form, Trial& trial)
{
    const std::string encrypted = botan::encrypt(*sm2Key().botan, "SM3", text, trial);
    return written(read(encrypted, forms[0]), form);
}

Answer botanDecrypt(const std::string& ciphertext, const PkeyCipherParams& form)
{
    using Decryptor = Botan::PK_Decryptor_EME;
    const Decryptor& decryptor = kept<Decryptor>(std::string("SM2"), [] {
        return std::make_unique<Decryptor>(*sm2Key().botan, Botan::system_rng(), "SM3");
    });
    const Answer rearranged =
        botan::answerOf([&] { return written(read(ciphertext, form), forms[0]); });
    return rearranged ? botan::decrypt(decryptor, *rearranged) : std::nullopt;
}

void compareDecryption(Trial& trial, const char* what, const std::string& ciphertext,
                       const PkeyCipherParams& form)
{
    trial.expectSameVerdict(what, ciphertext, sm2Key().engine.decrypt(form, ciphertext),
                            botanDecrypt(ciphertext, form));
}

void compareBothWays(Trial& trial, const PkeyCipherParams& form)
{
    // The engine encrypts no empty text.
    const std::string text = trial.bytes(std::max<size_t>(1, trial.size(DIGEST)));
    const engine::KeyPair& key = sm2Key().engine;
    const Answer byEngine = key.encrypt(form, text);
    must(byEngine.has_value(), "the engine does not encrypt");
    trial.expectSame("Botan decrypts the engine's", text, botanDecrypt(*byEngine, form));
    trial.expectSame("the engine decrypts Botan's",
                     key.decrypt(form, botanEncrypt(text, form, trial)), text);
    for (const PkeyCipherParams& other : forms)
        if (other.no_asn1 != form.no_asn1 || other.no_c1c3c2 != form.no_c1c3c2)
            compareDecryption(trial, "ciphertext in another form", *byEngine, other);
}

// Any bit of C1, C3 and C2, and of what is around them; any length.
void compareCiphertexts(Trial& trial, const PkeyCipherParams& form)
{
    const std::string right = botanEncrypt(trial.bytes(1 + trial.below(12)), form, trial);
    for (size_t bit : trial.bits(8 * right.size()))
        compareDecryption(trial, "a bit of the ciphertext", flipped(right, bit), form);
    compareDecryption(trial, "ciphertext that is cut",
                      right.substr(0, trial.sizeBelow(right.size())), form);
    compareDecryption(trial, "ciphertext with more behind it",
                      right + trial.bytes(1 + trial.below(40)), form);
}

// ---- Points

// What belongs to a point C1, which may be anywhere: the arithmetic does not use the curve's b.
Parts sealedAt(const PointGFp& point, const std::string& text)
{
    const PointGFp shared = sm2Key().botan->private_value() * point;
    const std::string x = coordinate(shared.get_affine_x()), y = coordinate(shared.get_affine_y());
    std::string data = botan::kdf(AVEN_HASH_SM3, x + y, text.size());
    for (size_t i = 0; i < text.size(); ++i)
        data[i] = static_cast<char>(data[i] ^ text[i]);
    return {point.get_affine_x(), point.get_affine_y(), botan::hash("SM3", x + text + y), data};
}

BigInt randomBelow(Trial& trial, const BigInt& limit)
{
    botan::Chance chance(trial);
    return BigInt::random_integer(chance, 1, limit);
}

// A point whose x is below the limit.
PointGFp pointBelow(Trial& trial, const BigInt& limit)
{
    const Botan::EC_Group& curve = sm2Curve();
    const BigInt& p = curve.get_p();
    for (;;) {
        const BigInt x = randomBelow(trial, limit);
        const BigInt y = Botan::ressol((x * x * x + curve.get_a() * x + curve.get_b()) % p, p);
        if (y > 0)
            return curve.point(x, y);
    }
}

void comparePoints(Trial& trial, const PkeyCipherParams& form)
{
    const Botan::EC_Group& curve = sm2Curve();
    const BigInt& p = curve.get_p();
    const std::string text = trial.bytes(1 + trial.below(40));

    Parts parts = sealedAt(curve.get_base_point(), text);
    compareDecryption(trial, "the base point", written(parts, form), form);
    parts.y = p - parts.y;
    compareDecryption(trial, "the point's opposite", written(parts, form), form);

    parts = sealedAt(curve.point(randomBelow(trial, p), randomBelow(trial, p)), text);
    compareDecryption(trial, "a point of another curve", written(parts, form), form);

    const BigInt above = BigInt::power_of_2(8 * COORDINATE) - p;
    parts = sealedAt(pointBelow(trial, above), text);
    compareDecryption(trial, "a point with a small x", written(parts, form), form);
    parts.x += p;
    compareDecryption(trial, "the same with p added to x", written(parts, form), form);

    parts.x = parts.y = 0;
    compareDecryption(trial, "no point", written(parts, form), form);
}

}  // namespace

void addSm2(Algorithms& all)
{
    for (const PkeyCipherParams& form : forms)
        all.push_back({nameOf(form), 40, [&form](Trial& trial) {
                           compareBothWays(trial, form);
                           compareCiphertexts(trial, form);
                           comparePoints(trial, form);
                       }});
}

}  // namespace differential
