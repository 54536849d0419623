// docs/compatibility.md: the versions of symbols that the built files need.
#include <gtest/gtest.h>

#include <iostream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/document_table.h"
#include "support/shipped_files.h"

namespace {

using Version = std::vector<unsigned long>;
using Versions = std::map<std::string, std::string>;  // by the beginning of their names

constexpr const char* document = "docs/compatibility.md";
const std::vector<std::string> prefixes = {"GLIBC", "GLIBCXX", "CXXABI",
                                           "GCC",   "OPENSSL", "LIBSYSTEMD"};

std::vector<std::string> heading()
{
    std::vector<std::string> names = {"file", "processor"};
    names.insert(names.end(), prefixes.begin(), prefixes.end());
    return names;
}

Version numbersOf(const std::string& text)
{
    Version numbers;
    std::istringstream stream(text);
    for (std::string number; std::getline(stream, number, '.');)
        numbers.push_back(std::stoul(number));
    return numbers;
}

bool isAbove(const std::string& one, const std::string& other)
{
    return numbersOf(one) > numbersOf(other);
}

// The highest of each in readelf's section of needed versions, as "Name: GLIBC_2.34  Flags: none".
// What has no number stands for itself.
Versions highest(const std::vector<std::string>& lines)
{
    static const std::regex entry(".*\\bName: (\\S+)  Flags.*");
    static const std::regex numbered("([A-Z_]+)_([0-9.]+)");
    Versions versions;
    bool isThere = false;
    std::smatch match;
    for (const std::string& line : lines) {
        if (line.rfind("Version ", 0) == 0)
            isThere = line.rfind("Version needs", 0) == 0;
        if (!isThere || !std::regex_match(line, match, entry))
            continue;
        const std::string name = match[1];
        if (!std::regex_match(name, match, numbered))
            versions[name] = "0";
        else if (isAbove(match[2], versions[match[1]]))
            versions[match[1]] = match[2];
    }
    return versions;
}

// What a file needs beyond its row, a sentence each.
std::vector<std::string> risen(const Versions& built, const Versions& granted)
{
    std::vector<std::string> sentences;
    for (const auto& [prefix, version] : built) {
        const auto row = granted.find(prefix);
        if (row == granted.end() || isAbove(version, row->second))
            sentences.push_back(prefix + " " + version + " is needed");
    }
    return sentences;
}

// What its row grants and it does not need.
std::vector<std::string> lowerable(const Versions& built, const Versions& granted)
{
    std::vector<std::string> sentences;
    for (const auto& [prefix, version] : granted) {
        const auto need = built.find(prefix);
        if (need == built.end() && !version.empty())
            sentences.push_back(prefix + " is not needed");
        else if (need != built.end() && isAbove(version, need->second))
            sentences.push_back(prefix + " " + need->second + " is enough");
    }
    return sentences;
}

// The table's rows for this processor, by file.
std::map<std::string, Versions> grantedVersions()
{
    std::map<std::string, Versions> granted;
    for (support::TableRow& row : support::tableOf(document, heading()))
        if (row["processor"] == support::processor)
            for (const std::string& prefix : prefixes)
                granted[support::namesIn(row["file"]).at(0)][prefix] = row[prefix];
    return granted;
}

TEST(Compatibility, NoFileNeedsMoreThanTheTableSays)
{
    if (support::otherBuild != nullptr)
        GTEST_SKIP() << support::otherBuild;
    std::map<std::string, Versions> granted = grantedVersions();
    for (const auto& [name, path] : support::shippedFiles()) {
        const Versions built = highest(support::readElf("-V", path));
        EXPECT_EQ(1U, built.count("GLIBC")) << name;
        EXPECT_EQ(std::vector<std::string>(), risen(built, granted[name])) << name;
        for (const std::string& sentence : lowerable(built, granted[name]))
            std::cout << "The table in " << document << " could be lowered: " << name << ": "
                      << sentence << "\n";
    }
}

TEST(Compatibility, TheTableHasEachFileForBothProcessors)
{
    std::multiset<std::string> rows;
    for (support::TableRow& row : support::tableOf(document, heading()))
        rows.insert(support::namesIn(row["file"]).at(0) + " on " + row["processor"]);
    std::multiset<std::string> expected;
    for (const auto& [name, path] : support::shippedFiles())
        for (const char* processor : {"x86-64", "64-bit ARM"})
            expected.insert(name + " on " + processor);
    EXPECT_EQ(expected, rows);
}

// ---- The judge itself.

const Versions granted = {{"GLIBC", "2.34"}, {"CXXABI", "1.3.9"}, {"OPENSSL", ""}};

TEST(SymbolVersions, AreReadFromTheNeedsAlone)
{
    const std::vector<std::string> lines = {
        "Version definition section '.gnu.version_d' contains 1 entry:",
        "  0x001c: Rev: 1  Flags: none  Index: 2  Cnt: 1  Name: GLIBC_9.9  Flags: none",
        "Version needs section '.gnu.version_r' contains 1 entry:",
        "  000000: Version: 1  File: libc.so.6  Cnt: 3",
        "  0x0010:   Name: GLIBC_2.34  Flags: none  Version: 5",
        "  0x0020:   Name: GLIBC_2.4  Flags: none  Version: 4",
        "  0x0030:   Name: GLIBC_ABI_DT_RELR  Flags: none  Version: 3",
    };
    EXPECT_EQ((Versions{{"GLIBC", "2.34"}, {"GLIBC_ABI_DT_RELR", "0"}}), highest(lines));
}

TEST(SymbolVersions, ThatRoseAreFound)
{
    EXPECT_EQ(risen({{"GLIBC", "2.34"}, {"CXXABI", "1.3"}}, granted), std::vector<std::string>());
    EXPECT_EQ(risen({{"GLIBC", "2.100"}}, granted),
              std::vector<std::string>{"GLIBC 2.100 is needed"});
    EXPECT_EQ(risen({{"CXXABI", "1.3.11"}}, granted),
              std::vector<std::string>{"CXXABI 1.3.11 is needed"});
    EXPECT_EQ(risen({{"OPENSSL", "3.0.0"}}, granted),
              std::vector<std::string>{"OPENSSL 3.0.0 is needed"});
    EXPECT_EQ(risen({{"GLIBC_ABI_DT_RELR", "0"}}, granted),
              std::vector<std::string>{"GLIBC_ABI_DT_RELR 0 is needed"});
}

TEST(SymbolVersions, ThatCouldBeLoweredAreFound)
{
    EXPECT_EQ(lowerable({{"GLIBC", "2.34"}, {"CXXABI", "1.3.9"}}, granted),
              std::vector<std::string>());
    EXPECT_EQ(lowerable({{"GLIBC", "2.4"}}, granted),
              (std::vector<std::string>{"CXXABI is not needed", "GLIBC 2.4 is enough"}));
}

}  // namespace
