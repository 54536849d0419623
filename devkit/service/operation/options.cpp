#include "options.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <system_error>

#include "authorization.h"
#include "host/output.h"
#include "nodes.h"
#include "trusted_proxies.h"

namespace {

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
    const std::string name = hostName(text);
    const bool isIpv6 = name.size() > 2 && name[0] == '[' && name.back() == ']' &&
                        name.find_first_of("[]", 1) == name.size() - 1;
    return isPlain && !name.empty() && (isIpv6 || name.find_first_of("[]") == std::string::npos);
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

// More than a few wait for the service's own thread.
size_t frontThreadsFor(size_t workers)
{
    constexpr size_t workersOfOne = 4;
    constexpr size_t mostUnasked = 4;
    return std::min((workers + workersOfOne - 1) / workersOfOne, mostUnasked);
}

void splitListen(ServeOptions& options)
{
    constexpr std::string_view unixScheme = "unix:";
    if (options.listen.substr(0, unixScheme.size()) == unixScheme) {
        options.socketPath = options.listen.substr(unixScheme.size());
        if (options.socketPath.empty() || options.socketPath.front() != '/')
            throw UsageError("--listen takes a unix socket as unix:/PATH");
        return;
    }
    if (!options.listenMode.empty() || !options.listenGroup.empty())
        throw UsageError("--listen-mode and --listen-group are for --listen unix:/PATH");
    const size_t colon = options.listen.rfind(':');
    if (colon == std::string::npos || colon == 0)
        throw UsageError("--listen takes HOST:PORT, an IPv6 address in brackets, or unix:/PATH");
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
}

}  // namespace

bool isLoopback(const std::string& address)
{
    const bool isIpv4 = address.compare(0, 4, "127.") == 0 &&
                        address.find_first_not_of("0123456789.") == std::string::npos;
    return isIpv4 || address == "::1" || address == "localhost";
}

void checkOptions(ServeOptions& options)
{
    splitListen(options);
    if (!options.node.empty() && !isNodeName(options.node))
        throw UsageError("--node takes 1 to 63 of a-z, 0-9 and \"-\", which is not at an end");

    const bool tls = !options.tlsCert.empty();
    if (tls != !options.tlsKey.empty())
        throw UsageError("--tls-cert and --tls-key belong together");
    const bool isLocal = !options.socketPath.empty() || isLoopback(options.host);
    if (!isLocal && options.noAuth)
        throw UsageError("--no-auth is for loopback addresses and unix sockets only");
    if (!isLocal && !tls)
        throw UsageError("an address other than loopback needs --tls-cert and --tls-key");
    checkSites(options);
    const TrustedProxies throwsForWhatIsNone(options.trustedProxies);
    if (options.tokenFiles.size() > mostTokenFiles)
        throw UsageError("--token-file is given twice at most");
    if (tls) {
        checkPem(options.tlsCert, "CERTIFICATE-----", "certificate");
        checkPem(options.tlsKey, "PRIVATE KEY-----", "private key");
    }

    if (options.workers == 0)
        options.workers = std::clamp<size_t>(
            static_cast<size_t>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN))), 1, mostWorkers);
    if (options.frontThreads == 0)
        options.frontThreads = frontThreadsFor(options.workers);
    if (options.parameterBytes == 0)
        options.parameterBytes = options.bodyBytes;
}
