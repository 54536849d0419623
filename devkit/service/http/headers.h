// The headers of a request that the host looks at.
#ifndef CORVANE_SERVICE_HTTP_HEADERS_H
#define CORVANE_SERVICE_HTTP_HEADERS_H

#include <microhttpd.h>

#include <string>
#include <string_view>

#include "common/secrets.h"
#include "service/requests/addressee.h"

struct Headers {
    std::string host;
    std::string origin;
    std::string fetchSite;
    std::string authorization;
    std::string contentType;
    std::string contentLength;
    std::string contentEncoding;
    std::string transferEncoding;
    std::string noneMatch;
    std::string node;
    std::string session;
    std::string requestId;
    std::string forwardedFor;
    bool hasBody = false;

    ~Headers()
    {
        wipe(authorization);
        wipe(session);
    }

    // Which node the request is for.
    Addressee to() const { return {node, session}; }
    // Of headers that have been read without a Refusal.
    bool isChunked() const { return !transferEncoding.empty(); }
    // As announced; 0 for one in chunks.
    size_t bodySize() const;
};

// The first line of a request, where libmicrohttpd keeps it.
struct FirstLine {
    const char* method;
    const char* target;
    size_t targetSize;  // up to the version, or to a NUL
    const char* version;
    bool isTargetPlain;  // as it came: the library cuts a query into pieces
};

// Throws a Refusal for too many headers, and for what two readers of the same bytes could
// take for different requests; the connection has to end then. `hasBody` is right also then.
void readHeaders(MHD_Connection* connection, const FirstLine& first, Headers& headers);

// RFC 9110, section 5.6.2: of headers and methods.
bool isHeaderName(std::string_view name);
// Without control characters but for tabs; of targets, too.
bool isHeaderValue(std::string_view value);

#endif
