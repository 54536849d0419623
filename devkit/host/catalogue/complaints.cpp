#include <cstdlib>

#include "catalogue.h"

namespace {

const std::vector<ComplaintKind> kinds = {
    {"unknown", "is not a parameter of {request}"},
    {"missing", "is missing ({need})"},
    {"not_base64", notBase64},
    {"out_of_range", "must be {low} to {high}"},
    {"not_one_of", "must be one of {values}"},
    {"wrong_size", "must be {bytes} bytes"},
};

Complaint complaintOf(const std::string& code, const std::string& field, Pairs values)
{
    for (const ComplaintKind& kind : kinds)
        if (kind.code == code)
            return {field, field + " " + filled(kind.text, values), code, std::move(values)};
    return {field, field + " " + code, code, std::move(values)};
}

bool isNeeded(Need need, const Pairs& parameters)
{
    const std::string* given = findValue(parameters, "strMode");
    switch (need) {
        case Need::Always:
            return true;
        case Need::Never:
            return false;
        case Need::UnlessMode1:
            return given == nullptr || *given != "1";
        case Need::InMode6:
            return given != nullptr && *given == "6";
    }
    return false;
}

// "0 1 3"
std::string listOf(const char* digits)
{
    std::string list;
    for (const char* digit = digits; *digit != '\0'; ++digit)
        list += std::string(list.empty() ? "" : " ") + *digit;
    return list;
}

// A value's own fault, or nothing.
std::optional<Complaint> fault(const Parameter& parameter, const std::string& value)
{
    const Allowed& allowed = parameter.allowed;
    if (isBase64(parameter.form)) {
        const auto decodedSize = base64Size(parameter.form, value);
        if (!decodedSize)
            return complaintOf("not_base64", parameter.name, {});
        if (allowed.kind == Allowed::Size && *decodedSize != allowed.size)
            return complaintOf("wrong_size", parameter.name,
                               {{"bytes", std::to_string(allowed.size)}});
    }
    if (allowed.kind == Allowed::OneOf &&
        (value.size() != 1 || std::string(allowed.digits).find(value) == std::string::npos))
        return complaintOf("not_one_of", parameter.name, {{"values", listOf(allowed.digits)}});
    if (allowed.kind == Allowed::Range) {
        const long number = strtol(value.c_str(), nullptr, 10);
        if (number < allowed.low || number > allowed.high)
            return complaintOf(
                "out_of_range", parameter.name,
                {{"low", std::to_string(allowed.low)}, {"high", std::to_string(allowed.high)}});
    }
    return std::nullopt;
}

}  // namespace

const std::vector<ComplaintKind>& complaintKinds()
{
    return kinds;
}

std::vector<Complaint> complaints(const RequestInfo& request, const Pairs& parameters)
{
    std::vector<Complaint> list;
    for (const auto& given : parameters)
        if (findParameter(request, given.first) == nullptr)
            list.push_back(complaintOf("unknown", given.first, {{"request", request.name}}));
    for (const Parameter& parameter : request.parameters) {
        const std::string* value = findValue(parameters, parameter.name);
        if (value != nullptr && !value->empty()) {
            if (auto found = fault(parameter, *value))
                list.push_back(*std::move(found));
        } else if (isNeeded(parameter.need, parameters)) {
            list.push_back(
                complaintOf("missing", parameter.name, {{"need", needText(parameter.need)}}));
        }
    }
    return list;
}
