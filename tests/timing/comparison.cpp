#include "timing/comparison.h"

#include <sched.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>

#include "timing/welch.h"

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

namespace timing {

namespace {

// Of a counter that runs evenly, read where all before it is done and nothing behind it begun.
inline uint64_t ticks()
{
#if defined(__x86_64__)
    _mm_lfence();
    const uint64_t count = __rdtsc();
    _mm_lfence();
    return count;
#elif defined(__aarch64__)
    uint64_t count = 0;
    asm volatile("isb\n\tmrs %0, cntvct_el0\n\tisb" : "=r"(count) : : "memory");
    return count;
#else
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_RAW, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
#endif
}

double nanoseconds()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

double nanosecondsPerTick()
{
    static const double perTick = [] {
        const uint64_t first = ticks();
        const double start = nanoseconds();
        while (nanoseconds() < start + 5e7) {
        }
        return (nanoseconds() - start) / static_cast<double>(ticks() - first);
    }();
    return perTick;
}

// Stays on the processor on which it is, while it lives.
class Pinned {
public:
    Pinned()
    {
        sched_getaffinity(0, sizeof m_before, &m_before);
        cpu_set_t here;
        CPU_ZERO(&here);
        CPU_SET(sched_getcpu(), &here);
        sched_setaffinity(0, sizeof here, &here);
    }
    ~Pinned() { sched_setaffinity(0, sizeof m_before, &m_before); }
    Pinned(const Pinned&) = delete;
    Pinned& operator=(const Pinned&) = delete;

private:
    cpu_set_t m_before = {};
};

struct Sample {
    unsigned kind;
    double time;  // ticks
};

Sample take(const Comparison& comparison, Random& random)
{
    const unsigned kind = static_cast<unsigned>(random() >> 63);
    comparison.choose(kind, random);
    std::atomic_thread_fence(std::memory_order_seq_cst);  // what it has written is written
    const uint64_t start = ticks();
    const int result = comparison.work();
    const uint64_t end = ticks();
    if (result != comparison.expected)
        throw std::runtime_error(comparison.what + ": got " + std::to_string(result) +
                                 " instead of " + std::to_string(comparison.expected));
    return {kind, static_cast<double>(end - start)};
}

}  // namespace

void select(unsigned kind, std::string_view first, std::string_view second, unsigned char* out)
{
    const unsigned char mask = static_cast<unsigned char>(0U - kind);
    for (size_t i = 0; i < first.size(); ++i)
        out[i] = static_cast<unsigned char>(first[i] ^ (mask & (first[i] ^ second[i])));
}

Inputs::Inputs(const std::function<std::string(unsigned)>& make, size_t count)
{
    for (size_t i = 0; i < count; ++i)
        for (unsigned kind : {0U, 1U})
            m_inputs[kind].push_back(make(kind));
    m_chosen.resize(m_inputs[0].front().size());
    for (const std::vector<std::string>& inputs : m_inputs)
        for (const std::string& input : inputs)
            if (input.size() != m_chosen.size())
                throw std::runtime_error("inputs of different sizes");
}

void Inputs::choose(unsigned kind, Random& random)
{
    const size_t place = random() % m_inputs[0].size();
    select(kind, m_inputs[0][place], m_inputs[1][place], m_chosen.data());
}

Times measure(const Comparison& comparison, size_t samples, Random& random)
{
    const Pinned pinned;
    const size_t before = std::max<size_t>(samples / 50, 200);
    for (size_t i = 0; i < before / 4; ++i)  // caches and branch prediction settle
        take(comparison, random);
    std::vector<double> first;
    while (first.size() < before)
        first.push_back(take(comparison, random).time);
    const auto middle = first.begin() + static_cast<std::ptrdiff_t>(first.size() / 2);
    std::nth_element(first.begin(), middle, first.end());
    const double typical = *middle * nanosecondsPerTick();

    CroppedWelch test(std::move(first));
    for (size_t i = 0; i < samples; ++i) {
        const Sample sample = take(comparison, random);
        test.add(sample.kind, sample.time);
    }
    return {test.most(), typical};
}

}  // namespace timing
