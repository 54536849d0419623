// Published vectors of symmetric ciphers, through the plug-in and the development engine.
#include "support/vectors.h"

namespace {

using support::Answer;
using support::ask;
using support::PARAMETER_MISSING;
using support::readVectors;
using support::Tally;
using support::toUrlBase64;
using support::Vector;
using Parameters = support::DevkitHost::Parameters;

const std::string OTHER_KEY_SIZE = "the engine has the cipher with another key size";
const std::string EMPTY_VALUE = "empty text or additional data, which requests do not take";

const std::string ENCRYPT = "QZaven_crypto_encrypt";
const std::string DECRYPT = "QZaven_crypto_decrypt";

Answer crypt(const std::string& request, int cipher, int mode, const std::string& key,
             const std::string& iv, const std::string& data, const Parameters& others = {})
{
    Parameters parameters = {{"strCipherAlg", std::to_string(cipher)},
                             {"strMode", std::to_string(mode)},
                             {"strKey", toUrlBase64(key)},
                             {"strIV", toUrlBase64(iv)},
                             {"strdata", toUrlBase64(data)}};
    parameters.insert(parameters.end(), others.begin(), others.end());
    return ask(request, parameters);
}

size_t keySize(int cipher)
{
    switch (cipher) {
        case AVEN_CIPHER_SM4:
        case AVEN_CIPHER_AES_128:
            return 16;
        case AVEN_CIPHER_AES_192:
        case AVEN_CIPHER_3DES:
            return 24;
        default:
            return 32;
    }
}

// 3DES vectors name one key for all three places, or three keys.
std::string keyOf(const Vector& vector)
{
    if (vector.has("KEYS"))
        return vector.bytes("KEYS") + vector.bytes("KEYS") + vector.bytes("KEYS");
    if (vector.has("KEY1"))
        return vector.bytes("KEY1") + vector.bytes("KEY2") + vector.bytes("KEY3");
    return vector.bytes("KEY");
}

// In both directions, whichever of them the vector was made for.
void check(Tally& tally, const Vector& vector, int cipher, int mode)
{
    const std::string key = keyOf(vector);
    const std::string iv = mode == AVEN_MODE_ECB ? "" : vector.bytes("IV");
    const std::string plain = vector.bytes("PLAINTEXT");
    const std::string encrypted = vector.bytes("CIPHERTEXT");

    const Answer forth = crypt(ENCRYPT, cipher, mode, key, iv, plain);
    if (key.size() != keySize(cipher)) {
        tally.leaveOut(vector, OTHER_KEY_SIZE, forth, AVEN_E_KEY_LENGTH);
        return;
    }
    const Answer back = crypt(DECRYPT, cipher, mode, key, iv, encrypted);
    tally.expect(forth.gives(encrypted), vector, "encryption", forth);
    tally.expect(back.gives(plain), vector, "decryption", back);
    tally.ran();
}

void checkFile(const std::string& file, size_t minimum, int cipher, int mode)
{
    Tally tally(file, minimum);
    for (const Vector& vector : readVectors(file))
        check(tally, vector, cipher, mode);
}

// A file's kind and how many vectors it has at least.
struct Kind {
    const char* name;
    size_t minimum;
};

// ---- AES: NIST's validation suite, and RFC 3686 for CTR

struct AesSize {
    const char* bits;
    int cipher;
};
const AesSize AES_SIZES[] = {
    {"128", AVEN_CIPHER_AES_128}, {"192", AVEN_CIPHER_AES_192}, {"256", AVEN_CIPHER_AES_256}};

void checkAes(const std::string& folder, const std::string& prefix, int mode)
{
    for (const AesSize& size : AES_SIZES)
        for (const Kind& kind : {Kind{"GFSbox", 10}, Kind{"KeySbox", 32}, Kind{"VarKey", 256},
                                 Kind{"VarTxt", 256}, Kind{"MMT", 20}})
            checkFile("ciphers/AES/" + folder + "/" + prefix + kind.name + size.bits + ".rsp",
                      kind.minimum, size.cipher, mode);
}

TEST(VectorsAes, Ecb)
{
    checkAes("ECB", "ECB", AVEN_MODE_ECB);
}

TEST(VectorsAes, Cbc)
{
    checkAes("CBC", "CBC", AVEN_MODE_CBC);
}

TEST(VectorsAes, Cfb)
{
    checkAes("CFB", "CFB128", AVEN_MODE_CFB);
}

TEST(VectorsAes, Ofb)
{
    checkAes("OFB", "OFB", AVEN_MODE_OFB);
}

TEST(VectorsAes, Ctr)
{
    for (const AesSize& size : AES_SIZES)
        checkFile("ciphers/AES/CTR/aes-" + std::string(size.bits) + "-ctr.txt", 3, size.cipher,
                  AVEN_MODE_CTR);
}

// ---- GCM

Answer gcmEncrypt(int cipher, const Vector& vector)
{
    return crypt(ENCRYPT, cipher, AVEN_MODE_GCM, vector.bytes("KEY"), vector.bytes("IV"),
                 vector.bytes("PT"),
                 {{"straad", toUrlBase64(vector.bytes("AAD"))},
                  {"strgcmTagLen", std::to_string(vector.bytes("TAG").size())}});
}

Answer gcmDecrypt(int cipher, const Vector& vector)
{
    return crypt(DECRYPT, cipher, AVEN_MODE_GCM, vector.bytes("KEY"), vector.bytes("IV"),
                 vector.bytes("CT"),
                 {{"straad", toUrlBase64(vector.bytes("AAD"))},
                  {"strtag", toUrlBase64(vector.bytes("TAG"))}});
}

bool isCarried(const Vector& vector)
{
    return !vector.text("CT").empty() && !vector.text("AAD").empty();
}

void checkGcmEncryption(const std::string& file, size_t minimum, int cipher)
{
    Tally tally(file, minimum);
    for (const Vector& vector : readVectors(file)) {
        const Answer forth = gcmEncrypt(cipher, vector);
        if (!isCarried(vector)) {
            tally.leaveOut(vector, EMPTY_VALUE, forth, PARAMETER_MISSING);
            continue;
        }
        tally.expect(
            forth.gives(vector.bytes("CT")) && forth.tag == toUrlBase64(vector.bytes("TAG")),
            vector, "encryption", forth);
        const Answer back = gcmDecrypt(cipher, vector);
        tally.expect(back.gives(vector.bytes("PT")), vector, "decryption", back);
        tally.ran();
    }
}

TEST(VectorsAes, GcmEncryption)
{
    for (const AesSize& size : AES_SIZES)
        checkGcmEncryption("ciphers/AES/GCM/gcmEncryptExtIV" + std::string(size.bits) + ".rsp",
                           5040, size.cipher);
}

TEST(VectorsAes, GcmDecryptionAndForgeries)
{
    for (const AesSize& size : AES_SIZES) {
        const std::string file = "ciphers/AES/GCM/gcmDecrypt" + std::string(size.bits) + ".rsp";
        Tally genuine(file, 2400);
        Tally forged(file + " (forged)", 2500);
        for (const Vector& vector : readVectors(file)) {
            Tally& tally = vector.has("FAIL") ? forged : genuine;
            const Answer answer = gcmDecrypt(size.cipher, vector);
            if (!isCarried(vector)) {
                tally.leaveOut(vector, EMPTY_VALUE, answer, PARAMETER_MISSING);
                continue;
            }
            if (vector.has("FAIL"))
                tally.expect(answer.refuses(AVEN_E_TAG_MISMATCH), vector, "forgery", answer);
            else
                tally.expect(answer.gives(vector.bytes("PT")), vector, "decryption", answer);
            tally.ran();
        }
    }
}

// ---- SM4: the examples of draft-ribose-cfrg-sm4, which has those of GB/T 32907

TEST(VectorsSm4, Modes)
{
    const std::string folder = "ciphers/SM4/draft-ribose-cfrg-sm4-10-";
    checkFile(folder + "ecb.txt", 4, AVEN_CIPHER_SM4, AVEN_MODE_ECB);
    checkFile(folder + "cbc.txt", 2, AVEN_CIPHER_SM4, AVEN_MODE_CBC);
    checkFile(folder + "cfb.txt", 2, AVEN_CIPHER_SM4, AVEN_MODE_CFB);
    checkFile(folder + "ofb.txt", 2, AVEN_CIPHER_SM4, AVEN_MODE_OFB);
    checkFile(folder + "ctr.txt", 2, AVEN_CIPHER_SM4, AVEN_MODE_CTR);
}

TEST(VectorsSm4, Gcm)
{
    checkGcmEncryption("own/sm4-gcm.txt", 1, AVEN_CIPHER_SM4);
}

// ---- ARIA and Camellia

TEST(VectorsAria, Ecb)
{
    checkFile("own/aria-256-ecb.txt", 1, AVEN_CIPHER_ARIA_256, AVEN_MODE_ECB);
}

TEST(VectorsAria, Gcm)
{
    checkGcmEncryption("own/aria-256-gcm.txt", 1, AVEN_CIPHER_ARIA_256);
}

// Lines "K No.001 : 00 11 ...": a key, then the pairs of P and C lines that it makes.
std::vector<Vector> readCamelliaPairs(const std::string& file)
{
    std::vector<Vector> vectors;
    Vector next;
    for (const std::string& line : support::linesOf(file)) {
        ++next.line;
        const size_t colon = line.find(" : ");
        if (line[0] == '#' || colon == std::string::npos)
            continue;
        std::string value = support::trimmed(line.substr(colon + 3));
        value.erase(std::remove(value.begin(), value.end(), ' '), value.end());
        next.fields[line[0] == 'K' ? "KEY" : line[0] == 'P' ? "PLAINTEXT" : "CIPHERTEXT"] = value;
        if (line[0] == 'C')
            vectors.push_back(next);
    }
    return vectors;
}

TEST(VectorsCamellia, Ecb)
{
    const std::string file = "ciphers/Camellia/camellia-256-ecb.txt";
    Tally tally(file, 1280);
    for (const Vector& vector : readCamelliaPairs(file))
        check(tally, vector, AVEN_CIPHER_CAMELLIA_256, AVEN_MODE_ECB);
}

TEST(VectorsCamellia, Modes)
{
    const std::string folder = "ciphers/Camellia/camellia-";
    checkFile(folder + "cbc.txt", 4, AVEN_CIPHER_CAMELLIA_256, AVEN_MODE_CBC);
    checkFile(folder + "cfb.txt", 4, AVEN_CIPHER_CAMELLIA_256, AVEN_MODE_CFB);
    checkFile(folder + "ofb.txt", 4, AVEN_CIPHER_CAMELLIA_256, AVEN_MODE_OFB);
    checkFile("own/camellia-256-ctr.txt", 3, AVEN_CIPHER_CAMELLIA_256, AVEN_MODE_CTR);
}

// ---- 3DES: NIST's validation suite. Its files for interleaved modes and for feedback of
// 1 and 8 bits are of modes that the engine does not have.

void check3Des(const std::string& folder, const std::string& prefix, int mode)
{
    for (const Kind& kind :
         {Kind{"invperm", 128}, Kind{"permop", 64}, Kind{"subtab", 38}, Kind{"varkey", 112},
          Kind{"vartext", 128}, Kind{"MMT1", 20}, Kind{"MMT2", 20}, Kind{"MMT3", 20}})
        checkFile("ciphers/3DES/" + folder + "/" + prefix + kind.name + ".rsp", kind.minimum,
                  AVEN_CIPHER_3DES, mode);
}

TEST(Vectors3Des, Ecb)
{
    check3Des("ECB", "TECB", AVEN_MODE_ECB);
}

TEST(Vectors3Des, Cbc)
{
    check3Des("CBC", "TCBC", AVEN_MODE_CBC);
}

TEST(Vectors3Des, Cfb)
{
    check3Des("CFB", "TCFB64", AVEN_MODE_CFB);
}

TEST(Vectors3Des, Ofb)
{
    check3Des("OFB", "TOFB", AVEN_MODE_OFB);
}

}  // namespace
