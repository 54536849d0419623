// Measuring: time, page faults, and several things in turn under the same conditions.
#ifndef CORVANE_BENCH_MEASURE_H
#define CORVANE_BENCH_MEASURE_H

#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

// Makes the compiler believe that the memory is read and written.
inline void touched(const void* memory)
{
    asm volatile("" : : "g"(memory) : "memory");
}

// Two clocks. The processor's counts what this thread has spent, in the kernel too: that of
// the wall for all that is measured here, but for what other processes take. Reading it is
// a system call, which what follows feels for some microseconds. The wall's can be read
// beside work that is shorter than that.
enum class Clock { Processor, Wall };

inline double nanoseconds(Clock clock)
{
    timespec time = {};
    clock_gettime(clock == Clock::Wall ? CLOCK_MONOTONIC : CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

inline double median(std::vector<double>& samples)
{
    const auto middle = samples.begin() + static_cast<ptrdiff_t>(samples.size() / 2);
    std::nth_element(samples.begin(), middle, samples.end());
    return *middle;
}

// What reading a clock twice adds to what is between.
inline double clockCost(Clock clock)
{
    const auto measure = [](Clock which) {
        std::vector<double> samples(1001);
        for (double& sample : samples) {
            const double start = nanoseconds(which);
            sample = nanoseconds(which) - start;
        }
        return median(samples);
    };
    static const double costs[] = {measure(Clock::Processor), measure(Clock::Wall)};
    return costs[static_cast<int>(clock)];
}

// Page faults of this process so far that needed no disk.
inline long minorFaults()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt;
}

// One of the things that are measured in turn.
class Contender {
public:
    // `prepare` runs before each call of `work` and is not measured. Without it a sample is
    // as many calls as take some 50 microseconds; with it, one.
    explicit Contender(std::function<void()> work, std::function<void()> prepare = nullptr)
        : m_work(std::move(work)), m_prepare(std::move(prepare))
    {
        constexpr double shortest = 5e4;
        if (m_prepare) {
            measure();  // the first call may be slow
            m_clock = (measure(), m_times.back()) < shortest ? Clock::Wall : Clock::Processor;
        } else {
            while ((measure(), m_times.back()) * static_cast<double>(m_calls) < shortest)
                m_calls *= 2;
        }
        m_times.clear();
        m_faults.clear();
    }

    void measure()
    {
        if (m_prepare)
            m_prepare();
        const long before = m_clock == Clock::Wall ? 0 : minorFaults();
        const double start = nanoseconds(m_clock);
        for (size_t i = 0; i < m_calls; ++i)
            m_work();
        const double passed = nanoseconds(m_clock) - start - clockCost(m_clock);
        m_times.push_back(passed / static_cast<double>(m_calls));
        if (m_clock == Clock::Processor)
            m_faults.push_back(static_cast<double>(minorFaults() - before));
    }

    // Medians: nanoseconds of a call, page faults of a sample (not counted in short ones).
    double time() { return median(m_times); }
    double faults() { return median(m_faults); }

private:
    std::function<void()> m_work;
    std::function<void()> m_prepare;
    Clock m_clock = Clock::Processor;
    size_t m_calls = 1;
    std::vector<double> m_times;
    std::vector<double> m_faults;
};

// Measures the contenders in turn, at least 15 rounds and about this long.
inline void race(const std::vector<Contender*>& contenders, double seconds = 1)
{
    constexpr int least = 15;
    const double end = nanoseconds(Clock::Wall) + seconds * 1e9;
    for (int round = 0; round < least || nanoseconds(Clock::Wall) < end; ++round) {
        for (Contender* contender : contenders)
            contender->measure();
    }
}

#endif
