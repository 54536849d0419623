// Sends several requests in one process. A later one can use the results of earlier ones.
//
// A script is either a JSON array of steps, and the answer an array; or each line is a step, and
// each answer a line, so that a program at the other end of two pipes can choose its next step by
// the last answer. A step:
//
//     {"id": "k", "request": "QZaven_ke_new", "params": {...}, "allowFailure": true}
//
// Only "request" is required; a "title" is for whoever reads the script. Parameter values are texts
// in the forms of values.h, or integers. In their TEXT, ${k.Data} stands for the result "Data" of
// step "k", taken as it is, and $${ for the characters ${.
#ifndef CORVANE_HOST_SCRIPT_H
#define CORVANE_HOST_SCRIPT_H

#include <string>

#include "host_session.h"
#include "output.h"

struct ScriptOptions {
    std::string file;  // "-" for standard input
    bool keepGoing = false;
    bool time = false;
    bool force = false;  // sends names that the catalogue does not know
};

// Writes each answer as its step ends. Returns whether all steps succeeded that had to.
// Throws a UsageError for a script that cannot be read; steps before it have been sent.
bool runScript(const ScriptOptions& options, HostSession& session, Output& output);

#endif
