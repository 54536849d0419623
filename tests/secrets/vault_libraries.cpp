#include "vault_libraries.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "engine_interface.h"
#include "params_interface.h"
#include "vault.h"

namespace secrets {

Libraries libraries = {{}, 0, {}, {}, 0, {}, 0, Libraries::NONE, Fault::Code, nullptr, false};

namespace {

struct LibraryException {};

constexpr int FAULT_CODE = 77;
constexpr char PUBLIC_BYTES[] = "0123456789abcdef";
constexpr size_t TAG_SIZE = 16;

// Keeps account of a call; whether it is the faulty one.
bool faulty(const char* function, bool query, bool tells)
{
    const size_t place = libraries.callCount;
    if (place < std::size(libraries.calls))
        libraries.calls[libraries.callCount++] = {function, query, tells};
    return place == libraries.faultyCall;
}

// How a call ends.
int endOf(bool isFaulty)
{
    if (isFaulty && libraries.fault == Fault::Throws)
        throw LibraryException();
    return isFaulty && libraries.fault == Fault::Code ? FAULT_CODE : 0;
}

// The length that a call tells.
long told(bool isFaulty, size_t true_, size_t most)
{
    const long length = static_cast<long>(true_);
    if (!isFaulty)
        return length;
    switch (libraries.fault) {
        case Fault::Nothing:
            return 0;
        case Fault::Fewer:
            return length / 2;
        case Fault::More:
            return static_cast<long>(most) + 1;
        case Fault::Absurd:
            return -1;
        default:
            return length;
    }
}

// The arguments of an engine's function that are written to, whichever it is.
struct EngineCall {
    unsigned char* out = nullptr;
    unsigned char* tag = nullptr;
    uint32_t* length = nullptr;
    uint32_t lastNumber = 0;
    void** object = nullptr;

