/*
 * The reference parameter module, libCorvaneParamsModule.so: its result codes and
 * what it settles beyond the contract in params_interface.h. C11 and C++17.
 *
 * Stores belong to the thread that calls: a thread sees only what it has stored
 * itself. They start empty, and go when the thread ends or the library is unloaded.
 */
#ifndef CORVANE_PARAMS_PARAMS_MODULE_H
#define CORVANE_PARAMS_PARAMS_MODULE_H

#include "params_interface.h"

/*
 * Result codes; 0 is success. A failed call changes no store, and writes nothing
 * into the caller's memory except the needed lengths with PARAMS_BUFFER_TOO_SMALL.
 */
enum {
    PARAMS_OK = 0,
    PARAMS_UNKNOWN_NAME = -31001,     /* no pair of that name */
    PARAMS_BAD_INDEX = -31002,        /* index outside 0 to count - 1 */
    PARAMS_BUFFER_TOO_SMALL = -31003, /* the lengths now say what is needed */
    PARAMS_NULL_POINTER = -31004,     /* null bytes with a length, or a null length or count */
    PARAMS_NEGATIVE_LENGTH = -31005,  /* a name's, a text's or a buffer's length below 0 */
    PARAMS_NO_MEMORY = -31006,        /* no memory for a copy or for the thread's stores */
    PARAMS_CLOSED = -31007            /* the process or the library is going away */
};

#endif
