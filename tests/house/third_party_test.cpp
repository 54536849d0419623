// docs/third-party.md: what of others the product uses.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/document_table.h"
#include "support/files.h"
#include "support/shell.h"
#include "support/shipped_files.h"

namespace {

namespace fs = std::filesystem;
using support::namesIn;
using support::neededBy;
using support::shippedFiles;
using support::tableOf;
using support::TableRow;
using Names = std::set<std::string>;

constexpr const char* document = "docs/third-party.md";

// "libc.so.6 by corvane-host" for each library that a file is linked to.
Names linked()
{
    Names links;
    for (const auto& [name, path] : shippedFiles())
        for (const std::string& library : neededBy(path))
            links.insert(library + " by " + name);
    return links;
}

// The same as the document has it.
Names linkedByTheDocument()
{
    Names links;
    for (TableRow& row :
         tableOf(document, {"library", "name", "processor", "used by", "licence", "package"})) {
        EXPECT_NE("", row["licence"]) << row["name"];
        EXPECT_EQ(1U, namesIn(row["package"]).size()) << row["name"];
        if (row["processor"] != "both" && row["processor"] != support::processor)
            continue;
        std::vector<std::string> users = namesIn(row["used by"]);
        if (row["used by"] == "every file")
            for (const auto& [name, path] : shippedFiles())
                users.push_back(name);
        for (const std::string& user : users)
            links.insert(namesIn(row["name"]).at(0) + " by " + user);
    }
    return links;
}

// Each name that is in one list alone.
std::string difference(const Names& listed, const Names& used)
{
    std::string out;
    for (const std::string& name : used)
        out += listed.count(name) == 0 ? "used but not listed: " + name + "\n" : "";
    for (const std::string& name : listed)
        out += used.count(name) == 0 ? "listed but not used: " + name + "\n" : "";
    return out;
}

TEST(ThirdParty, LinkedLibrariesAreTheListedOnes)
{
    if (support::otherBuild != nullptr)
        GTEST_SKIP() << support::otherBuild;
    EXPECT_EQ(linkedByTheDocument(), linked());
}

// Where the system has a library; empty if it has not.
fs::path systemLibrary(const std::string& name)
{
    for (const char* folder : {"/lib", "/usr/lib"})
        if (const fs::path file = fs::path(folder) / support::systemFolder / name; fs::exists(file))
            return file;
    return {};
}

// With each library those that it needs in turn.
void addNeeds(const std::string& library, Names& names)
{
    if (!names.insert(library).second)
        return;
    const fs::path file = systemLibrary(library);
    if (file.empty()) {
        ADD_FAILURE() << library << " is not where Debian has it";
        return;
    }
    for (const std::string& needed : neededBy(file))
        addNeeds(needed, names);
}

TEST(ThirdParty, LibrariesThatTheseBringAreTheListedOnes)
{
    if (support::otherBuild != nullptr)
        GTEST_SKIP() << support::otherBuild;
    Names direct, all, listed;
    for (const auto& [name, path] : shippedFiles())
        for (const std::string& library : neededBy(path)) {
            direct.insert(library);
            addNeeds(library, all);
        }
    Names brought;
    std::set_difference(all.begin(), all.end(), direct.begin(), direct.end(),
                        std::inserter(brought, brought.end()));
    // The loader, which the C library needs, is listed for files that name it.
    for (const char* loader : {"ld-linux-x86-64.so.2", "ld-linux-aarch64.so.1"})
        brought.erase(loader);
    for (TableRow& row : tableOf(
             document, {"library", "name", "brought by", "licence of the library", "package"})) {
        EXPECT_NE("", row["licence of the library"]) << row["name"];
        listed.insert(namesIn(row["name"]).at(0));
    }
    EXPECT_EQ(listed, brought);
}

// The packages that CMake found for the product. OpenSSL is linked and not compiled in; CMake looks
// for the others by itself.
TEST(ThirdParty, LibrariesThatAreCompiledInAreTheListedOnes)
{
    const Names apart = {"OpenSSL", "PkgConfig", "Threads"};
    Names found, listed;
    std::istringstream packages(CORVANE_PACKAGES);
    for (std::string package; std::getline(packages, package, ' ');)
        if (apart.count(package) == 0)
            found.insert(package);
    for (TableRow& row :
         tableOf(document, {"library", "CMake finds it as", "in", "licence", "package"})) {
        EXPECT_NE("", row["licence"]) << row["library"];
        listed.insert(namesIn(row["CMake finds it as"]).at(0));
    }
    EXPECT_EQ("", difference(listed, found));
}

// Without the architecture of those that have one: libssl-dev:arm64.
TEST(ThirdParty, PackagesForBuildingAndTestingAreTheListedOnes)
{
    const support::ShellOutcome named =
        support::shell("cd '" CORVANE_SOURCE_DIR
                       "' && bash -euc '. packaging/packages.sh; . bench/packages.sh\n"
                       "for list in $(compgen -v | grep _packages$); do declare -n all=$list\n"
                       "printf \"%s\\n\" \"${all[@]%%:*}\"; done'");
    ASSERT_EQ(0, named.status) << named.output;
    Names used, listed;
    std::istringstream lines(named.output);
    for (std::string package; std::getline(lines, package);)
        used.insert(package);
    for (TableRow& row : tableOf(document, {"what for", "package", "licence of the main part"})) {
        EXPECT_NE("", row["licence of the main part"]) << row["package"];
        listed.insert(namesIn(row["package"]).at(0));
    }
    EXPECT_EQ("", difference(listed, used));
}

// Those that tests install from npm's registry by themselves, with the licences in their locks.
TEST(ThirdParty, PackagesOfNpmAreTheListedOnes)
{
    std::map<std::string, std::string> locked, listed;
    for (const char* folder : {"tests/console", "tests/kubernetes"}) {
        const fs::path lock = fs::path(CORVANE_SOURCE_DIR) / folder / "package-lock.json";
        const nlohmann::json packages =
            nlohmann::json::parse(support::readWhole(lock)).at("packages");
        for (const auto& [name, version] : packages.at("").at("devDependencies").items())
            locked[name] = packages.at("node_modules/" + name).at("license");
    }
    for (TableRow& row : tableOf(document, {"what for", "npm's package", "licence"}))
        listed[namesIn(row["npm's package"]).at(0)] = row["licence"];
    EXPECT_EQ(locked, listed);
}

}  // namespace
