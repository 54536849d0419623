// How the engine's functions fail. The codes are in engine_numbers.h.
#ifndef CORVANE_ENGINE_ERRORS_H
#define CORVANE_ENGINE_ERRORS_H

#include "engine_numbers.h"

// Ends a call with a code; the frame of every exported function (serve.h) returns it.
struct Failure {
    int code;
};

inline void require(bool ok, int code)
{
    if (!ok)
        throw Failure{code};
}

// The symbolic name of one of the engine's codes, or "unknown".
const char* errorName(int code);

#endif
