#include "server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/epoll.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <system_error>

#include "descriptions.h"
#include "exchange.h"
#include "headers.h"
#include "openapi.h"
#include "output.h"
#include "routes.h"
#include "secrets.h"
#include "values.h"

namespace {

// The library keeps a connection's headers and a part of its body in so many bytes, and
// answers by itself to one whose headers do not fit.
constexpr size_t connectionMemory = size_t{64} << 10;

// Bodies that are kept at once, as a multiple of the largest one.
constexpr size_t mostBodies = 16;

// Slower readers of an answer are cut off.
constexpr double slowestBytesPerSecond = 65536;

constexpr const char* securityHeaders[][2] = {
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
     "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"X-Frame-Options", "DENY"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Cross-Origin-Opener-Policy", "same-origin"},
};

// Of the library's escapes of a path, none.
size_t keepEscapes(void* /*self*/, MHD_Connection* /*connection*/, char* text)
{
    return strlen(text);
}

std::string makeId()
{
    std::array<unsigned char, 8> random = {};
    [[maybe_unused]] const ssize_t count = getrandom(random.data(), random.size(), 0);
    std::string id;
    for (const unsigned byte : random) {
        id += "0123456789abcdef"[byte >> 4U];
        id += "0123456789abcdef"[byte & 15U];
    }
    return id;
}

// The numeric address, and what stands for the client in limits: the network of an IPv6
// one, of which a client has many.
std::pair<std::string, std::string> addressOf(const sockaddr* address)
{
    std::array<char, INET6_ADDRSTRLEN> text = {};
    if (address->sa_family == AF_INET) {
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text.data(),
                  text.size());
        return {text.data(), text.data()};
    }
    in6_addr whole = reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
    inet_ntop(AF_INET6, &whole, text.data(), text.size());
    const std::string number = text.data();
    memset(whole.s6_addr + 8, 0, 8);
    inet_ntop(AF_INET6, &whole, text.data(), text.size());
    return {number, text.data()};
}

void freeBody(void* body)
{
    auto* text = static_cast<std::string*>(body);
    wipe(*text);
    delete text;
}

std::string readWhole(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw UsageError("cannot read " + path);
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

struct Server::Connection {
    enum Phase { Reading, Working, Answering };

    int socket = -1;
    std::string address;
    std::string client;  // for limits
    Phase phase = Reading;
    Clock::time_point deadline;  // of the phase, unless it is Working
    bool isFirst = true;         // no request of it has been answered
    bool isCut = false;
    Exchange* exchange = nullptr;
};

struct Server::Exchange {
    Exchange(Connection& itsConnection, MHD_Connection* itsHandle)
        : connection(itsConnection), handle(itsHandle)
    {
    }
    ~Exchange() { wipe(body); }

    // Its own owner until it is over: an answer that comes later finds that out.
    std::shared_ptr<Exchange> self;
    Connection& connection;
    MHD_Connection* const handle;
    std::string id = makeId();
    Clock::time_point start = Clock::now();
    std::string method;
    std::string path;
    bool hasQuery = false;
    Headers headers;
    const Route* route = nullptr;
    const ConsoleFile* file = nullptr;

    bool isStarted = false;
    bool isDispatched = false;
    bool isSuspended = false;
    bool mustClose = false;
    std::string body;
    size_t received = 0;

    std::optional<Answer> answer;
    unsigned status = 0;
    size_t sent = 0;
};

// ---- Start.

Server::Server(EventLoop& loop, const ServeOptions& options, Service& service, Metrics& metrics,
               AccessLog& log, const BearerToken* token)
    : loop_(loop),
      options_(options),
      service_(service),
      metrics_(metrics),
      log_(log),
      token_(token),
      sites_(options),
      rates_(options.rate, options.burst)
{
    listen();

    unsigned flags = MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME;
    std::vector<MHD_OptionItem> items = {
        {MHD_OPTION_NOTIFY_CONNECTION, reinterpret_cast<intptr_t>(&onConnection), this},
        {MHD_OPTION_URI_LOG_CALLBACK, reinterpret_cast<intptr_t>(&onUri), this},
        {MHD_OPTION_NOTIFY_COMPLETED, reinterpret_cast<intptr_t>(&onCompleted), this},
        {MHD_OPTION_UNESCAPE_CALLBACK, reinterpret_cast<intptr_t>(&keepEscapes), nullptr},
        {MHD_OPTION_STRICT_FOR_CLIENT, 1, nullptr},
        {MHD_OPTION_CONNECTION_MEMORY_LIMIT, connectionMemory, nullptr},
        // Beyond these, the system keeps connections waiting.
        {MHD_OPTION_CONNECTION_LIMIT, static_cast<intptr_t>(options.connections), nullptr},
        // Its own time limit begins again with each byte; sweep() is there instead.
        {MHD_OPTION_CONNECTION_TIMEOUT, 0, nullptr},
        {MHD_OPTION_LISTEN_SOCKET, socket_.get(), nullptr},
    };
    if (!options.tlsCert.empty()) {
        flags |= MHD_USE_TLS;
        certificate_ = readWhole(options.tlsCert);
        key_ = readWhole(options.tlsKey);
        static char priorities[] = "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2";
        items.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, certificate_.data()});
        items.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, key_.data()});
        items.push_back({MHD_OPTION_HTTPS_PRIORITIES, 0, priorities});
    }
    items.push_back({MHD_OPTION_END, 0, nullptr});
    daemon_ = MHD_start_daemon(flags, 0, nullptr, nullptr, &onRequest, this, MHD_OPTION_ARRAY,
                               items.data(), MHD_OPTION_END);
    if (daemon_ == nullptr)
        throw UsageError(options.tlsCert.empty()
                             ? "cannot start the HTTP server"
                             : "cannot start the HTTPS server; is the certificate the key's?");
    // It closes the socket at its end.
    socket_.release();
    const auto* info = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_EPOLL_FD);
    // run() is called after each event, so there is nothing else to do.
    loop_.watch(info->epoll_fd, EPOLLIN, [](uint32_t) {});
    sweep();
}

