// corvane-host describe: one request in full.
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "commands.h"
#include "host/catalogue/listings.h"
#include "host/catalogue/renderings.h"
#include "host/exchange.h"
#include "host/values.h"
#include "options.h"

namespace {

struct DescribeOptions {
    std::string request;
    bool json = false;
    bool brief = false;
};

// The few values that a parameter may have, or nothing.
std::vector<std::string> valuesOf(const Parameter& parameter)
{
    std::vector<std::string> values;
    for (const Choice& choice : parameter.choices)
        values.push_back(choice.names.front());
    if (values.empty() && parameter.allowed.kind == Allowed::OneOf)
        for (const char* digit = parameter.allowed.digits; *digit != '\0'; ++digit)
            values.emplace_back(1, *digit);
    return values;
}

// A line `name=value` for each of the few values of a parameter, `name=` if it may have others.
std::string brief(const RequestInfo& request)
{
    std::string lines;
    for (const Parameter& parameter : request.parameters) {
        std::vector<std::string> values = valuesOf(parameter);
        if (values.empty())
            values.emplace_back();
        for (const std::string& value : values)
            lines.append(parameter.name).append("=").append(value).append("\n");
    }
    return lines;
}

std::string described(const DescribeOptions& options, const Style& style)
{
    const RequestInfo* request = requestByName(options.request, false);
    if (options.json)
        return jsonText(toJson(*request), 2) + "\n";
    return options.brief ? brief(*request) : describe(*request, style);
}

}  // namespace

void addDescribe(CLI::App& app, Program& program)
{
    const auto options = std::make_shared<DescribeOptions>();
    CLI::App* command = app.add_subcommand("describe", "Describe one request");
    addRequestName(*command, options->request);
    CLI::Option* json = command->add_flag("--json", options->json, "As JSON");
    command
        ->add_flag("--brief", options->brief,
                   "The parameters alone, as name= or as name=value for the few values of one")
        ->excludes(json);
    command->footer(
        "Examples:\n"
        "  corvane-host describe QZaven_crypto_encrypt\n"
        "  corvane-host describe QZaven_crypto_hmac --json");
    command->callback(
        [options, &program] { program.output.write(described(*options, program.style())); });
}
