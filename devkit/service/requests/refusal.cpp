#include "refusal.h"

// clang-format off
const std::vector<HostCode>& hostCodes()
{
    static const std::vector<HostCode> codes = {
        {"malformed",           400, "the request is not of its form",                          "see docs/serving.md and /openapi.json"},
        {"wrong_type",          400, "a value has a type that the parameter does not take",     "send a string, an integer, or {\"text\"}, {\"base64\"}, {\"hex\"} or {\"raw\"} with a string"},
        {"bad_encoding",        400, "text is not in the encoding that it claims or that is due", "send UTF-8 in JSON, whole Base64, hex and percent-escapes, and {\"text\"} or {\"raw\"} for what is no Base64"},
        {"duplicate_parameter", 400, "a name is given twice",                                   "give each name once"},
        {"too_many_parameters", 400, "there are more parameters or requests than are taken",    "see the limits in /v1/status"},
        {"bad_path",            400, "the name does not lead to a file below the host's folder", "name a file below the folder that the host was started with, or upload the file"},
        {"unauthorized",        401, "the token is missing or wrong",                           "send \"Authorization: Bearer TOKEN\" with the token from the host's token file"},
        {"forbidden_host",      403, "the Host header names a host that is not allowed",        "use the address that the host prints, or start it with --allow-host"},
        {"forbidden_origin",    403, "the request comes from a page of another origin",         "use the host's own console, or start it with --allow-origin"},
        {"not_found",           404, "there is nothing at this path",                           "see /openapi.json for the paths"},
        {"unknown_request",     404, "no request has this name",                                "see /v1/catalogue for the names"},
        {"method_not_allowed",  405, "the path does not take this method",                      "use a method of the Allow header"},
        {"timeout",             408, "the request did not arrive whole in time",                "send it faster, or start the host with a longer --read-seconds"},
        {"session_gone",        410, "the key-exchange session has ended or never was",         "begin a new one with QZaven_ke_new"},
        {"too_large",           413, "the body is larger than the host takes",                  "send less, or start the host with a larger --body-bytes"},
        {"parameter_too_large", 413, "a parameter is larger than the host takes",               "send less, or start the host with a larger --parameter-bytes"},
        {"unsupported_type",    415, "the body is of a type that the host does not read",       "send application/json, application/x-www-form-urlencoded or multipart/form-data"},
        {"too_many_requests",   429, "this address sends more than its share",                  "wait as Retry-After says"},
        {"headers_too_large",   431, "the headers are larger or more than the host takes",      "send fewer or shorter headers"},
        {"worker_failed",       502, "the process that served the request ended in it",         "try again; the host's log and the engine's may tell why"},
        {"busy",                503, "the host has as much to do as it takes",                  "wait as Retry-After says"},
        {"draining",            503, "the host is stopping",                                    "try again later"},
        {"worker_timeout",      504, "the request took longer than the host allows",            "send less, or start the host with a longer --request-seconds"},
    };
    return codes;
}
// clang-format on

const HostCode& hostCode(const std::string& name)
{
    for (const HostCode& code : hostCodes())
        if (code.name == name)
            return code;
    return hostCodes().front();
}

Refusal::Refusal(const char* code, std::string field, std::string text)
    : code_(hostCode(code)), field_(std::move(field)), text_(std::move(text))
{
}

nlohmann::ordered_json Refusal::json() const
{
    using Json = nlohmann::ordered_json;
    const Json field = field_.empty() ? Json() : Json(field_);
    return {{"results", Json::object()},
            {"error",
             {{"code", code_.name},
              {"source", "host"},
              {"field", field},
              {"text", text_},
              {"cause", code_.cause},
              {"remedy", code_.remedy}}},
            {"warnings", Json::array()}};
}
