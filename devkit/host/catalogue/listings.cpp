// What a terminal shows of the catalogue.
#include <algorithm>

#include "names.h"
#include "renderings.h"

namespace {

std::string pad(std::string text, size_t width)
{
    text.resize(std::max(text.size(), width), ' ');
    return text;
}

// "required, 1 to 7, text" and the like.
std::string traits(const Parameter& parameter)
{
    std::string line = needText(parameter.need);
    const std::string values = allowedText(parameter.allowed);
    if (!values.empty())
        line += ", " + values;
    if (*parameter.ifAbsent != '\0')
        line += ", default " + std::string(parameter.ifAbsent);
    return line + ", " + formName(parameter.form);
}

}  // namespace

std::string choicesText(const Choices& choices)
{
    std::string line;
    for (const Choice& choice : choices) {
        line += (line.empty() ? "" : ", ") + choice.value + " " + choice.names.front();
        if (choice.keyBytes != 0)
            line += " (" + std::to_string(choice.keyBytes) + "-byte key)";
    }
    return line;
}

std::string codesText(const std::vector<int>& codes)
{
    std::string line;
    for (const int code : codes)
        line += (line.empty() ? "" : ", ") + std::to_string(code);
    return line;
}

std::string describe(const RequestInfo& request)
{
    const auto more = [](const std::string& text) { return std::string(20, ' ') + text + "\n"; };
    std::string out = std::string(request.name) + "\n  " + request.summary + "\n";
    if (request.parameters.empty())
        out += "  takes no parameters\n";
    for (const Parameter& parameter : request.parameters) {
        out += "  " + pad(parameter.name, 18) + traits(parameter) + "\n";
        out += more(parameter.meaning);
        if (!parameter.choices.empty())
            out += more("numbers: " + choicesText(parameter.choices));
    }
    out += "  results\n";
    for (const Result& result : request.results)
        out += "  " + pad(result.name, 18) + formName(result.form) + ": " + result.meaning + "\n";
    if (!request.codes.empty())
        out += "  its own codes\n    " + codesText(request.codes) +
               "; `corvane-host explain CODE` says more\n";
    const RetryKind& retry = kindOf(retryOf(request));
    return out + "  if its answer is lost\n    " + retry.name + ": " + retry.text + "\n";
}

std::string listRequests(const std::vector<std::string>& words)
{
    std::string out;
    std::string group;
    for (const RequestInfo& request : catalogue()) {
        if (!isAbout(request, words))
            continue;
        if (group != request.group) {
            group = request.group;
            out += (out.empty() ? "" : "\n") + group + "\n";
        }
        out += "  " + std::string(request.name) + "\n";
        for (const Parameter& parameter : request.parameters)
            out += "      " + pad(parameter.name, 18) + traits(parameter) + "\n";
    }
    return out;
}

std::string explain(const ErrorCode& code)
{
    std::string head = codeText(code);
    if (code.code == 0)
        head += " (host, HTTP status " + std::to_string(code.status) + ")";
    else
        head += std::string(" ") + code.name + " (" +
                (code.source == std::string("engine") ? "development engine" : code.source) + ")";
    return head + "\n  " + code.text + "\n  likely cause  " + code.cause + "\n  what to do    " +
           code.remedy + "\n";
}

std::string listErrorCodes()
{
    std::string out;
    for (const ErrorCode& row : errorCodes())
        out += pad(codeText(row), 8) + row.text + "\n";
    for (const ErrorCode& row : hostCodes())
        out += pad(codeText(row), 20) + row.text + "\n";
    return out;
}
