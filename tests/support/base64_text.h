// Base64 (RFC 4648) by OpenSSL, so that tests do not depend on what they test.
#ifndef CORVANE_TESTS_BASE64_TEXT_H
#define CORVANE_TESTS_BASE64_TEXT_H

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <string>

namespace support {

inline std::string toBase64(const std::string& bytes)
{
    std::string text(bytes.size() / 3 * 4 + 5, '\0');
    const int size = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                     reinterpret_cast<const unsigned char*>(bytes.data()),
                                     static_cast<int>(bytes.size()));
    text.resize(static_cast<size_t>(size));
    return text;
}

// Of padded text without line breaks; a failure of the test and no bytes for other text.
inline std::string fromBase64(const std::string& text)
{
    std::string bytes(text.size() / 4 * 3, '\0');
    const int size = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                     reinterpret_cast<const unsigned char*>(text.data()),
                                     static_cast<int>(text.size()));
    if (size != static_cast<int>(bytes.size())) {
        ADD_FAILURE() << "not Base64";
        return "";
    }
    bytes.resize(bytes.size() - static_cast<size_t>(std::count(text.begin(), text.end(), '=')));
    return bytes;
}

inline std::string toUrlBase64(const std::string& bytes)
{
    std::string text = toBase64(bytes);
    std::replace(text.begin(), text.end(), '+', '-');
    std::replace(text.begin(), text.end(), '/', '_');
    return text;
}

inline std::string fromUrlBase64(std::string text)
{
    std::replace(text.begin(), text.end(), '-', '+');
    std::replace(text.begin(), text.end(), '_', '/');
    return fromBase64(text);
}

}  // namespace support

#endif
