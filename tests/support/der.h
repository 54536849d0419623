// ASN.1 values as bytes, put together piece by piece, also such as no library writes.
#ifndef CORVANE_TESTS_DER_H
#define CORVANE_TESTS_DER_H

#include <openssl/objects.h>

#include <memory>
#include <string>

namespace support {

// A value in DER.
inline std::string tlv(int tag, const std::string& content)
{
    std::string length;
    for (size_t rest = content.size(); rest > 0; rest >>= 8)
        length.insert(length.begin(), static_cast<char>(rest & 0xFF));
    if (content.size() < 128)
        length = std::string(1, static_cast<char>(content.size()));
    else
        length.insert(length.begin(), static_cast<char>(0x80 | length.size()));
    return static_cast<char>(tag) + length + content;
}

// With a length that is found by the end's mark, as BER allows.
inline std::string endless(int tag, const std::string& content)
{
    return static_cast<char>(tag) + std::string("\x80", 1) + content + std::string(2, '\0');
}

inline std::string oid(const std::string& dotted)
{
    const std::unique_ptr<ASN1_OBJECT, decltype(&ASN1_OBJECT_free)> object(
        OBJ_txt2obj(dotted.c_str(), 1), ASN1_OBJECT_free);
    return tlv(0x06, std::string(reinterpret_cast<const char*>(OBJ_get0_data(object.get())),
                                 OBJ_length(object.get())));
}

}  // namespace support

#endif
