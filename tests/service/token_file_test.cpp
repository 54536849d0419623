// Token files: whose they may be, and which links lead to them.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>

#include "common/descriptor.h"
#include "host/output.h"
#include "service/operation/owned_path.h"
#include "service/operation/token_file.h"
#include "support/files.h"
#include "support/in_child.h"

namespace fs = std::filesystem;

namespace {

using support::writeWhole;

#define NEEDS_ROOT()    \
    if (geteuid() != 0) \
    GTEST_SKIP() << "only root can give files away and be another user"

const std::string tokenA(43, 'a');
const std::string tokenB(43, 'b');

constexpr uid_t somebody = 65534;
constexpr uid_t user = 4711;
constexpr gid_t group = 4712;

void expectChild(const std::function<void()>& what)
{
    EXPECT_EQ(0, support::inChild(what));
}

// In a process of a user who is in one group beside his own.
void asUser(const std::function<void()>& what)
{
    expectChild([&] {
        const gid_t groups[] = {group};
        ASSERT_EQ(0, setgroups(1, groups));
        ASSERT_EQ(0, setresgid(user, user, user));
        ASSERT_EQ(0, setresuid(user, user, user));
        what();
    });
}

class TokenFile : public testing::Test {
protected:
    TokenFile() { fs::permissions(m_folder.path(), fs::perms(0755)); }

    std::string path(const std::string& name) const { return m_folder.path(name); }

    std::string make(const std::string& name, const std::string& text, unsigned mode) const
    {
        writeWhole(path(name), text + "\n");
        fs::permissions(path(name), fs::perms(mode));
        return path(name);
    }
    std::string makeFolder(const std::string& name, mode_t mode) const
    {
        fs::create_directory(path(name));
        EXPECT_EQ(0, chmod(path(name).c_str(), mode));
        return path(name);
    }
    std::string makeLink(const std::string& target, const std::string& name) const
    {
        fs::create_symlink(target, path(name));
        return path(name);
    }
    void give(const std::string& name, uid_t owner, gid_t itsGroup) const
    {
        EXPECT_EQ(0, lchown(path(name).c_str(), owner, itsGroup));
    }

    static void expectToken(const std::string& file, const std::string& token = tokenA)
    {
        try {
            EXPECT_EQ(token, readToken(file).value_or(SecretText("nothing"))) << file;
        } catch (const UsageError& e) {
            ADD_FAILURE() << e.what();
        }
    }
    static void expectRefusal(const std::string& file, const std::string& text)
    {
        try {
            readToken(file);
            ADD_FAILURE() << file << " was taken";
        } catch (const UsageError& e) {
            EXPECT_NE(std::string::npos, std::string(e.what()).find(file)) << e.what();
            EXPECT_NE(std::string::npos, std::string(e.what()).find(text)) << e.what();
            EXPECT_EQ(std::string::npos, std::string(e.what()).find(tokenA));
        }
    }

