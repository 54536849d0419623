// Options that several subcommands have, and checks of options' values. Each check refuses
// with a sentence that follows the option's name.
#ifndef CORVANE_HOST_COMMANDS_OPTIONS_H
#define CORVANE_HOST_COMMANDS_OPTIONS_H

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <sstream>
#include <string>

#include "host/parameters.h"

// Numbers as people write them; none that a type could not hold passes, and neither does NaN.
inline CLI::Validator between(double low, double high, bool isWhole)
{
    std::ostringstream range;
    range.precision(15);
    range << low << " to " << high;
    const auto check = [=, range = range.str()](const std::string& text) {
        const char* const characters = isWhole ? "0123456789" : "0123456789.eE+-";
        const bool isPlain = text.find_first_not_of(characters) == std::string::npos &&
                             text.find_first_of("0123456789.") == 0;
        char* end = nullptr;
        const double number = strtod(text.c_str(), &end);
        if (isPlain && *end == '\0' && number >= low && number <= high)
            return std::string();
        return std::string("takes a ") + (isWhole ? "whole " : "") + "number from " + range;
    };
    return {check, range.str()};
}

// An empty text is a variable that was not set, rather than a wish to do without.
inline CLI::Validator notEmpty()
{
    return {[](const std::string& text) {
                return std::string(text.empty() ? "takes a name, not an empty text" : "");
            },
            ""};
}

// As chmod takes it, without bits that have no meaning for a socket.
inline CLI::Validator octalMode()
{
    return {[](const std::string& text) {
                const bool isMode = !text.empty() && text.size() <= 4 &&
                                    text.find_first_not_of("01234567") == std::string::npos &&
                                    (text.size() < 4 || text.front() == '0');
                return std::string(isMode ? "" : "takes a mode such as 0660");
            },
            ""};
}

// The options of a subcommand that sends a request. The parameters must outlive it.
inline void addParameterOptions(CLI::App& command, WrittenParameters& parameters)
{
    command.add_option("parameters", parameters.arguments, "name=value ...");
    command
        .add_option("--params-file", parameters.file,
                    "File of parameters: a JSON object, or lines name=value; - for stdin")
        ->type_name("FILE");
}

#endif
