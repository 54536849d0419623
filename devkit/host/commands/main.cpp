// corvane-host: the common options, exit codes and error reports of all subcommands.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include "command_line.h"
#include "commands.h"
#include "common/version.h"
#include "help.h"
#include "host/exchange.h"
#include "host/known_names.h"
#include "options.h"
#include "program.h"

namespace {

using Arguments = std::vector<std::string>;

ExitCode reportParseError(const CLI::ParseError& e, const CLI::App& app, const Program& program,
                          const Arguments& given)
{
    if (dynamic_cast<const CLI::CallForVersion*>(&e) != nullptr) {
        program.output.write(std::string(e.what()) + "\n");
    } else if (e.get_exit_code() == SUCCESS) {
        const auto chosen = app.get_subcommands();
        program.output.write(helpOf(chosen.empty() ? app : *chosen.back()));
    } else {
        if (given.empty())
            fputs((helpOf(app) + "\n").c_str(), stderr);
        tell(sentenceOf(e, app, given));
        if (!given.empty())
            tell("see " + helpCommand(app));
        return USAGE;
    }
    return SUCCESS;
}

void addColour(CLI::App& app, std::string& when)
{
    app.add_option("--color", when,
                   "Colours: auto (on a terminal, unless NO_COLOR is set), always or never")
        ->type_name("WHEN")
        ->check(oneOf({"auto", "always", "never"}));
}

// Before anything is told, also of a command line that is wrong further on.
void chooseLooks(Program& program, const std::string& when)
{
    program.colours = when == "always"  ? Colours::Always
                      : when == "never" ? Colours::Never
                                        : Colours::Auto;
    chooseTelling(hasColours(program.colours, STDERR_FILENO), columnsOf(STDERR_FILENO));
    if (const size_t columns = columnsOf(program.output.descriptor()))
        chooseColumns(columns);
}

ExitCode run(int argc, char** argv)
{
    Program program(argv);
    std::string colours = "auto";
    CLI::App app("Reference host of the Corvane crypto plug-in", "corvane-host");
    app.require_subcommand(1);
    app.fallthrough();
    app.formatter(helpFormatter());
    app.set_help_flag("-h,--help", "Print this help");
    app.set_version_flag("--version", "corvane-host " + versionWithCommit(), "Print the version");
    app.add_option("--plugin", program.paths.plugin, "Plug-in library")
        ->type_name("PATH")
        ->check(notEmpty());
    app.add_option("--params", program.paths.params, "Parameter module library")
        ->type_name("PATH")
        ->check(notEmpty());
    app.add_option("--engine", program.paths.engine, "Crypto engine library")
        ->type_name("PATH")
        ->check(notEmpty());
    app.add_option("--names", program.names,
                   "Which names of numbers are known: auto (default), development, none, or FILE")
        ->type_name("WHAT")
        ->check(notEmpty());
    app.add_flag("-q,--quiet", program.paths.isQuiet,
                 "Without the engine's log; errors, warnings and advice stay");
    addColour(app, colours);
    app.footer(R"(Examples:
  corvane-host list
  corvane-host describe QZaven_crypto_hmac
  corvane-host call QZaVen_GetVersion

Exit codes: 0 success, 1 refused by plug-in/engine, 2 usage or file, 3 loading)");

    addCall(app, program);
    addScript(app, program);
    addServe(app, program);
    addWorker(app, program);
    addList(app, program);
    addDescribe(app, program);
    addBench(app, program);
    addDoctor(app, program);
    addExplain(app, program);
    addOpenApi(app, program);
    addCompletion(app, program);
    addHelp(app, program);
    addVersion(app, program);
    refuseFlagValues(app);
    app.parse_complete_callback([&] {
        chooseLooks(program, colours);
        useKnownNames(program.names, program.paths);
    });

    chooseLooks(program, colours);
    try {
        app.parse(argc, argv);
        return program.exitCode;
    } catch (const CLI::ParseError& e) {
        chooseLooks(program, colours);
        return reportParseError(e, app, program, Arguments(argv + 1, argv + argc));
    } catch (const UsageError& e) {
        tell(e.what());
        return USAGE;
    } catch (const LoadError& e) {
        tell(e.what());
        return LOADING;
    }
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const std::bad_alloc&) {
        fputs(
            "corvane-host: not enough memory: values and results have to fit into what there is, "
            "several times over\n",
            stderr);
        return USAGE;
    } catch (const std::exception& e) {
        // An output that cannot be written.
        fprintf(stderr, "corvane-host: %s\n", e.what());
        return USAGE;
    }
}
