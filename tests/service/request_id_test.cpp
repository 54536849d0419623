// Which identifiers of requests are taken from outside.
#include "service/http/request_id.h"

#include <gtest/gtest.h>

namespace {

TEST(RequestId, HasLettersDigitsAndThreeSigns)
{
    const std::string allowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.";
    for (int byte = 0; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        const bool isAllowed = allowed.find(c) != std::string::npos;
        EXPECT_EQ(isAllowed, isRequestId(std::string(1, c))) << byte;
        EXPECT_EQ(isAllowed, isRequestId("a" + std::string(1, c))) << byte;
    }
}

TEST(RequestId, HasOneTo64Characters)
{
    EXPECT_FALSE(isRequestId(""));
    EXPECT_TRUE(isRequestId(std::string(64, 'a')));
    EXPECT_FALSE(isRequestId(std::string(65, 'a')));
}

TEST(RequestId, OfOursIsOne)
{
    const std::string id = makeId();
    EXPECT_EQ(16U, id.size());
    EXPECT_TRUE(isRequestId(id));
    EXPECT_NE(id, makeId());
}

}  // namespace
