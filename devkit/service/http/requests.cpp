// Requests on their way into the service: heads, bodies, and who gets them.
#include "common/failure.h"

#include <nlohmann/json.hpp>
#include "common/text.h"
#include "exchange.h"

namespace {

// Suspending a connection and resuming it takes about as long as so many looks for its answer.
constexpr unsigned mostLooks = 16;

}  // namespace

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
    exchange->isTargetPlain = isHeaderValue(target);
    // Whose request a proxy passes on is told behind the first line.
    exchange->isWithinRate = connection.isProxy || m_shared.limits.takeRequest(connection.client);
    connection.exchange = std::move(exchange);
    // Time once more for what is behind the first line.
    connection.deadline = after(Seconds(m_options.readSeconds));
    return connection.exchange.get();
}

MHD_Result Server::onRequest(void* self, MHD_Connection* /*handle*/, const char* url,
                             const char* method, const char* version, const char* data,
                             size_t* size, void** context)
{
    Server& server = *static_cast<Server*>(self);
    ++server.m_calls;
    auto* exchange = static_cast<Exchange*>(*context);
    if (exchange == nullptr)
        return MHD_NO;
    try {
        const FirstLine first = {method, url, exchange->targetSize, version,
                                 exchange->isTargetPlain};
        return server.take(*exchange, first, data, size);
    } catch (const std::exception& e) {
        // Out of memory or descriptors: this connection ends, the others go on.
        tellFailure("a request could not be served", e);
        return MHD_NO;
    }
}

MHD_Result Server::take(Exchange& exchange, const FirstLine& first, const char* data, size_t* size)
{
    const bool isWhole = exchange.isStarted && *size == 0;
    if (!isWhole && std::exchange(exchange.lastRead, m_runs) != m_runs)
        ++m_unfinished;
    if (!exchange.isStarted)
        return takeHead(exchange, first);
    if (!isWhole)
        return takePiece(exchange, {data, std::exchange(*size, 0)});

    exchange.connection.phase = Connection::Working;
    if (!exchange.answer && !exchange.isDispatched) {
        exchange.isDispatched = true;
        m_unfinished -= exchange.lastRead == m_runs ? 1 : 0;
        dispatch(exchange);
        wipe(exchange.body);
    }
    if (!exchange.answer && !exchange.isForgotten) {
        waitForAnswer(exchange);
        return MHD_YES;
    }
    if (!exchange.answer)
        exchange.answer = answerOf(Refusal(Reason::no_memory));
    return queue(exchange);
}

// The library asks again in each of its runs until there is an answer, which mostly comes soon.
// One that does not is waited for with the connection suspended. TLS always is: the library may
// hold a part of another request there without saying so.
void Server::waitForAnswer(Exchange& exchange)
{
    if (m_options.tlsCert.empty() && exchange.looks++ < mostLooks) {
        ++m_looks;
        return;
    }
    exchange.isSuspended = true;
    MHD_suspend_connection(exchange.handle);
}

