// The paths of the interface, and the methods that they take.
#ifndef CORVANE_SERVICE_HTTP_ROUTES_H
#define CORVANE_SERVICE_HTTP_ROUTES_H

#include <string>

#include "console_files.h"

enum class Target { Request, Batch, Peer, Status, Live, Ready, Metrics, Document };

struct Route {
    const char* path;     // one that ends in "/" takes a name behind it
    const char* pattern;  // for logs
    const char* method;
    Target target;
};

// Of a path as it was written: nothing is decoded, so nothing can be hidden. Null if there
// is none.
const Route* findRoute(const std::string& path);
const ConsoleFile* findFile(const std::string& path);

// What a route answers always with the same bytes, made once; null for the others.
const ConsoleFile* findDocument(const Route& route);

// What a path has behind its route's.
std::string nameBehind(const Route& route, const std::string& path);

// Whether the token is asked for, also where there is nothing.
bool needsToken(const std::string& path);

#endif
