// corvane-host serve: the service; and worker, one of its processes.
#include "serve/serve.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "serve/secrets.h"
#include "serve/worker.h"
#include "serve/worker_process.h"

namespace {

// This program once more, as a worker with the same libraries.
std::vector<std::string> workerCommand(const Program& program)
{
    std::vector<std::string> command = {"corvane-host"};
    for (const auto& [option, path] : {std::pair("--plugin", program.paths.plugin),
                                       {"--params", program.paths.params},
                                       {"--engine", program.paths.engine}})
        if (!path.empty())
            command.insert(command.end(), {option, path});
    command.emplace_back("worker");
    return command;
}

void work(Program& program)
{
    tieToParent();
    const Undumpable undumpable;
    const auto session = program.openSession();
    program.bareNames.removeFolder();
    Worker(*session).serve(workerSocket);
}

}  // namespace

void addServe(CLI::App& app, Program& program)
{
    const auto options = std::make_shared<ServeOptions>();
    CLI::App* command = app.add_subcommand("serve", "Serve requests by HTTP");
    addOptions(*command, *options);
    command->callback([options, &program] {
        // Workers would be started again and again.
        checkLibraries(withDefaults(program.paths));
        serve(*options, workerCommand(program), program.output);
    });
}

void addWorker(CLI::App& app, Program& program)
{
    app.add_subcommand("worker")->group("")->callback([&program] { work(program); });
}
