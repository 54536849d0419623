// What the TLS library leaves in memory.
#ifndef CORVANE_SERVICE_HTTP_TLS_MEMORY_H
#define CORVANE_SERVICE_HTTP_TLS_MEMORY_H

// From here on the TLS library of libmicrohttpd overwrites what it gives back, which has bodies
// and answers in it. To be called before a server is made. Does nothing if there is none, or if it
// offers no way to do so.
void wipeTlsMemory();

#endif