    // A volume as Kubernetes makes one of a Secret: all of it root's and one group's, the folder
    // for everybody to write but sticky, and the key a link to a link.
    std::string makeVolume(gid_t itsGroup, unsigned mode) const
    {
        makeFolder("volume", 03777);
        makeFolder("volume/..2026_01_01_00_00_00.1", 02755);
        make("volume/..2026_01_01_00_00_00.1/token", tokenA, mode);
        makeLink("..2026_01_01_00_00_00.1", "volume/..data");
        for (const char* name : {"volume", "volume/..2026_01_01_00_00_00.1",
                                 "volume/..2026_01_01_00_00_00.1/token", "volume/..data"})
            give(name, geteuid(), itsGroup);
        return makeLink("..data/token", "volume/token");
    }

private:
    support::TemporaryFolder m_folder;
};

using TokenLink = TokenFile;

// ---- Modes.

TEST_F(TokenFile, MayBeReadByItsOwnerAndAGroupOfTheProcess)
{
    for (const unsigned mode : {0600U, 0400U, 0640U, 0440U})
        expectToken(make("token", tokenA, mode));
}

TEST_F(TokenFile, MayNotBeOpenToOthers)
{
    for (const unsigned mode : {0604U, 0644U, 0602U, 0601U, 0666U, 0444U, 0777U})
        expectRefusal(make("token", tokenA, mode), "is open to everybody; it needs mode 0600");
    for (const unsigned mode : {0660U, 0620U, 0610U, 0460U, 0670U})
        expectRefusal(make("token", tokenA, mode), "can be changed by its group; it needs");
}

TEST_F(TokenFile, MayBelongToAnotherGroupOnlyIfThatCannotReadIt)
{
    NEEDS_ROOT();
    for (const unsigned mode : {0640U, 0440U}) {
        make("token", tokenA, mode);
        give("token", 0, group);
        expectRefusal(path("token"), "can be read by a group that the host is not in");
    }
    make("token", tokenA, 0600);
    give("token", 0, group);
    expectToken(path("token"));
}

TEST_F(TokenFile, MayBeRootsWithASupplementaryGroup)
{
    NEEDS_ROOT();
    for (const gid_t each : {group, gid_t{user}}) {
        make("token", tokenA, 0440);
        give("token", 0, each);
        asUser([&] { expectToken(path("token")); });
    }
    give("token", user, user);
    asUser([&] { expectToken(path("token")); });
    // Of a user who is not this one, though the group is right and lets it be read.
    give("token", somebody, group);
    asUser([&] { expectRefusal(path("token"), "belongs to another user than root and the"); });
}

TEST_F(TokenFile, OfRootsGroupIsNotForAUserWithoutGroups)
{
    NEEDS_ROOT();
    make("token", tokenA, 0440);
    give("token", user, 0);
    expectChild([&] {
        ASSERT_EQ(0, setgroups(0, nullptr));
        ASSERT_EQ(0, setresgid(user, user, user));
        ASSERT_EQ(0, setresuid(user, user, user));
        expectRefusal(path("token"), "can be read by a group that the host is not in");
    });
}

TEST_F(TokenFile, MustBeAFile)
{
    expectRefusal(makeFolder("folder", 0700), "is not a file");
    // It is not waited for who writes.
    ASSERT_EQ(0, mkfifo(path("fifo").c_str(), 0600));
    expectRefusal(path("fifo"), "is not a file");
    const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path("socket").c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(0, bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address));
    expectRefusal(path("socket"), "No such device or address");
    expectRefusal("/dev/zero", "is not a file");
    for (const char* name : {"folder", "fifo", "socket"})
        EXPECT_ANY_THROW(readToken(makeLink(name, std::string("to-") + name))) << name;
    expectRefusal(path("to-folder"), "is not a file");
    expectRefusal(path("to-fifo"), "is not a file");
    expectRefusal(path("to-socket"), "/socket: No such device or address");
    EXPECT_FALSE(readToken(path("nothing")).has_value());
    expectRefusal(make("file", tokenA, 0600) + "/", "Not a directory");
}

TEST_F(TokenFile, HasATokenOf32To512Characters)
{
    for (const size_t size : {32, 512}) {
        const std::string token(size, 't');
        EXPECT_EQ(token, readToken(make("right", token, 0600))) << size;
    }
    for (const size_t size : {31, 513})
        expectRefusal(make("wrong", std::string(size, 't'), 0600), "");
}

TEST_F(TokenFile, HasATokenOfSuchCharacters)
{
    const std::string others = "-._~+/=";
    for (int c = 0; c < 256; ++c) {
        const std::string token = std::string(40, 't') + static_cast<char>(c) + "t";
        const std::string file = make("token", token, 0600);
        if ((c < 128 && isalnum(c) != 0) || others.find(static_cast<char>(c)) != std::string::npos)
            expectToken(file, token);
        else
            expectRefusal(file, "must hold one token");
    }
}

// It is a line, and nobody else's.
TEST_F(TokenFile, IsMadeForTheOwnerAlone)
{
    const mode_t mask = umask(0);
    const SecretText token = readOrMakeToken(path("new/folder/token"));
    umask(mask);
    EXPECT_EQ(43U, token.size());
    EXPECT_EQ(std::string(token) + "\n", support::readWhole(path("new/folder/token")));
    EXPECT_EQ(0600U, static_cast<unsigned>(fs::status(path("new/folder/token")).permissions()));
    EXPECT_EQ(0700U, static_cast<unsigned>(fs::status(path("new/folder")).permissions()));
    EXPECT_EQ(token, readOrMakeToken(path("new/folder/token")));
}

TEST_F(TokenFile, IsNotHandedToOtherPrograms)
{
    const Descriptor file = openOwned(make("token", tokenA, 0600), "the token file");
    EXPECT_EQ(FD_CLOEXEC, fcntl(file.get(), F_GETFD));
}

