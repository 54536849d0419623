#include "renderings.h"

#include <nlohmann/json.hpp>

#include "common/version.h"
#include "complaints.h"
#include "listings.h"

namespace {

using Json = nlohmann::ordered_json;

// When a parameter with a condition is required, or of use; see Need.
Json condition(Need need)
{
    if (need == Need::UnlessMode1)
        return {{"parameter", "strMode"}, {"isNot", "1"}};
    return {{"parameter", "strMode"}, {"is", "6"}};
}

Json toJson(const IvSizes& iv)
{
    if (iv.kind == IvSizes::Between)
        return {{"min", iv.least}, {"max", iv.most}, {"usual", iv.usual}};
    return iv.kind == IvSizes::None ? "none" : "block";
}

Json toJson(const Choice& choice)
{
    Json row = {{"value", choice.value},
                {"name", choice.names.front()},
                {"text", choice.text},
                {"names", choice.names}};
    if (choice.keyBytes != 0) {
        row["keyBytes"] = choice.keyBytes;
        row["blockBytes"] = choice.blockBytes;
    }
    for (const char* mode = choice.lackedModes; *mode != '\0'; ++mode)
        row["lackedModes"].push_back(std::string(1, *mode));
    if (choice.iv)
        row["iv"] = toJson(*choice.iv);
    if (choice.takesWholeBlocks)
        row["wholeBlocks"] = true;
    return row;
}

Json toJson(const Parameter& parameter)
{
    Json row = {{"name", parameter.name},
                {"form", formName(parameter.form)},
                {"need", needText(parameter.need)},
                {"required", parameter.need == Need::Always}};
    if (parameter.need == Need::UnlessMode1 || parameter.need == Need::InMode6)
        row["requiredWhen"] = condition(parameter.need);
    if (parameter.need == Need::MayInMode6)
        row["usedWhen"] = condition(parameter.need);

    const Allowed& allowed = parameter.allowed;
    if (allowed.kind == Allowed::Range)
        row["range"] = {allowed.low, allowed.high};
    if (allowed.kind == Allowed::Size)
        row["bytes"] = allowed.size;
    if (allowed.kind == Allowed::OneOf)
        for (const char* digit = allowed.digits; *digit != '\0'; ++digit)
            row["oneOf"].push_back(std::string(1, *digit));
    if (allowed.kind == Allowed::CipherKey)
        row["length"] = "key";
    if (allowed.kind == Allowed::ModeIv)
        row["length"] = "iv";
    if (allowed.kind == Allowed::Blocks)
        row["wholeBlocks"] = "always";
    if (allowed.kind == Allowed::BlocksUnlessPadded)
        row["wholeBlocks"] = "unless-padded";
    for (const Choice& choice : parameter.choices)
        row["choices"].push_back(toJson(choice));

    if (*parameter.ifAbsent != '\0')
        row["default"] = parameter.ifAbsent;
    row["secret"] = isSecret(parameter);
    row["meaning"] = parameter.meaning;
    return row;
}

// What a parameter may be, for a table's cell.
std::string valuesCell(const Parameter& parameter)
{
    std::string cell = choicesText(parameter.choices);
    if (cell.empty())
        cell = allowedText(parameter.allowed);
    if (hasDefault(parameter))
        cell += (cell.empty() ? "" : "; ") + std::string("default ") + parameter.ifAbsent;
    return cell;
}

std::string row(std::initializer_list<std::string> cells)
{
    std::string line = "|";
    for (const std::string& cell : cells)
        line += (cell.empty() ? "" : " " + cell) + " |";
    return line + "\n";
}

std::string code(const std::string& text)
{
    return "`" + text + "`";
}

std::string section(const RequestInfo& request)
{
    std::string out = "### " + std::string(request.name) + "\n\n" + request.summary + "\n";
    if (!request.parameters.empty())
        out += "\n| parameter | need | form | values | meaning |\n|---|---|---|---|---|\n";
    for (const Parameter& parameter : request.parameters)
        out += row({code(parameter.name), needText(parameter.need), formName(parameter.form),
                    valuesCell(parameter), parameter.meaning});
    out += "\n| result | form | meaning |\n|---|---|---|\n";
    for (const Result& result : request.results)
        out += row({code(result.name), formName(result.form), result.meaning});
    if (!request.codes.empty())
        out += "\nIts own codes: " + codesText(request.codes) + ".\n";
    return out + "\nSent again: " + code(kindOf(retryOf(request)).name) + ".\n\n";
}

// The text of a kind of warning, with {name} for a value.
std::string textOf(const ComplaintKind& kind)
{
    return std::string("{field} ") + kind.text;
}

std::string codesSection()
{
    std::string out =
        "## Codes\n\n| code | source | text | likely cause | what to do |\n|---|---|---|---|---|\n";
    for (const ErrorCode& code : errorCodes())
        out += row({codeText(code), code.source, code.text, code.cause, code.remedy});
    out +=
        "\n`corvane-host serve` has codes of its own, with the status of HTTP:\n\n"
        "| code | status | text | likely cause | what to do |\n|---|---|---|---|---|\n";
    for (const ErrorCode& own : hostCodes())
        out += row({code(own.name), std::to_string(own.status), own.text, own.cause, own.remedy});
    out +=
        "\nWith such a code comes a `reason`, with `values` for the names in braces:\n\n"
        "| code | reason | text |\n|---|---|---|\n";
    for (const ReasonText& reason : hostReasons())
        out += row({code(reason.code), code(reason.name), reason.text});
    out +=
        "\nWarnings are of these kinds, with `field` and `values` for the names in braces:\n\n"
        "| code | text |\n|---|---|\n";
    for (const ComplaintKind& kind : complaintKinds())
        out += row({code(kind.code), textOf(kind)});
    return out;
}

}  // namespace

