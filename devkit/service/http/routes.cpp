#include "routes.h"

#include <cstring>
#include <functional>

#include "host/catalogue/descriptions.h"
#include "host/catalogue/openapi.h"
#include "host/values.h"

namespace {

constexpr Route routes[] = {
    {"/v1/requests/", "/v1/requests/{name}", "POST", Target::Request},
    {"/v1/batch", "/v1/batch", "POST", Target::Batch},
    {"/v1/peer/", "/v1/peer/{step}", "POST", Target::Peer},
    {"/v1/catalogue", "/v1/catalogue", "GET", Target::Document},
    {"/v1/status", "/v1/status", "GET", Target::Status},
    {"/livez", "/livez", "GET", Target::Live},
    {"/readyz", "/readyz", "GET", Target::Ready},
    {"/metrics", "/metrics", "GET", Target::Metrics},
    {"/openapi.json", "/openapi.json", "GET", Target::Document},
};

struct Document {
    Document(const char* path, const nlohmann::ordered_json& json)
        : bytes(write(json, -1)),
          etag("\"" + std::to_string(std::hash<std::string>()(bytes)) + "\""),
          file{path, "application/json", etag.c_str(), bytes}
    {
    }
    Document(const Document&) = delete;
    Document& operator=(const Document&) = delete;

    const std::string bytes;
    const std::string etag;
    const ConsoleFile file;
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

const ConsoleFile* findDocument(const Route& route)
{
    if (route.target != Target::Document)
        return nullptr;
    static const Document documents[] = {{"/v1/catalogue", catalogueJson()},
                                         {"/openapi.json", openApi()}};
    for (const Document& document : documents)
        if (route.path == std::string_view(document.file.path))
            return &document.file;
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
