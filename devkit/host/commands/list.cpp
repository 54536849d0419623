// corvane-host list: the requests and their parameters.
#include <memory>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "host/catalogue/renderings.h"
#include "host/values.h"

namespace {

struct ListOptions {
    bool json = false;
    bool names = false;
    bool markdown = false;
};

std::string listed(const ListOptions& options)
{
    if (options.json)
        return jsonText(catalogueJson()["requests"], 2) + "\n";
    if (options.names) {
        std::string names;
        for (const RequestInfo& request : catalogue())
            names.append(request.name).append("\n");
        return names;
    }
    return options.markdown ? requestsDocument() : listRequests();
}

}  // namespace

void addList(CLI::App& app, Program& program)
{
    const auto options = std::make_shared<ListOptions>();
    CLI::App* command = app.add_subcommand("list", "List the requests and their parameters");
    CLI::Option* json = command->add_flag("--json", options->json, "As JSON");
    CLI::Option* names =
        command->add_flag("--names", options->names, "The requests' names alone")->excludes(json);
    command->add_flag("--markdown", options->markdown, "As a document: docs/requests.md")
        ->excludes(json)
        ->excludes(names);
    command->callback([options, &program] { program.output.write(listed(*options)); });
}
