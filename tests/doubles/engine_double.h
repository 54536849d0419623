// A crypto engine that records its calls and answers by script.
//
// The library is built as libSoftModuleaven.so, once whole and once for each of its
// functions without that function. A test loads one of them, attaches an EngineDouble
// to it and looks into the journal afterwards. Unscripted, the library succeeds: it
// copies the input to the output as far as there is room, fills outputs that have no
// input with a pattern, and gives out objects of which it keeps account.
//
// Argument names in the journal are those of engine_interface.h; a parameter block's
// fields appear as "params.<field>".
#ifndef CORVANE_TESTS_ENGINE_DOUBLE_H
#define CORVANE_TESTS_ENGINE_DOUBLE_H

#include <set>

#include "engine_interface.h"
#include "journal.h"

namespace doubles {

// The account of one kind of objects.
struct Objects {
    explicit Objects(uintptr_t firstAddress) : first(firstAddress), next(firstAddress) {}

    void* give()
    {
        void* object = reinterpret_cast<void*>(next);
        next += 0x10;
        return object;
    }

    void take(void* object)
    {
        live.insert(object);
        ++given;
    }

    void free(void* object)
    {
        if (object == nullptr)
            ++nullsFreed;
        else if (live.erase(object) != 0)
            ++freed;
        else
            ++strangersFreed;
    }

    uintptr_t first;
    uintptr_t next;
    std::set<void*> live;
    int given = 0;
    int freed = 0;
    int nullsFreed = 0;
    int strangersFreed = 0;  // never given, or freed before
};

inline std::vector<std::string> engineFunctions()
{
    return {
#define NAME(result, name, params) #name,
        AVEN_ENGINE_FUNCTIONS(NAME)
#undef NAME
    };
}

struct EngineDouble : Script {
    explicit EngineDouble(Journal& to) : Script(engineFunctions()), journal(to) {}

    Journal& journal;
    Objects sessions{0x5E550000};
    Objects keypairs{0x4B455900};
    Objects certificates{0x43455200};
    std::string text;  // holds what the last aven_version or aven_strerror returned
};

// What outputs without an input are filled with, e.g. keys and tags: 0x01, 0x02, ...
inline std::string pattern(size_t size)
{
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i + 1);
    return bytes;
}

// The name of what the library exports to be attached.
constexpr char ENGINE_ATTACH[] = "engine_double_attach";
using EngineAttach = void (*)(EngineDouble*);
constexpr int DETACHED = -99999;

}  // namespace doubles

// What records and scripts the library's calls from now on. Null detaches; the functions
// then fail with DETACHED.
extern "C" void engine_double_attach(doubles::EngineDouble* engine);

#endif
