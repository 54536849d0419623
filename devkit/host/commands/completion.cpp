// corvane-host completion: a script for the shell.
#include "host/catalogue/completion.h"

#include "commands.h"

namespace {

Subcommand toSubcommand(const CLI::App& command)
{
    Subcommand subcommand = {command.get_name(), {}, false, false};
    for (const CLI::Option* option : command.get_options()) {
        for (const std::string& name : option->get_lnames())
            subcommand.options.push_back("--" + name);
        subcommand.takesRequest |= option->get_name() == "request";
        subcommand.takesParameters |= option->get_name() == "parameters";
    }
    return subcommand;
}

}  // namespace

void addCompletion(CLI::App& app, Program& program)
{
    CLI::App* command =
        app.add_subcommand("completion", "Print a script that completes command lines in bash");
    command->callback([&app, &program] {
        std::vector<Subcommand> subcommands;
        for (const CLI::App* one : app.get_subcommands([](const CLI::App*) { return true; }))
            if (!one->get_group().empty())  // the hidden ones have none
                subcommands.push_back(toSubcommand(*one));
        program.output.write(completionScript(subcommands));
    });
}
