// The paths of `corvane-host serve`: their methods, and all that can come of a request to one.
// The service routes by this table, and the OpenAPI document is made from it.
#ifndef CORVANE_HOST_CATALOGUE_HTTP_ROUTES_H
#define CORVANE_HOST_CATALOGUE_HTTP_ROUTES_H

#include <set>
#include <string>
#include <vector>

#include "catalogue.h"
#include "error_codes.h"

// Requests of one batch.
constexpr size_t mostBatchRequests = 256;

enum class Target { Request, Batch, Peer, Status, Live, Ready, Metrics, Document };

struct Route {
    const char* path;     // one that ends in "/" takes a name behind it
    const char* pattern;  // for logs
    const char* method;   // GET stands for HEAD too
    Target target;
    std::set<unsigned> answers;         // the statuses of what is no refusal
    std::vector<const char*> refusals;  // the host's codes
};

const std::vector<Route>& httpRoutes();

// Of a path as it was written: nothing is decoded, so nothing can be hidden. Null if there
// is none.
const Route* findRoute(const std::string& path);

// Whether the token is asked for, also where there is nothing.
bool needsToken(const std::string& path);

// Statuses that libmicrohttpd answers by itself, with a line of HTML, on any path.
const std::set<unsigned>& libraryStatuses();

// Every status that can come of a route.
std::set<unsigned> statusesOf(const Route& route);
// The same for one request, whose name is known and which may take no session.
std::set<unsigned> statusesOf(const Route& route, const RequestInfo& info);

#endif
