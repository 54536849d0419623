// Base64 with SSSE3: 12 bytes, 16 characters a step.
#include "base64_kernels.h"

#ifdef __x86_64__
#include <immintrin.h>

#include "base64_kernel_tables.h"
#include "replace_bytes.h"

#define TARGET __attribute__((target("ssse3")))

namespace {

TARGET inline __m128i load(const void* sixteenBytes)
{
    return _mm_load_si128(static_cast<const __m128i*>(sixteenBytes));
}

// `whereMask` is set bytes and clear bytes; a set one takes `value`'s.
TARGET inline __m128i select(__m128i otherwise, __m128i value, __m128i whereMask)
{
    return _mm_or_si128(_mm_and_si128(whereMask, value), _mm_andnot_si128(whereMask, otherwise));
}

template <bool Url>
TARGET size_t encode(const unsigned char* in, size_t len, char* out)
{
    const __m128i spread = _mm_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10);
    const __m128i offsets = load(base64CharOffsets<Url>.of);
    size_t i = 0;

    for (; i + 16 <= len; i += 12) {  // the load ends 4 bytes behind its 12
        const __m128i bytes =
            _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i)), spread);

        // Sextets 0 and 2 of each lane come down by a multiplication's high half, 1 and
        // 3 go up by its low half.
        const __m128i even = _mm_mulhi_epu16(_mm_and_si128(bytes, _mm_set1_epi32(0x0FC0FC00)),
                                             _mm_set1_epi32(0x04000040));
        const __m128i odd = _mm_mullo_epi16(_mm_and_si128(bytes, _mm_set1_epi32(0x003F03F0)),
                                            _mm_set1_epi32(0x01000010));
        const __m128i sextets = _mm_or_si128(even, odd);

        const __m128i capital =
            _mm_and_si128(_mm_cmpgt_epi8(_mm_set1_epi8(26), sextets), _mm_set1_epi8(13));
        const __m128i entry = _mm_or_si128(_mm_subs_epu8(sextets, _mm_set1_epi8(51)), capital);
        const __m128i text = _mm_add_epi8(_mm_shuffle_epi8(offsets, entry), sextets);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out), text);
        out += 16;
    }
    return i;
}

template <bool Url>
TARGET size_t decode(const unsigned char* in, size_t len, unsigned char* out)
{
    const __m128i lowClasses = load(base64Classes<Url>.low);
    const __m128i highClasses = load(base64Classes<Url>.high);
    const __m128i offsets = load(base64Offsets.of);
    const __m128i pack = _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
    size_t i = 0;

    for (; i + 24 <= len; i += 16) {  // 16 bytes are stored for the 12 that count
        __m128i text = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
        const __m128i high = _mm_and_si128(_mm_srli_epi32(text, 4), _mm_set1_epi8(15));
        const __m128i low = _mm_and_si128(text, _mm_set1_epi8(15));
        const __m128i foreign =
            _mm_and_si128(_mm_shuffle_epi8(lowClasses, low), _mm_shuffle_epi8(highClasses, high));
        if (_mm_movemask_epi8(_mm_cmpeq_epi8(foreign, _mm_setzero_si128())) != 0xFFFF)
            break;

        __m128i entry = high;
        if (Url) {
            const __m128i minus = _mm_cmpeq_epi8(text, _mm_set1_epi8('-'));
            const __m128i underscore = _mm_cmpeq_epi8(text, _mm_set1_epi8('_'));
            text = select(text, _mm_set1_epi8('+'), minus);
            text = select(text, _mm_set1_epi8('/'), underscore);
            entry = select(entry, _mm_set1_epi8(2), underscore);
        }
        const __m128i slash = _mm_cmpeq_epi8(text, _mm_set1_epi8('/'));
        entry = _mm_add_epi8(entry, slash);
        const __m128i sextets = _mm_add_epi8(text, _mm_shuffle_epi8(offsets, entry));

        const __m128i pairs = _mm_maddubs_epi16(sextets, _mm_set1_epi32(0x01400140));
        const __m128i lanes = _mm_madd_epi16(pairs, _mm_set1_epi32(0x00011000));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_shuffle_epi8(lanes, pack));
        out += 12;
    }
    return i;
}

}  // namespace

const Base64Kernel* base64KernelSsse3()
{
    static constexpr Base64Kernel kernel = {
        "ssse3", {encode<false>, encode<true>}, {decode<false>, decode<true>}, replaceBytes};
    return __builtin_cpu_supports("ssse3") ? &kernel : nullptr;
}

#else

const Base64Kernel* base64KernelSsse3()
{
    return nullptr;
}

#endif
