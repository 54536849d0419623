// Key derivation of ANSI X9.63, which is the one of GB/T 32918.4 too.
#ifndef CORVANE_ENGINE_KDF_H
#define CORVANE_ENGINE_KDF_H

#include "buffers.h"
#include "engine.h"

// Fills `out`, of any size, from the secret: blocks hash(secret || 32-bit counter from 1). `hash`
// is libcrypto's name. `out` is wiped on failure.
void deriveKey(const Engine& engine, const char* hash, Bytes secret, unsigned char* out,
               size_t size);

#endif
