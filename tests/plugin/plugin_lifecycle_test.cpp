// The plug-in's loading, start, stop and unloading with the devkit's libraries: rounds of it,
// unusual orders of calls, forks, threads, exits, and libraries that are missing or broken.
//
// The program starts itself anew with a directory of its own in LD_LIBRARY_PATH, where the
// loader looks for the libraries that the tests put there. CORVANE_PLUGIN_ROUNDS=10000 in the
// environment makes the rounds a long run.
#include <elf.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include "support/capture.h"
#include "support/files.h"
#include "support/rounds.h"
#include "support/traffic.h"

namespace {

using support::DevkitHost;
using support::HostLibraries;
using support::printedBy;
using support::TrafficClient;
using support::TrafficSetting;
using Results = DevkitHost::Results;

const std::string PARAMS = "libCorvaneParamsModule.so";
const std::string ENGINE = "libSoftModuleaven.so";
const std::string PLUGIN = "libCorvane_plugin.so";

const HostLibraries BY_BARE_NAMES = {PARAMS, ENGINE, PLUGIN};
// What the host does not load is searched for by the plug-in.
const HostLibraries ENGINE_BY_PLUGIN = {PARAMS, "", PLUGIN};
const HostLibraries BOTH_BY_PLUGIN = {"", "", PLUGIN};

const std::string ENGINE_WITHOUT_INIT = "m_softMoudleAven.aven_global_init ERROR 0xffffb109\n";
const std::string ENGINE_NOT_OPEN = ENGINE + " load fail\n" + ENGINE_WITHOUT_INIT;

const char* const ROUNDS = "CORVANE_PLUGIN_ROUNDS";
constexpr char DIRECTORY[] = "CORVANE_TEST_LIBRARY_DIRECTORY";

// ---- What is loaded

// By the loader's word and by the address space.
void expectUnloaded(const std::string& name)
{
    EXPECT_FALSE(isLibraryOpen(name)) << name;
    std::ifstream maps("/proc/self/maps");
    ASSERT_TRUE(maps.good());
    for (std::string line; std::getline(maps, line);)
        EXPECT_EQ(line.find(name), std::string::npos) << line;
}

void expectAllUnloaded()
{
    for (const std::string& name : {PARAMS, ENGINE, PLUGIN})
        expectUnloaded(name);
}

// ---- Requests

// Sends requests of all names; returns what was wrong, which is nothing.
std::string faultsOf(const DevkitHost& host)
{
    static const TrafficSetting setting;
    static std::atomic<uint32_t> number{0};
    TrafficClient client(host, setting, ++number, 1);
    client.actInEveryWay();
    client.leave();
    std::string faults;
    for (const std::string& complaint : client.count().complaints)
        faults += complaint + "\n";
    return faults;
}

Results versionOf(const DevkitHost& host)
{
    return host.request("QZaVen_GetVersion", {});
}

const Results NO_ENGINE = {{"Data", ""}, {"errorCode", "-20215"}};

// ---- Rounds

void serveOnce(const HostLibraries& libraries)
{
    {
        DevkitHost host(libraries);
        ASSERT_EQ(host.init(), 0);
        EXPECT_EQ(faultsOf(host), "");
        EXPECT_EQ(host.free(), 0);
    }
    expectAllUnloaded();
}

TEST(PluginRounds, StayFlat)
{
    support::staysFlat(ROUNDS, 300, [] { serveOnce({}); });
}

TEST(PluginRounds, WithGlobalSymbolsStayFlat)
{
    HostLibraries libraries;
    libraries.flags = RTLD_NOW | RTLD_GLOBAL;
    support::staysFlat(ROUNDS, 50, [&] { serveOnce(libraries); });
}

TEST(PluginRounds, InThreadsOfTheirOwnStayFlat)
{
    support::staysFlat(ROUNDS, 50, [] { std::thread([] { serveOnce({}); }).join(); });
}

TEST(PluginRounds, OfInitAndFreeStayFlat)
{
    {
        DevkitHost host{HostLibraries()};
        support::staysFlat(ROUNDS, 50, [&] {
            EXPECT_EQ(host.init(), 0);
            EXPECT_EQ(faultsOf(host), "");
            EXPECT_EQ(host.free(), 0);
        });
    }
    expectAllUnloaded();
}

TEST(PluginRounds, OfInitAloneStayFlat)
{
    auto host = std::make_unique<DevkitHost>();
    int inits = 1;
    support::staysFlat(ROUNDS, 50, [&] {
        EXPECT_EQ(host->init(), 0);
        ++inits;
        EXPECT_EQ(faultsOf(*host), "");
    });
    host.reset();

    // Init opens the engine each time; Free closes it once.
    expectUnloaded(PLUGIN);
    expectUnloaded(PARAMS);
    for (; inits > 1; --inits) {
        void* forgotten = dlopen(CORVANE_ENGINE_LIBRARY, RTLD_NOW | RTLD_NOLOAD);
        ASSERT_NE(forgotten, nullptr) << inits;
        dlclose(forgotten);
        dlclose(forgotten);
    }
    expectUnloaded(ENGINE);
}

// ---- Orders of calls

TEST(PluginCalls, FreeWithoutInitAndTwiceDoesNothing)
{
    {
        DevkitHost host{HostLibraries()};
        EXPECT_EQ(printedBy([&] {
                      EXPECT_EQ(host.free(), 0);
                      host.init();
                      EXPECT_EQ(host.free(), 0);
                      EXPECT_EQ(host.free(), 0);
                  }),
                  "");
        EXPECT_TRUE(isLibraryOpen(CORVANE_ENGINE_LIBRARY));  // as the host holds it
        EXPECT_TRUE(isLibraryOpen(CORVANE_PARAMS_LIBRARY));
        host.init();
        EXPECT_EQ(faultsOf(host), "");
    }
    expectAllUnloaded();
}

TEST(PluginCalls, RequestsBeforeInitDoNothing)
{
    DevkitHost host{HostLibraries()};
    EXPECT_EQ(versionOf(host), Results());
    host.init();
    EXPECT_EQ(faultsOf(host), "");
}

TEST(PluginCalls, RequestsAfterFreeFindNoEngineUntilInit)
{
    DevkitHost host;
    host.free();
    EXPECT_EQ(versionOf(host), NO_ENGINE);  // the host still holds the module
    host.init();
    EXPECT_EQ(faultsOf(host), "");
}

// ---- Forks and exits

// What a forked process ends with: 0 if `body` is true and all that exit calls goes well.
template <class Body>
int statusOfChild(Body body)
{
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0)
        exit(body() ? 0 : 9);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status;
}

