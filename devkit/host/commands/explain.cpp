// corvane-host explain: error codes in words.
#include <algorithm>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "commands.h"
#include "common/text.h"
#include "host/catalogue/listings.h"
#include "host/catalogue/names.h"
#include "host/catalogue/renderings.h"
#include "host/values.h"

namespace {

using CodeJson = nlohmann::ordered_json;

struct ExplainOptions {
    std::vector<std::string> words;
    bool json = false;
    bool brief = false;
};

// What is said of one code or one status.
struct Explanation {
    std::string text;
    CodeJson json;
};

Explanation explanationOf(const ErrorCode& row, const Style& style)
{
    return {explain(row, style), toJson(row)};
}

// Of the service's codes, and of the constants for numbers.
const ErrorCode& rowOfName(const std::string& name)
{
    std::vector<std::string> known;
    for (const auto* codes : {&hostCodes(), &errorCodes()})
        for (const ErrorCode& row : *codes) {
            if (row.name == name)
                return row;
            known.emplace_back(row.name);
        }
    const std::string near = nearName(known, name);
    throw UsageError("there is no code " + name +
                     (near.empty() ? "; `corvane-host explain` lists all" : didYouMean(near)));
}

// The minus sign of a number may be left out: all have one. Nothing else may stand in the text.
long numberOfCode(const std::string& text)
{
    char* end = nullptr;
    // Beyond these there is no code.
    const long number = std::clamp(strtol(text.c_str(), &end, 10), -1000000000L, 1000000000L);
    if (text.empty() || *end != '\0')
        throw UsageError(
            "an error code is a number, as in an errorCode result, FIRST..LAST, or a name that "
            "`corvane-host explain` lists");
    return number < 0 ? number : -number;
}

Explanation explanationOfStatus(unsigned status, const Style& style)
{
    Explanation all = {explainStatus(status, style), CodeJson::array()};
    for (const ErrorCode& row : hostCodes())
        if (row.status == status)
            all.json.push_back(toJson(row));
    for (const StatusText& row : otherStatuses())
        if (row.status == status)
            all.json.push_back({{"status", status}, {"text", row.text}});
    if (all.text.empty())
        throw UsageError(std::to_string(status) +
                         " is no HTTP status that `corvane-host serve` answers with");
    return all;
}

std::vector<Explanation> explanationsOfRange(const std::string& from, const std::string& to,
                                             const Style& style)
{
    const long one = numberOfCode(from);
    const long other = numberOfCode(to);
    std::vector<Explanation> all;
    for (const ErrorCode& row : errorCodes())
        if (row.code >= std::min(one, other) && row.code <= std::max(one, other))
            all.push_back(explanationOf(row, style));
    if (all.empty())
        throw UsageError("there is no code from " + from + " to " + to +
                         "; `corvane-host explain` lists all");
    return all;
}

Explanation explanationOfNumber(const std::string& text, const Style& style)
{
    constexpr long firstStatus = 100;
    constexpr long lastStatus = 599;
    const long number = numberOfCode(text);
    if (number == 0)
        return {explainSuccess(style), {{"code", 0}, {"name", "success"}, {"text", "success"}}};
    if (const ErrorCode* row = findErrorCode(static_cast<int>(number)))
        return explanationOf(*row, style);
    if (text[0] != '-' && -number >= firstStatus && -number <= lastStatus)
        return explanationOfStatus(static_cast<unsigned>(-number), style);
    throw UsageError(text +
                     " is neither the plug-in's nor the development engine's; "
                     "another engine has its own codes, see QZaVen_strerror");
}

std::vector<Explanation> explanationsOf(const std::vector<std::string>& words, const Style& style)
{
    std::vector<Explanation> all;
    for (const std::string& word : words) {
        const size_t dots = word.find("..");
        if (equalIgnoringCase(word, "HTTP")) {
            continue;  // as in "HTTP 421"; no code has the number of a status
        } else if (word.find_first_of("-0123456789") != 0) {
            all.push_back(explanationOf(rowOfName(word), style));
        } else if (dots != std::string::npos) {
            const auto range =
                explanationsOfRange(word.substr(0, dots), word.substr(dots + 2), style);
            all.insert(all.end(), range.begin(), range.end());
        } else {
            all.push_back(explanationOfNumber(word, style));
        }
    }
    return all;
}

// Also of words within one argument, as in "HTTP 421".
std::vector<std::string> wordsOf(const std::vector<std::string>& arguments)
{
    std::vector<std::string> words;
    for (const std::string& argument : arguments) {
        std::istringstream stream(argument);
        for (std::string word; stream >> word;)
            words.push_back(word);
    }
    return words;
}

std::string briefCodes()
{
    std::string lines;
    for (const auto* codes : {&errorCodes(), &hostCodes()})
        for (const ErrorCode& row : *codes)
            lines += codeText(row) + "\n";
    return lines;
}

std::string explained(const ExplainOptions& options, const Style& style)
{
    const auto all = explanationsOf(wordsOf(options.words), style);
    if (all.empty() && options.json)
        return jsonText(catalogueJson()["codes"], 2) + "\n";
    if (all.empty())
        return options.brief ? briefCodes() : listErrorCodes(style);
    if (options.json && all.size() == 1)
        return jsonText(all.front().json, 2) + "\n";
    CodeJson json = CodeJson::array();
    std::string text;
    for (const Explanation& one : all) {
        json.push_back(one.json);
        text += (text.empty() ? "" : "\n") + one.text;
    }
    return options.json ? jsonText(json, 2) + "\n" : text;
}

}  // namespace

void addExplain(CLI::App& app, Program& program)
{
    const auto options = std::make_shared<ExplainOptions>();
    CLI::App* command = app.add_subcommand(
        "explain", "Explain an error code: its meaning, likely cause and remedy");
    command->add_option("code", options->words,
                        "As in errorCode, FIRST..LAST, an error of the host's by its name, or a "
                        "status of HTTP; none: list all");
    CLI::Option* json = command->add_flag("--json", options->json, "As JSON");
    command->add_flag("--brief", options->brief, "The codes alone, when all are listed")
        ->excludes(json);
    command->footer(R"(Examples:
  corvane-host explain -30040
  corvane-host explain -30040..-30045
  corvane-host explain HTTP 421)");
    command->callback(
        [options, &program] { program.output.write(explained(*options, program.style())); });
}
