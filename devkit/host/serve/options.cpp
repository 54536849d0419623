#include "options.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <system_error>
#include <type_traits>

#include "access.h"
#include "option_checks.h"
#include "output.h"

namespace {

// Larger ones would not fit into a frame to a worker as Base64.
constexpr double mostBodyBytes = 268435456;
constexpr double mostOfAny = 1000000;
constexpr double shortestSeconds = 0.01;
constexpr double longestSeconds = 86400;
constexpr double longestDrain = 3600;
constexpr double mostWorkers = 256;

// The TLS library would not say which file is wrong. A pipe can be read once only.
void checkPem(const std::string& file, const char* label, const char* what)
{
    struct stat info = {};
    if (stat(file.c_str(), &info) != 0)
        throw UsageError("cannot read " + file + ": " + std::generic_category().message(errno));
    if (S_ISDIR(info.st_mode))
        throw UsageError(file + " is not a file");
    if (!S_ISREG(info.st_mode))
        return;
    std::ifstream stream(file, std::ios::binary);
    if (!stream)
        throw UsageError("cannot read " + file + ": " + std::generic_category().message(errno));
    bool isFit = false;
    for (std::string line; !isFit && std::getline(stream, line);)
        isFit = line.find(label) != std::string::npos;
    if (!isFit)
        throw UsageError(file + " holds no " + what + " in PEM");
}

bool isHost(const std::string& text)
{
    const bool isPlain = std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
               std::string_view("-._:[]").find(c) != std::string_view::npos;
    });
    return isPlain && !hostName(text).empty();
}

// One that is written otherwise than clients write it would never be met.
void checkSites(const ServeOptions& options)
{
    for (const std::string& host : options.allowHosts)
        if (!isHost(host))
            throw UsageError("--allow-host takes a host's name, with a port or without");
    for (const std::string& origin : options.allowOrigins) {
        const size_t end = origin.find("://");
        const std::string scheme = origin.substr(0, end);
        if ((scheme != "http" && scheme != "https") || end == std::string::npos ||
            !isHost(origin.substr(end + 3)))
            throw UsageError(
                "--allow-origin takes an origin: http:// or https://, a host's name, and a port "
                "or none");
    }
}

}  // namespace

void addOptions(CLI::App& command, ServeOptions& options)
{
    const auto number = [&](const char* name, auto& value, double low, double high,
                            const char* text) {
        constexpr bool isWhole = std::is_integral_v<std::decay_t<decltype(value)>>;
        return command.add_option(name, value, text)->check(between(low, high, isWhole));
    };
    const auto file = [&](const char* name, std::string& value, const char* text) {
        return command.add_option(name, value, text)->check(notEmpty());
    };

    command.add_option("--listen", options.listen, "Address and port; port 0 for any free one")
        ->type_name("HOST:PORT")
        ->capture_default_str();
    number("--workers", options.workers, 1, mostWorkers, "Worker processes; default: processors");

    command.add_flag("--no-auth", options.noAuth, "Ask for no token; on loopback only");
    file("--token-file", options.tokenFile, "Where the token is, or is to be made")
        ->type_name("FILE");
    command.add_option("--allow-host", options.allowHosts, "Host name that clients may use")
        ->type_name("NAME");
    command.add_option("--allow-origin", options.allowOrigins, "Origin whose pages may send")
        ->type_name("URL");
    file("--tls-cert", options.tlsCert, "Certificate chain, PEM")->type_name("FILE");
    file("--tls-key", options.tlsKey, "Private key, PEM")->type_name("FILE");
    file("--ca-folder", options.caFolder, "Folder whose files clients may name")
        ->type_name("FOLDER");
    command.add_flag("--no-peer", options.noPeer, "Do not offer the key exchange's other side");

    const auto limit = [&](const char* name, auto& value, double low, double high,
                           const char* text) {
        number(name, value, low, high, text)->capture_default_str();
    };
    const auto seconds = [&](const char* name, double& value, const char* text) {
        limit(name, value, shortestSeconds, longestSeconds, text);
    };
    limit("--body-bytes", options.bodyBytes, 1, mostBodyBytes, "Largest body");
    limit("--parameter-bytes", options.parameterBytes, 0, mostBodyBytes,
          "Largest parameter; 0: as the body");
    limit("--sessions", options.sessions, 0, mostOfAny, "Key-exchange sessions for each worker");
    limit("--queue", options.queue, 0, mostOfAny, "Requests that wait for a worker");
    limit("--connections", options.connections, 1, mostOfAny, "Connections");
    limit("--connections-per-address", options.connectionsPerAddress, 1, mostOfAny,
          "Connections of a client");
    limit("--rate", options.rate, 0, mostOfAny,
          "Requests per second of a client; 0 for any number");
    limit("--burst", options.burst, 1, mostOfAny, "Requests of a client at once");
    seconds("--request-seconds", options.requestSeconds, "Time for a request in a worker");
    seconds("--read-seconds", options.readSeconds, "Time for a request to arrive");
    seconds("--session-seconds", options.sessionSeconds, "Idle time of a key-exchange session");
    limit("--drain-seconds", options.drainSeconds, 0, longestDrain,
          "Time to finish requests at the end");
    command.add_option("--access-log", options.accessLog, "Access log; default: standard error")
        ->type_name("FILE");
}

bool isLoopback(const std::string& address)
{
    const bool isIpv4 = address.compare(0, 4, "127.") == 0 &&
                        address.find_first_not_of("0123456789.") == std::string::npos;
    return isIpv4 || address == "::1" || address == "localhost";
}

void checkOptions(ServeOptions& options)
{
    const size_t colon = options.listen.rfind(':');
    if (colon == std::string::npos || colon == 0)
        throw UsageError("--listen takes HOST:PORT, an IPv6 address in brackets");
    options.host = options.listen.substr(0, colon);
    options.port = options.listen.substr(colon + 1);
    if (options.host.front() == '[' && options.host.back() == ']')
        options.host = options.host.substr(1, options.host.size() - 2);
    else if (options.host.find(':') != std::string::npos)
        throw UsageError("--listen takes an IPv6 address in brackets");
    if (options.port.empty() || options.port.size() > 5 ||
        options.port.find_first_not_of("0123456789") != std::string::npos ||
        std::stoi(options.port) > 65535)
        throw UsageError("--listen takes a port from 0 to 65535");

    const bool tls = !options.tlsCert.empty();
    if (tls != !options.tlsKey.empty())
        throw UsageError("--tls-cert and --tls-key belong together");
    const bool isLocal = isLoopback(options.host);
    if (!isLocal && options.noAuth)
        throw UsageError("--no-auth is for loopback addresses only");
    if (!isLocal && !tls)
        throw UsageError("an address other than loopback needs --tls-cert and --tls-key");
    checkSites(options);
    if (tls) {
        checkPem(options.tlsCert, "CERTIFICATE-----", "certificate");
        checkPem(options.tlsKey, "PRIVATE KEY-----", "private key");
    }

    if (options.workers == 0)
        options.workers =
            std::clamp<size_t>(static_cast<size_t>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN))), 1,
                               static_cast<size_t>(mostWorkers));
    if (options.parameterBytes == 0)
        options.parameterBytes = options.bodyBytes;
}
