#include "openapi.h"

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <set>
#include <string>

#include "common/version.h"
#include "complaints.h"
#include "http_routes.h"
#include "listings.h"
#include "peer_steps.h"

namespace {

using Json = nlohmann::ordered_json;

Json reference(const std::string& schema)
{
    return {{"$ref", "#/components/schemas/" + schema}};
}

Json object(const Json& properties, const Json& required)
{
    return {{"type", "object"}, {"properties", properties}, {"required", required}};
}

Json arrayOf(const Json& items)
{
    return {{"type", "array"}, {"items", items}};
}

Json text()
{
    return {{"type", "string"}};
}

Json integer()
{
    return {{"type", "integer"}};
}

Json json(const Json& schema)
{
    return {{"application/json", {{"schema", schema}}}};
}

Json answerOf(const std::string& description, const Json& schema)
{
    return {{"description", description},
            {"headers", {{"X-Corvane-Node", {{"$ref", "#/components/headers/Node"}}}}},
            {"content", json(schema)}};
}

// ---- Several hosts behind a balancer.

Json nodeHeader()
{
    return {{"description", "The name of the host that answers, if it has one"},
            {"schema", {{"type", "string"}, {"pattern", "^[a-z0-9]([a-z0-9-]{0,61}[a-z0-9])?$"}}}};
}

// The headers of requests by which balancers choose.
Json headerParameters()
{
    const auto header = [](const char* name, const char* description, const Json& schema) {
        return Json{
            {"name", name}, {"in", "header"}, {"description", description}, {"schema", schema}};
    };
    return {{"Node",
             header("X-Corvane-Node", "The node that the request is for", nodeHeader()["schema"])},
            {"Session",
             header("X-Corvane-Session",
                    "The token of the session that the request belongs to, as in strKe", text())}};
}

bool hasNode(const Route& route)
{
    return std::count(route.refusals.begin(), route.refusals.end(), std::string("wrong_node")) > 0;
}

// ---- Requests.

// Digits may be sent as texts or as integers.
Json digits(const Allowed& allowed)
{
    Json texts = Json::array();
    Json numbers = Json::array();
    for (const char* digit = allowed.digits; *digit != '\0'; ++digit) {
        texts.push_back(std::string(1, *digit));
        numbers.push_back(*digit - '0');
    }
    return {{"anyOf",
             {{{"type", "string"}, {"enum", texts}}, {{"type", "integer"}, {"enum", numbers}}}}};
}

Json number(const Allowed& allowed)
{
    return {{"anyOf",
             {{{"type", "integer"}, {"minimum", allowed.low}, {"maximum", allowed.high}},
              {{"type", "string"}, {"pattern", "^[0-9]+$"}}}}};
}

Json plainNumber(const Allowed& allowed)
{
    return allowed.kind == Allowed::OneOf ? digits(allowed) : number(allowed);
}

// Whether each number has a name: a file of names may have some alone.
bool areAllNamed(const Parameter& parameter)
{
    const Allowed& allowed = parameter.allowed;
    const size_t count = allowed.kind == Allowed::OneOf
                             ? strlen(allowed.digits)
                             : static_cast<size_t>(allowed.high - allowed.low) + 1;
    return parameter.choices.size() == count;
}

// A number as one or as a text, or its name.
Json named(const Parameter& parameter)
{
    Json texts = Json::array();
    Json numbers = Json::array();
    for (const Choice& choice : parameter.choices) {
        numbers.push_back(std::stoi(choice.value));
        texts.push_back(choice.value);
        for (const std::string& name : choice.names)
            texts.push_back(name);
    }
    Json any = {{{"type", "string"}, {"enum", texts}}, {{"type", "integer"}, {"enum", numbers}}};
    if (!areAllNamed(parameter)) {
        const Json plain = plainNumber(parameter.allowed);
        any.insert(any.end(), plain["anyOf"].begin(), plain["anyOf"].end());
    }
    return {{"anyOf", any}};
}

Json schemaOf(const Parameter& parameter)
{
    Json schema;
    if (!parameter.choices.empty())
        schema = named(parameter);
    else if (parameter.allowed.kind == Allowed::OneOf || parameter.allowed.kind == Allowed::Range)
        schema = plainNumber(parameter.allowed);
    else if (parameter.form == Form::Handle)
        schema = text();
    else
        schema = reference("Value");

    std::string description = std::string(parameter.meaning) + " (" + needText(parameter.need) +
                              ", " + formName(parameter.form);
    if (parameter.allowed.kind == Allowed::Size)
        description += ", " + allowedText(parameter.allowed);
    if (!parameter.choices.empty())
        description += "; " + choicesText(parameter.choices);
    schema["description"] = description + ")";
    if (*parameter.ifAbsent != '\0')
        schema["default"] = parameter.ifAbsent;
    return schema;
}

Json bodyOf(const RequestInfo& request)
{
    Json properties = Json::object();
    Json required = Json::array();
    for (const Parameter& parameter : request.parameters) {
        properties[parameter.name] = schemaOf(parameter);
        if (parameter.need == Need::Always)
            required.push_back(parameter.name);
    }
    const Json schema = object(properties, required);
    Json content = json(schema);
    for (const char* type : {"application/x-www-form-urlencoded", "multipart/form-data"})
        content[type] = {{"schema", {{"type", "object"}}}};
    return {{"required", !required.empty()}, {"content", content}};
}

Json answerSchema(const RequestInfo& request)
{
    Json properties = Json::object();
    for (const Result& result : request.results) {
        properties[result.name] = reference("ResultValue");
        properties[result.name]["description"] =
            std::string(result.meaning) + " (" + formName(result.form) + ")";
    }
    return {{"allOf",
             {reference("Answer"),
              {{"type", "object"},
               {"properties", {{"results", {{"type", "object"}, {"properties", properties}}}}}}}}};
}

// ---- What can come of a request.

// The host's codes of a status with their meanings.
std::string refusalText(unsigned status)
{
    std::string text;
    for (const ErrorCode& code : hostCodes())
        if (code.status == status)
            text += std::string(text.empty() ? "" : "; ") + code.name + ": " + code.text;
    return text;
}

// The responses that operations refer to, by status.
Json commonResponses()
{
    Json responses = {{"304", {{"description", "It is what If-None-Match names"}}}};
    for (const unsigned status : libraryStatuses())
        responses[std::to_string(status)] = {
            {"description", "No request that the HTTP library takes"}};
    for (const ErrorCode& code : hostCodes())
        responses[std::to_string(code.status)] =
            answerOf(refusalText(code.status), reference("Answer"));
    return responses;
}

struct Operation {
    std::string id;
    std::string tag;
    std::string summary;
    Json body;  // null: takes none
    Json answer;
    bool hasSession = false;
};

// The item of a path: its one method with all statuses that can come of it.
Json pathItem(const Route& route, const std::set<unsigned>& statuses, const Operation& operation,
              Retry retry)
{
    Json responses = Json::object();
    for (const unsigned status : statuses) {
        const std::string name = std::to_string(status);
        responses[name] = {{"$ref", "#/components/responses/" + name}};
    }
    responses["200"] = operation.answer;
    Json entry = {
        {"operationId", operation.id}, {"tags", {operation.tag}}, {"summary", operation.summary}};
    entry["x-corvane-retry"] = kindOf(retry).name;
    if (!needsToken(route.path))
        entry["security"] = Json::array();
    for (const auto& [isThere, name] :
         {std::pair(hasNode(route), "Node"), {operation.hasSession, "Session"}})
        if (isThere)
            entry["parameters"].push_back(
                {{"$ref", std::string("#/components/parameters/") + name}});
    if (!operation.body.is_null())
        entry["requestBody"] = operation.body;
    entry["responses"] = responses;
    const bool isPost = route.method == std::string("POST");
    return {{isPost ? "post" : "get", entry}};
}

Json requestPath(const Route& route, const RequestInfo& request)
{
    return pathItem(route, statusesOf(route, request),
                    {request.name, request.group, request.summary, bodyOf(request),
                     answerOf("The plug-in's answer; `error` says if it or the engine refused",
                              answerSchema(request)),
                     takesSession(request)},
                    retryOf(request));
}

Json batchPath(const Route& route)
{
    const Json one = object({{"name", text()}, {"parameters", reference("Parameters")}}, {"name"});
    Json requests = arrayOf(one);
    requests["minItems"] = 1;
    requests["maxItems"] = mostBatchRequests;
    const Json body = {{"required", true},
                       {"content", json(object({{"requests", requests}}, {"requests"}))}};
    const Json answers = object({{"answers", arrayOf(reference("Answer"))}}, {"answers"});
    return pathItem(route, statusesOf(route),
                    {"batch", "Service", "Several requests, answered in their order.", body,
                     answerOf("An answer for each", answers), true},
                    Retry::No);
}

// ---- The bundled other side of a key exchange.

Json texts(const std::vector<const char*>& names)
{
    Json properties = Json::object();
    for (const char* name : names)
        properties[name] = text();
    return properties;
}

Json peerPath(const Route& route, const PeerStep& step)
{
    const Json body = {{"required", !step.members.empty()},
                       {"content", json(object(texts(step.members), step.members))}};
    const Json answer = {
        {"allOf",
         {reference("Answer"),
          object({{"results", {{"type", "object"}, {"properties", texts(step.results)}}}},
                 Json::array())}}};
    return pathItem(route, statusesOf(route),
                    {std::string("peer_") + step.name, "Key-exchange peer", step.summary, body,
                     answerOf("The peer's answer", answer), true},
                    Retry::No);
}

// ---- What is read.

Json catalogueSchema()
{
    const Json rows = arrayOf({{"type", "object"}});
    return object({{"version", text()},
                   {"requests", rows},
                   {"codes", rows},
                   {"hostCodes", rows},
                   {"warnings", rows}},
                  {"version", "requests", "codes", "hostCodes", "warnings"});
}

// {id, summary, answer}; the path's own name is the ID.
Operation reading(const Route& route)
{
    const auto read = [](const char* id, const char* summary, const Json& answer) {
        return Operation{id, "Service", summary, nullptr, answer, false};
    };
    const Json any = {{"type", "object"}};
    switch (route.target) {
        case Target::Status:
            return read("status", "Workers, sessions, limits.", answerOf("The status", any));
        case Target::Live:
            return read("livez", "Whether the host runs.",
                        answerOf("It does", reference("Health")));
        case Target::Ready:
            return read("readyz", "Whether a worker gives a known answer.",
                        answerOf("It does", reference("Health")));
        case Target::Metrics:
            return read("metrics", "Counters in Prometheus' text format.",
                        {{"description", "The metrics"},
                         {"content", {{"text/plain", {{"schema", text()}}}}}});
        default:
            break;
    }
    if (route.path == std::string("/openapi.json"))
        return read("openapi", "This document.", answerOf("The document", any));
    return read("catalogue", "The requests and codes, as corvane-host list has them.",
                answerOf("The catalogue", catalogueSchema()));
}

Json readPath(const Route& route)
{
    Json item = pathItem(route, statusesOf(route), reading(route), Retry::Safe);
    if (route.target == Target::Ready)
        item["get"]["responses"]["503"] = answerOf("It does not", reference("Health"));
    return item;
}

Json paths()
{
    Json all = Json::object();
    for (const Route& route : httpRoutes()) {
        if (route.target == Target::Request)
            for (const RequestInfo& request : catalogue())
                all[std::string(route.path) + request.name] = requestPath(route, request);
        else if (route.target == Target::Peer)
            for (const PeerStep& step : peerSteps())
                all[std::string(route.path) + step.name] = peerPath(route, step);
        else
            all[route.path] = route.target == Target::Batch ? batchPath(route) : readPath(route);
    }
    return all;
}

// ---- Schemas.

Json schemas()
{
    const auto bytes = [](const char* member, const char* pattern) {
        Json schema = object({{member, {{"type", "string"}}}}, {member});
        schema["properties"][member]["pattern"] = pattern;
        schema["additionalProperties"] = false;
        return schema;
    };
    const Json value = {
        {"description",
         "A string is sent as it is, and must be Base64 for parameters of the forms base64 and "
         "key-text; bytes and the bytes of a text are encoded for those. A raw string is sent as "
         "it is to any."},
        {"anyOf",
         {text(), integer(), bytes("text", ""), bytes("base64", "^[A-Za-z0-9+/_-]*={0,2}$"),
          bytes("hex", "^([0-9A-Fa-f]{2})*$"), bytes("raw", "")}}};

    Json reasons = Json::array();
    for (const ReasonText& reason : hostReasons())
        reasons.push_back(reason.name);
    const Json error = object(
        {{"code", {{"type", "string"}, {"description", "A number, or a word of the host's"}}},
         {"source", {{"type", "string"}, {"enum", {"plug-in", "engine", "host", "peer"}}}},
         {"name", text()},
         {"field", {{"type", {"string", "null"}}}},
         {"text", text()},
         {"cause", text()},
         {"remedy", text()},
         {"reason", {{"type", "string"}, {"enum", reasons}}},
         {"values", {{"type", "object"}, {"additionalProperties", text()}}}},
        {"code", "source", "text"});
    Json complaints = Json::array();
    for (const ComplaintKind& kind : complaintKinds())
        complaints.push_back(kind.code);
    Json errorOrNull = {{"anyOf", {reference("Error"), {{"type", "null"}}}}};
    errorOrNull["description"] = "null after success";

    return {
        {"Value", value},
        {"Parameters", {{"type", "object"}, {"additionalProperties", reference("Value")}}},
        {"ResultValue",
         {{"anyOf", {text(), bytes("base64", "^[A-Za-z0-9+/]*={0,2}$")}},
          {"description", "A text, or standard Base64 of bytes that are not UTF-8"}}},
        {"Error", error},
        {"Warning", object({{"field", text()},
                            {"text", text()},
                            {"code", {{"type", "string"}, {"enum", complaints}}},
                            {"values", {{"type", "object"}, {"additionalProperties", text()}}}},
                           {"field", "text", "code", "values"})},
        {"Answer", object({{"results", {{"type", "object"}}},
                           {"error", errorOrNull},
                           {"warnings", arrayOf(reference("Warning"))},
                           {"microseconds", {{"type", "number"}}}},
                          {"results", "error", "warnings"})},
        {"Health", object({{"status", text()}}, {"status"})},
    };
}

}  // namespace

Json openApi()
{
    const std::string description =
        "The plug-in's " + std::to_string(catalogue().size()) +
        " requests over HTTP, for trying and testing. GET stands for HEAD too. The HTTP library "
        "may answer 400, 413 and 431 by itself, then with a line of HTML.";
    return {{"openapi", "3.1.0"},
            {"info",
             {{"title", "Corvane reference host"},
              {"version", productVersion()},
              {"description", description}}},
            {"servers", {{{"url", "http://127.0.0.1:8720"}}}},
            {"security", {{{"bearer", Json::array()}}}},
            {"paths", paths()},
            {"components",
             {{"schemas", schemas()},
              {"responses", commonResponses()},
              {"parameters", headerParameters()},
              {"headers", {{"Node", nodeHeader()}}},
              {"securitySchemes", {{"bearer", {{"type", "http"}, {"scheme", "bearer"}}}}}}}};
}
