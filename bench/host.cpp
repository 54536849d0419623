#include "host.h"

#include <cstdio>
#include <cstdlib>

#include "log.h"

namespace {

// The contracts take texts that they do not change without const.
char* chars(const std::string& text)
{
    return const_cast<char*>(text.data());
}

long length(const std::string& text)
{
    return static_cast<long>(text.length());
}

}  // namespace

void giveUp(const std::string& why)
{
    fprintf(stderr, "%s\n", why.c_str());
    exit(1);
}

Host::Host(const std::string& paramsLibrary, const std::string& engineLibrary)
    : m_paramsLibrary(openLibrary(paramsLibrary)), m_engineLibrary(openLibrary(engineLibrary))
{
    params.bind(m_paramsLibrary);
    engine.bind(m_engineLibrary);
    Corvane_plugin_Init();
    log_set_level(-1);
    expectSuccess("QZaVen_GetVersion", {});
}

Host::~Host()
{
    Corvane_plugin_Free();
}

void Host::store(const Pairs& parameters) const
{
    for (const auto& [name, value] : parameters)
        params.AddHttpParams(chars(name), length(name), chars(value), length(value));
}

void Host::send(const std::string& request) const
{
    Corvane_plugin_Request(request.data(), static_cast<unsigned int>(request.length()));
}

std::string Host::result(const std::string& name) const
{
    long announced = 0;
    if (params.GetRetParams(chars(name), length(name), nullptr, &announced) != 0)
        return "";
    std::string value(static_cast<size_t>(announced) + 1, '\0');
    params.GetRetParams(chars(name), length(name), value.data(), &announced);
    value.resize(static_cast<size_t>(announced));
    return value;
}

void Host::expectSuccess(const std::string& request, const Pairs& parameters) const
{
    store(parameters);
    send(request);
    const std::string code = result("errorCode");
    const bool dataAlone = request == "QZaVen_strerror";
    if (dataAlone ? result("Data").empty() : code != "0")
        giveUp(request + " fails with " + (code.empty() ? "no code" : code));
}

BareHost::BareHost()
    : Host(BENCH_DOUBLES_DIR "/libCorvaneParamsModule.so",
           BENCH_DOUBLES_DIR "/libSoftModuleaven.so")
{
}
