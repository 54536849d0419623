#include "output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace {

bool writeAll(int descriptor, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t count = ::write(descriptor, text.data(), text.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return false;
        text.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}

[[noreturn]] void failToWrite(const std::string& what)
{
    throw UsageError("cannot write " + what + ": " + std::generic_category().message(errno));
}

}  // namespace

Output::Output() : descriptor_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3))
{
    if (dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nowhere, STDOUT_FILENO);
        close(nowhere);
    }
}

void Output::write(std::string_view text) const
{
    if (!writeAll(descriptor_, text))
        failToWrite("to standard output");
}

void Output::write(std::string_view text, const std::string& path) const
{
    if (path.empty())
        return write(text);

    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (file < 0)
        failToWrite(path);
    const bool written = writeAll(file, text);
    const int reason = errno;
    const bool closed = close(file) == 0;
    if (!written)
        errno = reason;
    if (!written || !closed)
        failToWrite(path);
}

bool Output::isTerminal() const
{
    return isatty(descriptor_) == 1;
}

void Output::giveBack() const
{
    dup2(descriptor_, STDOUT_FILENO);
}
