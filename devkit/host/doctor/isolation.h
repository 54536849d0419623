// Checks that call into libraries, run in other processes: a library that crashes or hangs
// costs the check in which it did, not the report.
#ifndef CORVANE_HOST_DOCTOR_ISOLATION_H
#define CORVANE_HOST_DOCTOR_ISOLATION_H

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "finding.h"

using Tell = std::function<void(const Finding&)>;

struct Check {
    std::string name;
    std::function<void(const Tell&)> run;  // an exception is a failure of the check
    bool loading = false;                  // without it a host cannot load the libraries
};

// Runs the checks in order in one child process; those behind a check that ended it run in
// another one. A child may take as long as `limit`; after the third that ended, the rest is
// left. To be called from a process without other threads.
Findings runIsolated(const std::vector<Check>& checks, std::chrono::seconds limit);

#endif
