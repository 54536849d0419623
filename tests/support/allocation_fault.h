// Makes one allocation fail. A test program that links allocation_fault.cpp answers
// malloc, calloc, realloc and operator new itself, for the plug-in as well, and passes
// them on. It can also look at what operator delete is given.
//
// It does not work where something else has taken malloc over before, as valgrind does:
// tests that arm a fault must begin with SKIP_WITHOUT_ALLOCATION_FAULTS.
#ifndef CORVANE_TESTS_ALLOCATION_FAULT_H
#define CORVANE_TESTS_ALLOCATION_FAULT_H

#include <gtest/gtest.h>

#include <string_view>

#include "doubles/journal.h"

namespace support {

// Armed while it lives; one at a time. Allocations made inside the doubles that write
// into `journal` are neither counted nor failed.
class AllocationFault {
public:
    // Fails the nth allocation from now on, counted from 1.
    static AllocationFault nth(const doubles::Journal& journal, size_t n);
    // Fails the first allocation of exactly, or of at least, so many bytes.
    static AllocationFault exactly(const doubles::Journal& journal, size_t bytes);
    static AllocationFault atLeast(const doubles::Journal& journal, size_t bytes);

    AllocationFault(const AllocationFault&) = delete;
    AllocationFault& operator=(const AllocationFault&) = delete;
    ~AllocationFault();

    // Whether an allocation has failed.
    bool struck() const;

private:
    AllocationFault() = default;
};

// Looks at every block that operator delete gets while it lives; one at a time.
class FreedBlocks {
public:
    // Blocks that hold these bytes are counted. They must outlive this.
    explicit FreedBlocks(std::string_view marker);
    FreedBlocks(const FreedBlocks&) = delete;
    FreedBlocks& operator=(const FreedBlocks&) = delete;
    ~FreedBlocks();

    size_t counted() const;
};

// Whether faults reach malloc and operator new in this process.
bool allocationFaultsWork();

}  // namespace support

#define SKIP_WITHOUT_ALLOCATION_FAULTS()                                              \
    if (!support::allocationFaultsWork())                                             \
    GTEST_SKIP() << "NOT TESTED: allocations cannot be made to fail in this process " \
                    "(malloc is taken over, e.g. by valgrind)"

#endif
