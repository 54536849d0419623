#include "module_CorvaneParams.h"

#include <cstdio>
#include <new>

#include "dynamic_library.h"

namespace {

// Calls a function of the module. What it throws passes: there is no code for it.
template <class... Params, class... Args>
int forward(int (*function)(Params...), Args... args)
{
    if (function == nullptr)
        return PARAMS_FUNCTION_MISSING;
    return function(args...);
}

// The instance lives here and not on the heap, so that loading and unloading the
// plug-in leaves nothing behind. It is never destroyed.
alignas(CorvaneParamsClass) unsigned char instanceMemory[sizeof(CorvaneParamsClass)];

}  // namespace

CorvaneParamsClass* CorvaneParamsClass::insModule = new (instanceMemory) CorvaneParamsClass;

CorvaneParamsClass::CorvaneParamsClass() noexcept : m_handle(nullptr)
{
    forgetFunctions();
}

void CorvaneParamsClass::forgetFunctions()
{
#define FORGET(name, params) m_##name = nullptr;
    CORVANE_PARAMS_FUNCTIONS(FORGET)
#undef FORGET
}

CorvaneParamsClass* CorvaneParamsClass::getInstance()
{
    return insModule;
}

int CorvaneParamsClass::Load()
{
    if (!open("libCorvaneParamsModule.so")) {
        if (const char* reason = dlerror())
            printf("load fail, %s\n", reason);
        return PARAMS_NOT_OPEN;
    }
    return initFuction();
}

int CorvaneParamsClass::Load(char* path, int)
{
    if (!open(path))
        return PARAMS_NOT_OPEN;
    return initFuction();
}

bool CorvaneParamsClass::open(const char* path)
{
    Free();
    m_handle = dlopen(path, RTLD_NOW);
    if (m_handle == nullptr)
        forgetFunctions();  // those of a module that Free has closed would be called
    return m_handle != nullptr;
}

int CorvaneParamsClass::initFuction()
{
    if (m_handle == nullptr)
        return PARAMS_NOT_OPEN;

        // All are stored before any is tested: those that are there stay usable.
#define RESOLVE(name, params) resolve(m_handle, m_##name, #name);
    CORVANE_PARAMS_FUNCTIONS(RESOLVE)
#undef RESOLVE

#define REQUIRE(name, params) \
    if (m_##name == nullptr)  \
        return PARAMS_FUNCTION_MISSING;
    CORVANE_PARAMS_FUNCTIONS(REQUIRE)
#undef REQUIRE
    return 0;
}

void CorvaneParamsClass::Free()
{
    if (m_handle == nullptr)
        return;
    dlclose(m_handle);
    m_handle = nullptr;
}

int CorvaneParamsClass::_aven_AddHttpParams(char* name, long nameLen, char* value, long valueLen)
{
    return forward(m_AddHttpParams, name, nameLen, value, valueLen);
}

int CorvaneParamsClass::_aven_GetHttpParams(char* name, long nameLen, char* value, long* valueLen)
{
    return forward(m_GetHttpParams, name, nameLen, value, valueLen);
}

int CorvaneParamsClass::_aven_ChangeHttpParams(char* name, long nameLen, char* value, long valueLen)
{
    return forward(m_ChangeHttpParams, name, nameLen, value, valueLen);
}

int CorvaneParamsClass::_aven_ClearHttpParams()
{
    return forward(m_ClearHttpParams);
}

int CorvaneParamsClass::_aven_AddRetParams(char* name, long nameLen, char* value, long valueLen)
{
    return forward(m_AddRetParams, name, nameLen, value, valueLen);
}

int CorvaneParamsClass::_aven_GetRetParams(char* name, long nameLen, char* value, long* valueLen)
{
    return forward(m_GetRetParams, name, nameLen, value, valueLen);
}

int CorvaneParamsClass::_aven_GetRetParamsSum(int* count)
{
    return forward(m_GetRetParamsSum, count);
}

int CorvaneParamsClass::_aven_GetRetParamFromIndex(int index, char* name, long* nameLen,
                                                   char* value, long* valueLen)
{
    return forward(m_GetRetParamFromIndex, index, name, nameLen, value, valueLen);
}

int CorvaneParamsClass::_aven_ClearRetParams()
{
    return forward(m_ClearRetParams);
}

int CorvaneParamsClass::_aven_SetRetCustomParam(char* text, long textLen)
{
    return forward(m_SetRetCustomParam, text, textLen);
}

int CorvaneParamsClass::_aven_GetRetCustomParam(char* text, long* textLen)
{
    return forward(m_GetRetCustomParam, text, textLen);
}

int CorvaneParamsClass::_aven_ClearRetCustomParam()
{
    return forward(m_ClearRetCustomParam);
}
