// The peer as a worker of `corvane-host serve`: the steps of peer_steps.h, with exchanges
// that live in this process alone.
#ifndef CORVANE_PEER_WORKER_H
#define CORVANE_PEER_WORKER_H

#include <deque>
#include <optional>
#include <string>

#include "common/secrets.h"
#include "common/wire.h"
#include "ke_server.h"

class PeerWorker {
public:
    PeerWorker();

    // Tells that it is ready and serves until the socket ends.
    void serve(int socket);

private:
    struct Exchange {
        SecretText token;
        std::string hello;
        std::string random;
        std::optional<ChannelKeys> keys;
    };

    SecretPairs answer(const WireRequest& request);
    SecretPairs begin(const std::string& hello);
    Exchange& find(const std::string& token);

    Credential m_root;
    ServerCredentials m_server;
    std::deque<Exchange> m_exchanges;  // the oldest first
};

#endif
