// The plug-in with libraries that the loader has to find, and that are missing or broken.
#include <elf.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "support/capture.h"
#include "support/plugin_life.h"

namespace {

using support::BOTH_BY_PLUGIN;
using support::BY_BARE_NAMES;
using support::DevkitHost;
using support::DIRECTORY;
using support::ENGINE;
using support::ENGINE_BY_PLUGIN;
using support::ENGINE_NOT_OPEN;
using support::ENGINE_WITHOUT_INIT;
using support::expectAllUnloaded;
using support::expectUnloaded;
using support::faultsOf;
using support::NO_ENGINE;
using support::PARAMS;
using support::PLUGIN;
using support::printedBy;
using support::ROUNDS;
using support::serveOnce;
using support::versionOf;
using Results = DevkitHost::Results;

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

}  // namespace
