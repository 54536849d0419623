// The plug-in in front of a parameter module and an engine, driven as a host does.
#ifndef CORVANE_BENCH_HOST_H
#define CORVANE_BENCH_HOST_H

#include <string>
#include <utility>
#include <vector>

#include "engine_interface.h"
#include "params_interface.h"

using Pairs = std::vector<std::pair<std::string, std::string>>;

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

    // What the libraries offer, for the skeleton of a request.
#define DECLARE(name, parameters) int(*name) parameters = nullptr;
    CORVANE_PARAMS_FUNCTIONS(DECLARE)
#undef DECLARE
#define DECLARE(result, name, parameters) result(*name) parameters = nullptr;
    AVEN_ENGINE_FUNCTIONS(DECLARE)
#undef DECLARE

private:
    void* m_params;
    void* m_engine;
};

// In front of the linear module and the copying engine.
class BareHost : public Host {
public:
    BareHost();
};

#endif
