// Published vectors of public-key encryption, through the plug-in and the development
// engine.
#include <set>

#include "support/vectors.h"

namespace {

using support::Answer;
using support::ask;
using support::readVectors;
using support::Tally;
using support::toUrlBase64;
using support::Vector;
using Parameters = support::DevkitHost::Parameters;

// ---- DER (X.690)

std::string der(unsigned char tag, const std::string& content)
{
    std::string length;
    for (size_t rest = content.size(); rest != 0; rest >>= 8)
        length.insert(length.begin(), static_cast<char>(rest & 0xff));
    if (content.size() < 0x80)
        length = static_cast<char>(content.size());
    else
        length.insert(length.begin(), static_cast<char>(0x80 | length.size()));
    return static_cast<char>(tag) + length + content;
}

std::string derSequence(const std::string& content)
{
    return der(0x30, content);
}

std::string derOctets(const std::string& bytes)
{
    return der(0x04, bytes);
}

// `number` is unsigned, with the highest byte first.
std::string derInteger(const std::string& number)
{
    std::string bytes = number.substr(std::min(number.find_first_not_of('\0'), number.size()));
    if (bytes.empty() || (bytes[0] & 0x80) != 0)
        bytes.insert(bytes.begin(), '\0');
    return der(0x02, bytes);
}

// ---- RSA

// "# Name:" lines, each followed by the value in hexadecimal on one line or more. A key
// comes once, before its vectors, each of which ends with the ciphertext.
std::vector<Vector> readRsaVectors(const std::string& file)
{
    std::vector<Vector> vectors;
    Vector next;
    std::string field;
    int number = 0;
    const auto finishField = [&] {
        if (field == "ENCRYPTION")
            vectors.push_back(next);
        field.clear();
    };

    for (const std::string& line : support::linesOf(file)) {
        ++number;
        const std::string text = support::trimmed(line);
        if (!text.empty() && text[0] == '#') {
            finishField();
            if (text.back() != ':')
                continue;
            field = support::upperCase(support::trimmed(text.substr(1, text.size() - 2)));
            next.fields[field].clear();
            next.line = number;
        } else if (!field.empty()) {
            std::string digits = text;
            digits.erase(std::remove(digits.begin(), digits.end(), ' '), digits.end());
            std::string& value = next.fields[field];
            value += digits;
        }
    }
    finishField();
    return vectors;
}

// Hexadecimal with an odd number of digits too.
std::string numberOf(const Vector& vector, const std::string& name)
{
    const std::string digits = vector.text(name);
    return support::fromHexText(digits.size() % 2 == 0 ? digits : "0" + digits);
}

// RSAPrivateKey of RFC 8017.
std::string privateKeyOf(const Vector& vector)
{
    std::string content = derInteger("");
    for (const char* name : {"MODULUS", "PUBLIC EXPONENT", "EXPONENT", "PRIME 1", "PRIME 2",
                             "PRIME EXPONENT 1", "PRIME EXPONENT 2", "COEFFICIENT"})
        content += derInteger(numberOf(vector, name));
    return derSequence(content);
}

Answer rsaDecrypt(const std::string& key, int padding, const std::string& encrypted)
{
    return ask("QZaven_crypto_private_decrypt", {{"strKeyPairType", "3"},
                                                 {"strsk", toUrlBase64(key)},
                                                 {"strRsaPaddingE", std::to_string(padding)},
                                                 {"strdata", toUrlBase64(encrypted)}});
}

std::string damaged(std::string bytes, size_t at)
{
    bytes[at] = static_cast<char>(bytes[at] ^ 0x01);
    return bytes;
}

const std::string SMALL_KEY = "the engine takes no RSA keys below 2048 bits";

bool isSmall(const Vector& vector)
{
    return numberOf(vector, "MODULUS").size() * 8 < AVEN_RSA_BITS_MIN;
}

// Each must decrypt, and neither with the other padding nor after a change.
void checkRsa(const std::string& file, size_t minimum, int padding)
{
    const int otherPadding = padding == AVEN_RSA_OAEP ? AVEN_RSA_PKCS1 : AVEN_RSA_OAEP;
    Tally tally(file, minimum);
    for (const Vector& vector : readRsaVectors(file)) {
        const std::string key = privateKeyOf(vector);
        const std::string encrypted = numberOf(vector, "ENCRYPTION");
        const Answer answer = rsaDecrypt(key, padding, encrypted);
        if (isSmall(vector)) {
            tally.leaveOut(vector, SMALL_KEY, answer, AVEN_E_RSA_SIZE);
            continue;
        }
        tally.expect(answer.gives(numberOf(vector, "MESSAGE")), vector, "decryption", answer);
        const Answer other = rsaDecrypt(key, otherPadding, encrypted);
        tally.expect(other.refuses(AVEN_E_DECRYPTION), vector, "the other padding", other);
        const Answer changed = rsaDecrypt(key, padding, damaged(encrypted, encrypted.size() - 1));
        tally.expect(changed.refuses(AVEN_E_DECRYPTION), vector, "a changed ciphertext", changed);
        tally.ran();
    }
}

TEST(VectorsRsa, OaepWithSha256)
{
    checkRsa("asymmetric/RSA/oaep-custom/oaep-sha256-sha256.txt", 60, AVEN_RSA_OAEP);
}

TEST(VectorsRsa, Pkcs1)
{
    checkRsa("asymmetric/RSA/pkcs1v15crypt-vectors.txt", 20, AVEN_RSA_PKCS1);
}

// Well-formed OAEP that is not the engine's: another hash, in the padding or in its mask.
void checkForeignOaep(const std::string& file, size_t minimum)
{
    Tally tally(file + " (refused)", minimum);
    for (const Vector& vector : readRsaVectors(file)) {
        const Answer answer =
            rsaDecrypt(privateKeyOf(vector), AVEN_RSA_OAEP, numberOf(vector, "ENCRYPTION"));
        if (isSmall(vector)) {
            tally.leaveOut(vector, SMALL_KEY, answer, AVEN_E_RSA_SIZE);
            continue;
        }
        tally.expect(answer.refuses(AVEN_E_DECRYPTION), vector, "another OAEP", answer);
        tally.ran();
    }
}

TEST(VectorsRsa, OaepWithOtherHashesIsRefused)
{
    checkForeignOaep("asymmetric/RSA/pkcs-1v2-1d2-vec/oaep-vect.txt", 6);
    for (const std::string hash : {"sha1", "sha224", "sha256", "sha384", "sha512"})
        for (const std::string mask : {"sha1", "sha224", "sha256", "sha384", "sha512"})
            if (hash + mask != "sha1sha1" && hash + mask != "sha256sha256")
                checkForeignOaep("asymmetric/RSA/oaep-custom/oaep-" + hash + "-" + mask + ".txt",
                                 60);
}

TEST(VectorsRsa, OaepWithLabelIsRefused)
{
    const std::string file = "asymmetric/RSA/oaep-label.txt";
    Tally tally(file + " (refused)", 1);
    for (const Vector& vector : readVectors(file)) {
        const Answer answer = rsaDecrypt(vector.bytes("KEY"), AVEN_RSA_OAEP, vector.bytes("INPUT"));
        tally.expect(answer.refuses(AVEN_E_DECRYPTION), vector, "OAEP with a label", answer);
        tally.ran();
    }
}

// ---- SM2

// ECPrivateKey of RFC 5915, on curve 1.2.156.10197.1.301.
std::string sm2KeyOf(const Vector& vector)
{
    const std::string curve = "\x06\x08\x2a\x81\x1c\xcf\x55\x01\x82\x2d";
    const std::string unusedBits(1, '\0');
    return derSequence(derInteger("\x01") + derOctets(vector.bytes("KEY")) + der(0xa0, curve) +
                       der(0xa1, der(0x03, unusedBits + vector.bytes("PUBLIC_KEY"))));
}

struct Sm2Form {
    const char* noAsn1;
    const char* noC1C3C2;
};
const Sm2Form SM2_FORMS[] = {{"0", "0"}, {"0", "1"}, {"1", "0"}, {"1", "1"}};

std::string inForm(const Sm2Form& form, const Vector& vector)
{
    const std::string x = vector.bytes("X");
    const std::string y = vector.bytes("Y");
    const std::string c2 = vector.bytes("C2");
    const std::string c3 = vector.bytes("C3");
    const bool c1c3c2 = form.noC1C3C2[0] == '0';

    if (form.noAsn1[0] == '1')
        return "\x04" + x + y + (c1c3c2 ? c3 + c2 : c2 + c3);
    return derSequence(derInteger(x) + derInteger(y) +
                       (c1c3c2 ? derOctets(c3) + derOctets(c2) : derOctets(c2) + derOctets(c3)));
}

Answer sm2Decrypt(const std::string& key, const Sm2Form& form, const std::string& encrypted)
{
    return ask("QZaven_crypto_private_decrypt", {{"strKeyPairType", "1"},
                                                 {"strsk", toUrlBase64(key)},
                                                 {"strnoAsn1", form.noAsn1},
                                                 {"strnoc1c3c2", form.noC1C3C2},
                                                 {"strdata", toUrlBase64(encrypted)}});
}

TEST(VectorsSm2, DecryptionInAllForms)
{
    const std::string file = "own/sm2-encryption.txt";
    Tally tally(file, 4);
    for (const Vector& vector : readVectors(file)) {
        const std::string key = sm2KeyOf(vector);
        for (const Sm2Form& form : SM2_FORMS) {
            const Answer answer = sm2Decrypt(key, form, inForm(form, vector));
            tally.expect(answer.gives(vector.bytes("PLAINTEXT")), vector, "decryption", answer);
            tally.ran();
        }
    }
}

TEST(VectorsSm2, AnyChangedByteIsRefused)
{
    const std::string file = "own/sm2-encryption.txt";
    Tally tally(file + " (changed)", 4 * 116);
    const std::set<std::string> codes = {std::to_string(AVEN_E_DECRYPTION),
                                         std::to_string(AVEN_E_SM2_FORM_DIFFERS)};
    for (const Vector& vector : readVectors(file)) {
        const std::string key = sm2KeyOf(vector);
        for (const Sm2Form& form : SM2_FORMS) {
            const std::string encrypted = inForm(form, vector);
            for (size_t at = 0; at < encrypted.size(); at += support::EVERY_PLACE) {
                const Answer answer = sm2Decrypt(key, form, damaged(encrypted, at));
                tally.expect(answer.data.empty() && codes.count(answer.code) != 0, vector,
                             "byte " + std::to_string(at) + " changed", answer);
                tally.ran();
            }
        }
    }
}

}  // namespace
