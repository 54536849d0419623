/**
 * @file
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

/**
 * The functions in the order in which the plug-in resolves them, one row each:
 * X(name, parameters); all return int. Users expand the list with an X of their own, the
 * plug-in into function pointers. What each function does is told at its declaration, at
 * the end of this file; headers_test holds the two against each other.
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

/*
 * The declarations of the same functions, for who writes a module: the source defines
 * CORVANE_PARAMS_PROTOTYPES and includes this header. A definition with a wrong signature
 * then does not compile, and the functions are exported under -fvisibility=hidden too.
 * Others go without: hosts and the plug-in find the functions at run time.
 */
#if defined(CORVANE_PARAMS_PROTOTYPES) && !defined(CORVANE_PARAMS_PROTOTYPES_DECLARED)
#define CORVANE_PARAMS_PROTOTYPES_DECLARED
#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** @name Request parameters
 *  The host adds them, the plug-in reads them and empties the store at the end of the request.
 *  @{ */

/** Inserts a pair. */
int AddHttpParams(char* name, long name_len, char* value, long value_len);

/**
 * Reads a value in two calls:
 *   1. value null, *value_len 0: fails if the name is absent, else stores the value's
 *      length in *value_len;
 *   2. value pointing at that many bytes plus one, zero-filled by the caller, and
 *      *value_len as the first call left it: copies the value and stores its length.
 */
int GetHttpParams(char* name, long name_len, char* value, long* value_len);

/** Replaces the value of a name that is there. */
int ChangeHttpParams(char* name, long name_len, char* value, long value_len);

/** Empties the store; an empty one is no failure. */
int ClearHttpParams(void);

/** @} */

/** @name Results
 *  The plug-in empties the store at the start of a request and adds to it, the host reads it
 *  afterwards.
 *  @{ */

/** Inserts a pair. */
int AddRetParams(char* name, long name_len, char* value, long value_len);

/** Reads a value, in two calls as GetHttpParams does. */
int GetRetParams(char* name, long name_len, char* value, long* value_len);

/** For the host; the plug-in requires only that it exists. Stores the number of results. */
int GetRetParamsSum(int* count);

/** For the host, likewise. Reads name and value of result `index`, which counts from 0, in
   two calls as GetHttpParams does: both pointers null, then both set. */
int GetRetParamFromIndex(int index, char* name, long* name_len, char* value, long* value_len);

/** Empties the store; an empty one is no failure. */
int ClearRetParams(void);

/** @} */

/** @name The custom result text
 *  For hosts and handlers of their own: the plug-in's requests only clear it, at their start.
 *  @{ */

/** Replaces the text. */
int SetRetCustomParam(char* text, long text_len);

/** For the host, like GetRetParamsSum. Reads the text, in two calls as GetHttpParams does. */
int GetRetCustomParam(char* text, long* text_len);

/** Empties the text; an empty one is no failure. */
int ClearRetCustomParam(void);

/** @} */

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
