// The engine's log: single lines, each written at once, never with secrets.
#ifndef CORVANE_ENGINE_ENGINE_LOG_H
#define CORVANE_ENGINE_ENGINE_LOG_H

// Sends the log to `target`, which is opened to append: "/dev/stderr" and
// "/dev/stdout" mean the process's own streams, "" means no log. Returns whether the
// target could be opened; if not, the log stays where it was.
bool logOpen(const char* target);

void logClose();

// Writes one line, without its line end; drops it if there is no log.
__attribute__((format(printf, 1, 2))) void logLine(const char* format, ...);

// The same, but to standard error if there is no log.
__attribute__((format(printf, 1, 2))) void logLoud(const char* format, ...);

#endif
