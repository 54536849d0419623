#include "server.h"

#include <poll.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>

#include "common/secrets.h"
#include "exchange.h"
#include "host/output.h"

namespace {

// The library keeps a connection's headers and a part of its body in so many bytes, and
// answers by itself to one whose headers do not fit.
constexpr size_t connectionMemory = size_t{64} << 10;

// The library asks to be run again at once while it sends, but also when a chunk's size line
// fills its buffer and nothing can be done. After so many runs in which nothing came of it, it
// has to wait a little. A large answer takes fewer. Runs in which something did come pay for
// some of them only, so that other requests do not buy such a connection its time.
constexpr size_t mostIdleRounds = 20000;
constexpr size_t idleRoundsPaid = 100;
constexpr int idleMilliseconds = 10;

// How long a connection may still ask for something when the host is stopping.
constexpr Seconds longestGrace{1};
// And how long those are taken that the system has made already: at the limit of connections
// some stay there, and each that ends makes room for one.
constexpr Seconds longestAccepting{0.1};

// Each connection has a key of its own, which no one can find out later, and nobody can
// change what it carries.
constexpr const char* tlsPriorities =
    "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2:-KX-ALL:+ECDHE-ECDSA:+ECDHE-RSA:-CIPHER-ALL:"
    "+AES-256-GCM:+CHACHA20-POLY1305:+AES-128-GCM:-MAC-ALL:+AEAD";

// Of the library's escapes of a path, none.
size_t keepEscapes(void* /*self*/, MHD_Connection* /*connection*/, char* text)
{
    return strlen(text);
}

std::string readWhole(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw UsageError("cannot read " + path);
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

Server::Server(EventLoop& loop, ServerShared& shared, Calls& calls, Descriptor listening)
    : m_loop(loop),
      m_options(shared.options),
      m_shared(shared),
      m_service(calls),
      m_isListening(listening),
      m_sweep(loop, [this] { sweep(); })
{
    unsigned flags = MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME;
    std::vector<MHD_OptionItem> items = {
        {MHD_OPTION_NOTIFY_CONNECTION, reinterpret_cast<intptr_t>(&onConnection), this},
        {MHD_OPTION_URI_LOG_CALLBACK, reinterpret_cast<intptr_t>(&onUri), this},
        {MHD_OPTION_NOTIFY_COMPLETED, reinterpret_cast<intptr_t>(&onCompleted), this},
        {MHD_OPTION_UNESCAPE_CALLBACK, reinterpret_cast<intptr_t>(&keepEscapes), nullptr},
        {MHD_OPTION_STRICT_FOR_CLIENT, 1, nullptr},
        {MHD_OPTION_CONNECTION_MEMORY_LIMIT, connectionMemory, nullptr},
        // Beyond these, the system keeps connections waiting.
        {MHD_OPTION_CONNECTION_LIMIT, static_cast<intptr_t>(m_options.connections), nullptr},
        // Its own time limit begins again with each byte; sweep() is there instead.
        {MHD_OPTION_CONNECTION_TIMEOUT, 0, nullptr},
    };
    if (listening)
        items.push_back({MHD_OPTION_LISTEN_SOCKET, listening.get(), nullptr});
    else
        flags |= MHD_USE_NO_LISTEN_SOCKET;
    if (!m_options.tlsCert.empty()) {
        flags |= MHD_USE_TLS;
        m_certificate = readWhole(m_options.tlsCert);
        m_key = readWhole(m_options.tlsKey);
        items.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, m_certificate.data()});
        items.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, m_key.data()});
        items.push_back({MHD_OPTION_HTTPS_PRIORITIES, 0, const_cast<char*>(tlsPriorities)});
    }
    items.push_back({MHD_OPTION_END, 0, nullptr});
    m_daemon = MHD_start_daemon(flags, 0, nullptr, nullptr, &onRequest, this, MHD_OPTION_ARRAY,
                                items.data(), MHD_OPTION_END);
    if (m_daemon == nullptr)
        throw UsageError(m_options.tlsCert.empty()
                             ? "cannot start the HTTP server"
                             : "cannot start the HTTPS server; is the certificate the key's?");
    // It closes the socket at its end.
    listening.release();
    const auto* info = MHD_get_daemon_info(m_daemon, MHD_DAEMON_INFO_EPOLL_FD);
    // run() is called after each event, so there is nothing else to do.
    m_loop.watch(info->epoll_fd, EPOLLIN, [](uint32_t) {});
    sweep();
}

Server::~Server()
{
    // The library ends the process if one is left.
    for (const auto& [connection, owner] : m_connections)
        if (connection->exchange != nullptr)
            connection->exchange->resume();
    MHD_stop_daemon(m_daemon);
    wipe(m_key);
}

void Server::runOnce()
{
    ++m_runs;
    m_looks = m_queued = m_unfinished = 0;
    MHD_run(m_daemon);
}

int Server::run()
{
    const size_t before = m_calls;
    runOnce();
    // What the library was given in this run it mostly sends in the next one.
    if (m_queued > 0)
        runOnce();
    // It wants to run again at once for each answer it looks for, but there is nothing to do
    // until one comes.
    if (m_looks > 0 && m_queued == 0 && m_unfinished == 0)
        return -1;
    MHD_UNSIGNED_LONG_LONG milliseconds = 0;
    const bool hasTimeout = MHD_get_timeout(m_daemon, &milliseconds) == MHD_YES;
    const bool isIdle = hasTimeout && milliseconds == 0 && m_calls == before;
    m_idleRounds = isIdle ? std::min(m_idleRounds + 1, mostIdleRounds + 1)
                          : m_idleRounds - std::min(m_idleRounds, idleRoundsPaid);
    if (!hasTimeout)
        return -1;
    if (m_idleRounds > mostIdleRounds)
        return idleMilliseconds;
    return static_cast<int>(std::min<MHD_UNSIGNED_LONG_LONG>(milliseconds, 60000));
}

void Server::add(Descriptor socket, const sockaddr_storage& address, socklen_t size)
{
    // The library closes it also where it does not take it.
    MHD_add_connection(m_daemon, socket.release(), reinterpret_cast<const sockaddr*>(&address),
                       size);
}

Seconds Server::grace() const
{
    return std::min(longestGrace, Seconds(m_options.drainSeconds));
}

// The library takes a few connections at a time of those that the system has made.
void Server::acceptAll()
{
    const auto* info = MHD_get_daemon_info(m_daemon, MHD_DAEMON_INFO_LISTEN_FD);
    pollfd waiting = {info->listen_fd, POLLIN, 0};
    const Clock::time_point end = after(longestAccepting);
    size_t before;
    do {
        before = m_accepted;
        runOnce();
    } while (m_accepted != before && poll(&waiting, 1, 0) > 0 && Clock::now() < end);
}

void Server::drain()
{
    if (m_draining)
        return;
    if (m_isListening)
        acceptAll();
    m_draining = true;
    const Descriptor closed(m_isListening ? MHD_quiesce_daemon(m_daemon) : -1);
    const Clock::time_point end = after(grace());
    for (const auto& [connection, owner] : m_connections)
        if (connection->exchange == nullptr)
            connection->deadline = std::min(connection->deadline, end);
    sweep();
}

void Server::endWaiting()
{
    for (const auto& [connection, owner] : m_connections)
        if (connection->exchange == nullptr)
            cutOff(*connection, nullptr);
}
