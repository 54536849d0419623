// The plug-in, its parameter module and its engine, loaded as a host loads them.
#ifndef CORVANE_HOST_HOST_SESSION_H
#define CORVANE_HOST_HOST_SESSION_H

#include <string>
#include <vector>

#include "common/opened_library.h"
#include "common/secrets.h"
#include "host/catalogue/catalogue.h"

constexpr const char* pluginName = "libCorvane_plugin.so";
constexpr const char* paramsName = "libCorvaneParamsModule.so";
constexpr const char* engineName = "libSoftModuleaven.so";

// A library was loaded from its path, but has no SONAME or another one. The plug-in, which opens
// it by its bare name, would not find it.
struct BareNameError : LoadError {
    using LoadError::LoadError;
};

// The files to load. An empty path stands for the library's usual place: beside the
// program, in its build or installation tree, else wherever the loader finds it.
struct LibraryPaths {
    std::string plugin;
    std::string params;
    std::string engine;
    bool isQuiet = false;  // whether the engine's log is not shown
};

LibraryPaths withDefaults(LibraryPaths paths);

// Looks at the files without loading them: the loader would crash on a file that is cut, and wait
// for ever for a pipe. Names that are left to the loader are not looked at. Throws a LoadError
// that says what is wrong and what to do.
void checkLibraries(const LibraryPaths& paths);

// The folder of the running program.
std::string programFolder();

// The folders in which libraries are looked for, in this order, before they are left to the
// loader: the program's own, the plug-in's, and the devkit's. A module or an engine beside the
// plug-in so comes before the devkit's.
std::vector<std::string> usualFolders();

struct Reply {
    SecretPairs results;           // all of them, in the module's order
    double microseconds = 0;       // of the request call alone
    double storeMicroseconds = 0;  // of storing the parameters, before it
    double readMicroseconds = 0;   // of reading the results, after it
};

// One per process, as the plug-in's state is the process's, and for one thread. The libraries may
// print to standard output; a program that writes there itself makes an Output first.
class HostSession {
public:
    // Checks and loads the libraries, and has the plug-in bind and initialise them. Throws a
    // LoadError. That the plug-in failed is known from what it prints, as it has no other sign.
    explicit HostSession(const LibraryPaths& paths);
    ~HostSession();
    HostSession(const HostSession&) = delete;
    HostSession& operator=(const HostSession&) = delete;

    // Stores the parameters, sends the request, reads its results and empties the
    // stores. An unknown name gives no results.
    Reply send(const std::string& name, const Pairs& parameters);

    // Which messages the plug-in sends to syslog from here on: "crit" to "debug", see log.h. A
    // plug-in that does not export its level keeps it.
    void setLogLevel(const std::string& name);

private:
    void initialise(bool isQuiet) const;
    void emptyStores() const;
    SecretPairs readResults() const;

    // In this order, so that the plug-in is unloaded first.
    OpenedLibrary m_paramsLibrary;
    OpenedLibrary m_engineLibrary;
    OpenedLibrary m_pluginLibrary;
    ParamsFunctions m_params;
    PluginFunctions m_plugin;
};

#endif
