// The worker process: one plug-in, which serves one request at a time.
//
// Handles of key-exchange sessions are known here alone. Outside, a session is a token
// that the front has made.
#ifndef CORVANE_SERVICE_WORKERS_WORKER_H
#define CORVANE_SERVICE_WORKERS_WORKER_H

#include <map>
#include <string>

#include "common/claims.h"
#include "common/secrets.h"
#include "common/wire.h"
#include "host/host_session.h"

class Worker {
public:
    Worker(HostSession& session, Claims& claims) : m_session(session), m_claims(claims) {}

    // Tells that it is ready and serves until the socket ends.
    void serve(int socket);

private:
    WireReply answer(WireRequest& request, const std::vector<Descriptor>& files);

    HostSession& m_session;
    Claims& m_claims;
    std::map<SecretText, SecretText> m_handles;  // by token
};

#endif
