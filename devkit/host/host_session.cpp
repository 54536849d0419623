#include "host_session.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "library_file.h"
#include "log.h"

namespace fs = std::filesystem;

namespace {

// A given path always means a file, also when it has no slash.
std::string chosen(const std::string& given, const char* name)
{
    if (!given.empty())
        return fs::absolute(given);
    std::error_code ignored;
    for (const std::string& folder : usualFolders())
        if (fs::exists(folder + "/" + name, ignored))
            return folder + "/" + name;
    return name;
}

// Gathers what is written to standard output, descriptor 1, while it exists.
class OutputCapture {
public:
    OutputCapture() : m_file(memfd_create("captured", MFD_CLOEXEC)), m_saved(dup(STDOUT_FILENO))
    {
        fflush(stdout);
        if (m_file < 0 || m_saved < 0 || dup2(m_file, STDOUT_FILENO) < 0)
            throw LoadError("cannot capture the plug-in's messages");
    }

    ~OutputCapture()
    {
        restore();
        close(m_file);
    }

    std::string take()
    {
        restore();
        std::string text;
        char buffer[4096];
        lseek(m_file, 0, SEEK_SET);
        for (ssize_t count; (count = read(m_file, buffer, sizeof buffer)) > 0;)
            text.append(buffer, static_cast<size_t>(count));
        return text;
    }

private:
    void restore()
    {
        if (m_saved < 0)
            return;
        fflush(stdout);
        dup2(m_saved, STDOUT_FILENO);
        close(m_saved);
        m_saved = -1;
    }

    int m_file;
    int m_saved;
};

// While it exists, standard error leads nowhere. The plug-in has the engine open its log as
// /dev/stderr, so that an engine that is started meanwhile logs nowhere for as long as it runs.
class SilentErrors {
public:
    explicit SilentErrors(bool isSilent) : m_saved(isSilent ? dup(STDERR_FILENO) : -1)
    {
        if (m_saved < 0)
            return;
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nowhere, STDERR_FILENO);
        close(nowhere);
    }
    ~SilentErrors()
    {
        if (m_saved < 0)
            return;
        dup2(m_saved, STDERR_FILENO);
        close(m_saved);
    }
    SilentErrors(const SilentErrors&) = delete;
    SilentErrors& operator=(const SilentErrors&) = delete;

private:
    int m_saved;
};

// A bare name is the loader's to find.
void checkLibrary(const std::string& path)
{
    if (path.find('/') == std::string::npos)
        return;
    const LibraryFile file = inspectLibrary(path);
    if (!file.fault.empty())
        throw LoadError("cannot load a library: " + file.fault + "; " + file.remedy);
}

OpenedLibrary openChecked(const std::string& path)
{
    checkLibrary(path);
    return openLibrary(path);
}

OpenedLibrary openByBareName(const std::string& path, const char* bareName)
{
    OpenedLibrary library = openChecked(path);
    const OpenedLibrary byName(dlopen(bareName, RTLD_NOW | RTLD_NOLOAD));
    if (byName != library)
        throw BareNameError(path + " does not answer to the name " + bareName +
                            ", by which the plug-in opens it");
    return library;
}

// Growing leaves copies of short values behind.
constexpr int mostUsualResults = 16;

using Clock = std::chrono::steady_clock;

double microsecondsBetween(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double, std::micro>(to - from).count();
}

// The parameter module takes pointers to non-const bytes, which it does not change.
char* bytes(const std::string& text)
{
    return const_cast<char*>(text.data());
}

long lengthOf(const std::string& text)
{
    return static_cast<long>(text.size());
}

// " (-20215)" behind "... ERROR 0xffffb109", else "".
std::string codeIn(const std::string& printed)
{
    constexpr std::string_view before = "ERROR 0x";
    const size_t found = printed.find(before);
    if (found == std::string::npos)
        return "";
    const auto code = strtoul(printed.c_str() + found + before.size(), nullptr, 16);
    return " (" + std::to_string(static_cast<int32_t>(code)) + ")";
}

}  // namespace

std::string programFolder()
{
    std::error_code ignored;
    return fs::read_symlink("/proc/self/exe", ignored).parent_path();
}

std::vector<std::string> usualFolders()
{
    const fs::path home = programFolder();
    const fs::path libraries = (home / CORVANE_LIBRARIES_FROM_PROGRAMS).lexically_normal();
    return {home, libraries, libraries / "devkit"};
}

