// What corvane-host tells on standard error, and how it knows a terminal; the links by which
// libraries get other names; who listens for syslog.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <string>

#include "host/bare_names.h"
#include "host/exchange.h"
#include "host/output.h"
#include "host/syslog_target.h"
#include "support/files.h"

namespace {

namespace fs = std::filesystem;

std::string told(const std::string& text)
{
    testing::internal::CaptureStderr();
    tell(text);
    return testing::internal::GetCapturedStderr();
}

// ---- Lines. The first test is that of what nobody has chosen.

TEST(Telling, HasNeitherColoursNorEndsUnlessChosen)
{
    const std::string line = "warning: " + std::string(60, 'x') + " " + std::string(60, 'y');
    EXPECT_EQ("corvane-host: " + line + "\n", told(line));
}

TEST(Telling, IsALineForEach)
{
    chooseTelling(false, 0);
    EXPECT_EQ("corvane-host: a\ncorvane-host: b\n", told("a\nb"));
    EXPECT_EQ("corvane-host: a\n", told("a\n"));
    EXPECT_EQ("", told(""));
}

TEST(Telling, ColoursTheProgramOrWhatItIs)
{
    chooseTelling(true, 0);
    EXPECT_EQ("\033[1;31mcorvane-host:\033[0m a\n", told("a"));
    EXPECT_EQ("corvane-host: \033[1;33mwarning:\033[0m a\n", told("warning: a"));
    EXPECT_EQ("corvane-host: \033[1;33mwhat to do:\033[0m a\n", told("what to do: a"));
    EXPECT_EQ("corvane-host: see a\n", told("see a"));
    EXPECT_EQ("\033[1;31mcorvane-host:\033[0m seen\n", told("seen"));
    EXPECT_EQ("\033[1;31mcorvane-host:\033[0m a warning: b\n", told("a warning: b"));
    chooseTelling(false, 0);
}

TEST(Telling, BreaksLinesWithoutTheProgram)
{
    chooseTelling(false, 40);
    // The first line begins further right than it is written, by as much as the others.
    EXPECT_EQ("corvane-host: " + std::string(22, 'a') + "\n    b\n",
              told(std::string(22, 'a') + " b"));
    EXPECT_EQ("corvane-host: " + std::string(20, 'a') + " b\n", told(std::string(20, 'a') + " b"));
    EXPECT_EQ("corvane-host: " + std::string(21, 'a') + "\n    b\n",
              told(std::string(21, 'a') + " b"));
    chooseTelling(false, 0);
}

TEST(Telling, ShowsNothingThatATerminalObeys)
{
    chooseTelling(false, 0);
    EXPECT_EQ("corvane-host: a??b ~?\n", told("a\x1f\x01"
                                              "b ~\x7f"));
    EXPECT_EQ("corvane-host: \xc3\xa4\xc2\x80\n", told("\xc3\xa4\xc2\x80"));
    EXPECT_EQ("corvane-host: ???a?\n", told("\xc3\xa4\x80"
                                            "a\xff"));
    EXPECT_EQ("p: a\np: \np: b", inEachLine("p: ", "a\n\nb"));
}

// ---- Failures.

Outcome failure(const std::string& code, const std::string& text)
{
    Outcome outcome;
    outcome.code = code;
    outcome.text = text;
    return outcome;
}

TEST(Failures, AreLinesWithWhatIsKnown)
{
    EXPECT_EQ("x failed with -1: text", failureLine("x", failure("-1", "text")));
    EXPECT_EQ("x failed with -1", failureLine("x", failure("-1", "")));
    EXPECT_EQ("x failed: text", failureLine("x", failure("", "text")));
    EXPECT_EQ("x failed", failureLine("x", failure("", "")));
}

TEST(Failures, HaveRemediesIfTheTextIsTheKnownOne)
{
    const std::string text = "plug-in: required parameter is missing or empty";
    const std::string line = remedyLine(failure("-20001", text));
    EXPECT_EQ(0U, line.find("what to do: ")) << line;
    const std::string end = "; more: corvane-host explain -20001";
    EXPECT_EQ(line.size() - end.size(), line.find(end)) << line;
    EXPECT_EQ("", remedyLine(failure("-20001", "another")));
    EXPECT_EQ("", remedyLine(failure("-20002", text)));
    EXPECT_EQ("", remedyLine(failure("", "")));
}

TEST(Failures, OfResultsAreNamed)
{
    Outcome outcome;
    outcome.results = Pairs{{"Data", "YQ=="}, {"errorCode", "0"}, {"more", "b"}};
    const RequestInfo* request = findRequest("QZaven_crypto_gen_symmkey");
    EXPECT_EQ("a", resultBytes(request, outcome, "Data"));
    EXPECT_EQ("YQ==", resultBytes(nullptr, outcome, "Data"));
    EXPECT_EQ("b", resultBytes(request, outcome, "more"));
    outcome.results = Pairs{{"Data", "!"}};
    for (const auto& [name, words] : {std::pair("Data", "the result Data is not of its form"),
                                      {"errorCode", "there is no result errorCode"}})
        try {
            resultBytes(request, outcome, name);
            ADD_FAILURE() << name;
        } catch (const UsageError& e) {
            EXPECT_STREQ(words, e.what());
        }
}

// ---- Terminals.

class Terminal {
public:
    Terminal() : m_terminal(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
        EXPECT_EQ(0, grantpt(m_terminal));
        EXPECT_EQ(0, unlockpt(m_terminal));
        side = open(ptsname(m_terminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
    }
    ~Terminal()
    {
        close(side);
        close(m_terminal);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    size_t columnsAt(unsigned short columns) const
    {
        const winsize size = {24, columns, 0, 0};
        EXPECT_EQ(0, ioctl(side, TIOCSWINSZ, &size));
        return columnsOf(side);
    }

    int side = -1;

private:
    int m_terminal;
};

TEST(Terminals, Have40To120Columns)
{
    const Terminal terminal;
    for (const auto& [columns, used] : {std::pair(0, 80U),
                                        {1, 40U},
                                        {39, 40U},
                                        {40, 40U},
                                        {41, 41U},
                                        {119, 119U},
                                        {120, 120U},
                                        {121, 120U}})
        EXPECT_EQ(used, terminal.columnsAt(static_cast<unsigned short>(columns))) << columns;
    const int file = open("/dev/null", O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(0U, columnsOf(file));
    close(file);
}

TEST(Terminals, HaveColoursUnlessTheyAreNotWished)
{
    const Terminal terminal;
    const int file = open("/dev/null", O_WRONLY | O_CLOEXEC);
    const auto isColoured = [&](const char* noColor, const char* term) {
        setenv("NO_COLOR", noColor, 1);
        setenv("TERM", term, 1);
        EXPECT_TRUE(hasColours(Colours::Always, file));
        EXPECT_FALSE(hasColours(Colours::Never, terminal.side));
        EXPECT_FALSE(hasColours(Colours::Auto, file));
        return hasColours(Colours::Auto, terminal.side);
    };
    EXPECT_TRUE(isColoured("", "xterm"));
    EXPECT_TRUE(isColoured("", ""));
    EXPECT_FALSE(isColoured("0", "xterm"));
    EXPECT_FALSE(isColoured("", "dumb"));
    unsetenv("NO_COLOR");
    unsetenv("TERM");
    EXPECT_TRUE(hasColours(Colours::Auto, terminal.side));
    close(file);
}

TEST(Terminals, StandardOutputHasItsNames)
{
    for (const char* name : {"", "-", "/dev/stdout"})
        EXPECT_TRUE(isStandardOutput(name)) << name;
    for (const char* name : {"--", "./-", "/dev/stderr"})
        EXPECT_FALSE(isStandardOutput(name)) << name;
}

TEST(OutputFiles, ThatCannotTakeTheirPlaceAreToldOfAndRemoved)
{
    const support::TemporaryFolder folder;
    const std::string path = folder.path("results");
    {
        OutputFile file(path, true);
        file.write("text");
        EXPECT_FALSE(fs::exists(path));
        fs::create_directory(path);
        try {
            file.keep();
            ADD_FAILURE() << "it took a folder's place";
        } catch (const UsageError& e) {
            EXPECT_EQ("cannot write " + path + ": Is a directory", e.what());
        }
    }
    EXPECT_EQ(1, std::distance(fs::directory_iterator(folder.path()), {}));
}

// ---- Links to libraries.

constexpr const char* marker = "CORVANE_HOST_LINKS";
constexpr const char* searchPath = "LD_LIBRARY_PATH";

// What is left of a search path for the programs that libraries start.
std::string leftOf(const std::string& folder, const std::string& path)
{
    setenv(marker, folder.c_str(), 1);
    setenv(searchPath, path.c_str(), 1);
    const BareNames names;
    EXPECT_EQ(nullptr, getenv(marker));
    const char* left = getenv(searchPath);
    const std::string text = left == nullptr ? "not there" : left;
    unsetenv(searchPath);
    return text;
}

TEST(LinksToLibraries, AreNotSearchedByOtherPrograms)
{
    const std::string folder = "/nowhere/at all";
    EXPECT_EQ("not there", leftOf(folder, folder));
    EXPECT_EQ("/lib", leftOf(folder, folder + ":/lib"));
    EXPECT_EQ("/lib:/x", leftOf(folder, folder + ":/lib:/x"));
    EXPECT_EQ("", leftOf(folder, folder + ":"));
    for (const std::string& other : {folder + "x:/lib", "/lib:" + folder, folder + "/x"})
        EXPECT_EQ(other, leftOf(folder, other));
}

TEST(LinksToLibraries, AreRemovedAndNothingElse)
{
    const support::TemporaryFolder around;
    for (const bool isEarly : {true, false}) {
        fs::create_directory(around.path("links"));
        fs::create_symlink("/nowhere", around.path("links/") + paramsName);
        fs::create_symlink("/", around.path("links/") + engineName);
        setenv(marker, around.path("links").c_str(), 1);
        {
            BareNames names;
            EXPECT_TRUE(fs::exists(around.path("links")));
            if (isEarly) {
                names.removeFolder();
                EXPECT_FALSE(fs::exists(around.path("links")));
                fs::create_directory(around.path("links"));
            }
        }
        EXPECT_EQ(isEarly, fs::exists(around.path("links")));
        fs::remove(around.path("links"));
    }
    fs::create_directory(around.path("links"));
    around.write(std::string("links/") + engineName, "a library");
    setenv(marker, around.path("links").c_str(), 1);
    {
        const BareNames names;
    }
    EXPECT_EQ("a library", around.read(std::string("links/") + engineName));
}

TEST(LinksToLibraries, AreMadeInAFolderThatMustBeThere)
{
    const support::TemporaryFolder around;
    Output output;
    BareNames names;
    const auto refused = [&] {
        try {
            names.startAgain({"/a", "/b", "/c"}, nullptr, output);
        } catch (const LoadError& e) {
            return std::string(e.what());
        }
        return std::string();
    };
    setenv("TMPDIR", around.path("absent").c_str(), 1);
    EXPECT_EQ("cannot make a folder for links to the libraries: No such file or directory",
              refused());
    unsetenv("TMPDIR");
    output.giveBack();
    // The process that was started again does not start once more.
    setenv(marker, "/nowhere", 1);
    BareNames again;
    again.startAgain({"/a", "/b", "/c"}, nullptr, output);
}

// ---- Syslog.

int listenAt(const std::string& path, int kind)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path);
    const int listener = socket(AF_UNIX, kind | SOCK_CLOEXEC, 0);
    EXPECT_EQ(0, bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    EXPECT_EQ(kind == SOCK_STREAM ? 0 : -1, listen(listener, 0));
    return listener;
}

TEST(Syslog, IsWhoeverListens)
{
    const support::TemporaryFolder folder;
    const std::string missing = folder.path("missing");
    EXPECT_EQ(missing + ": No such file or directory", lookAtSyslog(missing).fault);
    EXPECT_EQ("start a syslog service, or share " + missing + " with the container",
              lookAtSyslog(missing).remedy);
    // As long as a path can be.
    const std::string longest =
        folder.path(std::string(sizeof sockaddr_un().sun_path - 1 - folder.path("").size(), 'x'));
    for (const int kind : {SOCK_DGRAM, SOCK_STREAM}) {
        const int listener = listenAt(longest, kind);
        // One that is busy is waited for by nobody.
        for (int i = 0; i < 5; ++i) {
            EXPECT_EQ("", lookAtSyslog(longest).fault);
            EXPECT_EQ("", lookAtSyslog(longest).remedy);
        }
        close(listener);
        EXPECT_EQ(longest + ": Connection refused", lookAtSyslog(longest).fault);
        fs::remove(longest);
    }
}

}  // namespace