TEST_F(TokenFile, HasADefaultPlace)
{
    const auto placeWith = [](const char* state, const char* home) -> std::string {
        state == nullptr ? unsetenv("XDG_STATE_HOME") : setenv("XDG_STATE_HOME", state, 1);
        home == nullptr ? unsetenv("HOME") : setenv("HOME", home, 1);
        try {
            return defaultTokenFile();
        } catch (const UsageError& e) {
            return e.what();
        }
    };
    expectChild([&] {
        EXPECT_EQ("/s/corvane-host/token", placeWith("/s", "/h"));
        EXPECT_EQ("/s/corvane-host/token", placeWith("/s", nullptr));
        for (const char* none : {static_cast<const char*>(nullptr), "", "s", "./s", "s/"})
            EXPECT_EQ("/h/.local/state/corvane-host/token", placeWith(none, "/h"));
        for (const char* none : {static_cast<const char*>(nullptr), "", "h", "./h", "h/"})
            EXPECT_EQ("there is no home folder for the token; name a file by --token-file",
                      placeWith(nullptr, none));
    });
}

TEST_F(TokenFile, IsNotReadBeyondAToken)
{
    make("huge", tokenA, 0600);
    fs::resize_file(path("huge"), uintmax_t{1} << 40);
    expectRefusal(path("huge"), "must hold one token");
    expectRefusal(makeLink("huge", "to-huge"), "must hold one token");
    expectRefusal(make("two", tokenA + "\n" + tokenB, 0600), "must hold one token");
    const std::string longest(512, 'x');
    EXPECT_EQ(longest, *readToken(make("longest", longest + "\r\n", 0600)));
    expectRefusal(make("more", longest + "\r\n" + tokenB, 0600), "must hold one token");
    expectRefusal(make("longer", longest + "x\n", 0600), "must hold one token");
}

// ---- Links.

TEST_F(TokenLink, OfTheOwnerIsFollowed)
{
    make("file", tokenA, 0600);
    makeFolder("folder", 0755);
    makeFolder("folder/inner", 0700);
    make("folder/inner/file", tokenB, 0640);
    expectToken(makeLink("file", "near"));
    expectToken(makeLink(path("file"), "whole"));
    expectToken(makeLink("folder/inner/file", "below"), tokenB);
    expectToken(makeLink("./folder//inner/../../near", "around"));
    expectToken(makeLink("inner", "folder/link") + "/file", tokenB);
    expectToken(makeLink("../around", "folder/back"));
    expectChild([&] {
        fs::current_path(path("folder"));
        expectToken("back");
        expectToken("./back");
    });
    // Where the process is does not matter for a whole path.
    makeFolder("open", 0777);
    expectChild([&] {
        fs::current_path(path("open"));
        expectToken(path("near"));
    });
}

TEST_F(TokenLink, OfAVolumeOfKubernetesIsFollowed)
{
    expectToken(makeVolume(getegid(), 0440));
    // The next version takes its place by one renaming.
    makeFolder("volume/..2026_02_02_00_00_00.2", 02755);
    make("volume/..2026_02_02_00_00_00.2/token", tokenB, 0640);
    makeLink("..2026_02_02_00_00_00.2", "volume/..data_tmp");
    fs::rename(path("volume/..data_tmp"), path("volume/..data"));
    fs::remove_all(path("volume/..2026_01_01_00_00_00.1"));
    expectToken(path("volume/token"), tokenB);
}

TEST_F(TokenLink, OfAVolumeIsFollowedByAUserOfItsGroup)
{
    NEEDS_ROOT();
    const std::string token = makeVolume(group, 0440);
    asUser([&] { expectToken(token); });
    expectRefusal(token, "can be read by a group that the host is not in");
    // A mode by which all users of the machine could read it.
    fs::permissions(path("volume/..data/token"), fs::perms(0444));
    asUser([&] { expectRefusal(token, "is open to everybody"); });
}

// Another user can make links in such a folder, but neither replace nor remove ours.
TEST_F(TokenLink, OfAnotherUserIsNotFollowed)
{
    NEEDS_ROOT();
    makeFolder("shared", 01777);
    make("secret", tokenA, 0600);
    makeLink("../secret", "shared/token");
    expectToken(path("shared/token"));
    give("shared/token", somebody, somebody);
    expectRefusal(path("shared/token"), "/shared/token: belongs to another user");

    // In the middle of a way of ours, too.
    makeFolder("real", 0755);
    make("real/token", tokenA, 0600);
    makeLink("../real", "shared/data");
    makeLink("data/token", "shared/mine");
    expectToken(path("shared/mine"));
    give("shared/data", somebody, somebody);
    expectRefusal(path("shared/mine"), "/shared/data: belongs to another user");
    expectRefusal(makeLink("shared/data//token", "doubled"),
                  "/shared/data: belongs to another user");
}

