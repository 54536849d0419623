// The socket on which the server listens.
#ifndef CORVANE_SERVICE_HTTP_LISTENING_SOCKET_H
#define CORVANE_SERVICE_HTTP_LISTENING_SOCKET_H

#include <string>

#include "common/descriptor.h"
#include "service/operation/options.h"

struct ListeningSocket {
    Descriptor descriptor;
    std::string url;  // "http://127.0.0.1:8720", with the port that it got
};

// Throws a UsageError.
ListeningSocket listenAt(const ServeOptions& options);

#endif
