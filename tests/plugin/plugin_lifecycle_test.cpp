// The plug-in's loading, start, stop and unloading with the devkit's libraries: rounds of it,
// unusual orders of calls, forks, threads and exits.
//
// The program starts itself anew with a directory of its own in LD_LIBRARY_PATH, where the
// loader looks for the libraries that the tests put there. CORVANE_PLUGIN_ROUNDS=10000 in the
// environment makes the rounds a long run.
#include <elf.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/capture.h"
#include "support/files.h"
#include "support/plugin_life.h"

namespace {

using support::DevkitHost;
using support::DIRECTORY;
using support::ENGINE;
using support::expectAllUnloaded;
using support::expectUnloaded;
using support::faultsOf;
using support::HostLibraries;
using support::NO_ENGINE;
using support::PARAMS;
using support::PLUGIN;
using support::printedBy;
using support::ROUNDS;
using support::serveOnce;
using support::versionOf;
using Results = DevkitHost::Results;

// ---- Rounds

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
