#include "script.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <map>
#include <sstream>
#include <utility>

#include "exchange.h"
#include "input.h"
#include "json_text.h"
#include "parameters.h"
#include "values.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr std::string_view blanks = " \t\n\r";  // those of JSON

}  // namespace

class Script::Runner {
public:
    Runner(const ScriptOptions& options, HostSession& session)
        : m_options(options), m_session(session), m_values(options.file != "-")
    {
    }

    // Sends a step. The answer is the step's line of output.
    std::string run(const Step& step)
    {
        try {
            return jsonText(send(step), -1);
        } catch (const UsageError& e) {
            throw UsageError(inEachLine(step.title, e.what()));
        }
    }

    bool allSucceeded() const { return m_allSucceeded; }
    bool mustStop() const { return !m_allSucceeded && !m_options.keepGoing; }

private:
    Json send(const Step& step)
    {
        const SecretPairs given = parameters(step);
        warn(step.info, given, step.title);
        const Outcome outcome = exchange(m_session, step.info, step.request, given);
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
        tell(step.title + failureLine(step.request, outcome));
        tell(remedyLine(outcome));
        return answer;
    }

    Pairs parameters(const Step& step)
    {
        const auto expand = [this](const std::string& text) {
            return expandReferences(text, [this](const std::string& r) { return resultOf(r); });
        };
        Pairs pairs;
        Mistakes mistakes;
        for (const auto& [name, value] : step.params.items()) {
            try {
                pairs.emplace_back(
                    name, m_values.read(step.info, name, writtenValue(name, value), expand));
            } catch (const UsageError& e) {
                mistakes.add(e.what());
            }
        }
        mistakes.refuse();
        return pairs;
    }

    std::string resultOf(const std::string& reference) const
    {
        const auto [id, result] = splitReference(reference);
        const auto step = m_results.find(id);
        const std::string* value =
            step == m_results.end() ? nullptr : findValue(step->second, result);
        if (value == nullptr)
            throw UsageError("${" + reference + "}: step " + id + " gave no result " + result);
        return *value;
    }

    const ScriptOptions& m_options;
    HostSession& m_session;
    ValueReader m_values;
    std::map<std::string, SecretPairs> m_results;
    bool m_allSucceeded = true;
};

Script::Script(const ScriptOptions& options) : m_options(options), m_reader(options.force)
{
    if (options.file == "-")
        return;
    const std::string text = readInput(options.file);
    const size_t begin = text.find_first_not_of(blanks);
    if (begin != text.npos && text[begin] == '[') {
        readArray(text);
        return;
    }
    std::istringstream lines(text);
    size_t number = 0;
    for (std::string line; std::getline(lines, line);)
        if (auto step = readLine(line, ++number))
            m_steps.push_back(*std::move(step));
}

std::string Script::at(const std::string& place) const
{
    return inputName(m_options.file) + ":" + place + ": ";
}

void Script::readArray(const std::string& text)
{
    m_isArray = true;
    size_t place = 0;
    try {
        const Json steps = parseJson(text);
        const std::vector<size_t> places = elementPlaces(text);
        for (size_t i = 0; i < steps.size(); ++i) {
            place = places.at(i);
            m_steps.push_back(m_reader.read(steps[i]));
            m_steps.back().title.insert(0, at(placeIn(text, place)));
        }
    } catch (const JsonError& e) {
        throw UsageError(at(placeIn(text, e.at)) + e.what());
    } catch (const UsageError& e) {
        throw UsageError(inEachLine(at(placeIn(text, place)), e.what()));
    }
}

std::optional<Step> Script::readLine(const std::string& line, size_t number)
{
    const size_t begin = line.find_first_not_of(blanks);
    if (begin == line.npos)
        return std::nullopt;
    const auto place = [&](size_t column) {
        return at(std::to_string(number) + ":" + std::to_string(column + 1));
    };
    try {
        Step step = m_reader.read(parseJson(line));
        step.title.insert(0, place(begin));
        return step;
    } catch (const JsonError& e) {
        throw UsageError(place(std::min(e.at, line.size())) + e.what());
    } catch (const UsageError& e) {
        throw UsageError(inEachLine(place(begin), e.what()));
    }
}

void Script::runArray(Runner& runner, const Answers& answers) const
{
    // Closed on every way out, so that what was written is JSON.
    struct Brackets {
        const Answers& answers;
        std::string between = "[\n";
        ~Brackets()
        {
            try {
                answers(between == "[\n" ? "[]\n" : "]\n");
            } catch (const UsageError&) {
                // The write before has failed too and is being reported.
            }
        }
    } brackets{answers};

    for (const Step& step : m_steps) {
        if (runner.mustStop())
            return;
        const std::string answer = runner.run(step);
        // The line ends before the next step has something told on standard error.
        answers(brackets.between + answer + "\n");
        brackets.between = ",";
    }
}

// With standard input: each line is answered before the next is read, an array when it is whole.
void Script::converse(Runner& runner, const Answers& answers)
{
    std::string before;
    while (std::cin.good() && blanks.find(static_cast<char>(std::cin.peek())) != blanks.npos)
        before += static_cast<char>(std::cin.get());
    if (std::cin.peek() == '[') {
        readArray(before + std::string(std::istreambuf_iterator<char>(std::cin), {}));
        return runArray(runner, answers);
    }
    auto number = static_cast<size_t>(std::count(before.begin(), before.end(), '\n'));
    std::string indent = before.substr(before.find_last_of('\n') + 1);
    for (std::string rest; !runner.mustStop() && std::getline(std::cin, rest);)
        if (const auto step = readLine(std::exchange(indent, "") + rest, ++number))
            answers(runner.run(*step) + "\n");
}

bool Script::run(HostSession& session, const Answers& answers)
{
    Runner runner(m_options, session);
    if (m_options.file == "-")
        converse(runner, answers);
    else if (m_isArray)
        runArray(runner, answers);
    else
        for (const Step& step : m_steps)
            if (!runner.mustStop())
                answers(runner.run(step) + "\n");
    return runner.allSucceeded();
}
