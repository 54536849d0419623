// corvane-host list: the requests and their parameters.
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "commands.h"
#include "host/catalogue/listings.h"
#include "host/catalogue/names.h"
#include "host/catalogue/renderings.h"
#include "host/values.h"

namespace {

struct ListOptions {
    bool json = false;
    bool brief = false;
    bool markdown = false;
    std::vector<std::string> words;
};

void checkThatOneMatches(const std::vector<std::string>& words)
{
    const auto& all = catalogue();
    if (std::any_of(all.begin(), all.end(),
                    [&](const RequestInfo& request) { return isAbout(request, words); }))
        return;
    std::string given;
    bool areShown = true;
    for (const std::string& word : words) {
        if (word.find('=') != std::string::npos)
            throw UsageError("list takes words to look for, not name=value");
        given += (given.empty() ? "" : " ") + word;
        areShown = areShown && isNameLike(word);
    }
    throw UsageError("no request matches " + (areShown ? given : "these words") +
                     "; try fewer or other words, as aes, gcm, rsa, sha256, mac, cms or session, "
                     "or list without words for all");
}

std::string listed(const ListOptions& options, const Style& style)
{
    checkThatOneMatches(options.words);
    auto json = nlohmann::ordered_json::array();
    std::string names;
    for (const RequestInfo& request : catalogue()) {
        if (!isAbout(request, options.words))
            continue;
        json.push_back(toJson(request));
        names.append(request.name).append("\n");
    }
    if (options.json)
        return jsonText(json, 2) + "\n";
    if (options.brief)
        return names;
    return options.markdown ? requestsDocument() : listRequests(options.words, style);
}

}  // namespace

void addList(CLI::App& app, Program& program)
{
    const auto options = std::make_shared<ListOptions>();
    CLI::App* command = app.add_subcommand("list", "List the requests and their parameters");
    CLI::Option* json = command->add_flag("--json", options->json, "As JSON");
    CLI::Option* brief =
        command->add_flag("--brief", options->brief, "The requests' names alone")->excludes(json);
    CLI::Option* words = command->add_option(
        "words", options->words, "Words, as aes or sha256, that the requests must be about");
    command->add_flag("--markdown", options->markdown, "As a document: docs/requests.md")
        ->excludes(json)
        ->excludes(brief)
        ->excludes(words);
    command->footer(
        "Examples:\n"
        "  corvane-host list\n"
        "  corvane-host list aes gcm\n"
        "  corvane-host list --brief");
    command->callback(
        [options, &program] { program.output.write(listed(*options, program.style())); });
}
