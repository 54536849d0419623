// The text forms of binary values: every byte, every length, and every text that is none.
#include "common/codec.h"

#include <gtest/gtest.h>

#include "support/allocation_fault.h"

namespace {

std::string everyByte()
{
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte)
        bytes += static_cast<char>(byte);
    return bytes;
}

const std::string standard = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const std::string url = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

// The 48 bytes whose sextets are 0 to 63 in this order.
std::string bytesOfAllSextets()
{
    std::string bytes;
    for (unsigned i = 0; i < 64; i += 4) {
        const unsigned group = i << 18 | (i + 1) << 12 | (i + 2) << 6 | (i + 3);
        for (const unsigned shift : {16U, 8U, 0U})
            bytes += static_cast<char>(group >> shift & 0xFF);
    }
    return bytes;
}

// ---- Base64

TEST(Base64, AlphabetsAreThoseOfTheStandard)
{
    EXPECT_EQ(toBase64(bytesOfAllSextets()), standard);
    EXPECT_EQ(toUrlBase64(bytesOfAllSextets()), url);
    EXPECT_EQ(fromBase64(standard), bytesOfAllSextets());
    EXPECT_EQ(fromBase64(url), bytesOfAllSextets());
}

// RFC 4648, section 10.
TEST(Base64, VectorsOfTheStandardComeOut)
{
    const std::pair<const char*, const char*> vectors[] = {{"", ""},
                                                           {"f", "Zg=="},
                                                           {"fo", "Zm8="},
                                                           {"foo", "Zm9v"},
                                                           {"foob", "Zm9vYg=="},
                                                           {"fooba", "Zm9vYmE="},
                                                           {"foobar", "Zm9vYmFy"}};
    for (const auto& [bytes, text] : vectors) {
        EXPECT_EQ(toBase64(bytes), text);
        EXPECT_EQ(toUrlBase64(bytes), text);
        EXPECT_EQ(fromBase64(text), bytes);
    }
}

TEST(Base64, EachLengthComesBackPaddedOrNot)
{
    for (size_t size = 0; size < 48; ++size) {
        const std::string bytes = everyByte().substr(256 - size);
        for (std::string text : {toBase64(bytes), toUrlBase64(bytes)}) {
            EXPECT_EQ(text.size(), (size + 2) / 3 * 4);
            EXPECT_EQ(fromBase64(text), bytes);
            EXPECT_EQ(base64Size(text), size);
            text.erase(text.find_last_not_of('=') + 1);
            EXPECT_EQ(fromBase64(text), bytes);
            EXPECT_EQ(base64Size(text), size);
        }
    }
}

TEST(Base64, NoOtherCharacterIsTaken)
{
    for (const char c : everyByte()) {
        const bool isOne = (standard + url).find(c) != std::string::npos;
        for (size_t place = 0; place < 4; ++place) {
            std::string text = "AAAA";
            text[place] = c;
            const bool isPadding = c == '=' && place == 3;
            EXPECT_EQ(fromBase64(text).has_value(), isOne || isPadding) << int{c} << " " << place;
            EXPECT_EQ(base64Size(text).has_value(), isOne || isPadding) << int{c} << " " << place;
        }
    }
}

TEST(Base64, NoOtherLengthOrPaddingIsTaken)
{
    for (size_t size = 0; size < 24; ++size)
        for (size_t padding = 0; padding < 5; ++padding) {
            const std::string text = std::string(size, 'A') + std::string(padding, '=');
            const bool isWhole = size % 4 != 1;
            const bool isPadded =
                (size % 4 == 2 && padding == 2) || (size % 4 == 3 && padding == 1);
            EXPECT_EQ(fromBase64(text).has_value(), isWhole && (padding == 0 || isPadded)) << text;
            EXPECT_EQ(base64Size(text).has_value(), isWhole && (padding == 0 || isPadded)) << text;
        }
    EXPECT_FALSE(fromBase64("AA=A"));
    EXPECT_FALSE(fromBase64("AA==AAAA"));
}

// ---- Hex digits

TEST(Hex, DigitsOfEitherCaseHaveTheirNumbers)
{
    const std::string lower = "0123456789abcdef", upper = "0123456789ABCDEF";
    for (int c = -1; c <= 256; ++c) {
        const size_t small = c < 0 || c > 255 ? lower.npos : lower.find(static_cast<char>(c));
        const size_t large = c < 0 || c > 255 ? upper.npos : upper.find(static_cast<char>(c));
        const size_t number = std::min(small, large);
        EXPECT_EQ(hexDigit(c), number == lower.npos ? -1 : static_cast<int>(number)) << c;
    }
}

TEST(Hex, EachByteComesBack)
{
    EXPECT_EQ(toHex(std::string("\x00\x01\x9a\xbc\xdf\xff", 6)), "00019abcdfff");
    EXPECT_EQ(fromHex("00019abcdfff"), std::string("\x00\x01\x9a\xbc\xdf\xff", 6));
    EXPECT_EQ(fromHex("9ABCDFFF"), "\x9a\xbc\xdf\xff");
    EXPECT_EQ(fromHex(toHex(everyByte())), everyByte());
    EXPECT_EQ(toHex(""), "");
    EXPECT_EQ(fromHex(""), "");
}

TEST(Hex, WhatIsNoPairOfDigitsIsRefused)
{
    for (const char* text :
         {"0", "000", "0g", "g0", "00g0", "000g", "0000 0", " 00", "00 ", "0x00"})
        EXPECT_FALSE(fromHex(text)) << text;
    // The text ends before the second digit.
    EXPECT_FALSE(fromHex(std::string_view("0000").substr(0, 1)));
    EXPECT_FALSE(fromHex(std::string_view("0000").substr(0, 3)));
}

