// The string Base64 codec: standard alphabet (RFC 4648, section 4), "=" padding, no
// line breaks. This is the codec of the request handlers. The streaming codec in
// base64_stream.h treats foreign characters differently, on purpose.
#ifndef CORVANE_BASE64_H
#define CORVANE_BASE64_H

#include <cstddef>
#include <string>

#pragma GCC visibility push(default)

// The Base64 text of `len` bytes.
std::string base64_encode(const unsigned char* bytes, unsigned int len);

// The bytes of a Base64 text. Decoding ends silently at the first "=" and at the
// first character that is_base64 refuses; what follows is ignored. Missing padding
// is accepted, a single leftover character gives nothing. Never fails.
std::string base64_decode(const std::string& text);

// Whether the decoder accepts a character: isalnum in the process's locale, "+" or
// "/". A letter that a locale adds to ASCII decodes like sextet value 255.
bool is_base64(unsigned char c);

// The same algorithms over 32-bit wide characters. Encoding takes the low 8 bits of each
// element; decoding takes the sextet of the low 8 bits of each accepted character and
// gives one wide character a byte.
std::wstring base64_encode_w(const unsigned int* chars, unsigned int len);
std::wstring base64_decode_w(const std::wstring& text);
bool is_base64_w(unsigned int wc);

#pragma GCC visibility pop

// For the request handlers, and not exported: URL-safe Base64, which has "-" and "_" in
// place of "+" and "/". Decoding takes either form, also mixed, and works in place: it
// turns the text into its bytes. Both are what base64_encode and base64_decode give with
// these characters exchanged behind and before them.
std::string base64_encode_url(const unsigned char* bytes, size_t len);
void base64_decode_url(std::string& text);

#endif
