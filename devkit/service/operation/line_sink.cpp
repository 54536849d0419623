#include "line_sink.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>

#include "common/descriptor.h"

namespace {

// Whole lines that make up PIPE_BUF bytes at most, or the first line if that is longer.
std::string_view firstLines(std::string_view lines)
{
    if (lines.size() <= PIPE_BUF)
        return lines;
    const size_t last = lines.rfind('\n', PIPE_BUF - 1);
    return lines.substr(0, last != std::string_view::npos ? last + 1 : lines.find('\n') + 1);
}

}  // namespace

LineSink::LineSink(int descriptor) : m_descriptor(descriptor)
{
    struct stat info = {};
    if (fstat(descriptor, &info) == 0) {
        m_isSocket = S_ISSOCK(info.st_mode);
        m_isFile = S_ISREG(info.st_mode);
    }
    // A line must not be left without its end where there is no memory to keep that.
    m_rest.reserve(PIPE_BUF);
}

size_t LineSink::write(std::string_view lines)
{
    size_t taken = 0;
    while (!lines.empty() && writeRest()) {
        const std::string_view some = firstLines(lines);
        const std::string_view written = some.substr(0, writeAll(some));
        taken += static_cast<size_t>(std::count(written.begin(), written.end(), '\n'));
        lines.remove_prefix(some.size());
        if (written.size() == some.size())
            continue;
        if (!written.empty() && written.back() != '\n') {
            const std::string_view begun = some.substr(written.size());
            m_rest = begun.substr(0, begun.find('\n') + 1);
            ++taken;
        }
        break;
    }
    return taken;
}

// Writes what can be written now; -1 or 0 if nothing can.
ssize_t LineSink::writeSome(std::string_view bytes) const
{
    if (m_isSocket)
        return send(m_descriptor, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (m_isFile || (fcntl(m_descriptor, F_GETFL) & O_NONBLOCK) != 0)
        return ::write(m_descriptor, bytes.data(), bytes.size());
    // A pipe that has room takes so much without waiting.
    pollfd waiting = {m_descriptor, POLLOUT, 0};
    if (poll(&waiting, 1, 0) != 1)
        return -1;
    return ::write(m_descriptor, bytes.data(), std::min<size_t>(bytes.size(), PIPE_BUF));
}

// How many bytes could be written.
size_t LineSink::writeAll(std::string_view bytes) const
{
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count = writeSome(bytes.substr(done));
        if (count <= 0)
            break;
        done += static_cast<size_t>(count);
    }
    return done;
}

// Whether nothing is left.
bool LineSink::writeRest()
{
    m_rest.erase(0, writeAll(m_rest));
    return m_rest.empty();
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
