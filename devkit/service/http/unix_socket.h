// A socket that listens at a path.
#ifndef CORVANE_SERVICE_HTTP_UNIX_SOCKET_H
#define CORVANE_SERVICE_HTTP_UNIX_SOCKET_H

#include <sys/types.h>

#include <string>

#include "common/descriptor.h"

// Who may connect: whoever can write to the file.
struct SocketAccess {
    mode_t mode;
    std::string group;  // a name or a number; empty: the process's, or its folder's
};

// The file at which a socket listens. It is removed at the end, unless another one is there by
// then.
class SocketFile {
public:
    SocketFile() = default;  // none
    SocketFile(std::string path, Descriptor file) : m_path(std::move(path)), m_file(std::move(file))
    {
    }
    ~SocketFile();
    SocketFile(SocketFile&&) = default;
    SocketFile& operator=(SocketFile&&) = delete;

private:
    std::string m_path;
    Descriptor m_file;  // keeps its number from being given to another file
};

struct UnixSocket {
    Descriptor descriptor;
    SocketFile file;
};

// Listens; nobody can connect before the file has its mode and its group. A socket's file that
// this process's user left there, at which nobody listens, is replaced; anything else is left.
// Throws a UsageError.
UnixSocket listenAtPath(const std::string& path, const SocketAccess& access);

#endif
