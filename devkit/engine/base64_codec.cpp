#include "base64_codec.h"

#include <initializer_list>

#include "exported_call.h"
#include "exports.h"

namespace {

constexpr unsigned char alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
    "abcdefghijklmnopqrstuvwxyz"
    "0123456789+/";

constexpr unsigned char FOREIGN = 255;
constexpr unsigned char BLANK = 254;
constexpr unsigned char PADDING = 253;

struct ReverseTable {
    unsigned char value[256] = {};

    constexpr ReverseTable()
    {
        for (unsigned char& entry : value)
            entry = FOREIGN;
        for (unsigned char i = 0; i < 64; ++i)
            value[alphabet[i]] = i;
        for (char c : {' ', '\t', '\r', '\n'})
            value[static_cast<unsigned char>(c)] = BLANK;
        value[static_cast<unsigned char>('=')] = PADDING;
    }
};
constexpr ReverseTable reverse;

// Writes the characters of three bytes.
void putGroup(uint32_t group, unsigned char* out)
{
    out[0] = alphabet[group >> 18];
    out[1] = alphabet[group >> 12 & 63];
    out[2] = alphabet[group >> 6 & 63];
    out[3] = alphabet[group & 63];
}

}  // namespace

size_t base64EncodedLength(size_t size)
{
    return (size + 2) / 3 * 4;
}

void base64Encode(Bytes in, unsigned char* out)
{
    size_t i = 0;
    for (; in.size - i >= 3; i += 3, out += 4)
        putGroup(uint32_t{in.data[i]} << 16 | uint32_t{in.data[i + 1]} << 8 | in.data[i + 2], out);

    const size_t rest = in.size - i;
    if (rest == 0)
        return;
    uint32_t group = uint32_t{in.data[i]} << 16;
    if (rest == 2)
        group |= uint32_t{in.data[i + 1]} << 8;
    putGroup(group, out);
    out[3] = '=';
    if (rest == 1)
        out[2] = '=';
}

size_t base64Decode(Bytes in, unsigned char* out)
{
    uint32_t group = 0;
    size_t characters = 0;
    size_t paddings = 0;
    size_t written = 0;
    const auto put = [&](uint32_t byte) {
        if (out != nullptr)
            out[written] = static_cast<unsigned char>(byte);
        ++written;
    };

    for (size_t i = 0; i < in.size; ++i) {
        const unsigned char value = reverse.value[in.data[i]];
        if (value == BLANK)
            continue;
        require(value != FOREIGN, AVEN_E_BASE64_CHARACTER);
        if (value == PADDING) {
            ++paddings;
            continue;
        }
        require(paddings == 0, AVEN_E_BASE64_ENDING);
        group = group << 6 | value;
        if (++characters % 4 == 0) {
            put(group >> 16 & 255);
            put(group >> 8 & 255);
            put(group & 255);
        }
    }

    const size_t rest = characters % 4;
    require(paddings == 0 || (rest != 0 && paddings == 4 - rest), AVEN_E_BASE64_ENDING);
    require(rest != 1, AVEN_E_BASE64_ENDING);
    if (rest == 2) {
        require((group & 15) == 0, AVEN_E_BASE64_ENDING);
        put(group >> 4 & 255);
    } else if (rest == 3) {
        require((group & 3) == 0, AVEN_E_BASE64_ENDING);
        put(group >> 10 & 255);
        put(group >> 2 & 255);
    }
    return written;
}

int aven_crypto_base64_encode(const unsigned char* in, uint32_t in_len, unsigned char* out,
                              uint32_t* out_len)
{
    return answer("aven_crypto_base64_encode", out, out_len, [&](const Engine&, Output& output) {
        const Bytes data = input(in, in_len);
        const size_t needed = base64EncodedLength(data.size);

        if (!output.isQuery())
            base64Encode(data, output.room(needed));
        output.setLength(needed);
    });
}

int aven_crypto_base64_decode(const unsigned char* in, uint32_t in_len, unsigned char* out,
                              uint32_t* out_len)
{
    return answer("aven_crypto_base64_decode", out, out_len, [&](const Engine&, Output& output) {
        const Bytes text = input(in, in_len);
        const size_t needed = base64Decode(text, nullptr);

        if (!output.isQuery())
            base64Decode(text, output.room(needed));
        output.setLength(needed);
    });
}
