// What the test program answers in place of the C library, for the plug-in as well: malloc and its
// kin, and explicit_bzero.
#ifndef CORVANE_TESTS_TAKEN_OVER_H
#define CORVANE_TESTS_TAKEN_OVER_H

#include <cstddef>

#include "support/memory_scan.h"

namespace secrets {

// While it lives, blocks are taken one behind the other from a region of their own. What is freed
// there stays as it is until wipeFreedBlocks. One at a time.
class KeptBlocks {
public:
    KeptBlocks();
    ~KeptBlocks();
    KeptBlocks(const KeptBlocks&) = delete;
    KeptBlocks& operator=(const KeptBlocks&) = delete;
};

// Begins the region anew, unless a block of it has not been freed.
void wipeFreedBlocks();

// The part of that region that has never been used, which takes long to read.
support::MemoryRange unusedBlocks();

// Makes the nth allocation fail while it lives, counted from 1. One at a time.
class FailedAllocation {
public:
    explicit FailedAllocation(size_t n);
    ~FailedAllocation();
    FailedAllocation(const FailedAllocation&) = delete;
    FailedAllocation& operator=(const FailedAllocation&) = delete;

    bool struck() const;
};

// While it lives, explicit_bzero does nothing.
class WipingOff {
public:
    WipingOff();
    ~WipingOff();
    WipingOff(const WipingOff&) = delete;
    WipingOff& operator=(const WipingOff&) = delete;
};

}  // namespace secrets

#endif
