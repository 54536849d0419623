// What documents promise, and the tests that they name for it: that there are such tests.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <string>

#include "support/document_table.h"
#include "support/files.h"

namespace {

namespace fs = std::filesystem;

const fs::path root = CORVANE_SOURCE_DIR;

// All files below tests/ that are named so, one behind the other, each run of blanks as one.
std::string textOf(const std::regex& name)
{
    static const std::regex blanks("\\s+");
    std::string text;
    for (const auto& entry : fs::recursive_directory_iterator(root / "tests"))
        if (std::regex_match(entry.path().filename().string(), name))
            text += std::regex_replace(support::readWhole(entry.path()), blanks, " ") + " ";
    return text;
}

// A name in which stars may stand for any letters.
std::string patternOf(const std::string& name)
{
    return std::regex_replace(name, std::regex("\\*"), "\\w*");
}

bool isCase(const std::string& name)
{
    static const std::string sources = textOf(std::regex(".*\\.(cpp|h)"));
    const size_t dot = name.find('.');
    const std::string made = "(" + name.substr(0, dot) + ", " + name.substr(dot + 1) + ")";
    if (name.find('*') == std::string::npos)
        return sources.find(made) != std::string::npos;
    return std::regex_search(
        sources, std::regex("TEST\\w*\\(" + patternOf(made.substr(1, made.size() - 2)) + "\\)"));
}

bool isProgram(const std::string& name)
{
    static const std::string lists = textOf(std::regex("CMakeLists\\.txt"));
    return std::regex_search(lists, std::regex("(corvane_test|add_executable|\\w+_program)\\(" +
                                               patternOf(name) + "[ )]"));
}

// A file with what it is given, a test's case, or a program.
bool isThere(const std::string& name)
{
    const std::string first = name.substr(0, name.find(' '));
    if (first.find('/') != std::string::npos)
        return fs::exists(root / first);
    return name.find('.') != std::string::npos ? isCase(name) : isProgram(name);
}

void expectShown(const char* document, const char* what)
{
    const auto rows = support::tableOf(document, {what, "shown by"});
    EXPECT_FALSE(rows.empty()) << document;
    for (const support::TableRow& row : rows)
        for (const std::string& name : support::namesIn(row.at("shown by")))
            EXPECT_TRUE(isThere(name)) << document << ": " << name << ", for: " << row.at(what);
}

TEST(Promises, OfSecurityAreEachShown)
{
    expectShown("SECURITY.md", "promise");
    for (const support::TableRow& row : support::tableOf("SECURITY.md", {"promise", "shown by"}))
        EXPECT_FALSE(support::namesIn(row.at("shown by")).empty()) << row.at("promise");
}

TEST(Promises, ToHostsAreShownWhereATestIsNamed)
{
    expectShown("docs/embedding.md", "statement");
}

TEST(Promises, WithoutATestAreFound)
{
    EXPECT_TRUE(isThere("Promises.WithoutATestAreFound"));
    EXPECT_TRUE(isThere("Promises.*"));
    EXPECT_TRUE(isThere("promises_test"));
    EXPECT_TRUE(isThere("./test.sh all"));
    EXPECT_FALSE(isThere("Promises.WithoutA"));
    EXPECT_FALSE(isThere("NoSuchSuite.*"));
    EXPECT_FALSE(isThere("promises"));
    EXPECT_FALSE(isThere("tests/nothing.sh"));
}

}  // namespace
