// corvane-host describe: one request in full.
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "commands.h"
#include "host/catalogue/descriptions.h"
#include "host/exchange.h"
#include "host/values.h"

namespace {

struct DescribeOptions {
    std::string request;
    bool json = false;
};

}  // namespace

void addDescribe(CLI::App& app, Program& program)
{
    const auto options = std::make_shared<DescribeOptions>();
    CLI::App* command = app.add_subcommand("describe", "Describe one request");
    command->add_option("request", options->request, "Name of the request")->required();
    command->add_flag("--json", options->json, "As JSON");
    command->callback([options, &program] {
        const RequestInfo* request = requestByName(options->request, false);
        program.output.write(options->json ? jsonText(toJson(*request), 2) + "\n"
                                           : describe(*request));
    });
}
