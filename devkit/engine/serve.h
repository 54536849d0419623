// The frame of every exported function that needs the engine.
#ifndef AVEN_SERVE_H
#define AVEN_SERVE_H

#include <openssl/err.h>

#include <new>
#include <shared_mutex>

#include "engine.h"
#include "engine_log.h"
#include "errors.h"

// Holds the running engine for the length of a call: aven_global_cleanup waits for the
// calls that are under way. Also keeps what the call leaves in libcrypto's error queue
// of this thread from the host, who may use the queue itself.
class EngineUse {
public:
    EngineUse();  // throws AVEN_E_NOT_INITIALISED
    ~EngineUse();
    EngineUse(const EngineUse&) = delete;
    EngineUse& operator=(const EngineUse&) = delete;

    const Engine& engine() const { return *engine_; }

private:
    std::shared_lock<std::shared_mutex> alive_;
    const Engine* engine_;
};

// Turns whatever `body` throws into a code and logs it. Nothing is thrown beyond this
// frame.
template <class Body>
int guarded(const char* function, Body body) noexcept
{
    int code = AVEN_OK;
    try {
        body();
    } catch (const Failure& failure) {
        code = failure.code;
    } catch (const std::bad_alloc&) {
        code = AVEN_E_NO_MEMORY;
    } catch (...) {
        code = AVEN_E_INTERNAL;
    }
    if (code != AVEN_OK)
        logLine("%s: %d %s", function, code, errorName(code));
    return code;
}

// Runs `body(engine)` as the exported function of that name.
template <class Body>
int serve(const char* function, Body body) noexcept
{
    return guarded(function, [&] {
        const EngineUse use;
        body(use.engine());
    });
}

// The body of a function that is still to come.
inline int notSupported(const char* function) noexcept
{
    return serve(function, [](const Engine&) { throw Failure{AVEN_E_NOT_SUPPORTED}; });
}

#endif
