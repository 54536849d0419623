// Answers on their way out, and what is noted of them.
#include "common/failure.h"
#include "exchange.h"
#include "host/catalogue/catalogue.h"

namespace {

// Slower readers of an answer are cut off.
constexpr double slowestBytesPerSecond = 65536;

// A larger body may have filled the library's buffer. Then the next request may be in the socket
// without an event that tells of it.
constexpr size_t mostOfOneRead = size_t{16} << 10;

// For pages and what belongs to them, which browsers show.
constexpr const char* pageHeaders[][2] = {
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
     "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
    {"X-Frame-Options", "DENY"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Cross-Origin-Opener-Policy", "same-origin"},
};

void freeBody(void* body)
{
    delete static_cast<SecretText*>(body);
}

}  // namespace

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
    auto* body = new SecretText(std::move(answer.body));
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
    const auto header = [&](const char* name, const char* value) {
        isWhole = isWhole && MHD_add_response_header(response.get(), name, value) == MHD_YES;
    };
    header("X-Content-Type-Options", "nosniff");
    if (isFile)
        for (const auto& [name, value] : pageHeaders)
            header(name, value);
    header("X-Request-Id", exchange.id.c_str());
    if (!m_options.node.empty())
        header(nodeHeader, m_options.node.c_str());
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
    if (isForLater(answer.status))
        header("Retry-After", "1");
    if (m_draining || exchange.mustClose)
        header("Connection", "close");
    // There is no answer without its headers.
    if (!isWhole)
        return MHD_NO;

    ++m_queued;
    m_shared.metrics.countAnswer(answer.status);
    exchange.status = answer.status;
    exchange.connection.phase = Connection::Answering;
    exchange.connection.deadline = after(Seconds(
        m_options.readSeconds + static_cast<double>(exchange.sent) / slowestBytesPerSecond));
    return MHD_queue_response(exchange.handle, answer.status, response.get());
}

void Server::onCompleted(void* self, MHD_Connection* handle, void** context,
                         MHD_RequestTerminationCode how)
{
    Server& server = *static_cast<Server*>(self);
    ++server.m_calls;
    if (*context == nullptr)
        return;
    Exchange& exchange = *static_cast<Exchange*>(*context);
    *context = nullptr;
    // The library's own answer.
    const auto* info = MHD_get_connection_info(handle, MHD_CONNECTION_INFO_HTTP_STATUS);
    if (exchange.status == 0 && info != nullptr) {
        exchange.status = info->http_status;
        withoutFailure("an answer is not counted",
                       [&] { server.m_shared.metrics.countAnswer(exchange.status); });
    }
    server.finish(exchange.connection, how == MHD_REQUEST_TERMINATED_COMPLETED_OK);
}

void Server::finish(Connection& connection, bool isWhole)
{
    const std::shared_ptr<Exchange> exchange = std::move(connection.exchange);
    connection.exchange = nullptr;
    m_unfinished += exchange->received > mostOfOneRead ? 1 : 0;
    connection.phase = Connection::Reading;
    connection.deadline = after(m_draining ? grace() : Seconds(m_options.readSeconds));
    withoutFailure("a request is not logged", [&] { log(*exchange, isWhole); });
}

void Server::log(const Exchange& exchange, bool isWhole)
{
    const auto time =
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - exchange.start);
    AccessEntry entry;
    entry.id = exchange.id;
    entry.address = exchange.address.empty() ? exchange.connection.address : exchange.address;
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
    if (exchange.answer) {
        entry.error = exchange.answer->code;
        entry.requests = exchange.answer->parts;
        entry.failed = exchange.answer->failed;
    }
    m_shared.log.write(entry);
}
