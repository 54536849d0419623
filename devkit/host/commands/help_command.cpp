// corvane-host help and version: what --help and --version print.
#include <memory>
#include <string>

#include "command_line.h"
#include "commands.h"
#include "common/version.h"
#include "help.h"

void addHelp(CLI::App& app, Program& program)
{
    const auto name = std::make_shared<std::string>();
    CLI::App* command = app.add_subcommand("help", "Print the help of a subcommand, or of all");
    command->add_option("subcommand", *name, "Its name; none: what there is");
    command->footer("Examples:\n  corvane-host help\n  corvane-host help call");
    command->callback([name, &app, &program] {
        if (name->empty())
            return program.output.write(helpOf(app));
        for (const CLI::App* about : app.get_subcommands([](const CLI::App*) { return true; }))
            if (about->get_name() == *name && !about->get_group().empty())
                return program.output.write(helpOf(*about));
        throw UsageError(noSubcommand(app, *name));
    });
}

void addVersion(CLI::App& app, Program& program)
{
    CLI::App* command = app.add_subcommand("version", "Print the version, as --version does");
    command->footer("Examples:\n  corvane-host version\n  corvane-host --version");
    command->callback(
        [&program] { program.output.write("corvane-host " + versionWithCommit() + "\n"); });
}
