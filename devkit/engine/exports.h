// Declares the engine's functions, so that a definition with a wrong signature does not
// compile and they alone are exported.
#ifndef CORVANE_ENGINE_EXPORTS_H
#define CORVANE_ENGINE_EXPORTS_H

#define AVEN_ENGINE_PROTOTYPES
#include "engine_interface.h"

#endif
