#include "base64_stream.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base64_kernels.h"
#include "secret_text.h"

namespace {

constexpr char alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
    "abcdefghijklmnopqrstuvwxyz"
    "0123456789+/=";

constexpr int COLUMNS = 76;
constexpr unsigned char PADDING = 64;  // the place of "="

// So many bytes give as many characters as an int can count: whole groups, and what waits.
constexpr size_t MAX_ENCODED = size_t{INT_MAX} / 4 * 3 + 2;

// The states are blocks of memory that the host holds as bytes; their size and layout
// are what it may count on.
struct EncoderState {
    int32_t pendingCount;
    unsigned char pending[2];
    int32_t column;  // 1 to 76; counts characters, breaks no lines
};
static_assert(sizeof(EncoderState) == 12 && offsetof(EncoderState, column) == 8);

struct DecoderState {
    int32_t pendingCount;
    unsigned char pending[3];  // characters, not sextets
};
static_assert(sizeof(DecoderState) == 8);
constexpr size_t DECODER_STATE_USED = 7;

// Memory of so many bytes that may hold what a caller gave.
struct WipeAndFree {
    size_t size;
    void operator()(unsigned char* memory) const
    {
        explicit_bzero(memory, size);
        free(memory);
    }
};
using Owned = std::unique_ptr<unsigned char, WipeAndFree>;

// The place of each character in the alphabet; 0 also for those outside it.
struct ReverseTable {
    unsigned char place[256] = {};

    constexpr ReverseTable()
    {
        for (unsigned char i = 0; i <= PADDING; ++i)
            place[static_cast<unsigned char>(alphabet[i])] = i;
    }
};
constexpr ReverseTable reverse;

// Writes the four characters of three bytes.
void putGroup(const unsigned char (&b)[3], unsigned char* out)
{
    out[0] = static_cast<unsigned char>(alphabet[b[0] >> 2]);
    out[1] = static_cast<unsigned char>(alphabet[((b[0] & 3) << 4) + (b[1] >> 4)]);
    out[2] = static_cast<unsigned char>(alphabet[((b[1] & 15) << 2) + (b[2] >> 6)]);
    out[3] = static_cast<unsigned char>(alphabet[b[2] & 63]);
}

void advanceColumn(EncoderState& state, size_t characters)
{
    const size_t column = static_cast<size_t>(state.column - 1) + characters;
    state.column = static_cast<int32_t>(column % COLUMNS) + 1;
}

// How many bytes wait, whatever a state says that was written over.
size_t waitingIn(const EncoderState& state)
{
    return static_cast<size_t>(std::clamp(state.pendingCount, 0, 2));
}

// encodeupdate without a limit on the length.
size_t encode(const unsigned char* in, size_t inLen, unsigned char* out, EncoderState& state)
{
    unsigned char group[3];
    const WipedBytes wiped(group, sizeof group);
    size_t filled = waitingIn(state);
    size_t written = 0;

    memcpy(group, state.pending, filled);
    for (size_t i = 0; i < inLen; ++i) {
        if (filled == 0) {
            const size_t taken = base64Kernel->encode[BASE64_STANDARD](
                in + i, inLen - i, reinterpret_cast<char*>(out + written));
            written += taken / 3 * 4;
            i += taken;
            if (i == inLen)
                break;
        }
        group[filled++] = in[i];
        if (filled == 3) {
            putGroup(group, out + written);
            written += 4;
            filled = 0;
        }
    }
    memcpy(state.pending, group, filled);
    state.pendingCount = static_cast<int32_t>(filled);
    advanceColumn(state, written);
    return written;
}

// Decodes whole groups of the 64 characters, as many as the kernel takes at once; returns the
// number of characters. Through a buffer, as a kernel may write what does not count, and
// `out` may have room for no more than what does.
constexpr size_t CHUNK = 2048;
using Decoded = unsigned char[CHUNK / 4 * 3];
size_t decodeGroups(const unsigned char* in, size_t inLen, Decoded& bytes, unsigned char* out)
{
    const size_t taken = base64Kernel->decode[BASE64_STANDARD](in, std::min(inLen, CHUNK), bytes);
    memcpy(out, bytes, taken / 4 * 3);
    return taken;
}

// decodeupdate without a limit on the length.
size_t decode(const unsigned char* in, size_t inLen, unsigned char* out, DecoderState& state)
{
    unsigned char group[4];
    const WipedBytes groupWiped(group, sizeof group);
    size_t filled = 0;
    size_t written = 0;
    Decoded bytesOfGroups;
    const WipedBytes wiped(bytesOfGroups, std::min(inLen, CHUNK) / 4 * 3);

    while (filled < 3 && filled < static_cast<size_t>(state.pendingCount)) {
        group[filled] = state.pending[filled];
        ++filled;
    }
    state.pendingCount = 0;

    for (size_t i = 0; i < inLen; ++i) {
        while (filled == 0) {
            const size_t taken = decodeGroups(in + i, inLen - i, bytesOfGroups, out + written);
            if (taken == 0)
                break;
            written += taken / 4 * 3;
            i += taken;
        }
        if (i == inLen)
            break;
        if (reverse.place[in[i]] == 0 && in[i] != 'A')
            continue;
        group[filled++] = in[i];
        if (filled < 4)
            continue;
        filled = 0;

        const unsigned char s0 = reverse.place[group[0]];
        const unsigned char s1 = reverse.place[group[1]];
        const unsigned char s2 = reverse.place[group[2]];
        const unsigned char s3 = reverse.place[group[3]];
        size_t bytes = 3;
        if (s0 == PADDING || s1 == PADDING || (s2 == PADDING && s3 != PADDING))
            return 0;
        if (s2 == PADDING)
            bytes = 1;
        else if (s3 == PADDING)
            bytes = 2;

        out[written++] = static_cast<unsigned char>((s0 << 2) + (s1 >> 4));
        if (bytes > 1)
            out[written++] = static_cast<unsigned char>((s1 << 4) + (s2 >> 2));
        if (bytes > 2)
            out[written++] = static_cast<unsigned char>((s2 << 6) + s3);
        else
            return written;  // padding ends the call
    }
    memcpy(state.pending, group, filled);
    state.pendingCount = static_cast<int32_t>(filled);
    return written;
}

// Copies a text with a line feed behind every 64th character and one more at its end.
void copyLines(const unsigned char* text, size_t len, char* out)
{
    constexpr size_t lineLength = 64;

    for (size_t i = 0; i < len; i += lineLength) {
        const size_t line = len - i < lineLength ? len - i : lineLength;
        memcpy(out, text + i, line);
        out += line;
        if (line == lineLength)
            *out++ = '\n';
    }
    *out = '\n';
}

EncoderState& encoder(unsigned char* state)
{
    return *reinterpret_cast<EncoderState*>(state);
}

DecoderState& decoder(unsigned char* state)
{
    return *reinterpret_cast<DecoderState*>(state);
}

size_t lengthOf(int len)
{
    return len > 0 ? static_cast<size_t>(len) : 0;
}

}  // namespace

