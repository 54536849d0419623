// Times of many calls in fixed memory: exact below 256 ns, to within 1 % above.
#ifndef CORVANE_HOST_COMMANDS_LATENCY_HISTOGRAM_H
#define CORVANE_HOST_COMMANDS_LATENCY_HISTOGRAM_H

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>

class LatencyHistogram {
public:
    void add(uint64_t nanoseconds)
    {
        ++m_counts[bucketOf(nanoseconds)];
        ++m_total;
        m_max = std::max(m_max, nanoseconds);
    }

    uint64_t total() const { return m_total; }
    uint64_t max() const { return m_max; }

    // The time that this share of the calls, 0 to 1, did not exceed; 0 without calls.
    uint64_t percentile(double share) const
    {
        const auto wanted = static_cast<uint64_t>(std::ceil(share * static_cast<double>(m_total)));
        uint64_t seen = 0;
        for (size_t bucket = 0; bucket < m_counts.size(); ++bucket) {
            seen += m_counts[bucket];
            if (seen >= wanted && seen != 0)
                return std::min(m_max, lastOf(bucket));
        }
        return m_max;
    }

private:
    // Each doubling above 256 has 128 buckets, so that a value keeps its eight upper bits.
    static size_t bucketOf(uint64_t value)
    {
        if (value < 256)
            return static_cast<size_t>(value);
        const unsigned shift = 56U - static_cast<unsigned>(__builtin_clzll(value));
        return 128 * size_t{shift} + static_cast<size_t>(value >> shift);
    }

    // The largest value that falls into the bucket.
    static uint64_t lastOf(size_t bucket)
    {
        if (bucket < 256)
            return bucket;
        const size_t shift = bucket / 128 - 1;
        return ((uint64_t{bucket - 128 * shift} + 1) << shift) - 1;
    }

    std::array<uint64_t, size_t{128}* 58> m_counts = {};
    uint64_t m_total = 0;
    uint64_t m_max = 0;
};

#endif
