// What the program remembers of an exchange from one run to the next, in a file for its
// owner alone.
#ifndef CORVANE_PEER_STATE_FILE_H
#define CORVANE_PEER_STATE_FILE_H

#include <optional>
#include <string>

#include "ke_server.h"

struct ExchangeState {
    KeyKind kind;
    std::string hello;
    std::string random;               // the server's
    std::optional<std::string> keys;  // ChannelKeys::block, once the exchange is finished
};

// Both throw a PeerError.
void writeState(const std::string& path, const ExchangeState& state);
ExchangeState readState(const std::string& path);

#endif
