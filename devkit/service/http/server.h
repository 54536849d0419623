// HTTP: connections, headers, routes and answers, on libmicrohttpd. A server belongs to the
// thread of its loop.
#ifndef CORVANE_SERVICE_HTTP_SERVER_H
#define CORVANE_SERVICE_HTTP_SERVER_H

#include <microhttpd.h>
#include <sys/socket.h>

#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "calls.h"
#include "headers.h"
#include "service/operation/access_log.h"
#include "service/operation/authorization.h"
#include "service/operation/bearer_tokens.h"
#include "service/operation/client_limits.h"
#include "service/operation/metrics.h"
#include "service/operation/trusted_proxies.h"

// What the servers of all threads share: nothing else is used by more than one of them.
struct ServerShared {
    const ServeOptions& options;
    const BearerTokens* const tokens;  // null: none is asked for
    const AllowedSites sites;
    const TrustedProxies proxies;
    Metrics& metrics;  // answers alone are counted
    AccessLog& log;
    ClientLimits limits;
};

class Server {
public:
    // Takes connections from the socket; without one, those that are added. Throws a
    // UsageError.
    Server(EventLoop& loop, ServerShared& shared, Calls& calls, Descriptor listening);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Does what is to do, and tells for how many milliseconds there is nothing.
    int run();

    // Takes no more connections. The ones that there are get one more answer each, if they
    // ask for it within a second.
    void drain();
    // A connection that was made elsewhere. It is closed if it cannot be taken.
    void add(Descriptor socket, const sockaddr_storage& address, socklen_t size);
    size_t connections() const { return m_connections.size(); }
    bool isBusy() const { return !m_connections.empty(); }
    // Ends those that have asked for nothing.
    void endWaiting();

private:
    struct Connection;
    struct Exchange;
    class Reply;

    // Callbacks of the library, which is C: they throw nothing.
    static void onConnection(void* self, MHD_Connection* connection, void** context,
                             MHD_ConnectionNotificationCode what);
    static void* onUri(void* self, const char* uri, MHD_Connection* connection);
    static MHD_Result onRequest(void* self, MHD_Connection* connection, const char* url,
                                const char* method, const char* version, const char* data,
                                size_t* size, void** context);
    static void onCompleted(void* self, MHD_Connection* connection, void** context,
                            MHD_RequestTerminationCode how);

    void runOnce();
    void acceptAll();
    void add(MHD_Connection* handle, void** context);
    void remove(Connection& connection, MHD_Connection* handle);
    Exchange* begin(Connection& connection, MHD_Connection* handle, std::string_view target);
    void finish(Connection& connection, bool isWhole);
    void log(const Exchange& exchange, bool isWhole);

    MHD_Result take(Exchange& exchange, const FirstLine& first, const char* data, size_t* size);
    MHD_Result takeHead(Exchange& exchange, const FirstLine& first);
    MHD_Result takePiece(Exchange& exchange, std::string_view piece);
    void believe(Exchange& exchange);
    void checkAccess(const Exchange& exchange) const;
    void route(Exchange& exchange, const char* method);
    void checkBody(Exchange& exchange);
    void makeRoom(Exchange& exchange, size_t bytes);
    void dispatch(Exchange& exchange);
    void waitForAnswer(Exchange& exchange);
    MHD_Result queue(Exchange& exchange);
    MHD_Response* makeResponse(Exchange& exchange);

    void cutOff(Connection& connection, const Refusal* refusal) noexcept;
    void sendRefusal(Connection& connection, const Refusal& refusal);
    void sweep();
    Seconds grace() const;

    EventLoop& m_loop;
    const ServeOptions& m_options;
    ServerShared& m_shared;
    Calls& m_service;
    const bool m_isListening;
    // Made before there is no memory for it.
    const Refusal m_late{Reason::not_whole_in_time};
    std::string m_certificate;
    std::string m_key;
    MHD_Daemon* m_daemon = nullptr;
    std::map<Connection*, std::unique_ptr<Connection>> m_connections;
    size_t m_calls = 0;  // of the library
    size_t m_runs = 0;   // of the library
    // In the last run: answers it looked for in vain, answers it was given, and requests of
    // which more may be there to read.
    size_t m_looks = 0;
    size_t m_queued = 0;
    size_t m_unfinished = 0;
    size_t m_accepted = 0;    // connections, ever
    size_t m_idleRounds = 0;  // of run() in which it did not call, less those that were paid for
    bool m_draining = false;
    Alarm m_sweep;
};

#endif
