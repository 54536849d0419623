// Looking up the functions of a library that is opened at run time.
#ifndef CORVANE_DYNAMIC_LIBRARY_H
#define CORVANE_DYNAMIC_LIBRARY_H

#include <dlfcn.h>

// Null if the library lacks the function. Holds the one cast that dlsym needs.
template <class Function>
void resolve(void* library, Function& function, const char* name)
{
    function = reinterpret_cast<Function>(dlsym(library, name));
}

#endif
