// Log levels, what reaches syslog, and hex dumps.
#include "log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Corvane_plugin.h"
#include "support/capture.h"

namespace {

using doubles::Call;
using support::StdoutCapture;
using support::SystemCapture;

// Read before any test runs.
const int INITIAL_LEVEL = _log_level;

class Log : public testing::Test {
protected:
    void TearDown() override { log_set_level(4); }

    doubles::Journal journal;
    SystemCapture capture{journal};
};

// ---- Levels

using LogLevel = Log;

TEST_F(LogLevel, IsFourAtFirst)
{
    EXPECT_EQ(INITIAL_LEVEL, 4);
}

TEST_F(LogLevel, KeepsAnyValue)
{
    for (int level : {0, 5, 6, -1, INT_MAX, INT_MIN, 4}) {
        log_set_level(level);
        EXPECT_EQ(_log_level, level);
    }
}

TEST_F(LogLevel, HasSixNames)
{
    const struct {
        const char* name;
        int level;
    } rows[] = {
        {"crit", 0},   {"err", 1},    {"warning", 2}, {"notice", 3}, {"info", 4},     {"debug", 5},
        {"CRIT", 0},   {"Err", 1},    {"wArNiNg", 2}, {"NOTICE", 3}, {"Info", 4},     {"DEBUG", 5},
        {"", 4},       {"trace", 4},  {"error", 4},   {"warn", 4},   {"critical", 4}, {"cri", 4},
        {"debug ", 4}, {" debug", 4}, {"0", 4},       {"emerg", 4},  {nullptr, 4},
    };
    log_set_level(2);
    for (const auto& row : rows)
        EXPECT_EQ(log_get_level(row.name), row.level) << (row.name ? row.name : "null");
    EXPECT_EQ(_log_level, 2);
}

// ---- Opening and closing

using LogOpen = Log;

TEST_F(LogOpen, PassesOptionsAndFacility)
{
    const char ident[] = "x";
    log_open(ident, false);
    log_open(ident, true);
    log_open(nullptr, false);
    ASSERT_EQ(journal.calls.size(), 3U);
    const int options[] = {3, 35, 3};
    for (size_t i = 0; i < 3; i++) {
        const Call& call = journal.calls[i];
        EXPECT_EQ(call.function, "openlog");
        EXPECT_EQ(call["options"].number, options[i]);
        EXPECT_EQ(call["facility"].number, 8);
        EXPECT_EQ(call["ident"].null, i == 2);
        EXPECT_EQ(call["ident"].bytes, i == 2 ? "" : "x");
    }
}

TEST_F(LogOpen, ClosesTheLog)
{
    log_close();
    ASSERT_EQ(journal.calls.size(), 1U);
    EXPECT_EQ(journal.calls[0].function, "closelog");
}

TEST_F(LogOpen, LeavesTheLevelAlone)
{
    log_set_level(2);
    log_open("x", true);
    log_close();
    EXPECT_EQ(_log_level, 2);
}

// ---- One line of a hex dump

// The line as its definition reads, for a buffer of that size.
std::string model(const std::string& bytes, int rowsize, int groupsize, size_t room, bool ascii)
{
    const size_t row = rowsize == 32 ? 32 : 16;
    const std::string shown = bytes.substr(0, row);
    size_t group = groupsize == 8 || groupsize == 4 || groupsize == 2 ? size_t(groupsize) : 1;
    if (shown.size() % group != 0)
        group = 1;

    std::string line;
    size_t column;
    if (room == 0 || bytes.empty())
        return line;
    if (group == 1) {
        for (char byte : shown) {
            if (line.size() + 3 > room)
                break;
            char digits[4];
            snprintf(digits, sizeof digits, "%02x ", static_cast<unsigned>(byte) & 0xff);
            line += digits;
        }
        if (!line.empty())
            line.pop_back();
        column = 3 * row + 2;
    } else {
        for (size_t at = 0; at < shown.size(); at += group) {
            std::string native = shown.substr(at, group);
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
            std::reverse(native.begin(), native.end());
#endif
            if (at > 0)
                line += ' ';
            for (char byte : native) {
                char digits[3];
                snprintf(digits, sizeof digits, "%02x", static_cast<unsigned>(byte) & 0xff);
                line += digits;
            }
        }
        column = (2 * group + 1) * (shown.size() / group) + 2;
        line = line.substr(0, room - 1);
    }
    if (ascii) {
        while (line.size() < std::min(column - 1, room - 1))
            line += ' ';
        for (size_t i = 0; i < shown.size() && line.size() + 2 < room; i++)
            line += shown[i] >= 0x20 && shown[i] <= 0x7e ? shown[i] : '.';
    }
    return line;
}

// Formats a block of exactly its bytes into one of exactly `room` bytes. Where no
// sanitizer watches, canaries stand behind the room.
std::string line(const std::string& bytes, int rowsize, int groupsize, size_t room, bool ascii)
{
#if defined(__SANITIZE_ADDRESS__)
    const size_t canaries = 0;
#else
    const size_t canaries = 64;
#endif
    // One byte in front puts the groups at odd addresses.
    auto in = std::make_unique<char[]>(bytes.size() + 1);
    auto out = std::make_unique<char[]>(room + canaries);
    memcpy(in.get() + 1, bytes.data(), bytes.size());
    memset(out.get(), '#', room + canaries);
    hex_dump_to_buffer(in.get() + 1, bytes.size(), rowsize, groupsize, out.get(), room, ascii);
    EXPECT_EQ(std::string(out.get() + room, canaries), std::string(canaries, '#'));
    if (room == 0)
        return "";
    EXPECT_NE(memchr(out.get(), 0, room), nullptr) << "the line is not terminated";
    return std::string(out.get(), strnlen(out.get(), room));
}

std::string someBytes(size_t size)
{
    std::mt19937 random(static_cast<unsigned>(size));
    std::string bytes;
    while (bytes.size() < size)
        bytes += static_cast<char>(random() % 3 == 0 ? random() : 0x20 + random() % 0x5f);
    return bytes;
}

TEST(HexLine, ShowsDigitsAndTextInColumn50)
{
    EXPECT_EQ(line(std::string("\x41\0\xff", 3), 16, 1, 200, true),
              "41 00 ff" + std::string(41, ' ') + "A..");
    EXPECT_EQ(line("0123456789abcdef", 16, 1, 200, true),
              "30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  0123456789abcdef");
    EXPECT_EQ(line("0123456789abcdef", 16, 1, 200, false),
              "30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66");
}

TEST(HexLine, ShowsTextBehind32Bytes)
{
    std::string text = line("0123456789abcdef0123456789ABCDEF", 32, 1, 200, true);
    EXPECT_EQ(text.size(), 97U + 32U);
    EXPECT_EQ(text.substr(93), "46  0123456789abcdef0123456789ABCDEF");
    EXPECT_EQ(line("a", 32, 1, 200, true), "61" + std::string(95, ' ') + "a");
}

#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
TEST(HexLine, ShowsGroupsAsNumbers)
{
    EXPECT_EQ(line("\x01\x02\x03\x04", 16, 4, 200, false), "04030201");
    EXPECT_EQ(line("\x01\x02\x03\x04", 16, 2, 200, false), "0201 0403");
    EXPECT_EQ(line("\x01\x02\x03\x04\x05\x06\x07\x08", 16, 8, 200, false), "0807060504030201");
    EXPECT_EQ(line("\xff\xfe\xfd\xfc\xfb\xfa\xf9\xf8", 16, 4, 200, false), "fcfdfeff f8f9fafb");
    EXPECT_EQ(line("ABCDEFGH", 16, 8, 200, true), "4847464544434241  ABCDEFGH");
    EXPECT_EQ(line("ABCDEFGH", 16, 4, 200, true), "44434241 48474645  ABCDEFGH");
    EXPECT_EQ(line("ABCDEFGH", 16, 2, 200, true), "4241 4443 4645 4847  ABCDEFGH");
}
#endif

TEST(HexLine, IsEmptyForNoBytes)
{
    for (int groupsize : {1, 2, 4, 8, 0, -1}) {
        EXPECT_EQ(line("", 16, groupsize, 200, true), "");
        EXPECT_EQ(line("", 16, groupsize, 1, true), "");
        EXPECT_EQ(line("", 16, groupsize, 0, true), "");
    }
    char out[2] = {'#', '#'};
    hex_dump_to_buffer(nullptr, 0, 16, 1, out, 2, true);
    EXPECT_EQ(out[0], '\0');
    EXPECT_EQ(out[1], '#');
}

TEST(HexLine, HasRowsOf16UnlessAskedFor32)
{
    const std::string bytes = someBytes(40);
    for (int rowsize : {20, 0, -1, 15, 17, 31, 33, 64, INT_MAX, INT_MIN})
        EXPECT_EQ(line(bytes, rowsize, 1, 200, true), line(bytes, 16, 1, 200, true)) << rowsize;
    EXPECT_EQ(line(bytes, 16, 1, 200, false).size(), 47U);
    EXPECT_EQ(line(bytes, 32, 1, 200, false).size(), 95U);
}

TEST(HexLine, FallsBackToSingleBytes)
{
    const std::string bytes = someBytes(6);
    const std::string single = line(bytes, 16, 1, 200, true);
    for (int groupsize : {4, 8, 3, 5, 6, 7, 9, 16, 0, -1, -2, -4, -8, INT_MAX, INT_MIN})
        EXPECT_EQ(line(bytes, 16, groupsize, 200, true), single) << groupsize;
    EXPECT_NE(line(bytes, 16, 2, 200, true), single);
}

// The length counts after its limitation to the row: of 17 bytes 16 are shown.
TEST(HexLine, GroupsTheBytesOfTheRow)
{
    const std::string bytes = someBytes(17);
    for (int groupsize : {2, 4, 8})
        EXPECT_EQ(line(bytes, 16, groupsize, 200, true),
                  line(bytes.substr(0, 16), 16, groupsize, 200, true));
}

TEST(HexLine, ShowsPrintableAsciiAlone)
{
    for (int byte = 0; byte < 256; byte++) {
        std::string text = line(std::string(1, static_cast<char>(byte)), 16, 1, 200, true);
        char expected = byte >= 0x20 && byte < 0x7f ? static_cast<char>(byte) : '.';
        ASSERT_EQ(text.size(), 50U);
        EXPECT_EQ(text[49], expected) << byte;
    }
}

TEST(HexLine, StaysWithinTheRoom)
{
    EXPECT_EQ(line("ABC", 16, 1, 0, true), "");
    EXPECT_EQ(line("ABC", 16, 1, 1, true), "");
    EXPECT_EQ(line("ABC", 16, 1, 2, true), " ");
    EXPECT_EQ(line("ABC", 16, 1, 2, false), "");
    EXPECT_EQ(line("ABC", 16, 1, 3, false), "41");
    EXPECT_EQ(line("ABC", 16, 1, 5, false), "41");
    EXPECT_EQ(line("ABC", 16, 1, 6, false), "41 42");
    EXPECT_EQ(line("ABC", 16, 1, 8, false), "41 42");
    EXPECT_EQ(line("ABC", 16, 1, 9, false), "41 42 43");
    EXPECT_EQ(line("ABC", 16, 1, 51, true), "41 42 43" + std::string(41, ' '));
    EXPECT_EQ(line("ABC", 16, 1, 52, true), "41 42 43" + std::string(41, ' ') + "A");
    EXPECT_EQ(line("ABC", 16, 1, 53, true), "41 42 43" + std::string(41, ' ') + "AB");
    EXPECT_EQ(line("AAAA", 16, 4, 1, false), "");
    EXPECT_EQ(line("AAAA", 16, 4, 5, false), "4141");
    EXPECT_EQ(line("AAAA", 16, 4, 8, true), "4141414");
    EXPECT_EQ(line("AAAA", 16, 4, 9, true), "41414141");
    EXPECT_EQ(line("AAAAAAAA", 16, 4, 9, true), "41414141");
    EXPECT_EQ(line("AAAAAAAA", 16, 4, 10, true), "41414141 ");
    EXPECT_EQ(line("AAAAAAAA", 16, 2, 7, true), "4141 4");
}

TEST(HexLine, FollowsTheModelForAllShapesAndRooms)
{
    for (size_t size : {0U, 1U, 2U, 3U, 4U, 6U, 8U, 15U, 16U, 17U, 24U, 31U, 32U, 33U}) {
        const std::string bytes = someBytes(size);
        for (int rowsize : {16, 32, 20}) {
            for (int groupsize : {1, 2, 4, 8, 3, 16, 0, -4}) {
                for (size_t room = 0; room <= 135; room++) {
                    for (bool ascii : {false, true}) {
                        ASSERT_EQ(line(bytes, rowsize, groupsize, room, ascii),
                                  model(bytes, rowsize, groupsize, room, ascii))
                            << size << " bytes, row " << rowsize << ", group " << groupsize
                            << ", room " << room << ", ascii " << ascii;
                    }
                }
            }
        }
    }
}

// ---- Dumps to the log

using HexDump = Log;

// The lines of a dump as they are printed, without line feeds.
std::vector<std::string> rows(const std::string& bytes)
{
    std::vector<std::string> all;
    for (size_t at = 0; at < bytes.size(); at += 16) {
        char offset[20];
        snprintf(offset, sizeof offset, "0x%08x:  ", static_cast<unsigned>(at));
        all.push_back(offset + model(bytes.substr(at, 16), 16, 1, 200, true));
    }
    return all;
}

std::string printed(const std::vector<std::string>& rows)
{
    std::string text;
    for (const std::string& row : rows)
        text += row + "\n";
    return text;
}

TEST_F(HexDump, SendsALineForEach16Bytes)
{
    const std::string bytes = "0123456789abcdefABCD";
    print_hex_dump(4, bytes.data(), bytes.size());
    ASSERT_EQ(journal.calls.size(), 2U);
    const char* texts[] = {
        "0x00000000:  30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  0123456789abcdef",
        "0x00000010:  41 42 43 44                                      ABCD",
    };
    for (size_t i = 0; i < 2; i++) {
        const Call& call = journal.calls[i];
        EXPECT_EQ(call.function, "syslog");
        EXPECT_EQ(call["priority"].number, 142);
        EXPECT_EQ(call["format"].bytes, "[%s - %s:%u] 0x%08x:  %s");
        EXPECT_EQ(call["function"].bytes, "print_hex_dump");
        EXPECT_EQ(call["file"].bytes, "./src/log.cpp");
        EXPECT_GT(call["line"].number, 0);
        EXPECT_EQ(call["text"].bytes, "[print_hex_dump - ./src/log.cpp:" +
                                          std::to_string(call["line"].number) + "] " + texts[i]);
    }
}

TEST_F(HexDump, FollowsTheGateAtEachLevel)
{
    const int priorities[] = {170, 163, 156, 149, 142, 135};
    StdoutCapture output;
    for (int threshold : {INT_MIN, -2, -1, 0, 1, 2, 3, 4, 5, 6, INT_MAX}) {
        log_set_level(threshold);
        for (int level = 0; level <= 5; level++) {
            journal.calls.clear();
            print_hex_dump(level, "A", 1);
            ASSERT_EQ(journal.calls.size(), threshold >= level ? 1U : 0U)
                << "level " << level << " at " << threshold;
            if (threshold < level)
                continue;
            const Call& call = journal.calls[0];
            EXPECT_EQ(call["priority"].number, priorities[level]);
            EXPECT_EQ(call["format"].bytes, "[%s - %s:%u] 0x%08x:  %s");
            EXPECT_EQ(call["function"].bytes, "print_hex_dump");
            EXPECT_EQ(call["file"].bytes, "./src/log.cpp");
        }
    }
    EXPECT_EQ(output.text(), "");
}

TEST_F(HexDump, ShowsAllBytesOfALongBuffer)
{
    for (size_t size : {1U, 15U, 16U, 17U, 32U, 1000U}) {
        const std::string bytes = someBytes(size);
        auto exact = std::make_unique<char[]>(size);
        memcpy(exact.get(), bytes.data(), size);
        journal.calls.clear();
        print_hex_dump(0, exact.get(), size);
        const std::vector<std::string> expected = rows(bytes);
        ASSERT_EQ(journal.calls.size(), expected.size());
        for (size_t i = 0; i < expected.size(); i++) {
            const std::string& text = journal.calls[i]["text"].bytes;
            EXPECT_EQ(text.substr(text.find("] ") + 2), expected[i]);
        }
    }
}

TEST_F(HexDump, PrintsOtherLevelsAboveInfoAlone)
{
    const std::string bytes = someBytes(35);
    for (int level : {-1, 6, 7, 142, INT_MAX, INT_MIN}) {
        for (int threshold : {INT_MIN, -1, 0, 3, 4, 5, 6, INT_MAX}) {
            log_set_level(threshold);
            StdoutCapture output;
            print_hex_dump(level, bytes.data(), bytes.size());
            EXPECT_EQ(output.text(), threshold > 4 ? printed(rows(bytes)) : "")
                << level << " at " << threshold;
        }
    }
    EXPECT_TRUE(journal.calls.empty());
}

TEST_F(HexDump, DoesNothingWithoutBytes)
{
    StdoutCapture output;
    log_set_level(5);
    for (int level : {-1, 0, 4, 5, 6}) {
        print_hex_dump(level, nullptr, 16);
        print_hex_dump(level, nullptr, 0);
        print_hex_dump(level, "A", 0);
    }
    EXPECT_EQ(output.text(), "");
    EXPECT_TRUE(journal.calls.empty());
}

// ---- Dumps to standard output

using HexBuf = Log;

TEST_F(HexBuf, PrintsTheCaptionTheRowsAndEmptyLines)
{
    log_set_level(5);
    StdoutCapture output;
    print_hex_buf("key", "0123456789abcdefABCD", 20);
    EXPECT_EQ(output.text(),
              "\n"
              "inner--->  key size: 20 \n"
              "0x00000000:  30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  0123456789abcdef\n"
              "0x00000010:  41 42 43 44                                      ABCD\n"
              "\n");
    EXPECT_TRUE(journal.calls.empty());
}

TEST_F(HexBuf, PrintsAllRowsOfALongBuffer)
{
    log_set_level(INT_MAX);
    for (size_t size : {1U, 15U, 16U, 17U, 32U, 1000U}) {
        const std::string bytes = someBytes(size);
        StdoutCapture output;
        print_hex_buf("", bytes.data(), size);
        EXPECT_EQ(output.text(), "\ninner--->   size: " + std::to_string(size) + " \n" +
                                     printed(rows(bytes)) + "\n");
    }
}

TEST_F(HexBuf, TakesACaptionWithPercentSigns)
{
    log_set_level(5);
    StdoutCapture output;
    print_hex_buf("%s %n", "%s", 2);
    EXPECT_EQ(output.text(), "\ninner--->  %s %n size: 2 \n" + printed(rows("%s")) + "\n");
}

TEST_F(HexBuf, PrintsNothingUpToInfo)
{
    StdoutCapture output;
    for (int threshold : {INT_MIN, -1, 0, 3, 4}) {
        log_set_level(threshold);
        print_hex_buf("key", "A", 1);
    }
    EXPECT_EQ(output.text(), "");
}

TEST_F(HexBuf, PrintsNothingWithoutBytes)
{
    StdoutCapture output;
    log_set_level(5);
    print_hex_buf("key", nullptr, 16);
    print_hex_buf("key", "A", 0);
    EXPECT_EQ(output.text(), "");
}

// ---- The entry point's messages

TEST_F(Log, RequestsNameTheirFunctionAndFile)
{
    Corvane_plugin_Request(nullptr, 0);
    ASSERT_EQ(journal.calls.size(), 2U);
    const char* texts[] = {"plugin operate start\n", "plugin operate end\n"};
    for (size_t i = 0; i < 2; i++) {
        const Call& call = journal.calls[i];
        EXPECT_EQ(call["priority"].number, 142);
        EXPECT_EQ(call["format"].bytes, std::string("[%s - %s:%u] ") + texts[i]);
        EXPECT_EQ(call["function"].bytes, "Corvane_plugin_Request");
        EXPECT_EQ(call["file"].bytes, "./src/Corvane_plugin.cpp");
    }
    EXPECT_LT(journal.calls[0]["line"].number, journal.calls[1]["line"].number);
}

TEST_F(Log, RequestsAreSilentBelowInfo)
{
    for (int threshold : {3, 0, -1, INT_MIN}) {
        log_set_level(threshold);
        Corvane_plugin_Request(nullptr, 0);
    }
    EXPECT_TRUE(journal.calls.empty());
}

}  // namespace
