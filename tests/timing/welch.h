// Whether two rows of times have the same mean: Welch's t-test (B. L. Welch, 1947), over all times
// and over those below several limits, since what is in the way of a measurement only ever makes it
// longer (Reparaz, Balasch, Verbauwhede: "Dude, is my code constant time?", 2017).
#ifndef CORVANE_TESTS_TIMING_WELCH_H
#define CORVANE_TESTS_TIMING_WELCH_H

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

namespace timing {

// Where |t| is beyond it, the two means are taken to be different.
constexpr double T_LIMIT = 4.5;
// A case is measured so often at most: see leaks().
constexpr size_t ATTEMPTS = 3;

class Welch {
public:
    // `group` is 0 or 1.
    void add(unsigned group, double value)
    {
        Moments& moments = m_groups[group];
        moments.count += 1;
        const double delta = value - moments.mean;
        moments.mean += delta / moments.count;
        moments.squares += delta * (value - moments.mean);
    }

    // 0 where there are too few values. Infinite where each group has one value only, and the two
    // differ.
    double t() const
    {
        if (m_groups[0].count < 2 || m_groups[1].count < 2)
            return 0;
        const double difference = m_groups[0].mean - m_groups[1].mean;
        return difference == 0
                   ? 0
                   : difference / std::sqrt(m_groups[0].ofMean() + m_groups[1].ofMean());
    }

    size_t count(unsigned group) const { return static_cast<size_t>(m_groups[group].count); }

private:
    struct Moments {
        double count = 0;
        double mean = 0;
        double squares = 0;  // of the distances from the mean

        double ofMean() const { return squares / (count - 1) / count; }  // its variance
    };

    Moments m_groups[2];
};

// The test for all values and, for each of CROPS limits, for those below it.
class CroppedWelch {
public:
    static constexpr size_t CROPS = 20;
    // What fewer values say about the mean depends on how they are distributed.
    static constexpr size_t LEAST = 500;

    // The limits are the sample's quantiles, closer to each other towards its upper end: from
    // 0.29 to 0.999.
    explicit CroppedWelch(std::vector<double> sample) : m_tests(CROPS + 1)
    {
        std::sort(sample.begin(), sample.end());
        for (size_t i = 1; i <= CROPS; ++i) {
            const double part =
                1 - std::pow(0.5, 10.0 * static_cast<double>(i) / static_cast<double>(CROPS));
            const double place = part * static_cast<double>(sample.size() - 1);
            m_limits.push_back(sample[static_cast<size_t>(place)]);
        }
    }

    void add(unsigned group, double value)
    {
        m_tests[CROPS].add(group, value);
        for (size_t i = CROPS; i-- > 0 && value <= m_limits[i];)
            m_tests[i].add(group, value);
    }

    // The largest |t|.
    double most() const
    {
        double most = 0;
        for (const Welch& test : m_tests)
            if (test.count(0) >= LEAST && test.count(1) >= LEAST)
                most = std::max(most, std::abs(test.t()));
        return most;
    }

private:
    std::vector<double> m_limits;  // ascending
    std::vector<Welch> m_tests;
};

// Whether one more attempt is due after those that gave these |t|.
inline bool isUndecided(const std::vector<double>& attempts)
{
    return attempts.size() < ATTEMPTS &&
           std::all_of(attempts.begin(), attempts.end(), [](double t) { return t > T_LIMIT; });
}

// Some twenty tests look at each attempt's values, and there are many cases, so that now and then
// one is beyond the limit by chance. It is not thrice in a row, each time with new values: a case
// leaks if all of its attempts say so.
inline bool leaks(const std::vector<double>& attempts)
{
    return attempts.size() == ATTEMPTS &&
           std::all_of(attempts.begin(), attempts.end(), [](double t) { return t > T_LIMIT; });
}

}  // namespace timing

#endif
