// What went wrong in a place from which nothing can be thrown, on standard error.
#ifndef CORVANE_COMMON_FAILURE_H
#define CORVANE_COMMON_FAILURE_H

#include <cstdio>
#include <exception>
#include <new>

// Takes no memory.
inline void tellFailure(const char* what, const std::exception& failure) noexcept
{
    const bool isMemory = dynamic_cast<const std::bad_alloc*>(&failure) != nullptr;
    fprintf(stderr, "corvane-host: %s: %s\n", what, isMemory ? "out of memory" : failure.what());
}

// Calls it, and tells what it throws.
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
