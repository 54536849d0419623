// Connections of the server: how they come, how they end, and which are late.
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "common/failure.h"
#include "exchange.h"

namespace {

// Whether bytes have come that the library has not taken yet.
bool hasMore(int socket)
{
    char ignored;
    return recv(socket, &ignored, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
}

// Whether anything has ever come. The system counts a closing as one byte, so one alone is a
// connection that was only closed.
bool hasReceived(int socket)
{
    tcp_info info = {};
    socklen_t size = sizeof info;
    return getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
           info.tcpi_bytes_received > 1;
}

}  // namespace

void Server::onConnection(void* self, MHD_Connection* handle, void** context,
                          MHD_ConnectionNotificationCode what)
{
    Server& server = *static_cast<Server*>(self);
    ++server.m_calls;
    if (what == MHD_CONNECTION_NOTIFY_CLOSED) {
        if (*context != nullptr)
            server.remove(*static_cast<Connection*>(*context), handle);
        return;
    }
    try {
        server.add(handle, context);
    } catch (const std::exception& e) {
        tellFailure("a connection cannot be taken", e);
        const auto* info = MHD_get_connection_info(handle, MHD_CONNECTION_INFO_CONNECTION_FD);
        shutdown(info->connect_fd, SHUT_RDWR);
    }
}

void Server::add(MHD_Connection* handle, void** context)
{
    const auto peer = IpAddress::of(
        MHD_get_connection_info(handle, MHD_CONNECTION_INFO_CLIENT_ADDRESS)->client_addr);
    auto owner = std::make_unique<Connection>(m_shared.limits, peer, m_shared.proxies.trusts(peer));
    Connection& connection = *owner;
    connection.socket =
        MHD_get_connection_info(handle, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    connection.deadline = after(Seconds(m_options.readSeconds));
    m_connections[&connection] = std::move(owner);
    *context = &connection;
    ++m_accepted;
    if (!connection.place.isWithin()) {
        const Refusal refusal(Reason::too_many_connections);
        cutOff(connection, &refusal);
    }
}

// Where the library ends a request in the middle, it says nothing but this.
void Server::remove(Connection& connection, MHD_Connection* handle)
{
    // What came was not even a first line.
    if (connection.isFirst && (connection.cutStatus != 0 || hasReceived(connection.socket)))
        withoutFailure("a request is not counted", [&] {
            begin(connection, handle, "")->status = connection.cutStatus;
            connection.exchange->start = connection.start;
        });
    if (connection.exchange != nullptr)
        finish(connection, false);
    m_connections.erase(&connection);
}

// Ends a connection that does not get an answer from the library: at once, with the
// refusal if it is given and can be sent as it is.
void Server::cutOff(Connection& connection, const Refusal* refusal) noexcept
{
    if (std::exchange(connection.isCut, true))
        return;
    if (refusal != nullptr) {
        if (connection.exchange != nullptr)
            connection.exchange->status = refusal->code().status;
        else
            connection.cutStatus = refusal->code().status;
        withoutFailure("a refusal cannot be sent", [&] { sendRefusal(connection, *refusal); });
    }
    // The library sees the end, and closes.
    shutdown(connection.socket, SHUT_RDWR);
}

void Server::sendRefusal(Connection& connection, const Refusal& refusal)
{
    m_shared.metrics.countAnswer(refusal.code().status);
    if (!m_options.tlsCert.empty())
        return;
    const std::string body = answerOf(refusal).body;
    const std::string id = connection.exchange != nullptr ? connection.exchange->id : makeId();
    const std::string node =
        m_options.node.empty() ? "" : std::string("\r\n") + nodeHeader + ": " + m_options.node;
    const unsigned status = refusal.code().status;
    const std::string text =
        "HTTP/1.1 " + std::to_string(status) + " " + MHD_get_reason_phrase_for(status) +
        "\r\nConnection: close\r\nX-Content-Type-Options: nosniff"
        "\r\nContent-Type: application/json\r\nCache-Control: no-store\r\nX-Request-Id: " +
        id + node + (isForLater(status) ? "\r\nRetry-After: 1" : "") +
        "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    send(connection.socket, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

void Server::sweep()
{
    const Seconds often = m_draining ? grace() / 8 : Seconds(m_options.readSeconds / 8);
    m_sweep.set(after(std::clamp(often, Seconds(0.05), Seconds(1))));
    const Clock::time_point now = Clock::now();
    for (const auto& [connection, owner] : m_connections) {
        if (connection->phase == Connection::Working || connection->deadline > now)
            continue;
        // One that waits for its next request is closed without a word, unless that has come.
        const bool isWaiting =
            connection->exchange == nullptr && (m_draining || !connection->isFirst);
        if (isWaiting && hasMore(connection->socket))
            continue;
        const bool isLate = connection->phase == Connection::Reading && !isWaiting;
        cutOff(*connection, isLate ? &m_late : nullptr);
    }
    m_shared.limits.sweep();
}
