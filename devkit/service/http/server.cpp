#include "server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/tcp.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
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

#include "common/failure.h"
#include "common/secrets.h"
#include "common/text.h"
#include "host/catalogue/descriptions.h"
#include "host/output.h"
#include "host/values.h"
#include "routes.h"

namespace {

// The library keeps a connection's headers and a part of its body in so many bytes, and
// answers by itself to one whose headers do not fit.
constexpr size_t connectionMemory = size_t{64} << 10;

// Bodies that are kept at once, as a multiple of the largest one.
constexpr size_t mostBodies = 16;

// Slower readers of an answer are cut off.
constexpr double slowestBytesPerSecond = 65536;

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
    ~Exchange()
    {
        wipe(body);
        server.bodyBytes_ -= room;
    }
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
    size_t targetSize = 0;
    bool hasQuery = false;
    bool isWithinRate = true;
    Headers headers;
    const Route* route = nullptr;
    const ConsoleFile* file = nullptr;

    bool isStarted = false;
    bool isDispatched = false;
    bool isForgotten = false;  // dispatched, but no answer will come
    bool isSuspended = false;
    bool mustClose = false;
    std::string body;
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
    explicit Reply(const std::shared_ptr<Exchange>& exchange) : exchange_(exchange) {}
    ~Reply()
    {
        const std::shared_ptr<Exchange> exchange = exchange_.lock();
        if (exchange == nullptr || exchange->answer)
            return;
        exchange->isForgotten = true;
        exchange->resume();
    }
    Reply(const Reply&) = delete;
    Reply& operator=(const Reply&) = delete;

    void give(Answer answer)
    {
        const std::shared_ptr<Exchange> exchange = exchange_.lock();
        if (exchange == nullptr)
            return;
        if (exchange->server.draining_ && answer.code == "busy")
            answer = answerOf(Refusal("draining", "", "the host stopped before the request began"));
        exchange->answer = std::move(answer);
        exchange->resume();
    }

private:
    const std::weak_ptr<Exchange> exchange_;
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
      rates_(options.rate, options.burst),
      sweep_(loop, [this] { sweep(); })
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
        items.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, certificate_.data()});
        items.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, key_.data()});
        items.push_back({MHD_OPTION_HTTPS_PRIORITIES, 0, const_cast<char*>(tlsPriorities)});
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
    // The library ends the process if one is left.
    for (const auto& [connection, owner] : connections_)
        if (connection->exchange != nullptr)
            connection->exchange->resume();
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
    const size_t before = calls_;
    MHD_run(daemon_);
    MHD_UNSIGNED_LONG_LONG milliseconds = 0;
    const bool hasTimeout = MHD_get_timeout(daemon_, &milliseconds) == MHD_YES;
    const bool isIdle = hasTimeout && milliseconds == 0 && calls_ == before;
    idleRounds_ = isIdle ? std::min(idleRounds_ + 1, mostIdleRounds + 1)
                         : idleRounds_ - std::min(idleRounds_, idleRoundsPaid);
    if (!hasTimeout)
        return -1;
    if (idleRounds_ > mostIdleRounds)
        return idleMilliseconds;
    return static_cast<int>(std::min<MHD_UNSIGNED_LONG_LONG>(milliseconds, 60000));
}

Seconds Server::grace() const
{
    return std::min(longestGrace, Seconds(options_.drainSeconds));
}

// The library takes a few connections at a time of those that the system has made.
void Server::acceptAll()
{
    const auto* info = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_LISTEN_FD);
    pollfd waiting = {info->listen_fd, POLLIN, 0};
    const Clock::time_point end = after(longestAccepting);
    size_t before;
    do {
        before = accepted_;
        MHD_run(daemon_);
    } while (accepted_ != before && poll(&waiting, 1, 0) > 0 && Clock::now() < end);
}

void Server::drain()
{
    if (draining_)
        return;
    acceptAll();
    draining_ = true;
    const Descriptor closed(MHD_quiesce_daemon(daemon_));
    const Clock::time_point end = after(grace());
    for (const auto& [connection, owner] : connections_)
        if (connection->exchange == nullptr)
            connection->deadline = std::min(connection->deadline, end);
    sweep();
}

void Server::endWaiting()
{
    for (const auto& [connection, owner] : connections_)
        if (connection->exchange == nullptr)
            cutOff(*connection, nullptr);
}

// ---- Connections.