TEST(PluginFork, BothSidesServeIfTheChildInitialises)
{
    {
        DevkitHost host{HostLibraries()};
        const auto initAndServe = [&] {
            host.init();
            return faultsOf(host).empty() && host.free() == 0;
        };
        EXPECT_EQ(statusOfChild(initAndServe), 0);
        EXPECT_TRUE(initAndServe());
        EXPECT_EQ(statusOfChild(initAndServe), 0);
    }
    expectAllUnloaded();
}

TEST(PluginFork, BothSidesServeAfterInit)
{
    {
        DevkitHost host;
        EXPECT_EQ(statusOfChild([&] { return faultsOf(host).empty(); }), 0);
        EXPECT_EQ(faultsOf(host), "");
        EXPECT_EQ(statusOfChild([&] { return faultsOf(host).empty() && host.free() == 0; }), 0);
        EXPECT_EQ(faultsOf(host), "");
    }
    expectAllUnloaded();
}

TEST(PluginFork, TheChildMayUnload)
{
    auto host = std::make_unique<DevkitHost>();
    EXPECT_EQ(faultsOf(*host), "");
    EXPECT_EQ(statusOfChild([&] {
                  host.reset();
                  return !isLibraryOpen(CORVANE_PLUGIN_LIBRARY) &&
                         !isLibraryOpen(CORVANE_ENGINE_LIBRARY) &&
                         !isLibraryOpen(CORVANE_PARAMS_LIBRARY);
              }),
              0);
    EXPECT_EQ(faultsOf(*host), "");
}

// Two processes must not draw the same keys.
TEST(PluginFork, EachSideDrawsItsOwnKeys)
{
    const DevkitHost host;
    const auto newKey = [&] {
        return host.request("QZaven_crypto_gen_symmkey", {{"strCipherAlg", "4"}})["Data"];
    };
    newKey();
    int pipes[2];
    ASSERT_EQ(pipe(pipes), 0);
    EXPECT_EQ(statusOfChild([&] {
                  const std::string key = newKey();
                  return write(pipes[1], key.data(), key.size()) ==
                         static_cast<ssize_t>(key.size());
              }),
              0);
    close(pipes[1]);
    char bytes[64] = {};
    const ssize_t size = read(pipes[0], bytes, sizeof bytes);
    close(pipes[0]);
    EXPECT_EQ(size, 44);  // 32 bytes in Base64
    EXPECT_NE(newKey(), std::string(bytes, static_cast<size_t>(std::max<ssize_t>(size, 0))));
}

