// The times of many calls: all of them up to a million, of more a million that are drawn at
// random, each call with the same chance.
#ifndef CORVANE_HOST_COMMANDS_LATENCIES_H
#define CORVANE_HOST_COMMANDS_LATENCIES_H

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

class Latencies {
public:
    static constexpr size_t ROOM = 1000000;

    void add(uint64_t nanoseconds)
    {
        ++m_total;
        m_max = std::max(m_max, nanoseconds);
        if (m_times.size() < ROOM)
            m_times.push_back(nanoseconds);
        else if (const uint64_t place = m_random() % m_total; place < ROOM)
            m_times[place] = nanoseconds;
    }

    uint64_t total() const { return m_total; }
    uint64_t max() const { return m_max; }

    // The time that this share of the calls, 0 to 1, did not exceed; 0 without calls.
    uint64_t percentile(double share) const
    {
        if (m_times.empty() || share >= 1)
            return m_max;
        std::vector<uint64_t> sorted = m_times;
        const double calls = std::ceil(share * static_cast<double>(sorted.size()));
        const auto last = sorted.begin() + std::max<long>(0, std::lround(calls) - 1);
        std::nth_element(sorted.begin(), last, sorted.end());
        return *last;
    }

private:
    std::vector<uint64_t> m_times;
    uint64_t m_total = 0;
    uint64_t m_max = 0;
    std::mt19937_64 m_random{std::random_device()()};
};

#endif
