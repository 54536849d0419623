// The plug-in, its parameter module and its engine, loaded as a host loads them.
#ifndef CORVANE_HOST_HOST_SESSION_H
#define CORVANE_HOST_HOST_SESSION_H

#include <string>
#include <vector>

#include "common/opened_library.h"
#include "host/catalogue/catalogue.h"

constexpr const char* pluginName = "libCorvane_plugin.so";
constexpr const char* paramsName = "libCorvaneParamsModule.so";
constexpr const char* engineName = "libSoftModuleaven.so";

// A library was loaded from its path, but the plug-in, which opens it by its bare name,
// would not get it: its SONAME is missing or another one.
struct BareNameError : LoadError {
    using LoadError::LoadError;
};

// The files to load. An empty path stands for the library's usual place: beside the
// program, in its build or installation tree, else wherever the loader finds it.
struct LibraryPaths {
    std::string plugin;
    std::string params;
    std::string engine;
};

LibraryPaths withDefaults(LibraryPaths paths);

// Looks at the files without loading them: a cut one would end the process that does, and a
// pipe keep it for ever. Names that are left to the loader are not looked at. Throws a
// LoadError that says what is wrong and what to do.
void checkLibraries(const LibraryPaths& paths);

// The files that are looked for, in this order, before a library is left to the loader:
// beside the program, in its build tree, and in lib/ beside an installation's bin/.
std::vector<std::string> usualPlaces(const std::string& name);

struct Reply {
    Pairs results;                 // all of them, in the module's order
    double microseconds = 0;       // of the request call alone
    double storeMicroseconds = 0;  // of what comes before it, the parameters
    double readMicroseconds = 0;   // of what comes behind it, the results
};

// One per process, as the plug-in's state is the process's; used from one thread. The
// libraries print to standard output as they like, so a program whose own output goes
// there moves it out of their way first.
class HostSession {
public:
    // Checks and loads the libraries and has the plug-in bind and initialise them. Throws a
    // LoadError, also if the plug-in printed that it failed, which is all it tells.
    explicit HostSession(const LibraryPaths& paths);
    ~HostSession();
    HostSession(const HostSession&) = delete;
    HostSession& operator=(const HostSession&) = delete;

    // Stores the parameters, sends the request, reads its results and empties the
    // stores. An unknown name gives no results.
    Reply send(const std::string& name, const Pairs& parameters);

    // Which of its messages the plug-in sends to syslog from here on: "crit" to "debug", see
    // log.h. One that cannot be told keeps its own level.
    void setLogLevel(const std::string& name);

private:
    void initialise();
    void emptyStores();
    Pairs readResults();

    // In this order, so that the plug-in is unloaded first.
    OpenedLibrary m_paramsLibrary;
    OpenedLibrary m_engineLibrary;
    OpenedLibrary m_pluginLibrary;
    ParamsFunctions m_params;
    PluginFunctions m_plugin;
};

#endif
