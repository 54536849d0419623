#include "errors.h"

#include "exports.h"
#include "faults.h"

const char* errorName(int code)
{
    switch (code) {
#define NAME(name, value, text, cause, remedy) \
    case value:                                \
        return #name;
        AVEN_ENGINE_ERRORS(NAME)
#undef NAME
    }
    return "unknown";
}

const char* aven_strerror(int code)
{
    if (faultFor("aven_strerror"))
        return nullptr;
    switch (code) {
        case AVEN_OK:
            return "success";
#define TEXT(name, value, text, cause, remedy) \
    case value:                                \
        return text;
            AVEN_ENGINE_ERRORS(TEXT)
            AVEN_PLUGIN_ERRORS(TEXT)
#undef TEXT
    }
    return "unknown error code: neither the development engine's nor the plug-in's";
}
