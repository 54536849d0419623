// Base64 (RFC 4648) by OpenSSL, so that tests do not depend on what they test.
#ifndef CORVANE_TESTS_BASE64_TEXT_H
#define CORVANE_TESTS_BASE64_TEXT_H

#include <openssl/evp.h>

#include <algorithm>
#include <stdexcept>
#include <string>

namespace support {

// RFC 4648, section 10, and one value that uses the last two characters.
struct Base64Example {
    const char* bytes;
    const char* text;
};
constexpr Base64Example BASE64_EXAMPLES[] = {
    {"", ""},
    {"f", "Zg=="},
    {"fo", "Zm8="},
    {"foo", "Zm9v"},
    {"foob", "Zm9vYg=="},
    {"fooba", "Zm9vYmE="},
    {"foobar", "Zm9vYmFy"},
    {"\xfb\xff\xfe", "+//+"},
};

inline std::string toBase64(const std::string& bytes)
{
    std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
    const int size = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                     reinterpret_cast<const unsigned char*>(bytes.data()),
                                     static_cast<int>(bytes.size()));
    text.resize(static_cast<size_t>(size));
    return text;
}

// Of padded text without line breaks; throws a std::runtime_error for other text.
inline std::string fromBase64(const std::string& text)
{
    std::string bytes(text.size() / 4 * 3, '\0');
    const int size = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                     reinterpret_cast<const unsigned char*>(text.data()),
                                     static_cast<int>(text.size()));
    const auto padding = std::count(text.begin(), text.end(), '=');
    if (text.size() % 4 != 0 || size != static_cast<int>(bytes.size()) || padding > 2)
        throw std::runtime_error("no Base64");
    bytes.resize(bytes.size() - static_cast<size_t>(padding));
    return bytes;
}

// From the standard alphabet to the URL-safe one, and back.
inline std::string toUrl(std::string text)
{
    std::replace(text.begin(), text.end(), '+', '-');
    std::replace(text.begin(), text.end(), '/', '_');
    return text;
}

inline std::string fromUrl(std::string text)
{
    std::replace(text.begin(), text.end(), '-', '+');
    std::replace(text.begin(), text.end(), '_', '/');
    return text;
}

inline std::string toUrlBase64(const std::string& bytes)
{
    return toUrl(toBase64(bytes));
}

inline std::string fromUrlBase64(const std::string& text)
{
    return fromBase64(fromUrl(text));
}

}  // namespace support

#endif
