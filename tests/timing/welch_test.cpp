// The statistics of timing_check, on known data: what it says of times is no better than they are.
#include "timing/welch.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using timing::CroppedWelch;
using timing::isUndecided;
using timing::leaks;
using timing::Welch;

double tOf(const std::vector<double>& first, const std::vector<double>& second)
{
    Welch test;
    for (double value : first)
        test.add(0, value);
    for (double value : second)
        test.add(1, value);
    return test.t();
}

// Means 3 and 6, variances 2.5 and 10.
TEST(Welch, IsTheDifferenceOfTheMeansByItsError)
{
    EXPECT_NEAR(tOf({1, 2, 3, 4, 5}, {2, 4, 6, 8, 10}), -3 / std::sqrt(2.5 / 5 + 10.0 / 5), 1e-12);
    EXPECT_NEAR(tOf({2, 4, 6, 8, 10}, {1, 2, 3, 4, 5}), 1.8973665961, 1e-9);
}

// Means 20 and 22, variances 4 and 16/3, of 3 and 4 values.
TEST(Welch, GroupsMayBeOfDifferentSizes)
{
    EXPECT_NEAR(tOf({18, 20, 22}, {20, 20, 24, 24}), -2 / std::sqrt(4.0 / 3 + 16.0 / 3 / 4), 1e-12);
}

TEST(Welch, DoesNotLoseSmallDifferencesOfLargeValues)
{
    EXPECT_NEAR(tOf({1e9 + 1, 1e9 + 2, 1e9 + 3}, {1e9 + 2, 1e9 + 3, 1e9 + 4}), -1.2247448714, 1e-6);
}

TEST(Welch, SaysNothingOfTooFewOrEqualValues)
{
    EXPECT_EQ(tOf({}, {}), 0);
    EXPECT_EQ(tOf({1}, {2, 3}), 0);
    EXPECT_EQ(tOf({7, 7, 7}, {7, 7, 7}), 0);
}

TEST(Welch, ConstantGroupsThatDifferAreBeyondAnyLimit)
{
    EXPECT_TRUE(std::isinf(tOf({7, 7, 7}, {8, 8, 8})));
}

// Times as they are: a bell with a long tail. What `more` adds is in the second group alone.
double mostOf(double more, double tail)
{
    std::mt19937_64 random(1);
    std::normal_distribution<double> bell(1000, 10);
    std::exponential_distribution<double> late(1 / tail);
    std::bernoulli_distribution isLate(0.05);
    const auto time = [&](unsigned group) {
        return bell(random) + (group == 1 ? more : 0) + (isLate(random) ? late(random) : 0);
    };
    std::vector<double> sample(2000);
    for (double& value : sample)
        value = time(static_cast<unsigned>(random() & 1));
    CroppedWelch test(std::move(sample));
    for (int i = 0; i < 100000; ++i) {
        const unsigned group = static_cast<unsigned>(random() & 1);
        test.add(group, time(group));
    }
    return test.most();
}

TEST(CroppedWelch, EqualTimesAreBelowTheLimit)
{
    EXPECT_LT(mostOf(0, 10), timing::T_LIMIT);
    EXPECT_LT(mostOf(0, 1e6), timing::T_LIMIT);
}

TEST(CroppedWelch, FindsADifferenceBelowTheNoise)
{
    EXPECT_GT(mostOf(1, 10), timing::T_LIMIT);
}

TEST(CroppedWelch, FindsADifferenceThatTheTailHides)
{
    EXPECT_GT(mostOf(1, 1e6), timing::T_LIMIT);
}

TEST(CroppedWelch, WholeValuesAreTestedToo)
{
    CroppedWelch test(std::vector<double>(100, 1.0));
    for (int i = 0; i < 1000; ++i) {
        test.add(0, 10 + i % 2);
        test.add(1, 20 + i % 2);
    }
    EXPECT_GT(test.most(), 100);
}

TEST(CroppedWelch, SaysNothingOfFewValues)
{
    CroppedWelch test({1, 2, 3});
    for (size_t i = 1; i < CroppedWelch::LEAST; ++i) {
        test.add(0, 1 + static_cast<double>(i % 2));
        test.add(1, 2 + static_cast<double>(i % 2));
    }
    EXPECT_EQ(test.most(), 0);
}

TEST(Verdict, OneAttemptBelowTheLimitClears)
{
    EXPECT_FALSE(leaks({4.4}));
    EXPECT_FALSE(leaks({50, 4.5}));
    EXPECT_FALSE(leaks({50, 50, 4.5}));
    EXPECT_FALSE(isUndecided({4.5}));
    EXPECT_FALSE(isUndecided({50, 1}));
}

TEST(Verdict, ThreeAttemptsBeyondTheLimitAreALeak)
{
    EXPECT_TRUE(isUndecided({}));
    EXPECT_TRUE(isUndecided({4.6}));
    EXPECT_TRUE(isUndecided({4.6, 4.6}));
    EXPECT_FALSE(isUndecided({4.6, 4.6, 4.6}));
    EXPECT_TRUE(leaks({4.6, 4.6, 4.6}));
    EXPECT_FALSE(leaks({4.6, 4.6}));
}

}  // namespace
