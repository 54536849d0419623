// The development engine's check of PKCS#7's padding (RFC 5652, 6.3), against the plain rule.
#include <cstdint>
#include <string>

#include "support/symmetric_calls.h"

namespace {

using support::Cipher;
using support::CipherResult;
using support::ciphers;
using support::CryptoEncrypt;
using support::Job;
using support::jobFor;
using support::pattern;

class Pkcs7 : public CryptoEncrypt {
protected:
    // A whole number of blocks that ends in `count` bytes of that value.
    static std::string padded(const Cipher& cipher, size_t count)
    {
        std::string text = pattern(3 * cipher.block);
        return text.replace(text.size() - count, count, count, static_cast<char>(count));
    }

    // Decrypts what has this text, padding and all.
    CipherResult open(const Cipher& cipher, int mode, const std::string& text)
    {
        return decrypt(jobFor(cipher, mode, AVEN_PADDING_PKCS7),
                       encrypt(jobFor(cipher, mode), text).out);
    }
};

constexpr int blockModes[] = {AVEN_MODE_ECB, AVEN_MODE_CBC};
const Cipher* const bothBlocks[] = {&ciphers[0], &ciphers[6]};

TEST_F(Pkcs7, EveryRightPaddingIsTakenAway)
{
    for (const Cipher& cipher : ciphers) {
        for (int mode : blockModes) {
            for (size_t count = 1; count <= cipher.block; ++count) {
                const std::string text = padded(cipher, count);
                const CipherResult opened = open(cipher, mode, text);
                EXPECT_EQ(opened.code, 0);
                EXPECT_EQ(opened.out, text.substr(0, text.size() - count));
            }
        }
    }
}

// The other bytes are as in a whole block of padding, or equal to the count, or of a text.
TEST_F(Pkcs7, EveryLastByteIsJudgedByThoseBeforeIt)
{
    for (const Cipher* cipher : bothBlocks) {
        const size_t block = cipher->block;
        for (unsigned count = 0; count < 256; ++count) {
            for (char before : {static_cast<char>(block), static_cast<char>(count), '\1', '\0'}) {
                std::string text = padded(*cipher, block);
                text.replace(text.size() - block, block - 1, block - 1, before);
                text.back() = static_cast<char>(count);
                const bool isCount = count >= 1 && count <= block;
                const bool isRight = isCount && (count == 1 || before == static_cast<char>(count));
                const CipherResult opened = open(*cipher, AVEN_MODE_CBC, text);
                EXPECT_EQ(opened.code, isRight ? 0 : AVEN_E_BAD_PADDING) << count << +before;
                EXPECT_EQ(opened.len, isRight ? text.size() - count : 0) << count << +before;
            }
        }
    }
}

TEST_F(Pkcs7, OneWrongBitAnywhereInThePaddingIsFound)
{
    for (const Cipher* cipher : bothBlocks) {
        for (size_t count = 2; count <= cipher->block; ++count) {
            for (size_t back = 2; back <= count; ++back) {
                for (int bit = 0; bit < 8; ++bit) {
                    std::string text = padded(*cipher, count);
                    char& byte = text[text.size() - back];
                    byte = static_cast<char>(byte ^ 1 << bit);
                    EXPECT_EQ(open(*cipher, AVEN_MODE_CBC, text).code, AVEN_E_BAD_PADDING)
                        << count << " " << back << " " << bit;
                }
            }
        }
    }
}

TEST_F(Pkcs7, BytesBehindTheTextStayTheCallers)
{
    for (size_t count : {size_t{1}, size_t{5}, size_t{16}}) {
        const Job job = jobFor(ciphers[0], AVEN_MODE_CBC, AVEN_PADDING_PKCS7);
        const std::string plain = pattern(32 - count);
        const std::string sealed = encrypt(job, plain).out;
        ASSERT_EQ(sealed.size(), 32U);
        const support::Exact key(job.key), iv(job.iv), in(sealed);
        const SymmCipherParams params = {job.alg,   job.mode,  job.padding, key.data(), key.size(),
                                         iv.data(), iv.size(), nullptr,     0};
        std::string out(sealed.size(), '\x5a');
        uint32_t size = in.size();
        EXPECT_EQ(engine.aven_crypto_decrypt(&params, in.data(), in.size(), nullptr, 0,
                                             reinterpret_cast<unsigned char*>(out.data()), &size),
                  0);
        EXPECT_EQ(out, plain + std::string(count, '\x5a'));
    }
}

TEST_F(Pkcs7, TheTextMayTakeTheCiphertextsPlace)
{
    for (const Cipher& cipher : ciphers) {
        for (int mode : blockModes) {
            const Job job = jobFor(cipher, mode, AVEN_PADDING_PKCS7);
            const std::string plain = pattern(50);
            std::string data = encrypt(job, plain).out;
            const support::Exact key(job.key), iv(job.iv);
            const SymmCipherParams params = {job.alg,    job.mode,   job.padding,
                                             key.data(), key.size(), iv.data(),
                                             iv.size(),  nullptr,    0};
            auto* bytes = reinterpret_cast<unsigned char*>(data.data());
            uint32_t size = static_cast<uint32_t>(data.size());
            EXPECT_EQ(engine.aven_crypto_decrypt(&params, bytes, size, nullptr, 0, bytes, &size),
                      0);
            EXPECT_EQ(data.substr(0, size), plain);
        }
    }
}

}  // namespace
