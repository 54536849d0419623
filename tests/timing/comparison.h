// Two kinds of input, whose times must not differ.
#ifndef CORVANE_TESTS_TIMING_COMPARISON_H
#define CORVANE_TESTS_TIMING_COMPARISON_H

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace timing {

using Random = std::mt19937_64;

// Copies one of two texts of the same size, by reading and writing alike for either kind.
void select(unsigned kind, std::string_view first, std::string_view second, unsigned char* out);

// Inputs of both kinds, all of one size: many, as with ciphers that look things up in tables the
// time depends a little on each one, and a few would differ by that. The one that is chosen is put
// where the work takes it from by reading one of each kind, so that neither is in a nearer cache
// than the other.
class Inputs {
public:
    // `make(kind)` gives an input; so many are made of each kind.
    explicit Inputs(const std::function<std::string(unsigned)>& make, size_t count = 16384);

    void choose(unsigned kind, Random& random);

    const unsigned char* data() const { return m_chosen.data(); }
    uint32_t size() const { return static_cast<uint32_t>(m_chosen.size()); }

private:
    std::vector<std::string> m_inputs[2];
    std::vector<unsigned char> m_chosen;
};

// How long the work takes.
enum class Cost { Microseconds, PrivateKey };

struct Comparison {
    std::string what;
    std::string kinds;  // "one | the other"
    Cost cost;
    bool mustLeak;  // it is here to show that a leak is found
    std::function<void(unsigned, Random&)> choose;
    std::function<int()> work;  // what is measured
    int expected;               // what the work returns for inputs of either kind
};

struct Times {
    double mostT;    // the largest |t|
    double typical;  // the median of nanoseconds
};

// Measures so many calls, whose kinds are drawn at random. Throws a std::runtime_error if the
// work returns something unexpected.
Times measure(const Comparison& comparison, size_t samples, Random& random);

// ---- The comparisons. What they use lives as long as the program.

// Those that leak, to show that this is found.
void addLeaks(std::vector<Comparison>& all, Random& random);
// GCM's tags, also of the key exchange's channel, and padding.
void addSymmetric(std::vector<Comparison>& all, Random& random);
// Decryption by private keys, and envelopes.
void addPrivateKeys(std::vector<Comparison>& all, Random& random);
// Tokens that clients show.
void addTokens(std::vector<Comparison>& all, Random& random);

}  // namespace timing

#endif
