#include "worker_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <iterator>
#include <system_error>

#include "secrets.h"

namespace {

// Times what has come of a frame: a worker may announce more than it sends, and all of the room is
// wiped in the end.
constexpr size_t mostRoomAhead = 512;

}  // namespace

WorkerProcess::WorkerProcess(const std::string& program, const std::vector<std::string>& command)
{
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot make a socket pair");
    m_socket = Descriptor(pair[0]);
    // Numbers that are free in the worker, so that one does not take the other's place.
    const Descriptor theirs(fcntl(pair[1], F_DUPFD_CLOEXEC, workerClaims + 1));
    const Descriptor shared(fcntl(m_claims.descriptor().get(), F_DUPFD_CLOEXEC, workerClaims + 1));
    close(pair[1]);
    if (!theirs || !shared)
        throw std::system_error(errno, std::generic_category(), "cannot make a worker's files");
    fcntl(m_socket.get(), F_SETFL, O_NONBLOCK);

    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& word : command)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, theirs.get(), workerSocket);
    posix_spawn_file_actions_adddup2(&actions, shared.get(), workerClaims);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    const int failure =
        posix_spawn(&m_pid, program.c_str(), &actions, &attributes, arguments.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (failure != 0)
        throw std::system_error(failure, std::generic_category(), "cannot start a worker");
    // Nobody else collects its exit status, so the number is still its own.
    m_process = Descriptor(static_cast<int>(syscall(SYS_pidfd_open, m_pid, 0)));
    if (!m_process) {
        const int reason = errno;
        kill(m_pid, SIGKILL);
        throw std::system_error(reason, std::generic_category(), "cannot watch a worker");
    }
}

WorkerProcess::~WorkerProcess()
{
    syscall(SYS_pidfd_send_signal, m_process.get(), SIGKILL, nullptr, 0);
}

void WorkerProcess::post(SecretText frame, std::vector<Descriptor> files)
{
    m_files.reserve(m_files.size() + files.size());
    if (m_outgoing.empty())
        m_outgoing = std::move(frame);
    else
        appendSecret(m_outgoing, frame);
    std::move(files.begin(), files.end(), std::back_inserter(m_files));
}

bool WorkerProcess::send()
{
    while (m_sent < m_outgoing.size()) {
        const ssize_t count =
            sendSome(m_socket.get(), std::string_view(m_outgoing).substr(m_sent), m_files);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return errno == EAGAIN;
        m_files.clear();
        m_sent += static_cast<size_t>(count);
    }
    wipe(m_outgoing);
    m_sent = 0;
    return true;
}

bool WorkerProcess::receive()
{
    static std::array<char, size_t{1} << 16> buffer;
    if (m_taken > 0) {
        m_incoming = SecretText(std::string_view(m_incoming).substr(m_taken));
        m_taken = 0;
    }
    for (;;) {
        const ssize_t count = recv(m_socket.get(), buffer.data(), buffer.size(), 0);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return errno == EAGAIN;
        if (count == 0)
            return false;
        const auto size = static_cast<size_t>(count);
        // The room for a whole frame at once, so that it need not be moved.
        if (m_incoming.empty())
            m_incoming.reserve(std::min(frameSize({buffer.data(), size}).value_or(buffer.size()),
                                        mostRoomAhead * size));
        appendSecret(m_incoming, {buffer.data(), size});
        explicit_bzero(buffer.data(), size);
        if (m_incoming.size() > longestFrame + 4 + buffer.size())
            return false;
        if (size < buffer.size())
            return true;
    }
}

bool WorkerProcess::take(WireReply& reply, bool& good)
{
    const std::string_view bytes = std::string_view(m_incoming).substr(m_taken);
    const auto size = frameSize(bytes);
    good = !size || *size <= longestFrame + 4;
    if (!good || !size || bytes.size() < *size)
        return false;
    auto decoded = decodeReply(bytes.substr(4, *size - 4));
    good = decoded.has_value();
    m_taken += *size;
    if (m_taken == m_incoming.size()) {
        wipe(m_incoming);
        m_taken = 0;
    }
    if (good)
        reply = *std::move(decoded);
    return good;
}

void WorkerProcess::hangUp()
{
    shutdown(m_socket.get(), SHUT_WR);
}

void tieToParent()
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // The parent may have ended before; its end of the pair is closed then, and the first
    // read finds that out.
    signal(SIGINT, SIG_IGN);
    signal(SIGTERM, SIG_IGN);
    signal(SIGHUP, SIG_IGN);
    signal(SIGUSR2, SIG_IGN);
}
