// The installed product: its files, what it finds from where it lies, and its end.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "support/built_library.h"
#include "support/files.h"
#include "support/held.h"
#include "support/one_line.h"
#include "support/shell.h"

namespace {

namespace fs = std::filesystem;
using support::inOneLine;
using support::readWhole;
using support::shell;
using support::ShellOutcome;
using support::TemporaryFolder;

const fs::path build = CORVANE_BUILD_DIR;
const std::string quote = "'";

std::string quoted(const fs::path& path)
{
    return quote + path.string() + quote;
}

// What a user has installed from this build tree stays known to its `uninstall`.
class KeptManifests {
public:
    KeptManifests() { move(build, m_aside.path()); }
    ~KeptManifests()
    {
        for (const fs::path& manifest : manifests(build))
            fs::remove(manifest);
        move(m_aside.path(), build);
    }

private:
    static std::set<fs::path> manifests(const fs::path& folder)
    {
        std::set<fs::path> found;
        for (const auto& entry : fs::directory_iterator(folder))
            if (entry.path().filename().string().rfind("install_manifest", 0) == 0)
                found.insert(entry.path());
        return found;
    }
    static void move(const fs::path& from, const fs::path& to)
    {
        for (const fs::path& manifest : manifests(from)) {
            fs::copy_file(manifest, to / manifest.filename());
            fs::remove(manifest);
        }
    }

    TemporaryFolder m_aside;
};

// All of it at a path with a blank, which each test may change.
class Installed : public testing::Test {
protected:
    void SetUp() override
    {
        const ShellOutcome ended = install(prefix);
        ASSERT_EQ(0, ended.status) << ended.output;
    }

    static ShellOutcome install(const fs::path& to, const std::string& options = "")
    {
        return shell("cmake --install " + quoted(build) + " --prefix " + quoted(to) + " " +
                     options);
    }

    // Runs an installed program in an environment that knows no other place.
    ShellOutcome run(const std::string& program, const std::string& arguments) const
    {
        return shell("env -u LD_LIBRARY_PATH " CORVANE_EMULATOR " " +
                     quoted(prefix / "bin" / program) + " " + arguments);
    }

    // The files below a folder, by their paths from there.
    static std::set<std::string> files(const fs::path& folder)
    {
        std::set<std::string> found;
        if (fs::exists(folder))
            for (const auto& entry : fs::recursive_directory_iterator(folder))
                if (!entry.is_directory())
                    found.insert(entry.path().lexically_relative(folder));
        return found;
    }