Server::~Server()
{
    MHD_stop_daemon(daemon_);
    wipe(key_);
}

void Server::listen()
{
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* found = nullptr;
    const int failure = getaddrinfo(options_.host.c_str(), options_.port.c_str(), &hints, &found);
    if (failure != 0)
        throw UsageError("cannot listen on " + options_.listen + ": " + gai_strerror(failure));
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);

    socket_ = Descriptor(socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int on = 1;
    setsockopt(socket_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (found->ai_family == AF_INET6)
        setsockopt(socket_.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    if (!socket_ || bind(socket_.get(), found->ai_addr, found->ai_addrlen) != 0 ||
        ::listen(socket_.get(), SOMAXCONN) != 0)
        throw UsageError("cannot listen on " + options_.listen + ": " +
                         std::generic_category().message(errno));

    sockaddr_storage bound = {};
    socklen_t size = sizeof bound;
    getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&bound), &size);
    const bool isIpv6 = bound.ss_family == AF_INET6;
    const int port = ntohs(isIpv6 ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                                  : reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
    const bool isName = options_.host.find(':') == std::string::npos;
    url_ = std::string(options_.tlsCert.empty() ? "http://" : "https://") +
           (isName ? options_.host : "[" + options_.host + "]") + ":" + std::to_string(port);
}

int Server::run()
{
    MHD_run(daemon_);
    MHD_UNSIGNED_LONG_LONG milliseconds = 0;
    if (MHD_get_timeout(daemon_, &milliseconds) != MHD_YES)
        return -1;
    return static_cast<int>(std::min<MHD_UNSIGNED_LONG_LONG>(milliseconds, 60000));
}

void Server::drain()
{
    if (draining_)
        return;
    // Connections that the system has made already are taken.
    MHD_run(daemon_);
    draining_ = true;
    const Descriptor closed(MHD_quiesce_daemon(daemon_));
    for (const auto& [connection, owner] : connections_)
        if (connection->exchange == nullptr)
            cutOff(*connection, nullptr);
}

// ---- Connections.

void Server::onConnection(void* self, MHD_Connection* handle, void** context,
                          MHD_ConnectionNotificationCode what)
{
    Server& server = *static_cast<Server*>(self);
    if (what == MHD_CONNECTION_NOTIFY_CLOSED) {
        auto* connection = static_cast<Connection*>(*context);
        const auto found = server.perAddress_.find(connection->client);
        if (--found->second == 0)
            server.perAddress_.erase(found);
        server.connections_.erase(connection);
        return;
    }

    auto owner = std::make_unique<Connection>();
    Connection& connection = *owner;
    connection.socket =
        MHD_get_connection_info(handle, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    std::tie(connection.address, connection.client) =
        addressOf(MHD_get_connection_info(handle, MHD_CONNECTION_INFO_CLIENT_ADDRESS)->client_addr);
    connection.deadline = after(Seconds(server.options_.readSeconds));
    *context = &connection;
    server.connections_[&connection] = std::move(owner);
    if (++server.perAddress_[connection.client] > server.options_.connectionsPerAddress) {
        const Refusal refusal("too_many_requests", "", "this address has too many connections");
        server.cutOff(connection, &refusal);
    }
}

// Ends a connection that does not get an answer from the library: at once, with the
// refusal if it is given and can be sent as it is.
void Server::cutOff(Connection& connection, const Refusal* refusal)
{
    if (connection.isCut)
        return;
    connection.isCut = true;
    if (refusal != nullptr) {
        metrics_.countAnswer(refusal->code().status);
        if (connection.exchange != nullptr)
            connection.exchange->status = refusal->code().status;
    }
    if (refusal != nullptr && options_.tlsCert.empty()) {
        const std::string body = write(refusal->json(), -1);
        const std::string id = connection.exchange != nullptr ? connection.exchange->id : makeId();
        const std::string text =
            "HTTP/1.1 " + std::to_string(refusal->code().status) + " " +
            MHD_get_reason_phrase_for(refusal->code().status) +
            "\r\nConnection: close\r\nContent-Type: application/json\r\nCache-Control: no-store"
            "\r\nX-Request-Id: " +
            id + "\r\nRetry-After: 1\r\nContent-Length: " + std::to_string(body.size()) +
            "\r\n\r\n" + body;
        send(connection.socket, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    // The library sees the end, and closes.
    shutdown(connection.socket, SHUT_RDWR);
}

void Server::sweep()
{
    const Clock::time_point now = Clock::now();
    for (const auto& [connection, owner] : connections_) {
        if (connection->phase == Connection::Working || connection->deadline > now)
            continue;
        const Refusal refusal("timeout", "", "the request did not arrive whole in time");
        // One that waits for its next request is closed without a word.
        const bool isWaiting = connection->exchange == nullptr && !connection->isFirst;
        const bool isLate = connection->phase == Connection::Reading && !isWaiting;
        cutOff(*connection, isLate ? &refusal : nullptr);
    }
    rates_.sweep(now);
    loop_.at(after(std::clamp(Seconds(options_.readSeconds / 8), Seconds(0.05), Seconds(1))),
             [this] { sweep(); });
}

// ---- Requests.

void* Server::onUri(void* self, const char* uri, MHD_Connection* handle)
{
    Server& server = *static_cast<Server*>(self);
    Connection& connection = *static_cast<Connection*>(
        MHD_get_connection_info(handle, MHD_CONNECTION_INFO_SOCKET_CONTEXT)->socket_context);
    const std::string_view whole = uri;
    const size_t query = whole.find('?');
    auto exchange = std::make_shared<Exchange>(connection, handle);
    exchange->self = exchange;
    exchange->path = std::string(whole.substr(0, query));
    exchange->hasQuery = query != std::string_view::npos;
    connection.exchange = exchange.get();
    // Time once more for what is behind the first line.
    connection.deadline = after(Seconds(server.options_.readSeconds));
    ++server.active_;
    return exchange.get();
}

MHD_Result Server::onRequest(void* self, MHD_Connection* /*handle*/, const char* /*url*/,
                             const char* method, const char* /*version*/, const char* data,
                             size_t* size, void** context)
{
    auto* exchange = static_cast<Exchange*>(*context);
    try {
        return static_cast<Server*>(self)->take(*exchange, method, data, size);
    } catch (const std::exception& e) {
        // Out of memory or descriptors: this connection ends, the others go on.
        tell(std::string("a request could not be served: ") + e.what());
        return MHD_NO;
    }
}

MHD_Result Server::take(Exchange& exchange, const char* method, const char* data, size_t* size)
{
    Connection& connection = exchange.connection;
    if (!exchange.isStarted) {
        exchange.isStarted = true;
        exchange.method = method;
        try {
            exchange.mustClose = true;
            readHeaders(exchange.handle, exchange.headers);
            exchange.mustClose = false;
            checkAccess(exchange);
            route(exchange, method);
            checkBody(exchange);
        } catch (const Refusal& refusal) {
            exchange.answer = answerOf(refusal);
        }
        // A body that is refused is not waited for.
        if (exchange.answer && exchange.headers.hasBody) {
            exchange.mustClose = true;
            return queue(exchange);
        }
        return MHD_YES;
    }

    if (*size > 0) {
        exchange.received += *size;
        if (exchange.received > options_.bodyBytes) {
            const Refusal refusal(
                "too_large", "",
                "the body has more than " + std::to_string(options_.bodyBytes) + " bytes");
            cutOff(connection, &refusal);
            return MHD_NO;
        }
        appendSecret(exchange.body, {data, *size});
        bodyBytes_ += *size;
        *size = 0;
        return MHD_YES;
    }

    connection.phase = Connection::Working;
    if (!exchange.answer && !exchange.isDispatched) {
        exchange.isDispatched = true;
        try {
            dispatch(exchange);
        } catch (const Refusal& refusal) {
            exchange.answer = answerOf(refusal);
        }
        bodyBytes_ -= exchange.body.size();
        wipe(exchange.body);
        exchange.body.shrink_to_fit();
        if (!exchange.answer) {
            exchange.isSuspended = true;
            MHD_suspend_connection(exchange.handle);
            return MHD_YES;
        }
    }
    return queue(exchange);
}

void Server::checkAccess(Exchange& exchange)
{
    const Headers& headers = exchange.headers;
    const bool isApi = needsToken(exchange.path);

    if (!sites_.isHost(headers.host))
        throw Refusal("forbidden_host", "Host", "the host is not known by the name in Host");
    if (!headers.origin.empty() && !sites_.isOrigin(headers.origin, headers.host))
        throw Refusal("forbidden_origin", "Origin", "pages of this origin may not use the host");
    if (isApi && headers.origin.empty() &&
        (headers.fetchSite == "cross-site" || headers.fetchSite == "same-site"))
        throw Refusal("forbidden_origin", "Sec-Fetch-Site",
                      "pages of other origins may not use the host");
    if (!rates_.take(exchange.connection.client, Clock::now()))
        throw Refusal("too_many_requests", "", "this address sends too many requests");
    if (isApi && token_ != nullptr && !token_->isShownBy(headers.authorization))
        throw Refusal("unauthorized", "Authorization",
                      headers.authorization.empty() ? "there is no token" : "the token is wrong");
}

void Server::route(Exchange& exchange, const char* method)
{
    exchange.route = findRoute(exchange.path);
    exchange.file = exchange.route == nullptr ? findFile(exchange.path) : nullptr;
    if (exchange.route == nullptr && exchange.file == nullptr)
        throw Refusal("not_found", "", "there is nothing at this path");
    const std::string taken = exchange.route != nullptr ? exchange.route->method : "GET";
    if (method != taken && !(taken == "GET" && std::string_view(method) == "HEAD"))
        throw Refusal("method_not_allowed", "", "this path takes " + taken);
    if (exchange.route != nullptr && exchange.hasQuery)
        throw Refusal("malformed", "", "parameters belong into the body, not behind a \"?\"");
    if (draining_)
        throw Refusal("draining", "", "the host is stopping");
}

void Server::checkBody(Exchange& exchange)
{
    const Headers& headers = exchange.headers;
    if (!headers.hasBody)
        return;
    if (exchange.route == nullptr || exchange.route->method != std::string_view("POST"))
        throw Refusal("malformed", "", "this path takes no body");
    if (!headers.contentEncoding.empty())
        throw Refusal("unsupported_type", "Content-Encoding", "the body is encoded once more");
    const size_t bytes = headers.bodySize();
    if (bytes > options_.bodyBytes)
        throw Refusal("too_large", "",
                      "the body has more than " + std::to_string(options_.bodyBytes) + " bytes");
    if (bodyBytes_ + bytes > mostBodies * options_.bodyBytes)
        throw Refusal("busy", "", "the bodies of other requests take all memory there is for them");
}

void Server::dispatch(Exchange& exchange)
{
    const auto done = [this, weak = std::weak_ptr(exchange.self)](Answer answer) {
        const std::shared_ptr<Exchange> waiting = weak.lock();
        if (waiting == nullptr)
            return;
        if (draining_ && answer.code == "busy")
            answer = answerOf(Refusal("draining", "", "the host stopped before the request began"));
        waiting->answer = std::move(answer);
        if (!waiting->isSuspended)
            return;
        waiting->isSuspended = false;
        MHD_resume_connection(waiting->handle);
    };
    if (exchange.file != nullptr) {
        exchange.answer = Answer();
        return;
    }
    const std::string& type = exchange.headers.contentType;
    switch (exchange.route->target) {
        case Target::Request:
            return service_.request(nameBehind(*exchange.route, exchange.path), type, exchange.body,
                                    done);
        case Target::Batch:
            return service_.batch(type, exchange.body, done);
        case Target::Peer:
            return service_.peer(nameBehind(*exchange.route, exchange.path), type, exchange.body,
                                 done);
        case Target::Ready:
            return service_.probe(done);
        case Target::Catalogue:
            return done(answerOf(catalogueJson()));
        case Target::Status:
            return done(answerOf(service_.status()));
        case Target::Live:
            return done(answerOf(nlohmann::ordered_json{{"status", "ok"}}));
        case Target::OpenApi:
            return done(answerOf(openApi()));
        case Target::Metrics:
            return done({200, metricsText(), "text/plain; version=0.0.4; charset=utf-8", ""});
    }
}

std::string Server::metricsText() const
{
    return service_.metricsText() +
           gauge("corvane_connections", static_cast<double>(connections_.size()));
}

// ---- Answers.

MHD_Result Server::queue(Exchange& exchange)
{
    Answer& answer = *exchange.answer;
    MHD_Response* response = nullptr;
    const bool isFile = exchange.file != nullptr && answer.status == 200;
    if (isFile && exchange.headers.noneMatch == exchange.file->etag)
        answer.status = 304;
    if (isFile) {
        const std::string_view bytes =
            answer.status == 304 ? std::string_view() : exchange.file->bytes;
        exchange.sent = bytes.size();
        response = MHD_create_response_from_buffer(bytes.size(), const_cast<char*>(bytes.data()),
                                                   MHD_RESPMEM_PERSISTENT);
    } else {
        auto* body = new std::string(std::move(answer.body));
        exchange.sent = body->size();
        response = MHD_create_response_from_buffer_with_free_callback_cls(
            body->size(), body->data(), &freeBody, body);
        if (response == nullptr)
            freeBody(body);
    }
    if (response == nullptr)
        return MHD_NO;

    const auto header = [&](const char* name, const std::string& value) {
        MHD_add_response_header(response, name, value.c_str());
    };
    for (const auto& [name, value] : securityHeaders)
        header(name, value);
    header("X-Request-Id", exchange.id);
    header("Content-Type", isFile ? exchange.file->type : answer.type);
    header("Cache-Control", isFile ? "no-cache" : "no-store");
    if (isFile)
        header("ETag", exchange.file->etag);
    if (answer.status == 401)
        header("WWW-Authenticate", "Bearer");
    if (answer.status == 405)
        header("Allow", exchange.route != nullptr && exchange.route->method[0] == 'P'
                            ? "POST"
                            : "GET, HEAD");
    if (answer.status == 429 || answer.status == 503)
        header("Retry-After", "1");
    if (draining_ || exchange.mustClose)
        header("Connection", "close");

    exchange.status = answer.status;
    metrics_.countAnswer(answer.status);
    exchange.connection.phase = Connection::Answering;
    exchange.connection.deadline = after(
        Seconds(options_.readSeconds + static_cast<double>(exchange.sent) / slowestBytesPerSecond));
    const MHD_Result queued = MHD_queue_response(exchange.handle, answer.status, response);
    MHD_destroy_response(response);
    return queued;
}

void Server::onCompleted(void* self, MHD_Connection* /*handle*/, void** context,
                         MHD_RequestTerminationCode how)
{
    Server& server = *static_cast<Server*>(self);
    if (*context == nullptr)
        return;
    const std::shared_ptr<Exchange> exchange = std::move(static_cast<Exchange*>(*context)->self);
    *context = nullptr;
    server.bodyBytes_ -= exchange->body.size();
    --server.active_;
    Connection& connection = exchange->connection;
    connection.exchange = nullptr;
    connection.phase = Connection::Reading;
    connection.isFirst = false;
    connection.deadline = after(Seconds(server.options_.readSeconds));
    if (server.draining_)
        server.cutOff(connection, nullptr);

    // Paths as clients wrote them may hold anything.
    const char* route = exchange->route != nullptr ? exchange->route->pattern : "";
    if (exchange->file != nullptr)
        route = exchange->file->path;
    nlohmann::ordered_json entry = {
        {"time", timeText()},
        {"id", exchange->id},
        {"address", connection.address},
        {"method",
         isHeaderName(exchange->method) && exchange->method.size() <= 16 ? exchange->method : ""},
        {"route", route},
        {"status", exchange->status},
        {"received", exchange->received},
        {"sent", exchange->sent},
        {"milliseconds", std::round(Seconds(Clock::now() - exchange->start).count() * 1e6) / 1e3},
        {"whole", how == MHD_REQUEST_TERMINATED_COMPLETED_OK}};
    if (exchange->route != nullptr && exchange->route->target == Target::Request) {
        const std::string name = nameBehind(*exchange->route, exchange->path);
        if (findRequest(name) != nullptr)
            entry["request"] = name;
    }
    if (exchange->answer && !exchange->answer->code.empty())
        entry["error"] = exchange->answer->code;
    server.log_.write(entry);
}
