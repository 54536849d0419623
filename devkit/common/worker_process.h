// A worker process as the front sees it: a program at the other end of a socket pair.
#ifndef CORVANE_COMMON_WORKER_PROCESS_H
#define CORVANE_COMMON_WORKER_PROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "claims.h"
#include "wire.h"

// The descriptors on which a worker finds its end of the pair, and the claims.
constexpr int workerSocket = 3;
constexpr int workerClaims = 4;

class WorkerProcess {
public:
    // Starts a program; `command` is its name and its arguments. It inherits standard output,
    // standard error, the environment, the two descriptors above, and nothing else. Throws a
    // std::system_error.
    WorkerProcess(const std::string& program, const std::vector<std::string>& command);
    // Kills it. The caller collects its exit status.
    ~WorkerProcess();
    WorkerProcess(const WorkerProcess&) = delete;
    WorkerProcess& operator=(const WorkerProcess&) = delete;

    pid_t pid() const { return m_pid; }
    int socket() const { return m_socket.get(); }

    // Queues a frame behind those that were not sent yet. Its files may be sent with an earlier
    // frame of these: the reader hands files out in the order of the frames that name them.
    void post(SecretText frame, std::vector<Descriptor> files);
    // How many bytes are still to be sent.
    size_t unsent() const { return m_outgoing.size() - m_sent; }
    // Sends as much as the socket takes. False if the process is gone.
    bool send();
    // Receives what is there. False if the process is gone or sends what is malformed.
    bool receive();
    // Gives the next reply, and true, if it has come whole. `good` is false if it is malformed.
    bool take(WireReply& reply, bool& good);

    Claims& claims() { return m_claims; }

    // Sends nothing more, so that it ends when it has answered what it has.
    void hangUp();

private:
    Claims m_claims;
    Descriptor m_socket;
    pid_t m_pid = -1;
    Descriptor m_process;  // for signals: a number may be another process's by then
    SecretText m_outgoing;
    size_t m_sent = 0;
    std::vector<Descriptor> m_files;
    SecretText m_incoming;
    size_t m_taken = 0;  // bytes of it
};

// For the worker to call at its start: it is killed when the process that started it ends, and
// ignores SIGINT, SIGTERM, SIGHUP and SIGUSR2, as it is that process which lets it end.
void tieToParent();

#endif
