// Base64 as in RFC 4648, section 4; see engine_numbers.h for what decoding accepts.
#ifndef CORVANE_ENGINE_BASE64_CODEC_H
#define CORVANE_ENGINE_BASE64_CODEC_H

#include "buffers.h"

size_t base64EncodedLength(size_t size);

// `out` has room for base64EncodedLength(in.size).
void base64Encode(Bytes in, unsigned char* out);

// Returns the number of bytes that the text stands for, and writes them unless `out`
// is null. Throws AVEN_E_BASE64_CHARACTER and AVEN_E_BASE64_ENDING; bytes before the
// fault are then written.
size_t base64Decode(Bytes in, unsigned char* out);

#endif
