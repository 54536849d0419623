// The inner loops of the Base64 codecs. Each kernel takes the bulk of an input and leaves
// the rest, and everything unusual, to its callers. All kernels give the same bytes.
#ifndef CORVANE_BASE64_KERNELS_H
#define CORVANE_BASE64_KERNELS_H

#include <cstddef>

// Url has "-" and "_" in place of "+" and "/". In decoding it takes either form, also
// mixed.
enum Base64Alphabet { BASE64_STANDARD, BASE64_URL };

struct Base64Kernel {
    const char* name;

    // Indexed by the alphabet. Encodes whole 3-byte groups from the start of `in` and
    // returns the number of bytes taken; writes 4 characters for each group.
    size_t (*encode[2])(const unsigned char* in, size_t len, char* out);

    // Indexed by the alphabet. Decodes whole 4-character groups from the start of `in`,
    // at most up to the first one with a foreign character, and returns the number of
    // characters taken. Writes 3 bytes for each group, and may write behind them into
    // the room for the rest of the input: `out` has 3 bytes for each 4 characters of
    // `len`. It may be `in` itself.
    size_t (*decode[2])(const unsigned char* in, size_t len, unsigned char* out);

    // Exchanges one byte for another.
    void (*replace)(char* buf, size_t len, char from, char to);
};

// Always there; takes all whole groups.
extern const Base64Kernel base64Scalar;
constexpr const Base64Kernel* base64KernelScalar()
{
    return &base64Scalar;
}

// Null where the processor, or the target of the build, lacks the instructions.
const Base64Kernel* base64KernelSsse3();
const Base64Kernel* base64KernelAvx2();
const Base64Kernel* base64KernelAvx512();
const Base64Kernel* base64KernelNeon();

// The fastest kernel here, chosen by a constructor when the library is loaded; the scalar
// one before that has run. Never null.
extern const Base64Kernel* base64Kernel;

#endif