LibraryPaths withDefaults(LibraryPaths paths)
{
    paths.plugin = chosen(paths.plugin, pluginName);
    paths.params = chosen(paths.params, paramsName);
    paths.engine = chosen(paths.engine, engineName);
    return paths;
}

void checkLibraries(const LibraryPaths& paths)
{
    for (const std::string& path : {paths.plugin, paths.params, paths.engine})
        checkLibrary(path);
}

HostSession::HostSession(const LibraryPaths& paths)
    : m_paramsLibrary(openByBareName(paths.params, paramsName)),
      m_engineLibrary(openByBareName(paths.engine, engineName)),
      m_pluginLibrary(openChecked(paths.plugin))
{
    m_params.bind(m_paramsLibrary);
    m_plugin.bind(m_pluginLibrary);
    initialise(paths.isQuiet);
}

HostSession::~HostSession()
{
    m_plugin.free();
}

void HostSession::initialise(bool isQuiet) const
{
    OutputCapture capture;
    {
        const SilentErrors silent(isQuiet);
        m_plugin.init();
    }
    const std::string printed = capture.take();

    if (!isQuiet)
        fputs(printed.c_str(), stderr);
    if (printed.find("load fail") == std::string::npos &&
        printed.find("aven_global_init ERROR") == std::string::npos)
        return;
    m_plugin.free();
    throw LoadError("the plug-in could not initialise: " +
                    printed.substr(0, printed.find_last_not_of('\n') + 1) + codeIn(printed) +
                    "; corvane-host doctor says why");
}

void HostSession::setLogLevel(const std::string& name)
{
    decltype(&log_get_level) levelOf;
    decltype(&log_set_level) setLevel;
    resolve(m_pluginLibrary.get(), levelOf, "log_get_level");
    resolve(m_pluginLibrary.get(), setLevel, "log_set_level");
    if (levelOf != nullptr && setLevel != nullptr)
        setLevel(levelOf(name.c_str()));
}

void HostSession::emptyStores() const
{
    m_params.ClearHttpParams();
    m_params.ClearRetParams();
    m_params.ClearRetCustomParam();
}

Reply HostSession::send(const std::string& name, const Pairs& parameters)
{
    if (name.size() > UINT_MAX)
        throw LoadError("the request's name is too long");

    struct EmptyAtEnd {
        const HostSession& session;
        ~EmptyAtEnd() { session.emptyStores(); }
    } emptyAtEnd{*this};
    const auto start = Clock::now();
    emptyStores();
    for (const auto& [key, value] : parameters)
        if (m_params.AddHttpParams(bytes(key), lengthOf(key), bytes(value), lengthOf(value)) != 0)
            throw LoadError("the parameter module refuses the parameter " + key);

    Reply reply;
    const auto stored = Clock::now();
    m_plugin.request(name.data(), static_cast<unsigned int>(name.size()));
    const auto answered = Clock::now();
    reply.results = readResults();
    reply.storeMicroseconds = microsecondsBetween(start, stored);
    reply.microseconds = microsecondsBetween(stored, answered);
    reply.readMicroseconds = microsecondsBetween(answered, Clock::now());
    return reply;
}

// Each pair in two calls: the lengths, then the bytes into buffers with one byte more.
SecretPairs HostSession::readResults() const
{
    int count = 0;
    if (m_params.GetRetParamsSum(&count) != 0)
        throw LoadError("the parameter module does not tell how many results there are");

    SecretPairs results;
    results.reserve(static_cast<size_t>(std::clamp(count, 0, mostUsualResults)));
    for (int i = 0; i < count; ++i) {
        const auto refused = [&] {
            return LoadError("the parameter module does not give result " + std::to_string(i) +
                             " of " + std::to_string(count));
        };
        long nameLength = 0;
        long valueLength = 0;
        if (m_params.GetRetParamFromIndex(i, nullptr, &nameLength, nullptr, &valueLength) != 0 ||
            nameLength < 0 || valueLength < 0)
            throw refused();

        std::string name(static_cast<size_t>(nameLength) + 1, '\0');
        SecretText value(static_cast<size_t>(valueLength) + 1, '\0');
        const long nameRoom = nameLength;
        const long valueRoom = valueLength;
        if (m_params.GetRetParamFromIndex(i, name.data(), &nameLength, value.data(),
                                          &valueLength) != 0 ||
            nameLength < 0 || nameLength > nameRoom || valueLength < 0 || valueLength > valueRoom)
            throw refused();

        name.resize(static_cast<size_t>(nameLength));
        value.resize(static_cast<size_t>(valueLength));
        results.emplace_back(std::move(name), std::move(value));
    }
    return results;
}
