// The development engine's HMAC, CMAC and key derivation: published vectors, textbook
// versions as the other side, and what is refused.
#include <openssl/evp.h>

#include "support/devkit_engine.h"

namespace {

using support::Exact;
using support::Fenced;
using support::fromHex;
using support::pattern;
using support::Result;
using support::resultOf;
using support::Sizes;
using support::toHex;

class MacTest : public support::EngineTest {
protected:
    using Function = int (*)(const void*, const unsigned char*, uint32_t, unsigned char*,
                             uint32_t*);

    static Result mac(Function function, int alg, const std::string& keyBytes,
                      const std::string& data, size_t capacity = 80)
    {
        const Exact key(keyBytes), in(data);
        MacParams params = {};
        params.alg = alg;
        params.key = key.data();
        params.key_len = key.size();
        Fenced out(capacity);
        const int code = function(&params, in.data(), in.size(), out.data(), &out.len);
        return resultOf(code, out);
    }

    static void refusesNullPointers(Function function, int alg, size_t keyLength)
    {
        const unsigned char bytes[64] = {};
        unsigned char out[80];
        uint32_t len = 80;
        MacParams params = {};
        params.alg = alg;
        params.key = bytes;
        params.key_len = static_cast<uint32_t>(keyLength);
        ASSERT_EQ(function(&params, bytes, 1, out, &len), 0);
        ASSERT_EQ(function(&params, nullptr, 0, out, &(len = 80)), 0);
        EXPECT_EQ(function(nullptr, bytes, 1, out, &(len = 80)), AVEN_E_NULL_POINTER);
        EXPECT_EQ(function(&params, nullptr, 1, out, &(len = 80)), AVEN_E_NULL_POINTER);
        EXPECT_EQ(function(&params, bytes, 1, nullptr, &(len = 80)), AVEN_E_NULL_POINTER);
        EXPECT_EQ(function(&params, bytes, 1, out, nullptr), AVEN_E_NULL_POINTER);
        params.key = nullptr;
        EXPECT_EQ(function(&params, bytes, 1, out, &(len = 80)), AVEN_E_NULL_POINTER);
    }
};

using CryptoHmac = MacTest;
using CryptoCmac = MacTest;
using CryptoKdf = support::EngineTest;

// ---- HMAC

const struct {
    int number;
    const char* name;
    size_t size;
} hashes[] = {
    {AVEN_HASH_SM3, "SM3", 32},       {AVEN_HASH_SHA1, "SHA1", 20},
    {AVEN_HASH_SHA224, "SHA224", 28}, {AVEN_HASH_SHA256, "SHA256", 32},
    {AVEN_HASH_SHA384, "SHA384", 48}, {AVEN_HASH_SHA512, "SHA512", 64},
};

// The test cases of RFC 4231 (SHA-2) and, where the inputs are the same, RFC 2202
// (SHA-1). SM3, and SHA-1 where RFC 2202 has other inputs: from Python's hmac module,
// which also agrees with all others.
const struct {
    const char* source;
    std::string key;
    std::string data;
    const char* macs[6];  // in the order of the hash numbers
} hmacVectors[] = {
    {"RFC 4231 4.2",
     std::string(20, '\x0b'),
     "Hi There",
     {"51b00d1fb49832bfb01c3ce27848e59f871d9ba938dc563b338ca964755cce70",
      "b617318655057264e28bc0b6fb378c8ef146be00",
      "896fb1128abbdf196832107cd49df33f47b4b1169912ba4f53684b22",
      "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7",
      "afd03944d84895626b0825f4ab46907f15f9dadbe4101ec682aa034c7cebc59c"
      "faea9ea9076ede7f4af152e8b2fa9cb6",
      "87aa7cdea5ef619d4ff0b4241a1d6cb02379f4e2ce4ec2787ad0b30545e17cde"
      "daa833b7d6b8a702038b274eaea3f4e4be9d914eeb61f1702e696c203a126854"}},
    {"RFC 4231 4.3",
     "Jefe",
     "what do ya want for nothing?",
     {"2e87f1d16862e6d964b50a5200bf2b10b764faa9680a296a2405f24bec39f882",
      "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79",
      "a30e01098bc6dbbf45690f3a7e9e6d0f8bbea2a39e6148008fd05e44",
      "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843",
      "af45d2e376484031617f78d2b58a6b1b9c7ef464f5a01b47e42ec3736322445e"
      "8e2240ca5e69e2c78b3239ecfab21649",
      "164b7a7bfcf819e2e395fbe73b56e0a387bd64222e831fd610270cd7ea250554"
      "9758bf75c05a994a6d034f65f8f0e6fdcaeab1a34d4a6b4b636e070a38bce737"}},
    {"RFC 4231 4.4",
     std::string(20, '\xaa'),
     std::string(50, '\xdd'),
     {"dd9421e1c725bdf52ec1aa34edadb3c97f5951a83a2fa93f73a7902bc1dcc777",
      "125d7342b9ac11cd91a39af48aa17b4f63f175d3",
      "7fb3cb3588c6c1f6ffa9694d7d6ad2649365b0c1f65d69d1ec8333ea",
      "773ea91e36800e46854db8ebd09181a72959098b3ef8c122d9635514ced565fe",
      "88062608d3e6ad8a0aa2ace014c8a86f0aa635d947ac9febe83ef4e55966144b"
      "2a5ab39dc13814b94e3ab6e101a34f27",
      "fa73b0089d56a284efb0f0756c890be9b1b5dbdd8ee81a3655f83e33b2279d39"
      "bf3e848279a722c806b485a47e67c807b946a337bee8942674278859e13292fb"}},
    {"RFC 4231 4.7",
     std::string(131, '\xaa'),
     "Test Using Larger Than Block-Size Key - Hash Key First",
     {"b4fd844e13342002f0b2e0690ea7741f1497d993a70494cea601e657bedf67a0",
      "90d0dace1c1bdc957339307803160335bde6df2b",
      "95e9a0db962095adaebe9b2d6f0dbce2d499f112f2d2b7273fa6870e",
      "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54",
      "4ece084485813e9088d2c63a041bc5b44f9ef1012a2b588f3cd11f05033ac4c6"
      "0c2ef6ab4030fe8296248df163f44952",
      "80b24263c7c1a3ebb71493c1dd7be8b49b46d1f41b4aeec1121b013783f8f352"
      "6b56d037e05f2598bd0fd2215d6a1e5295e64f73f63f0aec8b915a985d786598"}},
};

TEST_F(CryptoHmac, PublishedVectors)
{
    for (const auto& v : hmacVectors) {
        for (const auto& hash : hashes) {
            SCOPED_TRACE(std::string(v.source) + " " + hash.name);
            const Result result = mac(engine.aven_crypto_hmac, hash.number, v.key, v.data);
            EXPECT_EQ(result.code, 0);
            EXPECT_EQ(toHex(result.out), v.macs[hash.number - 1]);
        }
    }
}

TEST_F(CryptoHmac, ArgumentsAreChecked)
{
    const auto hmac = engine.aven_crypto_hmac;
    for (int alg : {0, 7, -1, INT32_MAX, INT32_MIN})
        EXPECT_EQ(mac(hmac, alg, "key", "data").code, AVEN_E_HASH_NUMBER) << alg;
    EXPECT_EQ(mac(hmac, 1, "", "data").code, AVEN_E_KEY_LENGTH);
    for (const auto& hash : hashes) {
        EXPECT_EQ(mac(hmac, hash.number, "key", "", hash.size).len, hash.size);
        for (size_t capacity : {size_t{0}, size_t{1}, hash.size - 1}) {
            const Result small = mac(hmac, hash.number, "key", "data", capacity);
            EXPECT_EQ(small.code, AVEN_E_BUFFER_TOO_SMALL);
            EXPECT_EQ(small.len, hash.size);
        }
    }
    refusesNullPointers(hmac, AVEN_HASH_SM3, 16);
}

// ---- CMAC

const char aes128Key[] = "2b7e151628aed2a6abf7158809cf4f3c";
const char aes192Key[] = "8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b";
const char aes256Key[] = "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4";
const char tdesKey[] = "8aa83bf8cbda10620bc1bf19fbb6cd58bc313d4a371ca8b5";
const char message[] =
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710";

const struct {
    const char* source;
    int alg;
    const char* key;
    size_t size;  // of the message's beginning
    const char* mac;
} cmacVectors[] = {
    {"SP 800-38B D.1", 2, aes128Key, 0, "bb1d6929e95937287fa37d129b756746"},
    {"SP 800-38B D.1", 2, aes128Key, 16, "070a16b46b4d4144f79bdd9dd04a287c"},
    {"SP 800-38B D.1", 2, aes128Key, 40, "dfa66747de9ae63030ca32611497c827"},
    {"SP 800-38B D.1", 2, aes128Key, 64, "51f0bebf7e3b9d92fc49741779363cfe"},
    {"SP 800-38B D.2", 3, aes192Key, 0, "d17ddf46adaacde531cac483de7a9367"},
    {"SP 800-38B D.2", 3, aes192Key, 16, "9e99a7bf31e710900662f65e617c5184"},
    {"SP 800-38B D.2", 3, aes192Key, 40, "8a1de5be2eb31aad089a82e6ee908b0e"},
    {"SP 800-38B D.2", 3, aes192Key, 64, "a1d5df0eed790f794d77589659f39a11"},
    {"SP 800-38B D.3", 4, aes256Key, 0, "028962f61b7bf89efc6b551f4667d983"},
    {"SP 800-38B D.3", 4, aes256Key, 16, "28a7023f452e8f82bd4bf28d8c37c35c"},
    {"SP 800-38B D.3", 4, aes256Key, 40, "aaf3d8f1de5640c232f5b169b9c911e6"},
    {"SP 800-38B D.3", 4, aes256Key, 64, "e1992190549f6ed5696a2c056c315410"},
    {"SP 800-38B D.4", 7, tdesKey, 0, "b7a688e122ffaf95"},
    {"SP 800-38B D.4", 7, tdesKey, 8, "8e8f293136283797"},
    {"SP 800-38B D.4", 7, tdesKey, 20, "743ddbe0ce2dc2ed"},
    {"SP 800-38B D.4", 7, tdesKey, 32, "33e6b1092400eae5"},
};

TEST_F(CryptoCmac, PublishedVectors)
{
    for (const auto& v : cmacVectors) {
        SCOPED_TRACE(std::string(v.source) + " " + std::to_string(v.size));
        const Result result =
            mac(engine.aven_crypto_cmac, v.alg, fromHex(v.key), fromHex(message).substr(0, v.size));
        EXPECT_EQ(result.code, 0);
        EXPECT_EQ(toHex(result.out), v.mac);
    }
}

const struct CmacCipher {
    int number;
    const char* ecb;  // libcrypto's name
    size_t keyLength;
    size_t block;
} cmacCiphers[] = {
    {AVEN_CIPHER_SM4, "SM4-ECB", 16, 16},
    {AVEN_CIPHER_AES_128, "AES-128-ECB", 16, 16},
    {AVEN_CIPHER_AES_192, "AES-192-ECB", 24, 16},
    {AVEN_CIPHER_AES_256, "AES-256-ECB", 32, 16},
    {AVEN_CIPHER_ARIA_256, "ARIA-256-ECB", 32, 16},
    {AVEN_CIPHER_CAMELLIA_256, "CAMELLIA-256-ECB", 32, 16},
    {AVEN_CIPHER_3DES, "DES-EDE3-ECB", 24, 8},
};

std::string xored(std::string a, const std::string& b)
{
    for (size_t i = 0; i < a.size(); ++i)
        a[i] = static_cast<char>(a[i] ^ b[i]);
    return a;
}

// CMAC as SP 800-38B writes it, over an ECB function.
class TextbookCmac {
public:
    TextbookCmac(const CmacCipher& cipher, const std::string& key)
        : m_block(cipher.block),
          m_algorithm(EVP_CIPHER_fetch(nullptr, cipher.ecb, nullptr)),
          m_context(EVP_CIPHER_CTX_new())
    {
        EXPECT_EQ(EVP_EncryptInit_ex2(m_context, m_algorithm,
                                      reinterpret_cast<const unsigned char*>(key.data()), nullptr,
                                      nullptr),
                  1);
        EVP_CIPHER_CTX_set_padding(m_context, 0);
    }
    TextbookCmac(const TextbookCmac&) = delete;
    TextbookCmac& operator=(const TextbookCmac&) = delete;
    ~TextbookCmac()
    {
        EVP_CIPHER_CTX_free(m_context);
        EVP_CIPHER_free(m_algorithm);
    }

