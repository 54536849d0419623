// Reports on standard error, for places from which nothing may be thrown.
#ifndef CORVANE_COMMON_FAILURE_H
#define CORVANE_COMMON_FAILURE_H

#include <cstdio>
#include <exception>
#include <new>

// `what` says what was being done. Takes no memory.
inline void tellFailure(const char* what, const std::exception& failure) noexcept
{
    const bool isMemory = dynamic_cast<const std::bad_alloc*>(&failure) != nullptr;
    fprintf(stderr, "corvane-host: %s: %s\n", what, isMemory ? "out of memory" : failure.what());
}

// Calls a function, and reports the exception that it throws.
template <typename Call>
void withoutFailure(const char* what, const Call& call) noexcept
{
    try {
        call();
    } catch (const std::exception& e) {
        tellFailure(what, e);
    }
}

#endif
