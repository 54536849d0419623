// Every kernel that this processor has, held against the scalar one, which in turn is
// held against a decoder and an encoder that look characters up one by one.
#include "base64_kernels.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "base64.h"
#include "support/each_kernel.h"

namespace {

const std::string STANDARD = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const std::string URL = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

using support::kernels;
using Bytes = std::vector<unsigned char>;

Bytes randomBytes(size_t len, unsigned seed)
{
    std::mt19937 random(seed);
    Bytes bytes(len);
    for (unsigned char& byte : bytes)
        byte = static_cast<unsigned char>(random());
    return bytes;
}

// The text of whole groups.
std::string modelEncode(const Bytes& in, Base64Alphabet alphabet)
{
    const std::string& chars = alphabet == BASE64_URL ? URL : STANDARD;
    std::string text;
    for (size_t i = 0; i + 3 <= in.size(); i += 3) {
        const unsigned group = unsigned{in[i]} << 16 | unsigned{in[i + 1]} << 8 | in[i + 2];
        for (int shift = 18; shift >= 0; shift -= 6)
            text += chars[group >> shift & 63];
    }
    return text;
}

// The sextet of a character, or 64.
size_t modelSextet(char c, Base64Alphabet alphabet)
{
    size_t place = STANDARD.find(c);
    if (place == std::string::npos && alphabet == BASE64_URL)
        place = URL.find(c);
    return place == std::string::npos ? 64 : place;
}

// The bytes of the whole groups up to the first foreign character.
Bytes modelDecode(const std::string& text, Base64Alphabet alphabet)
{
    Bytes bytes;
    for (size_t i = 0; i + 4 <= text.size(); i += 4) {
        size_t group = 0;
        for (size_t k = 0; k < 4; ++k) {
            const size_t sextet = modelSextet(text[i + k], alphabet);
            if (sextet == 64)
                return bytes;
            group = group << 6 | sextet;
        }
        for (int shift = 16; shift >= 0; shift -= 8)
            bytes.push_back(static_cast<unsigned char>(group >> shift));
    }
    return bytes;
}

class Kernel : public ::testing::TestWithParam<std::tuple<const Base64Kernel*, Base64Alphabet>> {
protected:
    const Base64Kernel* kernel = std::get<0>(GetParam());
    const Base64Alphabet alphabet = std::get<1>(GetParam());
    const bool isScalar = kernel == base64KernelScalar();  // takes all whole groups

    // Encodes from a buffer of exactly the input's size into one of exactly the room
    // that the kernel may use, `shift` bytes behind an aligned address.
    void expectEncodes(const Bytes& in, size_t shift)
    {
        const std::unique_ptr<unsigned char[]> from(new unsigned char[in.size() + shift]);
        const size_t room = in.size() / 3 * 4;
        const std::unique_ptr<char[]> to(new char[room + shift]);
        std::copy(in.begin(), in.end(), from.get() + shift);

        const size_t taken =
            kernel->encode[alphabet](from.get() + shift, in.size(), to.get() + shift);
        ASSERT_EQ(0u, taken % 3) << in.size();
        ASSERT_LE(taken, in.size());
        ASSERT_GT(taken + (isScalar ? 3 : 64), in.size()) << "leaves more than a step";
        ASSERT_EQ(modelEncode(in, alphabet).substr(0, taken / 3 * 4),
                  std::string(to.get() + shift, taken / 3 * 4))
            << in.size() << " bytes at " << shift;
    }

