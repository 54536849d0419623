#include "listening_socket.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <system_error>

#include "host/output.h"

namespace {

constexpr mode_t modeUnlessTold = 0660;

ListeningSocket listenAtPath(const ServeOptions& options)
{
    const mode_t mode = options.listenMode.empty()
                            ? modeUnlessTold
                            : static_cast<mode_t>(std::stoul(options.listenMode, nullptr, 8));
    UnixSocket made = listenAtPath(options.socketPath, SocketAccess{mode, options.listenGroup});
    return {std::move(made.descriptor), options.listen, std::move(made.file)};
}

}  // namespace

ListeningSocket listenAt(const ServeOptions& options)
{
    if (!options.socketPath.empty())
        return listenAtPath(options);
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* found = nullptr;
    const int failure = getaddrinfo(options.host.c_str(), options.port.c_str(), &hints, &found);
    if (failure != 0)
        throw UsageError("cannot listen on " + options.listen + ": " + gai_strerror(failure));
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);

    Descriptor socket(::socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int on = 1;
    setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (found->ai_family == AF_INET6)
        setsockopt(socket.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    if (!socket || bind(socket.get(), found->ai_addr, found->ai_addrlen) != 0 ||
        listen(socket.get(), SOMAXCONN) != 0) {
        const int reason = errno;
        throw UsageError("cannot listen on " + options.listen + ": " +
                         std::generic_category().message(reason) +
                         (reason == EADDRINUSE ? "; another program has this port: --listen takes "
                                                 "another one, or 0 for any free one"
                                               : ""));
    }

    sockaddr_storage bound = {};
    socklen_t size = sizeof bound;
    getsockname(socket.get(), reinterpret_cast<sockaddr*>(&bound), &size);
    const bool isIpv6 = bound.ss_family == AF_INET6;
    const int port = ntohs(isIpv6 ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                                  : reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
    const bool isName = options.host.find(':') == std::string::npos;
    std::string url = std::string(options.tlsCert.empty() ? "http://" : "https://") +
                      (isName ? options.host : "[" + options.host + "]") + ":" +
                      std::to_string(port);
    return {std::move(socket), std::move(url), SocketFile()};
}
