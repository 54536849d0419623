// The subcommands, a unit each. A function adds one to the command line: its options,
// and what it does once the whole line has been read.
#ifndef CORVANE_HOST_COMMANDS_COMMANDS_H
#define CORVANE_HOST_COMMANDS_COMMANDS_H

#include <CLI/CLI.hpp>

#include "program.h"

void addCall(CLI::App& app, Program& program);
void addScript(CLI::App& app, Program& program);
void addList(CLI::App& app, Program& program);
void addDescribe(CLI::App& app, Program& program);
void addServe(CLI::App& app, Program& program);
void addWorker(CLI::App& app, Program& program);  // for serve alone
void addBench(CLI::App& app, Program& program);
void addDoctor(CLI::App& app, Program& program);
void addExplain(CLI::App& app, Program& program);
void addOpenApi(CLI::App& app, Program& program);
void addCompletion(CLI::App& app, Program& program);
void addHelp(CLI::App& app, Program& program);
void addVersion(CLI::App& app, Program& program);

#endif
