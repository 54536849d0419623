// corvane-host call: one request, its results as JSON.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "catalogue.h"
#include "commands.h"
#include "exchange.h"
#include "values.h"

namespace {

struct CallOptions {
    std::string request;
    std::vector<std::string> params;
    std::string raw;
    std::string file;
    bool time = false;
    bool force = false;
};

std::string asWritten(const std::string& text)
{
    return text;
}

// Splits name=value arguments. One without "=" is not quoted: it may be a value.
Pairs splitArguments(const std::vector<std::string>& arguments)
{
    Pairs pairs;
    for (size_t i = 0; i < arguments.size(); ++i) {
        const size_t equals = arguments[i].find('=');
        if (equals == std::string::npos || equals == 0)
            throw UsageError("parameter " + std::to_string(i + 1) + " is not written name=value");
        const std::string name = arguments[i].substr(0, equals);
        if (findValue(pairs, name) != nullptr)
            throw UsageError(name + " is given twice");
        pairs.emplace_back(name, arguments[i].substr(equals + 1));
    }
    return pairs;
}

ExitCode call(Program& program, const CallOptions& options)
{
    const RequestInfo* request = requestByName(options.request, options.force);
    if (request != nullptr && !options.raw.empty() && findResult(*request, options.raw) == nullptr)
        throw UsageError(options.request + " has no result " + options.raw);
    Pairs parameters = splitArguments(options.params);

    // Before the values are read: opening may start the program again, and standard
    // input can be read only once.
    const auto session = program.openSession();
    ValueReader reader(true);
    for (auto& [name, value] : parameters)
        value = reader.read(name, value, asWritten);

    warn(request, parameters);
    const Outcome outcome = exchange(*session, request, options.request, parameters);
    if (options.raw.empty()) {
        auto json = toJson(outcome.results);
        if (options.time)
            json["microseconds"] = outcome.microseconds;
        program.output.write(write(json, 2) + "\n", options.file);
    } else if (outcome.ok) {
        program.output.write(resultBytes(request, outcome, options.raw), options.file);
    }
    if (options.time && !options.raw.empty())
        fprintf(stderr, "microseconds: %.1f\n", outcome.microseconds);

    if (outcome.ok)
        return SUCCESS;
    tell(failureLine(options.request, outcome));
    return REFUSED;
}

}  // namespace

void addCall(CLI::App& app, Program& program)
{
    const auto options = std::make_shared<CallOptions>();
    CLI::App* command =
        app.add_subcommand("call", "Send one request and print its results as JSON");
    command->add_option("request", options->request, "Name of the request")->required();
    command->add_option("parameters", options->params, "name=value ...");
    command->add_option("--raw", options->raw, "Write only this result, decoded")
        ->type_name("RESULT");
    command->add_option("-o,--output", options->file, "Write to a file")->type_name("FILE");
    command->add_flag("--time", options->time, "Tell the time of the request call");
    command->add_flag("--force", options->force, "Send a name that is not in the catalogue");
    command->callback([options, &program] { program.exitCode = call(program, *options); });
}