    std::string mac(std::string data) const
    {
        std::string subkey = doubled(ecb(std::string(m_block, '\0')));
        if (data.empty() || data.size() % m_block != 0) {
            subkey = doubled(subkey);
            data += '\x80';
            while (data.size() % m_block != 0)
                data += '\0';
        }
        std::string state(m_block, '\0');
        for (size_t i = 0; i < data.size(); i += m_block) {
            state = xored(state, data.substr(i, m_block));
            if (i + m_block == data.size())
                state = xored(state, subkey);
            state = ecb(state);
        }
        return state;
    }

private:
    std::string ecb(const std::string& block) const
    {
        std::string out(block.size(), '\0');
        int n = 0;
        EVP_EncryptUpdate(m_context, reinterpret_cast<unsigned char*>(&out[0]), &n,
                          reinterpret_cast<const unsigned char*>(block.data()),
                          static_cast<int>(block.size()));
        return out;
    }

    static std::string doubled(const std::string& block)
    {
        std::string out = block;
        unsigned carry = 0;
        for (size_t i = block.size(); i-- > 0;) {
            const unsigned b = static_cast<unsigned char>(block[i]);
            out[i] = static_cast<char>((b << 1 | carry) & 0xff);
            carry = b >> 7;
        }
        if (carry != 0)
            out.back() = static_cast<char>(out.back() ^ (block.size() == 16 ? 0x87 : 0x1b));
        return out;
    }

