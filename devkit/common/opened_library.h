// Opens libraries at run time, and finds the functions that the plug-in exports and that its two
// contracts list. For every program that is a host: corvane-host, tests and benches.
#ifndef CORVANE_COMMON_OPENED_LIBRARY_H
#define CORVANE_COMMON_OPENED_LIBRARY_H

#include <memory>
#include <stdexcept>
#include <string>

#include "Corvane_plugin.h"
#include "dynamic_library.h"
#include "engine_interface.h"
#include "params_interface.h"

// A library could not be loaded, or does not behave as its contract says.
struct LoadError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct CloseLibrary {
    void operator()(void* library) const { dlclose(library); }
};

// Closes the library in its destructor. Null stands for a library that is left out.
using OpenedLibrary = std::unique_ptr<void, CloseLibrary>;

inline std::string loaderMessage()
{
    const char* message = dlerror();
    return message != nullptr ? message : "unknown reason";
}

// Throws a LoadError with the loader's reason.
inline OpenedLibrary openLibrary(const std::string& path, int flags = RTLD_NOW | RTLD_LOCAL)
{
    OpenedLibrary library(dlopen(path.c_str(), flags));
    if (library == nullptr)
        throw LoadError("cannot load " + loaderMessage());
    return library;
}

// Whether some part of the process has the library open.
inline bool isLibraryOpen(const std::string& path)
{
    return OpenedLibrary(dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD)) != nullptr;
}

// Throws a LoadError if the library lacks the function.
template <class Function>
void bindFunction(const OpenedLibrary& library, Function& function, const char* name)
{
    resolve(library.get(), function, name);
    if (function == nullptr)
        throw LoadError("a function is missing: " + loaderMessage());
}

// The functions of each library, by their names. They are null until `bind`, which throws a
// LoadError if one is missing; the library must stay open for as long as they are called.

struct ParamsFunctions {
#define DECLARE(name, parameters) int(*name) parameters = nullptr;
    CORVANE_PARAMS_FUNCTIONS(DECLARE)
#undef DECLARE

    void bind(const OpenedLibrary& library)
    {
#define BIND(name, parameters) bindFunction(library, name, #name);
        CORVANE_PARAMS_FUNCTIONS(BIND)
#undef BIND
    }
};

struct EngineFunctions {
#define DECLARE(result, name, parameters) result(*name) parameters = nullptr;
    AVEN_ENGINE_FUNCTIONS(DECLARE)
#undef DECLARE

    void bind(const OpenedLibrary& library)
    {
#define BIND(result, name, parameters) bindFunction(library, name, #name);
        AVEN_ENGINE_FUNCTIONS(BIND)
#undef BIND
    }
};

struct PluginFunctions {
    decltype(&Corvane_plugin_Init) init = nullptr;
    decltype(&Corvane_plugin_Request) request = nullptr;
    decltype(&Corvane_plugin_Free) free = nullptr;

    void bind(const OpenedLibrary& library)
    {
        bindFunction(library, init, "Corvane_plugin_Init");
        bindFunction(library, request, "Corvane_plugin_Request");
        bindFunction(library, free, "Corvane_plugin_Free");
    }
};

#endif
