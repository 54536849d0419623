// corvane-host: sends requests to the plug-in from the command line, or serves them.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "bare_names.h"
#include "catalogue.h"
#include "exchange.h"
#include "host_session.h"
#include "output.h"
#include "script.h"
#include "serve/secrets.h"
#include "serve/serve.h"
#include "serve/worker.h"
#include "serve/worker_process.h"
#include "values.h"

namespace {

enum ExitCode {
    SUCCESS = 0,
    REFUSED = 1,  // by the plug-in or the engine
    USAGE = 2,    // or a file that cannot be read or written
    LOADING = 3,
};

struct CallOptions {
    std::string request;
    std::vector<std::string> params;
    std::string raw;
    std::string file;
    bool time = false;
    bool force = false;
};

struct ListOptions {
    std::string request;
    bool json = false;
};

class Program {
public:
    explicit Program(char** argv) : argv_(argv) {}

    int run(int argc);

private:
    int call();
    int script();
    void serve();
    void work();
    void list();
    void describeOne();
    std::unique_ptr<HostSession> openSession();
    int reportParseError(const CLI::ParseError& e, const CLI::App& app);

    char** argv_;
    Output output_;
    BareNames bareNames_;
    LibraryPaths paths_;
    CallOptions callOptions_;
    ScriptOptions scriptOptions_;
    ServeOptions serveOptions_;
    ListOptions listOptions_;
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

std::unique_ptr<HostSession> Program::openSession()
{
    const LibraryPaths paths = withDefaults(paths_);
    try {
        return std::make_unique<HostSession>(paths);
    } catch (const BareNameError&) {
        bareNames_.startAgain(paths, argv_, output_);
        throw;
    }
}

int Program::call()
{
    const CallOptions& options = callOptions_;
    const RequestInfo* request = requestByName(options.request, options.force);
    if (request != nullptr && !options.raw.empty() && findResult(*request, options.raw) == nullptr)
        throw UsageError(options.request + " has no result " + options.raw);
    Pairs parameters = splitArguments(options.params);

    // Before the values are read: opening may start the program again, and standard
    // input can be read only once.
    const auto session = openSession();
    ValueReader reader(true);
    for (auto& [name, value] : parameters)
        value = reader.read(name, value, asWritten);

    const Outcome outcome = exchange(*session, request, options.request, parameters);
    if (options.raw.empty()) {
        auto json = toJson(outcome.results);
        if (options.time)
            json["microseconds"] = outcome.microseconds;
        output_.write(write(json, 2) + "\n", options.file);
    } else if (outcome.ok) {
        output_.write(resultBytes(request, outcome, options.raw), options.file);
    }
    if (options.time && !options.raw.empty())
        fprintf(stderr, "microseconds: %.1f\n", outcome.microseconds);

    if (outcome.ok)
        return SUCCESS;
    tell(failureLine(options.request, outcome));
    return REFUSED;
}

int Program::script()
{
    const auto session = openSession();
    return runScript(scriptOptions_, *session, output_) ? SUCCESS : REFUSED;
}

void Program::serve()
{
    std::vector<std::string> worker = {argv_[0]};
    for (const auto& [option, path] : {std::pair("--plugin", paths_.plugin),
                                       {"--params", paths_.params},
                                       {"--engine", paths_.engine}})
        if (!path.empty())
            worker.insert(worker.end(), {option, path});
    worker.emplace_back("worker");
    ::serve(serveOptions_, std::move(worker), output_);
}

// The other side of serve(): one of its processes.
void Program::work()
{
    tieToParent();
    const Undumpable undumpable;
    const auto session = openSession();
    bareNames_.removeFolder();
    Worker(*session).serve(workerSocket);
}

void Program::list()
{
    if (!listOptions_.json)
        return output_.write(listRequests());
    auto json = nlohmann::ordered_json::array();
    for (const RequestInfo& request : catalogue())
        json.push_back(toJson(request));
    output_.write(write(json, 2) + "\n");
}

void Program::describeOne()
{
    const RequestInfo* request = requestByName(listOptions_.request, false);
    output_.write(listOptions_.json ? write(toJson(*request), 2) + "\n" : describe(*request));
}

int Program::reportParseError(const CLI::ParseError& e, const CLI::App& app)
{
    if (e.get_exit_code() == SUCCESS) {
        std::ostringstream help;
        app.exit(e, help, help);
        output_.write(help.str());
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

int Program::run(int argc)
{
    CLI::App app("Reference host of the Corvane crypto plug-in", "corvane-host");
    app.require_subcommand(1);
    app.fallthrough();
    app.add_option("--plugin", paths_.plugin, "Plug-in library")->type_name("PATH");
    app.add_option("--params", paths_.params, "Parameter module library")->type_name("PATH");
    app.add_option("--engine", paths_.engine, "Crypto engine library")->type_name("PATH");
    app.footer(
        "Values of parameters:\n"
        "  TEXT         the text as it is        @FILE       a file's bytes, @- for stdin\n"
        "  b64:TEXT     its URL-safe Base64      b64:@FILE   a file's URL-safe Base64\n"
        "  hex:DIGITS   Base64 of these bytes    text:TEXT   a text with such a beginning\n"
        "Exit codes: 0 success, 1 refused by plug-in or engine, 2 usage or file, 3 loading");

    CLI::App* call = app.add_subcommand("call", "Send one request and print its results as JSON");
    call->add_option("request", callOptions_.request, "Name of the request")->required();
    call->add_option("parameters", callOptions_.params, "name=value ...");
    call->add_option("--raw", callOptions_.raw, "Write only this result, decoded")
        ->type_name("RESULT");
    call->add_option("-o,--output", callOptions_.file, "Write to a file")->type_name("FILE");
    call->add_flag("--time", callOptions_.time, "Tell the time of the request call");
    call->add_flag("--force", callOptions_.force, "Send a name that is not in the catalogue");

    CLI::App* script = app.add_subcommand("script", "Send several requests in one process");
    script->add_option("file", scriptOptions_.file, "JSON array or lines; - for stdin")->required();
    script->add_flag("--keep-going", scriptOptions_.keepGoing, "Go on after a failed step");
    script->add_flag("--time", scriptOptions_.time, "Tell the time of each request call");
    script->add_flag("--force", scriptOptions_.force, "Send names that are not in the catalogue");

    CLI::App* serve = app.add_subcommand("serve", "Serve requests by HTTP");
    addOptions(*serve, serveOptions_);
    CLI::App* worker = app.add_subcommand("worker")->group("");

    CLI::App* list = app.add_subcommand("list", "List the requests and their parameters");
    list->add_flag("--json", listOptions_.json, "As JSON");

    CLI::App* one = app.add_subcommand("describe", "Describe one request");
    one->add_option("request", listOptions_.request, "Name of the request")->required();
    one->add_flag("--json", listOptions_.json, "As JSON");

    try {
        app.parse(argc, argv_);
        if (call->parsed())
            return this->call();
        if (script->parsed())
            return this->script();
        if (serve->parsed())
            this->serve();
        if (worker->parsed())
            work();
        if (list->parsed())
            this->list();
        if (one->parsed())
            describeOne();
        return SUCCESS;
    } catch (const CLI::ParseError& e) {
        return reportParseError(e, app);
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
        return Program(argv).run(argc);
    } catch (const std::exception& e) {
        // Out of memory, or an output that cannot be written.
        fprintf(stderr, "corvane-host: %s\n", e.what());
        return USAGE;
    }
}
