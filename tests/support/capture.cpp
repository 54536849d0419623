#include "support/capture.h"

#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

doubles::Journal* target = nullptr;
const support::LoaderDetour* detour = nullptr;

// Where the loader is to look for a library.
const char* placeOf(const char* path)
{
    if (detour == nullptr || path == nullptr)
        return path;
    const auto found = detour->files.find(path);
    return found != detour->files.end() ? found->second.c_str() : path;
}

void recordSyslog(int priority, const char* format, va_list arguments)
{
    if (target == nullptr)
        return;

    doubles::Recording recording(*target, "syslog");
    char message[2048];
    va_list prefix;
    va_copy(prefix, arguments);
    vsnprintf(message, sizeof message, format, arguments);
    recording.number("priority", priority);
    recording.text("format", format);
    recording.text("text", message);
    if (std::string(format).compare(0, 13, "[%s - %s:%u] ") == 0) {
        recording.text("function", va_arg(prefix, const char*));
        recording.text("file", va_arg(prefix, const char*));
        recording.number("line", va_arg(prefix, unsigned));
    }
    va_end(prefix);
}

// The definition that ours hides.
template <class Function>
Function next(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// Declared here and not through syslog.h, whose fortified inline functions would stand
// in the way. __syslog_chk is what fortified callers call.
extern "C" {
__attribute__((format(printf, 2, 3))) void syslog(int priority, const char* format, ...);
__attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int flag, const char* format,
                                                        ...);
void vsyslog(int priority, const char* format, va_list arguments);
void __vsyslog_chk(int priority, int flag, const char* format, va_list arguments);
void openlog(const char* ident, int options, int facility);
void closelog();
}

void syslog(int priority, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    recordSyslog(priority, format, arguments);
    va_end(arguments);
}

void __syslog_chk(int priority, int, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    recordSyslog(priority, format, arguments);
    va_end(arguments);
}

void vsyslog(int priority, const char* format, va_list arguments)
{
    recordSyslog(priority, format, arguments);
}

void __vsyslog_chk(int priority, int, const char* format, va_list arguments)
{
    recordSyslog(priority, format, arguments);
}

void openlog(const char* ident, int options, int facility)
{
    if (target == nullptr)
        return;
    doubles::Recording recording(*target, "openlog");
    recording.text("ident", ident);
    recording.number("options", options);
    recording.number("facility", facility);
}

void closelog()
{
    if (target != nullptr)
        doubles::Recording(*target, "closelog");
}

extern "C" void* dlopen(const char* path, int flags) noexcept
{
    static const auto real = next<void* (*)(const char*, int)>("dlopen");
    void* handle = real(placeOf(path), flags);
    if (target != nullptr) {
        doubles::Recording recording(*target, "dlopen");
        recording.text("path", path);
        recording.number("flags", flags);
        recording.address("handle", handle);
    }
    return handle;
}

extern "C" int dlclose(void* handle) noexcept
{
    static const auto real = next<int (*)(void*)>("dlclose");
    if (target != nullptr)
        doubles::Recording(*target, "dlclose").address("handle", handle);
    return real(handle);
}

namespace support {

SystemCapture::SystemCapture(doubles::Journal& journal) : previous(target)
{
    target = &journal;
}

SystemCapture::~SystemCapture()
{
    target = previous;
}

LoaderDetour::LoaderDetour()
{
    detour = this;
}

LoaderDetour::~LoaderDetour()
{
    detour = nullptr;
}

StdoutCapture::StdoutCapture() : file(memfd_create("stdout", 0)), original(-1)
{
    fflush(stdout);
    original = dup(STDOUT_FILENO);
    if (file < 0 || original < 0 || dup2(file, STDOUT_FILENO) < 0) {
        perror("cannot capture standard output");
        abort();
    }
}

StdoutCapture::~StdoutCapture()
{
    fflush(stdout);
    dup2(original, STDOUT_FILENO);
    close(original);
    close(file);
}

std::string StdoutCapture::text()
{
    fflush(stdout);
    std::string printed;
    char part[4096];
    ssize_t got;
    for (off_t at = 0; (got = pread(file, part, sizeof part, at)) > 0; at += got)
        printed.append(part, static_cast<size_t>(got));
    return printed;
}

std::string StdoutCapture::take()
{
    std::string printed = text();
    if (!printed.empty() && (ftruncate(file, 0) != 0 || lseek(file, 0, SEEK_SET) != 0))
        abort();
    return printed;
}

}  // namespace support
