// Which folder may include what: the table in CONTRIBUTING.md, held against every include.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/document_table.h"

namespace {

namespace fs = std::filesystem;

struct Room {
    std::string folder;
    std::vector<std::string> uses;
};
using Rooms = std::vector<Room>;  // the lowest first

struct Include {
    std::string file;  // both from the checkout's root; `what` as it is written
    std::string what;
};

// The rows "| `folder` | what it is | `folder`, ... |".
Rooms readRooms(std::istream& text)
{
    static const std::regex row("\\| `([^`]+)/` \\|[^|]*\\|([^|]*)\\|");
    Rooms rooms;
    std::smatch match;
    for (std::string line; std::getline(text, line);)
        if (std::regex_match(line, match, row)) {
            Room room = {match[1], support::namesIn(match[2])};
            for (std::string& used : room.uses)
                used.erase(used.find_last_not_of('/') + 1);
            rooms.push_back(room);
        }
    return rooms;
}

// Where an include leads: what has a folder in its name starts at devkit/; a bare name is the
// own folder's, or the plug-in's.
std::string folderOf(const Include& include, const std::set<std::string>& files)
{
    const std::string own = fs::path(include.file).parent_path();
    for (const std::string& folder : {own, std::string("src"), std::string("devkit")})
        if (files.count(folder + "/" + include.what) != 0)
            return fs::path(folder + "/" + include.what).parent_path();
    return "";
}

std::vector<std::string> complaints(const Rooms& rooms, const std::vector<Include>& includes,
                                    const std::set<std::string>& files)
{
    std::vector<std::string> found;
    std::map<std::string, std::set<std::string>> uses;
    for (const Room& room : rooms) {
        for (const std::string& used : room.uses)
            if (uses.count(used) == 0)
                found.push_back(room.folder + " stands above " + used + ", which it uses");
        uses[room.folder] = {room.uses.begin(), room.uses.end()};
    }
    for (const Include& include : includes) {
        const std::string room = fs::path(include.file).parent_path();
        const std::string target = folderOf(include, files);
        if (uses.count(room) == 0)
            found.push_back(room + " is no room of the table");
        else if (target.empty())
            found.push_back(include.file + ": " + include.what + " is not found");
        else if (target != room && uses[room].count(target) == 0)
            found.push_back(include.file + " includes " + include.what);
    }
    return found;
}

struct Tree {
    std::set<std::string> files;
    std::vector<Include> includes;
};

Tree readTree(const std::vector<std::string>& folders)
{
    static const std::regex include("#include \"([^\"]+)\".*");
    const fs::path root = CORVANE_SOURCE_DIR;
    Tree tree;
    for (const std::string& folder : folders)
        for (const auto& entry : fs::recursive_directory_iterator(root / folder)) {
            const std::string extension = entry.path().extension();
            if (extension != ".cpp" && extension != ".h")
                continue;
            const std::string file = entry.path().lexically_relative(root);
            tree.files.insert(file);
            std::ifstream text(entry.path());
            std::smatch match;
            for (std::string line; std::getline(text, line);)
                if (std::regex_match(line, match, include))
                    tree.includes.push_back({file, match[1]});
        }
    return tree;
}

TEST(Rooms, IncludesFollowTheTable)
{
    std::ifstream contributing(CORVANE_SOURCE_DIR "/CONTRIBUTING.md");
    const Rooms rooms = readRooms(contributing);
    const Tree tree = readTree({"src", "devkit"});
    ASSERT_GT(rooms.size(), 10U);
    ASSERT_GT(tree.includes.size(), 200U);
    EXPECT_EQ(complaints(rooms, tree.includes, tree.files), std::vector<std::string>());
}

// No room of the table is empty or gone.
TEST(Rooms, StandInTheTree)
{
    std::ifstream contributing(CORVANE_SOURCE_DIR "/CONTRIBUTING.md");
    const Tree tree = readTree({"src", "devkit"});
    for (const Room& room : readRooms(contributing))
        EXPECT_TRUE(std::any_of(tree.files.begin(), tree.files.end(), [&](const fs::path& file) {
            return file.parent_path() == room.folder;
        })) << room.folder;
}

// A small tree, with one row or include more than is well.
class RoomsOfATree : public testing::Test {
protected:
    const std::set<std::string> files = {"src/log.h", "devkit/common/wire.h",
                                         "devkit/host/call.cpp", "devkit/host/values.h"};

    std::vector<std::string> judge(const std::string& table, const Include& include) const
    {
        std::istringstream text(table);
        return complaints(readRooms(text), {include}, files);
    }
};

constexpr const char* table =
    "| folder | what | may include |\n|---|---|---|\n"
    "| `src/` | the product | |\n"
    "| `devkit/common/` | shared | |\n"
    "| `devkit/host/` | above both | `src/`, `devkit/common/` |\n";

TEST_F(RoomsOfATree, LetsRoomsUseThoseBelow)
{
    for (const char* what : {"values.h", "log.h", "common/wire.h"})
        EXPECT_EQ(judge(table, {"devkit/host/call.cpp", what}), std::vector<std::string>()) << what;
}

TEST_F(RoomsOfATree, FailsForAnIncludeUpwards)
{
    EXPECT_EQ(judge(table, {"devkit/common/wire.h", "host/values.h"}),
              std::vector<std::string>{"devkit/common/wire.h includes host/values.h"});
}

TEST_F(RoomsOfATree, FailsForWhatIsNotThere)
{
    EXPECT_EQ(judge(table, {"devkit/host/call.cpp", "wire.h"}),
              std::vector<std::string>{"devkit/host/call.cpp: wire.h is not found"});
    EXPECT_EQ(judge(table, {"devkit/attic/old.cpp", "log.h"}),
              std::vector<std::string>{"devkit/attic is no room of the table"});
}

TEST_F(RoomsOfATree, FailsForATableThatIsNotInOrder)
{
    const std::string circle = std::string(table) + "| `devkit/late/` | | |\n";
    const std::string upwards = std::string("| `devkit/early/` | | `devkit/host/` |\n") + table;
    EXPECT_EQ(judge(circle, {"src/log.h", "log.h"}), std::vector<std::string>());
    EXPECT_EQ(judge(upwards, {"src/log.h", "log.h"}),
              std::vector<std::string>{"devkit/early stands above devkit/host, which it uses"});
}

}  // namespace
