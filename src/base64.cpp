#include "base64.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cwctype>

#include "base64_kernel_tables.h"
#include "base64_kernels.h"
#include "secret_text.h"

namespace {

// Characters of text at a time. A string zeroes what it grows by, so it grows by little at
// a time: the memory is in the cache when the kernel then writes to it.
constexpr size_t CHUNK = 16384;
static_assert(CHUNK % 64 == 0, "a whole number of steps of every kernel");

// The sextet of a character outside the alphabet: what the missing place (-1) leaves in
// 8 bits. The decoder meets it only where a locale counts further bytes as letters.
constexpr unsigned char NO_PLACE = 0xFF;

constexpr std::array<unsigned char, 256> makeSextets()
{
    std::array<unsigned char, 256> sextets = {};
    for (unsigned char& sextet : sextets)
        sextet = NO_PLACE;
    for (unsigned char i = 0; i < 64; ++i)
        sextets[static_cast<unsigned char>(base64Chars[i])] = i;
    return sextets;
}

constexpr std::array<unsigned char, 256> sextets = makeSextets();

// Writes the four characters of the last group, of 1 or 2 bytes.
void encodeLast(const unsigned char* in, size_t len, Base64Alphabet alphabet, char* out)
{
    unsigned char group[3] = {in[0], len > 1 ? in[1] : static_cast<unsigned char>(0), 0};
    const WipedBytes wiped(group, sizeof group);
    base64KernelScalar()->encode[alphabet](group, sizeof group, out);
    if (len == 1)
        out[2] = '=';
    out[3] = '=';
}

std::string encode(const unsigned char* in, size_t len, Base64Alphabet alphabet)
{
    constexpr size_t step = CHUNK / 4 * 3;
    std::string text;

    text.reserve((len + 2) / 3 * 4);
    while (len >= 3) {
        const size_t groups = std::min(len, step) / 3;
        const size_t start = text.length();
        text.resize(start + groups * 4);
        char* const out = text.data() + start;
        const size_t taken = base64Kernel->encode[alphabet](in, groups * 3, out);
        base64KernelScalar()->encode[alphabet](in + taken, groups * 3 - taken, out + taken / 3 * 4);
        in += groups * 3;
        len -= groups * 3;
    }
    if (len > 0) {
        const size_t start = text.length();
        text.resize(start + 4);
        encodeLast(in, len, alphabet, text.data() + start);
    }
    return text;
}

// Decodes whole groups up to the first that has anything but 64 characters in it.
// Returns the number of characters taken; `out` has room for 3 bytes for each 4.
size_t decodeGroups(const unsigned char* in, size_t len, Base64Alphabet alphabet,
                    unsigned char* out)
{
    const size_t taken = base64Kernel->decode[alphabet](in, len, out);
    return taken +
           base64KernelScalar()->decode[alphabet](in + taken, len - taken, out + taken / 4 * 3);
}

// Decodes by the full rules, a character at a time: `next` gives the sextet of each, or
// a negative number where decoding ends; `put` takes each byte.
template <class Next, class Put>
void decodeRest(Next next, Put put)
{
    std::array<unsigned, 4> s = {};
    const WipedBytes wiped(s.data(), sizeof s);
    size_t filled = 0;
    const auto putGroup = [&](size_t bytes) {
        if (bytes > 0)
            put(static_cast<unsigned char>((s[0] << 2) + ((s[1] & 0x30) >> 4)));
        if (bytes > 1)
            put(static_cast<unsigned char>(((s[1] & 0x0F) << 4) + ((s[2] & 0x3C) >> 2)));
        if (bytes > 2)
            put(static_cast<unsigned char>(((s[2] & 0x03) << 6) + s[3]));
    };

    for (int sextet = next(); sextet >= 0; sextet = next()) {
        s[filled++] = static_cast<unsigned>(sextet);
        if (filled == 4) {
            putGroup(3);
            s = {};  // what is missing of the last group counts as zero
            filled = 0;
        }
    }
    putGroup(filled > 0 ? filled - 1 : 0);
}

// The sextet of a character, or -1 if it ends decoding.
int sextetOf(unsigned char c)
{
    return c != '=' && is_base64(c) ? sextets[c] : -1;
}

}  // namespace

std::string base64_encode(const unsigned char* bytes, unsigned int len)
{
    return encode(bytes, len, BASE64_STANDARD);
}

std::string base64_encode_url(const unsigned char* bytes, size_t len)
{
    return encode(bytes, len, BASE64_URL);
}

std::string base64_decode(const std::string& text)
{
    const auto* in = reinterpret_cast<const unsigned char*>(text.data());
    const size_t len = text.length();
    std::string bytes;
    size_t i = 0;

    bytes.reserve(len / 4 * 3 + 2);
    for (size_t taken = CHUNK; taken == CHUNK; i += taken) {
        const size_t room = std::min(len - i, CHUNK);
        const size_t start = bytes.length();
        bytes.resize(start + room / 4 * 3);
        taken = decodeGroups(in + i, room, BASE64_STANDARD,
                             reinterpret_cast<unsigned char*>(bytes.data() + start));
        bytes.resize(start + taken / 4 * 3);
    }
    decodeRest([&] { return i < len ? sextetOf(in[i++]) : -1; },
               [&](unsigned char b) { bytes += static_cast<char>(b); });
    return bytes;
}

void base64_decode_url(std::string& text)
{
    auto* const bytes = reinterpret_cast<unsigned char*>(text.data());
    const size_t len = text.length();
    size_t i = decodeGroups(bytes, len, BASE64_URL, bytes);
    size_t decoded = i / 4 * 3;

    decodeRest(
        [&] {
            if (i == len)
                return -1;
            const unsigned char c = bytes[i++];
            return sextetOf(c == '-' ? '+' : c == '_' ? '/' : c);
        },
        [&](unsigned char b) { bytes[decoded++] = b; });
    text.resize(decoded);
}

bool is_base64(unsigned char c)
{
    return isalnum(c) || c == '+' || c == '/';
}

std::wstring base64_encode_w(const unsigned int* chars, unsigned int len)
{
    std::wstring text;
    text.reserve((size_t{len} + 2) / 3 * 4);
    for (size_t i = 0; i < len; i += 3) {
        const size_t count = std::min<size_t>(len - i, 3);
        unsigned char group[3];
        const WipedBytes wiped(group, sizeof group);
        for (size_t k = 0; k < count; ++k)
            group[k] = static_cast<unsigned char>(chars[i + k]);
        for (const char c : SecretText(base64_encode(group, static_cast<unsigned int>(count))))
            text += static_cast<wchar_t>(c);
    }
    return text;
}

std::wstring base64_decode_w(const std::wstring& text)
{
    std::wstring bytes;
    bytes.reserve(text.length() / 4 * 3 + 2);
    size_t i = 0;
    decodeRest(
        [&] {
            if (i == text.length() || text[i] == L'=' ||
                !is_base64_w(static_cast<unsigned int>(text[i])))
                return -1;
            return static_cast<int>(sextets[static_cast<unsigned char>(text[i++])]);
        },
        [&](unsigned char b) { bytes += static_cast<wchar_t>(b); });
    return bytes;
}

bool is_base64_w(unsigned int wc)
{
    return iswalnum(wc) || wc == '+' || wc == '/';
}
