// Base64 with NEON, which every ARMv8-A processor has: 48 bytes, 64 characters a step.
#include "base64_kernels.h"

#ifdef __aarch64__
#include <arm_neon.h>

#include "base64_kernel_tables.h"
#include "replace_bytes.h"

namespace {

// The 64 characters as a table of four registers, and the sextets of the characters
// 0 to 63 and 64 to 127. Foreign characters have 0xFF.
struct Tables {
    unsigned char low[64] = {};
    unsigned char high[64] = {};
};

template <bool Url>
constexpr Tables makeTables()
{
    Tables tables;
    for (int i = 0; i < 64; ++i) {
        tables.low[i] = 0xFF;
        tables.high[i] = 0xFF;
    }
    const auto place = [&tables](char c, int sextet) {
        (c < 64 ? tables.low[static_cast<int>(c)] : tables.high[c - 64]) =
            static_cast<unsigned char>(sextet);
    };
    for (int i = 0; i < 64; ++i) {
        place(base64Chars[i], i);
        if (Url)
            place(base64UrlChars[i], i);
    }
    return tables;
}

template <bool Url>
constexpr Tables tables = makeTables<Url>();

uint8x16x4_t load64(const void* table)
{
    return vld1q_u8_x4(static_cast<const uint8_t*>(table));
}

// Encodes 48 bytes and moves on.
inline void encodeStep(const unsigned char*& in, const uint8x16x4_t& chars, char*& out)
{
    const uint8x16_t six = vdupq_n_u8(63);
    const uint8x16x3_t b = vld3q_u8(in);
    uint8x16x4_t text;
    text.val[0] = vqtbl4q_u8(chars, vshrq_n_u8(b.val[0], 2));
    // Shifting the lower byte in from the right leaves the group's bits on top.
    text.val[1] =
        vqtbl4q_u8(chars, vandq_u8(vsliq_n_u8(vshrq_n_u8(b.val[1], 4), b.val[0], 4), six));
    text.val[2] =
        vqtbl4q_u8(chars, vandq_u8(vsliq_n_u8(vshrq_n_u8(b.val[2], 6), b.val[1], 2), six));
    text.val[3] = vqtbl4q_u8(chars, vandq_u8(b.val[2], six));
    vst4q_u8(reinterpret_cast<uint8_t*>(out), text);
    in += 48;
    out += 64;
    // Or the compiler works steps' addresses out one by one, where load and store can count.
    asm("" : "+r"(in), "+r"(out));
}

template <bool Url>
size_t encode(const unsigned char* in, size_t len, char* out)
{
    const uint8x16x4_t chars = load64(Url ? base64UrlChars : base64Chars);
    const unsigned char* const endOfFours = in + len / 192 * 192;
    const unsigned char* const end = in + len / 48 * 48;

    while (in != endOfFours) {  // counting takes an instruction for each three that work
        encodeStep(in, chars, out);
        encodeStep(in, chars, out);
        encodeStep(in, chars, out);
        encodeStep(in, chars, out);
    }
    while (in != end)
        encodeStep(in, chars, out);
    return len / 48 * 48;
}

// The first look-up gives 0 for what is beyond its table, the second leaves it. So a
// foreign character has 0xFF, and one beyond ASCII 0, but bit 7 of its own.
inline uint8x16_t sextetsOf(uint8x16_t text, const uint8x16x4_t& low, const uint8x16x4_t& high)
{
    return vqtbx4q_u8(vqtbl4q_u8(low, text), high, vsubq_u8(text, vdupq_n_u8(64)));
}

template <bool Url>
size_t decode(const unsigned char* in, size_t len, unsigned char* out)
{
    const uint8x16x4_t low = load64(tables<Url>.low);
    const uint8x16x4_t high = load64(tables<Url>.high);
    size_t i = 0;

    for (; i + 64 <= len; i += 64) {
        const uint8x16x4_t text = vld4q_u8(in + i);
        const uint8x16_t s0 = sextetsOf(text.val[0], low, high);
        const uint8x16_t s1 = sextetsOf(text.val[1], low, high);
        const uint8x16_t s2 = sextetsOf(text.val[2], low, high);
        const uint8x16_t s3 = sextetsOf(text.val[3], low, high);

        const uint8x16_t sextets = vorrq_u8(vorrq_u8(s0, s1), vorrq_u8(s2, s3));
        const uint8x16_t characters =
            vorrq_u8(vorrq_u8(text.val[0], text.val[1]), vorrq_u8(text.val[2], text.val[3]));
        if (vmaxvq_u8(vorrq_u8(sextets, characters)) > 127)
            break;

        uint8x16x3_t bytes;
        bytes.val[0] = vsliq_n_u8(vshrq_n_u8(s1, 4), s0, 2);
        bytes.val[1] = vsliq_n_u8(vshrq_n_u8(s2, 2), s1, 4);
        bytes.val[2] = vsliq_n_u8(s3, s2, 6);
        vst3q_u8(out, bytes);
        out += 48;
    }
    return i;
}

}  // namespace

const Base64Kernel* base64KernelNeon()
{
    static constexpr Base64Kernel kernel = {
        "neon", {encode<false>, encode<true>}, {decode<false>, decode<true>}, replaceBytes};
    return &kernel;
}

#else

const Base64Kernel* base64KernelNeon()
{
    return nullptr;
}

#endif
