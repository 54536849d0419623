#include "help.h"

#include <algorithm>
#include <cctype>
#include <vector>

#include "host/catalogue/layout.h"

namespace {

constexpr size_t helpColumn = 28;

bool isRepeated(const CLI::Option& option)
{
    return option.get_expected_max() >= CLI::detail::expected_max_vector_size;
}

class HelpFormatter : public CLI::Formatter {
public:
    std::string make_description(const CLI::App* app) const override
    {
        return wrapped(app->get_description(), 0) + "\n";
    }

    std::string make_usage(const CLI::App* app, std::string name) const override
    {
        std::string usage = "Usage: " + name;
        for (const CLI::Option* option : app->get_options()) {
            if (!option->get_positional())
                continue;
            const std::string text = argumentName(*option) + (isRepeated(*option) ? " ..." : "");
            usage += option->get_required() ? " " + text : " [" + text + "]";
        }
        if (!app->get_subcommands([](const CLI::App*) { return true; }).empty())
            usage += " SUBCOMMAND";
        return usage + " [OPTION ...]\n";
    }

    std::string make_option(const CLI::Option* option, bool isArgument) const override
    {
        if (isArgument)
            return labelled("  " + argumentName(*option), helpColumn, option->get_description());
        std::string text = option->get_description();
        if (isRepeated(*option))
            text += "; may be given several times";
        if (!option->get_default_str().empty())
            text += "; default: " + option->get_default_str();
        const bool takesValue = option->get_type_size() != 0;
        return labelled("  " + option->get_name(false, true) +
                            (takesValue ? " " + option->get_type_name() : ""),
                        helpColumn, text);
    }

    std::string make_subcommand(const CLI::App* command) const override
    {
        return labelled("  " + command->get_name(), helpColumn, command->get_description());
    }
};

// The program's own options, which stand before or behind a subcommand.
std::string commonOptions(const CLI::App& app)
{
    std::string names;
    for (const CLI::Option* option : app.get_options())
        if (option != app.get_help_ptr() && option != app.get_version_ptr())
            names += (names.empty() ? "" : ", ") + option->get_name(false, true);
    return "Options of all subcommands, see " + app.get_name() + " --help: " + names;
}

}  // namespace

std::shared_ptr<CLI::Formatter> helpFormatter()
{
    auto formatter = std::make_shared<HelpFormatter>();
    formatter->label("Positionals", "Arguments");
    return formatter;
}

std::string helpOf(const CLI::App& app)
{
    const CLI::App* const parent = app.get_parent();
    const std::string name =
        parent == nullptr ? app.get_name() : parent->get_name() + " " + app.get_name();
    const std::string help = app.get_formatter()->make_help(&app, name, CLI::AppFormatMode::Normal);
    return parent == nullptr ? help : help + "\n" + wrapped(commonOptions(*parent), 0) + "\n";
}

std::string argumentName(const CLI::Option& option)
{
    std::string name = option.get_type_name();
    if (name != "TEXT" && !name.empty())
        return name;
    name = option.get_name(true, false);
    std::transform(name.begin(), name.end(), name.begin(), [](char c) {
        return static_cast<char>(toupper(static_cast<unsigned char>(c)));
    });
    return name;
}
