#include "input.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "output.h"

std::optional<std::string> readAll(int descriptor)
{
    std::string bytes;
    std::string buffer(size_t{1} << 16, '\0');
    for (;;) {
        const ssize_t count = ::read(descriptor, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return std::nullopt;
        if (count == 0)
            return bytes;
        bytes.append(buffer, 0, static_cast<size_t>(count));
    }
}

std::optional<std::string> readFile(const std::string& path)
{
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return std::nullopt;
    auto bytes = readAll(file);
    const int reason = errno;
    close(file);
    errno = reason;
    return bytes;
}

std::string inputName(const std::string& path)
{
    return path == "-" ? "standard input" : path;
}

std::string readInput(const std::string& path)
{
    auto bytes = path == "-" ? readAll(STDIN_FILENO) : readFile(path);
    if (!bytes)
        throw UsageError("cannot read " + inputName(path) + ": " +
                         std::generic_category().message(errno));
    return *std::move(bytes);
}
