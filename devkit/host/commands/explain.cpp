// corvane-host explain: an error code in words.
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "commands.h"
#include "host/catalogue/renderings.h"
#include "host/values.h"

namespace {

struct ExplainOptions {
    std::string code;
    bool json = false;
};

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
    throw UsageError("there is no code " + name + "; did you mean " + nearestName(known, name) +
                     "? `corvane-host explain` lists all");
}

// The whole text must be a code. The minus sign of a number may be left out: all have one.
const ErrorCode& rowOf(const std::string& text)
{
    if (text.find_first_of("-0123456789") != 0)
        return rowOfName(text);
    char* end = nullptr;
    const long number = strtol(text.c_str(), &end, 10);
    if (*end != '\0')
        throw UsageError(
            "an error code is a number, as in an errorCode result, or a name that "
            "`corvane-host explain` lists");
    if (number == 0)
        throw UsageError("0 is success");
    const ErrorCode* row = findErrorCode(static_cast<int>(number < 0 ? number : -number));
    if (row == nullptr)
        throw UsageError(text +
                         " is neither the plug-in's nor the development engine's; "
                         "another engine has its own codes, see QZaVen_strerror");
    return *row;
}

std::string allAsJson()
{
    return jsonText(catalogueJson()["codes"], 2) + "\n";
}

}  // namespace

void addExplain(CLI::App& app, Program& program)
{
    const auto options = std::make_shared<ExplainOptions>();
    CLI::App* command = app.add_subcommand(
        "explain", "Explain an error code: its meaning, likely cause and remedy");
    command->add_option("code", options->code,
                        "As in errorCode, or an error of the host's by its name; none: list all");
    command->add_flag("--json", options->json, "As JSON");
    command->callback([options, &program] {
        if (options->code.empty())
            return program.output.write(options->json ? allAsJson() : listErrorCodes());
        const ErrorCode& row = rowOf(options->code);
        program.output.write(options->json ? jsonText(toJson(row), 2) + "\n" : explain(row));
    });
}
