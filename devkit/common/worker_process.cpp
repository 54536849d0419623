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

WorkerProcess::WorkerProcess(const std::string& program, const std::vector<std::string>& command)
{
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot make a socket pair");
    socket_ = Descriptor(pair[0]);
    // Numbers that are free in the worker, so that one does not take the other's place.
    const Descriptor theirs(fcntl(pair[1], F_DUPFD_CLOEXEC, workerClaims + 1));
    const Descriptor shared(fcntl(claims_.descriptor().get(), F_DUPFD_CLOEXEC, workerClaims + 1));
    close(pair[1]);
    if (!theirs || !shared)
        throw std::system_error(errno, std::generic_category(), "cannot make a worker's files");
    fcntl(socket_.get(), F_SETFL, O_NONBLOCK);

    std::vector<char*> arguments;
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
        posix_spawn(&pid_, program.c_str(), &actions, &attributes, arguments.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (failure != 0)
        throw std::system_error(failure, std::generic_category(), "cannot start a worker");
    // Nobody else collects its exit status, so the number is still its own.
    process_ = Descriptor(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
    if (!process_) {
        const int reason = errno;
        kill(pid_, SIGKILL);
        throw std::system_error(reason, std::generic_category(), "cannot watch a worker");
    }
}

WorkerProcess::~WorkerProcess()
{
    syscall(SYS_pidfd_send_signal, process_.get(), SIGKILL, nullptr, 0);
    wipe(outgoing_);
    wipe(incoming_);
}

void WorkerProcess::post(std::string frame, std::vector<Descriptor> files)
{
    files_.reserve(files_.size() + files.size());
    if (outgoing_.empty()) {
        outgoing_ = std::move(frame);
    } else {
        appendSecret(outgoing_, frame);
        wipe(frame);
    }
    std::move(files.begin(), files.end(), std::back_inserter(files_));
}

bool WorkerProcess::send()
{
    while (sent_ < outgoing_.size()) {
        const ssize_t count =
            sendSome(socket_.get(), std::string_view(outgoing_).substr(sent_), files_);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return errno == EAGAIN;
        files_.clear();
        sent_ += static_cast<size_t>(count);
    }
    wipe(outgoing_);
    sent_ = 0;
    return true;
}

bool WorkerProcess::receive()
{
    static std::array<char, size_t{1} << 16> buffer;
    if (taken_ > 0) {
        std::string rest = incoming_.substr(taken_);
        wipe(incoming_);
        incoming_.swap(rest);
        taken_ = 0;
    }
    for (;;) {
        const ssize_t count = recv(socket_.get(), buffer.data(), buffer.size(), 0);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return errno == EAGAIN;
        if (count == 0)
            return false;
        const auto size = static_cast<size_t>(count);
        // The room for a whole frame at once: growing would leave copies behind.
        if (incoming_.empty())
            incoming_.reserve(std::min(frameSize({buffer.data(), size}).value_or(buffer.size()),
                                       longestFrame + 4));
        appendSecret(incoming_, {buffer.data(), size});
        explicit_bzero(buffer.data(), size);
        if (incoming_.size() > longestFrame + 4 + buffer.size())
            return false;
        if (size < buffer.size())
            return true;
    }
}

bool WorkerProcess::take(WireReply& reply, bool& good)
{
    const std::string_view bytes = std::string_view(incoming_).substr(taken_);
    const auto size = frameSize(bytes);
    good = !size || *size <= longestFrame + 4;
    if (!good || !size || bytes.size() < *size)
        return false;
    auto decoded = decodeReply(bytes.substr(4, *size - 4));
    good = decoded.has_value();
    taken_ += *size;
    if (taken_ == incoming_.size()) {
        wipe(incoming_);
        taken_ = 0;
    }
    if (good)
        reply = *std::move(decoded);
    return good;
}

void WorkerProcess::hangUp()
{
    shutdown(socket_.get(), SHUT_WR);
}

void tieToParent()
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // The parent may have ended before; its end of the pair is closed then, and the first
    // read finds that out.
    signal(SIGINT, SIG_IGN);
    signal(SIGTERM, SIG_IGN);
    signal(SIGHUP, SIG_IGN);
}