    void note(unsigned char* buffer) { (length == nullptr ? out : tag) = buffer; }
    void note(uint32_t* place) { length = place; }
    void note(uint32_t number) { lastNumber = number; }
    void note(void** place) { object = place; }
    template <class Other>
    void note(Other)
    {
    }
};

int answer(const char* function, const EngineCall& call)
{
    static int objects[1];
    const bool tells = call.length != nullptr;
    const bool isFaulty = faulty(function, tells && call.out == nullptr, tells);
    const std::string_view output = libraries.output;

    if (call.object != nullptr)
        *call.object = isFaulty ? nullptr : objects;
    if (call.tag != nullptr)
        memcpy(call.tag, PUBLIC_BYTES, TAG_SIZE);
    if (call.out == nullptr && tells) {
        *call.length = static_cast<uint32_t>(told(isFaulty, output.size(), output.size()));
    } else if (call.out != nullptr) {
        const size_t capacity = tells ? *call.length : call.lastNumber;
        const size_t size = std::min(capacity, output.size());
        memcpy(call.out, output.data(), size);
        if (tells)
            *call.length = static_cast<uint32_t>(told(isFaulty, size, capacity));
    }
    return endOf(isFaulty);
}

constexpr const char* engineNames[] = {
#define NAME(result, name, params) #name,
    AVEN_ENGINE_FUNCTIONS(NAME)
#undef NAME
};
constexpr const char* moduleNames[] = {
#define NAME(name, params) #name,
    CORVANE_PARAMS_FUNCTIONS(NAME)
#undef NAME
};

template <size_t Place, class Function>
struct EngineFunction;
template <size_t Place, class Result, class... Arguments>
struct EngineFunction<Place, Result(Arguments...)> {
    static Result call(Arguments... arguments)
    {
        EngineCall call;
        (call.note(arguments), ...);
        const int code = answer(engineNames[Place], call);
        if constexpr (std::is_pointer_v<Result>)
            return code == 0 ? "a public text" : nullptr;
        else
            return code;
    }
};

// A function of the module that does nothing.
template <size_t Place, class Function>
struct ModuleFunction;
template <size_t Place, class... Arguments>
struct ModuleFunction<Place, int(Arguments...)> {
    static int call(Arguments...) { return endOf(faulty(moduleNames[Place], false, false)); }
};

int getHttpParams(char* name, long nameLength, char* value, long* valueLength)
{
    const std::string_view wanted(name, static_cast<size_t>(nameLength));
    const auto end = libraries.parameters + libraries.parameterCount;
    const auto found = std::find_if(libraries.parameters, end,
                                    [&](const Pair& pair) { return pair.name == wanted; });
    const bool isFaulty = faulty("GetHttpParams", value == nullptr, true);
    if (found == end)
        return 1;
    const size_t size = found->value.size();
    if (value != nullptr)
        memcpy(value, found->value.data(),
               std::min(size, static_cast<size_t>(std::max(*valueLength, 0L))));
    *valueLength = told(isFaulty, size, size);
    return endOf(isFaulty);
}

int addRetParams(char* name, long nameLength, char* value, long valueLength)
{
    if (libraries.resultCount < std::size(libraries.results))
        libraries.results[libraries.resultCount++] = {
            kept({name, static_cast<size_t>(nameLength)}),
            kept({value, static_cast<size_t>(valueLength)})};
    return endOf(faulty("AddRetParams", false, false));
}

struct Export {
    std::string_view name;
    void* function;
};

template <class Function>
void* addressOf(Function function)
{
    return reinterpret_cast<void*>(function);
}

void* find(std::string_view name)
{
    enum EnginePlaces : size_t {
#define PLACE(result, name, params) PLACE_##name,
        AVEN_ENGINE_FUNCTIONS(PLACE)
#undef PLACE
    };
    enum ModulePlaces : size_t {
#define PLACE(name, params) PLACE_##name,
        CORVANE_PARAMS_FUNCTIONS(PLACE)
#undef PLACE
    };
    static const Export exports[] = {{"GetHttpParams", addressOf(getHttpParams)},
                                     {"AddRetParams", addressOf(addRetParams)},
#define EXPORT(result, name, params) \
    {#name, addressOf(EngineFunction<PLACE_##name, result params>::call)},
                                     AVEN_ENGINE_FUNCTIONS(EXPORT)
#undef EXPORT
#define EXPORT(name, params) {#name, addressOf(ModuleFunction<PLACE_##name, int params>::call)},
                                         CORVANE_PARAMS_FUNCTIONS(EXPORT)
#undef EXPORT
    };
    if (libraries.missingFunction != nullptr && name == libraries.missingFunction)
        return nullptr;
    for (const Export& exported : exports)
        if (exported.name == name)
            return exported.function;
    return nullptr;
}

// The handle of both libraries.
char openedLibrary;

// The loader's own function.
template <class Function>
Function next(const char* name)
{
    return reinterpret_cast<Function>(dlvsym(RTLD_NEXT, name, "GLIBC_2.34"));
}

}  // namespace

const char* nameOf(Fault fault)
{
    static constexpr const char* names[] = {"a code",     "an exception", "no length",
                                            "half of it", "too much",     "length -1"};
    return names[static_cast<size_t>(fault)];
}

void Libraries::addParameter(const char* name, std::string_view value)
{
    parameters[parameterCount++] = {name, value};
}

void Libraries::begin()
{
    parameterCount = callCount = resultCount = 0;
    faultyCall = NONE;
    output = {};
}

std::string_view Libraries::result(std::string_view name) const
{
    for (size_t i = 0; i < resultCount; ++i)
        if (results[i].name == name)
            return results[i].value;
    return {};
}

}  // namespace secrets

extern "C" void* dlopen(const char* path, int flags) noexcept
{
    const std::string_view name = path != nullptr ? path : "";
    if (name == "libSoftModuleaven.so")
        return secrets::libraries.engineMissing ? nullptr : &secrets::openedLibrary;
    if (name == "libCorvaneParamsModule.so")
        return &secrets::openedLibrary;
    return secrets::next<void* (*)(const char*, int)>("dlopen")(path, flags);
}

extern "C" int dlclose(void* library) noexcept
{
    if (library == &secrets::openedLibrary)
        return 0;
    return secrets::next<int (*)(void*)>("dlclose")(library);
}

extern "C" void* dlsym(void* library, const char* name) noexcept
{
    if (library == &secrets::openedLibrary)
        return secrets::find(name);
    return secrets::next<void* (*)(void*, const char*)>("dlsym")(library, name);
}

// Messages hold no secrets; they go nowhere.
extern "C" void syslog(int, const char*, ...) {}
extern "C" void __syslog_chk(int, int, const char*, ...) {}