void Server::onConnection(void* self, MHD_Connection* handle, void** context,
                          MHD_ConnectionNotificationCode what)
{
    Server& server = *static_cast<Server*>(self);
    ++server.calls_;
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
    auto owner = std::make_unique<Connection>();
    Connection& connection = *owner;
    connection.socket =
        MHD_get_connection_info(handle, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    std::tie(connection.address, connection.client) =
        addressOf(MHD_get_connection_info(handle, MHD_CONNECTION_INFO_CLIENT_ADDRESS)->client_addr);
    connection.deadline = after(Seconds(options_.readSeconds));
    size_t& ofAddress = perAddress_[connection.client];
    connections_[&connection] = std::move(owner);
    *context = &connection;
    ++accepted_;
    if (++ofAddress > options_.connectionsPerAddress) {
        const Refusal refusal("too_many_requests", "", "this address has too many connections");
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
    const auto found = perAddress_.find(connection.client);
    if (--found->second == 0)
        perAddress_.erase(found);
    connections_.erase(&connection);
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
    metrics_.countAnswer(refusal.code().status);
    if (!options_.tlsCert.empty())
        return;
    const std::string body = write(refusal.json(), -1);
    const std::string id = connection.exchange != nullptr ? connection.exchange->id : makeId();
    const std::string text =
        "HTTP/1.1 " + std::to_string(refusal.code().status) + " " +
        MHD_get_reason_phrase_for(refusal.code().status) +
        "\r\nConnection: close\r\nContent-Type: application/json\r\nCache-Control: no-store"
        "\r\nX-Request-Id: " +
        id + "\r\nRetry-After: 1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
        body;
    send(connection.socket, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

void Server::sweep()
{
    const Seconds often = draining_ ? grace() / 8 : Seconds(options_.readSeconds / 8);
    sweep_.set(after(std::clamp(often, Seconds(0.05), Seconds(1))));
    const Clock::time_point now = Clock::now();
    for (const auto& [connection, owner] : connections_) {
        if (connection->phase == Connection::Working || connection->deadline > now)
            continue;
        // One that waits for its next request is closed without a word, unless that has come.
        const bool isWaiting =
            connection->exchange == nullptr && (draining_ || !connection->isFirst);
        if (isWaiting && hasMore(connection->socket))
            continue;
        const bool isLate = connection->phase == Connection::Reading && !isWaiting;
        cutOff(*connection, isLate ? &late_ : nullptr);
    }
    rates_.sweep(now);
}

// ---- Requests.

void* Server::onUri(void* self, const char* uri, MHD_Connection* handle)
{
    Server& server = *static_cast<Server*>(self);
    auto* connection = static_cast<Connection*>(
        MHD_get_connection_info(handle, MHD_CONNECTION_INFO_SOCKET_CONTEXT)->socket_context);
    if (connection == nullptr)
        return nullptr;
    try {
        return server.begin(*connection, handle, uri);
    } catch (const std::exception& e) {
        tellFailure("a request cannot be taken", e);
        return nullptr;
    }
}

Server::Exchange* Server::begin(Connection& connection, MHD_Connection* handle,
                                std::string_view target)
{
    // One that the library has given up without a word.
    if (connection.exchange != nullptr)
        finish(connection, false);
    connection.isFirst = false;
    auto exchange = std::make_shared<Exchange>(*this, connection, handle);
    const size_t query = target.find('?');
    exchange->path = std::string(target.substr(0, query));
    exchange->targetSize = target.size();
    exchange->hasQuery = query != std::string_view::npos;
    exchange->isWithinRate = rates_.take(connection.client, Clock::now());
    connection.exchange = std::move(exchange);
    // Time once more for what is behind the first line.
    connection.deadline = after(Seconds(options_.readSeconds));
    return connection.exchange.get();
}

MHD_Result Server::onRequest(void* self, MHD_Connection* /*handle*/, const char* url,
                             const char* method, const char* version, const char* data,
                             size_t* size, void** context)
{
    Server& server = *static_cast<Server*>(self);
    ++server.calls_;
    auto* exchange = static_cast<Exchange*>(*context);
    if (exchange == nullptr)
        return MHD_NO;
    try {
        const FirstLine first = {method, url, exchange->targetSize, version};
        return server.take(*exchange, first, data, size);
    } catch (const std::exception& e) {
        // Out of memory or descriptors: this connection ends, the others go on.
        tellFailure("a request could not be served", e);
        return MHD_NO;
    }
}

MHD_Result Server::take(Exchange& exchange, const FirstLine& first, const char* data, size_t* size)
{
    if (!exchange.isStarted)
        return takeHead(exchange, first);
    if (*size > 0)
        return takePiece(exchange, {data, std::exchange(*size, 0)});

    exchange.connection.phase = Connection::Working;
    if (!exchange.answer && !exchange.isDispatched) {
        exchange.isDispatched = true;
        try {
            dispatch(exchange);
        } catch (const Refusal& refusal) {
            exchange.answer = answerOf(refusal);
        }
        wipe(exchange.body);
        exchange.body.shrink_to_fit();
        if (!exchange.answer && !exchange.isForgotten) {
            exchange.isSuspended = true;
            MHD_suspend_connection(exchange.handle);
            return MHD_YES;
        }
    }
    if (!exchange.answer)
        exchange.answer =
            answerOf(Refusal("worker_failed", "", "there was no memory for the answer"));
    return queue(exchange);
}

MHD_Result Server::takeHead(Exchange& exchange, const FirstLine& first)
{
    exchange.isStarted = true;
    exchange.method = first.method;
    try {
        exchange.mustClose = true;
        readHeaders(exchange.handle, first, exchange.headers);
        exchange.mustClose = false;
        if (!exchange.isWithinRate)
            throw Refusal("too_many_requests", "", "this address sends too many requests");
        checkAccess(exchange);
        route(exchange, first.method);
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

MHD_Result Server::takePiece(Exchange& exchange, std::string_view piece)
{
    exchange.received += piece.size();
    try {
        makeRoom(exchange, exchange.received);
    } catch (const Refusal& refusal) {
        cutOff(exchange.connection, &refusal);
        return MHD_NO;
    }
    // An announced one in one piece of memory, at once.
    if (exchange.body.empty())
        exchange.body.reserve(exchange.headers.bodySize());
    appendSecret(exchange.body, piece);
    return MHD_YES;
}

void Server::checkAccess(const Exchange& exchange) const
{
    const Headers& headers = exchange.headers;
    const bool isApi = needsToken(exchange.path);

    if (!sites_.isHost(headers.host))
        throw Refusal("forbidden_host", "Host", "the host is not known by the name in Host");
    if (!headers.origin.empty() && !sites_.isOrigin(headers.origin, headers.host))
        throw Refusal("forbidden_origin", "Origin", "pages of this origin may not use the host");
    const bool isOwnSite = headers.fetchSite.empty() ||
                           equalIgnoringCase(headers.fetchSite, "none") ||
                           equalIgnoringCase(headers.fetchSite, "same-origin");
    if (isApi && headers.origin.empty() && !isOwnSite)
        throw Refusal("forbidden_origin", "Sec-Fetch-Site",
                      "pages of other origins may not use the host");
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
    if (exchange.route != nullptr)
        exchange.file = findDocument(*exchange.route);
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
    makeRoom(exchange, headers.bodySize());
}

// For a body of so many bytes, with what it has room for already.
void Server::makeRoom(Exchange& exchange, size_t bytes)
{
    if (bytes > options_.bodyBytes)
        throw Refusal("too_large", "",
                      "the body has more than " + std::to_string(options_.bodyBytes) + " bytes");
    if (bytes <= exchange.room)
        return;
    const size_t more = bytes - exchange.room;
    if (bodyBytes_ + more > mostBodies * options_.bodyBytes)
        throw Refusal("busy", "", "the bodies of other requests take all memory there is for them");
    bodyBytes_ += more;
    exchange.room += more;
}

void Server::dispatch(Exchange& exchange)
{
    if (exchange.file != nullptr) {
        exchange.answer = Answer();
        return;
    }
    const auto reply = std::make_shared<Reply>(exchange.connection.exchange);
    const auto done = [reply](Answer answer) { reply->give(std::move(answer)); };
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
        case Target::Status:
            return done(answerOf(service_.status()));
        case Target::Live:
            return done(answerOf(nlohmann::ordered_json{{"status", "ok"}}));
        case Target::Metrics:
            return done({200, metricsText(), "text/plain; version=0.0.4; charset=utf-8", ""});
        case Target::Document:
            return;  // is a file
    }
}

std::string Server::metricsText() const
{
    log_.flush();
    return service_.metricsText() +
           gauge("corvane_connections", static_cast<double>(connections_.size())) +
           gauge("corvane_access_log_dropped_total", static_cast<double>(log_.dropped()), "",
                 "counter");
}

// ---- Answers.

// What is sent; the bytes of files are not copied.
MHD_Response* Server::makeResponse(Exchange& exchange)
{
    Answer& answer = *exchange.answer;
    if (exchange.file != nullptr && answer.status == 200) {
        if (exchange.headers.noneMatch == exchange.file->etag)
            answer.status = 304;
        const std::string_view bytes =
            answer.status == 304 ? std::string_view() : exchange.file->bytes;
        exchange.sent = bytes.size();
        return MHD_create_response_from_buffer(bytes.size(), const_cast<char*>(bytes.data()),
                                               MHD_RESPMEM_PERSISTENT);
    }
    auto* body = new std::string(std::move(answer.body));
    exchange.sent = body->size();
    MHD_Response* response = MHD_create_response_from_buffer_with_free_callback_cls(
        body->size(), body->data(), &freeBody, body);
    if (response == nullptr)
        freeBody(body);
    return response;
}

MHD_Result Server::queue(Exchange& exchange)
{
    const bool isFile = exchange.file != nullptr && exchange.answer->status == 200;
    const std::unique_ptr<MHD_Response, decltype(&MHD_destroy_response)> response(
        makeResponse(exchange), &MHD_destroy_response);
    if (response == nullptr)
        return MHD_NO;
    if (exchange.method == "HEAD")
        exchange.sent = 0;

    const Answer& answer = *exchange.answer;
    bool isWhole = true;
    const auto header = [&](const char* name, const std::string& value) {
        isWhole =
            isWhole && MHD_add_response_header(response.get(), name, value.c_str()) == MHD_YES;
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
    // There is no answer without its headers.
    if (!isWhole)
        return MHD_NO;

    metrics_.countAnswer(answer.status);
    exchange.status = answer.status;
    exchange.connection.phase = Connection::Answering;
    exchange.connection.deadline = after(
        Seconds(options_.readSeconds + static_cast<double>(exchange.sent) / slowestBytesPerSecond));
    return MHD_queue_response(exchange.handle, answer.status, response.get());
}

void Server::onCompleted(void* self, MHD_Connection* handle, void** context,
                         MHD_RequestTerminationCode how)
{
    Server& server = *static_cast<Server*>(self);
    ++server.calls_;
    if (*context == nullptr)
        return;
    Exchange& exchange = *static_cast<Exchange*>(*context);
    *context = nullptr;
    // The library's own answer.
    const auto* info = MHD_get_connection_info(handle, MHD_CONNECTION_INFO_HTTP_STATUS);
    if (exchange.status == 0 && info != nullptr) {
        exchange.status = info->http_status;
        withoutFailure("an answer is not counted",
                       [&] { server.metrics_.countAnswer(exchange.status); });
    }
    server.finish(exchange.connection, how == MHD_REQUEST_TERMINATED_COMPLETED_OK);
}

void Server::finish(Connection& connection, bool isWhole)
{
    const std::shared_ptr<Exchange> exchange = std::move(connection.exchange);
    connection.exchange = nullptr;
    connection.phase = Connection::Reading;
    connection.deadline = after(draining_ ? grace() : Seconds(options_.readSeconds));
    withoutFailure("a request is not logged", [&] { log(*exchange, isWhole); });
}

void Server::log(const Exchange& exchange, bool isWhole)
{
    const auto time =
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - exchange.start);
    AccessEntry entry;
    entry.id = exchange.id;
    entry.address = exchange.connection.address;
    // Methods and paths as clients wrote them may hold anything.
    if (isHeaderName(exchange.method) && exchange.method.size() <= 16)
        entry.method = exchange.method;
    if (exchange.route != nullptr)
        entry.route = exchange.route->pattern;
    if (exchange.file != nullptr)
        entry.route = exchange.file->path;
    entry.status = exchange.status;
    entry.received = exchange.received;
    entry.sent = exchange.sent;
    entry.microseconds = static_cast<uint64_t>(time.count());
    entry.isWhole = isWhole;
    if (exchange.route != nullptr && exchange.route->target == Target::Request)
        if (const RequestInfo* info = findRequest(nameBehind(*exchange.route, exchange.path)))
            entry.request = info->name;
    if (exchange.answer)
        entry.error = exchange.answer->code;
    log_.write(entry);
}
