// What the paths of the interface lead to: files of the console and documents that are made once.
#ifndef CORVANE_SERVICE_HTTP_ROUTES_H
#define CORVANE_SERVICE_HTTP_ROUTES_H

#include <string>

#include "console_files.h"
#include "host/catalogue/http_routes.h"

// A file of the console; null if there is none at the path.
const ConsoleFile* findFile(const std::string& path);

// What a route answers always with the same bytes, made once; null for the others.
const ConsoleFile* findDocument(const Route& route);

// What a path has behind its route's.
std::string nameBehind(const Route& route, const std::string& path);

#endif
