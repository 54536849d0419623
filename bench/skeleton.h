// The floor under a symmetric encryption request: the same reads, copies, zero-fills and
// writes, with a copy of the payload in the place of each conversion.
#ifndef CORVANE_BENCH_SKELETON_H
#define CORVANE_BENCH_SKELETON_H

#include <cstddef>

#include "host.h"

// Serves a stored request whose payload has this many bytes.
void encryptionSkeleton(const Host& host, size_t payload);

#endif
