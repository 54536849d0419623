// How the peer fails.
#ifndef CORVANE_PEER_PEER_ERROR_H
#define CORVANE_PEER_PEER_ERROR_H

#include <stdexcept>
#include <string>

// What went wrong, in words for the user. Never quotes a secret.
struct PeerError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// For a step that fails only if memory is short or libcrypto is incomplete.
inline void must(bool ok, const char* what)
{
    if (!ok)
        throw PeerError(std::string("libcrypto could not ") + what);
}

#endif
