// `corvane-host serve`: the front process.
#ifndef CORVANE_SERVICE_SERVE_H
#define CORVANE_SERVICE_SERVE_H

#include <string>
#include <vector>

#include "host/output.h"
#include "service/operation/options.h"

// Runs until a signal ends it, and all answers are out. `worker` is the command line that
// makes this program a worker. Throws a UsageError.
void serve(ServeOptions options, std::vector<std::string> worker, const Output& output);

#endif
