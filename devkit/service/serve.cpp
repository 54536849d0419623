#include "serve.h"

#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <memory>

#include "common/locked_memory.h"
#include "common/secrets.h"
#include "host/host_session.h"
#include "host/syslog_target.h"
#include "service/front/fronts.h"
#include "service/operation/access_log.h"
#include "service/operation/bearer_tokens.h"
#include "service/operation/line_sink.h"
#include "service/operation/memory_end.h"
#include "service/operation/metrics.h"
#include "service/operation/token_file.h"
#include "service/requests/service.h"
#include "shutdown.h"

namespace fs = std::filesystem;

namespace {

// Workers that are idle end at once; this is for the engine's cleaning up.
constexpr Seconds workersGrace{2};

// What front and workers take beside connections, and files for requests.
constexpr size_t otherDescriptors = 128;
constexpr size_t descriptorsOfThread = 8;

// Each connection takes a descriptor: as many as the system allows.
size_t possibleConnections(const ServeOptions& options, AccessLog& log)
{
    const size_t wanted = options.connections;
    const size_t others = otherDescriptors + descriptorsOfThread * options.frontThreads;
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return wanted;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    const size_t possible = std::max<size_t>(limit.rlim_max, 2 * others) - others;
    if (possible < wanted)
        log.tell("there are descriptors for " + std::to_string(possible) + " connections only");
    return std::min(possible, wanted);
}

// Keeps the signals for the descriptor that is returned.
Descriptor takeSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGUSR2, SIGCHLD})
        sigaddset(&signals, number);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return Descriptor(signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC));
}

// The key exchange's other side is beside this program; "" if it is not.
std::string peerProgram()
{
    std::error_code ignored;
    const std::string program = programFolder() + "/corvane-ke-peer";
    return fs::exists(program, ignored) ? program : "";
}

// For a shell.
std::string quoted(const std::string& text)
{
    std::string out = "'";
    for (const char c : text)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

// The token is shown to a person alone: what a service prints is kept in journals.
std::string greeting(const BearerTokens* tokens, const std::string& place, bool isTerminal)
{
    const std::string listening = "corvane-host: listening on " + place + "\ncorvane-host: ";
    // Browsers have no way to a unix socket.
    const bool hasConsole = place.compare(0, 5, "unix:") != 0;
    const std::string console = hasConsole ? "; console: " + place + "/" : "";
    if (tokens == nullptr)
        return listening + "no token is asked for" + console + "\n";
    if (isTerminal && hasConsole)
        return listening + "token in " + tokens->file() + console + "#token=" + tokens->text() +
               "\n";
    return listening + "to see the token: cat " + quoted(tokens->file()) + console + "\n";
}

// At the other levels the plug-in sends none.
void tellOfLostMessages(const std::string& level, AccessLog& log)
{
    if (level != "info" && level != "debug")
        return;
    const SyslogTarget syslog = lookAtSyslog();
    if (!syslog.fault.empty())
        log.tell("--plugin-log " + level +
                 ": nobody takes the plug-in's messages: " + syslog.fault + "; " + syslog.remedy);
}

// For clients who have the next token already, or the last one still.
void readAgain(BearerTokens* tokens, AccessLog& log)
{
    try {
        if (tokens != nullptr && tokens->reload())
            log.tell("the tokens were replaced");
    } catch (const UsageError& e) {
        log.tell(std::string("the tokens stay as they are: ") + e.what());
    }
}

PoolOptions workerPool(const ServeOptions& options, std::vector<std::string> command)
{
    PoolOptions pool;
    pool.program = "/proc/self/exe";
    pool.command = std::move(command);
    pool.workers = options.workers;
    pool.taskTime = Seconds(options.requestSeconds);
    pool.sendsAhead = true;
    pool.rollTime = Seconds(options.rollSeconds);
    return pool;
}

std::vector<std::string> peerCommand(const ServeOptions& options)
{
    std::vector<std::string> command = {"corvane-ke-peer", "worker"};
    if (options.lockMemory)
        command.emplace_back("--lock-memory");
    return command;
}

void lockMemoryIf(bool isAsked)
{
    try {
        if (isAsked)
            lockMemory();
    } catch (const LockError& e) {
        throw UsageError(e.what());
    }
}

// What is still under way is told that it was not served, and the answers go out.
void end(Service& service, Fronts& fronts)
{
    service.stop(fronts.isBusy() ? Seconds(0) : workersGrace);
    fronts.endWaiting();
    const auto deadline = after(Seconds(1));
    while (fronts.isBusy() && Clock::now() < deadline) {
        fronts.run();
        usleep(1000);
    }
}

}  // namespace

void serve(ServeOptions options, std::vector<std::string> worker, const Output& output)
{
    const Undumpable undumpable;
    endBySentenceWithoutMemory();
    openStandardStreams();
    checkOptions(options);
    lockMemoryIf(options.lockMemory);
    const Descriptor signals = takeSignals();

    std::unique_ptr<BearerTokens> tokens;
    if (!options.noAuth)
        tokens = std::make_unique<BearerTokens>(
            options.tokenFiles.empty() ? std::vector{defaultTokenFile()} : options.tokenFiles);
    unblockStandardError();
    AccessLog log(options.accessLog);
    options.connections = possibleConnections(options, log);
    tellOfLostMessages(options.pluginLog, log);
    Metrics metrics;
    EventLoop loop;

    bool isReady = false;
    Service service(loop, options, workerPool(options, std::move(worker)), metrics, [&isReady] {
        if (!std::exchange(isReady, true))
            sd_notify(0, "READY=1");
    });
    const std::string peer = options.noPeer ? "" : peerProgram();
    if (!peer.empty())
        service.offerPeer({peer, peerCommand(options), 1, Seconds(options.requestSeconds)});
    Fronts fronts(loop, options, service, metrics, log, tokens.get());
    if (LineSink(output.descriptor())
            .write(greeting(tokens.get(), fronts.place(), output.isTerminal())) == 0)
        log.tell("standard output takes nothing; listening on " + fronts.place());

    Shutdown shutdown(loop, options, service, fronts);
    loop.watch(signals.get(), EPOLLIN, [&](uint32_t) {
        signalfd_siginfo info = {};
        while (read(signals.get(), &info, sizeof info) == ssize_t{sizeof info}) {
            if (info.ssi_signo == SIGCHLD) {
                service.collectChildren();
            } else if (info.ssi_signo == SIGHUP) {
                log.reopen();
                readAgain(tokens.get(), log);
            } else if (info.ssi_signo == SIGUSR2) {
                service.rollWorkers();
            } else {
                shutdown.ask();
            }
        }
    });
    loop.run([&] {
        forgetEndOfMemory();
        const int timeout = fronts.run();
        service.flush();
        log.flush();
        shutdown.run();
        return timeout;
    });

    end(service, fronts);
}