// ---- Percent-escapes

TEST(PercentDecode, UndoesEachEscapeOnce)
{
    EXPECT_EQ(percentDecode(""), "");
    EXPECT_EQ(percentDecode("a+b$c"), "a+b$c");
    EXPECT_EQ(percentDecode("%41"), "A");
    EXPECT_EQ(percentDecode("%2fa%2F"), "/a/");
    EXPECT_EQ(percentDecode("%00%01"), std::string("\0\1", 2));
    EXPECT_EQ(percentDecode("%2541"), "%41");
    EXPECT_EQ(percentDecode("a%20b%C3%A9c"),
              "a b\xC3\xA9"
              "c");
}

TEST(PercentDecode, RefusesASignWithoutTwoDigits)
{
    for (const char* text :
         {"%", "%4", "a%", "a%4", "%4g", "%g4", "%41%", "%41%4", "%%41", "%4%41"})
        EXPECT_FALSE(percentDecode(text)) << text;
    // The text ends before the second digit.
    EXPECT_FALSE(percentDecode(std::string_view("%41").substr(0, 1)));
    EXPECT_FALSE(percentDecode(std::string_view("%41").substr(0, 2)));
}

// ---- Secrets are decoded in one place, so that no block that is given back holds a part of them.

TEST(Decoders, LeaveNothingInMemoryThatIsGivenBack)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    const std::string marker = "the beginning of a secret";
    for (size_t size = 1000; size < 1004; ++size) {
        const std::string secret = marker + std::string(size, '!');
        const std::string base64 = toBase64(secret), hex = toHex(secret);
        const support::FreedBlocks blocks(marker);
        EXPECT_EQ(fromBase64(base64)->size(), secret.size());
        EXPECT_EQ(fromBase64(base64.substr(0, base64.find('=')))->size(), secret.size());
        EXPECT_EQ(fromHex(hex)->size(), secret.size());
        EXPECT_EQ(percentDecode(secret)->size(), secret.size());
        EXPECT_EQ(blocks.counted(), 0U);
    }
}

// ---- UTF-8

// The bytes of a code point by the pattern of so many bytes, whether that is right or not.
std::string encoded(unsigned point, unsigned size)
{
    if (size == 1)
        return {static_cast<char>(point)};
    std::string bytes;
    for (unsigned i = 1; i < size; ++i, point >>= 6)
        bytes.insert(bytes.begin(), static_cast<char>(0x80 | (point & 0x3F)));
    bytes.insert(bytes.begin(), static_cast<char>((0xF00 >> size & 0xFF) | point));
    return bytes;
}

unsigned rightSize(unsigned point)
{
    return point < 0x80 ? 1 : point < 0x800 ? 2 : point < 0x10000 ? 3 : 4;
}

TEST(Utf8, CodePointsAreTakenInTheirShortestForm)
{
    const unsigned most[] = {0, 0x7F, 0x7FF, 0xFFFF, 0x1FFFFF};
    for (unsigned size = 1; size <= 4; ++size)
        for (unsigned point = 0; point <= most[size]; point += size < 4 ? 1 : 0x3F) {
            const bool isRight =
                rightSize(point) == size && point <= 0x10FFFF && (point < 0xD800 || point > 0xDFFF);
            ASSERT_EQ(isUtf8(encoded(point, size)), isRight) << std::hex << point << " " << size;
        }
    for (const unsigned point : {0xFFFFU, 0x10000U, 0x3FFFFU, 0x40000U, 0xFFFFFU, 0x100000U,
                                 0x10FFFFU, 0x110000U, 0x13FFFFU, 0x140000U})
        EXPECT_EQ(isUtf8(encoded(point, 4)), point >= 0x10000 && point <= 0x10FFFF) << point;
}

TEST(Utf8, EachOtherByteHasItsPlace)
{
    for (const char c : everyByte()) {
        const auto byte = static_cast<unsigned char>(c);
        EXPECT_EQ(isUtf8({&c, 1}), byte < 0x80) << int{byte};
        const bool isMore = (byte & 0xC0) == 0x80;
        const std::string twice{c, c};
        EXPECT_EQ(isUtf8("\xC3" + twice.substr(1)), isMore) << int{byte};
        EXPECT_EQ(isUtf8("\xE1\x81" + twice.substr(1)), isMore) << int{byte};
        EXPECT_EQ(isUtf8("\xE1" + twice), isMore) << int{byte};
        EXPECT_EQ(isUtf8("\xF1" + twice + "\x81"), isMore) << int{byte};
        EXPECT_EQ(isUtf8("\xF1\x81\x81" + twice.substr(1)), isMore) << int{byte};
        EXPECT_EQ(isUtf8(twice.substr(1) + "\xBF"), byte >= 0xC2 && byte < 0xE0) << int{byte};
        EXPECT_EQ(isUtf8(twice.substr(1) + "\x90\xBF\xBF"), byte >= 0xF0 && byte < 0xF4)
            << int{byte};
    }
}

// What stands behind the end of the text is not looked at.
TEST(Utf8, ACharacterThatIsCutIsRefused)
{
    for (const std::string whole : {"\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"})
        for (const std::string before : {"", "a", "abcdef", "\xC3\xA9"}) {
            const std::string text = before + whole + "\x80\x80\x80";
            for (size_t size = 1; size < whole.size(); ++size)
                EXPECT_FALSE(isUtf8(std::string_view(text).substr(0, before.size() + size)));
            EXPECT_TRUE(isUtf8(std::string_view(text).substr(0, before.size() + whole.size())));
            EXPECT_FALSE(isUtf8(text));
        }
    EXPECT_TRUE(isUtf8(""));
}

}  // namespace
