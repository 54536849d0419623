// corvane-host script: several requests in one process.
#include "host/script.h"

#include <memory>

#include "commands.h"

void addScript(CLI::App& app, Program& program)
{
    const auto options = std::make_shared<ScriptOptions>();
    CLI::App* command = app.add_subcommand("script", "Send several requests in one process");
    command->add_option("file", options->file, "JSON array or lines; - for stdin")->required();
    command->add_flag("--keep-going", options->keepGoing, "Go on after a failed step");
    command->add_flag("--time", options->time, "Tell the time of each request call");
    command->add_flag("--force", options->force, "Send names that are not in the catalogue");
    command->callback([options, &program] {
        const auto session = program.openSession();
        program.exitCode = runScript(*options, *session, program.output) ? SUCCESS : REFUSED;
    });
}
