#include "engine_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

namespace {

std::mutex logMutex;
int logFile = -1;

// A copy of the stream's descriptor shares its file position. Opening /dev/stderr
// afresh would overwrite, or be overwritten, where the stream is a plain file, and
// fail where it is a socket.
int openTarget(const char* target)
{
    if (strcmp(target, "/dev/stderr") == 0)
        return fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    if (strcmp(target, "/dev/stdout") == 0)
        return fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    return open(target, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600);
}

// `fallback` takes the line if there is no log; -1 drops it.
void writeLine(int fallback, const char* format, va_list arguments)
{
    const std::lock_guard<std::mutex> guard(logMutex);
    const int file = logFile >= 0 ? logFile : fallback;
    if (file < 0)
        return;

    char line[512];
    const time_t now = time(nullptr);
    tm utc = {};
    gmtime_r(&now, &utc);
    size_t length = strftime(line, sizeof line, "%Y-%m-%dT%H:%M:%SZ SoftModuleaven: ", &utc);
    if (vsnprintf(line + length, sizeof line - 1 - length, format, arguments) > 0)
        length += strlen(line + length);
    line[length++] = '\n';

    const int saved = errno;  // logging changes nothing for the caller
    while (write(file, line, length) < 0 && errno == EINTR) {
    }
    errno = saved;
}

void replaceFile(int file)
{
    const std::lock_guard<std::mutex> guard(logMutex);
    if (logFile >= 0)
        close(logFile);
    logFile = file;
}

// Unloading the library closes the log of a host that never cleaned up.
__attribute__((destructor)) void closeAtUnload()
{
    logClose();
}

}  // namespace

bool logOpen(const char* target)
{
    int file = -1;
    if (target[0] != '\0') {
        file = openTarget(target);
        if (file < 0)
            return false;
    }
    replaceFile(file);
    return true;
}

void logClose()
{
    replaceFile(-1);
}

void logLine(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    writeLine(-1, format, arguments);
    va_end(arguments);
}

void logLoud(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    writeLine(STDERR_FILENO, format, arguments);
    va_end(arguments);
}
