// Completion of command lines in bash.
#ifndef CORVANE_HOST_CATALOGUE_COMPLETION_H
#define CORVANE_HOST_CATALOGUE_COMPLETION_H

#include <string>
#include <vector>

struct Subcommand {
    std::string name;
    std::vector<std::string> options;  // "--json" and the like
    bool takesRequest;                 // a request's name comes first
    bool takesParameters;              // and then name=value
};

// A script for the shell to read. It has the names of requests, parameters and allowed
// values in it, so that completing starts no program.
std::string completionScript(const std::vector<Subcommand>& subcommands);

#endif
