// The servers by which the service is reached: one on the service's own thread, or several
// on threads of their own.
#ifndef CORVANE_SERVICE_FRONT_FRONTS_H
#define CORVANE_SERVICE_FRONT_FRONTS_H

#include <optional>
#include <string>

#include "acceptor.h"
#include "service/http/listening_socket.h"

class Fronts {
public:
    // Listens. `loop` is the service's. Without tokens none is asked for. Throws a UsageError.
    Fronts(EventLoop& loop, const ServeOptions& options, Service& service, Metrics& metrics,
           AccessLog& log, const BearerTokens* tokens);

    // "http://127.0.0.1:8720", or "unix:/path"
    const std::string& place() const { return m_place; }

    // Does what is to do, and tells for how many milliseconds there is nothing. Call it before
    // each wait for events.
    int run();

    // Takes no more connections. The ones that there are get one more answer each, if they
    // ask for it within a second.
    void drain();
    // Whether there are connections.
    bool isBusy() const;
    // Ends those that have asked for nothing.
    void endWaiting();

private:
    void carryOut(Errands& errand);

    ServerShared m_shared;
    DirectCalls m_calls;
    std::string m_place;
    std::optional<SocketFile> m_file;  // where it listens at a path
    // One of the two.
    std::optional<Server> m_server;
    std::optional<Mailbox<Errand>> m_inbox;
    Acceptor::Threads m_threads;
    std::optional<Acceptor> m_acceptor;
};

#endif
