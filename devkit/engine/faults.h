// Faults on request: calls that fail, bring no result, or never return, because the
// environment variable CORVANE_ENGINE_FAULTS asks for it. README.md describes its text.
//
// The variable is read once, when the library is loaded, so that the functions that come
// before aven_global_init can fail too. Nothing changes afterwards but the counts of calls.
#ifndef CORVANE_ENGINE_FAULTS_H
#define CORVANE_ENGINE_FAULTS_H

#include <optional>

// Whether any fault may strike; never written after loading.
extern bool faultsOn;

// What a fault has a call do instead of its work.
struct Fault {
    enum Kind { Returns, Crashes, Hangs } kind = Returns;
    int code = 0;  // that it returns; 0: success, with no bytes
};

// Counts this call of an exported function and says in the log whether a fault strikes it.
// Does not return if it is to crash or to hang.
std::optional<Fault> countedFault(const char* function);

inline std::optional<Fault> faultFor(const char* function)
{
    return faultsOn ? countedFault(function) : std::nullopt;
}

// False if the variable's text is malformed. No fault strikes then.
bool faultsReadable();

// Says in the log what was asked for, if anything was.
void logFaults();

#endif