    // Decodes between two buffers and in place. `clean` is the number of characters in
    // front of the first group with a foreign one.
    void expectDecodes(const std::string& text, size_t shift)
    {
        const Bytes expected = modelDecode(text, alphabet);
        const size_t clean = expected.size() / 3 * 4;
        const std::unique_ptr<unsigned char[]> from(new unsigned char[text.size() + shift]);
        const size_t room = (text.size() + 3) / 4 * 3;
        const std::unique_ptr<unsigned char[]> to(new unsigned char[room + shift]);
        memcpy(from.get() + shift, text.data(), text.size());

        for (unsigned char* out : {to.get() + shift, from.get() + shift}) {
            const size_t taken = kernel->decode[alphabet](from.get() + shift, text.size(), out);
            ASSERT_EQ(0u, taken % 4) << text;
            ASSERT_LE(taken, clean) << text;
            ASSERT_GT(taken + (isScalar ? 4 : 128), clean) << "leaves more than a step: " << text;
            ASSERT_EQ(Bytes(expected.begin(), expected.begin() + static_cast<long>(taken / 4 * 3)),
                      Bytes(out, out + taken / 4 * 3))
                << text << " at " << shift;
        }
    }
};

TEST_P(Kernel, EncodesEverySizeAtEveryAlignment)
{
    for (size_t len = 0; len <= 512; ++len)
        expectEncodes(randomBytes(len, static_cast<unsigned>(len)), len % 64);
    for (size_t shift = 0; shift < 64; ++shift)
        expectEncodes(randomBytes(301, 7), shift);
}

TEST_P(Kernel, DecodesEverySizeAtEveryAlignment)
{
    const std::string text = modelEncode(randomBytes(512, 1), alphabet);
    for (size_t len = 0; len <= 512; ++len)
        expectDecodes(text.substr(0, len), len % 64);
    for (size_t shift = 0; shift < 64; ++shift)
        expectDecodes(text.substr(0, 400), shift);
}

TEST_P(Kernel, KnowsEverySextetAtEveryPosition)
{
    for (unsigned value = 0; value < 64; ++value) {
        for (size_t position = 0; position < 192; ++position) {
            std::string text(192, 'A');
            text[position] = (alphabet == BASE64_URL ? URL : STANDARD)[value];
            expectDecodes(text, 0);
            expectEncodes(modelDecode(text, alphabet), 0);
        }
    }
}

TEST_P(Kernel, StopsAtEveryForeignByteAtEveryPosition)
{
    const std::string good = modelEncode(randomBytes(144, 3), alphabet);
    for (int byte = 0; byte < 256; ++byte) {
        if (modelSextet(static_cast<char>(byte), alphabet) != 64)
            continue;
        for (size_t position = 0; position < 192; ++position) {
            std::string text = good;
            text[position] = static_cast<char>(byte);
            expectDecodes(text, 0);
        }
    }
}

TEST_P(Kernel, TakesBothAlphabetsOnlyInUrlDecoding)
{
    std::string mixed;
    for (int i = 0; i < 64; ++i)
        mixed += "-+_/";
    expectDecodes(mixed, 0);
    EXPECT_EQ(alphabet == BASE64_URL, !modelDecode(mixed, alphabet).empty());
}

TEST_P(Kernel, AgreesWithTheScalarOneOnLargeInputs)
{
    const Base64Kernel* scalar = base64KernelScalar();
    for (unsigned seed = 0; seed < 8; ++seed) {
        const Bytes in = randomBytes(300000 + seed * 77, seed);
        std::string expected(in.size() / 3 * 4, '\0');
        std::string text = expected;
        const size_t all = scalar->encode[alphabet](in.data(), in.size(), expected.data());
        const size_t taken = kernel->encode[alphabet](in.data(), in.size(), text.data());
        ASSERT_EQ(in.size() / 3 * 3, all);
        ASSERT_EQ(expected.substr(0, taken / 3 * 4), text.substr(0, taken / 3 * 4));

        const auto* characters = reinterpret_cast<const unsigned char*>(expected.data());
        Bytes bytes(expected.size() / 4 * 3);
        const size_t decoded = kernel->decode[alphabet](characters, expected.size(), bytes.data());
        ASSERT_TRUE(std::equal(bytes.begin(), bytes.begin() + static_cast<long>(decoded / 4 * 3),
                               in.begin()));
    }
}

TEST_P(Kernel, ReplacesInEverySizeAtEveryAlignment)
{
    for (size_t len = 0; len <= 300; ++len) {
        std::string text(len + 1, 'x');  // one more, to be left alone
        std::string expected = text;
        for (size_t i = 0; i <= len; ++i) {
            text[i] = i % 3 == 0 || i == len ? '\xFF' : static_cast<char>(i);
            expected[i] = text[i] == '\xFF' && i < len ? '+' : text[i];
        }
        const size_t shift = len % 64;
        std::string shifted = std::string(shift, '\xFF') + text;
        kernel->replace(shifted.data() + shift, len, '\xFF', '+');
        ASSERT_EQ(std::string(shift, '\xFF') + expected, shifted) << len;
    }
}

// The whole codec with each kernel in turn.
TEST_P(Kernel, GivesTheSameTextsAndBytesThroughTheCodec)
{
    const Base64Kernel* usual = base64Kernel;
    for (size_t len = 0; len <= 512; ++len) {
        const Bytes in = randomBytes(len, static_cast<unsigned>(len));
        base64Kernel = base64KernelScalar();
        const std::string text = base64_encode(in.data(), static_cast<unsigned>(len));
        const std::string url = base64_encode_url(in.data(), len);
        std::string odd = text;
        if (len > 0)
            odd[len * 7 % odd.size()] = static_cast<char>(len);
        const std::string oddBytes = base64_decode(odd);

        base64Kernel = kernel;
        ASSERT_EQ(text, base64_encode(in.data(), static_cast<unsigned>(len)));
        ASSERT_EQ(url, base64_encode_url(in.data(), len));
        ASSERT_EQ(std::string(in.begin(), in.end()), base64_decode(text));
        ASSERT_EQ(oddBytes, base64_decode(odd));
        for (std::string bytes : {text, url}) {
            base64_decode_url(bytes);
            ASSERT_EQ(std::string(in.begin(), in.end()), bytes);
        }
    }
    base64Kernel = usual;
}

INSTANTIATE_TEST_SUITE_P(Every, Kernel,
                         ::testing::Combine(::testing::ValuesIn(kernels()),
                                            ::testing::Values(BASE64_STANDARD, BASE64_URL)),
                         [](const auto& test) {
                             return std::string(std::get<0>(test.param)->name) +
                                    (std::get<1>(test.param) == BASE64_URL ? "Url" : "Standard");
                         });

TEST(KernelChoice, IsTheFastestThatTheProcessorHas)
{
    const std::vector<const Base64Kernel*> found = kernels();
    EXPECT_EQ(found.back(), base64Kernel);
    EXPECT_STREQ("scalar", found.front()->name);
}

// What the request handlers use is what the exported functions give with the characters
// exchanged.
TEST(UrlBase64, IsTheStandardOneWithTwoCharactersExchanged)
{
    std::mt19937 random(5);
    const std::string odd = "+/-_=AZaz09 \n\t\xE9";
    for (int round = 0; round < 20000; ++round) {
        std::string text(random() % 120, '\0');
        for (char& c : text)
            c = random() % 40 == 0 ? odd[random() % odd.size()] : URL[random() % 64];
        std::string standard = text;
        for (char& c : standard)
            c = c == '-' ? '+' : c == '_' ? '/' : c;
        std::string bytes = text;
        base64_decode_url(bytes);
        ASSERT_EQ(base64_decode(standard), bytes) << text;
    }
}

}  // namespace