TEST_F(TokenLink, ToAnotherUsersFileOrFolderIsNotFollowed)
{
    NEEDS_ROOT();
    make("foreign", tokenA, 0600);
    give("foreign", somebody, somebody);
    expectRefusal(makeLink("foreign", "token"), "/foreign: belongs to another user");
    // Its owner could put another file there.
    makeFolder("folder", 0755);
    make("folder/token", tokenA, 0600);
    give("folder", somebody, somebody);
    expectRefusal(makeLink("folder/token", "below"), "/folder: belongs to another user");
    // Sticky does not help against the folder's owner.
    ASSERT_EQ(0, chmod(path("folder").c_str(), 01755));
    expectRefusal(path("below"), "/folder: belongs to another user");
}

TEST_F(TokenLink, InAFolderThatOthersCanChangeIsNotFollowed)
{
    makeFolder("folder", 0755);
    make("folder/file", tokenA, 0600);
    makeLink("file", "folder/token");
    makeLink("folder/file", "above");
    for (const mode_t mode : {0777, 0775, 0757, 0722, 02775}) {
        ASSERT_EQ(0, chmod(path("folder").c_str(), mode));
        expectRefusal(path("folder/token"), "/folder: can be written by others");
        // Nor is one that leads through it.
        expectRefusal(path("above"), "/folder: can be written by others");
        // The file itself is looked at as it is.
        expectToken(path("folder/file"));
    }
    for (const mode_t mode : {01777, 01775, 03777, 0755, 0700}) {
        ASSERT_EQ(0, chmod(path("folder").c_str(), mode));
        expectToken(path("folder/token"));
        expectToken(path("above"));
    }
}

TEST_F(TokenLink, OnAWayThatOthersCanChangeHigherUpIsNotFollowed)
{
    makeFolder("open", 0777);
    makeFolder("open/closed", 0700);
    make("open/closed/file", tokenA, 0600);
    makeLink("file", "open/closed/token");
    expectRefusal(path("open/closed/token"), "/open: can be written by others");
    makeFolder("other", 0700);
    expectRefusal(makeLink("../open/closed/file", "other/token"),
                  "/open: can be written by others");
    // Also one that is only passed through.
    make("other/file", tokenA, 0600);
    expectRefusal(makeLink("../open/../other/file", "other/around"),
                  "/open: can be written by others");
}

TEST_F(TokenLink, ThatHasNoEndIsNotFollowed)
{
    expectRefusal(makeLink("self", "self"), "/self: is one link too many");
    makeLink("b", "a");
    expectRefusal(makeLink("a", "b"), ": is one link too many");
    make("link0", tokenA, 0600);
    for (int i = 1; i <= 41; ++i)
        makeLink("link" + std::to_string(i - 1), "link" + std::to_string(i));
    expectToken(path("link40"));
    expectRefusal(path("link41"), "is one link too many");
    expectRefusal(makeLink(std::string(200, '/') + "self", "long"), "/self: No such file");
}

TEST_F(TokenLink, ThatLeadsNowhereMakesNothing)
{
    const std::string link = makeLink("nothing", "token");
    expectRefusal(link, "/nothing: No such file or directory");
    EXPECT_THROW(readOrMakeToken(link), UsageError);
    EXPECT_FALSE(fs::exists(path("nothing")));
    makeLink("nothing/deeper", "deep");
    expectRefusal(path("deep"), "/nothing: No such file or directory");
    make("file", tokenA, 0600);
    expectRefusal(makeLink("file/below", "through"), "Not a directory");
    expectRefusal(makeLink("/", "root"), "/: is a folder");
}

// What the system follows by itself, whatever the name says.
TEST_F(TokenLink, OfAnOpenFileIsNotFollowed)
{
    make("file", tokenA, 0600);
    const Descriptor open(::open(path("file").c_str(), O_RDONLY | O_CLOEXEC));
    fs::remove(path("file"));
    expectRefusal("/proc/self/fd/" + std::to_string(open.get()), "(deleted): No such file");
}

}  // namespace
