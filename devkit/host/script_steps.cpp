#include "script_steps.h"

#include <algorithm>
#include <cctype>

#include "exchange.h"
#include "host/catalogue/names.h"
#include "output.h"
#include "parameters.h"
#include "values.h"

namespace {

using Json = nlohmann::ordered_json;

bool isIdentifier(const std::string& id)
{
    return !id.empty() && id.find_first_of(".{}$") == std::string::npos;
}

void takeMember(Step& step, const std::string& member, const Json& value)
{
    if (member == "id" && value.is_string() && isIdentifier(value.get<std::string>()))
        step.id = value;
    else if (member == "request" && value.is_string())
        step.request = value;
    else if (member == "params" && value.is_object())
        step.params = value;
    else if (member == "allowFailure" && value.is_boolean())
        step.allowFailure = value;
    else if (member != "title" || !value.is_string())
        throw UsageError("member \"" + member + "\" is unknown or of the wrong kind; a step has " +
                         "\"id\", \"request\", \"params\", \"title\" and \"allowFailure\"");
}

// A text that is not shaped like a reference may be a part of a value, so it is not repeated.
bool mayTell(const std::string& reference)
{
    constexpr size_t most = 64;
    return reference.size() <= most && std::all_of(reference.begin(), reference.end(), [](char c) {
               return isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '-' ||
                      c == '.';
           });
}

}  // namespace

std::string expandReferences(const std::string& text, const Resolve& resolve)
{
    std::string expanded;
    size_t at = 0;
    for (size_t found; (found = text.find("${", at)) != std::string::npos;) {
        if (found > at && text[found - 1] == '$') {
            expanded.append(text, at, found - 1 - at).append("${");
            at = found + 2;
            continue;
        }
        const size_t end = text.find('}', found);
        if (end == std::string::npos)
            throw UsageError("a reference lacks its }");
        expanded.append(text, at, found - at);
        expanded += resolve(text.substr(found + 2, end - found - 2));
        at = end + 1;
    }
    return expanded.append(text, at);
}

std::pair<std::string, std::string> splitReference(const std::string& reference)
{
    const size_t dot = reference.find('.');
    if (!mayTell(reference) || dot == std::string::npos || dot == 0 || dot + 1 == reference.size())
        throw UsageError("a reference is written ${ID.RESULT}, and a plain ${ is written $${");
    return {reference.substr(0, dot), reference.substr(dot + 1)};
}

Step StepReader::read(const nlohmann::ordered_json& json)
{
    Step step;
    step.title = "step " + std::to_string(++m_number);
    try {
        if (!json.is_object())
            throw UsageError("a step must be an object");
        for (const auto& [member, value] : json.items())
            takeMember(step, member, value);
        if (!step.id.empty())
            step.title += " (" + step.id + ")";
        if (step.request.empty())
            throw UsageError("\"request\" is missing");
        step.info = requestByName(step.request, m_force);
        check(step);
    } catch (const UsageError& e) {
        throw UsageError(inEachLine(step.title + ": ", e.what()));
    }
    step.title += ": ";
    if (!step.id.empty())
        m_named.push_back(step);
    return step;
}

void StepReader::check(const Step& step) const
{
    if (std::any_of(m_named.begin(), m_named.end(),
                    [&](const Step& earlier) { return !step.id.empty() && earlier.id == step.id; }))
        throw UsageError("id " + step.id + " is taken");
    Mistakes mistakes;
    for (const auto& [name, value] : step.params.items()) {
        try {
            checkValue(step, name, writtenValue(name, value));
        } catch (const UsageError& e) {
            mistakes.add(e.what());
        }
    }
    mistakes.refuse();
}

void StepReader::checkValue(const Step& step, const std::string& name,
                            const std::string& written) const
{
    const WrittenValue value = splitValue(written);
    const bool isHex = value.kind == WrittenValue::Hex;
    const bool hasText = !isHex && !value.isFile;  // in which references may stand
    size_t references = 0;
    try {
        expandReferences(hasText ? value.rest : "", [&](const std::string& reference) {
            checkReference(reference);
            ++references;
            return std::string();
        });
    } catch (const UsageError& e) {
        throw UsageError(name + ": " + e.what());
    }
    if (references != 0 || value.isFile)
        return;
    ValueReader(false).read(step.info, name, written, [](const std::string& part) {
        return expandReferences(part, [](const std::string&) { return std::string(); });
    });
}

void StepReader::checkReference(const std::string& reference) const
{
    const auto [id, result] = splitReference(reference);
    std::vector<std::string> known;
    const Step* step = nullptr;
    for (const Step& earlier : m_named) {
        known.push_back(earlier.id);
        if (earlier.id == id)
            step = &earlier;
    }
    if (step == nullptr)
        throw UsageError("${" + reference + "}: there is no earlier step " + id +
                         didYouMean(nearName(known, id)));
    if (step->info == nullptr || findResult(*step->info, result) != nullptr)
        return;
    known.clear();
    for (const Result& given : step->info->results)
        known.emplace_back(given.name);
    throw UsageError("${" + reference + "}: " + step->request + " of step " + id +
                     " has no result " + result + didYouMean(nearName(known, result)));
}
