// The binding to the host's parameter module (params_interface.h).
#ifndef CORVANE_MODULE_CORVANEPARAMS_H
#define CORVANE_MODULE_CORVANEPARAMS_H

#include "params_interface.h"

// Result codes of the binding; any other code is the module's own.
constexpr int PARAMS_NOT_OPEN = -20215;          // no library could be opened, or none is open
constexpr int PARAMS_FUNCTION_MISSING = -20216;  // the module lacks the function

// Holds the module's library and its functions. One instance serves the process; it
// exists from the moment the plug-in is loaded. Nothing is locked: Load and Free must
// not run beside any other call.
class __attribute__((visibility("default"))) CorvaneParamsClass {
public:
    CorvaneParamsClass() noexcept;

    // The one instance; never null.
    static CorvaneParamsClass* getInstance();

    // Opens "libCorvaneParamsModule.so", after closing a module that is still open, and
    // resolves its functions. Prints "load fail, <reason>" if it cannot be opened.
    // 0, PARAMS_NOT_OPEN or PARAMS_FUNCTION_MISSING.
    int Load();

    // The same for a library of the caller's choice, silently. The number is ignored.
    int Load(char* path, int);

    // Resolves the functions of the open library. Those that it has stay usable even
    // if others are missing.
    int initFuction();

    // Closes the library if one is open. The functions stay as they were, so none may
    // be called until another Load.
    void Free();

    // Each forwards to the module's function and returns its result, or
    // PARAMS_FUNCTION_MISSING. What the function throws passes unchanged.
    int _aven_AddHttpParams(char* name, long nameLen, char* value, long valueLen);
    int _aven_GetHttpParams(char* name, long nameLen, char* value, long* valueLen);
    int _aven_ChangeHttpParams(char* name, long nameLen, char* value, long valueLen);
    int _aven_ClearHttpParams();
    int _aven_AddRetParams(char* name, long nameLen, char* value, long valueLen);
    int _aven_GetRetParams(char* name, long nameLen, char* value, long* valueLen);
    int _aven_GetRetParamsSum(int* count);
    int _aven_GetRetParamFromIndex(int index, char* name, long* nameLen, char* value,
                                   long* valueLen);
    int _aven_ClearRetParams();
    int _aven_SetRetCustomParam(char* text, long textLen);
    int _aven_GetRetCustomParam(char* text, long* textLen);
    int _aven_ClearRetCustomParam();

private:
    __attribute__((visibility("hidden"))) bool open(const char* path);
    __attribute__((visibility("hidden"))) void forgetFunctions();

    void* m_handle;
#define CORVANE_DECLARE(name, params) int(*m_##name) params;
    CORVANE_PARAMS_FUNCTIONS(CORVANE_DECLARE)
#undef CORVANE_DECLARE

    // Hidden: another plug-in in the process may have a class of the same name.
    __attribute__((visibility("hidden"))) static CorvaneParamsClass* insModule;
};

#endif
