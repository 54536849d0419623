// What must come out alike on x86-64 and on 64-bit ARM, where plain char is unsigned. The
// program is linked to the plug-in's objects as they ship; its twin, to objects that are
// compiled with the other signedness of char.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "WebServerBase.h"
#include "base64.h"
#include "base64_stream.h"
#include "engine_interface.h"
#include "log.h"
#include "params_interface.h"

namespace {

// ---- Widths, and where the fields of the engine's blocks lie.

static_assert(CHAR_BIT == 8 && sizeof(int) == 4 && sizeof(long) == 8 && sizeof(void*) == 8);
static_assert(sizeof(wchar_t) == 4);
static_assert(sizeof(SymmCipherParams) == 64 && alignof(SymmCipherParams) == 8);
static_assert(sizeof(PkeyCipherParams) == 24 && alignof(PkeyCipherParams) == 8);
static_assert(sizeof(MacParams) == 24 && alignof(MacParams) == 8);
static_assert(sizeof(EnvelopeParams) == 24 && alignof(EnvelopeParams) == 8);

// The bytes of a block in memory, as hexadecimal digits, with a given address in it.
template <class Block>
std::string bytesOf(const Block& block)
{
    std::string digits;
    unsigned char bytes[sizeof block];
    memcpy(bytes, &block, sizeof block);
    for (const unsigned char byte : bytes) {
        char text[3];
        snprintf(text, sizeof text, "%02x", byte);
        digits += text;
    }
    return digits;
}

unsigned char* address(uintptr_t value)
{
    return reinterpret_cast<unsigned char*>(value);  // only looked at
}

TEST(Blocks, AreLittleEndianWithEachFieldInItsPlace)
{
    SymmCipherParams symmetric;
    memset(&symmetric, 0, sizeof symmetric);
    symmetric.alg = 7;
    symmetric.mode = 6;
    symmetric.padding = -2;
    symmetric.key = address(0x1122334455667788);
    symmetric.key_len = 0x01020304;
    symmetric.iv = address(0x0102030405060708);
    symmetric.iv_len = 0xA0B0C0D0;
    symmetric.aad = address(0xF1F2F3F4F5F6F7F8);
    symmetric.aad_len = 0xFFFFFFFF;
    EXPECT_EQ(bytesOf(symmetric),
              "0700000006000000feffffff00000000"
              "88776655443322110403020100000000"
              "0807060504030201d0c0b0a000000000"
              "f8f7f6f5f4f3f2f1ffffffff00000000");

    EnvelopeParams envelope = {1, 2, address(3), address(4)};
    EXPECT_EQ(bytesOf(envelope), "010000000200000003000000000000000400000000000000");
}

// ---- Bytes above 127, which are negative where char is signed.

// All 256 bytes in order.
std::string allBytes()
{
    std::string bytes;
    for (int i = 0; i < 256; ++i)
        bytes += static_cast<char>(static_cast<unsigned char>(i));
    return bytes;
}

const unsigned char* bytesIn(const std::string& text)
{
    return reinterpret_cast<const unsigned char*>(text.data());
}

class Handler : public CWebServerBase {
public:
    std::string Request() override { return ""; }
};

TEST(HighBytes, AreEscapedWithoutASign)
{
    Handler handler;
    EXPECT_EQ(handler.EncodeURIComponent("\x7F\x80\xA0\xC3\xFF"), "%7F%80%A0%C3%FF");
    EXPECT_EQ(handler.DecodeURIComponent("%7F%80%a0%C3%FF"), "\x7F\x80\xA0\xC3\xFF");
    EXPECT_EQ(handler.DecodeURIComponent("\xFF"
                                         "%25\x80"),
              "\xFF%\x80");
    EXPECT_EQ(handler.JsonUrlEncode("\xFF"), "%25FF");
    EXPECT_EQ(handler.JsonUrlDecode(handler.JsonUrlEncode(allBytes())), allBytes());
}

TEST(HighBytes, AreReplacedAndSplitAtLikeOthers)
{
    Handler handler;
    std::string text = "\x7F\xFF\x80\xFF";
    handler.ReplaceInChar(text.data(), static_cast<int>(text.size()), '\xFF', '\x80');
    EXPECT_EQ(text, "\x7F\x80\x80\x80");
    const std::vector<std::string> pieces = {"\xC3", "\xA4"};
    EXPECT_EQ(handler.split("\xC3\xFF\xA4", "\xFF"), pieces);
}

TEST(HighBytes, EndTheDecodingOfBase64)
{
    for (int c = 128; c < 256; ++c) {
        for (size_t place = 0; place < 4; ++place) {
            std::string text = "Zm9vYmFyZm9v";
            text[4 + place] = static_cast<char>(static_cast<unsigned char>(c));
            const std::string decoded = std::string("fooba").substr(0, place == 0 ? 3 : 2 + place);
            EXPECT_EQ(base64_decode(text), decoded) << c << " at " << place;
            base64_decode_url(text);
            EXPECT_EQ(text, decoded) << c << " at " << place;
        }
    }
}

// As `base64` of coreutils writes them.
constexpr char ALL_BYTES_AS_BASE64[] =
    "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8gISIjJCUmJygpKissLS4vMDEyMzQ1Njc4OTo7PD0+P0BBQkNE"
    "RUZHSElKS0xNTk9QUVJTVFVWV1hZWltcXV5fYGFiY2RlZmdoaWprbG1ub3BxcnN0dXZ3eHl6e3x9fn+AgYKDhIWGh4iJ"
    "iouMjY6PkJGSk5SVlpeYmZqbnJ2en6ChoqOkpaanqKmqq6ytrq+wsbKztLW2t7i5uru8vb6/wMHCw8TFxsfIycrLzM3O"
    "z9DR0tPU1dbX2Nna29zd3t/g4eLj5OXm5+jp6uvs7e7v8PHy8/T19vf4+fr7/P3+/w==";

TEST(HighBytes, AreEncodedAndDecodedByEachCodec)
{
    const std::string all = allBytes();
    EXPECT_EQ(base64_encode(bytesIn(all), 256), ALL_BYTES_AS_BASE64);
    EXPECT_EQ(base64_decode(ALL_BYTES_AS_BASE64), all);

    char text[512] = {};
    unsigned int length = 0;
    EXPECT_EQ(CV_Base64Encode(bytesIn(all), 256, text, &length, 0), 0);
    EXPECT_EQ(std::string(text, length), ALL_BYTES_AS_BASE64);
    unsigned char bytes[512] = {};
    EXPECT_EQ(CV_Base64Decode(ALL_BYTES_AS_BASE64, sizeof ALL_BYTES_AS_BASE64 - 1, bytes, &length),
              0);
    EXPECT_EQ(std::string(bytes, bytes + length), all);
}

std::string hexLine(const void* bytes, unsigned long len, int group, bool ascii)
{
    char line[200];
    hex_dump_to_buffer(bytes, len, 32, group, line, sizeof line, ascii);
    return line;
}

TEST(HexLine, ShowsHighBytesWithoutASign)
{
    EXPECT_EQ(hexLine("\x7F\x80\xFE\xFF", 4, 1, false), "7f 80 fe ff");
    EXPECT_EQ(hexLine("\xFF\xFE\x80\x7F", 4, 2, false), "feff 7f80");
    EXPECT_EQ(hexLine("\xFF\xFE\xFD\x80", 4, 4, false), "80fdfeff");
    EXPECT_EQ(hexLine("\x80\xFF", 2, 1, true).substr(97), "..");
}

// Numbers of several bytes are read as the processor reads them, wherever they lie.
TEST(HexLine, ShowsGroupsInLittleEndianOrderAtAnyAddress)
{
    alignas(8) char room[32];
    for (size_t at = 0; at < 9; ++at) {
        memcpy(room + at, "\x01\x02\x03\x04\x05\x06\x07\x88", 8);
        EXPECT_EQ(hexLine(room + at, 8, 2, false), "0201 0403 0605 8807") << at;
        EXPECT_EQ(hexLine(room + at, 8, 4, false), "04030201 88070605") << at;
        EXPECT_EQ(hexLine(room + at, 8, 8, false), "8807060504030201") << at;
    }
}

// ---- Numbers in text.

TEST(Codes, AreWrittenWithTheirSign)
{
    Handler handler;
    EXPECT_EQ(handler.GetStrErrorForInt(-20215), "-20215");
    EXPECT_EQ(handler.GetStrErrorForInt(INT_MIN), "-2147483648");
    EXPECT_EQ(handler.GetStrErrorHexForInt(INT_MAX), "0x7FFFFFFF");
    EXPECT_EQ(handler.GetStrErrorHexForInt(-1), "-1");
}

}  // namespace
