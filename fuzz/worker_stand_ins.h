// Workers that the front takes for processes. They are the other ends of its socket pairs, and
// the fuzzer speaks for them: the program is linked so that memfd_create, socketpair, posix_spawn,
// waitpid and syscall come here.
#ifndef CORVANE_FUZZ_WORKER_STAND_INS_H
#define CORVANE_FUZZ_WORKER_STAND_INS_H

#include <sys/types.h>

#include <vector>

#include "common/descriptor.h"

struct WorkerStandIn {
    Descriptor socket;
    Descriptor claims;
    pid_t pid = -1;
    bool isKilled = false;
};

// In the order of their starts.
std::vector<WorkerStandIn>& workerStandIns();

// Closes them all.
void forgetWorkerStandIns();

#endif
