// Text forms by other means than the code that is fuzzed.
#ifndef CORVANE_FUZZ_ORACLES_H
#define CORVANE_FUZZ_ORACLES_H

#include "fuzz.h"
#include "support/base64_text.h"

namespace fuzz {

using support::fromUrl;
using support::toBase64;
using support::toUrl;

// The sextet of a character of the standard alphabet, or -1.
inline int sextetOf(char c)
{
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    return c == '+' ? 62 : c == '/' ? 63 : -1;
}

// How many characters of the standard alphabet the text begins with.
inline size_t lengthOfAlphabet(const std::string& text)
{
    size_t length = 0;
    while (length < text.size() && sextetOf(text[length]) >= 0)
        ++length;
    return length;
}

// The string codec's decoding, as a stream of bits: of whatever precedes the first
// character outside the alphabet, without the bits that make no whole byte.
inline std::string base64Decoded(const std::string& text)
{
    std::string bytes;
    uint32_t bits = 0;
    int count = 0;
    const size_t length = lengthOfAlphabet(text);
    for (size_t i = 0; i < length; ++i) {
        bits = bits << 6 | static_cast<uint32_t>(sextetOf(text[i]));
        count += 6;
        if (count < 8)
            continue;
        count -= 8;
        bytes += static_cast<char>(bits >> count & 0xFF);
    }
    return bytes;
}

inline bool isLetterOrDigit(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// Percent-escapes (RFC 3986, section 2.1) of all but letters, digits and some marks.
inline std::string escaped(const std::string& bytes)
{
    const std::string marks = "-_.~!*'()";
    std::string text;
    for (const char c : bytes) {
        char escape[4];
        snprintf(escape, sizeof escape, "%%%02X", static_cast<unsigned>(c) & 0xFF);
        text +=
            isLetterOrDigit(c) || marks.find(c) != std::string::npos ? std::string(1, c) : escape;
    }
    return text;
}

}  // namespace fuzz

#endif
