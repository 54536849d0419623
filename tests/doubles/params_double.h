// A parameter module that records its calls and answers by script.
//
// The library is built as libCorvaneParamsModule.so, once whole and once for each of
// its functions without that function. Unscripted it is an ordinary module: ordered
// stores, an added name that exists is replaced in place.
//
// Scripts of GetHttpParams and GetRetParams: onQuery scripts the first read (null
// value), on the second. `reported` is the length told; it may be anything. A second
// read writes no more than the length that it is called with.
//
// Argument names in the journal are those of params_interface.h.
#ifndef CORVANE_TESTS_PARAMS_DOUBLE_H
#define CORVANE_TESTS_PARAMS_DOUBLE_H

#include <utility>

#include "journal.h"
#include "params_interface.h"

namespace doubles {

using Pairs = std::vector<std::pair<std::string, std::string>>;

inline std::vector<std::string> paramsFunctions()
{
    return {
#define NAME(name, params) #name,
        CORVANE_PARAMS_FUNCTIONS(NAME)
#undef NAME
    };
}

struct ParamsDouble : Script {
    explicit ParamsDouble(Journal& to) : Script(paramsFunctions()), journal(to) {}

    Journal& journal;
    Pairs http;
    Pairs ret;
    std::string custom;
};

// The module's own codes.
constexpr int NAME_UNKNOWN = 404;
constexpr int ROOM_TOO_SMALL = 413;

// As for the engine.
constexpr char PARAMS_ATTACH[] = "params_double_attach";
using ParamsAttach = void (*)(ParamsDouble*);

}  // namespace doubles

extern "C" void params_double_attach(doubles::ParamsDouble* params);

#endif
