// How many requests an address may send.
#include "service/operation/authorization.h"

#include <gtest/gtest.h>

namespace {

using std::chrono::milliseconds;

class ARate : public testing::Test {
protected:
    // At so many milliseconds since the first.
    bool take(int at, const std::string& address = "a")
    {
        return rates.take(address, begin + milliseconds(at));
    }

    const Clock::time_point begin = Clock::now();
    Rates rates{2, 3};  // a second; at once
};

TEST_F(ARate, AllowsABurstAndThenOneByOne)
{
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(take(0)) << i;
    EXPECT_FALSE(take(0));
    EXPECT_FALSE(take(499));
    EXPECT_TRUE(take(500));
    EXPECT_FALSE(take(998));
    EXPECT_TRUE(take(1000));
    EXPECT_FALSE(take(1001));
}

// Time that has been counted is not counted again, also of what was refused.
TEST_F(ARate, FillsOncePerTime)
{
    for (int i = 0; i < 3; ++i)
        take(0);
    int taken = 0;
    for (int at = 0; at <= 10000; at += 10)
        taken += take(at) ? 1 : 0;
    EXPECT_EQ(20, taken);
}

TEST_F(ARate, FillsUpToTheBurst)
{
    for (int i = 0; i < 3; ++i)
        take(0);
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(take(60000)) << i;
    EXPECT_FALSE(take(60000));
}

TEST_F(ARate, IsOfEachAddress)
{
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(take(0));
    EXPECT_FALSE(take(0));
    EXPECT_TRUE(take(0, "b"));
}

TEST_F(ARate, ForgetsFullBucketsAlone)
{
    for (int i = 0; i < 3; ++i)
        take(0);
    rates.sweep(begin + milliseconds(1499));
    EXPECT_TRUE(take(1499));
    EXPECT_TRUE(take(1499));
    EXPECT_FALSE(take(1499));
    rates.sweep(begin + milliseconds(3000));
    EXPECT_TRUE(take(3000));
}

TEST(NoRate, AllowsAll)
{
    Rates rates(0, 3);
    const Clock::time_point now = Clock::now();
    for (int i = 0; i < 100; ++i)
        EXPECT_TRUE(rates.take("a", now));
}

}  // namespace
