// The development engine's GCM: published vectors, every cipher against a textbook GCM, and
// what is refused.
#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <utility>

#include "support/symmetric_calls.h"

namespace {

using support::Cipher;
using support::CipherResult;
using support::ciphers;
using support::CryptoEncrypt;
using support::fromHex;
using support::isSupported;
using support::Job;
using support::jobFor;
using support::libcryptoEncrypt;
using support::pattern;
using support::Sizes;
using support::toHex;

using Gcm = CryptoEncrypt;

const char sm4Key[] = "0123456789abcdeffedcba9876543210";

const struct GcmVector {
    const char* source;
    int alg;
    const char* key;
    const char* iv;
    const char* aad;
    const char* plain;
    const char* cipher;
    const char* tag;
} gcmVectors[] = {
    {"RFC 8998 A.1", 1, sm4Key, "00001234567800000000abcd",
     "feedfacedeadbeeffeedfacedeadbeefabaddad2",
     "aaaaaaaaaaaaaaaabbbbbbbbbbbbbbbbccccccccccccccccdddddddddddddddd"
     "eeeeeeeeeeeeeeeeffffffffffffffffeeeeeeeeeeeeeeeeaaaaaaaaaaaaaaaa",
     "17f399f08c67d5ee19d0dc9969c4bb7d5fd46fd3756489069157b282bb200735"
     "d82710ca5c22f0ccfa7cbf93d496ac15a56834cbcf98c397b4024a2691233b8d",
     "83de3541e4c2b58177e065a9bf7b62ec"},
    {"GCM submission, case 4", 2, "feffe9928665731c6d6a8f9467308308", "cafebabefacedbaddecaf888",
     "feedfacedeadbeeffeedfacedeadbeefabaddad2",
     "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a72"
     "1c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de657ba637b39",
     "42831ec2217774244b7221b784d0d49ce3aa212f2c02a4e035c17e2329aca12e"
     "21d514b25466931c7d8f6a5aac84aa051ba30b396a0aac973d58e091",
     "5bc94fbc3221a5db94fae95ae7121a47"},
    {"GCM submission, case 1", 2, "00000000000000000000000000000000", "000000000000000000000000",
     "", "", "", "58e2fccefa7e3061367f1d57a4e7455a"},
    {"GCM submission, case 14", 4,
     "0000000000000000000000000000000000000000000000000000000000000000", "000000000000000000000000",
     "", "00000000000000000000000000000000", "cea7403d4d606b6e074ec5d3baf39d18",
     "d0d1c8a799996bf0265b98b5d48ab919"},
};

TEST_F(Gcm, PublishedVectorsBothWays)
{
    for (const GcmVector& v : gcmVectors) {
        SCOPED_TRACE(v.source);
        const Job job = {v.alg, AVEN_MODE_GCM, 0, fromHex(v.key), fromHex(v.iv), fromHex(v.aad)};
        const CipherResult sealed = encrypt(job, fromHex(v.plain));
        EXPECT_EQ(sealed.code, 0);
        EXPECT_EQ(toHex(sealed.out), v.cipher);
        EXPECT_EQ(toHex(sealed.tag), v.tag);
        const CipherResult opened = decrypt(job, fromHex(v.cipher), fromHex(v.tag));
        EXPECT_EQ(opened.code, 0);
        EXPECT_EQ(toHex(opened.out), v.plain);
    }
}

// GCM as SP 800-38D writes it, a bit at a time, over an ECB function.
using Block = std::array<unsigned char, 16>;

void xorInto(Block& a, const Block& b)
{
    for (size_t i = 0; i < 16; ++i)
        a[i] = static_cast<unsigned char>(a[i] ^ b[i]);
}

Block multiply(const Block& x, Block v)
{
    Block z = {};
    for (size_t i = 0; i < 128; ++i) {
        if ((x[i / 8] >> (7 - i % 8) & 1) != 0)
            xorInto(z, v);
        const bool carry = (v[15] & 1) != 0;
        for (size_t k = 15; k > 0; --k)
            v[k] = static_cast<unsigned char>(v[k] >> 1 | v[k - 1] << 7);
        v[0] = static_cast<unsigned char>(v[0] >> 1);
        if (carry)
            v[0] ^= 0xe1;
    }
    return z;
}

struct TextbookGcm {
    const Cipher& cipher;
    const Job& job;

