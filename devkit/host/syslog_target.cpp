#include "syslog_target.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <system_error>

#include "common/descriptor.h"

namespace {

// The number of the error; 0 if somebody listens. Does not wait for a listener that is busy.
int connectTo(const std::string& path, int kind)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const Descriptor socket(::socket(AF_UNIX, kind | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const auto* const whole = reinterpret_cast<const sockaddr*>(&address);
    const int reason = connect(socket.get(), whole, sizeof address) == 0 ? 0 : errno;
    return reason == EAGAIN ? 0 : reason;
}

}  // namespace

SyslogTarget lookAtSyslog(const std::string& socket)
{
    int reason = connectTo(socket, SOCK_DGRAM);
    if (reason == EPROTOTYPE)
        reason = connectTo(socket, SOCK_STREAM);
    if (reason == 0)
        return {};
    return {socket + ": " + std::generic_category().message(reason),
            reason == EACCES
                ? "let this user write to " + socket
                : "start a syslog service, or share " + socket + " with the container"};
}
