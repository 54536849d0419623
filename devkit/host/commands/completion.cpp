// corvane-host completion: a script for the shell, which asks `list` and `describe` for names.
#include "commands.h"

extern const char* const completionScript;  // completion.bash

void addCompletion(CLI::App& app, Program& program)
{
    CLI::App* command =
        app.add_subcommand("completion", "Print a script that completes command lines in bash");
    command->callback([&program] { program.output.write(completionScript); });
}
