#include "base64.h"

#include <array>
#include <cctype>
#include <cstddef>
#include <cwctype>
#include <string_view>

namespace {

// A character's place is its sextet.
constexpr std::string_view base64_chars =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
    "abcdefghijklmnopqrstuvwxyz"
    "0123456789+/";

// The sextet of a character outside the alphabet: what the missing place (-1) leaves in
// 8 bits. The decoder meets it only where a locale counts further bytes as letters.
constexpr unsigned char NO_PLACE = 0xFF;

constexpr std::array<unsigned char, 256> makeSextets()
{
    std::array<unsigned char, 256> sextets = {};
    for (unsigned char& sextet : sextets)
        sextet = NO_PLACE;
    for (size_t i = 0; i < base64_chars.size(); ++i)
        sextets[static_cast<unsigned char>(base64_chars[i])] = static_cast<unsigned char>(i);
    return sextets;
}

constexpr std::array<unsigned char, 256> sextets = makeSextets();

// Appends the `count` + 1 characters that hold `count` bytes, 1 to 3, and the padding.
template <class Text>
void appendEncoded(Text& text, unsigned b0, unsigned b1, unsigned b2, size_t count)
{
    using Char = typename Text::value_type;
    const auto place = [](unsigned sextet) { return static_cast<Char>(base64_chars[sextet]); };

    text += place(b0 >> 2);
    text += place(((b0 & 3) << 4) + (b1 >> 4));
    text += count > 1 ? place(((b1 & 15) << 2) + (b2 >> 6)) : Char('=');
    text += count > 2 ? place(b2 & 63) : Char('=');
}

template <class Text, class Element>
Text encode(const Element* input, size_t len)
{
    const auto byte = [input](size_t i) { return static_cast<unsigned>(input[i] & 0xFF); };
    const size_t whole = len - len % 3;
    Text text;

    text.reserve((len + 2) / 3 * 4);
    for (size_t i = 0; i < whole; i += 3)
        appendEncoded(text, byte(i), byte(i + 1), byte(i + 2), 3);
    if (len - whole == 1)
        appendEncoded(text, byte(whole), 0, 0, 1);
    if (len - whole == 2)
        appendEncoded(text, byte(whole), byte(whole + 1), 0, 2);
    return text;
}

// Appends the first `count` of the three bytes that four sextets hold.
template <class Text>
void appendDecoded(Text& bytes, const unsigned char (&s)[4], size_t count)
{
    using Char = typename Text::value_type;
    const unsigned char decoded[3] = {
        static_cast<unsigned char>((s[0] << 2) + ((s[1] & 0x30) >> 4)),
        static_cast<unsigned char>(((s[1] & 0x0F) << 4) + ((s[2] & 0x3C) >> 2)),
        static_cast<unsigned char>(((s[2] & 0x03) << 6) + s[3]),
    };

    for (size_t i = 0; i < count; ++i)
        bytes += static_cast<Char>(decoded[i]);
}

template <class Text, class Accepts>
Text decode(const Text& text, Accepts accepts)
{
    Text bytes;
    unsigned char group[4] = {};
    size_t filled = 0;

    bytes.reserve(text.size() / 4 * 3 + 2);
    for (const auto c : text) {
        if (c == '=' || !accepts(c))
            break;
        group[filled++] = sextets[static_cast<unsigned char>(c)];
        if (filled == 4) {
            appendDecoded(bytes, group, 3);
            filled = 0;
        }
    }
    if (filled > 1) {
        for (size_t i = filled; i < 4; ++i)
            group[i] = 0;
        appendDecoded(bytes, group, filled - 1);
    }
    return bytes;
}

}  // namespace

std::string base64_encode(const unsigned char* bytes, unsigned int len)
{
    return encode<std::string>(bytes, len);
}

std::string base64_decode(const std::string& text)
{
    return decode(text, [](char c) { return is_base64(static_cast<unsigned char>(c)); });
}

bool is_base64(unsigned char c)
{
    return isalnum(c) || c == '+' || c == '/';
}

std::wstring base64_encode_w(const unsigned int* chars, unsigned int len)
{
    return encode<std::wstring>(chars, len);
}

std::wstring base64_decode_w(const std::wstring& text)
{
    return decode(text, [](wchar_t c) { return is_base64_w(static_cast<unsigned int>(c)); });
}

bool is_base64_w(unsigned int wc)
{
    return iswalnum(wc) || wc == '+' || wc == '/';
}
