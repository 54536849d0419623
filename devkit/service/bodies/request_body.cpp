#include "request_body.h"

#include <algorithm>

#include "common/codec.h"
#include "common/text.h"
#include "content_type.h"
#include "form_body.h"
#include "host/catalogue/names.h"
#include "json_tree.h"

namespace {

constexpr const char* jsonType = "application/json";

// Without its parameters.
std::string_view mediaType(const std::string& contentType)
{
    return trimmed(std::string_view(contentType).substr(0, contentType.find(';')));
}

bool isJson(const std::string& contentType)
{
    if (!equalIgnoringCase(mediaType(contentType), jsonType))
        return false;
    const auto charset = headerParameter(contentType, "charset");
    if (charset && !equalIgnoringCase(*charset, "utf-8"))
        throw Refusal(Reason::json_charset, "Content-Type");
    return true;
}

// Tools that send what they are given name it a form if nobody says otherwise. A form does not
// look so: the name of its first field would begin with the brace.
bool looksLikeJson(std::string_view body)
{
    constexpr std::string_view blanks = " \t\r\n";
    const size_t first = body.find_first_not_of(blanks);
    return first != body.npos && body[first] == '{' && body[body.find_last_not_of(blanks)] == '}';
}

// {"text"}, {"base64"}, {"hex"} or {"raw"} with a string.
Field readObject(const JsonNode& node, const std::string& where)
{
    if (node.members.size() != 1 || node.members[0].second.kind != JsonNode::Text)
        throw Refusal(Reason::not_a_value_object, where);
    const auto& [form, value] = node.members[0];
    Field field;
    if (form == "text" || form == "raw") {
        field.given = form == "raw" ? Given::Raw : Given::Text;
        field.value = SecretText(value.text);
        return field;
    }
    field.given = Given::Bytes;
    const bool isBase64 = form == "base64";
    if (!isBase64 && form != "hex")
        throw Refusal(Reason::not_a_value_object, where);
    auto bytes = isBase64 ? fromBase64(value.text) : fromHex(value.text);
    if (!bytes)
        throw Refusal(isBase64 ? Reason::bad_base64 : Reason::bad_hex, where);
    field.value = *std::move(bytes);
    return field;
}

Fields readParameters(const JsonNode& object, const std::string& where)
{
    if (object.kind != JsonNode::Object)
        throw Refusal(Reason::not_parameters, where);
    Fields fields;
    fields.reserve(object.members.size());
    for (const auto& [name, node] : object.members) {
        const std::string place = memberOf(where, name);
        Field field;
        if (node.kind == JsonNode::Object)
            field = readObject(node, place);
        else if (node.kind == JsonNode::Text || node.kind == JsonNode::Integer)
            field.value = SecretText(node.text);
        else
            throw Refusal(Reason::not_a_value, place);
        field.name = SecretText(name);
        field.where = place;
        fields.push_back(std::move(field));
    }
    return fields;
}

void checkSizes(const Fields& fields, const BodyLimits& limits)
{
    for (const Field& field : fields)
        if (field.value.size() > limits.parameterBytes)
            throw Refusal(Reason::value_too_large, field.where,
                          {{"name", field.name}, {"most", std::to_string(limits.parameterBytes)}});
}

Fields readFields(const std::string& contentType, SecretText& body, const BodyLimits& limits)
{
    if (isJson(contentType)) {
        const JsonNode root = readJsonTree(body, {2, limits.parameters, 0});
        return readParameters(root, "");
    }
    const std::string_view type = mediaType(contentType);
    if (equalIgnoringCase(type, "application/x-www-form-urlencoded")) {
        if (looksLikeJson(body))
            throw Refusal(Reason::json_as_form, "Content-Type");
        return readUrlEncoded(body, limits.parameters);
    }
    if (equalIgnoringCase(type, "multipart/form-data"))
        return readMultipart(body, headerParameter(contentType, "boundary").value_or(""),
                             limits.parameters);
    throw Refusal(Reason::unknown_body, "Content-Type");
}

}  // namespace

Fields readBody(const std::string& contentType, SecretText body, const BodyLimits& limits)
{
    if (body.empty())
        return {};
    Fields fields = readFields(contentType, body, limits);
    checkSizes(fields, limits);
    return fields;
}

std::vector<BatchPart> readBatch(const std::string& contentType, SecretText body,
                                 const BodyLimits& limits)
{
    if (!isJson(contentType))
        throw Refusal(Reason::batch_not_json, "Content-Type");
    const JsonNode root = readJsonTree(body, {5, limits.parameters, limits.batch});
    const JsonNode* requests = root.kind == JsonNode::Object ? root.find("requests") : nullptr;
    if (requests == nullptr || requests->kind != JsonNode::Array || root.members.size() != 1)
        throw Refusal(Reason::not_a_batch, "requests");
    if (requests->members.empty())
        throw Refusal(Reason::empty_batch, "requests");

    std::vector<BatchPart> parts;
    for (const auto& member : requests->members) {
        const JsonNode& node = member.second;
        BatchPart part;
        part.where = itemOf("requests", parts.size());
        const JsonNode* name = node.kind == JsonNode::Object ? node.find("name") : nullptr;
        if (name == nullptr || name->kind != JsonNode::Text)
            throw Refusal(Reason::no_request_name, part.where + ".name");
        part.name = std::string(name->text);
        const JsonNode* parameters = node.find("parameters");
        if (node.members.size() > (parameters == nullptr ? 1U : 2U))
            throw Refusal(Reason::more_in_batch, part.where);
        if (parameters != nullptr)
            part.fields = readParameters(*parameters, part.where + ".parameters");
        checkSizes(part.fields, limits);
        parts.push_back(std::move(part));
    }
    return parts;
}

Prepared prepare(const RequestInfo& request, Fields& fields)
{
    Prepared prepared;
    prepared.parameters.reserve(fields.size());  // growing would leave copies behind
    for (Field& field : fields) {
        if (const std::string* number = numberNamed(&request, field.name, field.given, field.value))
            field.value = SecretText(*number);
        else if (const auto lack = noNumber(&request, field.name, field.given, field.value))
            throw lack->nearest.empty()
                ? Refusal(Reason::text_for_number, field.where,
                          {{"name", field.name}, {"allowed", lack->allowed}})
                : Refusal(Reason::name_for_number, field.where,
                          {{"name", field.name}, {"nearest", lack->nearest}});
        const Form form = formOf(&request, field.name);
        const bool isPlace = form == Form::Handle || form == Form::Path;
        const bool isBytes = field.given == Given::Bytes;
        if (isBytes && form == Form::Path && field.name == rootFileParameter) {
            prepared.upload = std::move(field.value);
            field.value = "upload";
        } else if (isBytes && isPlace) {
            throw Refusal(Reason::bytes_for_text, field.where, {{"name", field.name}});
        } else if (isMisencoded(form, field.given, field.value)) {
            throw Refusal(field.inForm ? Reason::form_for_base64 : Reason::text_for_base64,
                          field.where, {{"name", field.name}});
        } else if (isEncoded(form, field.given)) {
            field.value = toUrlBase64(field.value);
        }
        prepared.parameters.emplace_back(std::move(field.name), std::move(field.value));
    }
    fields.clear();
    return prepared;
}
