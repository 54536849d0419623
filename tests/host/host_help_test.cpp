// What corvane-host says of itself: helps, their examples, lists that fit a terminal, colours, and
// what --quiet leaves out.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <regex>
#include <sstream>
#include <vector>

#include "support/held.h"
#include "support/host_program.h"
#include "support/shell.h"

namespace {

using namespace support;
using namespace std::string_literals;

using HostHelp = Host;
using HostLooks = Host;
using HostNumbers = Host;

std::vector<std::string> linesOf(const std::string& text)
{
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

void expectNarrow(const Ended& ended, const std::string& what)
{
    EXPECT_EQ(SUCCESS, ended.code) << what << ended.err;
    EXPECT_NE("", ended.out) << what;
    for (const std::string& line : linesOf(ended.out)) {
        EXPECT_LE(line.size(), 80U) << what << ": " << line;
        EXPECT_EQ(std::string::npos, line.find('\033')) << what << ": " << line;
    }
}

std::vector<std::string> subcommands(const std::string& help)
{
    static const std::regex row("  ([a-z]+)  .*");
    std::vector<std::string> names;
    std::smatch match;
    bool isThere = false;
    for (const std::string& line : linesOf(help)) {
        isThere = line == "Subcommands:" || (isThere && !line.empty());
        if (isThere && std::regex_match(line, match, row))
            names.push_back(match[1]);
    }
    EXPECT_GE(names.size(), 12U);
    return names;
}

// ---- Helps.

TEST_F(HostHelp, FitsATerminal)
{
    const Ended help = run({"--help"});
    expectNarrow(help, "--help");
    for (const std::string& name : subcommands(help.out))
        expectNarrow(run({name, "--help"}), name);
}

TEST_F(HostHelp, IsAskedForInTwoWays)
{
    const Ended help = run({"--help"});
    EXPECT_EQ(help.out, run({"help"}).out);
    for (const std::string& name : subcommands(help.out))
        EXPECT_EQ(run({name, "--help"}).out, run({"help", name}).out) << name;
    EXPECT_EQ(run({"--version"}).out, run({"version"}).out);
    EXPECT_EQ(0U, run({"version"}).out.find("corvane-host " CORVANE_VERSION));
}

TEST_F(HostHelp, TellsWhereItBelongs)
{
    const Ended help = run({"--help"});
    EXPECT_TRUE(holds(help.out, "\nUsage: corvane-host SUBCOMMAND [OPTION ...]\n")) << help.out;
    EXPECT_TRUE(holds(help.out, "\nExit codes: 0 success, 1 refused")) << help.out;
    for (const std::string& name : subcommands(help.out)) {
        const std::string text = run({name, "--help"}).out;
        const bool sends = name == "call" || name == "script" || name == "bench";
        EXPECT_EQ(sends, holds(text, "\nValues of parameters:\n")) << name;
        EXPECT_FALSE(holds(text, "Exit codes")) << name;
        EXPECT_FALSE(holds(text, " SUBCOMMAND [OPTION")) << name;
    }
}

// All of them, each behind the command line that prints it. Whoever changes one looks at it there.
TEST_F(HostHelp, IsTheOneThatIsKept)
{
    std::string all = "$ corvane-host --help\n" + run({"--help"}).out;
    for (const std::string& name : subcommands(run({"--help"}).out))
        all += "\n$ corvane-host " + name + " --help\n" + run({name, "--help"}).out;
    EXPECT_EQ(readWhole(CORVANE_SOURCE_DIR "/tests/host/helps.txt"), all);
}

// The lines below "Examples:", without the columns before them.
std::string examplesOf(const std::string& help)
{
    std::string examples;
    bool isThere = false;
    for (const std::string& line : linesOf(help)) {
        isThere = isThere ? line.compare(0, 2, "  ") == 0 : line == "Examples:";
        if (isThere && line != "Examples:")
            examples += line.substr(2) + "\n";
    }
    return examples;
}

TEST_F(HostHelp, HasExamplesThatRun)
{
    if (emulated)
        GTEST_SKIP() << "NOT TESTED: shells would start the program without the emulator";
    const std::string programs = fs::path(hostProgram).parent_path();
    for (const std::string& name : subcommands(run({"--help"}).out)) {
        const std::string examples = examplesOf(run({"help", name}).out);
        EXPECT_TRUE(holds(examples, "corvane-host " + (name == "version" ? "" : name))) << name;
        if (name == "serve" || name == "completion")  // which do not end, or are for three shells
            continue;
        fs::create_directory(path(name));
        const ShellOutcome ended = shell("{ cd '" + path(name) + "' && PATH='" + programs +
                                         "':$PATH && set -e\n" + examples + "} 2>&1");
        EXPECT_EQ(0, ended.status) << name << "\n" << examples << ended.output;
    }
}

// Each comes as far as its address, which is none.
TEST_F(HostHelp, HasExamplesOfServeThatAreTaken)
{
    static const std::regex place("--listen \\S+");
    size_t count = 0;
    for (const std::string& line : linesOf(examplesOf(run({"help", "serve"}).out))) {
        const std::string own = std::regex_replace(line, place, "");
        const std::string arguments = own.substr(own.find(' '));
        const ShellOutcome ended =
            shell("'" + hostProgram + "' " + arguments + " --listen nowhere 2>&1");
        EXPECT_TRUE(holds(ended.output, "--listen takes HOST:PORT")) << line << ended.output;
        ++count;
    }
    EXPECT_GE(count, 2U);
}

// ---- Lists.

TEST_F(HostLooks, JsonIsIndentedByTwoColumns)
{
    for (const Arguments& arguments : {Arguments{"call", "QZaVen_GetVersion"},
                                       {"bench", "QZaVen_GetVersion", "--count", "1", "--json"},
                                       {"list", "--json"},
                                       {"list", "wbsm4", "--json"},
                                       {"describe", "QZaven_crypto_encrypt", "--json"},
                                       {"explain", "--json"},
                                       {"explain", "busy", "--json"},
                                       {"explain", "busy", "421", "--json"},
                                       {"doctor", "--json"},
                                       {"openapi"}}) {
        const Ended ended = run(arguments);
        EXPECT_EQ(SUCCESS, ended.code) << arguments[0];
        EXPECT_TRUE(ended.json().dump(2) + "\n" == ended.out) << ended.out;
    }
}

TEST_F(HostLooks, ListsAreOfWhatIsAskedFor)
{
    EXPECT_EQ("QZaven_wbsm4_encrypt\nQZaven_wbsm4_decrypt\n",
              run({"list", "--brief", "wbsm4"}).out);
    EXPECT_EQ(2U, run({"list", "--json", "wbsm4"}).json().size());
}

TEST_F(HostLooks, BriefDescriptionsHaveTheFewValuesOfAParameter)
{
    const std::string others = "strKey=\nstrIV=\nstraad=\nstrdata=\nstrgcmTagLen=\n";
    EXPECT_EQ(
        "strCipherAlg=sm4\nstrCipherAlg=aes-128\nstrCipherAlg=aes-192\nstrCipherAlg=aes-256\n"
        "strCipherAlg=aria-256\nstrCipherAlg=camellia-256\nstrCipherAlg=3des\n"
        "strMode=ecb\nstrMode=cbc\nstrMode=cfb\nstrMode=ofb\nstrMode=ctr\nstrMode=gcm\n"
        "strCipherPadding=none\nstrCipherPadding=pkcs7\n" +
            others,
        run({"describe", "QZaven_crypto_encrypt", "--brief"}).out);
    EXPECT_EQ(
        "strCipherAlg=\nstrMode=1\nstrMode=2\nstrMode=3\nstrMode=4\nstrMode=5\nstrMode=6\n"
        "strCipherPadding=0\nstrCipherPadding=1\n" +
            others,
        run({"--names", "none", "describe", "QZaven_crypto_encrypt", "--brief"}).out);
}

TEST_F(HostLooks, ListsFitATerminal)
{
    expectNarrow(run({"list"}), "list");
    expectNarrow(run({"explain"}), "explain");
    expectNarrow(run({"explain", "-30000..-39999"}), "explain of a range");
    for (const std::string& name : linesOf(run({"list", "--brief"}).out))
        expectNarrow(run({"describe", name}), name);
}

TEST_F(HostLooks, ColoursAreForTerminalsOrByRequest)
{
    const Arguments lists[] = {
        {"list"}, {"explain"}, {"explain", "busy"}, {"describe", "QZaven_crypto_hmac"}};
    for (Arguments list : lists) {
        const std::string plain = run(list).out;
        list.insert(list.end(), {"--color", "always"});
        const std::string coloured = run(list).out;
        EXPECT_TRUE(holds(coloured, "\033[1m")) << coloured;
        EXPECT_EQ(plain, std::regex_replace(coloured, std::regex("\033\\[[0-9;]*m"), ""));
    }
    EXPECT_TRUE(holds(run({"--color", "always", "call", "nothing"}).err, "\033[1;31m"));
    EXPECT_TRUE(holds(run({"--color", "always", "call", "QZaVen_strerror", "x=1"}).err,
                      "\033[1;33mwarning:\033[0m"));
    EXPECT_EQ(USAGE, run({"--color", "blue", "list"}).code);
}

// What a terminal of so many columns is sent, on standard error or, if `isOutput`, on standard
// output.
std::string shownOnTerminal(const Arguments& arguments, unsigned short columns = 0,
                            bool isOutput = false)
{
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_EQ(0, grantpt(terminal));
    EXPECT_EQ(0, unlockpt(terminal));
    const int side = open(ptsname(terminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
    const winsize size = {24, columns, 0, 0};
    EXPECT_EQ(0, ioctl(side, TIOCSWINSZ, &size));
    const pid_t pid = start(arguments, -1, isOutput ? side : -1, isOutput ? -1 : side);
    close(side);
    std::string shown;
    char buffer[4096];
    for (ssize_t count; (count = read(terminal, buffer, sizeof buffer)) > 0;)
        shown.append(buffer, static_cast<size_t>(count));
    close(terminal);
    exitCode(pid);
    return std::regex_replace(shown, std::regex("\r\n"), "\n");
}

size_t widestOf(const std::string& shown)
{
    size_t widest = 0;
    for (const std::string& line : linesOf(shown))
        widest = std::max(widest, line.size());
    return widest;
}

TEST_F(HostLooks, LinesAreAsWideAsTheTerminal)
{
    struct Row {
        unsigned short columns;
        size_t atLeast;
        size_t atMost;
    };
    for (const Row& row :
         {Row{20, 30, 42}, {60, 50, 60}, {0, 70, 80}, {110, 90, 110}, {300, 100, 120}}) {
        const std::string help = shownOnTerminal({"--color", "never", "list"}, row.columns, true);
        EXPECT_GE(widestOf(help), row.atLeast) << row.columns << "\n" << help;
        EXPECT_LE(widestOf(help), row.atMost) << row.columns << "\n" << help;
        const std::string told = shownOnTerminal(
            {"-q", "--color", "never", "call", "QZaven_crypto_gen_symmkey", "strCipherAlg=8"},
            row.columns);
        EXPECT_LE(widestOf(told), row.atMost) << row.columns << "\n" << told;
        EXPECT_TRUE(holds(told, "\n    ")) << told;
    }
}

TEST_F(HostLooks, BinaryIsShownInHexOnATerminal)
{
    const Arguments makeKey = {"-q",    "call", "QZaven_crypto_gen_symmkey", "strCipherAlg=4",
                               "--raw", "Data"};
    const std::string shown = shownOnTerminal(makeKey, 80, true);
    EXPECT_TRUE(std::regex_match(shown, std::regex("[0-9a-f]{64}\n"))) << shown;
    const Ended ended = run(makeKey);
    EXPECT_EQ(32U, ended.out.size());
    EXPECT_EQ("", ended.err);
}

// A pseudo terminal and where it is written to.
struct Terminal {
    int reading = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    int writing = grantpt(reading) == 0 && unlockpt(reading) == 0
                      ? open(ptsname(reading), O_RDWR | O_NOCTTY | O_CLOEXEC)
                      : -1;
    ~Terminal()
    {
        close(reading);
        close(writing);
    }
};

TEST_F(HostLooks, BinaryThatIsShownInHexIsWarnedOf)
{
    const auto warnings = [&](const Arguments& more) {
        Arguments arguments = {"-q", "call", "QZaven_crypto_gen_symmkey", "strCipherAlg=4"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Terminal terminal;
        const int err = open(path("err").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        EXPECT_EQ(SUCCESS, exitCode(start(arguments, -1, terminal.writing, err)));
        close(err);
        return readWhole(path("err"));
    };
    EXPECT_EQ(
        "corvane-host: warning: Data is binary and shown as hex digits; -o FILE writes the bytes\n",
        warnings({"--raw", "Data"}));
    EXPECT_EQ("", warnings({"--raw", "Data", "--hex"}));
    EXPECT_EQ("", warnings({"--raw", "errorCode"}));
    EXPECT_EQ("", warnings({}));
}

TEST_F(HostHelp, TellsTheProgramsOptionsWithEachSubcommand)
{
    const std::string help = run({"call", "--help"}).out;
    for (const char* option : {"--quiet", "--color", "--engine", "--names"})
        EXPECT_TRUE(holds(help, option)) << help;
}

TEST_F(HostLooks, ATerminalHasColoursUnlessTheyAreNotWished)
{
    setenv("TERM", "xterm", 1);
    unsetenv("NO_COLOR");
    EXPECT_TRUE(holds(shownOnTerminal({"call", "nothing"}), "\033[1;31m"));
    EXPECT_FALSE(holds(shownOnTerminal({"--color", "never", "call", "nothing"}), "\033"));
    setenv("NO_COLOR", "1", 1);
    EXPECT_FALSE(holds(shownOnTerminal({"call", "nothing"}), "\033"));
    unsetenv("NO_COLOR");
    setenv("TERM", "dumb", 1);
    EXPECT_FALSE(holds(shownOnTerminal({"call", "nothing"}), "\033"));
}

// ---- Quiet.

TEST_F(HostLooks, QuietLeavesOutTheEnginesLog)
{
    const std::string banner = "DEVELOPMENT ENGINE";
    EXPECT_TRUE(holds(run({"call", "QZaVen_GetVersion"}).err, banner));
    for (const char* option : {"-q", "--quiet"}) {
        const Ended ended = run({option, "call", "QZaVen_GetVersion"});
        EXPECT_EQ(SUCCESS, ended.code);
        EXPECT_EQ("", ended.err);
        EXPECT_EQ("0", ended.json()["errorCode"]);
    }
    const std::string steps = file("steps", R"({"request": "QZaVen_GetVersion"})");
    EXPECT_EQ("", run({"-q", "script", steps}).err);
    EXPECT_EQ("", run({"-q", "bench", "QZaVen_GetVersion", "--count", "1"}).err);
}

TEST_F(HostLooks, QuietKeepsErrorsAndWarnings)
{
    const Ended ended = run({"-q", "call", "QZaven_crypto_gen_symmkey", "strCipherAlg=8", "x=1"});
    EXPECT_EQ(REFUSED, ended.code);
    EXPECT_TRUE(holds(ended.err, "warning: ")) << ended.err;
    EXPECT_TRUE(holds(ended.err, "failed with -20084")) << ended.err;
    const Ended loading =
        run({"-q", "--engine", patched(engine, "aven_global_init", "aven_global_xxxx"), "call",
             "QZaVen_GetVersion"});
    EXPECT_EQ(LOADING, loading.code);
    EXPECT_TRUE(holds(loading.err, "aven_global_init ERROR 0x")) << loading.err;
}

// ---- Numbers.

TEST_F(HostNumbers, OfModesAreOctal)
{
    for (const char* mode : {"0", "660", "0660"})
        EXPECT_TRUE(holds(run({"serve", "--listen-mode", mode, "--listen", "nowhere"}).err,
                          "are for --listen unix:/PATH"))
            << mode;
}

TEST_F(HostNumbers, OfRequestsAndBytesHaveUnits)
{
    const auto requests = [&](const char* count) {
        return run({"-q", "bench", "QZaVen_GetVersion", "--json", "--count", count})
            .json()["requests"];
    };
    EXPECT_EQ(2000, requests("2K"));
    EXPECT_EQ(1000, requests("1k"));
    EXPECT_EQ(7, requests("7"));
    // Decimal digits, also behind a 0.
    EXPECT_EQ(10, requests("010"));
    EXPECT_EQ(8, requests("008"));
    for (const char* count : {"1000G", "1000g", "1G"})
        EXPECT_TRUE(holds(run({"bench", "QZaven_unknown", "--count", count}).err,
                          "there is no request QZaven_unknown"))
            << count;
    EXPECT_TRUE(holds(run({"bench", "QZaven_unknown", "--count", "1001G"}).err, "--count: takes"));
    struct Row {
        const char* option;
        std::vector<const char*> taken;
        std::vector<const char*> refused;
    };
    const Row rows[] = {
        {"--body-bytes",
         {"1K", "64KiB", "256M", "256MiB", "262144K"},
         {"262145K", "257M", "1G", "1KB", "1Ki", "1Kab", "1KiBs", "K", "1 K"}},
        {"--rate", {"1K", "0.5K", "1m"}, {"2M", "1KiB", "1e3KiB", "1e", "1.2.3"}},
        {"--queue", {"1K", "1M", "1000K"}, {"1001K", "1.5K", "2M", "1T"}},
        {"--workers", {"2", "09"}, {"0.002K", "1K"}},
        {"--read-seconds", {"2"}, {"1K"}},
    };
    for (const Row& row : rows) {
        for (const char* value : row.taken)
            EXPECT_TRUE(holds(run({"serve", row.option, value, "--listen", "nowhere"}).err,
                              "--listen takes HOST:PORT"))
                << row.option << " " << value;
        for (const char* value : row.refused)
            EXPECT_TRUE(holds(run({"serve", row.option, value, "--listen", "nowhere"}).err,
                              row.option + ": takes a "s))
                << row.option << " " << value;
    }
}

}  // namespace
