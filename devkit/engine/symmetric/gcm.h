// GCM (SP 800-38D) for every cipher with a 128-bit block. Setups are checked before.
#ifndef CORVANE_ENGINE_SYMMETRIC_GCM_H
#define CORVANE_ENGINE_SYMMETRIC_GCM_H

#include "symmetric.h"

// `out` has room for in.size bytes, `tag` for `tagLength`.
void gcmSeal(const Engine& engine, const CipherSetup& setup, Bytes in, unsigned char* out,
             unsigned char* tag, size_t tagLength);

// `out` has room for in.size bytes and is wiped on failure. Throws AVEN_E_TAG_MISMATCH.
void gcmOpen(const Engine& engine, const CipherSetup& setup, Bytes in, Bytes tag,
             unsigned char* out);

#endif
