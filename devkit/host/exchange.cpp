#include "exchange.h"

#include <cstdio>
#include <cstring>
#include <sstream>
#include <string_view>
#include <vector>

#include "common/codec.h"
#include "host/catalogue/complaints.h"
#include "host/catalogue/error_codes.h"
#include "host/catalogue/layout.h"
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
    size_t columns = 0;
} telling;

// Gives what stands between the places a colour.
void colour(std::string& line, size_t begin, size_t end, const char* code)
{
    if (!telling.isColoured)
        return;
    line.insert(end, "\033[0m");
    line.insert(begin, std::string("\033[1;") + code + "m");
}

// A name that was typed may hold what a terminal obeys, or no text at all.
std::string shown(std::string line)
{
    const bool isText = isUtf8(line);
    for (char& c : line) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F || (byte >= 0x80 && !isText))
            c = '?';
    }
    return line;
}

void tellLine(const std::string& line)
{
    constexpr const char* program = "corvane-host:";
    constexpr size_t hanging = 4;
    std::string text = std::string(program) + " " + shown(line);
    const size_t begin = strlen(program) + 1;
    if (telling.columns != 0)
        text = wrapped(text, hanging, telling.columns);
    for (const std::string_view label : {"warning:", "what to do:"})
        if (line.compare(0, label.size(), label) == 0) {
            colour(text, begin, begin + label.size(), "33");
            fprintf(stderr, "%s\n", text.c_str());
            return;
        }
    if (line.compare(0, 4, "see ") != 0)
        colour(text, 0, begin - 1, "31");
    fprintf(stderr, "%s\n", text.c_str());
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
        "there is no request " + name +
        (likely.empty() ? "; `corvane-host list` shows all" : didYouMean(anyOf(likely))));
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

void chooseTelling(bool isColoured, size_t columns)
{
    telling = {isColoured, columns};
}

void tell(const std::string& text)
{
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        tellLine(line);
}
