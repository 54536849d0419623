// The forms of headers, and how long a body is by them.
#include "service/http/headers.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

// RFC 9110, section 5.6.2: "token".
TEST(HeaderName, HasLettersDigitsAndFifteenSigns)
{
    const std::string allowed =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789!#$%&'*+-.^_`|~";
    for (int byte = 0; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        const bool isAllowed = allowed.find(c) != std::string::npos;
        EXPECT_EQ(isAllowed, isHeaderName(std::string(1, c))) << byte;
        EXPECT_EQ(isAllowed, isHeaderName("a" + std::string(1, c))) << byte;
    }
    EXPECT_FALSE(isHeaderName(""));
}

TEST(HeaderValue, HasNoControlsButTabs)
{
    for (int byte = 0; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        const bool isAllowed = byte == '\t' || (byte >= ' ' && byte != 127);
        EXPECT_EQ(isAllowed, isHeaderValue(std::string(1, c))) << byte;
        EXPECT_EQ(isAllowed, isHeaderValue("a" + std::string(1, c))) << byte;
    }
    EXPECT_TRUE(isHeaderValue(""));
}

TEST(BodySize, IsAsAnnounced)
{
    const auto sizeOf = [](const std::string& length) {
        Headers headers;
        headers.contentLength = length;
        return headers.bodySize();
    };
    EXPECT_EQ(0U, sizeOf(""));
    EXPECT_EQ(0U, sizeOf("0"));
    EXPECT_EQ(1048577U, sizeOf("001048577"));
    EXPECT_EQ(999999999999999999U, sizeOf("999999999999999999"));
    // Noughts count as digits: who writes so many means nothing good.
    EXPECT_EQ(SIZE_MAX, sizeOf("0000000000000000001"));
    EXPECT_EQ(SIZE_MAX, sizeOf("1000000000000000000"));
    EXPECT_EQ(SIZE_MAX, sizeOf(std::string(30, '9')));
}

TEST(Headers, OfNothingHaveNoBody)
{
    EXPECT_FALSE(Headers().hasBody);
}

}  // namespace
