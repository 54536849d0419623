#include "exchange.h"

#include <cstdio>

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

}  // namespace

const RequestInfo* requestByName(const std::string& name, bool force)
{
    const RequestInfo* request = findRequest(name);
    if (request == nullptr && !force)
        throw UsageError("there is no request " + name + "; did you mean " + nearestRequest(name) +
                         "?");
    return request;
}

void warn(const RequestInfo* request, const Pairs& parameters)
{
    if (request == nullptr)
        return;
    for (const Complaint& complaint : complaints(*request, parameters))
        tell(std::string("warning: ").append(request->name).append(": ").append(complaint.text));
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

void tell(const std::string& line)
{
    fprintf(stderr, "corvane-host: %s\n", line.c_str());
}
