// Bodies of HTTP requests: what is read keeps the limits, is what another reader of JSON
// sees, reads the same when it is written in each of the three forms, and arrives at the
// plug-in as the catalogue says; what is refused is refused in printable words. Input: one
// byte that chooses the type of the body, with 4 a line with the type, then the body.

#include "service/bodies/request_body.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>

#include "common/codec.h"
#include "fuzz.h"
#include "host/catalogue/names.h"
#include "service/bodies/json_tree.h"

namespace {

using Json = nlohmann::ordered_json;

const std::string jsonType = "application/json";
const std::string formType = "application/x-www-form-urlencoded";

constexpr size_t mostFields = 8;
constexpr size_t mostBytes = 64;

BodyLimits limits()
{
    BodyLimits few;
    few.parameters = mostFields;
    few.parameterBytes = mostBytes;
    few.batch = 4;
    return few;
}

void checkFields(const Fields& fields)
{
    HOLDS(fields.size() <= mostFields);
    std::set<std::string> names;
    for (const Field& field : fields) {
        HOLDS(isName(field.name));
        HOLDS(names.insert(field.name).second);
        HOLDS(field.value.size() <= mostBytes);
    }
}

void checkRefusal(const Refusal& refusal)
{
    const std::string text = refusal.what();
    HOLDS(!text.empty() && text.size() < 400);
    HOLDS(isUtf8(text));
    HOLDS(std::none_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x20; }));
    HOLDS(refusal.code().status >= 400 && refusal.code().status < 500);
    // It is JSON, whatever the names were.
    HOLDS(!refusal.json().dump().empty());
}

// ---- The three forms.

std::string hexOf(const std::string& bytes)
{
    std::string text;
    for (const char byte : bytes) {
        text += "0123456789abcdef"[static_cast<unsigned char>(byte) >> 4];
        text += "0123456789abcdef"[static_cast<unsigned char>(byte) & 15];
    }
    return text;
}

std::string asJson(const Fields& fields)
{
    Json object = Json::object();
    for (const Field& field : fields) {
        if (isUtf8(field.value) && field.given != Given::Bytes)
            object[field.name] = field.value;
        else
            object[field.name] = {{"hex", hexOf(field.value)}};
    }
    return object.dump();
}

std::string asForm(const Fields& fields)
{
    std::string body;
    const auto add = [&](const std::string& text) {
        const std::string digits = hexOf(text);
        for (size_t i = 0; i < digits.size(); i += 2)
            body += "%" + digits.substr(i, 2);
    };
    for (const Field& field : fields) {
        add(field.name);
        body += '=';
        add(field.value);
        body += '&';
    }
    return body;
}

std::string asMultipart(const Fields& fields, const std::string& boundary)
{
    std::string body;
    for (const Field& field : fields) {
        body += "--" + boundary + "\r\nContent-Disposition: form-data; name=\"";
        for (const char c : field.name)
            body += c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
        body += field.given == Given::Bytes ? "\"; filename=f\r\n\r\n" : "\"\r\n\r\n";
        body += field.value + "\r\n";
    }
    return fields.empty() ? "" : body + "--" + boundary + "--";
}

void checkSame(const Fields& fields, const std::string& type, const std::string& body)
{
    const Fields again = readBody(type, body, limits());
    HOLDS(again.size() == fields.size());
    for (size_t i = 0; i < fields.size(); ++i) {
        HOLDS(again[i].name == fields[i].name);
        HOLDS(again[i].value == fields[i].value);
    }
}

void checkForms(const Fields& fields)
{
    checkSame(fields, jsonType, asJson(fields));
    checkSame(fields, formType, asForm(fields));
    std::string boundary = "B";
    const auto isInside = [&](const Field& field) {
        return field.value.find("--" + boundary) != std::string::npos;
    };
    while (std::any_of(fields.begin(), fields.end(), isInside))
        boundary += "B";
    checkSame(fields, "multipart/form-data; boundary=" + boundary, asMultipart(fields, boundary));
}

// ---- Another reader.

void checkJson(const std::string& body, const Fields& fields)
{
    if (body.empty())
        return;
    const Json whole = Json::parse(body, nullptr, false);
    HOLDS(whole.is_object() && whole.size() == fields.size());
    for (const Field& field : fields) {
        const Json& value = whole[field.name];
        if (value.is_number())
            HOLDS(value.dump() == field.value);
        else if (value.is_string())
            HOLDS(value == field.value && field.given == Given::Plain);
        else if (value.contains("text"))
            HOLDS(value["text"] == field.value && field.given == Given::Text);
        else if (value.contains("raw"))
            HOLDS(value["raw"] == field.value && field.given == Given::Raw);
        else
            HOLDS((value.contains("hex")
                       ? fromHex(value["hex"].get<std::string>())
                       : fromBase64(value["base64"].get<std::string>())) == field.value &&
                  field.given == Given::Bytes);
    }
}

// ---- At the plug-in.

void checkPrepared(const Fields& given)
{
    for (const RequestInfo& request : catalogue()) {
        Fields fields = given;
        try {
            const Prepared prepared = prepare(request, fields);
            HOLDS(prepared.parameters.size() == given.size());
            for (size_t i = 0; i < given.size(); ++i) {
                const auto& [name, value] = prepared.parameters[i];
                HOLDS(name == given[i].name);
                const std::string* number =
                    numberNamed(&request, name, given[i].given, given[i].value);
                if (value == (number != nullptr ? *number : given[i].value))
                    continue;
                HOLDS(given[i].given == Given::Bytes || given[i].given == Given::Text);
                if (name == rootFileParameter)
                    HOLDS(prepared.upload == given[i].value);
                else
                    HOLDS(fromBase64(value) == given[i].value);
            }
        } catch (const Refusal& refusal) {
            const std::string code = refusal.code().name;
            const auto isPlain = [](const Field& field) { return field.given == Given::Plain; };
            HOLDS(code == "wrong_type" ||
                  (code == "bad_encoding" && std::any_of(given.begin(), given.end(), isPlain)));
        }
    }
}

void checkBody(const std::string& type, const std::string& body)
{
    try {
        const Fields fields = readBody(type, body, limits());
        checkFields(fields);
        checkForms(fields);
        checkPrepared(fields);
        if (type == jsonType)
            checkJson(body, fields);
    } catch (const Refusal& refusal) {
        checkRefusal(refusal);
    }
}

void checkBatch(const std::string& body)
{
    try {
        const auto parts = readBatch(jsonType, body, limits());
        HOLDS(!parts.empty() && parts.size() <= limits().batch);
        const Json whole = Json::parse(body);
        HOLDS(whole["requests"].size() == parts.size());
        for (size_t i = 0; i < parts.size(); ++i) {
            HOLDS(whole["requests"][i]["name"] == parts[i].name);
            checkFields(parts[i].fields);
            checkJson(whole["requests"][i].value("parameters", Json::object()).dump(),
                      parts[i].fields);
        }
    } catch (const Refusal& refusal) {
        checkRefusal(refusal);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    switch (input.pick(5)) {
        case 0:
            checkBody(jsonType, input.rest());
            break;
        case 1:
            checkBody(formType, input.rest());
            break;
        case 2:
            checkBody("multipart/form-data; boundary=B", input.rest());
            break;
        case 3:
            checkBatch(input.rest());
            break;
        default: {
            const std::string type = input.line();
            checkBody(type, input.rest());
        }
    }
    return 0;
}
