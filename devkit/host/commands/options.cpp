#include "options.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <sstream>

#include "host/catalogue/names.h"

namespace {

std::string plainDigits(double number)
{
    std::ostringstream text;
    text.precision(17);
    text << number;
    return text.str();
}

// What the letters behind a number stand for; 0 for letters that are none.
double factorOf(const std::string& suffix, NumberKind::Unit unit)
{
    if (suffix.empty())
        return 1;
    const bool isLong = suffix.size() == 3 && suffix.compare(1, 2, "iB") == 0;
    const size_t power = std::string("kKmMgG").find(suffix.front()) / 2 + 1;
    if (power > 3 || unit == NumberKind::Plain ||
        (suffix.size() != 1 && !(isLong && unit == NumberKind::Bytes)))
        return 0;
    return std::pow(unit == NumberKind::Bytes ? 1024 : 1000, static_cast<double>(power));
}

// "1 to 256"
std::string rangeOf(const NumberKind& kind)
{
    std::ostringstream range;
    range.precision(15);
    range << kind.low << " to " << kind.high;
    return range.str();
}

std::string numberSentence(const NumberKind& kind)
{
    std::string sentence =
        std::string("takes a ") + (kind.isWhole ? "whole " : "") + "number from " + rangeOf(kind);
    if (kind.unit == NumberKind::Plain)
        return sentence;
    return sentence + ", also with K, M or G as in " +
           (kind.unit == NumberKind::Bytes ? "16M (powers of 1024)" : "10K (powers of 1000)");
}

}  // namespace

std::string withRange(const std::string& text, const NumberKind& kind)
{
    const size_t place = std::min(text.find(';'), text.size());
    return text.substr(0, place) + ", " + rangeOf(kind) + text.substr(place);
}

CLI::Validator numberOf(const NumberKind& kind)
{
    const auto read = [kind](std::string& text) {
        const char* const characters = kind.isWhole ? "0123456789" : "0123456789.eE+-";
        const size_t end = std::min(text.find_first_not_of(characters), text.size());
        const std::string digits = text.substr(0, end);
        const double factor = factorOf(text.substr(end), kind.unit);
        char* rest = nullptr;
        const double number = strtod(digits.c_str(), &rest) * factor;
        const bool isNumber = digits.find_first_of("0123456789.") == 0 && *rest == '\0';
        if (!isNumber || factor == 0 || !(number >= kind.low && number <= kind.high))
            return numberSentence(kind);
        // The parser takes a number behind a 0 for an octal one.
        text = plainDigits(number);
        return std::string();
    };
    return {read, ""};
}

CLI::Validator oneOf(const std::vector<std::string>& words)
{
    const auto check = [words](const std::string& text) {
        if (std::find(words.begin(), words.end(), text) != words.end())
            return std::string();
        return "takes " + anyOf(words) + didYouMean(nearName(words, text));
    };
    return {check, ""};
}

CLI::Validator notEmpty()
{
    return {[](const std::string& text) {
                return std::string(text.empty() ? "takes a name, not an empty text" : "");
            },
            ""};
}

CLI::Validator octalMode()
{
    return {[](const std::string& text) {
                const bool isMode = !text.empty() && text.size() <= 4 &&
                                    text.find_first_not_of("01234567") == std::string::npos &&
                                    (text.size() < 4 || text.front() == '0');
                return std::string(isMode ? "" : "takes a mode such as 0660");
            },
            ""};
}

void addRequestName(CLI::App& command, std::string& name)
{
    command.add_option("request", name, "Name of the request, as `corvane-host list` has it")
        ->required();
}

void addParameterOptions(CLI::App& command, WrittenParameters& parameters)
{
    command.add_option("parameters", parameters.arguments, "Parameters of the request")
        ->type_name("NAME=VALUE");
    command
        .add_option("--params-file", parameters.file,
                    "File of parameters: a JSON object, or lines name=value; - for stdin")
        ->type_name("FILE");
}
