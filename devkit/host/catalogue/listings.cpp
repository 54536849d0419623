#include "listings.h"

#include <algorithm>
#include <cstring>

#include "names.h"

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
    if (hasDefault(parameter))
        line += ", default " + std::string(parameter.ifAbsent);
    return line + ", " + formName(parameter.form);
}

}  // namespace

bool hasDefault(const Parameter& parameter)
{
    return *parameter.ifAbsent != '\0' &&
           (parameter.allowed.kind != Allowed::OneOf ||
            strstr(parameter.allowed.digits, parameter.ifAbsent) != nullptr);
}

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

std::string describe(const RequestInfo& request, const Style& style)
{
    constexpr size_t column = 20;
    std::string out = style.heading(request.name) + "\n" + labelled("", 2, request.summary);
    if (request.parameters.empty())
        out += "  takes no parameters\n";
    for (const Parameter& parameter : request.parameters) {
        out += labelled("  " + std::string(parameter.name), column, traits(parameter));
        out += labelled("", column, parameter.meaning);
        if (!parameter.choices.empty())
            out += labelled("", column, "numbers: " + choicesText(parameter.choices));
    }
    out += "  " + style.heading("results") + "\n";
    for (const Result& result : request.results)
        out += labelled("  " + std::string(result.name), column,
                        std::string(formName(result.form)) + ": " + result.meaning);
    if (!request.codes.empty())
        out += "  " + style.heading("codes") + "\n" +
               labelled("", 4,
                        codesText(request.codes) +
                            " of the plug-in, and those of the engine; "
                            "`corvane-host explain CODE` says more");
    const RetryKind& retry = kindOf(retryOf(request));
    return out + "  " + style.heading("if its answer is lost") + "\n" +
           labelled("", 4, std::string(retry.name) + ": " + retry.text);
}

std::string listRequests(const std::vector<std::string>& words, const Style& style)
{
    std::string out;
    std::string group;
    for (const RequestInfo& request : catalogue()) {
        if (!isAbout(request, words))
            continue;
        if (group != request.group) {
            group = request.group;
            out += (out.empty() ? "" : "\n") + style.heading(group) + "\n";
        }
        out += "  " + std::string(request.name) + "\n";
        for (const Parameter& parameter : request.parameters) {
            out += labelled("      " + std::string(parameter.name), 24, traits(parameter));
            const Choices sought = choicesAbout(parameter, words);
            if (!sought.empty())
                out += labelled("", 24, choicesText(sought));
        }
    }
    return out;
}

std::string explain(const ErrorCode& code, const Style& style)
{
    constexpr size_t column = 16;
    std::string source = " (host, HTTP status " + std::to_string(code.status) + ")";
    if (code.code != 0)
        source = std::string(" ") + code.name + " (" +
                 (code.source == std::string("engine") ? "development engine" : code.source) + ")";
    return style.heading(codeText(code)) + source + "\n" + labelled("", 2, code.text) +
           labelled("  likely cause", column, code.cause) +
           labelled("  what to do", column, code.remedy);
}

std::string explainSuccess(const Style& style)
{
    return style.heading("0") + " (plug-in and engine)\n  success: nothing is to be done\n";
}

std::string explainStatus(unsigned status, const Style& style)
{
    std::string out;
    const auto add = [&](const std::string& text) { out += (out.empty() ? "" : "\n") + text; };
    for (const StatusText& row : otherStatuses())
        if (row.status == status)
            add(style.heading(std::to_string(status)) + " (HTTP status)\n" +
                labelled("", 2, row.text));
    for (const ErrorCode& code : hostCodes())
        if (code.status == status)
            add(explain(code, style));
    return out;
}

std::string listErrorCodes(const Style& style)
{
    constexpr size_t numberColumn = 8;
    constexpr size_t nameColumn = 27;
    std::string out = style.heading("errorCode of plug-in and engine") + "\n";
    out += labelled("0", numberColumn, "success");
    for (const ErrorCode& row : errorCodes())
        out += labelled(codeText(row), numberColumn, row.text);
    out += "\n" + style.heading("errors of `corvane-host serve`, with the status of HTTP") + "\n";
    for (const ErrorCode& row : hostCodes())
        out += labelled(pad(codeText(row), nameColumn - 5) + std::to_string(row.status), nameColumn,
                        row.text);
    return out;
}
