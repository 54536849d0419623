#include "faults.h"

#include <unistd.h>

#include <array>
#include <atomic>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <type_traits>

#include "engine_interface.h"
#include "engine_log.h"

bool faultsOn = false;

namespace {

constexpr const char* VARIABLE = "CORVANE_ENGINE_FAULTS";

struct Function {
    std::string_view name;
    bool returnsCode;  // else a text
};

#define ROW(result, name, params) {#name, std::is_same_v<result, int>},
constexpr Function functions[] = {AVEN_ENGINE_FUNCTIONS(ROW)};
#undef ROW

constexpr uint32_t EVERY_CALL = 0;

struct PlannedFault {
    const Function* function = nullptr;
    uint32_t call = EVERY_CALL;
    Fault fault = {};
    std::atomic<uint64_t> calls{0};  // so far
};

// Without destructors: threads may call while the process exits.
std::array<PlannedFault, 64> planned;
size_t plannedCount = 0;
bool readable = true;

template <class Number>
bool parseNumber(std::string_view text, Number& number)
{
    const char* end = text.data() + text.size();
    const std::from_chars_result result = std::from_chars(text.data(), end, number);
    return result.ec == std::errc() && result.ptr == end;
}

// The text before the first separator, which is taken off with it; all if there is none.
std::string_view takeUntil(char separator, std::string_view& text)
{
    const size_t at = text.find(separator);
    const std::string_view taken = text.substr(0, at);
    text.remove_prefix(at == std::string_view::npos ? text.size() : at + 1);
    return taken;
}

const Function* functionNamed(std::string_view name)
{
    for (const Function& function : functions)
        if (function.name == name)
            return &function;
    return nullptr;
}

// function:call=outcome
bool parsePlanned(std::string_view text, PlannedFault& plan)
{
    plan.function = functionNamed(takeUntil(':', text));
    if (plan.function == nullptr)
        return false;

    const std::string_view call = takeUntil('=', text);
    if (call != "*" && (!parseNumber(call, plan.call) || plan.call == EVERY_CALL))
        return false;

    if (text == "empty")
        return true;
    if (text == "crash" || text == "hang") {
        plan.fault.kind = text == "crash" ? Fault::Crashes : Fault::Hangs;
        return true;
    }
    return plan.function->returnsCode && parseNumber(text, plan.fault.code) && plan.fault.code != 0;
}

bool parsePlan(std::string_view text)
{
    for (bool more = true; more;) {
        more = text.find(';') != std::string_view::npos;
        if (plannedCount == planned.size() ||
            !parsePlanned(takeUntil(';', text), planned[plannedCount]))
            return false;
        ++plannedCount;
    }
    return true;
}

__attribute__((constructor)) void readVariable()
{
    const char* text = getenv(VARIABLE);
    if (text == nullptr || *text == '\0')
        return;
    readable = parsePlan(text);
    faultsOn = readable;
}

}  // namespace

std::optional<Fault> countedFault(const char* function)
{
    const PlannedFault* striking = nullptr;
    for (size_t i = 0; i < plannedCount; ++i) {
        PlannedFault& plan = planned[i];
        if (plan.function->name != function)
            continue;
        const uint64_t call = ++plan.calls;
        if (striking == nullptr && (plan.call == EVERY_CALL || plan.call == call))
            striking = &plan;
    }
    if (striking == nullptr)
        return std::nullopt;

    const Fault& fault = striking->fault;
    if (fault.kind == Fault::Crashes) {
        logLoud("*** FAULT ON REQUEST *** %s crashes", function);
        abort();
    }
    if (fault.kind == Fault::Hangs) {
        logLoud("*** FAULT ON REQUEST *** %s hangs", function);
        for (;;)
            pause();
    }
    if (fault.code == 0)
        logLoud("*** FAULT ON REQUEST *** %s brings no result", function);
    else
        logLoud("*** FAULT ON REQUEST *** %s returns %d", function, fault.code);
    return fault;
}

bool faultsReadable()
{
    return readable;
}

void logFaults()
{
    if (!readable)
        logLoud("*** FAULTS ON REQUEST *** malformed: entry %zu of %s; the engine will not start",
                plannedCount + 1, VARIABLE);
    else if (faultsOn)
        logLoud("*** FAULTS ON REQUEST *** %s is set: calls will fail on purpose (entries: %zu)",
                VARIABLE, plannedCount);
}
