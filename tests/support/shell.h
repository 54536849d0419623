// Commands of the shell.
#ifndef CORVANE_TESTS_SHELL_H
#define CORVANE_TESTS_SHELL_H

#include <cstdio>
#include <string>

namespace support {

struct ShellOutcome {
    int status = -1;     // as of wait(2)
    std::string output;  // of both streams
};

inline ShellOutcome shell(const std::string& command)
{
    ShellOutcome outcome;
    FILE* output = popen(("{ " + command + "\n} 2>&1").c_str(), "r");
    if (output == nullptr)
        return outcome;
    char part[4096];
    for (size_t got; (got = fread(part, 1, sizeof part, output)) > 0;)
        outcome.output.append(part, got);
    outcome.status = pclose(output);
    return outcome;
}

}  // namespace support

#endif
