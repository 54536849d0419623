#include "trace.h"

#include <cstdio>

#include "common/codec.h"

namespace {

// What was meant for another parameter shows itself by not being a number.
bool isShortNumber(const std::string& value)
{
    return value.size() <= 6 && value.find_first_not_of("-0123456789") == std::string::npos;
}

bool mayShow(const Parameter* parameter, const std::string& value)
{
    return parameter != nullptr && !isSecret(*parameter) &&
           (parameter->form == Form::Path || isShortNumber(value));
}

std::string told(Form form, const std::string& value, bool show)
{
    if (show)
        return value;
    std::string text = std::to_string(value.size()) + " bytes";
    if (const auto size = isBase64(form) ? base64Size(form, value) : std::nullopt)
        text += ", Base64 of " + std::to_string(*size);
    return text;
}

void line(const char* arrow, const std::string& name, const char* form, const std::string& text)
{
    fprintf(stderr, "trace: %s %-18s %-9s %s\n", arrow, name.c_str(), form, text.c_str());
}

}  // namespace

void traceLoading(double microseconds)
{
    fprintf(stderr, "trace: load %.1f us\n", microseconds);
}

void traceParameters(const RequestInfo* request, const std::string& name, const Pairs& parameters)
{
    fprintf(stderr, "trace: %s\n", name.c_str());
    for (const auto& [parameterName, value] : parameters) {
        const Parameter* known =
            request == nullptr ? nullptr : findParameter(*request, parameterName);
        const Form form = known == nullptr ? Form::Text : known->form;
        line("->", parameterName, known == nullptr ? "unknown" : formName(form),
             told(form, value, mayShow(known, value)));
    }
}

void traceOutcome(const RequestInfo* request, const Outcome& outcome)
{
    for (const auto& [name, value] : outcome.results) {
        const Result* known = request == nullptr ? nullptr : findResult(*request, name);
        const Form form = known == nullptr ? Form::Text : known->form;
        line("<-", name, known == nullptr ? "unknown" : formName(form),
             told(form, value, name == "errorCode"));
    }
    fprintf(stderr, "trace: store %.1f us, request %.1f us, read %.1f us\n",
            outcome.storeMicroseconds, outcome.microseconds, outcome.readMicroseconds);
}
