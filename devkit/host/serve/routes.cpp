#include "routes.h"

#include <cstring>

namespace {

constexpr Route routes[] = {
    {"/v1/requests/", "/v1/requests/{name}", "POST", Target::Request},
    {"/v1/batch", "/v1/batch", "POST", Target::Batch},
    {"/v1/peer/", "/v1/peer/{step}", "POST", Target::Peer},
    {"/v1/catalogue", "/v1/catalogue", "GET", Target::Catalogue},
    {"/v1/status", "/v1/status", "GET", Target::Status},
    {"/livez", "/livez", "GET", Target::Live},
    {"/readyz", "/readyz", "GET", Target::Ready},
    {"/metrics", "/metrics", "GET", Target::Metrics},
    {"/openapi.json", "/openapi.json", "GET", Target::OpenApi},
};

bool startsWith(const std::string& text, std::string_view beginning)
{
    return text.compare(0, beginning.size(), beginning) == 0;
}

}  // namespace

const Route* findRoute(const std::string& path)
{
    for (const Route& route : routes) {
        const std::string_view whole = route.path;
        const bool takesName = whole.back() == '/';
        if (takesName ? startsWith(path, whole) && path.find('/', whole.size()) == std::string::npos
                      : path == whole)
            return &route;
    }
    return nullptr;
}

const ConsoleFile* findFile(const std::string& path)
{
    const std::string found = path == "/index.html" ? "/" : path;
    for (const ConsoleFile& file : consoleFiles())
        if (found == file.path)
            return &file;
    return nullptr;
}

std::string nameBehind(const Route& route, const std::string& path)
{
    return path.substr(strlen(route.path));
}

bool needsToken(const std::string& path)
{
    return startsWith(path, "/v1/") || path == "/v1" || path == "/metrics";
}
