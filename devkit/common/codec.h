// The text forms of binary values in requests and JSON.
//
// A decoder gives nothing for a text that is not of its form. It looks at the whole text before it
// decodes any of it, so that no part of a secret stays behind in memory.
#ifndef CORVANE_COMMON_CODEC_H
#define CORVANE_COMMON_CODEC_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "secrets.h"

// Base64 with "=" padding (RFC 4648): the URL-safe alphabet of requests (section 5),
// and the standard one (section 4).
std::string toUrlBase64(std::string_view bytes);
std::string toBase64(std::string_view bytes);

// Either alphabet, padded or not.
std::optional<SecretText> fromBase64(std::string_view text);
// How many bytes the text stands for, without decoding it.
std::optional<size_t> base64Size(std::string_view text);

// Hex digits, two for a byte; of either case, where they are read.
std::string toHex(std::string_view bytes);
std::optional<SecretText> fromHex(std::string_view text);

// The number that a hex digit of either case stands for; -1 if the character is none.
int hexDigit(int c);

// Undoes percent-escapes (RFC 3986, section 2.1) once.
std::optional<SecretText> percentDecode(std::string_view text);

// Whether the bytes are well-formed UTF-8 (RFC 3629), which JSON text must be.
bool isUtf8(std::string_view bytes);

#endif