MHD_Result Server::takeHead(Exchange& exchange, const FirstLine& first)
{
    exchange.isStarted = true;
    exchange.method = first.method;
    try {
        exchange.mustClose = true;
        readHeaders(exchange.handle, first, exchange.headers);
        // What stands between chunks and behind them is read by the library alone, which takes more
        // for an end of line than others do: nothing that follows is taken for another request.
        exchange.mustClose = exchange.headers.isChunked();
        if (exchange.connection.isProxy)
            believe(exchange);
        if (!exchange.isWithinRate)
            throw Refusal(Reason::too_fast);
        checkAccess(exchange);
        if (!m_options.node.empty())
            checkHeaders(exchange.headers.to());
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
    // The library's own bytes are not ours to write. It overwrites them when the answer has gone.
    // An announced body in one piece of memory, at once.
    if (exchange.body.empty())
        exchange.body.reserve(exchange.headers.bodySize());
    appendSecret(exchange.body, piece);
    return MHD_YES;
}

// Takes over what a proxy says of the request that it passes on.
void Server::believe(Exchange& exchange)
{
    const auto client =
        m_shared.proxies.clientOf(exchange.connection.peer, exchange.headers.forwardedFor);
    exchange.address = textOf(client);
    exchange.isWithinRate = m_shared.limits.takeRequest(clientOf(client));
    if (isRequestId(exchange.headers.requestId))
        exchange.id = exchange.headers.requestId;
}

void Server::checkAccess(const Exchange& exchange) const
{
    const Headers& headers = exchange.headers;
    const bool isApi = needsToken(exchange.path);

    if (!m_shared.sites.isHost(headers.host))
        throw Refusal(Reason::unknown_host, "Host");
    if (!headers.origin.empty() && !m_shared.sites.isOrigin(headers.origin, headers.host))
        throw Refusal(Reason::other_origin, "Origin");
    const bool isOwnSite = headers.fetchSite.empty() ||
                           equalIgnoringCase(headers.fetchSite, "none") ||
                           equalIgnoringCase(headers.fetchSite, "same-origin");
    if (isApi && headers.origin.empty() && !isOwnSite)
        throw Refusal(Reason::other_site, "Sec-Fetch-Site");
    if (isApi && m_shared.tokens != nullptr && !m_shared.tokens->isShownBy(headers.authorization))
        throw Refusal(headers.authorization.empty() ? Reason::no_token : Reason::wrong_token,
                      "Authorization");
}

void Server::route(Exchange& exchange, const char* method)
{
    exchange.route = findRoute(exchange.path);
    exchange.file = exchange.route == nullptr ? findFile(exchange.path) : nullptr;
    if (exchange.route == nullptr && exchange.file == nullptr)
        throw Refusal(Reason::no_such_path);
    const std::string taken = exchange.route != nullptr ? exchange.route->method : "GET";
    if (method != taken && !(taken == "GET" && std::string_view(method) == "HEAD"))
        throw Refusal(Reason::other_method, "", {{"method", taken}});
    if (exchange.route != nullptr && exchange.hasQuery)
        throw Refusal(Reason::query);
    if (exchange.route != nullptr)
        exchange.file = findDocument(*exchange.route);
}

void Server::checkBody(Exchange& exchange)
{
    const Headers& headers = exchange.headers;
    if (!headers.hasBody)
        return;
    if (exchange.route == nullptr || exchange.route->method != std::string_view("POST"))
        throw Refusal(Reason::body_not_due);
    if (!headers.contentEncoding.empty())
        throw Refusal(Reason::body_encoded, "Content-Encoding");
    makeRoom(exchange, headers.bodySize());
}

// For a body of so many bytes, with what it has room for already.
void Server::makeRoom(Exchange& exchange, size_t bytes)
{
    if (bytes > m_options.bodyBytes)
        throw Refusal(Reason::body_too_large, "", {{"most", std::to_string(m_options.bodyBytes)}});
    if (bytes <= exchange.room)
        return;
    const size_t more = bytes - exchange.room;
    if (!m_shared.limits.takeRoom(more))
        throw Refusal(Reason::bodies_full);
    exchange.room += more;
}

void Server::dispatch(Exchange& exchange)
{
    if (exchange.file != nullptr) {
        exchange.answer = Answer();
        return;
    }
    const Target target = exchange.route->target;
    if (target == Target::Live) {
        exchange.answer = answerOf(nlohmann::ordered_json{{"status", "ok"}});
        return;
    }
    const auto reply = std::make_shared<Reply>(exchange.connection.exchange);
    m_service.begin({target, nameBehind(*exchange.route, exchange.path), exchange.headers.to(),
                     std::move(exchange.headers.contentType), std::move(exchange.body)},
                    [reply](Answer answer) { reply->give(std::move(answer)); });
}