    Block ecb(const Block& in) const
    {
        const Job plainBlock = {job.alg, AVEN_MODE_ECB, 0, job.key, "", ""};
        const std::string out =
            libcryptoEncrypt(cipher, plainBlock, std::string(in.begin(), in.end()));
        Block block;
        std::copy(out.begin(), out.end(), block.begin());
        return block;
    }

    static void absorb(Block& y, const Block& h, const std::string& data)
    {
        for (size_t i = 0; i < data.size(); i += 16) {
            Block b = {};
            std::copy_n(data.begin() + static_cast<std::ptrdiff_t>(i),
                        std::min<size_t>(16, data.size() - i), b.begin());
            xorInto(y, b);
            y = multiply(y, h);
        }
    }

    static void absorbLengths(Block& y, const Block& h, uint64_t first, uint64_t second)
    {
        Block b;
        for (size_t i = 0; i < 8; ++i) {
            b[i] = static_cast<unsigned char>(first * 8 >> (56 - 8 * i));
            b[8 + i] = static_cast<unsigned char>(second * 8 >> (56 - 8 * i));
        }
        xorInto(y, b);
        y = multiply(y, h);
    }

    static void increment(Block& counter)
    {
        for (size_t i = 15; i >= 12; --i)
            if (++counter[i] != 0)
                break;
    }

    std::pair<std::string, std::string> seal(const std::string& plain) const
    {
        const Block h = ecb(Block{});
        Block first = {};
        if (job.iv.size() == 12) {
            std::copy(job.iv.begin(), job.iv.end(), first.begin());
            first[15] = 1;
        } else {
            absorb(first, h, job.iv);
            absorbLengths(first, h, 0, job.iv.size());
        }

        std::string out;
        Block counter = first;
        Block stream = {};
        for (size_t i = 0; i < plain.size(); ++i) {
            if (i % 16 == 0) {
                increment(counter);
                stream = ecb(counter);
            }
            out += static_cast<char>(static_cast<unsigned char>(plain[i]) ^ stream[i % 16]);
        }

        Block tag = {};
        absorb(tag, h, job.aad);
        absorb(tag, h, out);
        absorbLengths(tag, h, job.aad.size(), out.size());
        xorInto(tag, ecb(first));
        return {out, std::string(tag.begin(), tag.end())};
    }
};

TEST_F(Gcm, EveryCipherAgreesWithTheTextbook)
{
    for (const Cipher& cipher : ciphers) {
        if (!isSupported(cipher, AVEN_MODE_GCM))
            continue;
        SCOPED_TRACE(cipher.name);
        // Sizes around a block, around 64 blocks and around 3 KiB, where the counters
        // are encrypted in batches.
        for (size_t size :
             Sizes{0, 1, 15, 16, 17, 64, 1023, 1024, 1025, 1040, 3071, 3072, 3073, 5000}) {
            for (size_t ivSize : Sizes{12, 1, 16, 128}) {
                if (ivSize != 12 && size > 64)
                    continue;
                for (size_t aadSize : Sizes{0, 1, 16, 33}) {
                    Job job = jobFor(cipher, AVEN_MODE_GCM);
                    job.iv = pattern(ivSize, 5);
                    job.aad = pattern(aadSize, 6);
                    const std::string plain = pattern(size);
                    const auto expected = TextbookGcm{cipher, job}.seal(plain);
                    const CipherResult sealed = encrypt(job, plain);
                    ASSERT_EQ(sealed.code, 0);
                    ASSERT_EQ(toHex(sealed.out), toHex(expected.first)) << size;
                    ASSERT_EQ(toHex(sealed.tag), toHex(expected.second)) << size;
                    const CipherResult opened = decrypt(job, sealed.out, sealed.tag);
                    ASSERT_EQ(opened.code, 0);
                    ASSERT_EQ(toHex(opened.out), toHex(plain));
                }
            }
        }
    }
}

// 1 / x, which is x to the power of 2^128 - 2.
Block invert(const Block& x)
{
    Block power = x;
    Block inverse = {0x80};  // 1
    for (int i = 1; i < 128; ++i) {
        power = multiply(power, power);
        inverse = multiply(inverse, power);
    }
    return inverse;
}

TEST_F(Gcm, CounterWrapsWithinItsLastFourBytes)
{
    for (const Cipher& cipher : ciphers) {
        if (!isSupported(cipher, AVEN_MODE_GCM))
            continue;
        SCOPED_TRACE(cipher.name);
        // The IV whose hash is the wanted first counter, which wraps after `left` blocks.
        for (int left : {1, 5, 64, 100}) {
            Job job = jobFor(cipher, AVEN_MODE_GCM);
            const TextbookGcm textbook = {cipher, job};
            const Block inverse = invert(textbook.ecb(Block{}));
            Block iv = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 0xff, 0xff, 0xff};
            iv[15] = static_cast<unsigned char>(256 - left);
            iv = multiply(iv, inverse);
            iv[15] = static_cast<unsigned char>(iv[15] ^ 128);  // the IV's length in bits
            iv = multiply(iv, inverse);
            job.iv.assign(iv.begin(), iv.end());

            const std::string plain = pattern(200 * 16 + 5);
            const auto expected = textbook.seal(plain);
            const CipherResult sealed = encrypt(job, plain);
            EXPECT_EQ(toHex(sealed.out), toHex(expected.first));
            EXPECT_EQ(toHex(sealed.tag), toHex(expected.second));
            EXPECT_EQ(decrypt(job, sealed.out, sealed.tag).out, plain);
        }
    }
}

