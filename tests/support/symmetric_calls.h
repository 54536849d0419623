// The development engine's ciphers by number, and calls of its two functions for them, each with
// buffers of its own, which are looked at for what was written beside them.
#ifndef CORVANE_TESTS_SYMMETRIC_CALLS_H
#define CORVANE_TESTS_SYMMETRIC_CALLS_H

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdint>
#include <string>

#include "support/devkit_engine.h"

namespace support {

struct Cipher {
    int number;
    const char* name;  // libcrypto's
    size_t keyLength;
    size_t block;
};

constexpr Cipher ciphers[] = {
    {AVEN_CIPHER_SM4, "SM4", 16, 16},           {AVEN_CIPHER_AES_128, "AES-128", 16, 16},
    {AVEN_CIPHER_AES_192, "AES-192", 24, 16},   {AVEN_CIPHER_AES_256, "AES-256", 32, 16},
    {AVEN_CIPHER_ARIA_256, "ARIA-256", 32, 16}, {AVEN_CIPHER_CAMELLIA_256, "CAMELLIA-256", 32, 16},
    {AVEN_CIPHER_3DES, "DES-EDE3", 24, 8},
};
constexpr const char* modes[] = {"", "ECB", "CBC", "CFB", "OFB", "CTR", "GCM"};

struct Job {
    int alg;
    int mode;
    int padding;
    std::string key;
    std::string iv;
    std::string aad;
};

inline bool isSupported(const Cipher& cipher, int mode)
{
    return cipher.block == 16 || mode < AVEN_MODE_CTR;
}

inline Job jobFor(const Cipher& cipher, int mode, int padding = 0)
{
    Job job = {cipher.number, mode, padding, pattern(cipher.keyLength, 7), "", ""};
    if (mode == AVEN_MODE_GCM) {
        job.iv = pattern(12, 8);
        job.aad = pattern(20, 9);
    } else if (mode != AVEN_MODE_ECB) {
        job.iv = pattern(cipher.block, 8);
    }
    return job;
}

// The job's parameter block, with its bytes elsewhere.
inline SymmCipherParams blockOf(const Job& job, const Exact& key, const Exact& iv, const Exact& aad)
{
    SymmCipherParams params = {};
    params.alg = job.alg;
    params.mode = job.mode;
    params.padding = job.padding;
    params.key = key.data();
    params.key_len = key.size();
    params.iv = job.iv.empty() ? nullptr : iv.data();
    params.iv_len = iv.size();
    params.aad = job.aad.empty() ? nullptr : aad.data();
    params.aad_len = aad.size();
    return params;
}

struct CipherResult {
    int code;
    uint32_t len;
    std::string out;
    std::string tag;
};

class CryptoEncrypt : public EngineTest {
protected:
    CipherResult encrypt(const Job& job, const std::string& data, size_t capacity,
                         int tagLength = 0)
    {
        const Exact key(job.key), iv(job.iv), aad(job.aad), in(data);
        const SymmCipherParams params = blockOf(job, key, iv, aad);
        Fenced out(capacity);
        Fenced tag(tagLength > 0 ? static_cast<size_t>(tagLength) : 0);
        const int code =
            engine.aven_crypto_encrypt(&params, in.data(), in.size(), out.data(), &out.len,
                                       tagLength, tagLength != 0 ? tag.data() : nullptr);
        EXPECT_TRUE(out.fenceIntact());
        EXPECT_TRUE(tag.fenceIntact());
        if (code != 0) {
            EXPECT_TRUE(out.untouched());
        }
        return {code, out.len, code == 0 ? out.text() : "", code == 0 ? tag.text() : ""};
    }

    CipherResult encrypt(const Job& job, const std::string& data)
    {
        return encrypt(job, data, data.size() + 128, job.mode == AVEN_MODE_GCM ? 16 : 0);
    }

    CipherResult decrypt(const Job& job, const std::string& data, const std::string& tagBytes,
                         size_t capacity)
    {
        const Exact key(job.key), iv(job.iv), aad(job.aad), in(data), tag(tagBytes);
        const SymmCipherParams params = blockOf(job, key, iv, aad);
        Fenced out(capacity);
        const int code = engine.aven_crypto_decrypt(&params, in.data(), in.size(),
                                                    tagBytes.empty() ? nullptr : tag.data(),
                                                    tag.size(), out.data(), &out.len);
        EXPECT_TRUE(out.fenceIntact());
        if (code != 0) {
            EXPECT_TRUE(out.wiped());
        }
        return {code, out.len, code == 0 ? out.text() : "", ""};
    }

    CipherResult decrypt(const Job& job, const std::string& data, const std::string& tag = "")
    {
        return decrypt(job, data, tag, data.size() + 64);
    }

    int encryptCode(const Job& job, const std::string& data = pattern(32), int tagLength = -1)
    {
        if (tagLength == -1)
            tagLength = job.mode == AVEN_MODE_GCM ? 16 : 0;
        return encrypt(job, data, data.size() + 128, tagLength).code;
    }
};

inline std::string libcryptoEncrypt(const Cipher& cipher, const Job& job, const std::string& data)
{
    const std::string name = std::string(cipher.name) + "-" + modes[job.mode];
    EVP_CIPHER* algorithm = EVP_CIPHER_fetch(nullptr, name.c_str(), nullptr);
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    std::string out(data.size() + 16, '\0');
    auto* to = reinterpret_cast<unsigned char*>(&out[0]);
    int some = 0;
    int last = 0;
    EXPECT_EQ(EVP_EncryptInit_ex2(context, algorithm,
                                  reinterpret_cast<const unsigned char*>(job.key.data()),
                                  reinterpret_cast<const unsigned char*>(job.iv.data()), nullptr),
              1);
    EVP_CIPHER_CTX_set_padding(context, job.padding);
    EXPECT_EQ(
        EVP_EncryptUpdate(context, to, &some, reinterpret_cast<const unsigned char*>(data.data()),
                          static_cast<int>(data.size())),
        1);
    EXPECT_EQ(EVP_EncryptFinal_ex(context, to + some, &last), 1);
    EVP_CIPHER_CTX_free(context);
    EVP_CIPHER_free(algorithm);
    out.resize(static_cast<size_t>(some + last));
    return out;
}

}  // namespace support

#endif
