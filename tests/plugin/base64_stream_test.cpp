// The streaming Base64 codec: one-shot functions, pieces, the state's layout, and what
// it does with padding, foreign characters and too little memory.
#include "base64_stream.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "support/allocation_fault.h"
#include "support/base64_text.h"
#include "support/each_kernel.h"

namespace {

using support::AllocationFault;
using support::LONGER_THAN_ANY_VECTOR;
using support::toBase64;
using support::withEachKernel;

const std::string ALPHABET = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const unsigned char CANARY = 0xa5;

std::string randomBytes(std::mt19937& random, size_t size)
{
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

std::string randomCharacters(std::mt19937& random, size_t size)
{
    std::string text(size, '\0');
    for (char& character : text)
        character = ALPHABET[random() % ALPHABET.size()];
    return text;
}

// The length of a piece of a stream: short, so that groups are cut anywhere, or long enough for
// each kernel to begin in the middle of a call.
size_t pieceLength(std::mt19937& random)
{
    return random() % (random() % 2 == 0 ? 9 : LONGER_THAN_ANY_VECTOR);
}

// A copy of some bytes in a block of exactly their size, so that a sanitizer or valgrind
// sees any access behind it.
struct Exact {
    explicit Exact(const std::string& bytes)
        : size(bytes.size()), data(std::make_unique<unsigned char[]>(bytes.size()))
    {
        std::copy(bytes.begin(), bytes.end(), data.get());
    }
    Exact(size_t count, unsigned char filler)
        : size(count), data(std::make_unique<unsigned char[]>(count))
    {
        std::fill_n(data.get(), count, filler);
    }
    std::string text(size_t from, size_t count) const
    {
        return std::string(data.get() + from, data.get() + from + count);
    }
    char* chars() const { return reinterpret_cast<char*>(data.get()); }

    size_t size;
    std::unique_ptr<unsigned char[]> data;
};

// Bytes that end where readable memory ends, so that any build sees a read behind them.
class BeforeTheEdge {
public:
    explicit BeforeTheEdge(const std::string& bytes) : m_page(static_cast<size_t>(getpagesize()))
    {
        void* both =
            mmap(nullptr, 2 * m_page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (both == MAP_FAILED ||
            mprotect(static_cast<char*>(both) + m_page, m_page, PROT_NONE) != 0)
            abort();
        m_start = static_cast<unsigned char*>(both);
        m_data = m_start + m_page - bytes.size();
        std::copy(bytes.begin(), bytes.end(), m_data);
    }
    ~BeforeTheEdge() { munmap(m_start, 2 * m_page); }
    BeforeTheEdge(const BeforeTheEdge&) = delete;
    BeforeTheEdge& operator=(const BeforeTheEdge&) = delete;

    unsigned char* data() { return m_data; }

private:
    size_t m_page;
    unsigned char* m_start;
    unsigned char* m_data;
};

// Address space that takes no memory until it is touched; reads give zeros.
class Reserved {
public:
    explicit Reserved(size_t size, int access = PROT_READ | PROT_WRITE) : m_size(size)
    {
        void* start =
            mmap(nullptr, size, access, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        m_data = start == MAP_FAILED ? nullptr : static_cast<unsigned char*>(start);
    }
    ~Reserved()
    {
        if (m_data != nullptr)
            munmap(m_data, m_size);
    }
    Reserved(const Reserved&) = delete;
    Reserved& operator=(const Reserved&) = delete;

    unsigned char* data() { return m_data; }

private:
    size_t m_size;
    unsigned char* m_data;
};

int32_t int32At(const unsigned char* state, size_t offset)
{
    int32_t value;
    memcpy(&value, state + offset, sizeof value);
    return value;
}

// One encoder stream; the text is collected, and every output block ends where it must.
class Encoder {
public:
    Encoder() { encodeini(&state); }
    ~Encoder() { free(state); }
    Encoder(const Encoder&) = delete;
    Encoder& operator=(const Encoder&) = delete;

    int update(const std::string& bytes)
    {
        Exact in(bytes);
        size_t groups = (static_cast<size_t>(pending()) + bytes.size()) / 3;
        Exact out(before + groups * 4, CANARY);
        int n = encodeupdate(in.data.get(), static_cast<int>(bytes.size()), out.data.get() + before,
                             state);
        EXPECT_EQ(n, static_cast<int>(groups * 4));
        EXPECT_EQ(std::count(out.data.get(), out.data.get() + before, CANARY), before);
        text += out.text(before, groups * 4);
        return n;
    }
    int finish()
    {
        Exact out(4, CANARY);
        int n = encodefinish(out.data.get(), state);
        text += out.text(0, static_cast<size_t>(n));
        return n;
    }
    int32_t pending() const { return int32At(state, 0); }
    int32_t column() const { return int32At(state, 8); }

    static constexpr int before = 64;  // bytes in front of each output block, to be left alone

    unsigned char* state = nullptr;
    std::string text;
};

// Leaves a freed block behind that is not all zero; the next one of its size has its place.
void leaveUsedBlock(size_t size)
{
    auto* block = static_cast<volatile unsigned char*>(malloc(size));
    for (size_t i = 0; i < size; i++)
        block[i] = CANARY;
    free(const_cast<unsigned char*>(block));
}

TEST(EncodeState, IsClearedButForItsColumn)
{
    leaveUsedBlock(12);
    Encoder encoder;
    ASSERT_NE(encoder.state, nullptr);
    const unsigned char cleared[8] = {};
    EXPECT_EQ(memcmp(encoder.state, cleared, sizeof cleared), 0);
}

TEST(EncodeState, BeginsEmptyInColumnOne)
{
    Encoder encoder;
    ASSERT_NE(encoder.state, nullptr);
    EXPECT_EQ(encoder.pending(), 0);
    EXPECT_EQ(encoder.column(), 1);
}

TEST(EncodeState, HoldsPendingBytesBehindTheirCount)
{
    Encoder encoder;
    EXPECT_EQ(encoder.update("abcX"), 4);
    EXPECT_EQ(encoder.pending(), 1);
    EXPECT_EQ(encoder.state[4], 'X');
    EXPECT_EQ(encoder.update("YZ\xfe\xff"), 4);
    EXPECT_EQ(encoder.pending(), 2);
    EXPECT_EQ(encoder.state[4], 0xfe);
    EXPECT_EQ(encoder.state[5], 0xff);
    EXPECT_EQ(encoder.update("!"), 4);
    EXPECT_EQ(encoder.pending(), 0);
    EXPECT_EQ(encoder.finish(), 0);
    EXPECT_EQ(encoder.text, toBase64("abcXYZ\xfe\xff!"));
}

// The column runs over the characters that encodeupdate has written and starts again
// behind 76; no line break comes of it.
TEST(EncodeState, CountsColumnsUpTo76)
{
    Encoder encoder;
    int written = 0;
    for (int i = 0; i < 60; i++) {
        written += encoder.update("abc");
        ASSERT_EQ(encoder.column(), 1 + written % 76) << written;
    }
    written += encoder.update(std::string(300, 'x'));
    EXPECT_EQ(encoder.column(), 1 + written % 76);
    EXPECT_EQ(encoder.text.find('\n'), std::string::npos);
}

TEST(EncodeState, CountsTheLastGroupToo)
{
    for (const size_t groups : {0U, 1U, 18U, 19U, 20U}) {
        Encoder encoder;
        encoder.update(std::string(3 * groups + 1, 'x'));
        EXPECT_EQ(encoder.finish(), 4);
        EXPECT_EQ(encoder.column(), static_cast<int>(1 + 4 * (groups + 1) % 76)) << groups;
    }
}

TEST(EncodeState, LeavesTheColumnForPendingBytes)
{
    Encoder encoder;
    encoder.update("ab");
    EXPECT_EQ(encoder.column(), 1);
}

TEST(EncodeFinish, WritesNothingWithoutPendingBytes)
{
    Encoder encoder;
    encoder.update("abc");
    unsigned char out[4] = {CANARY, CANARY, CANARY, CANARY};
    EXPECT_EQ(encodefinish(out, encoder.state), 0);
    EXPECT_EQ(std::count(out, out + 4, CANARY), 4);
}

TEST(EncodeFinish, WritesNothingWithoutAState)
{
    unsigned char out[4] = {CANARY, CANARY, CANARY, CANARY};
    EXPECT_EQ(encodefinish(out, nullptr), 0);
    EXPECT_EQ(std::count(out, out + 4, CANARY), 4);
}

TEST(EncodeFinish, PadsTheLastGroup)
{
    Encoder one;
    one.update("f");
    EXPECT_EQ(one.finish(), 4);
    EXPECT_EQ(one.text, "Zg==");

    Encoder two;
    two.update("fo");
    EXPECT_EQ(two.finish(), 4);
    EXPECT_EQ(two.text, "Zm8=");
}

TEST(EncodeFinish, ClearsThePendingBytesButNotTheirCount)
{
    Encoder one;
    one.update("f");
    one.finish();
    EXPECT_EQ(one.pending(), 1);
    EXPECT_EQ(one.state[4], 0);
    one.text.clear();
    EXPECT_EQ(one.finish(), 4);
    EXPECT_EQ(one.text, "AA==");

    Encoder two;
    two.update("fo");
    two.finish();
    EXPECT_EQ(two.pending(), 2);
    EXPECT_EQ(two.state[4], 0);
    EXPECT_EQ(two.state[5], 0);
    two.text.clear();
    EXPECT_EQ(two.finish(), 4);
    EXPECT_EQ(two.text, "AAA=");
}

TEST(EncodeUpdate, AgreesWithOpenSslForAllSizes)
{
    std::mt19937 random(61);
    for (size_t size = 0; size <= 512; size++) {
        std::string bytes = randomBytes(random, size);
        Encoder encoder;
        encoder.update(bytes);
        encoder.finish();
        ASSERT_EQ(encoder.text, toBase64(bytes)) << "size " << size;
    }
}

TEST(EncodeUpdate, AgreesWithOpenSslForRandomPieces)
{
    withEachKernel([] {
        std::mt19937 random(62);
        for (int round = 0; round < 1000; round++) {
            std::string bytes = randomBytes(random, random() % (3 * LONGER_THAN_ANY_VECTOR));
            Encoder encoder;
            for (size_t at = 0; at < bytes.size();) {
                size_t piece = pieceLength(random);
                encoder.update(bytes.substr(at, piece));
                at += piece;
            }
            encoder.finish();
            ASSERT_EQ(encoder.text, toBase64(bytes)) << "round " << round;
        }
    });
}

// Where the kernel writes is not where the call's output begins.
TEST(EncodeUpdate, PutsPendingBytesBeforeWhatTheKernelTakes)
{
    withEachKernel([] {
        std::mt19937 random(69);
        for (size_t size = 0; size <= LONGER_THAN_ANY_VECTOR; size++) {
            for (size_t waiting : {1U, 2U}) {
                std::string bytes = randomBytes(random, waiting + size);
                Encoder encoder;
                encoder.update(bytes.substr(0, waiting));
                encoder.update(bytes.substr(waiting));
                encoder.finish();
                ASSERT_EQ(encoder.text, toBase64(bytes)) << waiting << " and " << size;
            }
        }
    });
}

TEST(EncodeUpdate, ReadsNothingBehindASingleByteAfterAPendingOne)
{
    Encoder encoder;
    encoder.update("f");
    BeforeTheEdge in("o");
    unsigned char out[8] = {};
    EXPECT_EQ(encodeupdate(in.data(), 1, out, encoder.state), 0);
    EXPECT_EQ(encoder.pending(), 2);
    EXPECT_EQ(encoder.finish(), 4);
    EXPECT_EQ(encoder.text, "Zm8=");
}

TEST(EncodeUpdate, ReadsNothingOfAnEmptyInput)
{
    for (const char* waiting : {"", "f", "fo"}) {
        Encoder encoder;
        encoder.update(waiting);
        BeforeTheEdge in("");
        unsigned char out[4] = {};
        EXPECT_EQ(encodeupdate(in.data(), 0, out, encoder.state), 0);
        EXPECT_EQ(encoder.pending(), static_cast<int>(strlen(waiting)));
        encoder.finish();
        EXPECT_EQ(encoder.text, toBase64(waiting));
    }
}

// The text of INT_MAX bytes has more characters than an int counts.
TEST(EncodeUpdate, TakesNothingOfAnInputThatItsResultCannotCount)
{
    Reserved in(INT_MAX);
    if (in.data() == nullptr)
        GTEST_SKIP() << "NOT TESTED: no address space for 2 GiB";
    Encoder encoder;
    encoder.update("f");
    unsigned char out[1] = {CANARY};
    EXPECT_EQ(encodeupdate(in.data(), INT_MAX, out, encoder.state), 0);
    EXPECT_EQ(out[0], CANARY);
    encoder.finish();
    EXPECT_EQ(encoder.text, "Zg==");
}

// What the codec gives before any constructor has run, the libraries' own among them. All of
// it is zero until then, so that no constructor writes over it.
constexpr std::string_view EARLY_BYTES =
    "Long enough for every kernel to have a part of it: at least one whole vector, and then "
    "a second one, and a third one, and a little bit more.";

struct {
    int encoded;
    int decoded;
    char text[256];
    unsigned textLength;
    unsigned char bytes[256];
    unsigned bytesLength;
} early;

void useTheCodecEarly(int, char**, char**)
{
    early.encoded = CV_Base64Encode(reinterpret_cast<const unsigned char*>(EARLY_BYTES.data()),
                                    static_cast<unsigned>(EARLY_BYTES.size()), early.text,
                                    &early.textLength, 0);
    early.decoded = CV_Base64Decode(early.text, early.textLength, early.bytes, &early.bytesLength);
}

// The loader calls what is listed here before it initialises the first library.
__attribute__((section(".preinit_array"), used)) void (*callEarly)(int, char**,
                                                                   char**) = useTheCodecEarly;

TEST(BeforeConstructors, TheCodecWorks)
{
    EXPECT_EQ(early.encoded, 0);
    EXPECT_EQ(std::string(early.text, early.textLength), toBase64(std::string(EARLY_BYTES)));
    EXPECT_EQ(early.decoded, 0);
    EXPECT_EQ(std::string(early.bytes, early.bytes + early.bytesLength), EARLY_BYTES);
}

// How a child ends that tries to encode an input of this length behind the waiting bytes. The
// input cannot be read, so that none of its gigabytes are touched.
constexpr int TAKEN = 3;
constexpr int REFUSED = 4;

[[noreturn]] void encodeUnreadable(const char* waiting, int length)
{
    Reserved in(INT_MAX, PROT_NONE);
    unsigned char out[8];
    Encoder encoder;
    encoder.update(waiting);
    signal(SIGSEGV, [](int) { _exit(TAKEN); });
    _exit(encodeupdate(in.data(), length, out, encoder.state) == 0 ? REFUSED : 0);
}

// An int counts 536,870,911 groups; the bytes of one more are too many. Those that wait count.
TEST(EncodeUpdateDeathTest, TakesAsManyBytesAsItsResultCanCount)
{
    if (Reserved(INT_MAX, PROT_NONE).data() == nullptr)
        GTEST_SKIP() << "NOT TESTED: no address space for 2 GiB";
    constexpr int most = 536870911 * 3 + 2;
    for (const char* waiting : {"", "f", "fo"}) {
        SCOPED_TRACE(waiting);
        const int room = most - static_cast<int>(strlen(waiting));
        for (int length : {1, room - 3, room - 1, room})
            EXPECT_EXIT(encodeUnreadable(waiting, length), testing::ExitedWithCode(TAKEN), "")
                << length;
        for (int length : {room + 1, room + 2, room + 3, INT_MAX})
            EXPECT_EXIT(encodeUnreadable(waiting, length), testing::ExitedWithCode(REFUSED), "")
                << length;
    }
}

// A state is the host's memory. One that was written over gives some text, and no access behind it.
TEST(EncodeUpdate, HasNeverMoreThanTwoBytesWaiting)
{
    for (int32_t count : {-1, INT_MIN, 3, 100, INT_MAX}) {
        Encoder encoder;
        memcpy(encoder.state, &count, sizeof count);
        Exact in("foobar");
        Exact out(8, CANARY);
        EXPECT_EQ(encodeupdate(in.data.get(), 6, out.data.get(), encoder.state), 8) << count;
        EXPECT_EQ(out.text(0, 8), count < 0 ? "Zm9vYmFy" : "AABmb29i") << count;
        EXPECT_EQ(encoder.pending(), count < 0 ? 0 : 2) << count;
    }
}

TEST(EncodeUpdate, TakesNothingWithoutAState)
{
    unsigned char in[] = "foobar";
    unsigned char out[8];
    std::fill_n(out, sizeof out, CANARY);
    EXPECT_EQ(encodeupdate(in, 6, out, nullptr), 0);
    EXPECT_EQ(std::count(out, out + sizeof out, CANARY), 8);
}

TEST(EncodeUpdate, TakesNothingOfANegativeLength)
{
    Encoder encoder;
    encoder.update("fo");
    BeforeTheEdge in("");
    unsigned char out[4] = {CANARY};
    EXPECT_EQ(encodeupdate(in.data(), -1, out, encoder.state), 0);
    EXPECT_EQ(encodeupdate(in.data(), INT_MIN, out, encoder.state), 0);
    EXPECT_EQ(out[0], CANARY);
    encoder.finish();
    EXPECT_EQ(encoder.text, "Zm8=");
}

// What the decoder has to do, one character at a time.
struct DecoderModel {
    bool skips(char c) const { return c != '=' && ALPHABET.find(c) == std::string::npos; }
    static unsigned sextet(char c) { return static_cast<unsigned>(ALPHABET.find(c)); }
    // What a call returns; `out` receives what it has written.
    int update(const std::string& text, std::string& out)
    {
        out.clear();
        std::string group = pending;
        pending.clear();
        for (char c : text) {
            if (skips(c))
                continue;
            group += c;
            if (group.size() < 4)
                continue;
            size_t padding = group.find('=');
            if (padding == std::string::npos) {
                append(group, 3, out);
            } else {
                if (padding < 2 || group.find_first_not_of('=', padding) != std::string::npos)
                    return 0;
                append(group, padding - 1, out);
                return static_cast<int>(out.size());
            }
            group.clear();
        }
        pending = group;
        return static_cast<int>(out.size());
    }
    static void append(const std::string& group, size_t count, std::string& out)
    {
        unsigned bits = 0;
        for (char c : group)
            bits = bits << 6 | (c == '=' ? 0 : sextet(c));
        for (size_t i = 0; i < count; i++)
            out += static_cast<char>(bits >> (16 - 8 * i));
    }

    std::string pending;
};

// One decoder stream beside its model; each update is compared with the model's.
class Decoder {
public:
    Decoder() { EXPECT_EQ(decodeini(&state), 0); }
    ~Decoder()
    {
        unsigned char rest[3];
        decodefinish(rest, &state);
    }
    Decoder(const Decoder&) = delete;
    Decoder& operator=(const Decoder&) = delete;

    int update(const std::string& text)
    {
        std::string written;
        int expected = model.update(text, written);
        Exact in(text);
        Exact out(written.size(), CANARY);
        int n = decodeupdate(in.data.get(), static_cast<int>(text.size()), out.data.get(), state);
        EXPECT_EQ(n, expected) << text;
        EXPECT_EQ(out.text(0, written.size()), written) << text;
        EXPECT_EQ(pending(), static_cast<int>(model.pending.size())) << text;
        EXPECT_EQ(std::string(state + 4, state + 4 + model.pending.size()), model.pending) << text;
        if (n > 0)
            bytes += out.text(0, static_cast<size_t>(n));
        return n;
    }
    int finish(std::string& rest)
    {
        Exact out(model.pending.size(), CANARY);
        int n = decodefinish(out.data.get(), &state);
        rest = out.text(0, out.size);
        EXPECT_EQ(state, nullptr);
        return n;
    }
    int32_t pending() const { return int32At(state, 0); }

    unsigned char* state = nullptr;
    DecoderModel model;
    std::string bytes;
};

TEST(DecodeState, BeginsZeroed)
{
    leaveUsedBlock(8);
    unsigned char* state = nullptr;
    ASSERT_EQ(decodeini(&state), 0);
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(std::count(state, state + 7, 0), 7);
    EXPECT_EQ(decodefinish(nullptr, &state), 0);
    EXPECT_EQ(state, nullptr);
}

TEST(DecodeState, HoldsRawPendingCharactersBehindTheirCount)
{
    Decoder decoder;
    EXPECT_EQ(decoder.update("Zm9vYg="), 3);
    EXPECT_EQ(decoder.pending(), 3);
    EXPECT_EQ(decoder.state[4], 'Y');
    EXPECT_EQ(decoder.state[5], 'g');
    EXPECT_EQ(decoder.state[6], '=');
}

TEST(DecodeFinish, HandsOutTheRawPendingCharacters)
{
    for (const char* text : {"", "Z", "Zm", "Zm9", "Zg=", "==="}) {
        Decoder decoder;
        std::string rest;
        decoder.update(text);
        EXPECT_EQ(decoder.finish(rest), static_cast<int>(strlen(text)));
        EXPECT_EQ(rest, text);
    }
}

TEST(DecodeFinish, TakesANullState)
{
    unsigned char* state = nullptr;
    unsigned char out[3] = {CANARY, CANARY, CANARY};
    EXPECT_EQ(decodefinish(out, &state), 0);
    EXPECT_EQ(state, nullptr);
    EXPECT_EQ(out[0], CANARY);
}

TEST(DecodeFinish, TakesANullPointerToTheState)
{
    unsigned char out[3] = {CANARY, CANARY, CANARY};
    EXPECT_EQ(decodefinish(out, nullptr), 0);
    EXPECT_EQ(std::count(out, out + 3, CANARY), 3);
}

// The host holds the state as bytes and may have written into it.
TEST(DecodeFinish, CopiesNothingForACountThatNoStateHas)
{
    for (const int32_t count : {4, 5, INT_MAX, 0, -1, INT_MIN}) {
        unsigned char* state = nullptr;
        ASSERT_EQ(decodeini(&state), 0);
        memcpy(state, &count, sizeof count);
        unsigned char out[8];
        std::fill_n(out, sizeof out, CANARY);
        EXPECT_EQ(decodefinish(out, &state), 0) << count;
        EXPECT_EQ(state, nullptr) << count;
        EXPECT_EQ(std::count(out, out + sizeof out, CANARY), 8) << count;
    }
}

TEST(DecodeUpdate, ReturnsZeroForANullStateOrInput)
{
    unsigned char in[] = "Zm9v";
    unsigned char out[3] = {CANARY, CANARY, CANARY};
    EXPECT_EQ(decodeupdate(in, 4, out, nullptr), 0);
    Decoder decoder;
    decoder.update("Zm");
    EXPECT_EQ(decodeupdate(nullptr, 4, out, decoder.state), 0);
    EXPECT_EQ(decoder.pending(), 2);
    EXPECT_EQ(std::count(out, out + 3, CANARY), 3);
}

TEST(DecodeUpdate, ReturnsTheLengthForANullOutput)
{
    unsigned char in[] = "Zm9vZm9";
    Decoder decoder;
    decoder.update("Zm");
    EXPECT_EQ(decodeupdate(in, 7, nullptr, decoder.state), 7);
    EXPECT_EQ(decodeupdate(in, 0, nullptr, decoder.state), 0);
    EXPECT_EQ(decoder.pending(), 2);
}

TEST(DecodeUpdate, SkipsALineFeed)
{
    Decoder decoder;
    EXPECT_EQ(decoder.update("Zm9v\nYmFy"), 6);
    EXPECT_EQ(decoder.bytes, "foobar");
}

TEST(DecodeUpdate, SkipsEachForeignByteAtEachPlace)
{
    const std::string text = "Zm9vAAAAYmE=";
    for (int byte = 0; byte < 256; byte++) {
        if (!DecoderModel().skips(static_cast<char>(byte)))
            continue;
        for (size_t place = 0; place < text.size(); place++) {
            std::string with = text;
            with.insert(place, 1, static_cast<char>(byte));
            Decoder decoder;
            ASSERT_EQ(decoder.update(with), 8) << byte << " at " << place;
            ASSERT_EQ(decoder.bytes, std::string("foo\0\0\0ba", 8));
        }
    }
}

TEST(DecodeUpdate, AgreesWithOpenSslForAllSizes)
{
    std::mt19937 random(63);
    for (size_t size = 0; size <= 512; size++) {
        std::string bytes = randomBytes(random, size);
        Decoder decoder;
        std::string rest;
        ASSERT_EQ(decoder.update(toBase64(bytes)), static_cast<int>(size));
        ASSERT_EQ(decoder.bytes, bytes);
        ASSERT_EQ(decoder.finish(rest), 0);
    }
}

struct PaddingRow {
    const char* text;
    int result;
    const char* written;  // stays in the output, whatever the result
};

const PaddingRow PADDING_ROWS[] = {
    {"Zm8=", 2, "fo"},       {"Zg==", 1, "f"},
    {"====", 0, ""},         {"A===", 0, ""},
    {"=AAA", 0, ""},         {"A=AA", 0, ""},
    {"AB=C", 0, ""},         {"A==A", 0, ""},
    {"A=A=", 0, ""},         {"=A==", 0, ""},
    {"==AA", 0, ""},         {"===A", 0, ""},
    {"=AA=", 0, ""},         {"=A=A", 0, ""},
    {"Zm9vA===", 0, "foo"},  {"Zm9vZm9vAB=C", 0, "foofoo"},
    {"Zm9vZg==", 4, "foof"}, {"Zg==Zm9v", 1, "f"},
    {"Zm8=Zm9v", 2, "fo"},   {"Zg==Z", 1, "f"},
    {"Z\ng =\t=\n", 1, "f"},
};

TEST(DecodeUpdate, EndsTheCallAtAPaddedGroup)
{
    for (const PaddingRow& row : PADDING_ROWS) {
        Decoder decoder;
        EXPECT_EQ(decoder.update(row.text), row.result) << row.text;
        EXPECT_EQ(decoder.pending(), 0) << row.text;

        unsigned char* state = nullptr;
        ASSERT_EQ(decodeini(&state), 0);
        Exact in(row.text);
        Exact out(32, CANARY);
        decodeupdate(in.data.get(), static_cast<int>(in.size), out.data.get(), state);
        size_t written = strlen(row.written);
        EXPECT_EQ(out.text(0, written), row.written) << row.text;
        EXPECT_EQ(out.data[written], CANARY) << row.text;
        unsigned char rest[3];
        EXPECT_EQ(decodefinish(rest, &state), 0) << row.text;
    }
}

TEST(DecodeUpdate, PutsPendingCharactersFirstInThePaddedGroup)
{
    Decoder decoder;
    EXPECT_EQ(decoder.update("Zg"), 0);
    EXPECT_EQ(decoder.update("="), 0);
    EXPECT_EQ(decoder.pending(), 3);
    EXPECT_EQ(decoder.update("=Zm9v"), 1);
    EXPECT_EQ(decoder.bytes, "f");
    EXPECT_EQ(decoder.pending(), 0);
    // The stream can go on; only the call had ended.
    EXPECT_EQ(decoder.update("Zm9v"), 3);
}

TEST(DecodeUpdate, KeepsPendingCharactersThroughEmptyPieces)
{
    Decoder decoder;
    decoder.update("Zm9");
    BeforeTheEdge in("");
    unsigned char out[3];
    EXPECT_EQ(decodeupdate(in.data(), 0, out, decoder.state), 0);
    EXPECT_EQ(decoder.pending(), 3);
    EXPECT_EQ(decoder.update("\n\n"), 0);
    EXPECT_EQ(decoder.pending(), 3);
    EXPECT_EQ(decoder.update("v"), 3);
    EXPECT_EQ(decoder.bytes, "foo");
}

TEST(DecodeUpdate, FollowsTheModelForRandomTextInRandomPieces)
{
    const std::string pool = ALPHABET + ALPHABET + "AAAA====\n\r -_.\x80\xff";
    withEachKernel([&] {
        std::mt19937 random(64);
        for (int round = 0; round < 5000; round++) {
            Decoder decoder;
            std::string rest;
            for (size_t pieces = random() % 6; pieces > 0; pieces--) {
                std::string text;
                for (size_t size = random() % 14; text.size() < size;)
                    text += random() % 60 == 0 ? '\0' : pool[random() % pool.size()];
                // Enough in a row for the kernel, at any place of the piece.
                if (random() % 8 == 0)
                    text.insert(random() % (text.size() + 1),
                                randomCharacters(random, random() % LONGER_THAN_ANY_VECTOR));
                decoder.update(text);
            }
            std::string expected = decoder.model.pending;
            ASSERT_EQ(decoder.finish(rest), static_cast<int>(expected.size()));
            ASSERT_EQ(rest, expected);
            ASSERT_FALSE(HasFailure()) << "round " << round;
        }
    });
}

TEST(DecodeUpdate, GivesTheSameBytesHoweverTheTextIsCut)
{
    withEachKernel([] {
        std::mt19937 random(65);
        for (int round = 0; round < 1000; round++) {
            std::string bytes = randomBytes(random, random() % (2 * LONGER_THAN_ANY_VECTOR));
            std::string text = toBase64(bytes);
            Decoder decoder;
            for (size_t at = 0; at < text.size();) {
                size_t piece = pieceLength(random);
                decoder.update(text.substr(at, piece));
                at += piece;
            }
            ASSERT_EQ(decoder.bytes, bytes);
            ASSERT_EQ(decoder.pending(), 0);
        }
    });
}

TEST(DecodeUpdate, TakesNothingOfANegativeLength)
{
    unsigned char* state = nullptr;
    ASSERT_EQ(decodeini(&state), 0);
    BeforeTheEdge in("");
    unsigned char out[3] = {CANARY};
    EXPECT_EQ(decodeupdate(in.data(), -1, out, state), 0);
    EXPECT_EQ(decodeupdate(in.data(), INT_MIN, out, state), 0);
    EXPECT_EQ(out[0], CANARY);
    EXPECT_EQ(decodefinish(out, &state), 0);
}

// The text with a line feed behind each 64th character and one more at the end.
std::string inLines(const std::string& text)
{
    std::string lines;
    for (size_t i = 0; i < text.size(); i++) {
        lines += text[i];
        if ((i + 1) % 64 == 0)
            lines += '\n';
    }
    return lines + '\n';
}

struct Encoded {
    int result;
    unsigned reported;
    std::string text;
};

// Encodes with an output block of exactly `room` bytes.
Encoded oneShot(const std::string& bytes, int lineBreak, size_t room)
{
    Exact in(bytes);
    Exact out(room, CANARY);
    unsigned reported = 12345;
    int result = CV_Base64Encode(in.data.get(), static_cast<unsigned>(in.size), out.chars(),
                                 &reported, lineBreak);
    return {result, reported, out.text(0, room)};
}

TEST(CvEncode, AgreesWithOpenSslForAllSizes)
{
    std::mt19937 random(66);
    for (size_t size = 0; size <= 512; size++) {
        std::string bytes = randomBytes(random, size);
        std::string text = toBase64(bytes);
        Encoded encoded = oneShot(bytes, 0, text.size());
        ASSERT_EQ(encoded.result, 0);
        ASSERT_EQ(encoded.reported, text.size());
        ASSERT_EQ(encoded.text, text) << "size " << size;
    }
}

TEST(CvEncode, BreaksLinesForAllSizes)
{
    std::mt19937 random(67);
    for (size_t size = 0; size <= 512; size++) {
        std::string bytes = randomBytes(random, size);
        std::string lines = inLines(toBase64(bytes));
        int n = static_cast<int>(toBase64(bytes).size());
        Encoded encoded = oneShot(bytes, 1, lines.size());
        ASSERT_EQ(encoded.result, 0);
        ASSERT_EQ(encoded.reported, static_cast<unsigned>(n + (n - 1) / 64 + 1));
        ASSERT_EQ(encoded.text, lines) << "size " << size;
    }
}

TEST(CvEncode, ReportsOneByteLessThanItWritesForFullLines)
{
    Encoded full = oneShot(std::string(48, 'x'), 1, 67);
    EXPECT_EQ(full.reported, 65U);
    EXPECT_EQ(full.text.substr(64), std::string("\n\n\xa5"));

    Encoded twoFull = oneShot(std::string(96, 'x'), 1, 132);
    EXPECT_EQ(twoFull.reported, 130U);
    EXPECT_EQ(twoFull.text.substr(129), std::string("\n\n\xa5"));
}

TEST(CvEncode, WritesASingleLineFeedForNoInput)
{
    Encoded encoded = oneShot("", 1, 2);
    EXPECT_EQ(encoded.result, 0);
    EXPECT_EQ(encoded.reported, 1U);
    EXPECT_EQ(encoded.text, "\n\xa5");
}

TEST(CvEncode, WritesNoTerminator)
{
    EXPECT_EQ(oneShot("foo", 0, 5).text, "Zm9v\xa5");
    EXPECT_EQ(oneShot("foo", 1, 6).text, "Zm9v\n\xa5");
    EXPECT_EQ(oneShot("", 0, 1).text, "\xa5");
}

TEST(CvEncode, BreaksLinesForTheValueOneAlone)
{
    std::string bytes(100, 'x');
    std::string text = toBase64(bytes);
    for (int lineBreak : {0, 2, 3, 64, 76, 257, -1, INT_MAX, INT_MIN}) {
        Encoded encoded = oneShot(bytes, lineBreak, text.size());
        EXPECT_EQ(encoded.reported, text.size()) << lineBreak;
        EXPECT_EQ(encoded.text, text) << lineBreak;
    }
}

TEST(CvEncode, ReportsTheSizeForANullOutput)
{
    for (unsigned size = 0; size <= 200; size++) {
        for (int lineBreak : {0, 1}) {
            Exact in(std::string(size, 'x'));
            unsigned reported = 12345;
            ASSERT_EQ(CV_Base64Encode(in.data.get(), size, nullptr, &reported, lineBreak), 0);
            ASSERT_EQ(reported, oneShot(std::string(size, 'x'), lineBreak, 512).reported);
        }
    }
}

// The input cannot be read, so that encoding gigabytes first would end the child at once.
TEST(CvEncodeDeathTest, RefusesATextThatItsLengthCannotCount)
{
    Reserved in(UINT_MAX, PROT_NONE);
    if (in.data() == nullptr)
        GTEST_SKIP() << "NOT TESTED: no address space for 4 GiB";
    for (unsigned size : {UINT_MAX, UINT_MAX - 1, 3221225473U}) {
        EXPECT_EXIT(
            {
                unsigned reported = 12345;
                int result = CV_Base64Encode(in.data(), size, nullptr, &reported, 0);
                _exit(result == BASE64_NO_MEMORY && reported == 12345 ? 0 : 1);
            },
            testing::ExitedWithCode(0), "")
            << size;
    }
}

struct DecodeRow {
    const char* text;
    int result;
    unsigned length;
    const char* bytes;  // in the output behind the call, terminator excluded
};

const DecodeRow DECODE_ROWS[] = {
    {"", 0, 0, ""},
    {"Zm9vYg==", 0, 4, "foob"},
    {"Zm9vYmE=", 0, 5, "fooba"},
    {"Zm9vYmFy", 0, 6, "foobar"},
    {"Zm9v\nYmFy\n", 0, 6, "foobar"},
    {"\n \t*-_.", 0, 0, ""},
    {"Zg==Zm9v", 0, 1, "f"},
    {"Zg==Z", 0, 1, "f"},
    {"A===", 0, 0, ""},
    {"====", 0, 0, ""},
    {"=AAA", 0, 0, ""},
    {"AB=C", 0, 0, ""},
    {"Zm9vA===", 0, 0, "foo"},
    {"Zm9vA===Z", 0, 0, "foo"},
    // A text that ends inside a group leaves its last characters behind the bytes.
    {"Z", -20002, 0, "Z"},
    {"Zm", -20002, 0, "Zm"},
    {"Zm9", -20002, 0, "Zm9"},
    {"Zg=", -20002, 0, "Zg="},
    {"Zm9vYg", -20002, 0, "fooYg"},
    {"Zm9vYg=", -20002, 0, "fooYg="},
    {"Zm9vYmFyY\n", -20002, 0, "foobarY"},
};

TEST(CvDecode, GivesTheCodesLengthsAndBytes)
{
    for (const DecodeRow& row : DECODE_ROWS) {
        Exact in(row.text);
        Exact out(in.size, CANARY);
        unsigned length = 12345;
        EXPECT_EQ(
            CV_Base64Decode(in.chars(), static_cast<unsigned>(in.size), out.data.get(), &length),
            row.result)
            << row.text;
        EXPECT_EQ(length, row.length) << row.text;
        std::string expected = row.bytes;
        expected.resize(out.size, static_cast<char>(CANARY));
        EXPECT_EQ(out.text(0, out.size), expected) << row.text;
    }
}

TEST(CvDecode, ReportsAnUpperBoundForANullOutput)
{
    for (const char* text : {"", "Z", "Zm9vYg==", "A===", "Zm9vYg"}) {
        unsigned length = 12345;
        EXPECT_EQ(CV_Base64Decode(text, static_cast<unsigned>(strlen(text)), nullptr, &length), 0);
        EXPECT_EQ(length, strlen(text));
    }
    unsigned length = 0;
    EXPECT_EQ(CV_Base64Decode("", UINT_MAX, nullptr, &length), 0);
    EXPECT_EQ(length, UINT_MAX);
}

TEST(CvDecode, TakesANullInputAsEmpty)
{
    unsigned char out[1] = {CANARY};
    unsigned length = 12345;
    EXPECT_EQ(CV_Base64Decode(nullptr, 4, out, &length), 0);
    EXPECT_EQ(length, 0U);
    EXPECT_EQ(out[0], CANARY);
}

TEST(CvDecode, ReturnsWhatCvEncodeGave)
{
    std::mt19937 random(68);
    for (size_t size = 0; size <= 512; size++) {
        std::string bytes = randomBytes(random, size);
        for (int lineBreak : {0, 1}) {
            Exact text(lineBreak == 1 ? inLines(toBase64(bytes)) : toBase64(bytes));
            Exact out(size, CANARY);
            unsigned length = 12345;
            ASSERT_EQ(CV_Base64Decode(text.chars(), static_cast<unsigned>(text.size),
                                      out.data.get(), &length),
                      0);
            ASSERT_EQ(length, size);
            ASSERT_EQ(out.text(0, size), bytes);
        }
    }
}

// Beyond 2 GiB the text is either decoded or refused; its first group ends it early.
TEST(CvDecode, SurvivesATextOfMoreThanTwoGigabytes)
{
    Reserved text(0x80000010U);
    if (text.data() == nullptr)
        GTEST_SKIP() << "NOT TESTED: no address space for 2 GiB";
    memcpy(text.data(), "Zm9vYg==", 8);
    Exact out(4, CANARY);
    unsigned length = 12345;
    int result = CV_Base64Decode(reinterpret_cast<const char*>(text.data()), 0x80000010U,
                                 out.data.get(), &length);
    if (result == 0) {
        EXPECT_EQ(length, 4U);
        EXPECT_EQ(out.text(0, 4), "foob");
    } else {
        EXPECT_EQ(length, 0U);
    }
}

// The journal of doubles that these tests do not have.
const doubles::Journal NO_DOUBLES;

TEST(Base64Memory, EncodeiniGivesNullWithoutMemory)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    unsigned char byte = 0;
    unsigned char* state = &byte;
    AllocationFault fault = AllocationFault::exactly(NO_DOUBLES, 12);
    encodeini(&state);
    EXPECT_TRUE(fault.struck());
    EXPECT_EQ(state, nullptr);
}

TEST(Base64Memory, DecodeiniReportsMissingMemory)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    unsigned char* state = nullptr;
    AllocationFault fault = AllocationFault::exactly(NO_DOUBLES, 8);
    EXPECT_EQ(decodeini(&state), -1);
    EXPECT_TRUE(fault.struck());
    EXPECT_EQ(state, nullptr);
}

// The work buffer has twice the input's size and four bytes; it is the first allocation.
TEST(Base64Memory, CvEncodeReportsAMissingWorkBuffer)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    std::string bytes(1000, 'x');
    for (bool bySize : {false, true}) {
        unsigned length = 12345;
        char out[2000] = {'?'};
        AllocationFault fault = bySize ? AllocationFault::exactly(NO_DOUBLES, 2004)
                                       : AllocationFault::nth(NO_DOUBLES, 1);
        int result = CV_Base64Encode(reinterpret_cast<const unsigned char*>(bytes.data()), 1000,
                                     out, &length, 0);
        EXPECT_TRUE(fault.struck()) << bySize;
        EXPECT_EQ(result, -20000) << bySize;
        EXPECT_EQ(length, 12345U) << bySize;
        EXPECT_EQ(out[0], '?') << bySize;
    }
}

TEST(Base64Memory, CvEncodeReportsAMissingState)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    unsigned length = 12345;
    char out[8] = {'?'};
    AllocationFault fault = AllocationFault::exactly(NO_DOUBLES, 12);
    int result = CV_Base64Encode(reinterpret_cast<const unsigned char*>("foo"), 3, out, &length, 0);
    EXPECT_TRUE(fault.struck());
    EXPECT_EQ(result, -20000);
    EXPECT_EQ(length, 12345U);
    EXPECT_EQ(out[0], '?');
}

TEST(Base64Memory, CvDecodeReportsAMissingState)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    unsigned length = 12345;
    unsigned char out[4] = {CANARY};
    AllocationFault fault = AllocationFault::nth(NO_DOUBLES, 1);
    EXPECT_EQ(CV_Base64Decode("Zm9v", 4, out, &length), -20000);
    EXPECT_TRUE(fault.struck());
    EXPECT_EQ(length, 0U);
    EXPECT_EQ(out[0], CANARY);
}

}  // namespace
