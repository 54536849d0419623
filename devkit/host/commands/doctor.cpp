// corvane-host doctor: whether the libraries work here, and what to do if not.
#include <algorithm>
#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "commands.h"
#include "host/catalogue/layout.h"
#include "host/doctor/isolation.h"
#include "host/doctor/known_answers.h"
#include "host/doctor/library_checks.h"
#include "host/doctor/surroundings.h"
#include "host/values.h"
#include "options.h"

namespace {

struct DoctorOptions {
    bool json = false;
    unsigned seconds = 30;
};

void append(Findings& findings, const Findings& more)
{
    findings.insert(findings.end(), more.begin(), more.end());
}

size_t count(const Findings& findings, Status status)
{
    return static_cast<size_t>(
        std::count_if(findings.begin(), findings.end(),
                      [&](const Finding& finding) { return finding.status == status; }));
}

bool cannotLoad(const Findings& findings)
{
    return std::any_of(findings.begin(), findings.end(), [](const Finding& finding) {
        return finding.status == Status::Fail && finding.loading;
    });
}

Findings examine(const std::vector<LibraryChoice>& libraries, Subject& subject,
                 std::chrono::seconds limit)
{
    Findings findings = {checkSystem(), checkSearchPath()};
    std::vector<Check> loading;
    for (const LibraryChoice& library : libraries) {
        append(findings, checkFile(library));
        if (library.look.fault.empty())
            loading.push_back(libraryCheck(library));
    }
    append(findings, checkLogTargets());
    append(findings, runIsolated(loading, limit));

    if (!cannotLoad(findings))
        append(findings, runIsolated({startCheck(subject)}, limit));
    if (cannotLoad(findings)) {
        findings.push_back({"requests", Status::Note, "not tried, as the libraries do not start"});
        return findings;
    }
    std::vector<Check> requests = requestChecks(subject);
    requests.push_back(endCheck(subject));
    append(findings, runIsolated(requests, limit));
    return findings;
}

const char* statusName(Status status)
{
    return status == Status::Ok ? "ok" : status == Status::Note ? "note" : "FAIL";
}

// A message of a library may have several lines.
std::string inOneLine(std::string text)
{
    std::replace_if(
        text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20; }, ' ');
    return text;
}

constexpr size_t statusColumns = 6;

// Green, yellow or red.
std::string shownStatus(Status status, const Style& style)
{
    std::string name = statusName(status);
    const std::string gap(statusColumns - name.size(), ' ');
    if (style.isColoured)
        name = (status == Status::Ok     ? "\033[32m"
                : status == Status::Note ? "\033[33m"
                                         : "\033[1;31m") +
               name + "\033[0m";
    return name + gap;
}

std::string asText(const Findings& findings, const Style& style)
{
    constexpr size_t detailColumn = 40;
    std::string text;
    for (const Finding& finding : findings) {
        // The status takes the columns of the blanks here, and colours none.
        std::string line = labelled(std::string(statusColumns, ' ') + finding.name, detailColumn,
                                    inOneLine(finding.detail));
        text += line.replace(0, statusColumns, shownStatus(finding.status, style));
        if (!finding.hint.empty())
            text += labelled("      ->", 9, inOneLine(finding.hint));
    }
    return text + "\n" + std::to_string(findings.size()) +
           " checks: " + std::to_string(count(findings, Status::Ok)) + " ok, " +
           std::to_string(count(findings, Status::Note)) + " to note, " +
           std::to_string(count(findings, Status::Fail)) + " failed\n";
}

std::string asJson(const Findings& findings)
{
    auto checks = nlohmann::ordered_json::array();
    for (const Finding& finding : findings)
        checks.push_back({{"name", finding.name},
                          {"status", statusName(finding.status)},
                          {"detail", finding.detail},
                          {"hint", finding.hint}});
    return jsonText({{"checks", checks}, {"ok", count(findings, Status::Fail) == 0}}, 2) + "\n";
}

ExitCode doctor(Program& program, const DoctorOptions& options)
{
    const std::vector<LibraryChoice> libraries = chooseLibraries(program.paths);
    if (std::any_of(libraries.begin(), libraries.end(), [](const LibraryChoice& library) {
            return library.look.fault.empty() && hasForeignName(library);
        }))
        program.startAgain();

    Subject subject(withDefaults(program.paths));
    const Findings findings = examine(libraries, subject, std::chrono::seconds(options.seconds));
    program.output.write(options.json ? asJson(findings) : asText(findings, program.style()));
    if (cannotLoad(findings))
        return LOADING;
    return count(findings, Status::Fail) == 0 ? SUCCESS : REFUSED;
}

}  // namespace

void addDoctor(CLI::App& app, Program& program)
{
    const auto options = std::make_shared<DoctorOptions>();
    CLI::App* command =
        app.add_subcommand("doctor", "Look whether the libraries work here, and what is wrong");
    command->add_flag("--json", options->json, "As JSON");
    addNumber(*command, "--seconds", options->seconds, {NumberKind::Plain, 1, 3600, true},
              "Time for the checks that one process makes")
        ->capture_default_str();
    command->footer("Examples:\n  corvane-host doctor\n  corvane-host doctor --json --seconds 60");
    command->callback([options, &program] { program.exitCode = doctor(program, *options); });
}
