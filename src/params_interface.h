/*
 * The contract towards the host's parameter module, libCorvaneParamsModule.so: its
 * twelve functions. C11 and C++17.
 *
 * The module keeps two stores of name/value pairs, one for the parameters of the
 * current request ("Http") and one for its results ("Ret"), and one custom result
 * text. Names and values are byte strings with explicit lengths: no terminator is
 * passed or required, and a value may hold zero bytes. The caller owns every
 * buffer; the module copies. Every function returns 0 for success and a non-zero
 * code of its own for failure.
 */
#ifndef CORVANE_PARAMS_INTERFACE_H
#define CORVANE_PARAMS_INTERFACE_H

/*
 * The functions in the order in which the plug-in resolves them, one row each:
 * X(name, parameters); all return int.
 *
 *   Add...            inserts a pair
 *   Change...         replaces the value of an existing name
 *   Clear...          empties a store, or the custom text
 *   GetHttpParams and GetRetParams read a value in two calls:
 *     1. value null, *value_len 0: fails if the name is absent, else stores the
 *        value's length in *value_len;
 *     2. value pointing at that many bytes plus one, zero-filled by the caller, and
 *        *value_len as the first call left it: copies the value and stores its
 *        length.
 *   GetRetParamsSum, GetRetParamFromIndex, GetRetCustomParam serve the host; the
 *   plug-in requires that they exist.
 */
/* clang-format off */
#define CORVANE_PARAMS_FUNCTIONS(X)                                                      \
    X(AddHttpParams,        (char* name, long name_len, char* value, long value_len))    \
    X(GetHttpParams,        (char* name, long name_len, char* value, long* value_len))   \
    X(ChangeHttpParams,     (char* name, long name_len, char* value, long value_len))    \
    X(ClearHttpParams,      (void))                                                      \
    X(AddRetParams,         (char* name, long name_len, char* value, long value_len))    \
    X(GetRetParams,         (char* name, long name_len, char* value, long* value_len))   \
    X(GetRetParamsSum,      (int* count))                                                \
    X(GetRetParamFromIndex, (int index, char* name, long* name_len, char* value, long* value_len)) \
    X(ClearRetParams,       (void))                                                      \
    X(SetRetCustomParam,    (char* text, long text_len))                                 \
    X(GetRetCustomParam,    (char* text, long* text_len))                                \
    X(ClearRetCustomParam,  (void))
/* clang-format on */

#endif
