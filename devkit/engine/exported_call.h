// The frame of every exported function that needs the engine.
#ifndef CORVANE_ENGINE_EXPORTED_CALL_H
#define CORVANE_ENGINE_EXPORTED_CALL_H

#include <openssl/err.h>

#include <cstddef>
#include <new>
#include <optional>
#include <shared_mutex>

#include "buffers.h"
#include "engine.h"
#include "engine_log.h"
#include "errors.h"
#include "faults.h"
#include "secret_bytes.h"

// Holds the running engine for the length of a call: aven_global_cleanup waits for the
// calls that are under way. Also keeps what the call leaves in libcrypto's error queue
// of this thread from the host, who may use the queue itself.
class EngineUse {
public:
    EngineUse();  // throws AVEN_E_NOT_INITIALISED
    ~EngineUse();
    EngineUse(const EngineUse&) = delete;
    EngineUse& operator=(const EngineUse&) = delete;

    const Engine& engine() const { return *m_engine; }

private:
    std::shared_lock<std::shared_mutex> m_alive;
    const Engine* m_engine;
};

// What a call that a fault strikes leaves behind: no length, no handle.
template <class Result>
void clearResult(Result* result)
{
    if (result != nullptr)
        *result = Result{};
}

inline void clearResult(std::nullptr_t) {}

// Runs `body` in a frame of its own, so that the caller can wipe that. Returns the code of what it
// throws.
template <class Body>
[[gnu::noinline]] int codeOf(Body& body) noexcept
{
    try {
        body();
    } catch (const Failure& failure) {
        return failure.code;
    } catch (const std::bad_alloc&) {
        return AVEN_E_NO_MEMORY;
    } catch (...) {
        return AVEN_E_INTERNAL;
    }
    return AVEN_OK;
}

// Turns whatever `body` throws into a code and logs it. Nothing is thrown beyond this
// frame, and nothing of `body` is left on the stack. `result` is where the call stores its length
// or handle, null if it has none: a fault on request keeps the body from running and clears the
// result.
template <class Result, class Body>
int guarded(const char* function, Result result, Body body) noexcept
{
    if (const std::optional<Fault> fault = faultFor(function)) {
        clearResult(result);
        return fault->code;
    }

    const int code = codeOf(body);
    wipeStack<STACK_OF_CALL>();
    if (code != AVEN_OK)
        logLine("%s: %d %s", function, code, errorName(code));
    return code;
}

// Runs `body(engine)` as the exported function of that name.
template <class Body>
int answer(const char* function, Body body) noexcept
{
    return guarded(function, nullptr, [&] {
        const EngineUse use;
        body(use.engine());
    });
}

// The same for a function with an output buffer: `body(engine, output)`.
template <class Body>
int answer(const char* function, unsigned char* out, uint32_t* out_len, Body body) noexcept
{
    return guarded(function, out_len, [&] {
        const EngineUse use;
        Output output(out, out_len);
        body(use.engine(), output);
    });
}

// The same for a function that gives out a handle, for the object that `body(engine)`
// returns.
template <class Body>
int answer(const char* function, void** handle, Body body) noexcept
{
    return guarded(function, handle, [&] {
        const EngineUse use;
        require(handle != nullptr, AVEN_E_NULL_POINTER);
        *handle = nullptr;
        *handle = use.engine().handles().add(body(use.engine()));
    });
}

#endif
