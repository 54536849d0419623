// The streaming Base64 codec's functions for whole texts, and all of it without memory.
#include "base64_stream.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <random>
#include <string>

#include "support/allocation_fault.h"
#include "support/base64_text.h"
#include "support/stream_bytes.h"

namespace {

using support::AllocationFault;
using support::CANARY;
using support::ExactBlock;
using support::randomBytes;
using support::Reserved;
using support::toBase64;

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
    ExactBlock in(bytes);
    ExactBlock out(room, CANARY);
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
            ExactBlock in(std::string(size, 'x'));
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
        ExactBlock in(row.text);
        ExactBlock out(in.size, CANARY);
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
            ExactBlock text(lineBreak == 1 ? inLines(toBase64(bytes)) : toBase64(bytes));
            ExactBlock out(size, CANARY);
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
    ExactBlock out(4, CANARY);
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
