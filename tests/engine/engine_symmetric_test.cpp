// The development engine's ciphers: published vectors, every cipher in every mode against
// libcrypto, and what is refused; the keys that it makes, and the white-box functions.
#include <cstdint>
#include <string>

#include "support/symmetric_calls.h"

namespace {

using support::Cipher;
using support::CipherResult;
using support::ciphers;
using support::CryptoEncrypt;
using support::Exact;
using support::Fenced;
using support::fromHex;
using support::isSupported;
using support::Job;
using support::jobFor;
using support::libcryptoEncrypt;
using support::modes;
using support::pattern;
using support::Sizes;
using support::toHex;

using CryptoDecrypt = CryptoEncrypt;

// ---- Published vectors

const char nistPlain[] =
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710";
const char nistIv[] = "000102030405060708090a0b0c0d0e0f";
const char nistCounter[] = "f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff";
const char aes128Key[] = "2b7e151628aed2a6abf7158809cf4f3c";
const char aes192Key[] = "8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b";
const char aes256Key[] = "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4";
const char sm4Key[] = "0123456789abcdeffedcba9876543210";
const char sm4Plain[] = "aaaaaaaabbbbbbbbccccccccddddddddeeeeeeeeffffffffaaaaaaaabbbbbbbb";
const char sm4CtrPlain[] =
    "aaaaaaaaaaaaaaaabbbbbbbbbbbbbbbbccccccccccccccccdddddddddddddddd"
    "eeeeeeeeeeeeeeeeffffffffffffffffaaaaaaaaaaaaaaaabbbbbbbbbbbbbbbb";

// All of them agree with "openssl enc -nopad".
const struct Vector {
    const char* source;
    int alg;
    int mode;
    const char* key;
    const char* iv;
    const char* plain;
    const char* cipher;
} vectors[] = {
    {"SP 800-38A F.1.1", 2, 1, aes128Key, "", nistPlain,
     "3ad77bb40d7a3660a89ecaf32466ef97f5d3d58503b9699de785895a96fdbaaf"
     "43b1cd7f598ece23881b00e3ed0306887b0c785e27e8ad3f8223207104725dd4"},
    {"SP 800-38A F.1.3", 3, 1, aes192Key, "", nistPlain,
     "bd334f1d6e45f25ff712a214571fa5cc974104846d0ad3ad7734ecb3ecee4eef"
     "ef7afd2270e2e60adce0ba2face6444e9a4b41ba738d6c72fb16691603c18e0e"},
    {"SP 800-38A F.1.5", 4, 1, aes256Key, "", nistPlain,
     "f3eed1bdb5d2a03c064b5a7e3db181f8591ccb10d410ed26dc5ba74a31362870"
     "b6ed21b99ca6f4f9f153e7b1beafed1d23304b7a39f9f3ff067d8d8f9e24ecc7"},
    {"SP 800-38A F.2.1", 2, 2, aes128Key, nistIv, nistPlain,
     "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
     "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7"},
    {"SP 800-38A F.2.3", 3, 2, aes192Key, nistIv, nistPlain,
     "4f021db243bc633d7178183a9fa071e8b4d9ada9ad7dedf4e5e738763f69145a"
     "571b242012fb7ae07fa9baac3df102e008b0e27988598881d920a9e64f5615cd"},
    {"SP 800-38A F.2.5", 4, 2, aes256Key, nistIv, nistPlain,
     "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
     "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b"},
    {"SP 800-38A F.3.13", 2, 3, aes128Key, nistIv, nistPlain,
     "3b3fd92eb72dad20333449f8e83cfb4ac8a64537a0b3a93fcde3cdad9f1ce58b"
     "26751f67a3cbb140b1808cf187a4f4dfc04b05357c5d1c0eeac4c66f9ff7f2e6"},
    {"SP 800-38A F.3.15", 3, 3, aes192Key, nistIv, nistPlain,
     "cdc80d6fddf18cab34c25909c99a417467ce7f7f81173621961a2b70171d3d7a"
     "2e1e8a1dd59b88b1c8e60fed1efac4c9c05f9f9ca9834fa042ae8fba584b09ff"},
    {"SP 800-38A F.3.17", 4, 3, aes256Key, nistIv, nistPlain,
     "dc7e84bfda79164b7ecd8486985d386039ffed143b28b1c832113c6331e5407b"
     "df10132415e54b92a13ed0a8267ae2f975a385741ab9cef82031623d55b1e471"},
    {"SP 800-38A F.4.1", 2, 4, aes128Key, nistIv, nistPlain,
     "3b3fd92eb72dad20333449f8e83cfb4a7789508d16918f03f53c52dac54ed825"
     "9740051e9c5fecf64344f7a82260edcc304c6528f659c77866a510d9c1d6ae5e"},
    {"SP 800-38A F.4.3", 3, 4, aes192Key, nistIv, nistPlain,
     "cdc80d6fddf18cab34c25909c99a4174fcc28b8d4c63837c09e81700c1100401"
     "8d9a9aeac0f6596f559c6d4daf59a5f26d9f200857ca6c3e9cac524bd9acc92a"},
    {"SP 800-38A F.4.5", 4, 4, aes256Key, nistIv, nistPlain,
     "dc7e84bfda79164b7ecd8486985d38604febdc6740d20b3ac88f6ad82a4fb08d"
     "71ab47a086e86eedf39d1c5bba97c4080126141d67f37be8538f5a8be740e484"},
    {"SP 800-38A F.5.1", 2, 5, aes128Key, nistCounter, nistPlain,
     "874d6191b620e3261bef6864990db6ce9806f66b7970fdff8617187bb9fffdff"
     "5ae4df3edbd5d35e5b4f09020db03eab1e031dda2fbe03d1792170a0f3009cee"},
    {"SP 800-38A F.5.3", 3, 5, aes192Key, nistCounter, nistPlain,
     "1abc932417521ca24f2b0459fe7e6e0b090339ec0aa6faefd5ccc2c6f4ce8e94"
     "1e36b26bd1ebc670d1bd1d665620abf74f78a7f6d29809585a97daec58c6b050"},
    {"SP 800-38A F.5.5", 4, 5, aes256Key, nistCounter, nistPlain,
     "601ec313775789a5b7a7f504bbf3d228f443e3ca4d62b59aca84e990cacaf5c5"
     "2b0930daa23de94ce87017ba2d84988ddfc9c58db67aada613c2dd08457941a6"},
    {"GB/T 32907 A.1", 1, 1, sm4Key, "", "0123456789abcdeffedcba9876543210",
     "681edf34d206965e86b3e94f536e4246"},
    {"draft-ribose-cfrg-sm4 ECB", 1, 1, sm4Key, "", sm4Plain,
     "5ec8143de509cff7b5179f8f474b86192f1d305a7fb17df985f81c8482192304"},
    {"draft-ribose-cfrg-sm4 CBC", 1, 2, sm4Key, nistIv, sm4Plain,
     "78ebb11cc40b0a48312aaeb2040244cb4cb7016951909226979b0d15dc6a8f6d"},
    {"draft-ribose-cfrg-sm4 CFB", 1, 3, sm4Key, nistIv, sm4Plain,
     "ac3236cb861dd316e6413b4e3c7524b769d4c54ed433b9a0346009beb37b2b3f"},
    {"draft-ribose-cfrg-sm4 OFB", 1, 4, sm4Key, nistIv, sm4Plain,
     "ac3236cb861dd316e6413b4e3c7524b71d01aca2487ca582cbf5463e6698539b"},
    {"draft-ribose-cfrg-sm4 CTR", 1, 5, sm4Key, nistIv, sm4CtrPlain,
     "ac3236cb970cc20791364c395a1342d1a3cbc1878c6f30cd074cce385cdd70c7"
     "f234bc0e24c11980fd1286310ce37b926e02fcd0faa0baf38b2933851d824514"},
    {"RFC 5794 A.3", 5, 1, "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f", "",
     "00112233445566778899aabbccddeeff", "f92bd7c79fb72e2f2b8f80c1972d24fc"},
    {"RFC 3713 A", 6, 1, "0123456789abcdeffedcba987654321000112233445566778899aabbccddeeff", "",
     "0123456789abcdeffedcba9876543210", "9acc237dff16d76c20ef7c919e3a7509"},
    {"SP 800-67 B.1", 7, 1, "0123456789abcdef23456789abcdef01456789abcdef0123", "",
     "5468652071756663"
     "6b2062726f776e20"
     "666f78206a756d70",
     "a826fd8ce53b855f"
     "cce21c8112256fe6"
     "68d5c05dd9b6b900"},
};

TEST_F(CryptoEncrypt, PublishedVectorsBothWays)
{
    for (const Vector& v : vectors) {
        SCOPED_TRACE(v.source);
        const Job job = {v.alg, v.mode, 0, fromHex(v.key), fromHex(v.iv), ""};
        const std::string plain = fromHex(v.plain);
        const std::string cipher = fromHex(v.cipher);
        EXPECT_EQ(toHex(encrypt(job, plain).out), v.cipher);
        EXPECT_EQ(toHex(decrypt(job, cipher).out), v.plain);
    }
}

// ---- Every cipher in every mode

TEST_F(CryptoEncrypt, AgreesWithLibcryptoAndRoundTrips)
{
    for (const Cipher& cipher : ciphers) {
        for (int mode = AVEN_MODE_ECB; mode <= AVEN_MODE_CTR; ++mode) {
            for (int padding = 0; padding <= 1; ++padding) {
                if (!isSupported(cipher, mode))
                    continue;
                SCOPED_TRACE(std::string(cipher.name) + "-" + modes[mode] + " padding " +
                             std::to_string(padding));
                const bool whole = padding == 0 && mode <= AVEN_MODE_CBC;
                const Job job = jobFor(cipher, mode, padding);
                for (size_t size : Sizes{0, 1, 7, 8, 15, 16, 17, 24, 32, 48, 100, 4096, 5000}) {
                    if (whole && size % cipher.block != 0)
                        continue;
                    const std::string plain = pattern(size);
                    const CipherResult sealed = encrypt(job, plain);
                    EXPECT_EQ(sealed.code, 0);
                    EXPECT_EQ(toHex(sealed.out), toHex(libcryptoEncrypt(cipher, job, plain)));
                    const CipherResult opened = decrypt(job, sealed.out);
                    EXPECT_EQ(opened.code, 0);
                    EXPECT_EQ(toHex(opened.out), toHex(plain));
                }
            }
        }
    }
}

// ---- What is refused

TEST_F(CryptoEncrypt, NumbersAreChecked)
{
    const Job good = jobFor(ciphers[1], AVEN_MODE_CBC);
    for (int alg : {0, 8, -1, INT32_MAX, INT32_MIN}) {
        Job job = good;
        job.alg = alg;
        EXPECT_EQ(encryptCode(job), AVEN_E_CIPHER_NUMBER) << alg;
        EXPECT_EQ(decrypt(job, pattern(32)).code, AVEN_E_CIPHER_NUMBER) << alg;
    }
    for (int mode : {0, 7, -1, INT32_MAX, INT32_MIN}) {
        Job job = good;
        job.mode = mode;
        EXPECT_EQ(encryptCode(job), AVEN_E_MODE_NUMBER) << mode;
        EXPECT_EQ(decrypt(job, pattern(32)).code, AVEN_E_MODE_NUMBER) << mode;
    }
    for (int padding : {2, -1}) {
        Job job = good;
        job.padding = padding;
        EXPECT_EQ(encryptCode(job), AVEN_E_PADDING_NUMBER) << padding;
        EXPECT_EQ(decrypt(job, pattern(32)).code, AVEN_E_PADDING_NUMBER) << padding;
    }
}

TEST_F(CryptoEncrypt, ThreeDesHasNeitherCtrNorGcm)
{
    for (int mode : {5, 6}) {
        Job job = jobFor(ciphers[6], mode);
        EXPECT_EQ(encryptCode(job), AVEN_E_COMBINATION);
        EXPECT_EQ(decrypt(job, pattern(32), mode == AVEN_MODE_GCM ? pattern(16) : "").code,
                  AVEN_E_COMBINATION);
    }
}

TEST_F(CryptoEncrypt, KeyAndIvLengthsAreChecked)
{
    for (const Cipher& cipher : ciphers) {
        SCOPED_TRACE(cipher.name);
        const Job good = jobFor(cipher, AVEN_MODE_CBC);
        for (size_t n : {size_t{0}, size_t{1}, cipher.keyLength - 1, cipher.keyLength + 1}) {
            Job job = good;
            job.key = pattern(n);
            EXPECT_EQ(encryptCode(job), AVEN_E_KEY_LENGTH) << n;
        }
        for (size_t n : {size_t{0}, cipher.block - 1, cipher.block + 1}) {
            Job job = good;
            job.iv = pattern(n);
            EXPECT_EQ(encryptCode(job), AVEN_E_IV_LENGTH) << n;
        }
        Job job = jobFor(cipher, AVEN_MODE_ECB);
        job.iv = pattern(cipher.block);
        EXPECT_EQ(encryptCode(job), AVEN_E_IV_LENGTH);
    }
}

TEST_F(CryptoEncrypt, TagAndAdditionalDataGoWithGcmOnly)
{
    for (int mode = AVEN_MODE_ECB; mode <= AVEN_MODE_CTR; ++mode) {
        Job job = jobFor(ciphers[0], mode);
        EXPECT_EQ(encryptCode(job, pattern(32), 16), AVEN_E_NOT_AUTHENTICATED);
        EXPECT_EQ(decrypt(job, pattern(32), pattern(16)).code, AVEN_E_NOT_AUTHENTICATED);
        job.aad = "a";
        EXPECT_EQ(encryptCode(job), AVEN_E_NOT_AUTHENTICATED);
        EXPECT_EQ(decrypt(job, pattern(32)).code, AVEN_E_NOT_AUTHENTICATED);
    }
}

TEST_F(CryptoEncrypt, UnpaddedBlocksMustBeWhole)
{
    for (const Cipher& cipher : ciphers) {
        for (int mode : {AVEN_MODE_ECB, AVEN_MODE_CBC}) {
            const Job job = jobFor(cipher, mode);
            for (size_t size : {size_t{1}, cipher.block - 1, cipher.block + 1})
                EXPECT_EQ(encryptCode(job, pattern(size)), AVEN_E_DATA_LENGTH);
        }
    }
}

TEST_F(CryptoEncrypt, NeverWritesPastTheCapacity)
{
    for (const Cipher& cipher : ciphers) {
        for (int mode = AVEN_MODE_ECB; mode <= AVEN_MODE_GCM; ++mode) {
            for (int padding = 0; padding <= 1; ++padding) {
                if (!isSupported(cipher, mode))
                    continue;
                SCOPED_TRACE(std::string(cipher.name) + "-" + modes[mode]);
                const Job job = jobFor(cipher, mode, padding);
                const int tagLength = mode == AVEN_MODE_GCM ? 16 : 0;
                const std::string plain = pattern(48);
                const size_t needed =
                    padding == 1 && mode <= AVEN_MODE_CBC ? 48 + cipher.block : 48;
                const CipherResult exact = encrypt(job, plain, needed, tagLength);
                EXPECT_EQ(exact.code, 0);
                EXPECT_EQ(exact.len, needed);
                for (size_t capacity : {size_t{0}, size_t{1}, needed - 1}) {
                    const CipherResult small = encrypt(job, plain, capacity, tagLength);
                    EXPECT_EQ(small.code, AVEN_E_BUFFER_TOO_SMALL) << capacity;
                    EXPECT_EQ(small.len, needed);
                }

                const CipherResult opened = decrypt(job, exact.out, exact.tag, needed);
                EXPECT_EQ(opened.out, plain);
                for (size_t capacity : {size_t{0}, size_t{1}, needed - 1}) {
                    const CipherResult small = decrypt(job, exact.out, exact.tag, capacity);
                    EXPECT_EQ(small.code, AVEN_E_BUFFER_TOO_SMALL) << capacity;
                    EXPECT_EQ(small.len, needed);
                }
            }
        }
    }
}

TEST_F(CryptoEncrypt, NullPointersAreRefused)
{
    const std::string key = pattern(16), iv = pattern(16);
    SymmCipherParams good = {};
    good.alg = AVEN_CIPHER_SM4;
    good.mode = AVEN_MODE_GCM;
    good.key = reinterpret_cast<const unsigned char*>(key.data());
    good.key_len = 16;
    good.iv = reinterpret_cast<const unsigned char*>(iv.data());
    good.iv_len = 16;
    unsigned char in[16] = {}, out[64] = {}, tag[16] = {};
    uint32_t len = sizeof out;

    const auto encryptWith = [&](const SymmCipherParams* params, const unsigned char* data,
                                 unsigned char* to, uint32_t* toLen, unsigned char* tagTo) {
        len = sizeof out;
        return engine.aven_crypto_encrypt(params, data, 16, to, toLen, 16, tagTo);
    };
    const auto decryptWith = [&](const SymmCipherParams* params, const unsigned char* data,
                                 unsigned char* to, uint32_t* toLen, const unsigned char* tagFrom) {
        len = sizeof out;
        return engine.aven_crypto_decrypt(params, data, 16, tagFrom, 16, to, toLen);
    };
    ASSERT_EQ(encryptWith(&good, in, out, &len, tag), 0);
    ASSERT_EQ(decryptWith(&good, out, in, &len, tag), 0);

    EXPECT_EQ(encryptWith(nullptr, in, out, &len, tag), AVEN_E_NULL_POINTER);
    EXPECT_EQ(encryptWith(&good, nullptr, out, &len, tag), AVEN_E_NULL_POINTER);
    EXPECT_EQ(encryptWith(&good, in, nullptr, &len, tag), AVEN_E_NULL_POINTER);
    EXPECT_EQ(encryptWith(&good, in, out, nullptr, tag), AVEN_E_NULL_POINTER);
    EXPECT_EQ(encryptWith(&good, in, out, &len, nullptr), AVEN_E_NULL_POINTER);
    EXPECT_EQ(decryptWith(nullptr, in, out, &len, tag), AVEN_E_NULL_POINTER);
    EXPECT_EQ(decryptWith(&good, nullptr, out, &len, tag), AVEN_E_NULL_POINTER);
    EXPECT_EQ(decryptWith(&good, in, nullptr, &len, tag), AVEN_E_NULL_POINTER);
    EXPECT_EQ(decryptWith(&good, in, out, nullptr, tag), AVEN_E_NULL_POINTER);
    EXPECT_EQ(decryptWith(&good, in, out, &len, nullptr), AVEN_E_NULL_POINTER);

    SymmCipherParams bad = good;
    bad.key = nullptr;
    EXPECT_EQ(encryptWith(&bad, in, out, &len, tag), AVEN_E_NULL_POINTER);
    bad = good;
    bad.iv = nullptr;
    EXPECT_EQ(encryptWith(&bad, in, out, &len, tag), AVEN_E_NULL_POINTER);
    bad = good;
    bad.aad_len = 1;
    EXPECT_EQ(encryptWith(&bad, in, out, &len, tag), AVEN_E_NULL_POINTER);

    // Null with length 0 is an empty text.
    len = sizeof out;
    EXPECT_EQ(engine.aven_crypto_encrypt(&good, nullptr, 0, out, &len, 16, tag), 0);
    EXPECT_EQ(len, 0u);
}

TEST_F(CryptoDecrypt, BrokenBlockDataIsRefusedAndWiped)
{
    for (const Cipher& cipher : ciphers) {
        for (int mode : {AVEN_MODE_ECB, AVEN_MODE_CBC}) {
            SCOPED_TRACE(std::string(cipher.name) + "-" + modes[mode]);
            const Job padded = jobFor(cipher, mode, 1);
            EXPECT_EQ(decrypt(padded, "").code, AVEN_E_DATA_LENGTH);
            EXPECT_EQ(decrypt(padded, pattern(cipher.block - 1)).code, AVEN_E_DATA_LENGTH);
            EXPECT_EQ(decrypt(padded, pattern(cipher.block + 1)).code, AVEN_E_DATA_LENGTH);

            // A last block that ends in 0, in more than a block, or in unequal bytes.
            const Job raw = jobFor(cipher, mode, 0);
            for (const char* ending : {"00", "11", "ff", "0202020303", "0102"}) {
                std::string plain = std::string(64, 'p');
                const std::string tail = fromHex(ending);
                plain.replace(plain.size() - tail.size(), tail.size(), tail);
                if (std::string(ending) == "0102")
                    plain[63] = 3;
                const CipherResult opened = decrypt(padded, encrypt(raw, plain).out);
                EXPECT_EQ(opened.code, AVEN_E_BAD_PADDING) << ending;
                EXPECT_EQ(opened.len, 0u);
            }
        }
    }
}

// ---- Key generation and the white-box functions

using GenSymmkey = support::EngineTest;

TEST_F(GenSymmkey, GivesTheCiphersKeyLengthAndNeverTheSame)
{
    for (const Cipher& cipher : ciphers) {
        SCOPED_TRACE(cipher.name);
        Fenced first(1024), second(cipher.keyLength);
        ASSERT_EQ(engine.aven_crypto_gen_symmkey(cipher.number, first.data(), &first.len), 0);
        ASSERT_EQ(engine.aven_crypto_gen_symmkey(cipher.number, second.data(), &second.len), 0);
        EXPECT_EQ(first.len, cipher.keyLength);
        EXPECT_EQ(second.len, cipher.keyLength);
        EXPECT_NE(first.text(), second.text());
        EXPECT_TRUE(second.fenceIntact());
    }
}

TEST_F(GenSymmkey, ThreeDesKeysHaveOddParity)
{
    for (int round = 0; round < 50; ++round) {
        Fenced key(24);
        ASSERT_EQ(engine.aven_crypto_gen_symmkey(AVEN_CIPHER_3DES, key.data(), &key.len), 0);
        for (char b : key.text())
            EXPECT_EQ(__builtin_popcount(static_cast<unsigned char>(b)) % 2, 1);
    }
}

TEST_F(GenSymmkey, ArgumentsAreChecked)
{
    Fenced out(31);
    EXPECT_EQ(engine.aven_crypto_gen_symmkey(0, out.data(), &out.len), AVEN_E_CIPHER_NUMBER);
    out.len = 31;
    EXPECT_EQ(engine.aven_crypto_gen_symmkey(8, out.data(), &out.len), AVEN_E_CIPHER_NUMBER);
    out.len = 31;
    EXPECT_EQ(engine.aven_crypto_gen_symmkey(4, out.data(), &out.len), AVEN_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(out.len, 32u);
    EXPECT_TRUE(out.untouched());
    EXPECT_EQ(engine.aven_crypto_gen_symmkey(4, nullptr, &out.len), AVEN_E_NULL_POINTER);
    EXPECT_EQ(engine.aven_crypto_gen_symmkey(4, out.data(), nullptr), AVEN_E_NULL_POINTER);
}

class WhiteboxSm4 : public support::EngineTest {
protected:
    CipherResult run(bool encrypting, const std::string& keyBytes, const std::string& ivBytes,
                     const std::string& data, size_t capacity, int kind = 1)
    {
        const Exact key(keyBytes), iv(ivBytes), in(data);
        Fenced out(capacity);
        const auto function = encrypting ? engine.aven_wbsm4_encrypt : engine.aven_wbsm4_decrypt;
        const int code = function(kind, key.data(), key.size(), iv.data(), iv.size(), in.data(),
                                  in.size(), out.data(), &out.len);
        EXPECT_TRUE(out.fenceIntact());
        return {code, out.len, code == 0 ? out.text() : "", ""};
    }

    const std::string m_key = pattern(16, 3);
    const std::string m_iv = pattern(16, 4);
};

TEST_F(WhiteboxSm4, IsSm4CbcWithPkcs7)
{
    const Job job = {AVEN_CIPHER_SM4, AVEN_MODE_CBC, 1, m_key, m_iv, ""};
    for (size_t size : Sizes{0, 1, 15, 16, 17, 31, 32, 1000}) {
        const std::string plain = pattern(size);
        const CipherResult sealed = run(true, m_key, m_iv, plain, size + 32);
        EXPECT_EQ(sealed.code, 0);
        EXPECT_EQ(toHex(sealed.out), toHex(libcryptoEncrypt(ciphers[0], job, plain)));
        // The plug-in offers exactly the input's length here.
        const CipherResult opened = run(false, m_key, m_iv, sealed.out, sealed.out.size());
        EXPECT_EQ(opened.code, 0);
        EXPECT_EQ(opened.out, plain);
    }
}

TEST_F(WhiteboxSm4, ArgumentsAreChecked)
{
    const std::string sealed = run(true, m_key, m_iv, pattern(20), 32).out;
    ASSERT_EQ(sealed.size(), 32u);
    for (bool encrypting : {true, false}) {
        const std::string in = encrypting ? pattern(20) : sealed;
        EXPECT_EQ(run(encrypting, m_key, m_iv, in, 32, 0).code, AVEN_E_WHITEBOX_KIND);
        EXPECT_EQ(run(encrypting, m_key, m_iv, in, 32, 2).code, AVEN_E_WHITEBOX_KIND);
        EXPECT_EQ(run(encrypting, pattern(15), m_iv, in, 32).code, AVEN_E_KEY_LENGTH);
        EXPECT_EQ(run(encrypting, pattern(17), m_iv, in, 32).code, AVEN_E_KEY_LENGTH);
        EXPECT_EQ(run(encrypting, m_key, pattern(15), in, 32).code, AVEN_E_IV_LENGTH);
        EXPECT_EQ(run(encrypting, m_key, "", in, 32).code, AVEN_E_IV_LENGTH);
        for (size_t capacity : Sizes{0, 1, 31}) {
            const CipherResult small = run(encrypting, m_key, m_iv, in, capacity);
            EXPECT_EQ(small.code, AVEN_E_BUFFER_TOO_SMALL);
            EXPECT_EQ(small.len, 32u);
        }
        const auto function = encrypting ? engine.aven_wbsm4_encrypt : engine.aven_wbsm4_decrypt;
        unsigned char bytes[64] = {};
        uint32_t len = 64;
        EXPECT_EQ(function(1, nullptr, 16, bytes, 16, bytes, 16, bytes, &len), AVEN_E_NULL_POINTER);
        len = 64;
        EXPECT_EQ(function(1, bytes, 16, nullptr, 16, bytes, 16, bytes, &len), AVEN_E_NULL_POINTER);
        len = 64;
        EXPECT_EQ(function(1, bytes, 16, bytes, 16, nullptr, 16, bytes, &len), AVEN_E_NULL_POINTER);
        len = 64;
        EXPECT_EQ(function(1, bytes, 16, bytes, 16, bytes, 16, nullptr, &len), AVEN_E_NULL_POINTER);
        EXPECT_EQ(function(1, bytes, 16, bytes, 16, bytes, 16, bytes, nullptr),
                  AVEN_E_NULL_POINTER);
    }
    EXPECT_EQ(run(false, m_key, m_iv, "", 32).code, AVEN_E_DATA_LENGTH);
    EXPECT_EQ(run(false, m_key, m_iv, sealed.substr(1), 32).code, AVEN_E_DATA_LENGTH);
    std::string other = m_key;
    other[0] = static_cast<char>(other[0] ^ 1);
    EXPECT_EQ(run(false, other, m_iv, sealed, 32).code, AVEN_E_BAD_PADDING);
}

}  // namespace
