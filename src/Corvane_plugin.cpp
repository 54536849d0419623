#include "Corvane_plugin.h"

#include <cstdio>
#include <string>

#include "WebOperateAvenSoftModule.h"
#include "engine_binding.h"
#include "log.h"
#include "module_CorvaneParams.h"

namespace {

// The handler that a name selects. A name for which there is no memory selects none,
// like one that is unknown: the host finds empty results, not those of the last request.
int functionID(CWebOperateAvenSoftModule& handler, const char* name, unsigned int len)
{
    try {
        return handler.GetFunctionID(std::string(name, len));
    } catch (...) {
        return -1;
    }
}

}  // namespace

int Corvane_plugin_Init()
{
    CorvaneParamsClass::getInstance()->Load();

    CSoftMoudle_aven m_softMoudleAven;
    m_softMoudleAven.loadLibrary("libSoftModuleaven.so");
    const int code = m_softMoudleAven.aven_global_init("/dev/stderr");
    if (code != 0)
        printf("m_softMoudleAven.aven_global_init ERROR 0x%x\n", static_cast<unsigned>(code));
    return 0;
}

int Corvane_plugin_Request(const char* name, unsigned int len)
{
    CWebOperateAvenSoftModule handler;
    handler.SetFunctionID(functionID(handler, name, len));

    CORVANE_LOG(4, "plugin operate start\n");
    handler.Request();
    CORVANE_LOG(4, "plugin operate end\n");
    return 0;
}

// The parameter module goes first, as it came first: not the reverse order of Init.
int Corvane_plugin_Free()
{
    CorvaneParamsClass::getInstance()->Free();

    CSoftMoudle_aven m_softMoudleAven;
    m_softMoudleAven.aven_global_cleanup();
    m_softMoudleAven.unloadLibrary();
    return 0;
}

void prevent_Corvane_forgetting()
{
    Corvane_plugin_Init();
    Corvane_plugin_Free();
    Corvane_plugin_Request(nullptr, 0);
}
