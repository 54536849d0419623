// One trial of an algorithm: random inputs, and what the engine and the other library make of them.
#ifndef CORVANE_TESTS_DIFFERENTIAL_TRIAL_H
#define CORVANE_TESTS_DIFFERENTIAL_TRIAL_H

#include <cstdint>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace differential {

// What a library makes of an input; nothing if it refuses it.
using Answer = std::optional<std::string>;

// Neither of the two libraries must come to this.
inline void must(bool ok, const char* what)
{
    if (!ok)
        throw std::runtime_error(what);
}

struct Counts {
    uint64_t cases = 0;      // comparisons of two answers
    uint64_t negative = 0;   // of them, of inputs that are wrong
    uint64_t refused = 0;    // of these, by both
    uint64_t differing = 0;  // of all

    void add(const Counts& other);
};

class Trial {
public:
    // The same trial for the same seed and algorithm. More than `mostBits` bits are not changed one
    // after the other.
    Trial(const std::string& algorithm, uint64_t seed, size_t mostBits);

    // ---- Chance

    uint64_t below(uint64_t limit) { return m_random() % limit; }
    bool oneIn(uint64_t times) { return below(times) == 0; }
    std::string bytes(size_t size);
    // Up to 4 KiB, often beside a multiple of the block; once in a while up to 1 MiB.
    size_t size(size_t block);
    // Less than the limit, and often the least or the most.
    size_t sizeBelow(size_t limit);
    // Which of so many bits to change, one at a time: in one trial of eight all of them, else a
    // few.
    std::vector<size_t> bits(size_t count);

    // ---- Comparisons

    // Of an input that is right: nobody refuses it.
    void expectSame(const char* what, const Answer& engine, const Answer& other);
    // Of one that is wrong: both refuse it, or both take it for the same.
    void expectSameVerdict(const char* what, const std::string& input, const Answer& engine,
                           const Answer& other);

    const Counts& counts() const { return m_counts; }
    const std::vector<std::string>& complaints() const { return m_complaints; }
    // That the trial ended before its time, which counts as a case.
    void complainOfThrow(const std::string& what);

private:
    void complain(const std::string& complaint);

    std::mt19937_64 m_random;
    size_t m_mostBits;
    Counts m_counts;
    std::vector<std::string> m_complaints;
};

// The text with one bit changed. Bit 0 is the lowest of the first byte.
std::string flipped(std::string text, size_t bit);

}  // namespace differential

#endif
