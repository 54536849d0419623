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
    // Starts a program with these arguments, its name the first. It inherits standard
    // output, standard error and the environment, and no other descriptor but these two.
    // Throws a std::system_error.
    WorkerProcess(const std::string& program, const std::vector<std::string>& command);
    // Ends it at once. Its exit status is the caller's to collect.
    ~WorkerProcess();
    WorkerProcess(const WorkerProcess&) = delete;
    WorkerProcess& operator=(const WorkerProcess&) = delete;

    pid_t pid() const { return m_pid; }
    int socket() const { return m_socket.get(); }

    // Takes a frame over, behind those that were not sent yet. Its files go with the first of
    // them: the reader gives them out in the order of the frames that name them.
    void post(std::string frame, std::vector<Descriptor> files);
    // How many bytes are still to be sent.
    size_t unsent() const { return m_outgoing.size() - m_sent; }
    // Sends what the socket takes. False if the process is gone.
    bool send();
    // Receives what is there. False if the process is gone or breaks the form.
    bool receive();
    // The next reply, if it has come whole. False in `good` if it breaks the form.
    bool take(WireReply& reply, bool& good);

    Claims& claims() { return m_claims; }

    // Lets it end when it has nothing more to do.
    void hangUp();

private:
    Claims m_claims;
    Descriptor m_socket;
    pid_t m_pid = -1;
    Descriptor m_process;  // for signals: a number may be another process's by then
    std::string m_outgoing;
    size_t m_sent = 0;
    std::vector<Descriptor> m_files;
    std::string m_incoming;
    size_t m_taken = 0;  // bytes of it
};

// In the worker: ends the process with the one that started it, and gives it the signals
// of an ordinary process.
void tieToParent();

#endif
