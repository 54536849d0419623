// corvane-host serve: the service; and worker, one of its processes.
#include "service/serve.h"

#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "commands.h"
#include "common/locked_memory.h"
#include "common/secrets.h"
#include "common/worker_process.h"
#include "options.h"
#include "service/workers/worker.h"

namespace {

// Larger ones would not fit into a frame to a worker as Base64.
constexpr double mostBodyBytes = 268435456;
constexpr double mostOfAny = 1000000;
constexpr double shortestSeconds = 0.01;
constexpr double longestSeconds = 86400;
constexpr double longestDrain = 3600;

constexpr const char* pluginLogOption = "--plugin-log";
constexpr const char* lockMemoryOption = "--lock-memory";

// This program once more, as a worker with the same libraries.
std::vector<std::string> workerCommand(const Program& program, const ServeOptions& options)
{
    std::vector<std::string> command = {"corvane-host"};
    for (const auto& [option, path] : {std::pair("--plugin", program.paths.plugin),
                                       {"--params", program.paths.params},
                                       {"--engine", program.paths.engine}})
        if (!path.empty())
            command.insert(command.end(), {option, path});
    if (program.paths.isQuiet)
        command.emplace_back("--quiet");
    command.insert(command.end(), {"worker", pluginLogOption, options.pluginLog});
    if (options.lockMemory)
        command.emplace_back(lockMemoryOption);
    return command;
}

void work(Program& program, const ServeOptions& options)
{
    tieToParent();
    const Undumpable undumpable;
    if (options.lockMemory)
        lockMemory();
    const auto session = program.openSession();
    session->setLogLevel(options.pluginLog);
    program.bareNames.removeFolder();
    Claims claims{Descriptor(workerClaims)};
    Worker(*session, claims).serve(workerSocket);
}

void addPluginLog(CLI::App& command, std::string& level)
{
    command
        .add_option(
            pluginLogOption, level,
            "What workers' plug-ins send to syslog, from this level up: crit, err, warning, "
            "notice, info or debug; from info on, two messages for each request")
        ->type_name("LEVEL")
        ->check(oneOf({"crit", "err", "warning", "notice", "info", "debug"}))
        ->capture_default_str();
}

void addLimits(CLI::App& command, ServeOptions& options)
{
    const auto limit = [&](const char* name, auto& value, NumberKind::Unit unit, double low,
                           double high, const char* text) {
        const bool isWhole = std::is_integral_v<std::remove_reference_t<decltype(value)>>;
        addNumber(command, name, value, {unit, low, high, isWhole}, text)->capture_default_str();
    };
    const auto size = [&](const char* name, size_t& value, double low, const char* text) {
        limit(name, value, NumberKind::Bytes, low, mostBodyBytes, text);
    };
    const auto count = [&](const char* name, auto& value, double low, const char* text) {
        limit(name, value, NumberKind::Counts, low, mostOfAny, text);
    };
    const auto seconds = [&](const char* name, double& value, double low, double high,
                             const char* text) {
        limit(name, value, NumberKind::Plain, low, high, text);
    };
    size("--body-bytes", options.bodyBytes, 1, "Largest body");
    size("--parameter-bytes", options.parameterBytes, 0, "Largest parameter; 0: as the body");
    count("--sessions", options.sessions, 0, "Key-exchange sessions for each worker");
    count("--queue", options.queue, 0, "Requests that wait for a worker");
    count("--connections", options.connections, 1, "Connections");
    count("--connections-per-address", options.connectionsPerAddress, 1, "Connections of a client");
    count("--rate", options.rate, 0, "Requests per second of a client; 0 for any number");
    count("--burst", options.burst, 1, "Requests of a client at once");
    seconds("--request-seconds", options.requestSeconds, shortestSeconds, longestSeconds,
            "Time for a request in a worker");
    seconds("--read-seconds", options.readSeconds, shortestSeconds, longestSeconds,
            "Time for a request to arrive");
    seconds("--session-seconds", options.sessionSeconds, shortestSeconds, longestSeconds,
            "Idle time of a key-exchange session");
    seconds("--lame-duck-seconds", options.lameDuckSeconds, 0, longestDrain,
            "Time between the signal to end and the drain, in which only /readyz refuses");
    seconds("--drain-seconds", options.drainSeconds, 0, longestDrain,
            "Time to finish requests at the end");
    seconds("--roll-seconds", options.rollSeconds, 0, longestDrain,
            "Time for a worker's sessions to end when SIGUSR2 replaces the workers");
}

void addOptions(CLI::App& command, ServeOptions& options)
{
    const auto file = [&](const char* name, std::string& value, const char* text) {
        return command.add_option(name, value, text)->check(notEmpty());
    };

    command
        .add_option("--listen", options.listen,
                    "Address and port, port 0 for any free one; or unix:/PATH")
        ->type_name("PLACE")
        ->capture_default_str();
    command
        .add_option("--listen-mode", options.listenMode, "Mode of the unix socket; default: 0660")
        ->type_name("MODE")
        ->check(octalMode());
    file("--listen-group", options.listenGroup, "Group of the unix socket")->type_name("GROUP");
    addNumber(command, "--workers", options.workers,
              {NumberKind::Plain, 1, double{mostWorkers}, true},
              "Worker processes; default: one for each processor");
    addNumber(command, "--front-threads", options.frontThreads,
              {NumberKind::Plain, 1, double{mostFrontThreads}, true},
              "Threads for HTTP; default: one for each four workers, 4 at most");
    file("--node", options.node, "Name among several hosts behind a balancer")->type_name("NAME");

    command.add_flag("--no-auth", options.noAuth,
                     "Ask for no token; on loopback and unix sockets only");
    command
        .add_option("--token-file", options.tokenFiles,
                    "Where the token is, or is to be made; a second file has one more")
        ->type_name("FILE")
        ->check(notEmpty())
        ->allow_extra_args(false);
    command.add_option("--allow-host", options.allowHosts, "Host name that clients may use")
        ->type_name("NAME");
    command.add_option("--allow-origin", options.allowOrigins, "Origin whose pages may send")
        ->type_name("URL");
    command
        .add_option("--trusted-proxy", options.trustedProxies,
                    "Proxy whose X-Forwarded-For and X-Request-Id are believed")
        ->type_name("CIDR");
    file("--tls-cert", options.tlsCert, "Certificate chain, PEM")->type_name("FILE");
    file("--tls-key", options.tlsKey, "Private key, PEM")->type_name("FILE");
    file("--ca-folder", options.caFolder, "Folder whose files clients may name")
        ->type_name("FOLDER");
    command.add_flag("--no-peer", options.noPeer, "Do not offer the key exchange's other side");
    command.add_flag(lockMemoryOption, options.lockMemory,
                     "Keep the memory of all processes out of swap");

    addLimits(command, options);
    command
        .add_option("--access-log", options.accessLog,
                    "A line of JSON for each answer, with the code of what failed; default: "
                    "standard error. Where all logs are: docs/serving.md")
        ->type_name("FILE");
    addPluginLog(command, options.pluginLog);
}

}  // namespace

void addServe(CLI::App& app, Program& program)
{
    const auto options = std::make_shared<ServeOptions>();
    CLI::App* command = app.add_subcommand("serve", "Serve requests by HTTP");
    addOptions(*command, *options);
    command->footer(R"(Sizes take K, M and G (powers of 1024), counts K, M and G (powers of 1000);
numbers of workers, threads and seconds take none of them.

Examples:
  corvane-host serve
  corvane-host serve --listen 127.0.0.1:0 --no-auth --workers 2
  corvane-host serve --listen unix:/tmp/corvane.sock --body-bytes 64M)");
    command->callback([options, &program] {
        program.bindAtOnce();
        // Workers would be started again and again.
        checkLibraries(withDefaults(program.paths));
        serve(*options, workerCommand(program, *options), program.output);
    });
}

void addWorker(CLI::App& app, Program& program)
{
    const auto options = std::make_shared<ServeOptions>();
    CLI::App* command = app.add_subcommand("worker")->group("");
    addPluginLog(*command, options->pluginLog);
    command->add_flag(lockMemoryOption, options->lockMemory);
    command->callback([options, &program] { work(program, *options); });
}
