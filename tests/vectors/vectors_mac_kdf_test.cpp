// Published vectors of MACs and key derivation, through the plug-in and the development
// engine.
#include "support/vectors.h"

namespace {

using support::Answer;
using support::ask;
using support::PARAMETER_MISSING;
using support::readVectors;
using support::Tally;
using support::toUrlBase64;
using support::Vector;

Answer mac(const std::string& request, const std::string& algorithmName, int algorithm,
           const std::string& key, const std::string& data)
{
    return ask(request, {{algorithmName, std::to_string(algorithm)},
                         {"strKey", toUrlBase64(key)},
                         {"strdata", toUrlBase64(data)}});
}

// ---- HMAC

void checkHmac(const std::string& file, size_t minimum, int hash)
{
    Tally tally(file, minimum);
    for (const Vector& vector : readVectors(file)) {
        const Answer answer =
            mac("QZaven_crypto_hmac", "strHashAlg", hash, vector.bytes("KEY"), vector.bytes("MSG"));
        tally.expect(answer.gives(vector.bytes("MD")), vector, "HMAC", answer);
        tally.ran();
    }
}

TEST(VectorsHmac, Sha1OfRfc2202)
{
    checkHmac("HMAC/rfc-2202-sha1.txt", 7, AVEN_HASH_SHA1);
}

TEST(VectorsHmac, Sha2OfRfc4231)
{
    checkHmac("HMAC/rfc-4231-sha224.txt", 6, AVEN_HASH_SHA224);
    checkHmac("HMAC/rfc-4231-sha256.txt", 6, AVEN_HASH_SHA256);
    checkHmac("HMAC/rfc-4231-sha384.txt", 6, AVEN_HASH_SHA384);
    checkHmac("HMAC/rfc-4231-sha512.txt", 6, AVEN_HASH_SHA512);
}

TEST(VectorsHmac, Sm3OfGmt0042)
{
    checkHmac("own/hmac-sm3.txt", 4, AVEN_HASH_SM3);
}

// ---- CMAC

void checkCmac(const std::string& file, size_t minimum, int cipher)
{
    Tally tally(file, minimum);
    for (const Vector& vector : readVectors(file)) {
        const std::string key =
            vector.has("KEY1") ? vector.bytes("KEY1") + vector.bytes("KEY2") + vector.bytes("KEY3")
                               : vector.bytes("KEY");
        const std::string message = vector.bytes("MESSAGE");
        const Answer answer = mac("QZaven_crypto_cmac", "strCipherAlg", cipher, key, message);
        if (message.empty()) {
            tally.leaveOut(vector, "empty message, which requests do not take", answer,
                           PARAMETER_MISSING);
            continue;
        }
        tally.expect(answer.gives(vector.bytes("OUTPUT")), vector, "CMAC", answer);
        tally.ran();
    }
}

TEST(VectorsCmac, AesOfSp80038b)
{
    checkCmac("CMAC/nist-800-38b-aes128.txt", 3, AVEN_CIPHER_AES_128);
    checkCmac("CMAC/nist-800-38b-aes192.txt", 3, AVEN_CIPHER_AES_192);
    checkCmac("CMAC/nist-800-38b-aes256.txt", 3, AVEN_CIPHER_AES_256);
}

TEST(VectorsCmac, TripleDesOfSp80038b)
{
    checkCmac("CMAC/nist-800-38b-3des.txt", 6, AVEN_CIPHER_3DES);
}

// ---- Key derivation. The secret travels as it is, whatever bytes it has.

Answer derive(int hash, const std::string& secret, size_t length)
{
    return ask("QZaven_crypto_kdf", {{"HashType", std::to_string(hash)},
                                     {"srcdata", secret},
                                     {"OutLen", std::to_string(length)}});
}

TEST(VectorsKdf, X963)
{
    const std::map<std::string, int> hashes = {{"SHA-1", AVEN_HASH_SHA1},
                                               {"SHA-224", AVEN_HASH_SHA224},
                                               {"SHA-256", AVEN_HASH_SHA256},
                                               {"SHA-384", AVEN_HASH_SHA384},
                                               {"SHA-512", AVEN_HASH_SHA512}};
    const std::string file = "KDF/ansx963_2001.txt";
    const std::vector<Vector> vectors = readVectors(file);
    for (const auto& [name, hash] : hashes) {
        Tally tally(file + " " + name, 10);
        for (const Vector& vector : vectors) {
            if (vector.section != name)
                continue;
            if (!vector.text("SHAREDINFO").empty()) {
                tally.leaveOut("shared info, for which requests have no parameter");
                continue;
            }
            const std::string key = vector.bytes("KEY_DATA");
            const Answer answer = derive(hash, vector.bytes("Z"), key.size());
            tally.expect(answer.gives(key), vector, "key derivation", answer);
            tally.ran();
        }
    }
}

TEST(VectorsKdf, Sm3)
{
    const std::string file = "own/kdf-sm3.txt";
    Tally tally(file, 2);
    for (const Vector& vector : readVectors(file)) {
        const std::string key = vector.bytes("KEY_DATA");
        for (int hash : {AVEN_HASH_DEFAULT, AVEN_HASH_SM3}) {
            const Answer answer = derive(hash, vector.bytes("Z"), key.size());
            tally.expect(answer.gives(key), vector, "key derivation", answer);
        }
        tally.ran();
    }
}

}  // namespace
