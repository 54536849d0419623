// What the comparisons share: the engine, random bytes, a check while inputs are made.
#ifndef CORVANE_TESTS_TIMING_TOOLBOX_H
#define CORVANE_TESTS_TIMING_TOOLBOX_H

#include <memory>
#include <stdexcept>
#include <string>

#include "support/devkit_engine.h"
#include "timing/comparison.h"

namespace timing {

inline void must(bool ok, const char* what)
{
    if (!ok)
        throw std::runtime_error(what);
}

// The development engine as it ships, running.
inline const support::DevkitEngine& engine()
{
    static const support::DevkitEngine engine;
    static const bool runs = engine.aven_global_init() == 0;
    must(runs, "the engine does not start");
    return engine;
}

inline const unsigned char* bytes(const std::string& text)
{
    return reinterpret_cast<const unsigned char*>(text.data());
}
inline unsigned char* bytes(std::string& text)
{
    return reinterpret_cast<unsigned char*>(text.data());
}
inline uint32_t size32(const std::string& text)
{
    return static_cast<uint32_t>(text.size());
}

// A byte in [low, 255].
inline char randomByte(Random& random, unsigned low = 0)
{
    return static_cast<char>(low + random() % (256 - low));
}

inline std::string randomBytes(size_t size, Random& random, unsigned low = 0)
{
    std::string bytes;
    while (bytes.size() < size)
        bytes += randomByte(random, low);
    return bytes;
}

// Makes the byte another one.
inline void damage(std::string& text, size_t place, Random& random)
{
    text[place] = static_cast<char>(text[place] ^ randomByte(random, 1));
}

// A comparison whose work is `work(inputs)`, which returns an int.
template <class Work>
Comparison compare(const std::string& what, const std::string& kinds, int expected,
                   std::shared_ptr<Inputs> inputs, Work work, Cost cost = Cost::Microseconds)
{
    Comparison made;
    made.what = what;
    made.kinds = kinds;
    made.cost = cost;
    made.mustLeak = false;
    made.choose = [inputs](unsigned kind, Random& random) { inputs->choose(kind, random); };
    made.work = [inputs, work] { return work(*inputs); };
    made.expected = expected;
    return made;
}

}  // namespace timing

#endif
