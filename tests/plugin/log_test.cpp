// Log levels, what reaches syslog, and dumps of many lines.
#include "log.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Corvane_plugin.h"
#include "support/capture.h"
#include "support/dump_model.h"

namespace {

using doubles::Call;
using support::lineModel;
using support::someBytes;
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

// ---- Dumps to the log

using HexDump = Log;

// The lines of a dump as they are printed, without line feeds.
std::vector<std::string> rows(const std::string& bytes)
{
    std::vector<std::string> all;
    for (size_t at = 0; at < bytes.size(); at += 16) {
        char offset[20];
        snprintf(offset, sizeof offset, "0x%08x:  ", static_cast<unsigned>(at));
        all.push_back(offset + lineModel(bytes.substr(at, 16), 16, 1, 200, true));
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
