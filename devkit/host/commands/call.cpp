// corvane-host call: one request, its results as JSON.
#include <chrono>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "commands.h"
#include "common/codec.h"
#include "host/catalogue/catalogue.h"
#include "host/exchange.h"
#include "host/parameters.h"
#include "host/values.h"
#include "options.h"
#include "trace.h"

namespace {

struct CallOptions {
    std::string request;
    WrittenParameters parameters;
    std::string raw;
    std::string file;
    bool hex = false;
    bool time = false;
    bool trace = false;
    bool force = false;
};

std::unique_ptr<HostSession> openSession(Program& program, bool trace)
{
    const auto start = std::chrono::steady_clock::now();
    auto session = program.openSession();
    const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - start;
    if (trace)
        traceLoading(time.count());
    return session;
}

// The bytes that results stand for, as hex digits. Codes and sessions are no bytes.
SecretPairs inHex(const RequestInfo* request, SecretPairs results)
{
    for (auto& [name, value] : results) {
        const Result* known = request == nullptr ? nullptr : findResult(*request, name);
        const Form form = known == nullptr ? Form::Text : known->form;
        if (name == "errorCode" || form == Form::Handle)
            continue;
        if (const auto bytes = decodeResult(form, value))
            value = toHex(*bytes);
        else
            tell("warning: the result " + name + " is not of its form, and not in hex");
    }
    return results;
}

// Null for standard output. Opened before the request is sent, as some happen only once.
std::unique_ptr<OutputFile> openFile(const CallOptions& options)
{
    if (isStandardOutput(options.file))
        return nullptr;
    return std::make_unique<OutputFile>(options.file, options.force);
}

// `file` is null for standard output.
void writeResults(const Program& program, OutputFile* file, const CallOptions& options,
                  const RequestInfo* request, const Outcome& outcome)
{
    const auto put = [&](const std::string& text) {
        file != nullptr ? file->write(text) : program.output.write(text);
    };
    if (options.raw.empty()) {
        auto json = toJson(options.hex ? inHex(request, outcome.results) : outcome.results);
        if (options.time)
            json["microseconds"] = outcome.microseconds;
        put(jsonText(json, 2) + "\n");
    } else if (outcome.ok) {
        const std::string bytes = resultBytes(request, outcome, options.raw);
        put(options.hex ? toHex(bytes) + "\n" : bytes);
    }
    if (options.time && !options.raw.empty())
        fprintf(stderr, "microseconds: %.1f\n", outcome.microseconds);
}

ExitCode call(Program& program, const CallOptions& options)
{
    const RequestInfo* request = requestByName(options.request, options.force);
    if (request != nullptr && !options.raw.empty() && findResult(*request, options.raw) == nullptr)
        throw UsageError(options.request + " has no result " + options.raw);
    options.parameters.check();

    // Before the values are read: opening may start the program again, and standard
    // input can be read only once.
    const auto session = openSession(program, options.trace);
    const SecretPairs parameters = options.parameters.read(request);
    warn(request, parameters);
    const auto file = openFile(options);
    if (options.trace)
        traceParameters(request, options.request, parameters);

    const Outcome outcome = exchange(*session, request, options.request, parameters);
    if (options.trace)
        traceOutcome(request, outcome);
    writeResults(program, file.get(), options, request, outcome);

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
    addParameterOptions(*command, options->parameters);
    command->add_option("--raw", options->raw, "Write only this result, decoded")
        ->type_name("RESULT")
        ->check(notEmpty());
    command->add_option("-o,--output", options->file, "Write to a new file; - for stdout")
        ->type_name("FILE")
        ->check(notEmpty());
    command->add_flag("--hex", options->hex, "Results' bytes as hex digits");
    command->add_flag("--time", options->time, "Tell the time of the request call");
    command->add_flag("--trace", options->trace,
                      "Tell parameters, results and times; of what may be secret, the length");
    command->add_flag("--force", options->force,
                      "Send a name that is not in the catalogue; replace the file of -o");
    command->callback([options, &program] { program.exitCode = call(program, *options); });
}
