#include "differential/trial.h"

#include <algorithm>
#include <cstring>
#include <numeric>

#include "support/devkit_engine.h"

namespace differential {

namespace {

std::mt19937_64 randomFor(const std::string& algorithm, uint64_t seed)
{
    std::vector<uint32_t> words(algorithm.begin(), algorithm.end());
    words.push_back(static_cast<uint32_t>(seed));
    words.push_back(static_cast<uint32_t>(seed >> 32));
    std::seed_seq sequence(words.begin(), words.end());
    return std::mt19937_64(sequence);
}

std::string shown(const std::string& bytes)
{
    constexpr size_t most = 1024;
    return std::to_string(bytes.size()) + " bytes " + support::toHex(bytes.substr(0, most)) +
           (bytes.size() > most ? "..." : "");
}

std::string shown(const Answer& answer)
{
    return answer ? shown(*answer) : "refused";
}

}  // namespace

void Counts::add(const Counts& other)
{
    cases += other.cases;
    negative += other.negative;
    refused += other.refused;
    differing += other.differing;
}

Trial::Trial(const std::string& algorithm, uint64_t seed, size_t mostBits)
    : m_random(randomFor(algorithm, seed)), m_mostBits(mostBits)
{
}

std::string Trial::bytes(size_t size)
{
    std::string bytes(size, '\0');
    for (size_t at = 0; at < size; at += sizeof(uint64_t)) {
        const uint64_t word = m_random();
        memcpy(&bytes[at], &word, std::min(size - at, sizeof word));
    }
    return bytes;
}

size_t Trial::size(size_t block)
{
    constexpr size_t most = 4096, large = size_t{1} << 20;
    if (oneIn(4000))
        return std::min(large, (large >> below(5)) + 1 - below(3));
    if (oneIn(2))
        return below(most + 1);
    const size_t beside = below(9) * block + below(3);
    return beside == 0 ? 0 : beside - 1;
}

size_t Trial::sizeBelow(size_t limit)
{
    switch (below(6)) {
        case 0:
            return 0;
        case 1:
            return limit - 1;
        default:
            return below(limit);
    }
}

std::vector<size_t> Trial::bits(size_t count)
{
    std::vector<size_t> some;
    for (int i = 0; i < 4; ++i)
        some.push_back(below(count));
    const bool all = oneIn(8);
    if (all && count <= m_mostBits) {
        some.resize(count);
        std::iota(some.begin(), some.end(), 0);
    }
    return some;
}

void Trial::expectSame(const char* what, const Answer& engine, const Answer& other)
{
    ++m_counts.cases;
    if (!engine || !other || *engine != *other)
        complain(std::string(what) + "\n    engine: " + shown(engine) +
                 "\n    other:  " + shown(other));
}

void Trial::expectSameVerdict(const char* what, const std::string& input, const Answer& engine,
                              const Answer& other)
{
    ++m_counts.cases;
    ++m_counts.negative;
    if (!engine && !other)
        ++m_counts.refused;
    if (engine != other)
        complain(std::string(what) + "\n    input:  " + shown(input) +
                 "\n    engine: " + shown(engine) + "\n    other:  " + shown(other));
}

void Trial::complainOfThrow(const std::string& what)
{
    ++m_counts.cases;
    complain(what);
}

void Trial::complain(const std::string& complaint)
{
    ++m_counts.differing;
    m_complaints.push_back(complaint);
}

std::string flipped(std::string text, size_t bit)
{
    text[bit / 8] = static_cast<char>(text[bit / 8] ^ 1 << bit % 8);
    return text;
}

}  // namespace differential
