// Base64 without vector instructions: two characters from each 12 bits, four table
// look-ups for each group.
#include <array>
#include <cstdint>

#include "base64_kernel_tables.h"
#include "base64_kernels.h"
#include "replace_bytes.h"

namespace {

// Both characters of each 12-bit value.
template <bool Url>
struct Pairs {
    char of[4096][2] = {};
    constexpr Pairs()
    {
        const char* chars = Url ? base64UrlChars : base64Chars;
        for (int i = 0; i < 4096; ++i) {
            of[i][0] = chars[i >> 6];
            of[i][1] = chars[i & 63];
        }
    }
};
template <bool Url>
constexpr Pairs<Url> pairs;

constexpr uint32_t FOREIGN = 0x80000000;

// The sextet of each character, shifted to its place in the group's 24 bits.
template <bool Url>
struct Places {
    uint32_t at[4][256] = {};
    constexpr Places()
    {
        for (int position = 0; position < 4; ++position) {
            for (uint32_t& place : at[position])
                place = FOREIGN;
            for (uint32_t i = 0; i < 64; ++i) {
                const uint32_t place = i << (6 * (3 - position));
                at[position][static_cast<unsigned char>(base64Chars[i])] = place;
                if (Url)
                    at[position][static_cast<unsigned char>(base64UrlChars[i])] = place;
            }
        }
    }
};
template <bool Url>
constexpr Places<Url> places;

template <bool Url>
size_t encode(const unsigned char* in, size_t len, char* out)
{
    size_t i = 0;
    for (; i + 3 <= len; i += 3) {
        const unsigned group = unsigned{in[i]} << 16 | unsigned{in[i + 1]} << 8 | in[i + 2];
        const char* first = pairs<Url>.of[group >> 12];
        const char* second = pairs<Url>.of[group & 0xFFF];
        out[0] = first[0];
        out[1] = first[1];
        out[2] = second[0];
        out[3] = second[1];
        out += 4;
    }
    return i;
}

template <bool Url>
size_t decode(const unsigned char* in, size_t len, unsigned char* out)
{
    size_t i = 0;
    for (; i + 4 <= len; i += 4) {
        const auto& at = places<Url>.at;
        const uint32_t group =
            at[0][in[i]] | at[1][in[i + 1]] | at[2][in[i + 2]] | at[3][in[i + 3]];
        if (group & FOREIGN)
            break;
        out[0] = static_cast<unsigned char>(group >> 16);
        out[1] = static_cast<unsigned char>(group >> 8);
        out[2] = static_cast<unsigned char>(group);
        out += 3;
    }
    return i;
}

}  // namespace

constexpr Base64Kernel base64Scalar = {
    "scalar", {encode<false>, encode<true>}, {decode<false>, decode<true>}, replaceBytes};
