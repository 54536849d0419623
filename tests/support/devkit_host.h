// The plug-in with the reference parameter module and the development engine, driven as a
// host drives it: no double, nothing called but what a host can call.
#ifndef CORVANE_TESTS_DEVKIT_HOST_H
#define CORVANE_TESTS_DEVKIT_HOST_H

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/opened_library.h"

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
        : m_paramsLibrary(open(libraries.params, libraries.flags)),
          m_engineLibrary(open(libraries.engine, libraries.flags)),
          m_pluginLibrary(open(libraries.plugin, libraries.flags))
    {
        if (m_paramsLibrary != nullptr)
            m_params.bind(m_paramsLibrary);
        m_plugin.bind(m_pluginLibrary);
    }
    DevkitHost(const DevkitHost&) = delete;
    DevkitHost& operator=(const DevkitHost&) = delete;
    ~DevkitHost() { free(); }

    // The engine copies the standard error stream's descriptor for its log, which has a
    // line for every refused call: thousands where a test is about refusals.
    int init()
    {
        fflush(stderr);
        const int saved = dup(STDERR_FILENO);
        const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (saved < 0 || nowhere < 0)
            throw std::runtime_error("no descriptors");
        dup2(nowhere, STDERR_FILENO);
        const int result = m_plugin.init();
        dup2(saved, STDERR_FILENO);
        close(nowhere);
        close(saved);
        return result;
    }

    // May be called again.
    int free() { return m_plugin.free(); }

    // Stores the parameters, sends the request and reads all of its results; none without a
    // module. For any number of threads at once, since the module keeps its stores per thread.
    Results request(const std::string& name, const Parameters& parameters) const
    {
        if (m_paramsLibrary == nullptr) {
            m_plugin.request(name.data(), static_cast<unsigned int>(name.size()));
            return {};
        }
        check(m_params.ClearHttpParams());
        for (const auto& [key, value] : parameters)
            check(m_params.AddHttpParams(bytes(key), size(key), bytes(value), size(value)));
        m_plugin.request(name.data(), static_cast<unsigned int>(name.size()));

        Results results;
        int count = 0;
        check(m_params.GetRetParamsSum(&count));
        for (int i = 0; i < count; ++i) {
            long nameSize = 0;
            long valueSize = 0;
            check(m_params.GetRetParamFromIndex(i, nullptr, &nameSize, nullptr, &valueSize));
            std::string resultName(static_cast<size_t>(nameSize), '\0');
            std::string value(static_cast<size_t>(valueSize), '\0');
            check(m_params.GetRetParamFromIndex(i, resultName.data(), &nameSize, value.data(),
                                                &valueSize));
            results.emplace(std::move(resultName), std::move(value));
        }
        return results;
    }

private:
    static OpenedLibrary open(const std::string& path, int flags)
    {
        return path.empty() ? nullptr : openLibrary(path, flags);
    }

    static void check(int code)
    {
        if (code != 0)
            throw std::runtime_error("the parameter module refuses a call");
    }

    // The module takes pointers to non-const bytes, which it does not change.
    static char* bytes(const std::string& text) { return const_cast<char*>(text.data()); }
    static long size(const std::string& text) { return static_cast<long>(text.size()); }

    // In this order, so that the plug-in is unloaded first.
    OpenedLibrary m_paramsLibrary;
    OpenedLibrary m_engineLibrary;
    OpenedLibrary m_pluginLibrary;
    ParamsFunctions m_params;
    PluginFunctions m_plugin;
};

}  // namespace support

#endif
