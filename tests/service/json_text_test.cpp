// Texts as JSON, judged by a library that writes and reads it too.
#include "service/operation/json_text.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <random>

namespace {

using Json = nlohmann::json;

std::string written(std::string_view text)
{
    std::string out;
    appendJsonText(out, text);
    return out;
}

std::string expected(std::string_view text)
{
    return Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

TEST(JsonText, EveryPairOfBytesIsAsTheLibraryWritesIt)
{
    for (int first = 0; first < 256; ++first)
        for (int second = 0; second < 256; ++second) {
            const std::string text = {static_cast<char>(first), static_cast<char>(second)};
            ASSERT_EQ(expected(text), written(text)) << first << " " << second;
        }
}

TEST(JsonText, EscapesAreTheShortOnes)
{
    EXPECT_EQ(R"("")", written(""));
    EXPECT_EQ(R"("a\"\\\b\f\n\r\t/\u0000\u001f)"
              "\x7f\"",
              written(std::string_view("a\"\\\b\f\n\r\t/\0\x1f\x7f", 12)));
    EXPECT_EQ("\"\xC3\xA4\xF0\x9F\x98\x80\"", written("\xC3\xA4\xF0\x9F\x98\x80"));
}

TEST(JsonText, BytesThatAreNotUtf8AreReplaced)
{
    EXPECT_EQ("\"a\xEF\xBF\xBD\"", written("a\xFF"));
    EXPECT_EQ("\"\xEF\xBF\xBD\\n\"", written("\xE2\x82\n"));  // cut
    EXPECT_EQ("\"\xEF\xBF\xBD\xEF\xBF\xBD\"", written("\xC0\x80"));
}

TEST(JsonText, IsAppended)
{
    std::string out = "{\"a\":";
    appendJsonText(out, "b");
    EXPECT_EQ("{\"a\":\"b\"", out);
}

TEST(JsonText, ReadsBackAsItWas)
{
    std::mt19937 random(1);
    constexpr std::string_view pieces[] = {"a", "\"", "\\", "\n", "\x01", "\xC3\xA4", "\x7f", "/"};
    for (int round = 0; round < 1000; ++round) {
        std::string text;
        for (size_t length = random() % 40; length > 0; --length)
            text += pieces[random() % std::size(pieces)];
        ASSERT_EQ(text, Json::parse(written(text)).get<std::string>());
    }
}

}  // namespace
