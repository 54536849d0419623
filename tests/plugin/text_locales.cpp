// A host's locale changes none of the handler base's texts, but adds letters where it says so.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cctype>
#include <climits>
#include <clocale>
#include <cstdlib>
#include <locale>
#include <memory>
#include <sstream>
#include <string>

#include "base64.h"
#include "engine_binding.h"
#include "log.h"
#include "support/files.h"
#include "support/text_handler.h"

namespace {

using support::allBytes;
using support::escaped;
using support::LETTERS_AND_DIGITS;
using support::Text;

// Groups digits and decorates them as few real locales do.
class Grouping : public std::numpunct<char> {
protected:
    char do_decimal_point() const override { return ';'; }
    char do_thousands_sep() const override { return ','; }
    std::string do_grouping() const override { return "\1"; }
};

class LocaleCpp : public Text {
protected:
    void SetUp() override
    {
        previous = std::locale::global(std::locale(std::locale::classic(), new Grouping));
        std::ostringstream stream;
        stream << 1234;
        ASSERT_EQ(stream.str(), "1,2,3,4") << "the locale has no effect";
    }
    void TearDown() override { std::locale::global(previous); }

    std::locale previous;
};

TEST_F(LocaleCpp, LeavesErrorCodesAlone)
{
    EXPECT_EQ(handler.GetStrErrorForInt(-20001), "-20001");
    EXPECT_EQ(handler.GetStrErrorForInt(INT_MIN), "-2147483648");
    EXPECT_EQ(handler.GetStrErrorForInt(INT_MAX), "2147483647");
    EXPECT_EQ(handler.GetStrErrorForInt(0), "0");
    EXPECT_EQ(handler.GetStrErrorHexForInt(0x12ABCDEF), "0x12ABCDEF");
    EXPECT_EQ(handler.GetStrErrorHexForInt(-20001), "-20001");
}

TEST_F(LocaleCpp, LeavesHandleTextsAlone)
{
    CSoftMoudle_aven engine;
    for (long handle : {0L, -5L, 1234567L, LONG_MAX, LONG_MIN}) {
        EXPECT_EQ(engine.GetStrForInt(handle), std::to_string(handle));
        EXPECT_EQ(GetPtrForStr(engine.GetStrForInt(handle)), handle);
    }
}

// An 8-bit locale in which bytes of 0x80 and above are letters, built from the sources
// in the package locales.
class LocaleLatin1 : public Text {
protected:
    static void SetUpTestSuite()
    {
        folder = std::make_unique<support::TemporaryFolder>();
        const std::string command = "localedef -i de_DE -f ISO-8859-1 " +
                                    folder->path("de_DE.ISO-8859-1") + " >/dev/null 2>&1";
        // Its status only says whether there were warnings; setlocale tells.
        if (system(command.c_str()) == -1)
            return;
        setenv("LOCPATH", folder->path().c_str(), 1);
    }
    static void TearDownTestSuite()
    {
        unsetenv("LOCPATH");
        folder.reset();
    }
    void SetUp() override
    {
        if (setlocale(LC_ALL, "de_DE.ISO-8859-1") == nullptr)
            GTEST_SKIP() << "NOT TESTED: no 8-bit locale can be built (package locales is missing)";
        ASSERT_TRUE(isalnum(0xe9)) << "the locale has no effect";
    }
    void TearDown() override { setlocale(LC_ALL, "C"); }

    static std::unique_ptr<support::TemporaryFolder> folder;
};

std::unique_ptr<support::TemporaryFolder> LocaleLatin1::folder;

TEST_F(LocaleLatin1, LeavesEscapingAlone)
{
    EXPECT_EQ(handler.EncodeURIComponent("\xe9"), "%E9");
    EXPECT_EQ(handler.EncodeURIComponent(allBytes()), escaped(allBytes()));
    EXPECT_EQ(handler.JsonUrlEncode(allBytes()), escaped(escaped(allBytes())));
    EXPECT_EQ(handler.DecodeURIComponent(escaped(allBytes())), allBytes());
}

TEST_F(LocaleLatin1, LeavesTheAlphabetAlone)
{
    const std::string alphabet = LETTERS_AND_DIGITS + "+/";
    const std::string bytes = base64_decode(alphabet);
    EXPECT_EQ(bytes.size(), 48U);
    EXPECT_EQ(base64_encode(reinterpret_cast<const unsigned char*>(bytes.data()), 48), alphabet);
    for (char c : alphabet)
        EXPECT_TRUE(is_base64(static_cast<unsigned char>(c)));
    for (char c : {'=', '-', '_', '\n', ' ', '\0'}) {
        EXPECT_FALSE(is_base64(static_cast<unsigned char>(c)));
        EXPECT_EQ(base64_decode("Zm9v" + std::string(1, c) + "YmFy"), "foo");
    }
}

// The process's locale decides which bytes beyond ASCII are letters. Such a letter is in
// no place of the alphabet and counts as 255.
TEST_F(LocaleLatin1, AddsLettersThatCountAs255)
{
    EXPECT_TRUE(is_base64(0xe9));
    EXPECT_FALSE(is_base64(0xa7));
    EXPECT_EQ(base64_decode("Zm9v\xe9"
                            "AAAZm9v"),
              std::string("foo\xfc\0\0foo", 9));
    EXPECT_EQ(base64_decode("Zm9v\xa7"
                            "AAAZm9v"),
              "foo");
    // In each place the bits count that a sextet has there; the last has all eight.
    EXPECT_EQ(base64_decode("A\xe9"
                            "AA"),
              std::string("\x03\xf0\0", 3));
    EXPECT_EQ(base64_decode("AA\xe9"
                            "A"),
              std::string("\0\x0f\xc0", 3));
    EXPECT_EQ(base64_decode("AAA\xe9"), std::string("\0\0\xff", 3));
}

TEST_F(LocaleLatin1, LeavesNumbersAlone)
{
    CSoftMoudle_aven engine;
    EXPECT_EQ(handler.GetStrErrorForInt(-1234567), "-1234567");
    EXPECT_EQ(handler.GetStrErrorHexForInt(1234567), "0x12D687");
    EXPECT_EQ(engine.GetStrForInt(-1234567), "-1234567");
    EXPECT_EQ(GetPtrForStr("-1234567"), -1234567);
}

TEST_F(LocaleLatin1, LeavesTheHexDumpAlone)
{
    char line[200];
    hex_dump_to_buffer("\x41\xe9\x42", 3, 16, 1, line, sizeof line, true);
    EXPECT_EQ(std::string(line).substr(49), "A.B");
}

}  // namespace
