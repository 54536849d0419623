// Declares the engine's 34 functions from the contract's list, so that a definition
// with a wrong signature does not compile.
#ifndef CORVANE_ENGINE_EXPORTS_H
#define CORVANE_ENGINE_EXPORTS_H

#include "engine_interface.h"

#define DECLARE(result, name, params) \
    extern "C" __attribute__((visibility("default"))) result name params;
AVEN_ENGINE_FUNCTIONS(DECLARE)
#undef DECLARE

#endif
