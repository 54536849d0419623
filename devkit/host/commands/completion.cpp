// corvane-host completion: scripts for shells, which ask `list` and `describe` for names.
#include <memory>
#include <string>

#include "commands.h"

// The files completion.bash, completion.zsh and completion.fish.
extern const char* const bashCompletion;
extern const char* const zshCompletion;
extern const char* const fishCompletion;

namespace {

const struct Shell {
    const char* name;
    const char* script;
} shells[] = {
    {"bash", bashCompletion},
    {"zsh", zshCompletion},
    {"fish", fishCompletion},
};

std::string scriptFor(const std::string& name)
{
    for (const Shell& shell : shells)
        if (name == shell.name)
            return shell.script;
    throw UsageError("there is no completion for " + name + "; the shells are bash, zsh and fish");
}

}  // namespace

void addCompletion(CLI::App& app, Program& program)
{
    const auto shell = std::make_shared<std::string>("bash");
    CLI::App* command =
        app.add_subcommand("completion", "Print a script that completes command lines in a shell");
    command->add_option("shell", *shell, "bash, zsh or fish; none: bash");
    command->footer(
        "Examples:\n"
        "  . <(corvane-host completion)             in bash\n"
        "  . <(corvane-host completion zsh)         in zsh\n"
        "  corvane-host completion fish | source    in fish");
    command->callback([shell, &program] { program.output.write(scriptFor(*shell)); });
}
