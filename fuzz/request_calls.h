// What must hold of each call that a request makes of the engine: every argument is what
// the catalogue says of the parameter that it comes from.
#ifndef CORVANE_FUZZ_REQUEST_CALLS_H
#define CORVANE_FUZZ_REQUEST_CALLS_H

#include "doubles/engine_double.h"
#include "doubles/params_double.h"
#include "host/catalogue/catalogue.h"

namespace fuzz {

// A request that is being served.
struct SentRequest {
    const RequestInfo* info = nullptr;  // null for an unknown one
    Pairs parameters;
    long toldLength = -1;  // what reads of values tell, unless negative

    // A parameter's value as the plug-in reads it.
    std::string value(const std::string& name) const;
};

// Null if the call has no such argument.
const doubles::Argument* find(const doubles::Call& call, const std::string& name);

// Ends the process unless all of it holds. `engine` knows the objects that are alive.
void checkCall(const doubles::Call& call, const SentRequest& sent,
               const doubles::EngineDouble& engine);

}  // namespace fuzz

#endif
