// corvane-host list: the requests and their parameters.
#include <memory>

#include "catalogue.h"
#include "commands.h"
#include "values.h"

namespace {

std::string listAsJson()
{
    auto json = nlohmann::ordered_json::array();
    for (const RequestInfo& request : catalogue())
        json.push_back(toJson(request));
    return write(json, 2) + "\n";
}

}  // namespace

void addList(CLI::App& app, Program& program)
{
    const auto json = std::make_shared<bool>(false);
    CLI::App* command = app.add_subcommand("list", "List the requests and their parameters");
    command->add_flag("--json", *json, "As JSON");
    command->callback(
        [json, &program] { program.output.write(*json ? listAsJson() : listRequests()); });
}
