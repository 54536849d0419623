/**
 * @file
 * Diagnostics through syslog, gated by one process-wide level, and hex dumps.
 * The plain functions compile as C11 too.
 *
 * Levels, from least to most verbose: 0 crit, 1 err, 2 warning, 3 notice, 4 info,
 * 5 debug. Level L is sent while _log_level > L - 1, with a facility of its own:
 * crit goes to local5, err to local4, ... debug to local0.
 */
#ifndef CORVANE_LOG_H
#define CORVANE_LOG_H

#include <stdbool.h>
#include <syslog.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** The process-wide level, 4 until log_set_level changes it. Any value is kept: a
   negative one silences everything, 5 and above let everything through. No lock:
   a change reaches each message at its next test of the level. */
extern int _log_level;

/** Opens syslog with pid and console fall-back; a copy of each message goes to standard
   error if alsoStderr. `ident` must stay valid while the log is in use. */
void log_open(const char* ident, bool alsoStderr);

/** The level of a name ("crit" to "debug", any case); 4 for null and other names. */
int log_get_level(const char* name);

/** Sets the process-wide level, unchecked. */
void log_set_level(int level);

/** Closes the connection to syslog. */
void log_close(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}

#pragma GCC visibility push(default)

/** Formats one line of at most `rowsize` bytes (16 or 32; anything else counts as
   16) of buf as hex digits in groups of `groupsize` bytes (8, 4, 2 in the
   machine's byte order, else 1) and, if `ascii`, the text beside them. A length
   that is no multiple of the group size is shown byte by byte. Writes at most
   `linebuflen` bytes to linebuf, its terminator included. */
void hex_dump_to_buffer(const void* buf, unsigned long len, int rowsize, int groupsize,
                        char* linebuf, unsigned long linebuflen, bool ascii);

/** Sends buf to the log at level 0 to 5, a message for each 16 bytes; at any other
   level prints the lines to standard output while _log_level is above 4. */
void print_hex_dump(int level, const void* buf, unsigned long len);

/** Prints buf under a caption to standard output while _log_level is above 4. */
void print_hex_buf(const char* caption, const void* buf, unsigned long len);

#pragma GCC visibility pop

/* For the library's own units. Sends one message if its level is let through; the level
   is read at each call, and nothing is computed before the test. The format is
   "[function - file:line] " and the message's own: CORVANE_LOG takes a text,
   CORVANE_LOG_FORMAT a format with arguments. */
#define CORVANE_LOG(level, text) CORVANE_LOG_SEND(level, "[%s - %s:%u] " text, CORVANE_LOG_PLACE)
#define CORVANE_LOG_FORMAT(level, format, ...) \
    CORVANE_LOG_SEND(level, "[%s - %s:%u] " format, CORVANE_LOG_PLACE, __VA_ARGS__)

#define CORVANE_LOG_PLACE __func__, __FILE__, static_cast<unsigned>(__LINE__)

/* 170 - 7 * level: local5.crit, local4.err, local3.warning, local2.notice, local1.info,
   local0.debug. */
#define CORVANE_LOG_SEND(level, ...)                \
    do {                                            \
        if (_log_level > (level)-1)                 \
            syslog(170 - 7 * (level), __VA_ARGS__); \
    } while (0)
#endif

#endif