void encodeini(unsigned char** state)
{
    *state = static_cast<unsigned char*>(malloc(sizeof(EncoderState)));
    if (*state == nullptr)
        return;
    memset(*state, 0, sizeof(EncoderState));
    encoder(*state).column = 1;
}

int encodeupdate(unsigned char* in, int inLen, unsigned char* out, unsigned char* state)
{
    if (state == nullptr || waitingIn(encoder(state)) + lengthOf(inLen) > MAX_ENCODED)
        return 0;
    return static_cast<int>(encode(in, lengthOf(inLen), out, encoder(state)));
}

int encodefinish(unsigned char* out, unsigned char* state)
{
    if (state == nullptr)
        return 0;
    EncoderState& s = encoder(state);
    if (s.pendingCount <= 0)
        return 0;

    unsigned char group[3] = {s.pending[0], 0, 0};
    const WipedBytes wiped(group, sizeof group);
    if (s.pendingCount > 1)
        group[1] = s.pending[1];
    putGroup(group, out);
    if (s.pendingCount == 1)
        out[2] = '=';
    out[3] = '=';
    memset(s.pending, 0, sizeof s.pending);  // the count stays as it was
    advanceColumn(s, 4);
    return 4;
}

int decodeini(unsigned char** state)
{
    *state = static_cast<unsigned char*>(malloc(sizeof(DecoderState)));
    if (*state == nullptr)
        return -1;
    memset(*state, 0, DECODER_STATE_USED);
    return 0;
}

int decodeupdate(unsigned char* in, int inLen, unsigned char* out, unsigned char* state)
{
    if (state == nullptr || in == nullptr)
        return 0;
    if (out == nullptr)
        return inLen;
    return static_cast<int>(decode(in, lengthOf(inLen), out, decoder(state)));
}

int decodefinish(unsigned char* out, unsigned char** state)
{
    if (state == nullptr || *state == nullptr)
        return 0;

    const Owned owned(*state, {sizeof(DecoderState)});
    *state = nullptr;
    const DecoderState& s = decoder(owned.get());
    if (s.pendingCount < 1 || s.pendingCount > 3)
        return 0;
    memcpy(out, s.pending, static_cast<size_t>(s.pendingCount));
    return s.pendingCount;
}

int CV_Base64Encode(const unsigned char* in, unsigned int inLen, char* out, unsigned int* outLen,
                    int lineBreak)
{
    const size_t expected = (size_t{inLen} + 2) / 3 * 4;
    size_t reported = expected;
    if (lineBreak == 1)
        reported += (expected > 0 ? (expected - 1) / 64 : 0) + 1;
    if (reported > UINT_MAX)
        return BASE64_NO_MEMORY;

    Owned work(static_cast<unsigned char*>(malloc((size_t{inLen} + 2) * 2)), {0});
    if (work == nullptr)
        return BASE64_NO_MEMORY;
    unsigned char* state = nullptr;
    encodeini(&state);
    const Owned owned(state, {sizeof(EncoderState)});
    if (state == nullptr)
        return BASE64_NO_MEMORY;

    size_t n = encode(in, inLen, work.get(), encoder(state));
    n += static_cast<size_t>(encodefinish(work.get() + n, state));
    work.get_deleter().size = n;
    *outLen = static_cast<unsigned int>(reported);
    if (out == nullptr)
        return 0;
    if (lineBreak == 1)
        copyLines(work.get(), n, out);
    else
        memcpy(out, work.get(), n);
    return 0;
}

int CV_Base64Decode(const char* in, unsigned int inLen, unsigned char* out, unsigned int* outLen)
{
    if (out == nullptr) {
        *outLen = inLen;
        return 0;
    }

    *outLen = 0;
    unsigned char* state = nullptr;
    if (decodeini(&state) != 0)
        return BASE64_NO_MEMORY;
    const size_t n = in == nullptr ? 0
                                   : decode(reinterpret_cast<const unsigned char*>(in), inLen, out,
                                            decoder(state));
    if (decodefinish(out + n, &state) != 0)
        return BASE64_INCOMPLETE;
    *outLen = static_cast<unsigned int>(n);
    return 0;
}
