// One line of a hex dump, in all its forms and in any room.
#include "log.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <memory>
#include <string>

#include "support/dump_model.h"

namespace {

using support::lineModel;
using support::someBytes;

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
                                  lineModel(bytes, rowsize, groupsize, room, ascii))
                            << size << " bytes, row " << rowsize << ", group " << groupsize
                            << ", room " << room << ", ascii " << ascii;
                    }
                }
            }
        }
    }
}

}  // namespace
