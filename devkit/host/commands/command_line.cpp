#include "command_line.h"

#include <algorithm>
#include <cctype>

#include "help.h"
#include "host/catalogue/names.h"

namespace {

using Words = std::vector<std::string>;

const CLI::App* chosenCommand(const CLI::App& app)
{
    const auto chosen = app.get_subcommands();
    return chosen.empty() ? nullptr : chosen.back();
}

Words shownCommands(const CLI::App& app)
{
    Words names;
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; }))
        if (!command->get_group().empty())
            names.push_back(command->get_name());
    return names;
}

Words optionsOf(const CLI::App& app)
{
    Words names;
    for (const CLI::Option* option : app.get_options()) {
        for (const std::string& name : option->get_lnames())
            names.push_back("--" + name);
        for (const std::string& name : option->get_snames())
            names.push_back("-" + name);
    }
    return names;
}

bool has(const Words& words, const std::string& word)
{
    return std::find(words.begin(), words.end(), word) != words.end();
}

// "-x" or "--words", without "=" and what follows. URL-safe Base64 may begin with "-" too, so that
// "" is given for whatever does not look like an option's name.
std::string optionName(const std::string& argument)
{
    constexpr size_t longest = 40;
    std::string name = argument.substr(0, argument.find('='));
    const auto isFit = [](char c) {
        return isalpha(static_cast<unsigned char>(c)) != 0 || c == '-';
    };
    const auto isLetter = [&](size_t at) { return isalpha(static_cast<unsigned char>(name[at])); };
    if (name.size() == 2 && name[0] == '-' && isLetter(1) != 0)
        return name;
    const bool isLong = name.size() > 3 && name.size() <= longest &&
                        name.compare(0, 2, "--") == 0 && isLetter(2) != 0;
    return isLong && std::all_of(name.begin(), name.end(), isFit) ? name : "";
}

std::string unknownOption(const CLI::App& app, const std::string& name)
{
    const CLI::App* const command = chosenCommand(app);
    Words known = optionsOf(app);
    if (command != nullptr) {
        const Words own = optionsOf(*command);
        if (has(own, name))
            return name + " is an option of " + command->get_name() + " and stands behind it";
        known.insert(known.end(), own.begin(), own.end());
    }
    std::string sentence = "there is no option " + name;
    const bool isServe = command != nullptr && command->get_name() == "serve";
    for (const char* address : {"--port", "--address", "--host", "--bind"})
        if (isServe && name == address)
            return sentence + didYouMean("--listen ADDRESS:PORT");
    const std::string bare = name.substr(name.find_first_not_of('-'));
    if (isParameterName(bare))
        return sentence + "; parameters are written without dashes: " + bare + "=VALUE";
    const std::string near = nearName(known, name);
    if (name.size() > 2 && !near.empty())
        return sentence + didYouMean(near);
    for (const CLI::App* other : app.get_subcommands([](const CLI::App*) { return true; }))
        if (!other->get_group().empty() && has(optionsOf(*other), name))
            return name + " is an option of " + other->get_name() +
                   (command == nullptr ? "" : ", not of " + command->get_name());
    return sentence;
}

std::string unplaced(const CLI::App& app, const Words& given)
{
    const Words extras = app.remaining(true);
    const CLI::App* const command = chosenCommand(app);
    if (command == nullptr && !extras.empty() && extras.front().front() != '-')
        return noSubcommand(app, extras.front());
    for (const std::string& extra : extras) {
        const std::string name = optionName(extra);
        if (!name.empty())
            return unknownOption(app, name);
    }
    if (command == nullptr)
        return "there is no subcommand";
    const auto place =
        extras.empty() ? given.end() : std::find(given.begin(), given.end(), extras.front());
    const std::string which = place == given.end()
                                  ? "an argument"
                                  : "argument " + std::to_string(place - given.begin() + 1);
    return which + " has no place in " + command->get_name();
}

std::string missingArgument(const CLI::App& app, const std::string& name)
{
    const CLI::App* const command = chosenCommand(app);
    if (command == nullptr)
        return name + " is missing";
    const CLI::Option* const option = command->get_option_no_throw(name);
    if (option == nullptr)
        return command->get_name() + ": " + name + " is missing";
    return command->get_name() + ": " + argumentName(*option) + " is missing (" +
           option->get_description() + ")";
}

// Messages of the parser begin with the option's name and a colon.
std::string beforeColon(const std::string& message)
{
    return message.substr(0, message.find(':'));
}

std::string mismatch(const std::string& message)
{
    constexpr const char* refusal = " was given a disallowed flag override";
    const size_t found = message.find(refusal);
    if (found != std::string::npos)
        return "--" + message.substr(0, found) + " takes no value";
    const std::string option = beforeColon(message);
    if (message.find(" missing") != std::string::npos)
        return option + " lacks its value";
    return option + " is given more than once";
}

}  // namespace

std::string sentenceOf(const CLI::ParseError& error, const CLI::App& app, const Words& given)
{
    std::string message = error.what();
    if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr)
        return unplaced(app, given);
    if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr) {
        // An option that is not known may be what was meant to be the argument.
        const Words extras = app.remaining(true);
        const bool isOption = !extras.empty() && !optionName(extras.front()).empty();
        return chosenCommand(app) == nullptr || isOption
                   ? unplaced(app, given)
                   : missingArgument(app, message.substr(0, message.find(' ')));
    }
    if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr)
        return mismatch(message);
    if (dynamic_cast<const CLI::ExcludesError*>(&error) != nullptr) {
        constexpr const char* middle = " excludes ";
        const size_t found = message.find(middle);
        return message.substr(0, found) + " and " +
               message.substr(found + std::string(middle).size()) + " exclude each other";
    }
    if (dynamic_cast<const CLI::ValidationError*>(&error) != nullptr)
        return message;  // "--count: takes ...", by our own checks
    if (dynamic_cast<const CLI::ConversionError*>(&error) != nullptr)
        return "an option's value is not of its kind";
    return "the command line cannot be understood";
}

std::string helpCommand(const CLI::App& app)
{
    const CLI::App* const command = chosenCommand(app);
    return app.get_name() + (command == nullptr ? "" : " " + command->get_name()) + " --help";
}

std::string noSubcommand(const CLI::App& app, const std::string& name)
{
    const Words known = shownCommands(app);
    const std::string near = nearName(known, name);
    if (!near.empty())
        return "there is no such subcommand" + didYouMean(near);
    if (findRequest(name) != nullptr)
        return name + " is a request; to send it: " + app.get_name() + " call " + name;
    std::string all;
    for (const std::string& command : known)
        all += (all.empty() ? "" : ", ") + command;
    return "there is no such subcommand; there are " + all;
}

void refuseFlagValues(CLI::App& app)
{
    std::vector<CLI::App*> commands = app.get_subcommands([](CLI::App*) { return true; });
    commands.push_back(&app);
    for (CLI::App* command : commands)
        for (CLI::Option* option : command->get_options())
            if (option->get_expected_max() == 0)
                option->disable_flag_override();
}
