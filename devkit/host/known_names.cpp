#include "known_names.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>
#include <system_error>

#include "common/library_mark.h"
#include "host/catalogue/names.h"
#include "json_text.h"
#include "library_file.h"
#include "output.h"

namespace {

using Json = nlohmann::ordered_json;
using Names = std::map<std::string, Choices>;

bool isDevelopmentEngine(const std::string& engine)
{
    // A bare name is the loader's to find.
    return engine.find('/') != std::string::npos &&
           inspectLibrary(engine).mark == LIBRARY_MARK_DEVELOPMENT_ENGINE;
}

// The numbers that a parameter takes. Throws a UsageError if it is none, or takes none.
const Allowed& checkedNumbers(const std::string& name)
{
    if (const Allowed* numbers = numbersOf(name))
        return *numbers;
    if (isParameterName(name))
        throw UsageError(name + " takes no number");
    std::set<std::string> known;
    for (const RequestInfo& request : catalogue())
        for (const Parameter& parameter : request.parameters)
            known.insert(parameter.name);
    throw UsageError("there is no parameter " + name +
                     didYouMean(nearParameter({known.begin(), known.end()}, name)));
}

// Whether a number, as it is written, is one of those.
bool isAllowed(const Allowed& numbers, const std::string& written)
{
    if (numbers.kind == Allowed::OneOf)
        return written.size() == 1 && strchr(numbers.digits, written.front()) != nullptr;
    const double number = strtod(written.c_str(), nullptr);
    return number >= numbers.low && number <= numbers.high;
}

// The numbers' names in the order of the file, the first of a number to be shown.
Choices readChoices(const std::string& parameter, const Json& object)
{
    const Allowed& numbers = checkedNumbers(parameter);
    if (!object.is_object())
        throw UsageError(parameter + " must be an object, as {\"name\": 1}");
    Choices choices;
    std::map<std::string, std::string> seen;
    for (const auto& [name, number] : object.items()) {
        const std::string place = std::string(parameter).append(".").append(name);
        const std::string folded = foldedName(name);
        if (folded.find_first_not_of("0123456789+") == std::string::npos)
            throw UsageError(place + ": a name has other characters than a number");
        const auto [same, isNew] = seen.emplace(folded, name);
        if (!isNew)
            throw UsageError(place + " is the same name as " + same->second);
        const std::string value = number.dump();
        if (!number.is_number_integer() || !isAllowed(numbers, value))
            throw UsageError(place + " must be a number, " + allowedText(numbers));
        const auto known = std::find_if(choices.begin(), choices.end(), [&](const Choice& choice) {
            return choice.value == value;
        });
        if (known == choices.end())
            choices.push_back({value, name, {name}});
        else
            known->names.push_back(name);
    }
    return choices;
}

// A program that starts itself again reads the file twice, which a pipe does not allow.
std::string readText(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    const int reason = errno;
    std::error_code ignored;
    if (file && std::filesystem::is_regular_file(path, ignored))
        return {std::istreambuf_iterator<char>(file), {}};
    throw UsageError("cannot read " + path + ": " +
                     (file ? "it is no file" : std::generic_category().message(reason)) +
                     "; --names takes auto, development, none or a file");
}

Names readNames(const std::string& path)
{
    const std::string text = readText(path);
    try {
        const Json json = parseJson(text);
        if (!json.is_object())
            throw UsageError("must be an object of parameters");
        Names names;
        for (const auto& [parameter, object] : json.items())
            names[parameter] = readChoices(parameter, object);
        return names;
    } catch (const JsonError& e) {
        throw UsageError(path + ":" + placeIn(text, e.at) + ": " + e.what());
    } catch (const UsageError& e) {
        throw UsageError(path + ": " + e.what());
    }
}

}  // namespace

void useKnownNames(const std::string& what, const LibraryPaths& paths)
{
    if (what == "none" || (what == "auto" && !isDevelopmentEngine(withDefaults(paths).engine)))
        useNames({});
    else if (what != "auto" && what != "development")
        useNames(readNames(what));
}
