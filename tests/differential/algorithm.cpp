#include "differential/algorithm.h"

#include <exception>

namespace differential {

const Algorithms& algorithms()
{
    static const Algorithms all = [] {
        Algorithms some;
        addSymmetric(some);
        addGcm(some);
        addMacKdf(some);
        addRsa(some);
        addSm2(some);
        addKeyTexts(some);
        addKeyExchange(some);
        addBase64(some);
        return some;
    }();
    return all;
}

Outcome run(const Algorithm& algorithm, uint64_t seed, uint64_t cases, size_t mostBits)
{
    Outcome outcome;
    for (; outcome.counts.cases < cases; ++seed) {
        Trial trial(algorithm.name, seed, mostBits);
        try {
            algorithm.trial(trial);
        } catch (const std::exception& e) {
            trial.complainOfThrow(e.what());
        }
        outcome.counts.add(trial.counts());
        if (trial.counts().differing > 0 && !outcome.differingSeed) {
            outcome.differingSeed = seed;
            outcome.complaint = trial.complaints().front();
        }
    }
    return outcome;
}

std::string repeatedBy(const Algorithm& algorithm, const Outcome& outcome)
{
    return "differential_check --only '" + algorithm.name + "' --seed " +
           std::to_string(outcome.differingSeed.value_or(0)) + " --cases 1";
}

}  // namespace differential