TEST_F(Gcm, ShortTagsAreTheFirstBytesOfTheWhole)
{
    for (const Cipher& cipher : ciphers) {
        if (!isSupported(cipher, AVEN_MODE_GCM))
            continue;
        SCOPED_TRACE(cipher.name);
        const Job job = jobFor(cipher, AVEN_MODE_GCM);
        const std::string plain = pattern(50);
        const std::string whole = encrypt(job, plain).tag;
        ASSERT_EQ(whole.size(), 16u);
        for (int n = 4; n <= 16; ++n) {
            const CipherResult sealed = encrypt(job, plain, 50, n);
            EXPECT_EQ(sealed.code, 0);
            EXPECT_EQ(sealed.tag, whole.substr(0, static_cast<size_t>(n)));
            EXPECT_EQ(decrypt(job, sealed.out, sealed.tag).out, plain);
        }
    }
}

TEST_F(Gcm, AnyChangeIsRefusedAndNothingIsReleased)
{
    for (const Cipher& cipher : ciphers) {
        if (!isSupported(cipher, AVEN_MODE_GCM))
            continue;
        SCOPED_TRACE(cipher.name);
        const Job job = jobFor(cipher, AVEN_MODE_GCM);
        const CipherResult sealed = encrypt(job, pattern(100));
        const auto refused = [&](const Job& j, const std::string& data, const std::string& tag) {
            const CipherResult opened = decrypt(j, data, tag);
            EXPECT_EQ(opened.code, AVEN_E_TAG_MISMATCH);
            EXPECT_EQ(opened.len, 0u);
        };
        std::string changed = sealed.out;
        changed[99] ^= 1;
        refused(job, changed, sealed.tag);
        refused(job, sealed.out.substr(0, 99), sealed.tag);
        refused(job, "", sealed.tag);
        for (size_t i = 0; i < 16; ++i) {
            std::string tag = sealed.tag;
            tag[i] = static_cast<char>(tag[i] ^ 0x80);
            refused(job, sealed.out, tag);
        }
        Job other = job;
        other.aad[0] ^= 1;
        refused(other, sealed.out, sealed.tag);
        other = job;
        other.aad.clear();
        refused(other, sealed.out, sealed.tag);
        other = job;
        other.iv[0] ^= 1;
        refused(other, sealed.out, sealed.tag);
        other = job;
        other.key[0] ^= 2;
        refused(other, sealed.out, sealed.tag);
    }
}

TEST_F(Gcm, TagAndIvLengthsAreChecked)
{
    Job job = jobFor(ciphers[0], AVEN_MODE_GCM);
    for (int n : {-2, 0, 1, 3, 17, 512})
        EXPECT_EQ(encryptCode(job, "x", n), AVEN_E_TAG_LENGTH) << n;
    for (size_t n : Sizes{0, 1, 3, 17})
        EXPECT_EQ(decrypt(job, "x", pattern(n)).code, AVEN_E_TAG_LENGTH) << n;
    job.iv.clear();
    EXPECT_EQ(encryptCode(job), AVEN_E_IV_LENGTH);
    job.iv = pattern(129);
    EXPECT_EQ(encryptCode(job), AVEN_E_IV_LENGTH);
}

}  // namespace
