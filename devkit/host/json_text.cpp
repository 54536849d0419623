#include "json_text.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

namespace {

using Json = nlohmann::ordered_json;

// The parser's messages quote what it read last. The reason stands before that.
std::string reasonOf(const Json::parse_error& e, bool behindComma)
{
    std::string message = e.what();
    const size_t reason = message.find(" - ");
    if (reason == std::string::npos)
        return "not JSON";
    message = message.substr(reason + 3);
    message.resize(std::min(message.size(), message.find("; last read: ")));
    const bool isEnd = message.find("unexpected '}'") == 0 || message.find("unexpected ']'") == 0;
    if (isEnd && behindComma)
        message = "a comma too many before it";
    if (message == "invalid literal")
        message = "a word without quotes, or a number that is none";
    return "not JSON: " + message;
}

// Where the text in quotes begins that ends with the byte before `end`.
size_t beginOfQuoted(std::string_view text, size_t end)
{
    size_t quote = text.rfind('"', end - 2);
    const auto isEscaped = [&] {
        const size_t before = text.find_last_not_of('\\', quote - 1);
        return quote > 0 && (quote - before) % 2 == 0;  // npos + 1 is 0
    };
    while (isEscaped())
        quote = text.rfind('"', quote - 1);
    return quote;
}

// Where the number begins that ends with the byte before `end`, or with one before that.
size_t beginOfNumber(std::string_view text, size_t end)
{
    constexpr std::string_view characters = "+-.0123456789Ee";
    const size_t last = text.find_last_of(characters, end - 1);
    return text.find_last_not_of(characters, last) + 1;  // npos + 1 is 0
}

}  // namespace

nlohmann::ordered_json parseJson(const std::string& text)
{
    std::istringstream stream(text);
    const auto bytesRead = [&] {
        return static_cast<size_t>(stream.rdbuf()->pubseekoff(0, std::ios::cur, std::ios::in));
    };
    // Of members with the same name the parser would keep one, without a word.
    std::vector<std::set<std::string>> members;
    const auto refuseSame = [&](int, Json::parse_event_t event, const Json& parsed) {
        if (event == Json::parse_event_t::object_start)
            members.emplace_back();
        else if (event == Json::parse_event_t::object_end)
            members.pop_back();
        else if (event == Json::parse_event_t::key &&
                 !members.back().insert(parsed.get<std::string>()).second)
            throw JsonError(parsed.get<std::string>() + " is given twice",
                            beginOfQuoted(text, bytesRead()));
        return true;
    };
    try {
        return Json::parse(stream, refuseSame);
    } catch (const Json::parse_error& e) {
        const size_t at = e.byte == 0 ? 0 : e.byte - 1;
        const size_t before = at == 0 ? text.npos : text.find_last_not_of(" \t\r\n", at - 1);
        throw JsonError(reasonOf(e, before != text.npos && text[before] == ','), at);
    } catch (const Json::exception&) {
        throw JsonError("a number is out of range", beginOfNumber(text, bytesRead()));
    }
}

std::string placeIn(std::string_view text, size_t at)
{
    const std::string_view before = text.substr(0, std::min(at, text.size()));
    const auto line = 1 + std::count(before.begin(), before.end(), '\n');
    const size_t column = before.size() - (before.rfind('\n') + 1);  // npos + 1 is 0
    return std::to_string(line) + ":" + std::to_string(column + 1);
}

std::vector<size_t> elementPlaces(std::string_view array)
{
    std::vector<size_t> places;
    size_t depth = 0;
    bool isText = false;
    bool isDue = false;  // an element, behind the bracket or a comma
    for (size_t at = 0; at < array.size(); ++at) {
        const char c = array[at];
        if (isText) {
            if (c == '\\')
                ++at;
            isText = c != '"';
            continue;
        }
        const bool isBlank = std::string_view(" \t\r\n").find(c) != std::string_view::npos;
        if (depth == 1 && isDue && !isBlank && c != ']') {
            places.push_back(at);
            isDue = false;
        }
        isText = c == '"';
        if (c == '[' || c == '{')
            isDue = ++depth == 1;
        else if (c == ']' || c == '}')
            --depth;
        else if (c == ',' && depth == 1)
            isDue = true;
    }
    return places;
}
