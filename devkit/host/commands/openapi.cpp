// corvane-host openapi: the HTTP interface for other programs.
#include "host/catalogue/openapi.h"

#include <nlohmann/json.hpp>

#include "commands.h"
#include "host/values.h"

void addOpenApi(CLI::App& app, Program& program)
{
    CLI::App* command =
        app.add_subcommand("openapi", "Print the HTTP interface as an OpenAPI 3.1 document");
    command->footer("Examples:\n  corvane-host openapi >openapi.json");
    command->callback([&program] { program.output.write(jsonText(openApi(), 2) + "\n"); });
}
