// A short run of the comparison with Botan, which the program `differential_check` makes a long
// one.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <ostream>
#include <random>

#include "differential/algorithm.h"

namespace differential {

static void PrintTo(const Algorithm& algorithm, std::ostream* out)
{
    *out << algorithm.name;
}

namespace {

constexpr uint64_t CASES = 40;
constexpr size_t MOST_BITS = 1024;  // so that of RSA's no more than a few are changed

class Differential : public testing::TestWithParam<Algorithm> {};

TEST_P(Differential, EngineAnswersAsBotanDoes)
{
    for (const uint64_t seed : {uint64_t{1}, uint64_t{std::random_device()()}}) {
        const Outcome outcome = run(GetParam(), seed, CASES, MOST_BITS);
        EXPECT_GE(outcome.counts.cases, CASES);
        EXPECT_EQ(outcome.counts.differing, 0U)
            << outcome.complaint << "\nto repeat: " << repeatedBy(GetParam(), outcome);
    }
}

// The algorithm's, of the characters that a test may have.
std::string nameOf(const testing::TestParamInfo<Algorithm>& info)
{
    std::string name = info.param.name;
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Botan, Differential, testing::ValuesIn(algorithms()), nameOf);

}  // namespace

}  // namespace differential
