// corvane-host script: several requests in one process.
#include "host/script.h"

#include <memory>
#include <string>
#include <string_view>

#include "commands.h"
#include "common/secrets.h"
#include "help.h"
#include "options.h"

namespace {

struct ScriptCommand {
    ScriptOptions script;
    std::string file;  // for the answers
    bool force = false;
};

ExitCode runScript(Program& program, const ScriptCommand& options)
{
    ScriptOptions chosen = options.script;
    chosen.force = options.force;
    Script script(chosen);
    const auto session = program.openSession();
    if (isStandardOutput(options.file)) {
        const bool ok =
            script.run(*session, [&](std::string_view text) { program.output.write(text); });
        return ok ? SUCCESS : REFUSED;
    }
    OutputFile file(options.file, options.force);
    SecretText answers;
    const bool ok =
        script.run(*session, [&](std::string_view text) { appendSecret(answers, text); });
    file.write(answers);
    file.keep();
    return ok ? SUCCESS : REFUSED;
}

}  // namespace

void addScript(CLI::App& app, Program& program)
{
    const auto options = std::make_shared<ScriptCommand>();
    CLI::App* command = app.add_subcommand("script", "Send several requests in one process");
    command
        ->add_option("file", options->script.file, "JSON array, or a step to a line; - for stdin")
        ->required();
    command
        ->add_option("-o,--output", options->file,
                     "Write all answers to a new file, at the end; - for stdout")
        ->type_name("FILE")
        ->check(notEmpty());
    command->add_flag("--keep-going", options->script.keepGoing, "Go on after a failed step");
    command->add_flag("--time", options->script.time, "Tell the time of each request call");
    command->add_flag("--force", options->force,
                      "Send names that are not in the catalogue; replace the file of -o");
    command->footer(std::string(valueForms) + R"(
Examples:
  echo '{"request": "QZaVen_GetVersion"}' >steps.jsonl
  corvane-host script steps.jsonl --time
  corvane-host script - -o answers.jsonl <steps.jsonl)");
    command->callback([options, &program] { program.exitCode = runScript(program, *options); });
}
