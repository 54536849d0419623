// The socket on which the server listens.
#ifndef CORVANE_SERVICE_HTTP_LISTENING_SOCKET_H
#define CORVANE_SERVICE_HTTP_LISTENING_SOCKET_H

#include <string>

#include "common/descriptor.h"
#include "service/operation/options.h"
#include "unix_socket.h"

struct ListeningSocket {
    Descriptor descriptor;
    std::string place;  // "http://127.0.0.1:8720", with the port that it got, or "unix:/path"
    SocketFile file;    // none of an address
};

// Throws a UsageError.
ListeningSocket listenAt(const ServeOptions& options);

#endif
