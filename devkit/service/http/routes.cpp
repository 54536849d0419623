#include "routes.h"

#include <cstring>
#include <functional>
#include <nlohmann/json.hpp>

#include "host/catalogue/openapi.h"
#include "host/catalogue/renderings.h"
#include "host/values.h"

namespace {

struct Document {
    Document(const char* path, const nlohmann::ordered_json& json)
        : bytes(jsonText(json, -1)),
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

}  // namespace

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
