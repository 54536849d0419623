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

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host_session.h"
#include "script_steps.h"

struct ScriptOptions {
    std::string file;  // "-" for standard input
    bool keepGoing = false;
    bool time = false;
    bool force = false;  // sends names that the catalogue does not know
};

// Takes the answers, piece by piece.
using Answers = std::function<void(std::string_view)>;

class Script {
public:
    // Reads and checks a file whole, so that no request is sent if a later one is wrong. Reads
    // nothing of standard input. Throws a UsageError with the place of the fault.
    explicit Script(const ScriptOptions& options);

    // Writes each answer as its step ends. Returns whether all steps succeeded that had to.
    // Throws a UsageError; of standard input, steps before the fault have been sent.
    bool run(HostSession& session, const Answers& answers);

private:
    class Runner;

    void readArray(const std::string& text);
    // Nothing for a blank line.
    std::optional<Step> readLine(const std::string& line, size_t number);
    // "FILE:LINE:COLUMN: "
    std::string at(const std::string& place) const;
    void runArray(Runner& runner, const Answers& answers) const;
    void converse(Runner& runner, const Answers& answers);

    ScriptOptions m_options;
    StepReader m_reader;
    std::vector<Step> m_steps;
    bool m_isArray = false;
};

#endif
