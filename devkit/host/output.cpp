#include "output.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <utility>

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

std::string inEachLine(const std::string& prefix, const std::string& text)
{
    std::string lines = prefix;
    for (const char c : text)
        lines += c == '\n' ? "\n" + prefix : std::string(1, c);
    return lines;
}

Output::Output() : m_descriptor(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3))
{
    if (dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nowhere, STDOUT_FILENO);
        close(nowhere);
    }
}

void Output::write(std::string_view text) const
{
    if (!writeAll(m_descriptor, text))
        failToWrite("to standard output");
}

bool Output::isTerminal() const
{
    return isatty(m_descriptor) == 1;
}

void Output::giveBack() const
{
    dup2(m_descriptor, STDOUT_FILENO);
}

OutputFile::OutputFile(const std::string& path, bool mayReplace) : m_path(path)
{
    // A file beyond the process's limit is an error to tell of, and to clean up behind.
    signal(SIGXFSZ, SIG_IGN);
    struct stat status = {};
    const bool isThere = stat(path.c_str(), &status) == 0;
    if (isThere && S_ISDIR(status.st_mode))
        throw UsageError("cannot write " + path + ": it is a folder");
    if (isThere && !S_ISREG(status.st_mode)) {
        m_file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    } else if (mayReplace) {
        openBeside();
    } else {
        m_file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (m_file < 0 && errno == EEXIST)
            throw UsageError("there is a file " + path + " already; --force replaces it");
        m_unfinished = path;
    }
    if (m_file < 0) {
        m_unfinished.clear();
        failToWrite(path);
    }
}

void OutputFile::openBeside()
{
    m_unfinished = m_path + ".XXXXXX";
    m_file = mkostemp(m_unfinished.data(), O_CLOEXEC);
}

OutputFile::~OutputFile()
{
    if (m_file >= 0)
        close(m_file);
    if (!m_unfinished.empty())
        unlink(m_unfinished.c_str());
}

void OutputFile::write(std::string_view text)
{
    const bool isWritten = writeAll(m_file, text);
    const int reason = errno;
    const bool isClosed = close(std::exchange(m_file, -1)) == 0;
    if (!isWritten)
        errno = reason;
    if (!isWritten || !isClosed)
        failToWrite(m_path);
}

void OutputFile::keep()
{
    const bool isBeside = !m_unfinished.empty() && m_unfinished != m_path;
    if (isBeside && rename(m_unfinished.c_str(), m_path.c_str()) != 0)
        failToWrite(m_path);
    m_unfinished.clear();
}

bool hasColours(Colours colours, int descriptor)
{
    if (colours != Colours::Auto)
        return colours == Colours::Always;
    const auto variable = [](const char* name) {
        const char* const value = getenv(name);
        return std::string_view(value == nullptr ? "" : value);
    };
    return variable("NO_COLOR").empty() && variable("TERM") != "dumb" && isatty(descriptor) == 1;
}

size_t columnsOf(int descriptor)
{
    constexpr size_t narrowest = 40;
    constexpr size_t usual = 80;
    constexpr size_t widest = 120;
    if (isatty(descriptor) != 1)
        return 0;
    winsize size = {};
    if (ioctl(descriptor, TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        return usual;
    return std::clamp<size_t>(size.ws_col, narrowest, widest);
}

bool isStandardOutput(const std::string& path)
{
    return path.empty() || path == "-" || path == "/dev/stdout";
}
