#include "unix_socket.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "host/output.h"

namespace {

constexpr int flagsOfSocket = SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC;

[[noreturn]] void refuse(const std::string& path, const std::string& reason)
{
    throw UsageError("cannot listen on unix:" + path + ": " + reason);
}

[[noreturn]] void fail(const std::string& path)
{
    refuse(path, std::generic_category().message(errno));
}

sockaddr_un addressOf(const std::string& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        refuse(path, "a socket's path has at most " + std::to_string(sizeof address.sun_path - 1) +
                         " bytes");
    memcpy(address.sun_path, path.data(), path.size());
    return address;
}

bool isListening(const sockaddr_un& address)
{
    const Descriptor socket(::socket(AF_UNIX, flagsOfSocket, 0));
    return connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
               0 ||
           errno != ECONNREFUSED;
}

// What a host that was killed left behind.
void removeStale(const std::string& path, const sockaddr_un& address)
{
    struct stat info = {};
    if (lstat(path.c_str(), &info) != 0) {
        if (errno != ENOENT)
            fail(path);
        return;
    }
    if (!S_ISSOCK(info.st_mode))
        refuse(path, "something that is no socket is there");
    if (info.st_uid != geteuid())
        refuse(path, "another user's socket is there");
    if (isListening(address))
        refuse(path, "another process listens there");
    if (unlink(path.c_str()) != 0)
        fail(path);
}

gid_t groupOf(const std::string& path, const std::string& name)
{
    if (const group* found = getgrnam(name.c_str()))
        return found->gr_gid;
    if (name.size() > 9 || name.find_first_not_of("0123456789") != std::string::npos)
        refuse(path, "there is no group " + name);
    return static_cast<gid_t>(std::stoul(name));
}

// By a descriptor: in a folder that others can write to, the path may lead elsewhere by now.
Descriptor openOwn(const std::string& path)
{
    Descriptor file(open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat info = {};
    if (!file || fstat(file.get(), &info) != 0)
        fail(path);
    if (!S_ISSOCK(info.st_mode) || info.st_uid != geteuid())
        refuse(path, "somebody else put something there");
    return file;
}

}  // namespace

SocketFile::~SocketFile()
{
    struct stat own = {};
    struct stat there = {};
    if (m_file && fstat(m_file.get(), &own) == 0 && lstat(m_path.c_str(), &there) == 0 &&
        own.st_dev == there.st_dev && own.st_ino == there.st_ino)
        unlink(m_path.c_str());
}

UnixSocket listenAtPath(const std::string& path, const SocketAccess& access)
{
    const sockaddr_un address = addressOf(path);
    removeStale(path, address);
    Descriptor socket(::socket(AF_UNIX, flagsOfSocket, 0));
    if (!socket ||
        bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        fail(path);
    Descriptor own = openOwn(path);
    const int file = own.get();
    UnixSocket made{std::move(socket), SocketFile(path, std::move(own))};
    if (!access.group.empty() &&
        fchownat(file, "", static_cast<uid_t>(-1), groupOf(path, access.group), AT_EMPTY_PATH) != 0)
        refuse(path, "its group cannot be " + access.group + ": " +
                         std::generic_category().message(errno));
    // A descriptor of this kind has no call of its own for that.
    const std::string name = "/proc/self/fd/" + std::to_string(file);
    if (chmod(name.c_str(), access.mode) != 0 || listen(made.descriptor.get(), SOMAXCONN) != 0)
        fail(path);
    return made;
}
