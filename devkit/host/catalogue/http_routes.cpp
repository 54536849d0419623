#include "http_routes.h"

#include <string_view>

namespace {

using Codes = std::vector<const char*>;

Codes operator+(Codes left, const Codes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// What is refused before the path matters, of the head of a request.
const Codes head = {"malformed", "forbidden_host",    "forbidden_origin", "method_not_allowed",
                    "timeout",   "too_many_requests", "headers_too_large"};
const Codes token = head + Codes{"unauthorized"};
// Where headers name a node.
const Codes node = token + Codes{"wrong_node"};
// What becomes of bodies.
const Codes body = node + Codes{"wrong_type",          "bad_encoding", "duplicate_parameter",
                                "too_many_parameters", "too_large",    "parameter_too_large",
                                "unsupported_type",    "busy",         "draining"};
// What is refused of a request to the plug-in.
const Codes request = body + Codes{"unknown_request", "bad_path", "session_gone"};
// Where an answer is waited for and no memory is left for it, it is worker_failed too.
const Codes worker = {"worker_failed", "worker_timeout"};
const Codes memory = {"worker_failed"};
const Codes ending = {"draining"};

// clang-format off
const std::vector<Route> routes = {
    {"/v1/requests/", "/v1/requests/{name}", "POST", Target::Request,  {200},      request + worker},
    // A part that a worker does not finish is told in the part's answer.
    {"/v1/batch",     "/v1/batch",           "POST", Target::Batch,    {200},      request + memory},
    {"/v1/peer/",     "/v1/peer/{step}",     "POST", Target::Peer,     {200},      body + Codes{"not_found"} + worker},
    {"/v1/catalogue", "/v1/catalogue",       "GET",  Target::Document, {200, 304}, token},
    {"/v1/status",    "/v1/status",          "GET",  Target::Status,   {200},      node},
    {"/livez",        "/livez",              "GET",  Target::Live,     {200},      head},
    {"/readyz",       "/readyz",             "GET",  Target::Ready,    {200, 503}, head + memory + ending},
    {"/metrics",      "/metrics",            "GET",  Target::Metrics,  {200},      token},
    {"/openapi.json", "/openapi.json",       "GET",  Target::Document, {200, 304}, head},
};
// clang-format on

bool startsWith(std::string_view text, std::string_view beginning)
{
    return text.substr(0, beginning.size()) == beginning;
}

}  // namespace

const std::vector<Route>& httpRoutes()
{
    return routes;
}

const Route* findRoute(const std::string& path)
{
    for (const Route& route : routes) {
        const std::string_view whole = route.path;
        const bool takesName = whole.back() == '/';
        if (takesName ? startsWith(path, whole) && path.find('/', whole.size()) == std::string::npos
                      : path == whole)
            return &route;
    }
    return nullptr;
}

bool needsToken(const std::string& path)
{
    return startsWith(path, "/v1/") || path == "/v1" || path == "/metrics";
}

const std::set<unsigned>& libraryStatuses()
{
    // Not HTTP, a length that is no number, a first line or headers that do not fit into its
    // memory, HTTP of another version.
    static const std::set<unsigned> statuses = {400, 413, 414, 431, 505};
    return statuses;
}

std::set<unsigned> statusesOf(const Route& route)
{
    std::set<unsigned> statuses = route.answers;
    statuses.insert(libraryStatuses().begin(), libraryStatuses().end());
    for (const char* name : route.refusals)
        statuses.insert(findHostCode(name)->status);
    return statuses;
}

std::set<unsigned> statusesOf(const Route& route, const RequestInfo& info)
{
    std::set<unsigned> statuses = statusesOf(route);
    statuses.erase(findHostCode("unknown_request")->status);
    if (!takesSession(info))
        statuses.erase(findHostCode("session_gone")->status);
    return statuses;
}
