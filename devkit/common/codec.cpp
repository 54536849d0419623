#include "codec.h"

#include <array>
#include <cstdint>

namespace {

constexpr std::string_view standardAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view urlAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

constexpr uint8_t foreign = 0xFF;

// The sextet of each character of either alphabet, `foreign` for all others.
constexpr std::array<uint8_t, 256> makeSextets()
{
    std::array<uint8_t, 256> sextets{};
    for (uint8_t& sextet : sextets)
        sextet = foreign;
    for (uint8_t i = 0; i < 64; ++i) {
        sextets[static_cast<unsigned char>(standardAlphabet[i])] = i;
        sextets[static_cast<unsigned char>(urlAlphabet[i])] = i;
    }
    return sextets;
}

constexpr std::array<uint8_t, 256> sextets = makeSextets();

uint8_t sextetOf(char c)
{
    return sextets[static_cast<unsigned char>(c)];
}

std::string encode(std::string_view bytes, std::string_view alphabet)
{
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (size_t i = 0; i < bytes.size(); i += 3) {
        uint32_t group = 0;
        for (size_t k = 0; k < 3; ++k) {
            const bool inside = i + k < bytes.size();
            group = group << 8 | (inside ? static_cast<unsigned char>(bytes[i + k]) : 0U);
        }
        const size_t count = bytes.size() - i < 3 ? bytes.size() - i : 3;
        for (size_t k = 0; k < 4; ++k)
            text += k <= count ? alphabet[group >> (18 - 6 * k) & 63] : '=';
    }
    return text;
}

// The text without its padding, or nothing if it is not Base64.
std::optional<std::string_view> unpadded(std::string_view text)
{
    const bool padded = !text.empty() && text.back() == '=';
    if (padded && text.size() % 4 != 0)
        return std::nullopt;
    for (int i = 0; i < 2 && !text.empty() && text.back() == '='; ++i)
        text.remove_suffix(1);
    if (text.size() % 4 == 1)
        return std::nullopt;
    for (const char c : text)
        if (sextetOf(c) == foreign)
            return std::nullopt;
    return text;
}

// The byte that two hex digits at `at` stand for, or -1.
int hexByte(std::string_view text, size_t at)
{
    if (at + 2 > text.size())
        return -1;
    const int high = hexDigit(text[at]);
    const int low = hexDigit(text[at + 1]);
    return high < 0 || low < 0 ? -1 : high * 16 + low;
}

}  // namespace

int hexDigit(int c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

std::string toUrlBase64(std::string_view bytes)
{
    return encode(bytes, urlAlphabet);
}

std::string toBase64(std::string_view bytes)
{
    return encode(bytes, standardAlphabet);
}

std::optional<size_t> base64Size(std::string_view text)
{
    const auto digits = unpadded(text);
    if (!digits)
        return std::nullopt;
    return digits->size() / 4 * 3 + digits->size() % 4 * 3 / 4;
}

std::optional<SecretText> fromBase64(std::string_view text)
{
    const auto digits = unpadded(text);
    if (!digits)
        return std::nullopt;

    SecretText bytes;
    bytes.reserve(digits->size() / 4 * 3 + 2);
    uint32_t bits = 0;
    int count = 0;
    for (const char c : *digits) {
        bits = (bits & 0xFF) << 6 | sextetOf(c);
        count += 6;
        if (count < 8)
            continue;
        count -= 8;
        bytes += static_cast<char>(bits >> count & 0xFF);
    }
    return bytes;
}

std::string toHex(std::string_view bytes)
{
    constexpr const char* digits = "0123456789abcdef";
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<uint8_t>(c);
        text += {digits[byte >> 4], digits[byte & 15]};
    }
    return text;
}

std::optional<SecretText> fromHex(std::string_view text)
{
    for (size_t i = 0; i < text.size(); i += 2)
        if (hexByte(text, i) < 0)
            return std::nullopt;
    SecretText bytes;
    bytes.reserve(text.size() / 2);
    for (size_t i = 0; i < text.size(); i += 2)
        bytes += static_cast<char>(hexByte(text, i));
    return bytes;
}

std::optional<SecretText> percentDecode(std::string_view text)
{
    for (size_t i = text.find('%'); i != text.npos; i = text.find('%', i + 1))
        if (hexByte(text, i + 1) < 0)
            return std::nullopt;
    SecretText bytes;
    bytes.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        const bool isEscape = text[i] == '%';
        bytes += isEscape ? static_cast<char>(hexByte(text, i + 1)) : text[i];
        i += isEscape ? 2 : 0;
    }
    return bytes;
}

bool isUtf8(std::string_view bytes)
{
    for (size_t i = 0; i < bytes.size(); ++i) {
        const auto lead = static_cast<unsigned char>(bytes[i]);
        if (lead < 0x80)
            continue;

        const size_t more = lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
        if (lead < 0xC2 || lead > 0xF4 || bytes.size() - i <= more)
            return false;

        // The second byte has a narrower range where longer forms, surrogates and
        // values beyond U+10FFFF begin.
        const auto second = static_cast<unsigned char>(bytes[i + 1]);
        if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) ||
            (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F))
            return false;

        for (size_t k = 0; k < more; ++k)
            if ((static_cast<unsigned char>(bytes[++i]) & 0xC0) != 0x80)
                return false;
    }
    return true;
}
