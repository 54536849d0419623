// Which identifiers of requests are taken from outside.
#include "service/http/request_id.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>

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

// More of them than are drawn at once, and the first ones of threads.
TEST(RequestId, OfOursIsGivenOnce)
{
    std::set<std::string> ids;
    constexpr size_t threads = 4;
    constexpr size_t ofEach = 1000;
    for (size_t i = 0; i < threads; ++i)
        std::thread([&] {
            for (size_t k = 0; k < ofEach; ++k)
                ids.insert(makeId());
        }).join();
    EXPECT_EQ(threads * ofEach, ids.size());
}

}  // namespace
