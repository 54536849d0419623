// A parameter module and an engine that keep all that they are given in the vault and leave
// nothing elsewhere. The test program opens them in place of the dynamic loader.
#ifndef CORVANE_TESTS_VAULT_LIBRARIES_H
#define CORVANE_TESTS_VAULT_LIBRARIES_H

#include <cstddef>
#include <string_view>

namespace secrets {

// What one call may do wrong. Outputs are written all the same, and before it.
enum class Fault {
    Code,     // it returns a code
    Throws,   // it throws
    Nothing,  // it tells a length of 0
    Fewer,    // half of the length
    More,     // more than there is or may be
    Absurd,   // -1
};
constexpr Fault faults[] = {Fault::Code,  Fault::Throws, Fault::Nothing,
                            Fault::Fewer, Fault::More,   Fault::Absurd};
const char* nameOf(Fault fault);

// One call that a request made.
struct CallMade {
    const char* function;
    bool query;  // of a length alone
    bool tells;  // has an output, so that it tells a length
};

struct Pair {
    std::string_view name;
    std::string_view value;
};

// What the libraries hold and do. All that it points to is in the vault, or public.
struct Libraries {
    Pair parameters[16];
    size_t parameterCount;
    std::string_view output;  // of the engine's one operation in a request

    // Set by the calls of a request.
    CallMade calls[64];
    size_t callCount;
    Pair results[4];
    size_t resultCount;

    static constexpr size_t NONE = static_cast<size_t>(-1);
    size_t faultyCall;  // its place in `calls`, or NONE
    Fault fault;
    const char* missingFunction;  // read when the plug-in is initialised; or null
    bool engineMissing;           // likewise

    void addParameter(const char* name, std::string_view value);
    // Forgets all but the last two.
    void begin();
    // The value of a result; empty if there is none.
    std::string_view result(std::string_view name) const;
};
extern Libraries libraries;

}  // namespace secrets

#endif
