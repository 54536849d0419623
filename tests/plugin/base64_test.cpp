// The string Base64 codec, against OpenSSL's for well-formed text and against a model
// of the stopping rules for everything else.
#include "base64.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "support/base64_text.h"

namespace {

using support::fromBase64;
using support::toBase64;

const std::string ALPHABET = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The bytes in a block of their own of exactly that size, so that a sanitizer or valgrind
// sees any read behind it.
std::string encode(const std::string& bytes)
{
    auto exact = std::make_unique<unsigned char[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), exact.get());
    return base64_encode(exact.get(), static_cast<unsigned>(bytes.size()));
}

// Six bits a character up to the first one outside the alphabet; whole bytes come out.
std::string modelDecode(const std::string& text)
{
    std::string out;
    unsigned bits = 0;
    int count = 0;

    for (char c : text) {
        size_t sextet = ALPHABET.find(c);
        if (sextet == std::string::npos)
            break;
        bits = (bits << 6) | static_cast<unsigned>(sextet);
        count += 6;
        if (count >= 8) {
            count -= 8;
            out += static_cast<char>(bits >> count);
            bits &= (1U << count) - 1;
        }
    }
    return out;
}

std::string randomBytes(std::mt19937& random, size_t size)
{
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

// Text whose characters widen to wide ones, byte by byte.
std::wstring widened(const std::string& bytes)
{
    std::wstring wide;
    for (char byte : bytes)
        wide += static_cast<wchar_t>(static_cast<unsigned char>(byte));
    return wide;
}

TEST(Base64Encode, GivesTheStandardTexts)
{
    for (const auto& pair : support::BASE64_EXAMPLES)
        EXPECT_EQ(encode(pair.bytes), pair.text);
}

TEST(Base64Encode, ReadsNothingOfAnEmptyInput)
{
    EXPECT_EQ(base64_encode(nullptr, 0), "");
}

TEST(Base64Encode, KeepsZeroBytes)
{
    EXPECT_EQ(encode(std::string(1, '\0')), "AA==");
    EXPECT_EQ(encode(std::string(2, '\0')), "AAA=");
    EXPECT_EQ(encode(std::string(3, '\0')), "AAAA");
    EXPECT_EQ(encode(std::string("a\0b", 3)), "YQBi");
}

TEST(Base64Encode, AgreesWithOpenSslForAllSizes)
{
    std::mt19937 random(51);
    for (size_t size = 0; size <= 512; size++) {
        std::string bytes = randomBytes(random, size);
        ASSERT_EQ(encode(bytes), toBase64(bytes)) << "size " << size;
    }
}

TEST(Base64Encode, AgreesWithOpenSslForAllBytesAtAllPlaces)
{
    for (int place = 0; place < 3; place++) {
        for (int byte = 0; byte < 256; byte++) {
            std::string bytes = "\x5a\xa5\x5a";
            bytes[static_cast<size_t>(place)] = static_cast<char>(byte);
            for (size_t size = 1; size <= 3; size++) {
                std::string cut = bytes.substr(0, size);
                ASSERT_EQ(encode(cut), toBase64(cut)) << byte << " at " << place;
            }
        }
    }
}

TEST(Base64Encode, BreaksNoLines)
{
    std::string text = encode(std::string(100000, 'x'));
    EXPECT_EQ(text, toBase64(std::string(100000, 'x')));
    EXPECT_EQ(text.find('\n'), std::string::npos);
}

TEST(Base64Decode, GivesTheBytesOfTheStandardTexts)
{
    for (const auto& pair : support::BASE64_EXAMPLES)
        EXPECT_EQ(base64_decode(pair.text), pair.bytes);
}

TEST(Base64Decode, AgreesWithOpenSslForAllSizes)
{
    std::mt19937 random(52);
    for (size_t size = 0; size <= 512; size++) {
        std::string bytes = randomBytes(random, size);
        std::string text = toBase64(bytes);
        ASSERT_EQ(fromBase64(text), bytes);
        ASSERT_EQ(base64_decode(text), bytes) << "size " << size;
    }
}

TEST(Base64Decode, AgreesWithOpenSslForAllCharactersAtAllPlaces)
{
    for (size_t place = 0; place < 4; place++) {
        for (char c : ALPHABET) {
            std::string text = "q6q6";
            text[place] = c;
            ASSERT_EQ(base64_decode(text), fromBase64(text)) << text;
        }
    }
}

TEST(Base64Decode, TakesMissingPadding)
{
    EXPECT_EQ(base64_decode("Zm9vYg"), "foob");
    EXPECT_EQ(base64_decode("Zm9vYmE"), "fooba");
    EXPECT_EQ(base64_decode("Zg="), "f");
    EXPECT_EQ(base64_decode("Zg"), "f");
}

TEST(Base64Decode, GivesNothingForASingleLeftover)
{
    EXPECT_EQ(base64_decode("Z"), "");
    EXPECT_EQ(base64_decode("Z==="), "");
    EXPECT_EQ(base64_decode("Zm9vY"), "foo");
}

TEST(Base64Decode, DropsTheUnusedBitsOfTheLastCharacter)
{
    EXPECT_EQ(base64_decode("Zv=="), "f");
    EXPECT_EQ(base64_decode("Zm//"), std::string("fo\xff"));
    EXPECT_EQ(base64_decode("Zm/="), std::string("fo"));
}

TEST(Base64Decode, EndsAtTheFirstPadding)
{
    EXPECT_EQ(base64_decode("Zg==Zm9v"), "f");
    EXPECT_EQ(base64_decode("=Zm9v"), "");
    EXPECT_EQ(base64_decode("===="), "");
    EXPECT_EQ(base64_decode("Zm9v=Zm9v"), "foo");
}

TEST(Base64Decode, EndsAtALineFeed)
{
    EXPECT_EQ(base64_decode("Zm9v\nYmFy"), "foo");
}

TEST(Base64Decode, EndsAtUrlSafeCharacters)
{
    EXPECT_EQ(base64_decode("Zm9v-//+"), "foo");
    EXPECT_EQ(base64_decode("Zm9v_//+"), "foo");
}

TEST(Base64Decode, EndsAtAZeroByte)
{
    EXPECT_EQ(base64_decode(std::string("Zm9v\0YmFy", 9)), "foo");
}

// Each foreign byte before, inside and behind each group: it ends decoding there, and
// what follows it makes no difference.
TEST(Base64Decode, EndsAtEachForeignByteAtEachPlace)
{
    const std::string text = "Zm9vYmFyYmF6";
    for (int byte = 0; byte < 256; byte++) {
        char foreign = static_cast<char>(byte);
        if (ALPHABET.find(foreign) != std::string::npos)
            continue;
        for (size_t place = 0; place <= text.size(); place++) {
            std::string inserted = text;
            inserted.insert(place, 1, foreign);
            ASSERT_EQ(base64_decode(inserted), modelDecode(text.substr(0, place)))
                << byte << " at " << place;
        }
    }
}

TEST(Base64Decode, FollowsTheStoppingRulesForRandomText)
{
    std::mt19937 random(53);
    const std::string pool =
        ALPHABET + ALPHABET + ALPHABET + "=-_ \n\r\t,@[`{.~*\x7f\x80\xc1\xe9\xff";
    for (int round = 0; round < 20000; round++) {
        std::string text;
        for (size_t size = random() % 40; text.size() < size;)
            text += random() % 100 == 0 ? '\0' : pool[random() % pool.size()];
        ASSERT_EQ(base64_decode(text), modelDecode(text)) << text;
    }
}

// Long texts are worked on in parts, whose ends must not show.
TEST(Base64, AgreesWithOpenSslAroundPowersOfTwo)
{
    std::mt19937 random(55);
    for (size_t power = 1024; power <= 131072; power *= 2) {
        for (const size_t near : {power, power / 4 * 3}) {
            for (size_t size = near - 4; size <= near + 4; ++size) {
                const std::string bytes = randomBytes(random, size);
                std::string text = encode(bytes);
                ASSERT_EQ(text, toBase64(bytes)) << size;
                ASSERT_EQ(base64_decode(text), bytes) << size;

                text[near - 1] = '!';
                ASSERT_EQ(base64_decode(text), bytes.substr(0, (near - 1) * 6 / 8)) << size;
            }
        }
    }
}

TEST(Base64Decode, ReturnsLargeInputs)
{
    std::mt19937 random(54);
    std::string bytes = randomBytes(random, 1000003);
    EXPECT_EQ(base64_decode(encode(bytes)), bytes);
}

TEST(IsBase64, TakesTheAlphabetAlone)
{
    for (int c = 0; c < 256; c++) {
        bool in = ALPHABET.find(static_cast<char>(c)) != std::string::npos;
        EXPECT_EQ(is_base64(static_cast<unsigned char>(c)), in) << c;
    }
}

TEST(IsBase64Wide, TakesTheAlphabetAlone)
{
    for (unsigned c = 0; c < 0x3000; c++) {
        bool in = c < 128 && ALPHABET.find(static_cast<char>(c)) != std::string::npos;
        EXPECT_EQ(is_base64_w(c), in) << c;
    }
    for (unsigned c : {0x110000U, 0x7fffffffU, 0x80000000U, 0x80000041U, 0xffffffffU})
        EXPECT_FALSE(is_base64_w(c)) << c;
}

// C.UTF-8 is part of the C library, and it counts more letters than ASCII's.
class WideLocale : public testing::Test {
protected:
    void SetUp() override { ASSERT_NE(setlocale(LC_ALL, "C.UTF-8"), nullptr); }
    void TearDown() override { setlocale(LC_ALL, "C"); }
};

TEST_F(WideLocale, DecidesWhichCharactersAreLetters)
{
    EXPECT_TRUE(is_base64_w(0x141));
    EXPECT_TRUE(is_base64_w('A'));
    EXPECT_TRUE(is_base64_w('+'));
    EXPECT_TRUE(is_base64_w('/'));
    EXPECT_FALSE(is_base64_w('='));
    EXPECT_FALSE(is_base64_w('-'));
    EXPECT_FALSE(is_base64_w(0x2212));
}

// U+015A, U+016D, U+0139 and U+0176 are letters; their low bytes are "Zm9v".
TEST_F(WideLocale, DecodesTheLowBytesOfForeignLetters)
{
    EXPECT_EQ(base64_decode_w(L"\u015a\u016d\u0139\u0176"), L"foo");
}

// The low byte of U+0100, a letter too, is in no place of the alphabet and counts as 255.
TEST_F(WideLocale, DecodesOtherLettersAs255)
{
    EXPECT_EQ(base64_decode_w(L"\u0100AAA"), std::wstring(L"\xfc\0\0", 3));
    EXPECT_EQ(base64_decode_w(L"AAA\u0100"), std::wstring(L"\0\0\xff", 3));
}

TEST(Base64DecodeWide, EndsAtALetterThatTheLocaleDoesNotKnow)
{
    EXPECT_EQ(base64_decode_w(L"Zm9v\u015am9v"), L"foo");
}

TEST(Base64EncodeWide, GivesTheNarrowTextsWidened)
{
    std::mt19937 random(55);
    for (size_t size = 0; size <= 512; size++) {
        std::string bytes = randomBytes(random, size);
        auto exact = std::make_unique<unsigned[]>(size);
        for (size_t i = 0; i < size; i++)
            exact[i] = static_cast<unsigned char>(bytes[i]);
        ASSERT_EQ(base64_encode_w(exact.get(), static_cast<unsigned>(size)),
                  widened(toBase64(bytes)))
            << "size " << size;
    }
}

TEST(Base64EncodeWide, TakesTheLowEightBits)
{
    const unsigned chars[] = {0x100U + 'f', 0xffffff00U + 'o', 0x80000000U + 'o', 0x4e00U};
    EXPECT_EQ(base64_encode_w(chars, 3), L"Zm9v");
    EXPECT_EQ(base64_encode_w(chars, 4), L"Zm9vAA==");
    EXPECT_EQ(base64_encode_w(nullptr, 0), L"");
}

TEST(Base64DecodeWide, GivesOneCharacterForEachByte)
{
    std::mt19937 random(56);
    for (size_t size = 0; size <= 512; size++) {
        std::string bytes = randomBytes(random, size);
        std::wstring decoded = base64_decode_w(widened(toBase64(bytes)));
        ASSERT_EQ(decoded, widened(bytes)) << "size " << size;
    }
}

TEST(Base64DecodeWide, FollowsTheNarrowStoppingRules)
{
    EXPECT_EQ(base64_decode_w(L"Zm9v\nYmFy"), L"foo");
    EXPECT_EQ(base64_decode_w(L"Zg==Zm9v"), L"f");
    EXPECT_EQ(base64_decode_w(L"Zm9vYg"), L"foob");
    EXPECT_EQ(base64_decode_w(L"Z"), L"");
    EXPECT_EQ(base64_decode_w(L"Zm9v-//+"), L"foo");

    std::mt19937 random(57);
    const std::string pool = ALPHABET + ALPHABET + "=-_ \n";
    for (int round = 0; round < 5000; round++) {
        std::string text;
        for (size_t size = random() % 40; text.size() < size;)
            text += pool[random() % pool.size()];
        ASSERT_EQ(base64_decode_w(widened(text)), widened(modelDecode(text))) << text;
    }
}

}  // namespace
