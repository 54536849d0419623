#include "memory_end.h"

#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <new>

#include "common/failure.h"

namespace {

// Whether memory has ended in this round of this thread's loop.
thread_local bool hadNoMemory = false;

void noteNoMemory()
{
    hadNoMemory = true;
    throw std::bad_alloc();
}

[[noreturn]] void endWithoutMemory()
{
    if (!hadNoMemory)
        abort();
    tellFailure("the host ends", std::bad_alloc());
    _exit(EXIT_FAILURE);
}

}  // namespace

void endBySentenceWithoutMemory()
{
    std::set_new_handler(noteNoMemory);
    std::set_terminate(endWithoutMemory);
}

void forgetEndOfMemory()
{
    hadNoMemory = false;
}
