// The algorithms that are compared, and how a number of cases of one is run.
#ifndef CORVANE_TESTS_DIFFERENTIAL_ALGORITHM_H
#define CORVANE_TESTS_DIFFERENTIAL_ALGORITHM_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "differential/trial.h"

namespace differential {

struct Algorithm {
    std::string name;
    unsigned share;  // of the cases, beside the others'
    std::function<void(Trial&)> trial;
};
using Algorithms = std::vector<Algorithm>;

// All of them, in the order of the table.
const Algorithms& algorithms();

// Each in the file of its name.
void addSymmetric(Algorithms& all);
void addGcm(Algorithms& all);
void addMacKdf(Algorithms& all);
void addRsa(Algorithms& all);
void addSm2(Algorithms& all);
void addKeyTexts(Algorithms& all);
void addKeyExchange(Algorithms& all);
void addBase64(Algorithms& all);

struct Outcome {
    Counts counts;
    std::optional<uint64_t> differingSeed;  // of the first trial with a difference
    std::string complaint;                  // its first one
};

constexpr size_t EVERY_BIT = SIZE_MAX;

// Trials with the seed and those behind it, until there are so many cases. See Trial for mostBits.
Outcome run(const Algorithm& algorithm, uint64_t seed, uint64_t cases, size_t mostBits);

// The command that repeats the first difference.
std::string repeatedBy(const Algorithm& algorithm, const Outcome& outcome);

}  // namespace differential

#endif
