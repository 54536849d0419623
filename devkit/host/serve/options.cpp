#include "options.h"

#include <unistd.h>

#include <algorithm>

#include "output.h"

void addOptions(CLI::App& command, ServeOptions& options)
{
    const auto number = [&](const char* name, auto& value, const char* text) {
        command.add_option(name, value, text)->capture_default_str()->check(CLI::NonNegativeNumber);
    };

    command.add_option("--listen", options.listen, "Address and port; port 0 for any free one")
        ->type_name("HOST:PORT")
        ->capture_default_str();
    command.add_option("--workers", options.workers, "Worker processes; default: processors")
        ->check(CLI::Range(1, 256));

    command.add_flag("--no-auth", options.noAuth, "Ask for no token; on loopback only");
    command.add_option("--token-file", options.tokenFile, "Where the token is, or is to be made")
        ->type_name("FILE");
    command.add_option("--allow-host", options.allowHosts, "Host name that clients may use")
        ->type_name("NAME");
    command.add_option("--allow-origin", options.allowOrigins, "Origin whose pages may send")
        ->type_name("URL");
    command.add_option("--tls-cert", options.tlsCert, "Certificate chain, PEM")->type_name("FILE");
    command.add_option("--tls-key", options.tlsKey, "Private key, PEM")->type_name("FILE");
    command.add_option("--ca-folder", options.caFolder, "Folder whose files clients may name")
        ->type_name("FOLDER");

    number("--body-bytes", options.bodyBytes, "Largest body");
    number("--parameter-bytes", options.parameterBytes, "Largest parameter; 0: as the body");
    number("--sessions", options.sessions, "Key-exchange sessions for each worker");
    number("--queue", options.queue, "Requests that wait for a worker");
    number("--connections", options.connections, "Connections");
    number("--connections-per-address", options.connectionsPerAddress, "Connections of a client");
    number("--rate", options.rate, "Requests per second of a client; 0 for any number");
    number("--burst", options.burst, "Requests of a client at once");
    number("--request-seconds", options.requestSeconds, "Time for a request in a worker");
    number("--read-seconds", options.readSeconds, "Time for a request to arrive");
    number("--session-seconds", options.sessionSeconds, "Idle time of a key-exchange session");
    number("--drain-seconds", options.drainSeconds, "Time to finish requests at the end");
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
    if (options.requestSeconds <= 0 || options.readSeconds <= 0)
        throw UsageError("--request-seconds and --read-seconds must be more than 0");

    if (options.workers == 0)
        options.workers = static_cast<size_t>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN)));
    if (options.parameterBytes == 0)
        options.parameterBytes = options.bodyBytes;
    options.burst = std::max(options.burst, 1.0);
}
