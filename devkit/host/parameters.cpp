#include "parameters.h"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

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
        throw UsageError(name + " is given twice");
    pairs.emplace_back(name, value);
}

// Adds "name=value". One without "=" is not quoted: it may be a value.
void addWritten(Pairs& pairs, const std::string& written, const std::string& place)
{
    const size_t equals = written.find('=');
    if (equals == std::string::npos || equals == 0)
        throw UsageError(place + " is not written name=value");
    add(pairs, written.substr(0, equals), written.substr(equals + 1));
}

Pairs split(const std::vector<std::string>& arguments)
{
    Pairs pairs;
    for (size_t i = 0; i < arguments.size(); ++i)
        addWritten(pairs, arguments[i], "parameter " + std::to_string(i + 1));
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
            addWritten(pairs, line, "line " + std::to_string(number));
    }
    return pairs;
}

Pairs readFile(const std::string& path)
{
    std::ifstream file;
    if (path != "-") {
        file.open(path, std::ios::binary);
        if (!file)
            throw UsageError("cannot read " + path);
    }
    std::istream& in = path == "-" ? std::cin : file;
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    if (in.bad())
        throw UsageError("cannot read " + path);
    try {
        const size_t begin = text.find_first_not_of(" \t\r\n");
        return begin != std::string::npos && text[begin] == '{' ? fromJson(text) : fromLines(text);
    } catch (const UsageError& e) {
        throw UsageError(path + ": " + e.what());
    }
}

}  // namespace

nlohmann::ordered_json parseJson(const std::string& text)
{
    // Of members with the same name the parser would keep one, without a word.
    std::vector<std::set<std::string>> members;
    const auto refuseSame = [&](int, Json::parse_event_t event, const Json& parsed) {
        if (event == Json::parse_event_t::object_start)
            members.emplace_back();
        else if (event == Json::parse_event_t::object_end)
            members.pop_back();
        else if (event == Json::parse_event_t::key &&
                 !members.back().insert(parsed.get<std::string>()).second)
            throw UsageError(parsed.get<std::string>() + " is given twice");
        return true;
    };
    // The parser's own messages quote the text.
    try {
        return Json::parse(text, refuseSame);
    } catch (const Json::parse_error& e) {
        throw UsageError("not JSON at byte " + std::to_string(e.byte));
    } catch (const Json::exception&) {
        throw UsageError("a number is out of range");
    }
}

std::string writtenValue(const std::string& name, const nlohmann::ordered_json& value)
{
    if (!value.is_string() && !value.is_number_integer())
        throw UsageError(name + ": a value must be a text or an integer");
    return value.is_string() ? value.get<std::string>() : value.dump();
}

void WrittenParameters::check() const
{
    split(arguments);
}

Pairs WrittenParameters::read(const RequestInfo* request) const
{
    Pairs pairs = file.empty() ? Pairs() : readFile(file);
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
    for (auto& [name, value] : pairs)
        value = reader.read(request, name, value, asWritten);
    return pairs;
}
