// Base64 with the byte permutations of AVX-512 VBMI: 48 bytes, 64 characters a step.
#include "base64_kernels.h"

#ifdef __x86_64__
#include <immintrin.h>

#include "base64_kernel_tables.h"
#include "replace_bytes.h"

#define TARGET __attribute__((target("avx512f,avx512bw,avx512vl,avx512vbmi")))

namespace {

// For each 3-byte group b0 b1 b2, the order b1 b0 b2 b1 in which every sextet lies within
// a 32-bit lane at a fixed distance.
struct alignas(64) SpreadOrder {
    unsigned char at[64] = {};
    constexpr SpreadOrder()
    {
        for (size_t i = 0; i < 16; ++i) {
            at[4 * i] = static_cast<unsigned char>(3 * i + 1);
            at[4 * i + 1] = static_cast<unsigned char>(3 * i);
            at[4 * i + 2] = static_cast<unsigned char>(3 * i + 2);
            at[4 * i + 3] = static_cast<unsigned char>(3 * i + 1);
        }
    }
};
constexpr SpreadOrder spreadOrder;

// Where the three bytes of each 32-bit lane are, most significant first.
struct alignas(64) PackOrder {
    unsigned char at[64] = {};
    constexpr PackOrder()
    {
        for (size_t i = 0; i < 16; ++i) {
            at[3 * i] = static_cast<unsigned char>(4 * i + 2);
            at[3 * i + 1] = static_cast<unsigned char>(4 * i + 1);
            at[3 * i + 2] = static_cast<unsigned char>(4 * i);
        }
    }
};
constexpr PackOrder packOrder;

// The sextet of each 7-bit character; 0x80 for those outside the alphabet.
template <bool Url>
struct alignas(64) Sextets {
    unsigned char of[128] = {};
    constexpr Sextets()
    {
        for (unsigned char& sextet : of)
            sextet = 0x80;
        for (int i = 0; i < 64; ++i) {
            of[static_cast<unsigned char>(base64Chars[i])] = static_cast<unsigned char>(i);
            if (Url)
                of[static_cast<unsigned char>(base64UrlChars[i])] = static_cast<unsigned char>(i);
        }
    }
};
template <bool Url>
constexpr Sextets<Url> sextets;

TARGET inline __m512i load(const void* from)
{
    return _mm512_loadu_si512(from);
}

// The masked forms with nothing masked: GCC 12 warns about its own headers otherwise.
constexpr __mmask64 ALL = ~__mmask64{0};

TARGET inline __m512i permute(__m512i order, __m512i bytes)
{
    return _mm512_maskz_permutexvar_epi8(ALL, order, bytes);
}

constexpr __mmask64 FIRST_48 = 0x0000FFFFFFFFFFFF;

template <bool Url>
TARGET size_t encode(const unsigned char* in, size_t len, char* out)
{
    const __m512i order = load(spreadOrder.at);
    const __m512i chars = load(Url ? base64UrlChars : base64Chars);
    // The distance of each sextet of a group from the bottom of its half of a lane pair.
    const __m512i shifts = _mm512_set1_epi64(0x3036242a1016040a);
    size_t i = 0;

    for (; i + 48 <= len; i += 48) {
        const __m512i bytes = _mm512_maskz_loadu_epi8(FIRST_48, in + i);
        const __m512i spread = permute(order, bytes);
        const __m512i places = _mm512_maskz_multishift_epi64_epi8(ALL, shifts, spread);
        // The permutation looks at the low 6 bits of a place only.
        _mm512_storeu_si512(out, permute(places, chars));
        out += 64;
    }
    return i;
}

template <bool Url>
TARGET size_t decode(const unsigned char* in, size_t len, unsigned char* out)
{
    const __m512i low = load(sextets<Url>.of);
    const __m512i high = load(sextets<Url>.of + 64);
    const __m512i order = load(packOrder.at);
    size_t i = 0;

    for (; i + 64 <= len; i += 64) {
        const __m512i text = load(in + i);
        const __m512i places = _mm512_permutex2var_epi8(low, text, high);
        // Bit 7 of a place marks a foreign character, of a character one beyond ASCII.
        if (_mm512_movepi8_mask(_mm512_or_si512(text, places)) != 0)
            break;
        const __m512i pairs = _mm512_maddubs_epi16(places, _mm512_set1_epi32(0x01400140));
        const __m512i lanes = _mm512_madd_epi16(pairs, _mm512_set1_epi32(0x00011000));
        _mm512_mask_storeu_epi8(out, FIRST_48, permute(order, lanes));
        out += 48;
    }
    return i;
}

TARGET void replace(char* buf, size_t len, char from, char to)
{
    size_t i = 0;

    for (; i + 64 <= len; i += 64) {
        const __m512i bytes = load(buf + i);
        const __mmask64 hits = _mm512_cmpeq_epi8_mask(bytes, _mm512_set1_epi8(from));
        _mm512_storeu_si512(buf + i, _mm512_mask_blend_epi8(hits, bytes, _mm512_set1_epi8(to)));
    }
    replaceBytes(buf + i, len - i, from, to);
}

}  // namespace

const Base64Kernel* base64KernelAvx512()
{
    static constexpr Base64Kernel kernel = {
        "avx512", {encode<false>, encode<true>}, {decode<false>, decode<true>}, replace};
    return __builtin_cpu_supports("avx512vbmi") && __builtin_cpu_supports("avx512bw") &&
                   __builtin_cpu_supports("avx512vl")
               ? &kernel
               : nullptr;
}

#else

const Base64Kernel* base64KernelAvx512()
{
    return nullptr;
}

#endif
