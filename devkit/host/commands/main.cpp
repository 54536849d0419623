// corvane-host: the common options, exit codes and error reports of all subcommands.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <sstream>

#include "commands.h"
#include "common/version.h"
#include "host/exchange.h"
#include "host/known_names.h"
#include "options.h"
#include "program.h"

namespace {

ExitCode reportParseError(const CLI::ParseError& e, const CLI::App& app, const Output& output)
{
    if (e.get_exit_code() == SUCCESS) {
        std::ostringstream help;
        app.exit(e, help, help);
        output.write(help.str());
        return SUCCESS;
    }
    // An argument that has no place may be a secret; its text stays unsaid.
    const bool unplaced = dynamic_cast<const CLI::ExtrasError*>(&e) != nullptr;
    tell(unplaced ? "an option is not known, or an argument has no place; parameters are written "
                    "name=value"
                  : e.what());
    tell("see corvane-host --help");
    return USAGE;
}

ExitCode run(int argc, char** argv)
{
    Program program(argv);
    CLI::App app("Reference host of the Corvane crypto plug-in", "corvane-host");
    app.require_subcommand(1);
    app.fallthrough();
    app.set_version_flag("--version", "corvane-host " + versionWithCommit(), "Print the version");
    app.add_option("--plugin", program.paths.plugin, "Plug-in library")->type_name("PATH");
    app.add_option("--params", program.paths.params, "Parameter module library")->type_name("PATH");
    app.add_option("--engine", program.paths.engine, "Crypto engine library")->type_name("PATH");
    app.add_option("--names", program.names,
                   "Which names of numbers are known: auto (default), development, none, or FILE")
        ->type_name("WHAT")
        ->check(notEmpty());
    app.parse_complete_callback([&program] { useKnownNames(program.names, program.paths); });
    app.footer(
        "Values of parameters:\n"
        "  text:TEXT    a text                   hex:DIGITS  bytes: as the parameter takes them,\n"
        "                                        as URL-safe Base64 or as they are\n"
        "  b64:TEXT     its URL-safe Base64      b64:@FILE   a file's, b64:@- for stdin's\n"
        "  TEXT, @FILE  as they are; refused where Base64 is due and they are none\n"
        "  raw:TEXT     as it is, whatever it is and whatever is due; raw:@FILE likewise\n"
        "Exit codes: 0 success, 1 refused by plug-in or engine, 2 usage or file, 3 loading");

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

    try {
        app.parse(argc, argv);
        return program.exitCode;
    } catch (const CLI::ParseError& e) {
        return reportParseError(e, app, program.output);
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
    } catch (const std::exception& e) {
        // Out of memory, or an output that cannot be written.
        fprintf(stderr, "corvane-host: %s\n", e.what());
        return USAGE;
    }
}
