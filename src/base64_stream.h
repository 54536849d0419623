/*
 * The streaming Base64 codec, for the host; no request uses it. Standard alphabet
 * (RFC 4648, section 4). Unlike the string codec, its decoder skips line feeds and
 * foreign characters and reports a text that ends inside a group.
 * CV_Base64Encode and CV_Base64Decode compile as C11 too.
 */
#ifndef CORVANE_BASE64_STREAM_H
#define CORVANE_BASE64_STREAM_H

#define BASE64_NO_MEMORY (-20000)  /* a work buffer or state could not be allocated */
#define BASE64_INCOMPLETE (-20002) /* the text ends inside a group of four */

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/*
 * Encodes in one call. *outLen receives the number of characters; a null `out` asks
 * for that number alone. No terminator is written.
 *
 * With lineBreak 1 a line feed follows every 64th character and one more ends the
 * text. If the last line is full, it ends in two line feeds, and one byte more is
 * written than *outLen says: size `out` for the answer plus one.
 *
 * 0, or BASE64_NO_MEMORY (*outLen is then untouched), also for a text of 4 GiB and
 * more, which *outLen could not count.
 */
int CV_Base64Encode(const unsigned char* in, unsigned int inLen, char* out, unsigned int* outLen,
                    int lineBreak);

/*
 * Decodes in one call. *outLen receives the number of bytes; a null `out` asks for an
 * upper bound. 0, BASE64_NO_MEMORY or BASE64_INCOMPLETE (*outLen is then 0). A
 * malformed padded group ("A===") counts as no bytes at all: 0 with *outLen 0.
 *
 * Up to three characters of an incomplete group are left in `out` behind the bytes;
 * inLen bytes are room enough for any input.
 */
int CV_Base64Decode(const char* in, unsigned int inLen, unsigned char* out, unsigned int* outLen);

#pragma GCC visibility pop
#ifdef __cplusplus
}

#pragma GCC visibility push(default)

// Encoding in pieces. encodeini stores a new state, or null if there is no memory;
// the caller releases it with free. encodeupdate returns the number of characters
// written, at most 4 for each 3 bytes given so far; up to two bytes wait in the state.
// It takes nothing, and returns 0, for an input too long for its result to count: with
// those that wait, more than 1,610,612,735 bytes.
// encodefinish writes the padded last group, 0 or 4 characters.
void encodeini(unsigned char** state);
int encodeupdate(unsigned char* in, int inLen, unsigned char* out, unsigned char* state);
int encodefinish(unsigned char* out, unsigned char* state);

// Decoding in pieces. decodeini returns 0, or -1 if there is no memory. decodeupdate
// returns the number of bytes written; up to three characters wait in the state, and
// a padded group ends the call. It returns 0 for a malformed padded group, whatever
// the call wrote before it, 0 also when `state` or `in` is null, and inLen when only
// `out` is null. decodefinish copies the
// waiting characters to `out`, returns their number, frees the state and nulls it.
int decodeini(unsigned char** state);
int decodeupdate(unsigned char* in, int inLen, unsigned char* out, unsigned char* state);
int decodefinish(unsigned char* out, unsigned char** state);

#pragma GCC visibility pop
#endif

#endif
