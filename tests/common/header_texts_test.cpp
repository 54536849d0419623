// Small things that all share: texts of headers, names and values, reports of failures.
#include "common/text.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "common/failure.h"
#include "common/pairs.h"

namespace {

TEST(EqualIgnoringCase, OnlyAsciiLettersHaveACase)
{
    const auto lower = [](int c) { return c >= 65 && c <= 90 ? c + 32 : c; };
    for (int x = 0; x < 256; ++x)
        for (int y = 0; y < 256; ++y) {
            const char a = static_cast<char>(x), b = static_cast<char>(y);
            ASSERT_EQ(equalIgnoringCase({&a, 1}, {&b, 1}), lower(x) == lower(y)) << x << " " << y;
        }
}

TEST(EqualIgnoringCase, AllOfBothTextsCounts)
{
    EXPECT_TRUE(equalIgnoringCase("", ""));
    EXPECT_TRUE(equalIgnoringCase("Content-Type", "cONTENT-tYPE"));
    EXPECT_FALSE(equalIgnoringCase("Content-Type", "Content-Typ"));
    EXPECT_FALSE(equalIgnoringCase("Content-Typ", "Content-Type"));
    EXPECT_FALSE(equalIgnoringCase("", "a"));
    EXPECT_FALSE(equalIgnoringCase("ab", "ba"));
}

TEST(Trimmed, BlanksAndTabsAtTheEndsAreLeftOut)
{
    EXPECT_EQ(trimmed(""), "");
    EXPECT_EQ(trimmed(" \t "), "");
    EXPECT_EQ(trimmed("a"), "a");
    EXPECT_EQ(trimmed(" \ta b\tc\t "), "a b\tc");
    EXPECT_EQ(trimmed("  a"), "a");
    EXPECT_EQ(trimmed("a  "), "a");
    EXPECT_EQ(trimmed("\r\na\r\n"), "\r\na\r\n");
}

const Pairs values = {{"a", "first"}, {"b", ""}, {"a", "second"}, {"", "nameless"}, {"{c", "odd"}};

TEST(FindValue, GivesTheFirstOfTheName)
{
    ASSERT_NE(findValue(values, "a"), nullptr);
    EXPECT_EQ(*findValue(values, "a"), "first");
    EXPECT_EQ(findValue(values, "b"), &values[1].second);
    EXPECT_EQ(findValue(values, "A"), nullptr);
    EXPECT_EQ(findValue({}, "a"), nullptr);
}

TEST(Filled, OnlyKnownNamesInBracesAreReplaced)
{
    EXPECT_EQ(filled("", values), "");
    EXPECT_EQ(filled("a text", values), "a text");
    EXPECT_EQ(filled("{a}", values), "first");
    EXPECT_EQ(filled("<{a}{b}{a}>", values), "<firstfirst>");
    EXPECT_EQ(filled("{}", values), "nameless");
    EXPECT_EQ(filled("{c}{d}", values), "{c}{d}");
    EXPECT_EQ(filled("}{", values), "}{");
    EXPECT_EQ(filled("x{a", values), "x{a");
    EXPECT_EQ(filled("{x{a}}", values), "{xfirst}");
    EXPECT_EQ(filled("{{c}", values), "odd");
    EXPECT_EQ(filled("z{a}|", values), "zfirst|");
}

TEST(WithoutFailure, TellsWhatFailedAndGoesOn)
{
    bool isCalled = false;
    testing::internal::CaptureStderr();
    withoutFailure("a thing", [&] { isCalled = true; });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(isCalled);

    testing::internal::CaptureStderr();
    withoutFailure("a thing", [] { throw std::runtime_error("of some kind"); });
    withoutFailure("another thing", [] { throw std::bad_alloc(); });
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "corvane-host: a thing: of some kind\n"
              "corvane-host: another thing: out of memory\n");
}

}  // namespace