TEST(PluginExit, WithoutFree)
{
    EXPECT_EQ(statusOfChild([] {
                  static DevkitHost* const host = new DevkitHost;
                  return faultsOf(*host).empty();
              }),
              0);
}

TEST(PluginExit, WithoutFreeBesideThreads)
{
    EXPECT_EQ(statusOfChild([] {
                  static DevkitHost* const host = new DevkitHost;
                  static std::atomic<int> served{0};
                  for (int i = 0; i < 4; ++i) {
                      std::thread([] {
                          served += faultsOf(*host).empty() ? 1 : 100;
                          pause();
                      }).detach();
                  }
                  while (served < 4)
                      usleep(1000);
                  return served == 4;
              }),
              0);
}

// ---- Threads

TEST(PluginThreads, InitRequestsAndFreeInThreeThreadsThatEnd)
{
    {
        DevkitHost host{HostLibraries()};
        for (int round = 0; round < 3; ++round) {
            std::thread([&] { EXPECT_EQ(host.init(), 0); }).join();
            std::thread([&] { EXPECT_EQ(faultsOf(host), ""); }).join();
            EXPECT_EQ(faultsOf(host), "");
            std::thread([&] { EXPECT_EQ(host.free(), 0); }).join();
        }
    }
    expectAllUnloaded();
}

// By the thread that initialised or by another.
TEST(PluginThreads, ThoseThatSentRequestsMayEndAfterUnloading)
{
    for (const bool unloadedByAnother : {false, true}) {
        auto host = std::make_unique<DevkitHost>();
        std::atomic<int> served{0};
        std::atomic<bool> end{false};
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&] {
                EXPECT_EQ(faultsOf(*host), "");
                ++served;
                while (!end)
                    usleep(1000);
            });
        }
        while (served < 4)
            usleep(1000);
        if (unloadedByAnother)
            std::thread([&] { host.reset(); }).join();
        else
            host.reset();
        expectAllUnloaded();
        end = true;
        for (std::thread& thread : threads)
            thread.join();
    }
}

TEST(PluginThreads, ThoseThatSentRequestsServeAfterAnotherLoad)
{
    std::atomic<int> turn{0};  // odd while the other thread has it
    std::unique_ptr<DevkitHost> host;
    std::thread other([&] {
        for (int round = 0; round < 3; ++round) {
            while (turn != 2 * round + 1)
                usleep(1000);
            EXPECT_EQ(faultsOf(*host), "");
            ++turn;
        }
    });
    for (int round = 0; round < 3; ++round) {
        host = std::make_unique<DevkitHost>();
        ++turn;
        while (turn != 2 * round + 2)
            usleep(1000);
        host.reset();
        expectAllUnloaded();
    }
    other.join();
}

// ---- Libraries that the loader has to find

class PluginSearch : public testing::Test {
protected:
    void SetUp() override
    {
        expectAllUnloaded();
        for (const std::string& name : {PARAMS, ENGINE, PLUGIN})
            makeGood(name);
    }
    void TearDown() override
    {
        for (const std::string& name : {PARAMS, ENGINE, PLUGIN})
            std::filesystem::remove(pathOf(name));
        expectAllUnloaded();
    }

    static std::filesystem::path pathOf(const std::string& name)
    {
        return std::filesystem::path(getenv(DIRECTORY)) / name;
    }
    static std::string builtPath(const std::string& name)
    {
        return name == PARAMS   ? CORVANE_PARAMS_LIBRARY
               : name == ENGINE ? CORVANE_ENGINE_LIBRARY
                                : CORVANE_PLUGIN_LIBRARY;
    }
    static void makeGood(const std::string& name)
    {
        std::filesystem::remove(pathOf(name));
        std::filesystem::create_symlink(builtPath(name), pathOf(name));
    }
    static std::string bytesOf(const std::string& name)
    {
        std::ostringstream bytes;
        bytes << std::ifstream(builtPath(name), std::ios::binary).rdbuf();
        return bytes.str();
    }
    static void put(const std::string& name, const std::string& bytes)
    {
        std::filesystem::remove(pathOf(name));
        std::ofstream(pathOf(name), std::ios::binary) << bytes;
    }

