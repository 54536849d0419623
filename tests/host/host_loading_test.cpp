// Libraries that cannot be loaded: every command that needs them ends with a sentence that
// names the file, and none by a signal.
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <thread>

#include "support/held.h"
#include "support/host_program.h"

namespace {

using namespace std::string_literals;
using namespace support;

struct Damaged {
    std::string file;
    std::string words;  // of the sentence
};

class HostLibraries : public Host {
protected:
    std::vector<Damaged> damaged(const std::string& library) const
    {
        const std::string whole = readWhole(library);
        std::string bits32 = whole;
        bits32[4] = 1;
        std::string foreign = whole;
        const bool isArm = foreign[18] == '\xB7';
        foreign[18] = isArm ? '\x3E' : '\xB7';
        EXPECT_TRUE(symlink("loop.so", path("loop.so").c_str()) == 0 || errno == EEXIST);
        EXPECT_TRUE(mkfifo(path("pipe.so").c_str(), 0600) == 0 || errno == EEXIST);
        std::vector<Damaged> files = {
            {path("absent.so"), "No such file"},
            {path("loop.so"), "symbolic links"},
            {path("pipe.so"), "not a file"},
            {path(""), "is a folder"},
            {file("empty.so", ""), "is empty"},
            {file("text.so", "not a library"), "is no library"},
            {file("start.so", whole.substr(0, whole.size() / 20)), "is cut: it has "},
            {file("half.so", whole.substr(0, whole.size() / 2)), "is cut: it has "},
            {file("cut.so", whole.substr(0, whole.size() - 1)), "is cut: it has "},
            {file("32.so", bits32), "is a 32-bit library"},
            {file("foreign.so", foreign), isArm ? "is for x86-64" : "is for 64-bit ARM"},
        };
        const std::string closed = file("closed.so", whole);
        chmod(closed.c_str(), 0);
        if (geteuid() != 0)
            files.push_back({closed, "Permission denied"});
        return files;
    }

    // A service that starts instead is ended, with -1 for its code.
    Ended serve(const Arguments& more) const
    {
        Arguments arguments = {"serve",     "--listen",     "127.0.0.1:0",
                               "--no-peer", "--token-file", path("token")};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const int out = open(path("out").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        const int err = open(path("err").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        const pid_t pid = start(arguments, -1, out, err);
        close(out);
        close(err);
        Ended ended;
        int status = 0;
        while (waitpid(pid, &status, WNOHANG) == 0) {
            if (holds(readWhole(path("out")), "listening"))
                kill(pid, SIGKILL);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        ended.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        ended.out = readWhole(path("out"));
        ended.err = readWhole(path("err"));
        return ended;
    }

    static void expectSentence(const Ended& ended, const Damaged& row)
    {
        EXPECT_EQ(LOADING, ended.code) << row.file;
        EXPECT_EQ("", ended.out) << row.file;
        EXPECT_TRUE(holds(ended.err, "cannot load a library: " + row.file)) << ended.err;
        EXPECT_TRUE(holds(ended.err, row.words)) << ended.err;
        EXPECT_TRUE(holds(ended.err, "; ")) << "no remedy: " << ended.err;
    }
};

struct Place {
    const char* option;
    std::string library;
};
const Place places[] = {{"--plugin", plugin}, {"--params", params}, {"--engine", engine}};

TEST_F(HostLibraries, CallNamesTheOneThatCannotBeLoaded)
{
    for (const auto& [option, library] : places)
        for (const Damaged& row : damaged(library))
            expectSentence(run({option, row.file, "call", "QZaVen_GetVersion"}), row);
}

TEST_F(HostLibraries, ScriptNamesItToo)
{
    const std::string steps = file("script", R"([{"request": "QZaVen_GetVersion"}])");
    for (const auto& [option, library] : places)
        for (const Damaged& row : damaged(library))
            expectSentence(run({option, row.file, "script", steps}), row);
}

TEST_F(HostLibraries, BenchNamesItToo)
{
    for (const auto& [option, library] : places)
        for (const Damaged& row : damaged(library))
            expectSentence(run({option, row.file, "bench", "QZaVen_GetVersion", "--count", "1"}),
                           row);
}

TEST_F(HostLibraries, ServeRefusesBeforeItListens)
{
    for (const auto& [option, library] : places)
        for (const Damaged& row : damaged(library)) {
            expectSentence(serve({option, row.file}), row);
            EXPECT_FALSE(fs::exists(path("token"))) << row.file;
        }
}

TEST_F(HostLibraries, ServeStartsWithThoseOfTheBuild)
{
    if (emulated)
        GTEST_SKIP() << "worker processes do not start in the emulator";
    for (const Arguments& more :
         {Arguments{}, Arguments{"--plugin", plugin, "--params", params, "--engine", engine}})
        EXPECT_TRUE(holds(serve(more).out, "listening"));
}

// A folder of the loader's may hold what no file was named for.
TEST_F(HostLibraries, ServeStartsWithALinkToALibrary)
{
    if (emulated)
        GTEST_SKIP() << "worker processes do not start in the emulator";
    fs::create_symlink(engine, path("link.so"));
    EXPECT_TRUE(holds(serve({"--engine", path("link.so")}).out, "listening"));
}

TEST_F(HostLibraries, EngineThatLacksAFunctionIsLoaded)
{
    const Ended ended =
        run({"--engine", patched(engine, "aven_crypto_cmac"s + '\0', "aven_crypto_xxxx"s + '\0'),
             "call", "QZaVen_GetVersion"});
    EXPECT_EQ(SUCCESS, ended.code) << ended.err;
}

// The loader reports what a look at the file cannot show.
TEST_F(HostLibraries, LibraryThatNeedsAnotherOneIsTheLoadersMatter)
{
    const Ended ended = run({"--engine", patched(engine, "libcrypto.so.3", "libcryptx.so.3"),
                             "call", "QZaVen_GetVersion"});
    EXPECT_EQ(LOADING, ended.code);
    EXPECT_TRUE(holds(ended.err, "libcryptx.so.3")) << ended.err;
}

}  // namespace
