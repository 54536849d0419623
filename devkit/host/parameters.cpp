#include "parameters.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>

#include "host/catalogue/names.h"
#include "input.h"
#include "json_text.h"
#include "output.h"
#include "values.h"

namespace {

using Json = nlohmann::ordered_json;

std::string asWritten(const std::string& text)
{
    return text;
}

void add(Pairs& pairs, const std::string& name, const std::string& value)
{
    if (findValue(pairs, name) != nullptr)
        throw UsageError(toldName(name) + " is given twice");
    pairs.emplace_back(name, value);
}

// Adds "name=value". One without "=" is not quoted unless it is a known name: it may be a value.
// `advice` is what is said of it besides.
void addWritten(Pairs& pairs, const std::string& written, const std::string& place,
                const std::string& advice)
{
    const size_t equals = written.find('=');
    if (isParameterName(written))
        throw UsageError(place + " is not written name=value: " + written +
                         " has neither \"=\" nor a value; there is no blank around \"=\"");
    if (equals == std::string::npos || equals == 0)
        throw UsageError(place + " is not written name=value" + advice);
    add(pairs, written.substr(0, equals), written.substr(equals + 1));
}

Pairs split(const std::vector<std::string>& arguments)
{
    Pairs pairs;
    for (size_t i = 0; i < arguments.size(); ++i)
        addWritten(pairs, arguments[i], "parameter " + std::to_string(i + 1),
                   "; a value with blanks has quotes around it");
    return pairs;
}

Pairs fromJson(const std::string& text)
{
    const Json json = parseJson(text);
    Pairs pairs;
    for (const auto& [name, value] : json.items())
        pairs.emplace_back(name, writtenValue(name, value));
    return pairs;
}

Pairs fromLines(const std::string& text)
{
    Pairs pairs;
    std::istringstream lines(text);
    size_t number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.find_first_not_of(" \t") != std::string::npos && line[0] != '#')
            addWritten(pairs, line, "line " + std::to_string(number),
                       "; all of a line is one parameter, and JSON is an object");
    }
    return pairs;
}

Pairs fromFile(const std::string& path)
{
    const std::string text = readInput(path);
    const std::string name = inputName(path);
    try {
        const size_t begin = text.find_first_not_of(" \t\r\n");
        return begin != std::string::npos && text[begin] == '{' ? fromJson(text) : fromLines(text);
    } catch (const JsonError& e) {
        throw UsageError(name + ":" + placeIn(text, e.at) + ": " + e.what());
    } catch (const UsageError& e) {
        throw UsageError(name + ": " + e.what());
    }
}

}  // namespace

std::string writtenValue(const std::string& name, const nlohmann::ordered_json& value)
{
    if (!value.is_string() && !value.is_number_integer())
        throw UsageError(toldName(name) + ": a value must be a text or an integer");
    return value.is_string() ? value.get<std::string>() : value.dump();
}

void WrittenParameters::check() const
{
    split(arguments);
}

Pairs WrittenParameters::read(const RequestInfo* request) const
{
    Pairs pairs = file.empty() ? Pairs() : fromFile(file);
    for (const auto& [name, value] : split(arguments)) {
        const auto same =
            std::find_if(pairs.begin(), pairs.end(),
                         [&, &wanted = name](const auto& pair) { return pair.first == wanted; });
        if (same != pairs.end())
            same->second = value;
        else
            pairs.emplace_back(name, value);
    }
    ValueReader reader(file != "-");
    Mistakes mistakes;
    for (auto& [name, value] : pairs) {
        try {
            value = reader.read(request, name, value, asWritten);
        } catch (const UsageError& e) {
            mistakes.add(e.what());
        }
    }
    mistakes.refuse();
    return pairs;
}
