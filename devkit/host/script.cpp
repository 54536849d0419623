#include "script.h"

#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

#include "exchange.h"
#include "host/catalogue/catalogue.h"
#include "parameters.h"
#include "values.h"

namespace {

using Json = nlohmann::ordered_json;

struct Step {
    std::string id;
    std::string request;
    Json params = Json::object();
    bool allowFailure = false;
};

bool isIdentifier(const std::string& id)
{
    return !id.empty() && id.find_first_of(".{}$") == std::string::npos;
}

Step toStep(const Json& json)
{
    if (!json.is_object())
        throw UsageError("a step must be an object");

    Step step;
    for (const auto& [member, value] : json.items()) {
        if (member == "id" && value.is_string() && isIdentifier(value.get<std::string>()))
            step.id = value;
        else if (member == "request" && value.is_string())
            step.request = value;
        else if (member == "params" && value.is_object())
            step.params = value;
        else if (member == "title" && value.is_string())
            continue;
        else if (member == "allowFailure" && value.is_boolean())
            step.allowFailure = value;
        else
            throw UsageError("member \"" + member + "\" is unknown or of the wrong kind");
    }
    if (step.request.empty())
        throw UsageError("\"request\" is missing");
    return step;
}

class Runner {
public:
    Runner(const ScriptOptions& options, HostSession& session)
        : m_options(options), m_session(session), m_reader(options.file != "-")
    {
    }

    // Sends a step. The answer is the step's line of output.
    Json run(const Json& json)
    {
        ++m_number;
        try {
            return send(toStep(json));
        } catch (const UsageError& e) {
            throw UsageError("step " + std::to_string(m_number) + ": " + e.what());
        }
    }

    bool allSucceeded() const { return m_allSucceeded; }
    bool mustStop() const { return !m_allSucceeded && !m_options.keepGoing; }

private:
    Json send(const Step& step)
    {
        if (!step.id.empty() && m_results.count(step.id) != 0)
            throw UsageError("id " + step.id + " is taken");
        const RequestInfo* request = requestByName(step.request, m_options.force);
        const SecretPairs given = parameters(step, request);
        warn(request, given);
        const Outcome outcome = exchange(m_session, request, step.request, given);
        if (!step.id.empty())
            m_results[step.id] = outcome.results;

        Json answer = Json::object();
        if (!step.id.empty())
            answer["id"] = step.id;
        answer["request"] = step.request;
        answer["ok"] = outcome.ok;
        answer["results"] = toJson(outcome.results);
        if (!outcome.ok)
            answer["error"] = {{"code", outcome.code}, {"text", outcome.text}};
        if (m_options.time)
            answer["microseconds"] = outcome.microseconds;

        if (outcome.ok || step.allowFailure)
            return answer;
        m_allSucceeded = false;
        tell("step " + std::to_string(m_number) + ": " + failureLine(step.request, outcome));
        return answer;
    }

    Pairs parameters(const Step& step, const RequestInfo* request)
    {
        Pairs pairs;
        for (const auto& [name, value] : step.params.items()) {
            const std::string written = writtenValue(name, value);
            const auto expand = [&, &parameter = name](const std::string& text) {
                return expandReferences(parameter, text);
            };
            pairs.emplace_back(name, m_reader.read(request, name, written, expand));
        }
        return pairs;
    }

    std::string expandReferences(const std::string& parameter, const std::string& text) const
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
                throw UsageError(parameter + ": a reference lacks its }");
            expanded.append(text, at, found - at);
            expanded += resultOf(parameter, text.substr(found + 2, end - found - 2));
            at = end + 1;
        }
        return expanded.append(text, at);
    }

    const std::string& resultOf(const std::string& parameter, const std::string& reference) const
    {
        const size_t dot = reference.find('.');
        const auto step = m_results.find(reference.substr(0, dot));
        const std::string* value = dot == std::string::npos || step == m_results.end()
                                       ? nullptr
                                       : findValue(step->second, reference.substr(dot + 1));
        if (value == nullptr)
            throw UsageError(parameter + ": there is no result for ${" + reference + "}");
        return *value;
    }

    const ScriptOptions& m_options;
    HostSession& m_session;
    ValueReader m_reader;
    std::map<std::string, SecretPairs> m_results;
    size_t m_number = 0;
    bool m_allSucceeded = true;
};

void runLines(std::istream& in, Runner& runner, Output& output)
{
    for (std::string line; !runner.mustStop() && std::getline(in, line);)
        if (line.find_first_not_of(" \t\r") != std::string::npos)
            output.write(jsonText(runner.run(parseJson(line)), -1) + "\n");
}

void runArray(const Json& steps, Runner& runner, Output& output)
{
    // Closed on every way out, so that what was written is JSON.
    struct Brackets {
        Output& output;
        std::string between = "[\n";
        ~Brackets()
        {
            try {
                output.write(between == "[\n" ? "[]\n" : "\n]\n");
            } catch (const UsageError&) {
                // The write before has failed too and is being reported.
            }
        }
    } brackets{output};

    for (const Json& step : steps) {
        if (runner.mustStop())
            return;
        const std::string answer = jsonText(runner.run(step), -1);
        output.write(brackets.between + answer);
        brackets.between = ",\n";
    }
}

void run(std::istream& in, Runner& runner, Output& output)
{
    constexpr std::string_view blanks = " \t\n\r";  // those of JSON
    while (in.good() && blanks.find(static_cast<char>(in.peek())) != blanks.npos)
        in.get();
    if (in.peek() != '[')
        return runLines(in, runner, output);
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    runArray(parseJson(text), runner, output);
}

}  // namespace

bool runScript(const ScriptOptions& options, HostSession& session, Output& output)
{
    Runner runner(options, session);
    if (options.file == "-") {
        run(std::cin, runner, output);
        return runner.allSucceeded();
    }
    std::ifstream file(options.file);
    if (!file)
        throw UsageError("cannot read " + options.file);
    run(file, runner, output);
    return runner.allSucceeded();
}
