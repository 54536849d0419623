// What is wrong with a command line, in sentences.
#ifndef CORVANE_HOST_COMMANDS_COMMAND_LINE_H
#define CORVANE_HOST_COMMANDS_COMMAND_LINE_H

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

// What may be meant instead is told, if it is near. Options are named; of an argument that has no
// place only that is told, as it may be a secret. `given` are all arguments.
std::string sentenceOf(const CLI::ParseError& error, const CLI::App& app,
                       const std::vector<std::string>& given);

// The command that tells more about what was meant: "corvane-host call --help".
std::string helpCommand(const CLI::App& app);

// The sentence for a name that is no subcommand's.
std::string noSubcommand(const CLI::App& app, const std::string& name);

// Has flags refuse values, as in --json=no.
void refuseFlagValues(CLI::App& app);

#endif
