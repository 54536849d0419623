// The host's scripts: whatever the script, the answer is JSON, one for each request that was
// sent and with its results, and parameters arrive as they were written. The session is a
// stand-in whose results are made of the request's parameters. Input: one byte that tells
// whether failures end the script, then the script.

#include "host/script.h"

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

#include "fuzz.h"
#include "host/catalogue/names.h"
#include "host/output.h"
#include "host_files.h"
#include "oracles.h"

namespace {

using Json = nlohmann::ordered_json;

struct Sent {
    std::string name;
    Pairs parameters;
    Pairs results;
};

std::vector<Sent> sent;
std::string written;

// A parameter of the name "fail" is the code of a failure.
Pairs resultsOf(const Pairs& parameters)
{
    std::string code = "0";
    std::string data;
    for (const auto& [name, value] : parameters) {
        code = name == "fail" ? value : code;
        data += value;
    }
    return {{"Data", data}, {"errorCode", code}};
}

}  // namespace

// ---- The stand-in.

HostSession::HostSession(const LibraryPaths&) {}

HostSession::~HostSession() = default;

Reply HostSession::send(const std::string& name, const Pairs& parameters)
{
    sent.push_back({name, parameters, resultsOf(parameters)});
    return {sent.back().results, 1};
}

namespace {

// A text about a failed step is asked for behind it, which is no step of its own.
constexpr char TEXT_REQUEST[] = "QZaVen_strerror";

std::vector<Json> stepsOf(const std::string& script, bool isArray)
{
    std::vector<Json> steps;
    if (isArray) {
        const Json all = Json::parse(script, nullptr, false);
        HOLDS(sent.empty() || all.is_array());
        return all.is_array() ? std::vector<Json>(all.begin(), all.end()) : steps;
    }
    std::istringstream lines(script);
    for (std::string line; std::getline(lines, line);)
        if (line.find_first_not_of(" \t\r") != std::string::npos)
            steps.push_back(Json::parse(line, nullptr, false));
    return steps;
}

std::vector<Json> answersOf(bool isArray)
{
    if (isArray) {
        const Json all = Json::parse(written);
        HOLDS(all.is_array());
        return {all.begin(), all.end()};
    }
    std::vector<Json> answers;
    std::istringstream lines(written);
    for (std::string line; std::getline(lines, line);)
        answers.push_back(Json::parse(line));
    HOLDS(written.empty() || written.back() == '\n');
    return answers;
}

std::string bytesIn(const Json& json)
{
    if (json.is_string())
        return json;
    HOLDS(json.is_object() && json.size() == 1);
    const std::string text = json.at("base64");
    const std::string bytes = fuzz::base64Decoded(text);
    HOLDS(fuzz::toBase64(bytes) == text);
    return bytes;
}

// What arrives for a text, if that is plain to see.
std::optional<std::string> arrivingFor(Form form, const std::string& text)
{
    const auto encoded = [](const std::string& bytes) {
        return fuzz::toUrl(fuzz::toBase64(bytes));
    };
    const auto startsWith = [&](const std::string& prefix) {
        return text.compare(0, prefix.size(), prefix) == 0;
    };
    if (text.find("${") != std::string::npos || startsWith("hex:") || startsWith("@") ||
        startsWith("b64:@") || startsWith("raw:@"))
        return std::nullopt;
    if (startsWith("b64:text:"))
        return encoded(text.substr(9));
    if (startsWith("b64:"))
        return encoded(text.substr(4));
    if (startsWith("raw:text:"))
        return text.substr(9);
    if (startsWith("raw:"))
        return text.substr(4);
    if (startsWith("text:"))
        return isBase64(form) ? encoded(text.substr(5)) : text.substr(5);
    return text;
}

// The same for a single reference to a step before.
std::optional<std::string> arrivingFor(Form form, const std::string& text,
                                       const std::vector<Json>& steps, size_t before)
{
    for (size_t i = 0; i < before; ++i)
        if (steps[i].contains("id"))
            for (const auto& [name, value] : sent[i].results)
                if (text == "${" + steps[i]["id"].get<std::string>() + "." + name + "}")
                    return value;
    return arrivingFor(form, text);
}

bool isPlain(const std::string& text)
{
    const auto startsWith = [&](const char* prefix) { return text.rfind(prefix, 0) == 0; };
    return !startsWith("b64:") && !startsWith("raw:") && !startsWith("text:") &&
           !startsWith("hex:");
}

// A name of the parameter's, also one that a step before gave, arrives as its number.
std::string numberOrItself(const std::string& request, const std::string& parameter,
                           const std::string& text)
{
    const std::string* const number =
        numberNamed(findRequest(request), parameter, Given::Plain, text);
    return number == nullptr ? text : *number;
}

void checkStep(const std::vector<Json>& steps, size_t number, const Json& answer)
{
    const Json& step = steps[number];
    const Sent& request = sent[number];
    HOLDS(step.at("request") == request.name);
    const Json parameters = step.value("params", Json::object());
    HOLDS(parameters.size() == request.parameters.size());
    size_t i = 0;
    for (const auto& [name, value] : parameters.items()) {
        HOLDS(request.parameters[i].first == name);
        const Form form = formOf(findRequest(request.name), name);
        auto arriving = value.is_string()
                            ? arrivingFor(form, value.get<std::string>(), steps, number)
                            : std::optional(value.dump());
        if (arriving && value.is_string() && isPlain(value.get<std::string>()))
            arriving = numberOrItself(request.name, name, *arriving);
        HOLDS(!arriving || *arriving == request.parameters[i].second);
        ++i;
    }

    HOLDS(answer.at("request") == request.name && answer.contains("id") == step.contains("id"));
    HOLDS(answer.at("results").size() == request.results.size());
    for (const auto& [name, value] : request.results)
        HOLDS(bytesIn(answer.at("results").at(name)) == value);
    HOLDS(answer.at("ok") == !answer.contains("error"));
}

// What libraries and the host say of warnings and failures goes nowhere.
class Silence {
public:
    Silence() : m_before(stderr)
    {
        static FILE* const nowhere = fopen("/dev/null", "w");
        stderr = nowhere;
    }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;
    ~Silence() { stderr = m_before; }

private:
    FILE* m_before;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    ScriptOptions options;
    options.file = "-";
    options.keepGoing = input.pick(2) == 1;
    options.force = true;
    const std::string script = input.rest();
    const size_t first = script.find_first_not_of(" \t\n\r");
    const bool isArray = first != std::string::npos && script[first] == '[';

