// The plug-in with the reference parameter module and the development engine, driven as a
// host drives it: no double, nothing called but what a host can call.
#ifndef CORVANE_TESTS_DEVKIT_HOST_H
#define CORVANE_TESTS_DEVKIT_HOST_H

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "params_interface.h"

namespace support {

// The files. The plug-in opens module and engine by their bare names, and finds them loaded; one
// without a path is left to it.
struct HostLibraries {
    std::string params = CORVANE_PARAMS_LIBRARY;
    std::string engine = CORVANE_ENGINE_LIBRARY;
    std::string plugin = CORVANE_PLUGIN_LIBRARY;
    int flags = RTLD_NOW | RTLD_LOCAL;
};

// One at a time, as the plug-in's state is the process's.
class DevkitHost {
public:
    using Parameters = std::vector<std::pair<std::string, std::string>>;
    using Results = std::map<std::string, std::string>;

    DevkitHost() : DevkitHost(HostLibraries()) { init(); }
    // Loads the libraries and does no more.
    explicit DevkitHost(const HostLibraries& libraries)
        : m_params(open(libraries.params, libraries.flags)),
          m_engine(open(libraries.engine, libraries.flags)),
          m_plugin(open(libraries.plugin, libraries.flags))
    {
        if (m_params != nullptr) {
#define RESOLVE(name, parameters) resolve(m_params, name, #name);
            CORVANE_PARAMS_FUNCTIONS(RESOLVE)
#undef RESOLVE
        }
        resolve(m_plugin, m_init, "Corvane_plugin_Init");
        resolve(m_plugin, m_request, "Corvane_plugin_Request");
        resolve(m_plugin, m_free, "Corvane_plugin_Free");
    }
    DevkitHost(const DevkitHost&) = delete;
    DevkitHost& operator=(const DevkitHost&) = delete;
    ~DevkitHost()
    {
        free();
        for (void* library : {m_plugin, m_engine, m_params})
            if (library != nullptr)
                dlclose(library);
    }

    // The engine copies the standard error stream's descriptor for its log, which has a
    // line for every refused call: thousands where a test is about refusals.
    int init()
    {
        fflush(stderr);
        const int saved = dup(STDERR_FILENO);
        const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (saved < 0 || nowhere < 0)
            stop("no descriptors");
        dup2(nowhere, STDERR_FILENO);
        const int result = m_init();
        dup2(saved, STDERR_FILENO);
        close(nowhere);
        close(saved);
        return result;
    }

    // May be called again.
    int free()
    {
        return m_free();
    }

    // Stores the parameters, sends the request and reads all of its results; none without a
    // module. For any number of threads at once, since the module keeps its stores per thread.
    Results request(const std::string& name, const Parameters& parameters) const
    {
        if (m_params == nullptr) {
            m_request(name.data(), static_cast<unsigned int>(name.size()));
            return {};
        }
        check(ClearHttpParams());
        for (const auto& [key, value] : parameters)
            check(AddHttpParams(bytes(key), size(key), bytes(value), size(value)));
        m_request(name.data(), static_cast<unsigned int>(name.size()));

        Results results;
        int count = 0;
        check(GetRetParamsSum(&count));
        for (int i = 0; i < count; ++i) {
            long nameSize = 0;
            long valueSize = 0;
            check(GetRetParamFromIndex(i, nullptr, &nameSize, nullptr, &valueSize));
            std::string resultName(static_cast<size_t>(nameSize), '\0');
            std::string value(static_cast<size_t>(valueSize), '\0');
            check(GetRetParamFromIndex(i, resultName.data(), &nameSize, value.data(), &valueSize));
            results.emplace(std::move(resultName), std::move(value));
        }
        return results;
    }

private:
    static void* open(const std::string& path, int flags)
    {
        if (path.empty())
            return nullptr;
        void* library = dlopen(path.c_str(), flags);
        if (library == nullptr)
            stop(dlerror());
        return library;
    }

    template <class Function>
    static void resolve(void* library, Function& function, const char* name)
    {
        function = reinterpret_cast<Function>(dlsym(library, name));
        if (function == nullptr)
            stop(dlerror());
    }

    [[noreturn]] static void stop(const char* why)
    {
        fprintf(stderr, "%s\n", why);
        abort();
    }

    static void check(int code)
    {
        if (code != 0)
            stop("the parameter module refuses a call");
    }

    // The module takes pointers to non-const bytes, which it does not change.
    static char* bytes(const std::string& text)
    {
        return const_cast<char*>(text.data());
    }
    static long size(const std::string& text)
    {
        return static_cast<long>(text.size());
    }

    void* m_params;
    void* m_engine;
    void* m_plugin;

#define DECLARE(name, parameters) int(*name) parameters = nullptr;
    CORVANE_PARAMS_FUNCTIONS(DECLARE)
#undef DECLARE
    int (*m_init)() = nullptr;
    int (*m_request)(const char* name, unsigned int length) = nullptr;
    int (*m_free)() = nullptr;
};

}  // namespace support

#endif