Json toJson(const RequestInfo& request)
{
    Json parameters = Json::array();
    for (const Parameter& parameter : request.parameters)
        parameters.push_back(toJson(parameter));

    Json results = Json::array();
    for (const Result& result : request.results)
        results.push_back(
            {{"name", result.name}, {"form", formName(result.form)}, {"meaning", result.meaning}});

    const RetryKind& retry = kindOf(retryOf(request));
    return {{"id", &request - catalogue().data()},
            {"name", request.name},
            {"group", request.group},
            {"summary", request.summary},
            {"keywords", request.keywords},
            {"parameters", parameters},
            {"results", results},
            {"codes", request.codes},
            {"retry", {{"code", retry.name}, {"text", retry.text}}}};
}

Json toJson(const ErrorCode& code)
{
    Json row = {{"code", code.code == 0 ? Json(code.name) : Json(code.code)},
                {"name", code.name},
                {"source", code.source},
                {"text", code.text},
                {"cause", code.cause},
                {"remedy", code.remedy}};
    if (code.status == 0)
        return row;
    row["status"] = code.status;
    row["reasons"] = Json::array();
    for (const ReasonText& reason : hostReasons())
        if (reason.code == std::string(code.name))
            row["reasons"].push_back({{"name", reason.name}, {"text", reason.text}});
    return row;
}

Json catalogueJson()
{
    Json requests = Json::array();
    for (const RequestInfo& request : catalogue())
        requests.push_back(toJson(request));
    Json codes = Json::array();
    for (const ErrorCode& code : errorCodes())
        codes.push_back(toJson(code));
    Json host = Json::array();
    for (const ErrorCode& code : hostCodes())
        host.push_back(toJson(code));
    Json warnings = Json::array();
    for (const ComplaintKind& kind : complaintKinds())
        warnings.push_back({{"code", kind.code}, {"text", textOf(kind)}});
    return {{"version", productVersion()},
            {"requests", requests},
            {"codes", codes},
            {"hostCodes", host},
            {"warnings", warnings}};
}

std::string requestsDocument()
{
    std::string out = R"(# The requests

<!-- Made by `corvane-host list --markdown`; the tests compare. Change the catalogue. -->

A request has a name, text parameters and text results. Forms of values:

| form | bytes |
|---|---|
| text | as they are |
| base64 | URL-safe Base64 with padding; parameters may be in the standard alphabet, and unpadded |
| key-text | Base64 of a key or certificate, of its DER or of its whole PEM text: `b64:@key.pem` on the command line, `{"text": "-----BEGIN ..."}` or a form's file by HTTP make it |
| escaped | percent-escaped twice |
| handle | the decimal text of a key-exchange session; `corvane-host serve` gives a token instead |
| path | a file or folder of the host |

`corvane-host` refuses a plain text for base64 and key-text that is not Base64. A line end
behind it is let pass; line ends within it where the engine decodes: key-text, and `strIn` of
`QZaven_crypto_base64_Decode`. Texts and bytes that are marked as such, it encodes
([values](../devkit/host/README.md#values), [by HTTP](serving.md#values)).

An empty value counts as a missing one. `errorCode` is 0, a code of the plug-in's own, which the
requests below name, or any of the engine's, which is passed on unchanged.

Names behind numbers, as in `4 aes-256`, are the development engine's, and may be given instead of
the numbers; another engine may number otherwise. Names are compared without regard to case and to
the characters `-`, `_`, `.`, `/`, `#` and blanks.

Whether a request may be sent again when its answer was lost:

| sent again | what comes of it |
|---|---|
)";
    for (const RetryKind& kind : retryKinds())
        out += row({code(kind.name), kind.text});
    out += "\n";

    std::string group;
    for (const RequestInfo& request : catalogue()) {
        if (group != request.group) {
            group = request.group;
            out += "## " + group + "\n\n";
        }
        out += section(request);
    }
    return out + codesSection();
}