    sent.clear();
    written.clear();
    HostSession session{LibraryPaths()};
    std::istringstream in(script);
    std::streambuf* const before = std::cin.rdbuf(in.rdbuf());
    std::cin.clear();
    bool isWhole = true;
    bool allSucceeded = false;
    try {
        const Silence silence;
        const HostFiles files;
        allSucceeded = Script(options).run(session, [](std::string_view text) { written += text; });
    } catch (const UsageError&) {
        isWhole = false;
    }
    std::cin.rdbuf(before);

    if (isArray && written.empty()) {  // it was no JSON, or a step was wrong
        HOLDS(!isWhole && sent.empty());
        return 0;
    }
    const std::vector<Json> answers = answersOf(isArray);
    bool mayAskForText = false;
    std::vector<Sent> requests;
    for (const Sent& request : sent) {
        const bool isText = mayAskForText && request.name == TEXT_REQUEST;
        if (!isText)
            requests.push_back(request);
        mayAskForText = !isText && !succeeded(findRequest(request.name), request.results);
    }
    sent = requests;
    HOLDS(answers.size() == sent.size());
    const std::vector<Json> steps = stepsOf(script, isArray);
    HOLDS(steps.size() >= sent.size());
    for (size_t i = 0; i < sent.size(); ++i)
        checkStep(steps, i, answers[i]);
    const bool hadFailure =
        std::any_of(answers.begin(), answers.end(), [](const Json& a) { return a["ok"] == false; });
    HOLDS(!isWhole || hadFailure || (allSucceeded && answers.size() == steps.size()));
    return 0;
}