    // A module that the loader refuses: Init says why and goes on, requests do nothing, and
    // another Init opens what is there by then.
    static void expectModuleRefused(const std::string& reason)
    {
        DevkitHost host(BOTH_BY_PLUGIN);
        const std::string printed = printedBy([&] { EXPECT_EQ(host.init(), 0); });
        EXPECT_EQ(printed.find("load fail, "), 0u) << printed;
        EXPECT_NE(printed.find(PARAMS + ": "), std::string::npos) << printed;
        EXPECT_NE(printed.find(": " + reason + "\n"), std::string::npos) << printed;
        EXPECT_EQ(printed.find('\n'), printed.size() - 1) << printed;
        EXPECT_FALSE(isLibraryOpen(PARAMS));
        EXPECT_EQ(versionOf(host), Results());

        host.free();
        makeGood(PARAMS);
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(host.init(), 0); }), "");
        EXPECT_TRUE(isLibraryOpen(PARAMS));
        const DevkitHost withModule(ENGINE_BY_PLUGIN);
        EXPECT_EQ(faultsOf(withModule), "");
    }

    // An engine that the loader refuses: Init says so, and requests report it.
    static void expectEngineRefused()
    {
        DevkitHost host(ENGINE_BY_PLUGIN);
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(host.init(), 0); }), ENGINE_NOT_OPEN);
        EXPECT_FALSE(isLibraryOpen(ENGINE));
        EXPECT_EQ(versionOf(host), NO_ENGINE);
        EXPECT_EQ(host.request("QZaven_crypto_gen_symmkey", {{"strCipherAlg", "4"}}), NO_ENGINE);

        makeGood(ENGINE);
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(host.init(), 0); }), "");
        EXPECT_EQ(faultsOf(host), "");
    }

    // Breaks each of the two in the same way.
    template <class Break>
    static void expectRefused(Break breakIt, const std::string& reason)
    {
        breakIt(PARAMS);
        expectModuleRefused(reason);
        breakIt(ENGINE);
        expectEngineRefused();
    }
};

TEST_F(PluginSearch, RoundsWithBareNamesStayFlat)
{
    support::staysFlat(ROUNDS, 50, [] { serveOnce(BY_BARE_NAMES); });
}

TEST_F(PluginSearch, ThePluginFindsBoth)
{
    {
        DevkitHost host(BOTH_BY_PLUGIN);
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(host.init(), 0); }), "");
        EXPECT_TRUE(isLibraryOpen(PARAMS));
        EXPECT_TRUE(isLibraryOpen(ENGINE));
        EXPECT_EQ(host.free(), 0);
        expectUnloaded(PARAMS);
        expectUnloaded(ENGINE);
    }
    support::staysFlat(ROUNDS, 50, [] {
        DevkitHost host(ENGINE_BY_PLUGIN);
        ASSERT_EQ(host.init(), 0);
        EXPECT_EQ(faultsOf(host), "");
        EXPECT_EQ(host.free(), 0);
        expectUnloaded(ENGINE);
    });
}

const char NOT_FOUND[] = "cannot open shared object file: No such file or directory";

TEST_F(PluginSearch, MissingLibrary)
{
    expectRefused([](const std::string& name) { std::filesystem::remove(pathOf(name)); },
                  NOT_FOUND);
}

TEST_F(PluginSearch, EmptyFile)
{
    expectRefused([](const std::string& name) { put(name, ""); }, "file too short");
}

TEST_F(PluginSearch, TextFile)
{
    expectRefused([](const std::string& name) { put(name, std::string(1000, 'x')); },
                  "invalid ELF header");
}

TEST_F(PluginSearch, FileCutInItsHeader)
{
    expectRefused([](const std::string& name) { put(name, bytesOf(name).substr(0, 40)); },
                  "file too short");
}

TEST_F(PluginSearch, FileCutBehindItsHeader)
{
    expectRefused(
        [](const std::string& name) { put(name, bytesOf(name).substr(0, sizeof(Elf64_Ehdr))); },
        "cannot read file data");
}

// The loader looks further for one that fits.
TEST_F(PluginSearch, LibraryOfAnotherArchitecture)
{
    expectRefused(
        [](const std::string& name) {
            std::string bytes = bytesOf(name);
            const Elf64_Half machine = EM_S390;
            bytes.replace(offsetof(Elf64_Ehdr, e_machine), sizeof machine,
                          reinterpret_cast<const char*>(&machine), sizeof machine);
            put(name, bytes);
        },
        NOT_FOUND);
}