    TemporaryFolder scratch;
    KeptManifests kept;
    fs::path prefix = scratch.path() / "an installation";
};

// With debugging information paths start at the checkout, so this holds for whole files.
TEST_F(Installed, KnowsNothingOfTheBuildTree)
{
    if (support::SANITIZED)
        GTEST_SKIP() << "NOT TESTED: sanitizers have the paths of sources";
    for (const std::string& file : files(prefix)) {
        const std::string bytes = readWhole(prefix / file);
        EXPECT_FALSE(bytes.empty()) << file;
        for (const std::string& place : {build.string(), std::string(CORVANE_SOURCE_DIR)})
            EXPECT_EQ(std::string::npos, bytes.find(place)) << file << " names " << place;
    }
}

TEST_F(Installed, EachComponentHasItsFiles)
{
    struct Row {
        const char* component;
        std::set<std::string> some;  // of its files
        const char* folder;          // below which all of them lie, if not ""
    };
    const Row rows[] = {
        {"plugin", {"lib/corvane/libCorvane_plugin.so"}, "lib/corvane/"},
        {"dev",
         {"include/corvane/Corvane_plugin.h", "include/corvane/engine_interface.h",
          "include/corvane/params_interface.h", "include/corvane/log.h",
          "lib/cmake/Corvane/CorvaneConfig.cmake", "lib/pkgconfig/corvane.pc",
          "share/man/man3/corvane_plugin.3"},
         ""},
        {"devkit",
         {"lib/corvane/devkit/libCorvaneParamsModule.so",
          "lib/corvane/devkit/libSoftModuleaven.so"},
         "lib/corvane/devkit/"},
        {"host",
         {"bin/corvane-host", "bin/corvane-ke-peer", "share/man/man1/corvane-host.1",
          "share/man/man1/corvane-ke-peer.1", "share/bash-completion/completions/corvane-host",
          "share/fish/vendor_completions.d/corvane-host.fish"},
         ""},
        {"doc",
         {"share/doc/corvane/README.md", "share/doc/corvane/SECURITY.md",
          "share/doc/corvane/docs/embedding.md", "share/doc/corvane/docs/openapi.json",
          "share/doc/corvane/examples/clients/java/Client.java",
          "share/doc/corvane/examples/own-host/own_host.c",
          "share/doc/corvane/packaging/kubernetes/statefulset.yaml",
          "share/doc/corvane/packaging/prometheus/alerts.yml"},
         "share/doc/"},
    };
    std::set<std::string> all;
    for (const Row& row : rows) {
        const fs::path folder = scratch.path() / row.component;
        const ShellOutcome ended = install(folder, std::string("--component ") + row.component);
        ASSERT_EQ(0, ended.status) << ended.output;
        const std::set<std::string> found = files(folder);
        for (const std::string& file : row.some)
            EXPECT_EQ(1U, found.count(file)) << row.component << " lacks " << file;
        for (const std::string& file : found) {
            EXPECT_EQ(0U, file.rfind(row.folder, 0)) << row.component << ": " << file;
            EXPECT_TRUE(all.insert(file).second) << file << " is in two components";
        }
    }
    EXPECT_EQ(files(prefix), all);
}

// What makes the pages stays with the sources.
TEST_F(Installed, PagesOfTheReferenceAreThereIfTheyWereMade)
{
    if (!fs::exists(build / "share/doc/corvane/reference/http.html"))
        GTEST_SKIP() << "NOT TESTED: there was no doxygen or no python3";
    EXPECT_EQ((std::set<std::string>{"headers.html", "http.html"}),
              files(prefix / "share/doc/corvane/reference"));
    EXPECT_FALSE(fs::exists(prefix / "share/doc/corvane/docs/reference"));
}

// The files that a document's links name, from its own folder; others' addresses are left out.
std::set<fs::path> linksOf(const fs::path& document)
{
    static const std::regex link("\\]\\(([^)#:]+)(#[^)]*)?\\)");
    const std::string text = readWhole(document);
    std::set<fs::path> found;
    for (std::sregex_iterator hit(text.begin(), text.end(), link), end; hit != end; ++hit)
        found.insert(document.parent_path() / (*hit)[1].str());
    return found;
}

TEST_F(Installed, LinksOfDocumentsLeadToInstalledFiles)
{
    size_t links = 0;
    for (const std::string& file : files(prefix)) {
        if (fs::path(file).extension() != ".md")
            continue;
        for (const fs::path& target : linksOf(prefix / file)) {
            EXPECT_TRUE(fs::exists(target)) << file << " links to " << target;
            ++links;
        }
    }
    EXPECT_LT(10U, links);
}

TEST_F(Installed, TellsItsVersion)
{
    for (const char* program : {"corvane-host", "corvane-ke-peer"}) {
        const ShellOutcome ended = run(program, "--version");
        EXPECT_EQ(0, ended.status);
        const std::string words = std::string(program) + " " CORVANE_VERSION;
        EXPECT_TRUE(ended.output == words + "\n" || ended.output.rfind(words + " (", 0) == 0)
            << ended.output;
    }
    const std::string pc = readWhole(prefix / "lib/pkgconfig/corvane.pc");
    EXPECT_NE(std::string::npos, pc.find("Version: " CORVANE_VERSION "\n")) << pc;
}

TEST_F(Installed, FindsItsLibrariesWhereverItIsMoved)
{
    for (const char* place : {"an installation", "elsewhere"}) {
        const fs::path moved = scratch.path() / place;
        if (moved != prefix)
            fs::rename(prefix, moved);
        prefix = moved;

        const ShellOutcome doctor = run("corvane-host", "doctor");
        EXPECT_EQ(0, doctor.status) << doctor.output;
        const std::string libraries = prefix / "lib/corvane";
        for (const std::string& words :
             {" " + libraries + "/libCorvane_plugin.so, the usual place",
              " " + libraries + "/devkit/libSoftModuleaven.so, the usual place",
              " " + (prefix / "bin").string() + ", " + libraries + ", " + libraries + "/devkit;"})
            EXPECT_NE(std::string::npos, inOneLine(doctor.output).find(words))
                << words << doctor.output;
    }
}

// Which of the two it is shows in what doctor says of the file.
TEST_F(Installed, ModuleBesideThePluginComesBeforeTheDevkits)
{
    const fs::path libraries = prefix / "lib/corvane";
    const char* module = "libCorvaneParamsModule.so";
    fs::copy_file(libraries / "devkit" / module, libraries / module);
    const ShellOutcome doctor = run("corvane-host", "doctor");
    EXPECT_NE(std::string::npos,
              inOneLine(doctor.output).find((libraries / module).string() + ", the usual"))
        << doctor.output;
}

TEST_F(Installed, ServesARequestAndTheKeyExchangesOtherSide)
{
    // RFC 4231, section 4.3.
    const ShellOutcome mac = run("corvane-host",
                                 "call QZaven_crypto_hmac strHashAlg=4 strKey=b64:Jefe "
                                 "'strdata=b64:what do ya want for nothing?'");
    EXPECT_EQ(0, mac.status) << mac.output;
    EXPECT_NE(std::string::npos, mac.output.find("W9zBRr9gdU5qBCQmCJV1x1oAPwidJzmDnexYuWTsOEM="))
        << mac.output;
    const ShellOutcome peer =
        run("corvane-ke-peer", "make-certs " + quoted(scratch.path() / "certificates"));
    EXPECT_EQ(0, peer.status) << peer.output;
}

TEST_F(Installed, IsEnoughForAHostOfOnesOwn)
{
    if (support::sanitized)
        GTEST_SKIP() << "NOT TESTED: such a library wants a host that is built alike";
    const ShellOutcome built =
        shell(quoted(CORVANE_SOURCE_DIR "/tests/own_host.sh") + " " + quoted(prefix) +
              " '" CORVANE_TOOLCHAIN "' '" CORVANE_EMULATOR "'");
    EXPECT_EQ(0, built.status) << built.output;
}

TEST_F(Installed, UninstallTakesBackWhatItWroteAndNothingElse)
{
    const fs::path own = prefix / "lib/corvane/own.so";
    support::writeWhole(own, "an integrator's");
    const std::string uninstall = "cmake -D BUILD=" + quoted(build) + " -P " +
                                  quoted(CORVANE_SOURCE_DIR "/cmake/uninstall.cmake");
    ShellOutcome ended = shell(uninstall);
    EXPECT_EQ(0, ended.status) << ended.output;
    EXPECT_EQ(std::set<std::string>{"lib/corvane/own.so"}, files(prefix));
    EXPECT_FALSE(fs::exists(prefix / "include/corvane"));

    ended = shell(uninstall);
    EXPECT_NE(0, ended.status);
    EXPECT_NE(std::string::npos, ended.output.find("Nothing has been installed")) << ended.output;
}

}  // namespace
