#include "line_sink.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>

#include "common/descriptor.h"

LineSink::LineSink(int descriptor) : descriptor_(descriptor)
{
    struct stat info = {};
    isSocket_ = fstat(descriptor, &info) == 0 && S_ISSOCK(info.st_mode);
}

bool LineSink::write(std::string_view line)
{
    if (!writeRest())
        return false;
    rest_ = line;
    if (writeRest() || rest_.size() < line.size())
        return true;
    rest_.clear();
    return false;
}

// Writes what can be written now; -1 or 0 if nothing can.
ssize_t LineSink::writeSome() const
{
    if (isSocket_)
        return send(descriptor_, rest_.data(), rest_.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if ((fcntl(descriptor_, F_GETFL) & O_NONBLOCK) != 0)
        return ::write(descriptor_, rest_.data(), rest_.size());
    // A pipe that has room takes so much without waiting.
    pollfd waiting = {descriptor_, POLLOUT, 0};
    if (poll(&waiting, 1, 0) != 1)
        return -1;
    return ::write(descriptor_, rest_.data(), std::min<size_t>(rest_.size(), PIPE_BUF));
}

// Whether nothing is left.
bool LineSink::writeRest()
{
    while (!rest_.empty()) {
        const ssize_t count = writeSome();
        if (count <= 0)
            return false;
        rest_.erase(0, static_cast<size_t>(count));
    }
    return true;
}

void openStandardStreams()
{
    Descriptor nowhere;
    do {
        nowhere.release();
        nowhere = Descriptor(open("/dev/null", O_RDWR));
    } while (nowhere && nowhere.get() <= STDERR_FILENO);
}

void unblockStandardError()
{
    struct stat info = {};
    if (fstat(STDERR_FILENO, &info) != 0 || !(S_ISFIFO(info.st_mode) || S_ISCHR(info.st_mode)))
        return;
    const Descriptor own(
        open("/proc/self/fd/2", O_WRONLY | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!own)
        return;
    dup2(own.get(), STDERR_FILENO);
    dup2(own.get(), STDOUT_FILENO);
}
