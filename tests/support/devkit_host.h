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

// One at a time, as the plug-in's state is the process's; used from one thread.
class DevkitHost {
public:
    using Parameters = std::vector<std::pair<std::string, std::string>>;
    using Results = std::map<std::string, std::string>;

    DevkitHost()
    {
#define RESOLVE(name, parameters) resolve(m_params, name, #name);
        CORVANE_PARAMS_FUNCTIONS(RESOLVE)
#undef RESOLVE
        resolve(m_plugin, m_init, "Corvane_plugin_Init");
        resolve(m_plugin, m_request, "Corvane_plugin_Request");
        resolve(m_plugin, m_free, "Corvane_plugin_Free");
        initWithoutEngineLog();
    }
    DevkitHost(const DevkitHost&) = delete;
    DevkitHost& operator=(const DevkitHost&) = delete;
    ~DevkitHost()
    {
        m_free();
        dlclose(m_plugin);
        dlclose(m_engine);
        dlclose(m_params);
    }

    // Stores the parameters, sends the request and reads all of its results.
    Results request(const std::string& name, const Parameters& parameters)
    {
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
    static void* open(const char* path)
    {
        void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
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

    // The engine copies the standard error stream's descriptor for its log, which has a
    // line for every refused call: thousands where a test is about refusals.
    void initWithoutEngineLog()
    {
        fflush(stderr);
        const int saved = dup(STDERR_FILENO);
        const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (saved < 0 || nowhere < 0)
            stop("no descriptors");
        dup2(nowhere, STDERR_FILENO);
        m_init();
        dup2(saved, STDERR_FILENO);
        close(nowhere);
        close(saved);
    }

    // The plug-in opens the first two by their bare names, and finds them loaded.
    void* m_params = open(CORVANE_PARAMS_LIBRARY);
    void* m_engine = open(CORVANE_ENGINE_LIBRARY);
    void* m_plugin = open(CORVANE_PLUGIN_LIBRARY);

#define DECLARE(name, parameters) int(*name) parameters = nullptr;
    CORVANE_PARAMS_FUNCTIONS(DECLARE)
#undef DECLARE
    int (*m_init)() = nullptr;
    int (*m_request)(const char* name, unsigned int length) = nullptr;
    int (*m_free)() = nullptr;
};

}  // namespace support

#endif
