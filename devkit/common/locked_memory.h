// Keeps a process's memory out of swap.
#ifndef CORVANE_COMMON_LOCKED_MEMORY_H
#define CORVANE_COMMON_LOCKED_MEMORY_H

#include <stdexcept>

struct LockError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Each page stays in memory from its first use on, so that none is taken in advance. Locks are not
// inherited: each process has to do it. Needs CAP_IPC_LOCK or no limit of locked memory, as at a
// limit there would be no more memory later. Throws a LockError that tells why it cannot be done.
void lockMemory();

#endif
