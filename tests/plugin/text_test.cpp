// The text utilities of the handler base: escaping, hex digits, splitting.
#include <gtest/gtest.h>

#include <cctype>
#include <climits>
#include <list>
#include <memory>
#include <random>
#include <string>

#include "support/text_handler.h"

namespace {

using support::allBytes;
using support::escaped;
using support::LETTERS_AND_DIGITS;
using support::Text;
using Texts = std::vector<std::string>;

// ---- Rewriting in place

using ReplaceInChar = Text;

TEST_F(ReplaceInChar, ReplacesEveryByteWithinTheLength)
{
    std::string text = "a-b--c-";
    handler.ReplaceInChar(text.data(), 7, '-', '+');
    EXPECT_EQ(text, "a+b++c+");
    handler.ReplaceInChar(text.data(), 4, '+', '*');
    EXPECT_EQ(text, "a*b*+c+");
}

TEST_F(ReplaceInChar, DoesNothingForNoLengthOrNoBuffer)
{
    std::string text = "---";
    for (int len : {0, -1, INT_MIN}) {
        handler.ReplaceInChar(text.data(), len, '-', '+');
        EXPECT_EQ(text, "---") << len;
    }
    handler.ReplaceInChar(nullptr, 3, '-', '+');
    handler.ReplaceInChar(nullptr, 0, '-', '+');
}

TEST_F(ReplaceInChar, TakesAnyByte)
{
    std::string text("\0\xff-\0", 4);
    handler.ReplaceInChar(text.data(), 4, '\0', '\xfe');
    EXPECT_EQ(text, "\xfe\xff-\xfe");
    handler.ReplaceInChar(text.data(), 4, '\xff', '\0');
    EXPECT_EQ(text, std::string("\xfe\0-\xfe", 4));
}

TEST_F(ReplaceInChar, TouchesNothingBehindTheLength)
{
    auto exact = std::make_unique<char[]>(1);
    exact[0] = '-';
    handler.ReplaceInChar(exact.get(), 1, '-', '+');
    EXPECT_EQ(exact[0], '+');
}

// It goes by 16 bytes at a time and takes the rest one by one.
TEST_F(ReplaceInChar, ReplacesAnyLengthAndNothingBehindIt)
{
    for (size_t length = 0; length <= 70; ++length) {
        std::string text(length + 16, '-');
        handler.ReplaceInChar(text.data(), static_cast<int>(length), '-', '+');
        EXPECT_EQ(text, std::string(length, '+') + std::string(16, '-')) << length;
    }
}

using UrlData = Text;

TEST_F(UrlData, DecodingGivesStandardBase64)
{
    std::string text = "a-b_c+d/e*f\ng-=_";
    handler.URLDataDecode(text.data(), static_cast<int>(text.size()));
    EXPECT_EQ(text, "a+b/c+d/e*f\ng+=/");
}

TEST_F(UrlData, EncodingRewritesLineFeedsToo)
{
    std::string text = "a+b/c-d_e*f\ng+=/\n";
    handler.URLDataEncode(text.data(), static_cast<int>(text.size()));
    EXPECT_EQ(text, "a-b_c-d_e*f*g-=_*");
}

TEST_F(UrlData, StopsAtTheLength)
{
    std::string text = "-_-_";
    handler.URLDataDecode(text.data(), 2);
    EXPECT_EQ(text, "+/-_");
    handler.URLDataEncode(text.data(), 1);
    EXPECT_EQ(text, "-/-_");
    handler.URLDataDecode(nullptr, 4);
    handler.URLDataEncode(nullptr, 4);
}

// ---- Hex digits

using Hex = Text;

TEST_F(Hex, DigitsAreUpperCase)
{
    const char digits[] = "0123456789ABCDEF";
    for (unsigned char x = 0; x < 16; x++)
        EXPECT_EQ(handler.ToHex(x), digits[x]);
}

TEST_F(Hex, LettersBeyondFHaveValues)
{
    for (unsigned char i = 0; i < 26; i++) {
        EXPECT_EQ(handler.FromHex(static_cast<unsigned char>('A' + i)), 10 + i);
        EXPECT_EQ(handler.FromHex(static_cast<unsigned char>('a' + i)), 10 + i);
    }
    for (unsigned char i = 0; i < 10; i++)
        EXPECT_EQ(handler.FromHex(static_cast<unsigned char>('0' + i)), i);
}

// ---- Percent escapes

using EncodeUri = Text;

TEST_F(EncodeUri, EscapesAllButTheUnreserved)
{
    EXPECT_EQ(handler.EncodeURIComponent("a b+/="), "a%20b%2B%2F%3D");
    EXPECT_EQ(handler.EncodeURIComponent("-_.~!*'()"), "-_.~!*'()");
    EXPECT_EQ(handler.EncodeURIComponent("%41"), "%2541");
    EXPECT_EQ(handler.EncodeURIComponent(""), "");
    EXPECT_EQ(handler.EncodeURIComponent("\xe4\xb8\xad"), "%E4%B8%AD");
    EXPECT_EQ(handler.EncodeURIComponent(std::string("\0\n\x7f", 3)), "%00%0A%7F");
}

TEST_F(EncodeUri, TreatsEachByteAlone)
{
    for (char byte : allBytes()) {
        std::string text(1, byte);
        EXPECT_EQ(handler.EncodeURIComponent(text), escaped(text));
    }
    EXPECT_EQ(handler.EncodeURIComponent(allBytes()), escaped(allBytes()));
}

using DecodeUri = Text;

TEST_F(DecodeUri, ReplacesTheEscapes)
{
    EXPECT_EQ(handler.DecodeURIComponent("%41%6a"), "Aj");
    EXPECT_EQ(handler.DecodeURIComponent("a%20b%2B%2F%3D"), "a b+/=");
    EXPECT_EQ(handler.DecodeURIComponent("%2541"), "%41");
    EXPECT_EQ(handler.DecodeURIComponent("%e4%B8%aD"), "\xe4\xb8\xad");
    EXPECT_EQ(handler.DecodeURIComponent("%00"), std::string(1, '\0'));
    EXPECT_EQ(handler.DecodeURIComponent("abc%44"), "abcD");
    EXPECT_EQ(handler.DecodeURIComponent(""), "");
}

TEST_F(DecodeUri, CopiesEveryOtherByte)
{
    std::string others = allBytes();
    others.erase(others.find('%'), 1);
    EXPECT_EQ(handler.DecodeURIComponent(others), others);
    EXPECT_EQ(handler.DecodeURIComponent("a+b"), "a+b");
}

TEST_F(DecodeUri, CountsLettersBeyondF)
{
    EXPECT_EQ(handler.DecodeURIComponent("%zz"), "S");
    auto value = [](char c) { return isdigit(c) ? c - '0' : toupper(c) - 'A' + 10; };
    for (char h : LETTERS_AND_DIGITS) {
        for (char l : LETTERS_AND_DIGITS) {
            std::string expected(1, static_cast<char>((value(h) & 15) * 16 + value(l)));
            ASSERT_EQ(handler.DecodeURIComponent({'%', h, l}), expected) << h << l;
        }
    }
}

TEST_F(DecodeUri, ReturnsWhatWasEncoded)
{
    std::mt19937 random(71);
    for (int round = 0; round < 2000; round++) {
        std::string bytes;
        for (size_t size = random() % 60; bytes.size() < size;)
            bytes += static_cast<char>(random());
        ASSERT_EQ(handler.EncodeURIComponent(bytes), escaped(bytes));
        ASSERT_EQ(handler.DecodeURIComponent(escaped(bytes)), bytes);
    }
}

using JsonUrl = Text;

TEST_F(JsonUrl, EscapesTwice)
{
    std::string text = "a b+/=";
    EXPECT_EQ(handler.JsonUrlEncode(text), "a%2520b%252B%252F%253D");
    EXPECT_EQ(handler.JsonUrlEncode("abc"), "abc");
    EXPECT_EQ(handler.JsonUrlEncode(allBytes()), escaped(escaped(allBytes())));
    EXPECT_EQ(text, "a b+/=");
}

TEST_F(JsonUrl, UnescapesTwice)
{
    std::string text = "a%2520b%252B";
    EXPECT_EQ(handler.JsonUrlDecode(text), "a b+");
    EXPECT_EQ(handler.JsonUrlDecode("%41%2542c"), "ABc");
    EXPECT_EQ(handler.JsonUrlDecode(escaped(escaped(allBytes()))), allBytes());
    EXPECT_EQ(text, "a%2520b%252B");
}

// A failed check ends the process with a message that names the condition, the unit and
// the method. Any wording around the condition will do, but "0" must stand alone.
const char* const REFUSED_BY_FROM_HEX =
    "WebServerBase.*FromHex.*[^0-9A-Za-z_]0[^0-9A-Za-z_]|"
    "[^0-9A-Za-z_]0[^0-9A-Za-z_].*WebServerBase.*FromHex";
const char* const REFUSED_BY_DECODE =
    "WebServerBase.*DecodeURIComponent.*i \\+ 2 < length|"
    "i \\+ 2 < length.*WebServerBase.*DecodeURIComponent";

class TextDeathTest : public Text {};

TEST_F(TextDeathTest, FromHexTakesLettersAndDigitsAlone)
{
    // The neighbours of the three ranges, and some others.
    for (int c : std::initializer_list<int>{'/', ':', '@', '[', '`', '{', 0, ' ', '%', '+', '-',
                                            0x7f, 0x80, 0xe9, 0xff}) {
        EXPECT_DEATH(handler.FromHex(static_cast<unsigned char>(c)), REFUSED_BY_FROM_HEX) << c;
    }
}

TEST_F(TextDeathTest, DecodingRefusesACutOffEscape)
{
    for (const char* text : {"abc%4", "%", "abc%", "%4", "%41%", "%41%4"})
        EXPECT_DEATH(handler.DecodeURIComponent(text), REFUSED_BY_DECODE) << text;
}

TEST_F(TextDeathTest, DecodingRefusesAnEscapeOfOtherCharacters)
{
    for (const char* text : {"%4%", "% 4", "%4 ", "%%41", "a%-1", "%\xe9\xe9"})
        EXPECT_DEATH(handler.DecodeURIComponent(text), REFUSED_BY_FROM_HEX) << text;
}

TEST_F(TextDeathTest, JsonDecodingRefusesWhatTheSecondPassCannotRead)
{
    EXPECT_DEATH(handler.JsonUrlDecode("%254"), REFUSED_BY_DECODE);
    EXPECT_DEATH(handler.JsonUrlDecode("%25-1"), REFUSED_BY_FROM_HEX);
}

// ---- Splitting

using Split = Text;

// Every place where the separator stands ends a piece, overlapping places too.
Texts splitModel(const std::string& text, const std::string& separator)
{
    Texts pieces;
    size_t start = 0;
    for (size_t at = text.find(separator); at != std::string::npos;
         at = text.find(separator, at + 1)) {
        if (at > start)
            pieces.push_back(text.substr(start, at - start));
        start = at + separator.size();
    }
    if (start < text.size())
        pieces.push_back(text.substr(start));
    return pieces;
}

TEST_F(Split, DropsEmptyPieces)
{
    EXPECT_EQ(handler.split("a,,b,", ","), (Texts{"a", "b"}));
    EXPECT_EQ(handler.split(",a", ","), (Texts{"a"}));
    EXPECT_EQ(handler.split(",,,", ","), Texts{});
    EXPECT_EQ(handler.split("a", ","), (Texts{"a"}));
    EXPECT_EQ(handler.split("", ","), Texts{});
    EXPECT_EQ(handler.split("ab, cd, ef", ", "), (Texts{"ab", "cd", "ef"}));
}

TEST_F(Split, GivesSingleCharactersForAnEmptySeparator)
{
    EXPECT_EQ(handler.split("abc", ""), (Texts{"a", "b", "c"}));
    EXPECT_EQ(handler.split("a", ""), (Texts{"a"}));
    EXPECT_EQ(handler.split("", ""), Texts{});
}

TEST_F(Split, GivesTheWholeTextForALongerSeparator)
{
    EXPECT_EQ(handler.split("ab", "abc"), (Texts{"ab"}));
    EXPECT_EQ(handler.split("", "abc"), Texts{});
    EXPECT_EQ(handler.split("abc", "abc"), Texts{});
}

// The second "aa" of "aaa" begins inside the first: it takes one more character away and
// ends no piece.
TEST_F(Split, FindsSeparatorsInsideSeparators)
{
    EXPECT_EQ(handler.split("aaa", "aa"), Texts{});
    EXPECT_EQ(handler.split("aaab", "aa"), (Texts{"b"}));
    EXPECT_EQ(handler.split("xaaay", "aa"), (Texts{"x", "y"}));
    EXPECT_EQ(handler.split("xababay", "aba"), (Texts{"x", "y"}));
}

TEST_F(Split, TakesAnyByte)
{
    EXPECT_EQ(handler.split(std::string("a\0b\0", 4), std::string(1, '\0')), (Texts{"a", "b"}));
    EXPECT_EQ(handler.split("a\xff\xfe\xff", "\xff"), (Texts{"a", "\xfe"}));
}

TEST_F(Split, FollowsTheModelForRandomText)
{
    std::mt19937 random(72);
    for (int round = 0; round < 20000; round++) {
        std::string text;
        std::string separator;
        for (size_t size = random() % 16; text.size() < size;)
            text += static_cast<char>('a' + random() % 2);
        for (size_t size = random() % 4; separator.size() < size;)
            separator += static_cast<char>('a' + random() % 2);
        ASSERT_EQ(handler.split(text, separator), splitModel(text, separator))
            << text << " at " << separator;
    }
}

using WideList = Text;

TEST_F(WideList, AppendsThePieces)
{
    const struct {
        std::wstring text;
        wchar_t separator;
        std::list<std::wstring> pieces;
    } rows[] = {
        {L"x;;y;", L';', {L"x", L"y"}},
        {L"", L';', {}},
        {L";", L';', {}},
        {L";;;", L';', {}},
        {L"x", L';', {L"x"}},
        {L";x", L';', {L"x"}},
        {L"x;y", L';', {L"x", L"y"}},
        {L"one two", L';', {L"one two"}},
        {L"\u4e2d\u3001\U0001f600\u3001", L'\u3001', {L"\u4e2d", L"\U0001f600"}},
        {std::wstring(L"a\0b", 3), L'\0', {L"a", L"b"}},
        {std::wstring(L"a\0b;c", 5), L';', {std::wstring(L"a\0b", 3), L"c"}},
    };
    for (const auto& row : rows) {
        std::list<std::wstring> pieces;
        handler.GetWListForDefaultWString(row.text, row.separator, pieces);
        EXPECT_EQ(pieces, row.pieces);
    }
}

TEST_F(WideList, KeepsWhatTheListHolds)
{
    std::list<std::wstring> pieces = {L"old"};
    handler.GetWListForDefaultWString(L"x;;y;", L';', pieces);
    EXPECT_EQ(pieces, (std::list<std::wstring>{L"old", L"x", L"y"}));
    handler.GetWListForDefaultWString(L"", L';', pieces);
    EXPECT_EQ(pieces.size(), 3U);
}

TEST_F(Text, EnhancedProviderIsNeverAvailable)
{
    EXPECT_EQ(handler.IS_MS_ENH_RSA_AES_PROV_XP(), -2);
}

}  // namespace
