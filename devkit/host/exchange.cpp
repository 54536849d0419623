#include "exchange.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <string_view>
#include <vector>

#include "host/catalogue/error_codes.h"
#include "host/catalogue/names.h"
#include "output.h"
#include "values.h"

namespace {

// The engine's text for a code, or "".
std::string engineText(HostSession& session, const std::string& code)
{
    const Reply reply = session.send("QZaVen_strerror", {{"strErr", code}});
    const std::string* text = findValue(reply.results, "Data");
    return text == nullptr ? "" : text->substr(0, text->find_last_not_of(" \n\r") + 1);
}

// As chooseTelling() has it.
struct Telling {
    bool isColoured = false;
    bool hasHints = true;
} telling;

// One that is none may be a value that stands in its place.
bool isNameLike(const std::string& name)
{
    constexpr size_t mostOfName = 64;
    return !name.empty() && name.size() <= mostOfName &&
           std::all_of(name.begin(), name.end(),
                       [](unsigned char c) { return isalnum(c) != 0 || c == '_'; });
}

}  // namespace

const RequestInfo* requestByName(const std::string& name, bool force)
{
    const RequestInfo* request = findRequest(name);
    if (request != nullptr || force)
        return request;
    if (name.find('=') != std::string::npos)
        throw UsageError("the name of the request stands before its parameters");
    if (!isNameLike(name))
        throw UsageError("there is no request of this name; `corvane-host list` shows all");
    const std::vector<std::string> likely = likelyRequests(name);
    throw UsageError(
        "there is no request " + name + "; " +
        (likely.empty() ? "`corvane-host list` shows all" : "did you mean " + anyOf(likely) + "?"));
}

void warn(const RequestInfo* request, const Pairs& parameters, const std::string& step)
{
    if (request == nullptr)
        return;
    for (const Complaint& complaint : complaints(*request, parameters))
        tell("warning: " + step + request->name + ": " + complaint.text);
}

Outcome exchange(HostSession& session, const RequestInfo* request, const std::string& name,
                 const Pairs& parameters)
{
    Reply reply = session.send(name, parameters);
    Outcome outcome;
    outcome.results = std::move(reply.results);
    outcome.microseconds = reply.microseconds;
    outcome.storeMicroseconds = reply.storeMicroseconds;
    outcome.readMicroseconds = reply.readMicroseconds;
    outcome.ok = succeeded(request, outcome.results);
    if (outcome.ok)
        return outcome;

    const std::string* code = findValue(outcome.results, "errorCode");
    if (code == nullptr)
        outcome.text = outcome.results.empty() ? "the plug-in wrote no results" : "no text";
    else
        outcome.text = engineText(session, *code);
    if (code != nullptr)
        outcome.code = *code;
    return outcome;
}

std::string resultBytes(const RequestInfo* request, const Outcome& outcome, const std::string& name)
{
    const std::string* value = findValue(outcome.results, name);
    if (value == nullptr)
        throw UsageError("there is no result " + name);
    const Result* known = request == nullptr ? nullptr : findResult(*request, name);
    auto decoded = decodeResult(known == nullptr ? Form::Text : known->form, *value);
    if (!decoded)
        throw UsageError("the result " + name + " is not of its form");
    return *std::move(decoded);
}

std::string failureLine(const std::string& name, const Outcome& outcome)
{
    std::string line = name + " failed";
    if (!outcome.code.empty())
        line += " with " + outcome.code;
    if (!outcome.text.empty())
        line += ": " + outcome.text;
    return line;
}

std::string remedyLine(const Outcome& outcome)
{
    for (const ErrorCode& row : errorCodes())
        if (codeText(row) == outcome.code && row.text == outcome.text)
            return std::string("what to do: ") + row.remedy + "; more: corvane-host explain " +
                   outcome.code;
    return "";
}

void chooseTelling(bool isColoured, bool hasHints)
{
    telling = {isColoured, hasHints};
}

void tell(const std::string& line)
{
    constexpr std::string_view warning = "warning:";
    const char* const program = "corvane-host:";
    if (!telling.isColoured)
        fprintf(stderr, "%s %s\n", program, line.c_str());
    else if (line.compare(0, warning.size(), warning) == 0)
        fprintf(stderr, "%s \033[1;33m%s\033[0m%s\n", program, warning.data(),
                line.c_str() + warning.size());
    else
        fprintf(stderr, "\033[1;31m%s\033[0m %s\n", program, line.c_str());
}

void tellHint(const std::string& line)
{
    if (telling.hasHints && !line.empty())
        fprintf(stderr, "corvane-host: %s\n", line.c_str());
}
