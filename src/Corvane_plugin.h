/**
 * @file
 * What a host includes to drive the plug-in, libCorvane_plugin.so, from C or C++.
 *
 * The host loads the library (dlopen, or by linking to it) and calls
 *
 *     Corvane_plugin_Init();                       once, before any request
 *     Corvane_plugin_Request(name, name_length);   any number of times
 *     Corvane_plugin_Free();                       once, after the last request
 *
 * All three return 0 whatever happened. What a request did is told by its result
 * parameters alone, which the host reads from its parameter module.
 *
 * Threads: no function takes a lock. Init and Free must not run beside a request.
 * Requests may run at once only if the parameter module and the engine allow it,
 * and then share the key-pair type that the last key pair was read with.
 */
#ifndef CORVANE_PLUGIN_H
#define CORVANE_PLUGIN_H

#ifdef __cplusplus
#define CORVANE_NO_ARGUMENTS
extern "C" {
#else
#define CORVANE_NO_ARGUMENTS void
#endif
#pragma GCC visibility push(default)

/**
 * Opens the parameter module "libCorvaneParamsModule.so" and the crypto engine
 * "libSoftModuleaven.so" by their bare names (the dynamic loader's usual search)
 * and initialises the engine, whose own log goes to /dev/stderr.
 *
 * These failures are printed to standard output, and told nowhere else:
 *
 *     load fail, <loader's message>                         parameter module
 *     libSoftModuleaven.so load fail                        engine
 *     m_softMoudleAven.aven_global_init ERROR 0x<number>    engine initialisation
 *
 * A library that lacks a function loads without a message; the requests that need the
 * function fail. Requests may be sent after any failure. Without an engine they report
 * codes of their own; without a parameter module they can report nothing.
 *
 * A second call binds both libraries afresh and initialises the engine again.
 */
int Corvane_plugin_Init(CORVANE_NO_ARGUMENTS);

/**
 * Serves one request. `name` points at `len` bytes, the request's name; it needs
 * no terminator and stays the caller's. Before the call the host stores the request
 * parameters in the parameter module; after it the host reads the results there:
 * "Data" and "errorCode" (decimal text, "0" for success), of which some requests write
 * only one, and "gcmOutTag" of the symmetric encryption. Where an engine reported
 * success without any output, "errorCode" is "0" and "Data" empty. An unknown name
 * writes no results. The call empties the results before it starts and the request
 * parameters when it ends.
 *
 * Sends two syslog messages, at the start and at the end, while the log level is 4
 * (info) or above.
 */
int Corvane_plugin_Request(const char* name, unsigned int len);

/**
 * Closes the parameter module, cleans up the engine and closes it. No request may
 * follow, unless after another Corvane_plugin_Init.
 */
int Corvane_plugin_Free(CORVANE_NO_ARGUMENTS);

#ifdef __cplusplus
}

/** Keeps the three entry points in static links; nothing calls it. */
void prevent_Corvane_forgetting();
#endif

#pragma GCC visibility pop
#undef CORVANE_NO_ARGUMENTS

#endif
