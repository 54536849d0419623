#include "serve.h"

#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <csignal>
#include <optional>

#include "access.h"
#include "access_log.h"
#include "metrics.h"
#include "secrets.h"
#include "server.h"
#include "service.h"

namespace {

// Workers that are idle end at once; this is for the engine's cleaning up.
constexpr Seconds workersGrace{2};

// As many as the system allows: each connection takes one.
void raiseDescriptorLimit()
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

// Keeps the signals for the descriptor that is returned.
Descriptor takeSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGCHLD})
        sigaddset(&signals, number);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return Descriptor(signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC));
}

// A new token is shown, and one that a person looks at. Service logs are kept.
std::string greeting(const BearerToken* token, const std::string& url, bool isShown)
{
    const std::string listening = "corvane-host: listening on " + url + "\n";
    if (token == nullptr)
        return listening + "corvane-host: no token is asked for; console: " + url + "/\n";
    return listening + "corvane-host: token in " + token->file() + "; console: " + url + "/" +
           (isShown ? "#token=" + token->text() : "") + "\n";
}

}  // namespace

void serve(ServeOptions options, std::vector<std::string> worker, const Output& output)
{
    const Undumpable undumpable;
    checkOptions(options);
    raiseDescriptorLimit();
    const Descriptor signals = takeSignals();

    std::optional<BearerToken> token;
    if (!options.noAuth)
        token.emplace(options.tokenFile.empty() ? BearerToken::defaultFile() : options.tokenFile);
    AccessLog log(options.accessLog);
    Metrics metrics;
    EventLoop loop;

    PoolOptions pool;
    pool.program = "/proc/self/exe";
    pool.command = std::move(worker);
    pool.workers = options.workers;
    pool.taskTime = Seconds(options.requestSeconds);
    bool isReady = false;
    Service service(loop, options, std::move(pool), metrics, [&isReady] {
        if (!std::exchange(isReady, true))
            sd_notify(0, "READY=1");
    });
    Server server(loop, options, service, metrics, log, token ? &*token : nullptr);
    output.write(greeting(token ? &*token : nullptr, server.url(),
                          token && (token->isNew() || output.isTerminal())));

    bool isDraining = false;
    loop.watch(signals.get(), EPOLLIN, [&](uint32_t) {
        signalfd_siginfo info = {};
        while (read(signals.get(), &info, sizeof info) == sizeof info) {
            if (info.ssi_signo == SIGCHLD) {
                service.collectChildren();
            } else if (info.ssi_signo == SIGHUP) {
                log.reopen();
            } else if (std::exchange(isDraining, true)) {
                loop.stop();  // asked twice
            } else {
                sd_notify(0, "STOPPING=1");
                server.drain();
                loop.at(after(Seconds(options.drainSeconds)), [&loop] { loop.stop(); });
            }
        }
    });
    loop.run([&] {
        const int timeout = server.run();
        if (isDraining && !server.isBusy())
            loop.stop();
        return timeout;
    });

    // What is still under way is told that it was not served, and the answers go out.
    service.stop(server.isBusy() ? Seconds(0) : workersGrace);
    const auto deadline = after(Seconds(1));
    while (server.isBusy() && Clock::now() < deadline) {
        server.run();
        usleep(1000);
    }
}
