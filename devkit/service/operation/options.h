// What the operator can choose for `serve`.
#ifndef CORVANE_SERVICE_OPERATION_OPTIONS_H
#define CORVANE_SERVICE_OPERATION_OPTIONS_H

#include <cstddef>
#include <string>
#include <vector>

constexpr size_t mostWorkers = 256;
constexpr size_t mostFrontThreads = 64;
constexpr size_t mostTokenFiles = 2;

struct ServeOptions {
    std::string listen = "127.0.0.1:8720";
    std::string listenMode;   // octal, of a unix socket
    std::string listenGroup;  // its; empty: the process's
    size_t workers = 0;       // 0: one for each processor
    size_t frontThreads = 0;  // for HTTP; 0: as many as suit the workers
    std::string node;         // name among the hosts behind a balancer; empty: none

    bool noAuth = false;
    std::vector<std::string> tokenFiles;  // none: the default place
    std::vector<std::string> allowHosts;
    std::vector<std::string> allowOrigins;
    std::vector<std::string> trustedProxies;
    std::string tlsCert;
    std::string tlsKey;
    std::string caFolder;
    bool noPeer = false;
    bool lockMemory = false;

    size_t bodyBytes = size_t{16} << 20;
    size_t parameterBytes = 0;  // 0: as the body
    size_t sessions = 1024;     // per worker
    size_t queue = 1024;
    size_t connections = 4096;
    size_t connectionsPerAddress = 2048;
    double rate = 1000;  // requests per second and address; 0 for any number
    double burst = 2000;
    double requestSeconds = 30;
    double readSeconds = 30;
    double sessionSeconds = 300;
    double lameDuckSeconds = 0;  // from the signal to the drain
    double drainSeconds = 30;
    double rollSeconds = 30;  // that sessions keep a worker which is to be replaced

    std::string accessLog;  // empty: standard error
    // Up to this level workers' plug-ins send messages to syslog. From "info" on that is two for
    // each request, and takes longer than a small request itself.
    std::string pluginLog = "notice";

    // Settled by checkOptions, from what `listen` has: a unix socket's path, or else host and port.
    std::string socketPath;
    std::string host;
    std::string port;
};

// Fills in what depends on the machine, and throws a UsageError for what does not fit
// together or is not safe.
void checkOptions(ServeOptions& options);

bool isLoopback(const std::string& address);

#endif
