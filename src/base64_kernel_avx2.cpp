// Base64 with AVX2: 24 bytes, 32 characters a step. The arithmetic is that of
// base64_kernel_ssse3.cpp in both halves of a register.
#include "base64_kernels.h"

#ifdef __x86_64__
#include <immintrin.h>

#include "base64_kernel_tables.h"
#include "replace_bytes.h"

#define TARGET __attribute__((target("avx2")))

namespace {

TARGET inline __m256i both(const void* sixteenBytes)
{
    return _mm256_broadcastsi128_si256(_mm_load_si128(static_cast<const __m128i*>(sixteenBytes)));
}

template <bool Url>
TARGET size_t encode(const unsigned char* in, size_t len, char* out)
{
    const __m256i spread = _mm256_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10,  //
                                            1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10);
    const __m256i offsets = both(base64CharOffsets<Url>.of);
    size_t i = 0;

    for (; i + 28 <= len; i += 24) {  // the second load ends 4 bytes behind its 12
        const __m128i first = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
        const __m128i second = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i + 12));
        const __m256i bytes = _mm256_shuffle_epi8(_mm256_set_m128i(second, first), spread);

        // Sextets 0 and 2 of each lane come down by a multiplication's high half, 1 and
        // 3 go up by its low half.
        const __m256i even = _mm256_mulhi_epu16(
            _mm256_and_si256(bytes, _mm256_set1_epi32(0x0FC0FC00)), _mm256_set1_epi32(0x04000040));
        const __m256i odd = _mm256_mullo_epi16(
            _mm256_and_si256(bytes, _mm256_set1_epi32(0x003F03F0)), _mm256_set1_epi32(0x01000010));
        const __m256i sextets = _mm256_or_si256(even, odd);

        const __m256i capital = _mm256_and_si256(_mm256_cmpgt_epi8(_mm256_set1_epi8(26), sextets),
                                                 _mm256_set1_epi8(13));
        const __m256i entry =
            _mm256_or_si256(_mm256_subs_epu8(sextets, _mm256_set1_epi8(51)), capital);
        const __m256i text = _mm256_add_epi8(_mm256_shuffle_epi8(offsets, entry), sextets);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), text);
        out += 32;
    }
    return i;
}

template <bool Url>
TARGET size_t decode(const unsigned char* in, size_t len, unsigned char* out)
{
    const __m256i lowClasses = both(base64Classes<Url>.low);
    const __m256i highClasses = both(base64Classes<Url>.high);
    const __m256i offsets = both(base64Offsets.of);
    const __m256i pack =
        _mm256_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1,  //
                         2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
    const __m256i join = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7);
    size_t i = 0;

    for (; i + 48 <= len; i += 32) {  // 32 bytes are stored for the 24 that count
        __m256i text = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in + i));
        const __m256i high = _mm256_and_si256(_mm256_srli_epi32(text, 4), _mm256_set1_epi8(15));
        const __m256i low = _mm256_and_si256(text, _mm256_set1_epi8(15));
        if (!_mm256_testz_si256(_mm256_shuffle_epi8(lowClasses, low),
                                _mm256_shuffle_epi8(highClasses, high)))
            break;

        __m256i entry = high;
        if (Url) {
            const __m256i minus = _mm256_cmpeq_epi8(text, _mm256_set1_epi8('-'));
            const __m256i underscore = _mm256_cmpeq_epi8(text, _mm256_set1_epi8('_'));
            text = _mm256_blendv_epi8(text, _mm256_set1_epi8('+'), minus);
            text = _mm256_blendv_epi8(text, _mm256_set1_epi8('/'), underscore);
            entry = _mm256_blendv_epi8(entry, _mm256_set1_epi8(2), underscore);
        }
        const __m256i slash = _mm256_cmpeq_epi8(text, _mm256_set1_epi8('/'));
        entry = _mm256_add_epi8(entry, slash);
        const __m256i sextets = _mm256_add_epi8(text, _mm256_shuffle_epi8(offsets, entry));

        const __m256i pairs = _mm256_maddubs_epi16(sextets, _mm256_set1_epi32(0x01400140));
        const __m256i lanes = _mm256_madd_epi16(pairs, _mm256_set1_epi32(0x00011000));
        const __m256i bytes = _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(lanes, pack), join);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), bytes);
        out += 24;
    }
    return i;
}

TARGET void replace(char* buf, size_t len, char from, char to)
{
    size_t i = 0;

    for (; i + 32 <= len; i += 32) {
        const auto at = reinterpret_cast<__m256i*>(buf + i);
        const __m256i bytes = _mm256_loadu_si256(at);
        const __m256i hits = _mm256_cmpeq_epi8(bytes, _mm256_set1_epi8(from));
        _mm256_storeu_si256(at, _mm256_blendv_epi8(bytes, _mm256_set1_epi8(to), hits));
    }
    replaceBytes(buf + i, len - i, from, to);
}

}  // namespace

const Base64Kernel* base64KernelAvx2()
{
    static constexpr Base64Kernel kernel = {
        "avx2", {encode<false>, encode<true>}, {decode<false>, decode<true>}, replace};
    return __builtin_cpu_supports("avx2") ? &kernel : nullptr;
}

#else

const Base64Kernel* base64KernelAvx2()
{
    return nullptr;
}

#endif
