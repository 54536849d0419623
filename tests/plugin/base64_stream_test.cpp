// The streaming Base64 codec: encoding in pieces, its state's layout, and the codec's use before
// any constructor has run.
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
#include <random>
#include <string>
#include <string_view>

#include "support/base64_text.h"
#include "support/each_kernel.h"
#include "support/stream_bytes.h"

namespace {

using support::BeforeTheEdge;
using support::CANARY;
using support::ExactBlock;
using support::int32At;
using support::leaveUsedBlock;
using support::LONGER_THAN_ANY_VECTOR;
using support::pieceLength;
using support::randomBytes;
using support::Reserved;
using support::toBase64;
using support::withEachKernel;

// One encoder stream; the text is collected, and every output block ends where it must.
class Encoder {
public:
    Encoder() { encodeini(&state); }
    ~Encoder() { free(state); }
    Encoder(const Encoder&) = delete;
    Encoder& operator=(const Encoder&) = delete;

    int update(const std::string& bytes)
    {
        ExactBlock in(bytes);
        size_t groups = (static_cast<size_t>(pending()) + bytes.size()) / 3;
        ExactBlock out(before + groups * 4, CANARY);
        int n = encodeupdate(in.data.get(), static_cast<int>(bytes.size()), out.data.get() + before,
                             state);
        EXPECT_EQ(n, static_cast<int>(groups * 4));
        EXPECT_EQ(std::count(out.data.get(), out.data.get() + before, CANARY), before);
        text += out.text(before, groups * 4);
        return n;
    }
    int finish()
    {
        ExactBlock out(4, CANARY);
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
        ExactBlock in("foobar");
        ExactBlock out(8, CANARY);
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

}  // namespace
