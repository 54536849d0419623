// The character-set members of the handler base. iconv's three functions are taken over:
// they pass everything on, take notes and fail on demand. A converter that the plug-in
// leaves open on a failure, as it is meant to, is closed by the test.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <iconv.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "WebServerBase.h"
#include "support/capture.h"

namespace {

using support::StdoutCapture;

struct Notes {
    // On demand.
    bool failOpen = false;  // as iconv_open does
    bool nullOpen = false;  // as iconv_open never does
    bool failClose = false;

    std::vector<std::string> opened;  // "to from"
    size_t inRoom = 0;                // of the last conversion
    size_t outRoom = 0;
    int conversions = 0;
    int closed = 0;
    std::set<iconv_t> open;
};

Notes notes;

template <class Function>
Function next(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" iconv_t iconv_open(const char* to, const char* from)
{
    static const auto real = next<iconv_t (*)(const char*, const char*)>("iconv_open");
    notes.opened.push_back(std::string(to) + " " + from);
    if (notes.nullOpen)
        return nullptr;
    if (notes.failOpen) {
        errno = EINVAL;
        return reinterpret_cast<iconv_t>(-1);
    }
    iconv_t converter = real(to, from);
    notes.open.insert(converter);
    return converter;
}

extern "C" size_t iconv(iconv_t converter, char** in, size_t* inLeft, char** out, size_t* outLeft)
{
    static const auto real = next<size_t (*)(iconv_t, char**, size_t*, char**, size_t*)>("iconv");
    notes.conversions++;
    notes.inRoom = *inLeft;
    notes.outRoom = *outLeft;
    if (notes.open.count(converter) == 0) {
        errno = EBADF;
        return static_cast<size_t>(-1);
    }
    return real(converter, in, inLeft, out, outLeft);
}

extern "C" int iconv_close(iconv_t converter)
{
    static const auto real = next<int (*)(iconv_t)>("iconv_close");
    notes.closed++;
    if (notes.open.erase(converter) != 0)
        real(converter);
    if (!notes.failClose)
        return 0;
    errno = EBADF;
    return -1;
}

namespace {

class Handler : public CWebServerBase {
public:
    std::string Request() override { return ""; }
};

class Charset : public testing::Test {
protected:
    void SetUp() override { notes = Notes(); }

    void TearDown() override
    {
        notes.failClose = false;
        while (!notes.open.empty())
            iconv_close(*notes.open.begin());
    }

    // What was printed, beside the member's own result.
    int unicodeToUtf8(std::wstring in)
    {
        std::string out = "before";
        testing::internal::CaptureStderr();
        StdoutCapture output;
        int result = handler.UnicodeToUTF8(in, out);
        printed = output.text();
        errors = testing::internal::GetCapturedStderr();
        EXPECT_EQ(out, "before");
        return result;
    }
    int utf8ToUnicode(const std::string& in, std::wstring& out)
    {
        testing::internal::CaptureStderr();
        StdoutCapture output;
        int result = handler.UTF8ToUnicode(in, out);
        printed = output.text();
        errors = testing::internal::GetCapturedStderr();
        return result;
    }
    // Converts from and to blocks of exactly these sizes.
    int utf8ToGbk(const std::string& in, size_t room, std::string& out)
    {
        auto from = std::make_unique<char[]>(in.size());
        auto to = std::make_unique<char[]>(room);
        memcpy(from.get(), in.data(), in.size());
        memset(to.get(), '#', room);
        int result = handler.Utf8ToGbk(from.get(), in.size(), to.get(), room);
        EXPECT_EQ(std::string(from.get(), in.size()), in);
        out.assign(to.get(), room);
        return result;
    }
    std::string utf8ToGbk(std::string in)
    {
        std::string out = "before";
        std::string original = in;
        StdoutCapture output;
        EXPECT_EQ(handler.Utf8ToGbk(in, out), 0);
        EXPECT_EQ(in, original);
        EXPECT_EQ(output.text(), "");
        return out;
    }

    Handler handler;
    std::string printed;
    std::string errors;
};

// ---- Placeholders

const char* const SLASHES = "//////////////////////////////////////////";

TEST_F(Charset, MultiToUnicodePrintsSlashesAlone)
{
    std::wstring out = L"before";
    StdoutCapture output;
    EXPECT_EQ(handler.multiToUnicode("abc", out), 1);
    EXPECT_EQ(output.text(), SLASHES);
    EXPECT_EQ(output.text().size(), 42U);
    EXPECT_EQ(out, L"before");
    EXPECT_TRUE(notes.opened.empty());
}

TEST_F(Charset, MultiToUtf8PrintsSlashesAlone)
{
    for (const char* text : {"", "abc", "\xff"}) {
        std::string out = "before";
        StdoutCapture output;
        EXPECT_EQ(handler.multiToUTF8(text, out), 1);
        EXPECT_EQ(output.text(), SLASHES);
        EXPECT_EQ(out, "before");
    }
    EXPECT_TRUE(notes.opened.empty());
}

TEST_F(Charset, Utf8ToMultiDoesNothing)
{
    for (const char* text : {"", "abc", "\xff"}) {
        std::string out = "before";
        StdoutCapture output;
        EXPECT_EQ(handler.UTF8ToMulti(text, out), 1);
        EXPECT_EQ(output.text(), "");
        EXPECT_EQ(out, "before");
    }
    EXPECT_TRUE(notes.opened.empty());
}

// ---- UnicodeToUTF8: its input's length in characters counts as bytes, so of n wide
// characters n / 4 are seen, each as two 16-bit units.

std::string lengths(size_t length)
{
    return "Base 548 UnicodeText_len:" + std::to_string(length) + "\nBase 549 utf8Text_len:0\n";
}

TEST_F(Charset, UnicodeToUtf8PrintsTheLengthsAndNoText)
{
    for (size_t length : {0U, 2U, 4U, 12U}) {
        EXPECT_EQ(unicodeToUtf8(std::wstring(length, L'A')), 0) << length;
        EXPECT_EQ(printed, lengths(length));
        EXPECT_EQ(errors, "");
        EXPECT_EQ(notes.opened.back(), "UTF-8 UNICODE");
        EXPECT_EQ(notes.inRoom, length);
        EXPECT_EQ(notes.outRoom, 1023U);
        EXPECT_TRUE(notes.open.empty());
    }
}

TEST_F(Charset, UnicodeToUtf8ReportsHalfAUnit)
{
    EXPECT_EQ(unicodeToUtf8(L"A"), -1);
    EXPECT_EQ(printed, lengths(1) + "iconv failed - 22: Invalid argument\n");
    EXPECT_EQ(notes.open.size(), 1U) << "a failed conversion leaves its converter open";
}

TEST_F(Charset, UnicodeToUtf8ReportsASurrogate)
{
    EXPECT_EQ(unicodeToUtf8(std::wstring(2, static_cast<wchar_t>(0xd800))), -1);
    EXPECT_EQ(printed, lengths(2) + "iconv failed - 84: " + strerror(EILSEQ) + "\n");
}

TEST_F(Charset, UnicodeToUtf8TakesUpTo1023Bytes)
{
    EXPECT_EQ(unicodeToUtf8(std::wstring(2046, L'A')), 0);
    EXPECT_EQ(unicodeToUtf8(std::wstring(2048, L'A')), -1);
    EXPECT_EQ(printed, lengths(2048) + "iconv failed - 7: Argument list too long\n");
}

TEST_F(Charset, UnicodeToUtf8ReportsAMissingConverter)
{
    notes.failOpen = true;
    EXPECT_EQ(unicodeToUtf8(L"AB"), -1);
    EXPECT_EQ(printed, "");
    EXPECT_EQ(errors, "iconv open failed: Invalid argument\n");
    EXPECT_EQ(notes.conversions, 0);
    EXPECT_EQ(notes.closed, 0);
}

TEST_F(Charset, UnicodeToUtf8ReportsAFailedClose)
{
    notes.failClose = true;
    EXPECT_EQ(unicodeToUtf8(L"AB"), -1);
    EXPECT_EQ(printed, lengths(2));
    EXPECT_EQ(errors, "iconv close failed: Bad file descriptor\n");
}

// ---- UTF8ToUnicode: the length of the output in characters is its room in bytes.

std::string storage(const std::wstring& text, size_t bytes)
{
    return std::string(reinterpret_cast<const char*>(text.data()), bytes);
}

// The converted text begins with a byte order mark; both are in the machine's order.
std::string units(const std::u16string& text)
{
    return std::string(reinterpret_cast<const char*>(text.data()), 2 * text.size());
}

TEST_F(Charset, Utf8ToUnicodeFillsTheStorageThatTheOutputHas)
{
    std::wstring out(8, static_cast<wchar_t>(0x23232323));
    EXPECT_EQ(utf8ToUnicode("A\xe4\xb8\xad", out), 0);
    EXPECT_EQ(out.size(), 8U);
    EXPECT_EQ(storage(out, 32), units(u"\ufeffA\u4e2d") + std::string(26, '#'));
    EXPECT_EQ(printed, "");
    EXPECT_EQ(errors, "");
    EXPECT_EQ(notes.opened.back(), "UNICODE UTF-8");
    EXPECT_EQ(notes.inRoom, 4U);
    EXPECT_EQ(notes.outRoom, 8U);
    EXPECT_TRUE(notes.open.empty());
}

TEST_F(Charset, Utf8ToUnicodeNeedsAByteOfRoomForEachCharacterOfTheOutput)
{
    std::wstring enough(6, L'#');
    EXPECT_EQ(utf8ToUnicode("AB", enough), 0);
    std::wstring tooLittle(5, L'#');
    EXPECT_EQ(utf8ToUnicode("AB", tooLittle), -1);
    EXPECT_EQ(printed, "iconv failed - 7: Argument list too long\n");
    EXPECT_EQ(notes.open.size(), 1U) << "a failed conversion leaves its converter open";
}

TEST_F(Charset, Utf8ToUnicodeFailsForAnEmptyOutput)
{
    std::wstring out;
    EXPECT_EQ(utf8ToUnicode("abc", out), -1);
    EXPECT_EQ(printed, "iconv failed - 7: Argument list too long\n");
    EXPECT_TRUE(out.empty());
}

TEST_F(Charset, Utf8ToUnicodeReportsMalformedText)
{
    std::wstring out(16, L'#');
    EXPECT_EQ(utf8ToUnicode("A\xff", out), -1);
    EXPECT_EQ(printed, std::string("iconv failed - 84: ") + strerror(EILSEQ) + "\n");
    EXPECT_EQ(utf8ToUnicode("A\xe4\xb8", out), -1);
    EXPECT_EQ(printed, "iconv failed - 22: Invalid argument\n");
}

TEST_F(Charset, Utf8ToUnicodeReportsAMissingConverter)
{
    std::wstring out(4, L'#');
    notes.failOpen = true;
    EXPECT_EQ(utf8ToUnicode("A", out), -1);
    EXPECT_EQ(printed, "");
    EXPECT_EQ(errors, "iconv open failed: Invalid argument\n");
    EXPECT_EQ(notes.conversions, 0);
    EXPECT_EQ(out, L"####");
}

TEST_F(Charset, Utf8ToUnicodeReportsAFailedClose)
{
    std::wstring out(4, L'#');
    notes.failClose = true;
    EXPECT_EQ(utf8ToUnicode("A", out), -1);
    EXPECT_EQ(printed, "");
    EXPECT_EQ(errors, "iconv close failed: Bad file descriptor\n");
}

// ---- Utf8ToGbk on buffers

TEST_F(Charset, GbkBufferIsZeroedBehindTheText)
{
    std::string out;
    EXPECT_EQ(utf8ToGbk("a\xe4\xb8\xad", 6, out), 0);
    EXPECT_EQ(out, std::string("a\xd6\xd0\0\0\0", 6));
    EXPECT_EQ(notes.opened.back(), "gbk utf8");
    EXPECT_EQ(notes.inRoom, 4U);
    EXPECT_EQ(notes.outRoom, 6U);
    EXPECT_TRUE(notes.open.empty());
}

TEST_F(Charset, GbkBufferTakesExactRoomAndZeroBytes)
{
    std::string out;
    EXPECT_EQ(utf8ToGbk(std::string("a\0b", 3), 3, out), 0);
    EXPECT_EQ(out, std::string("a\0b", 3));
    EXPECT_EQ(utf8ToGbk("", 0, out), 0);
    EXPECT_EQ(out, "");
}

TEST_F(Charset, GbkBufferKeepsWhatWasConvertedBeforeAFailure)
{
    std::string out;
    EXPECT_EQ(utf8ToGbk("abcd", 3, out), -1);
    EXPECT_EQ(out, "abc");
    EXPECT_EQ(utf8ToGbk("ab\xff"
                        "c",
                        6, out),
              -1);
    EXPECT_EQ(out, std::string("ab\0\0\0\0", 6));
    EXPECT_EQ(notes.open.size(), 2U) << "a failed conversion leaves its converter open";
}

TEST_F(Charset, GbkBufferFailsAtOnceForANullConverter)
{
    std::string out;
    notes.nullOpen = true;
    EXPECT_EQ(utf8ToGbk("abc", 3, out), -1);
    EXPECT_EQ(out, "###");
    EXPECT_EQ(notes.conversions, 0);
}

TEST_F(Charset, GbkBufferGoesOnAfterAFailedOpen)
{
    std::string out;
    notes.failOpen = true;
    EXPECT_EQ(utf8ToGbk("abc", 3, out), -1);
    EXPECT_EQ(out, std::string(3, '\0'));
    EXPECT_EQ(notes.conversions, 1);
    EXPECT_EQ(notes.closed, 0);
}

TEST_F(Charset, GbkBufferDoesNotMindAFailedClose)
{
    std::string out;
    notes.failClose = true;
    EXPECT_EQ(utf8ToGbk("abc", 3, out), 0);
    EXPECT_EQ(out, "abc");
    EXPECT_EQ(notes.closed, 1);
}

// ---- Utf8ToGbk on texts

TEST_F(Charset, GbkTextIsConverted)
{
    EXPECT_EQ(utf8ToGbk("abc"), "abc");
    EXPECT_EQ(utf8ToGbk("\xe4\xb8\xad\xe6\x96\x87"), "\xd6\xd0\xce\xc4");
    EXPECT_EQ(utf8ToGbk(""), "");
}

TEST_F(Charset, GbkTextEndsAtItsFirstZeroByte)
{
    EXPECT_EQ(utf8ToGbk(std::string("abc\0def", 7)), "abc");
    EXPECT_EQ(notes.inRoom, 3U);
    EXPECT_EQ(utf8ToGbk(std::string("\0def", 4)), "");
}

TEST_F(Charset, GbkTextHasThreeBytesOfRoomForEachByteAndOneMore)
{
    utf8ToGbk("abcd");
    EXPECT_EQ(notes.inRoom, 4U);
    EXPECT_EQ(notes.outRoom, 13U);
    utf8ToGbk("");
    EXPECT_EQ(notes.inRoom, 0U);
    EXPECT_EQ(notes.outRoom, 1U);
}

TEST_F(Charset, GbkTextHoldsWhatWasConvertedBeforeAFailure)
{
    EXPECT_EQ(utf8ToGbk("ab\xff"
                        "c"),
              "ab");
    EXPECT_EQ(utf8ToGbk("ab\xe4\xb8"), "ab");
    EXPECT_EQ(utf8ToGbk("\xf0\x9f\x98\x80"), "");  // GBK lacks it
}

TEST_F(Charset, GbkTextIsEmptyWithoutAConverter)
{
    notes.failOpen = true;
    EXPECT_EQ(utf8ToGbk("abc"), "");
    notes.nullOpen = true;
    EXPECT_EQ(utf8ToGbk("abc"), "");
}

}  // namespace
