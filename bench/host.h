// The plug-in in front of a parameter module and an engine, driven as a host does.
#ifndef CORVANE_BENCH_HOST_H
#define CORVANE_BENCH_HOST_H

#include <string>
#include <utility>
#include <vector>

#include "common/opened_library.h"
#include "common/pairs.h"

[[noreturn]] void giveUp(const std::string& why);

// One at a time, since the plug-in's state is the process's. Logging is off until
// log_set_level. Whatever goes wrong ends the program with a message.
class Host {
public:
    // Opens the libraries by these paths; the plug-in then gets them by their bare names.
    Host(const std::string& paramsLibrary, const std::string& engineLibrary);
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    // Storing the parameters is apart from sending, so that sending alone can be measured.
    void store(const Pairs& parameters) const;
    void send(const std::string& request) const;

    // A result of the last request, read as a host reads it.
    std::string result(const std::string& name) const;

    // Sends a request to see that it works; one that fails would be quick.
    void expectSuccess(const std::string& request, const Pairs& parameters) const;

private:
    OpenedLibrary m_paramsLibrary;
    OpenedLibrary m_engineLibrary;

public:
    // What the libraries offer, for the skeleton of a request.
    ParamsFunctions params;
    EngineFunctions engine;
};

// In front of the linear module and the copying engine.
class BareHost : public Host {
public:
    BareHost();
};

#endif
