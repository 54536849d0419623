// HTTP: connections, headers, routes and answers, on libmicrohttpd.
#ifndef CORVANE_HOST_SERVE_SERVER_H
#define CORVANE_HOST_SERVE_SERVER_H

#include <microhttpd.h>

#include <map>
#include <memory>
#include <string>

#include "access.h"
#include "access_log.h"
#include "service.h"

class Server {
public:
    // Listens. A null token: none is asked for. Throws a UsageError.
    Server(EventLoop& loop, const ServeOptions& options, Service& service, Metrics& metrics,
           AccessLog& log, const BearerToken* token);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // "http://127.0.0.1:8720"
    const std::string& url() const { return url_; }

    // Does what is to do, and tells for how many milliseconds there is nothing.
    int run();

    // Takes no more connections and requests.
    void drain();
    // Whether requests are under way.
    bool isBusy() const { return active_ > 0; }

private:
    struct Connection;
    struct Exchange;

    // Callbacks of the library.
    static void onConnection(void* self, MHD_Connection* connection, void** context,
                             MHD_ConnectionNotificationCode what);
    static void* onUri(void* self, const char* uri, MHD_Connection* connection);
    static MHD_Result onRequest(void* self, MHD_Connection* connection, const char* url,
                                const char* method, const char* version, const char* data,
                                size_t* size, void** context);
    static void onCompleted(void* self, MHD_Connection* connection, void** context,
                            MHD_RequestTerminationCode how);

    void listen();
    MHD_Result take(Exchange& exchange, const char* method, const char* data, size_t* size);
    void checkAccess(Exchange& exchange);
    void checkBody(Exchange& exchange);
    void route(Exchange& exchange, const char* method);
    void dispatch(Exchange& exchange);
    MHD_Result queue(Exchange& exchange);
    void cutOff(Connection& connection, const Refusal* refusal);
    void sweep();
    std::string metricsText() const;

    EventLoop& loop_;
    const ServeOptions& options_;
    Service& service_;
    Metrics& metrics_;
    AccessLog& log_;
    const BearerToken* const token_;
    const AllowedSites sites_;
    Rates rates_;
    std::string url_;
    std::string certificate_;
    std::string key_;
    Descriptor socket_;
    MHD_Daemon* daemon_ = nullptr;
    std::map<Connection*, std::unique_ptr<Connection>> connections_;
    std::map<std::string, size_t> perAddress_;
    size_t active_ = 0;     // requests whose first line has come and whose answer has not gone
    size_t bodyBytes_ = 0;  // of bodies that are kept
    bool draining_ = false;
};

#endif