TEST_F(PluginSearch, DirectoryOfThatName)
{
    expectRefused(
        [](const std::string& name) {
            std::filesystem::remove(pathOf(name));
            std::filesystem::create_directory(pathOf(name));
        },
        "cannot read file data: Is a directory");
}

// Root may read everything. While this lives, root is someone else.
class OtherUser {
public:
    OtherUser() : m_changed(geteuid() == 0 && seteuid(65534) == 0) {}
    OtherUser(const OtherUser&) = delete;
    OtherUser& operator=(const OtherUser&) = delete;
    ~OtherUser()
    {
        if (m_changed && seteuid(0) != 0)
            abort();
    }
    bool isRoot() const { return geteuid() == 0; }

private:
    bool m_changed;
};

// The loader says that they are missing.
TEST_F(PluginSearch, FilesThatMayNotBeRead)
{
    DevkitHost host(BOTH_BY_PLUGIN);
    for (const std::string& name : {PARAMS, ENGINE}) {
        put(name, bytesOf(name));
        ASSERT_EQ(chmod(pathOf(name).c_str(), 0), 0);
    }
    ASSERT_EQ(chmod(getenv(DIRECTORY), 0755), 0);
    std::string printed;
    {
        const OtherUser user;
        ASSERT_FALSE(user.isRoot()) << "this process cannot become another user";
        printed = printedBy([&] { EXPECT_EQ(host.init(), 0); });
    }
    EXPECT_EQ(printed, "load fail, " + PARAMS + ": " + NOT_FOUND + "\n" + ENGINE_NOT_OPEN);
    EXPECT_EQ(versionOf(host), Results());

    host.free();
    makeGood(PARAMS);
    makeGood(ENGINE);
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(host.init(), 0); }), "");
    const DevkitHost withModule(ENGINE_BY_PLUGIN);
    EXPECT_EQ(faultsOf(withModule), "");
}

TEST_F(PluginSearch, LibraryWithoutAnyOfItsFunctions)
{
    // Each has none of the other's functions.
    {
        put(ENGINE, bytesOf(PARAMS));
        DevkitHost host(ENGINE_BY_PLUGIN);
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(host.init(), 0); }), ENGINE_WITHOUT_INIT);
        EXPECT_EQ(host.request("QZaven_crypto_gen_symmkey", {{"strCipherAlg", "4"}}), NO_ENGINE);
        host.free();
        makeGood(ENGINE);
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(host.init(), 0); }), "");
        EXPECT_EQ(faultsOf(host), "");
    }
    {
        put(PARAMS, bytesOf(ENGINE));
        DevkitHost host(BOTH_BY_PLUGIN);
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(host.init(), 0); }), "");
        EXPECT_EQ(versionOf(host), Results());
        host.free();
        makeGood(PARAMS);
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(host.init(), 0); }), "");
        const DevkitHost withModule(ENGINE_BY_PLUGIN);
        EXPECT_EQ(faultsOf(withModule), "");
    }
}

// ---- Starting anew

// Runs the program with a directory for the loader to search. It reads such settings only at the
// start.
int runAnew(char** arguments)
{
    const support::TemporaryFolder folder;
    const std::string directory = folder.path();
    const char* const path = getenv("LD_LIBRARY_PATH");
    setenv("LD_LIBRARY_PATH",
           (directory + (path == nullptr ? "" : ":" + std::string(path))).c_str(), 1);
    setenv(DIRECTORY, directory.c_str(), 1);
    // Freed blocks that a thread keeps to itself would count as given out.
    setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0", 1);

    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
        const std::string command = "exec " CORVANE_EMULATOR " \"$0\" \"$@\"";
        std::vector<const char*> words = {"sh", "-c", command.c_str(), self.c_str()};
        for (++arguments; *arguments != nullptr; ++arguments)
            words.push_back(*arguments);
        words.push_back(nullptr);
        execv("/bin/sh", const_cast<char**>(words.data()));
        _exit(127);
    }
    int status = 0;
    const bool ended = waitpid(child, &status, 0) == child && WIFEXITED(status);
    if (!ended)
        fprintf(stderr, "ended by signal %d\n", WTERMSIG(status));
    return ended ? WEXITSTATUS(status) : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    if (getenv(DIRECTORY) == nullptr)
        return runAnew(argv);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
