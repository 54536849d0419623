#include "openapi.h"

#include <string>

#include "catalogue.h"
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
    return {{"description", description}, {"content", json(schema)}};
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

Json schemaOf(const Parameter& parameter)
{
    Json schema;
    if (parameter.allowed.kind == Allowed::OneOf)
        schema = digits(parameter.allowed);
    else if (parameter.allowed.kind == Allowed::Range)
        schema = number(parameter.allowed);
    else if (parameter.form == Form::Handle)
        schema = text();
    else
        schema = reference("Value");

    std::string description = std::string(parameter.meaning) + " (" + needText(parameter.need) +
                              ", " + formName(parameter.form);
    if (parameter.allowed.kind == Allowed::Size)
        description += ", " + allowedText(parameter.allowed);
    for (const Choice& choice : parameter.choices)
        description += std::string(&choice == parameter.choices.data() ? "; " : ", ") +
                       choice.value + " " + choice.text;
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

// ---- What can go wrong before a request reaches the plug-in.

const struct Failure {
    const char* status;
    const char* text;
} failures[] = {
    {"400", "The request is malformed; the error names the field"},
    {"401", "No token, or a wrong one"},
    {"403", "The Host or Origin header is not allowed"},
    {"408", "The request did not arrive in time"},
    {"410", "The key-exchange session has ended or never was"},
    {"413", "The body or a parameter is too large"},
    {"415", "The body's type is not supported"},
    {"429", "Too many requests; Retry-After says when"},
    {"502", "The worker process died while it served the request"},
    {"503", "Too much is waiting, or the host is about to stop"},
    {"504", "The request took too long, and its worker was replaced"},
};

Json failureResponses()
{
    Json responses = Json::object();
    for (const Failure& failure : failures)
        responses[failure.status] = answerOf(failure.text, reference("Answer"));
    return responses;
}

Json operation(const std::string& id, const std::string& tag, const std::string& summary,
               const Json& body, const Json& answer)
{
    Json responses = {{"200", answer}};
    for (const Failure& failure : failures)
        responses[failure.status] = {
            {"$ref", std::string("#/components/responses/") + failure.status}};
    Json entry = {{"operationId", id}, {"tags", {tag}}, {"summary", summary}};
    if (!body.is_null())
        entry["requestBody"] = body;
    entry["responses"] = responses;
    return entry;
}

Json requestPaths()
{
    Json paths = Json::object();
    for (const RequestInfo& request : catalogue())
        paths[std::string("/v1/requests/") + request.name] = {
            {"post",
             operation(request.name, request.group, request.summary, bodyOf(request),
                       answerOf("The plug-in's answer; `error` says if it or the engine refused",
                                answerSchema(request)))}};
    return paths;
}

Json batchPath()
{
    const Json one = object({{"name", text()}, {"parameters", reference("Parameters")}}, {"name"});
    Json requests = arrayOf(one);
    requests["minItems"] = 1;
    requests["maxItems"] = 256;
    const Json body = {{"required", true},
                       {"content", json(object({{"requests", requests}}, {"requests"}))}};
    const Json answers = object({{"answers", arrayOf(reference("Answer"))}}, {"answers"});
    return {{"post", operation("batch", "Service", "Several requests, answered in their order.",
                               body, answerOf("An answer for each", answers))}};
}

// ---- The bundled other side of a key exchange.

Json texts(const std::vector<const char*>& names)
{
    Json properties = Json::object();
    for (const char* name : names)
        properties[name] = text();
    return properties;
}

Json peerPath(const PeerStep& step)
{
    const Json body = {{"required", !step.members.empty()},
                       {"content", json(object(texts(step.members), step.members))}};
    const Json answer = {
        {"allOf",
         {reference("Answer"),
          object({{"results", {{"type", "object"}, {"properties", texts(step.results)}}}},
                 Json::array())}}};
    std::string id = std::string("peer_") + step.name;
    return {{"post", operation(id, "Key-exchange peer", step.summary, body,
                               answerOf("The peer's answer", answer))}};
}

Json openPath(const char* id, const char* summary, const char* type, const Json& schema)
{
    return {
        {"get",
         {{"operationId", id},
          {"tags", {"Service"}},
          {"summary", summary},
          {"security", Json::array()},
          {"responses",
           {{"200", {{"description", summary}, {"content", {{type, {{"schema", schema}}}}}}},
            {"503", {{"description", "Not now"}, {"content", {{type, {{"schema", schema}}}}}}}}}}}};
}

Json readPath(const char* id, const char* summary, const Json& answer)
{
    return {{"get", operation(id, "Service", summary, nullptr, answer)}};
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

    const Json error = object(
        {{"code", {{"type", "string"}, {"description", "A number, or a word of the host's"}}},
         {"source", {{"type", "string"}, {"enum", {"plug-in", "engine", "host", "peer"}}}},
         {"name", text()},
         {"field", {{"type", {"string", "null"}}}},
         {"text", text()},
         {"cause", text()},
         {"remedy", text()}},
        {"code", "source", "text"});
    Json errorOrNull = {{"anyOf", {reference("Error"), {{"type", "null"}}}}};
    errorOrNull["description"] = "null after success";

    return {
        {"Value", value},
        {"Parameters", {{"type", "object"}, {"additionalProperties", reference("Value")}}},
        {"ResultValue",
         {{"anyOf", {text(), bytes("base64", "^[A-Za-z0-9+/]*={0,2}$")}},
          {"description", "A text, or standard Base64 of bytes that are not UTF-8"}}},
        {"Error", error},
        {"Warning", object({{"field", text()}, {"text", text()}}, {"field", "text"})},
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
    Json paths = requestPaths();
    paths["/v1/batch"] = batchPath();
    paths["/v1/catalogue"] =
        readPath("catalogue", "The requests and codes, as corvane-host list has them.",
                 answerOf("The catalogue", object({{"version", text()},
                                                   {"requests", arrayOf({{"type", "object"}})},
                                                   {"codes", arrayOf({{"type", "object"}})}},
                                                  {"version", "requests", "codes"})));
    paths["/v1/status"] = readPath("status", "Workers, sessions, limits.",
                                   answerOf("The status", {{"type", "object"}}));
    for (const PeerStep& step : peerSteps())
        paths[std::string("/v1/peer/") + step.name] = peerPath(step);
    paths["/livez"] =
        openPath("livez", "Whether the host runs.", "application/json", reference("Health"));
    paths["/readyz"] = openPath("readyz", "Whether a worker gives a known answer.",
                                "application/json", reference("Health"));
    paths["/metrics"] = readPath(
        "metrics", "Counters in Prometheus' text format.",
        {{"description", "The metrics"}, {"content", {{"text/plain", {{"schema", text()}}}}}});

    return {{"openapi", "3.1.0"},
            {"info",
             {{"title", "Corvane reference host"},
              {"version", CORVANE_VERSION},
              {"description", "The plug-in's 27 requests over HTTP, for trying and testing."}}},
            {"servers", {{{"url", "http://127.0.0.1:8720"}}}},
            {"security", {{{"bearer", Json::array()}}}},
            {"paths", paths},
            {"components",
             {{"schemas", schemas()},
              {"responses", failureResponses()},
              {"securitySchemes", {{"bearer", {{"type", "http"}, {"scheme", "bearer"}}}}}}}};
}
