// What the server knows of a connection and of the request that is under way on it; for the
// server's own files.
#ifndef CORVANE_SERVICE_HTTP_EXCHANGE_H
#define CORVANE_SERVICE_HTTP_EXCHANGE_H

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "common/secrets.h"
#include "request_id.h"
#include "routes.h"
#include "server.h"

// Peers of a unix socket have no addresses of their own.
constexpr const char* unixPeer = "unix";

// For logs, and what stands for the client in limits.
inline std::string textOf(const std::optional<IpAddress>& address)
{
    return address ? address->text() : unixPeer;
}
inline std::string clientOf(const std::optional<IpAddress>& address)
{
    return address ? address->client() : unixPeer;
}

// Whether the same request may be answered a little later, so that the answer has Retry-After.
inline bool isForLater(unsigned status)
{
    return status == 429 || status == 503;
}

struct Server::Connection {
    // A proxy's connections are many clients'.
    Connection(ClientLimits& limits, const std::optional<IpAddress>& itsPeer, bool isTrusted)
        : peer(itsPeer),
          isProxy(isTrusted),
          address(textOf(peer)),
          client(clientOf(peer)),
          place(limits, client, !isProxy)
    {
    }

    enum Phase { Reading, Working, Answering };

    int socket = -1;
    const std::optional<IpAddress> peer;  // nothing for one of a unix socket
    const bool isProxy;                   // and trusted
    const std::string address;
    const std::string client;  // for limits
    const ClientLimits::Place place;
    Clock::time_point start = Clock::now();
    Phase phase = Reading;
    Clock::time_point deadline;  // of the phase, unless it is Working
    bool isFirst = true;         // no request of it has begun
    bool isCut = false;
    unsigned cutStatus = 0;  // of the refusal with which it was, outside a request
    // The request that is under way, from its first line on until its answer has gone or the
    // connection ends.
    std::shared_ptr<Exchange> exchange;
};

struct Server::Exchange {
    Exchange(Server& itsServer, Connection& itsConnection, MHD_Connection* itsHandle)
        : server(itsServer), connection(itsConnection), handle(itsHandle)
    {
    }
    ~Exchange() { server.m_shared.limits.giveRoom(room); }
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    void resume()
    {
        if (std::exchange(isSuspended, false))
            MHD_resume_connection(handle);
    }

    Server& server;
    Connection& connection;
    MHD_Connection* const handle;
    std::string id = makeId();
    Clock::time_point start = Clock::now();
    std::string method;
    std::string path;
    std::string address;  // that a proxy told; empty: the connection's
    size_t targetSize = 0;
    bool hasQuery = false;
    bool isTargetPlain = true;
    bool isWithinRate = true;
    Headers headers;
    const Route* route = nullptr;
    const ConsoleFile* file = nullptr;

    bool isStarted = false;
    bool isDispatched = false;
    bool isForgotten = false;  // dispatched, but no answer will come
    bool isSuspended = false;
    unsigned looks = 0;   // of the library for the answer
    size_t lastRead = 0;  // the run in which the library read a part of it
    bool mustClose = false;
    SecretText body;
    size_t received = 0;
    size_t room = 0;  // that it takes of all bodies'

    std::optional<Answer> answer;
    unsigned status = 0;
    size_t sent = 0;
};

// The answer that an exchange waits for. The exchange may be over when it comes; and where
// memory ended on the way and it never comes, the exchange is told so.
class Server::Reply {
public:
    explicit Reply(const std::shared_ptr<Exchange>& exchange) : m_exchange(exchange) {}
    ~Reply()
    {
        const std::shared_ptr<Exchange> exchange = m_exchange.lock();
        if (exchange == nullptr || exchange->answer)
            return;
        exchange->isForgotten = true;
        exchange->resume();
    }
    Reply(const Reply&) = delete;
    Reply& operator=(const Reply&) = delete;

    void give(Answer answer)
    {
        const std::shared_ptr<Exchange> exchange = m_exchange.lock();
        if (exchange == nullptr)
            return;
        if (exchange->server.m_draining && answer.status == 503 && answer.code == "busy")
            answer = answerOf(Refusal(Reason::host_stopped));
        exchange->answer = std::move(answer);
        exchange->resume();
    }

private:
    const std::weak_ptr<Exchange> m_exchange;
};

#endif
