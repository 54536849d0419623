// The manual pages, held against what programs and libraries say of themselves.
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "params_interface.h"
#include "support/built_library.h"
#include "support/files.h"
#include "support/shell.h"

namespace {

using Names = std::set<std::string>;
using Lines = std::vector<std::string>;

Lines linesOf(const std::string& text)
{
    std::istringstream stream(text);
    Lines lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

std::string pageFile(const std::string& name)
{
    return CORVANE_BUILD_DIR "/share/man/man" + name.substr(name.size() - 1) + "/" + name;
}

Lines page(const std::string& name)
{
    const std::string text = support::readWhole(pageFile(name));
    EXPECT_NE("", text) << name;
    return linesOf(text);
}

// What a command writes to standard output; it must succeed.
std::string outputOf(const std::string& command)
{
    const support::ShellOutcome ended = support::shell("{ " + command + "; } 2>/dev/null");
    EXPECT_EQ(0, ended.status) << command;
    return ended.output;
}

struct Option {
    bool takesArgument = false;
    std::string range;  // "1 to 256"
    std::string byDefault;
    std::string text;  // of a page

    friend bool operator==(const Option& a, const Option& b)
    {
        return a.takesArgument == b.takesArgument;
    }
};
using Options = std::map<std::string, Option>;
using Subcommands = std::map<std::string, Options>;  // "" is the program itself

std::ostream& operator<<(std::ostream& out, const Option& option)
{
    return out << (option.takesArgument ? "with an argument" : "alone");
}

// Rows such as "  -o,--output FILE" and "  --workers NUMBER    Processes, 1 to 256; default: 4",
// with further lines below the text.
Options optionsOfHelp(const std::string& help)
{
    static const std::regex row("  (?:(-[a-z]),)?(--[a-z-]+)( [A-Z]{2,})?(?: .*)?");
    static const std::regex bounds("([0-9.]+ to [0-9.]+)");
    static const std::regex byDefault("; default: ([0-9a-z.:]+)$");
    Options options;
    std::smatch match;
    Lines items;
    for (const std::string& line : linesOf(help))
        if (line.rfind("  -", 0) == 0)
            items.push_back(line);
        else if (line.rfind("     ", 0) == 0 && !items.empty())
            items.back() += " " + line.substr(line.find_first_not_of(' '));
        else
            items.emplace_back();
    for (const std::string& item : items) {
        if (!std::regex_match(item, match, row))
            continue;
        Option option = {match[3].matched, "", "", ""};
        const Names names = {match[1], match[2]};
        if (std::regex_search(item, match, bounds))
            option.range = match[1];
        if (std::regex_search(item, match, byDefault))
            option.byDefault = match[1];
        for (const std::string& name : names)
            if (!name.empty())
                options[name] = option;
    }
    return options;
}

Names subcommandsOfHelp(const std::string& help)
{
    static const std::regex row("  ([a-z-]+)  .*");
    Names names;
    std::smatch match;
    bool isThere = false;
    for (const std::string& line : linesOf(help)) {
        isThere = line == "Subcommands:" || (isThere && !line.empty());
        if (isThere && std::regex_match(line, match, row))
            names.insert(match[1]);
    }
    return names;
}

Subcommands helpOf(const std::string& program)
{
    const std::string help = outputOf("'" + program + "' --help");
    Subcommands all = {{"", optionsOfHelp(help)}};
    for (const std::string& name : subcommandsOfHelp(help)) {
        all[name] = optionsOfHelp(outputOf("'" + program + "' " + name + " --help"));
        // Every subcommand has it, and the page tells it once.
        EXPECT_EQ(2U, all[name].erase("-h") + all[name].erase("--help")) << name;
    }
    return all;
}

// Items such as ".It Fl o , Fl -output Ar file", by the ".Ss name" above them.
Subcommands optionsOfPage(const Lines& page)
{
    static const std::regex flag("Fl (\\S+)");
    Subcommands all;
    std::string subcommand;
    Names open;  // the options of the item that is being read
    for (const std::string& line : page) {
        if (line.rfind(".Ss ", 0) == 0)
            subcommand = line.substr(4, line.find(' ', 4) - 4);
        Options& options = all[subcommand];
        if (line.rfind(".It ", 0) == 0 || line == ".El")
            open.clear();
        if (line.rfind(".It Fl ", 0) == 0)
            for (std::sregex_iterator hit(line.begin(), line.end(), flag), end; hit != end; ++hit) {
                const std::string name = "-" + (*hit)[1].str();
                EXPECT_EQ(0U, options.count(name)) << subcommand << " " << name << " comes twice";
                options[name].takesArgument = line.find(" Ar ") != std::string::npos;
                open.insert(name);
            }
        for (const std::string& name : open)
            options[name].text += line + "\n";
        if (line.rfind(".Sh ", 0) == 0)
            subcommand.clear();
    }
    return all;
}

Names itemsOf(const Lines& page, const std::string& section)
{
    Names items;
    bool isThere = false;
    for (const std::string& line : page) {
        if (line.rfind(".Sh ", 0) == 0)
            isThere = line == ".Sh " + section;
        if (isThere && line.rfind(".It ", 0) == 0)
            items.insert(line.substr(4));
    }
    return items;
}

// "Exit codes: 0 success, 1 refused, 2 usage".
Names exitCodesOfHelp(const std::string& program)
{
    static const std::regex code("[:,] ([0-9]+) ");
    Names codes;
    for (const std::string& line : linesOf(outputOf("'" + program + "' --help")))
        if (line.rfind("Exit codes:", 0) == 0)
            for (std::sregex_iterator hit(line.begin(), line.end(), code), end; hit != end; ++hit)
                codes.insert((*hit)[1]);
    return codes;
}

Names namesOf(const Subcommands& subcommands)
{
    Names names;
    for (const auto& [name, options] : subcommands)
        names.insert(name);
    return names;
}

struct Program {
    const char* name;
    const char* file;

    friend std::ostream& operator<<(std::ostream& out, const Program& program)
    {
        return out << program.name;
    }
};

class ManPage : public testing::TestWithParam<Program> {
protected:
    const Lines m_page = page(std::string(GetParam().name) + ".1");
};

TEST_P(ManPage, HasTheOptionsOfTheHelpAndNoOthers)
{
    const Subcommands help = helpOf(GetParam().file);
    Subcommands told = optionsOfPage(m_page);
    EXPECT_EQ(namesOf(help), namesOf(told));
    EXPECT_GT(help.size(), 5U);
    for (const auto& [name, options] : help)
        EXPECT_EQ(options, told[name]) << "subcommand '" << name << "'";
}

TEST_P(ManPage, HasTheBoundsAndDefaultsOfTheHelp)
{
    size_t bounds = 0;
    size_t defaults = 0;
    Subcommands told = optionsOfPage(m_page);
    for (const auto& [subcommand, options] : helpOf(GetParam().file))
        for (const auto& [name, option] : options) {
            const std::string& text = told[subcommand][name].text;
            EXPECT_NE(std::string::npos, text.find(option.range)) << name << "\n" << text;
            EXPECT_NE(std::string::npos, text.find(option.byDefault)) << name << "\n" << text;
            bounds += option.range.empty() ? 0 : 1;
            defaults += option.byDefault.empty() ? 0 : 1;
        }
    const bool hasNumbers = GetParam().name == std::string("corvane-host");
    EXPECT_GE(bounds, hasNumbers ? 19U : 0U);
    EXPECT_GE(defaults, hasNumbers ? 18U : 0U);
}

TEST_P(ManPage, HasTheExitCodesOfTheHelp)
{
    const Names codes = exitCodesOfHelp(GetParam().file);
    EXPECT_GE(codes.size(), 3U);
    EXPECT_EQ(codes, itemsOf(m_page, "EXIT STATUS"));
}

INSTANTIATE_TEST_SUITE_P(Of, ManPage,
                         testing::Values(Program{"corvane-host", CORVANE_HOST_PROGRAM},
                                         Program{"corvane-ke-peer", CORVANE_KE_PEER_PROGRAM}),
                         [](const auto& program) {
                             return std::string(program.index == 0 ? "Host" : "Peer");
                         });

const char* const pages[] = {"corvane-host.1", "corvane-ke-peer.1", "corvane_plugin.3"};

TEST(ManPages, PleaseTheirFormatters)
{
    for (const std::string name : pages)
        for (const std::string& command :
             {"mandoc -T lint -W warning '" + pageFile(name) + "'",
              "man --warnings -E UTF-8 -Tutf8 -l '" + pageFile(name) + "' 2>&1 >/dev/null"}) {
            const support::ShellOutcome ended = support::shell(command);
            EXPECT_EQ(0, ended.status) << command;
            EXPECT_EQ("", ended.output) << command;
        }
}

TEST(ManPages, NameTheVersion)
{
    for (const std::string name : pages)
        EXPECT_NE(std::string::npos,
                  outputOf("mandoc '" + pageFile(name) + "'").find("Corvane " CORVANE_VERSION))
            << name;
}

// ---- corvane_plugin(3).

Names functionsOf(const Lines& page, const std::string& from, const std::string& to)
{
    static const std::regex function("Fn ([A-Za-z_]+)");
    Names names;
    bool isThere = false;
    for (const std::string& line : page) {
        isThere = line == from || (isThere && line != to);
        if (isThere)
            for (std::sregex_iterator hit(line.begin(), line.end(), function), end; hit != end;
                 ++hit)
                names.insert((*hit)[1]);
    }
    return names;
}

// What the installed headers declare: all but the codec, which is for handlers of a host's own.
TEST(PluginPage, HasTheExportsForHosts)
{
    static const std::regex symbol("[0-9a-f]+ [TD] (Corvane_plugin_\\w+|log_\\w+|_log_level)");
    Names exports;
    std::smatch match;
    for (const std::string& line : support::tool("nm -D --defined-only"))
        if (std::regex_match(line, match, symbol))
            exports.insert(match[1]);
    const Lines lines = page("corvane_plugin.3");
    Names told = functionsOf(lines, ".Sh SYNOPSIS", ".Sh DESCRIPTION");
    for (const std::string& line : lines)
        if (line == ".Vt extern int _log_level ;")
            told.insert("_log_level");
    EXPECT_EQ(8U, exports.size());
    EXPECT_EQ(exports, told);
}

TEST(PluginPage, HasTheFunctionsOfTheModule)
{
#define NAME(name, parameters) #name,
    const Names functions = {CORVANE_PARAMS_FUNCTIONS(NAME)};
#undef NAME
    EXPECT_EQ(functions,
              functionsOf(page("corvane_plugin.3"), ".Ss The parameter module", ".Ss Log"));
}

// The first program of the page, as `man` shows it.
std::string example()
{
    std::string program;
    bool isThere = false;
    for (const std::string& line : page("corvane_plugin.3")) {
        if (line == ".Ed" && isThere)
            break;
        isThere = isThere || line.rfind("#include", 0) == 0;
        if (isThere)
            program += std::regex_replace(line, std::regex("\\\\e"), "\\") + "\n";
    }
    return program;
}

TEST(PluginPage, HasAnExampleThatWorks)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "NOT TESTED: a program without the sanitizer cannot load libraries with it";
#endif
    const support::TemporaryFolder folder;
    const std::string source = folder.write("example.c", example());
    const auto folderOf = [](const std::string& file) { return file.substr(0, file.rfind('/')); };
    const std::string plugin = folderOf(CORVANE_PLUGIN_LIBRARY);
    const std::string devkit = folderOf(CORVANE_PARAMS_LIBRARY);
    const std::string program = folder.path("example");
    outputOf(CORVANE_TOOLCHAIN "gcc -std=c11 -Wall -Wextra -Werror -I '" CORVANE_SOURCE_DIR
                               "/src' '" +
             source + "' -o '" + program + "' -L '" + plugin + "' -lCorvane_plugin -L '" + devkit +
             "' -lCorvaneParamsModule");
    const std::string text = outputOf("LD_LIBRARY_PATH='" + plugin + ":" + devkit +
                                      "' " CORVANE_EMULATOR " '" + program + "'");
    EXPECT_EQ(
        outputOf("'" CORVANE_HOST_PROGRAM "' call QZaVen_strerror strErr=-20084 --raw Data") + "\n",
        text);
    EXPECT_GT(text.size(), 10U);
}

}  // namespace