    size_t m_block;
    EVP_CIPHER* m_algorithm;
    EVP_CIPHER_CTX* m_context;
};

TEST_F(CryptoCmac, EveryCipherAgreesWithTheTextbook)
{
    for (const CmacCipher& cipher : cmacCiphers) {
        SCOPED_TRACE(cipher.ecb);
        for (unsigned seed = 1; seed <= 4; ++seed) {  // subkeys with and without a carry
            const std::string key = pattern(cipher.keyLength, seed);
            const TextbookCmac textbook(cipher, key);
            for (size_t size : Sizes{0, 1, 7, 8, 9, 15, 16, 17, 24, 32, 33, 1000}) {
                const std::string data = pattern(size, seed + 9);
                const Result result = mac(engine.aven_crypto_cmac, cipher.number, key, data);
                EXPECT_EQ(result.code, 0);
                EXPECT_EQ(toHex(result.out), toHex(textbook.mac(data))) << size;
            }
        }
    }
}

TEST_F(CryptoCmac, ArgumentsAreChecked)
{
    const auto cmac = engine.aven_crypto_cmac;
    for (int alg : {0, 8, -1, INT32_MAX, INT32_MIN})
        EXPECT_EQ(mac(cmac, alg, pattern(16), "data").code, AVEN_E_CIPHER_NUMBER) << alg;
    for (const CmacCipher& cipher : cmacCiphers) {
        const std::string key = pattern(cipher.keyLength);
        for (size_t n : {size_t{0}, cipher.keyLength - 1, cipher.keyLength + 1})
            EXPECT_EQ(mac(cmac, cipher.number, pattern(n), "data").code, AVEN_E_KEY_LENGTH);
        EXPECT_EQ(mac(cmac, cipher.number, key, "", cipher.block).len, cipher.block);
        for (size_t capacity : {size_t{0}, size_t{1}, cipher.block - 1}) {
            const Result small = mac(cmac, cipher.number, key, "data", capacity);
            EXPECT_EQ(small.code, AVEN_E_BUFFER_TOO_SMALL);
            EXPECT_EQ(small.len, cipher.block);
        }
    }
    refusesNullPointers(cmac, AVEN_CIPHER_SM4, 16);
}

// ---- Key derivation

std::string derive(support::DevkitEngine& engine, int hash, const std::string& secret, size_t size)
{
    const Exact in(secret);
    Fenced out(size);
    EXPECT_EQ(engine.aven_crypto_kdf(hash, in.data(), in.size(), out.len, out.data()), 0);
    EXPECT_TRUE(out.fenceIntact());
    return out.text();
}

TEST_F(CryptoKdf, PublishedVectors)
{
    // CAVP, ANS X9.63 (2001), no shared info.
    EXPECT_EQ(toHex(derive(engine, AVEN_HASH_SHA1,
                           fromHex("1c7d7b5f0597b03d06a018466ed1a93e30ed4b04dc64ccdd"), 16)),
              "bf71dffd8f4d99223936beb46fee8ccc");
    EXPECT_EQ(toHex(derive(engine, AVEN_HASH_SHA256,
                           fromHex("96c05619d56c328ab95fe84b18264b08725b85e33fd34f08"), 16)),
              "443024c3dae66b95e6f5670601558f71");
}

// hash(secret || counter)
std::string textbookBlock(const char* hash, const std::string& secret, size_t counter)
{
    std::string block = secret;
    for (int shift = 24; shift >= 0; shift -= 8)
        block += static_cast<char>(counter >> shift & 0xff);
    unsigned char digest[EVP_MAX_MD_SIZE];
    size_t size = 0;
    EXPECT_EQ(EVP_Q_digest(nullptr, hash, nullptr, block.data(), block.size(), digest, &size), 1);
    return std::string(reinterpret_cast<char*>(digest), size);
}

// One block behind the other.
std::string textbookKdf(const char* hash, const std::string& secret, size_t size)
{
    std::string out;
    for (size_t counter = 1; out.size() < size; ++counter)
        out += textbookBlock(hash, secret, counter);
    return out.substr(0, size);
}

TEST_F(CryptoKdf, EveryHashAgreesWithTheTextbook)
{
    for (const auto& hash : hashes) {
        SCOPED_TRACE(hash.name);
        for (const std::string& secret : {std::string("s"), pattern(32), pattern(1000)})
            for (size_t size : {size_t{1}, hash.size - 1, hash.size, hash.size + 1, size_t{65535}})
                EXPECT_EQ(toHex(derive(engine, hash.number, secret, size)),
                          toHex(textbookKdf(hash.name, secret, size)));
    }
}

// The secret is hashed once, however many blocks there are.
TEST_F(CryptoKdf, LongSecretsGiveLongKeys)
{
    const std::string secret = pattern(2 << 20);
    for (const auto& hash : hashes) {
        SCOPED_TRACE(hash.name);
        const std::string key = derive(engine, hash.number, secret, 65535);
        for (size_t counter : std::initializer_list<size_t>{1, 2, 65535 / hash.size}) {
            EXPECT_EQ(toHex(key.substr((counter - 1) * hash.size, hash.size)),
                      toHex(textbookBlock(hash.name, secret, counter)));
        }
    }
}

TEST_F(CryptoKdf, BlocksAreCountedInMoreThanTwoBytes)
{
    const size_t size = 20, last = 0x10001;
    const std::string key = derive(engine, AVEN_HASH_SHA1, "secret", last * size);
    for (const size_t counter : {size_t{0x7fff}, size_t{0x8000}, size_t{0xffff}, last - 1, last})
        EXPECT_EQ(toHex(key.substr((counter - 1) * size, size)),
                  toHex(textbookBlock("SHA1", "secret", counter)))
            << counter;
}

TEST_F(CryptoKdf, HashZeroIsSm3)
{
    EXPECT_EQ(derive(engine, AVEN_HASH_DEFAULT, "secret", 100),
              derive(engine, AVEN_HASH_SM3, "secret", 100));
}

TEST_F(CryptoKdf, ArgumentsAreChecked)
{
    const unsigned char in[4] = {1, 2, 3, 4};
    unsigned char out[16];
    const auto kdf = engine.aven_crypto_kdf;
    for (int hash : {-1, 7, INT32_MAX, INT32_MIN})
        EXPECT_EQ(kdf(hash, in, 4, 16, out), AVEN_E_HASH_NUMBER) << hash;
    EXPECT_EQ(kdf(1, nullptr, 4, 16, out), AVEN_E_NULL_POINTER);
    EXPECT_EQ(kdf(1, in, 4, 16, nullptr), AVEN_E_NULL_POINTER);
    EXPECT_EQ(kdf(1, in, 0, 16, out), AVEN_E_INPUT_EMPTY);
    EXPECT_EQ(kdf(1, in, 4, 0, out), AVEN_E_OUTPUT_LENGTH);
    EXPECT_EQ(kdf(1, in, 4, AVEN_KDF_MAX + 1u, out), AVEN_E_OUTPUT_LENGTH);
    EXPECT_EQ(kdf(1, in, UINT32_MAX, 16, out), AVEN_E_INPUT_TOO_LONG);
}

}  // namespace
