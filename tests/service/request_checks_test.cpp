// What a request is held against before it is sent: whose it is, its files, and its session.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <system_error>

#include "host/output.h"
#include "service/bodies/refusal.h"
#include "service/requests/addressee.h"
#include "service/requests/confined_files.h"
#include "service/requests/sessions.h"
#include "support/files.h"
#include "support/in_child.h"
#include "support/tested.h"

namespace fs = std::filesystem;

namespace {

using namespace std::string_literals;
using support::inChild;
using support::readWhole;
using support::writeWhole;

// Why something is refused, where, and with which values; "" if it is not.
std::string refusalOf(const std::function<void()>& what)
{
    try {
        what();
    } catch (const Refusal& refusal) {
        const auto error = refusal.json()["error"];
        return error["reason"].get<std::string>() + " " + error["field"].dump() + " " +
               error["values"].dump();
    }
    return "";
}

// ---- Nodes.

const std::string someRandom(32, 'A');
const std::string ofA = "ke_a." + someRandom;
const std::string ofB = "ke_b." + someRandom;
const std::string ofNone = "ke_" + someRandom;

TEST(Addressee, HasHeadersOfTheirFormThatAgree)
{
    const std::string badNode = R"(bad_node_header "X-Corvane-Node" {})";
    const std::string badSession = R"(bad_session_header "X-Corvane-Session" {})";
    const std::string contradiction =
        R"(header_contradicts "X-Corvane-Node" {"header":"X-Corvane-Node","name":"X-Corvane-Session"})";
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {"", "", ""},      {"a", "", ""},          {"A", "", badNode},        {"", ofA, ""},
        {"", ofNone, ""},  {"", "1", badSession},  {"A", "1", badNode},       {"a", ofA, ""},
        {"a", ofNone, ""}, {"a", "1", badSession}, {"a", ofB, contradiction},
    };
    for (const auto& [node, session, expected] : rows)
        EXPECT_EQ(expected, refusalOf([&, to = Addressee{node, session}] { checkHeaders(to); }))
            << node << " " << session;
}

TEST(Addressee, HasTheSessionOfTheRequest)
{
    const std::string otherSession =
        R"(header_contradicts "there" {"header":"X-Corvane-Session","name":"strKe"})";
    const std::string otherNode =
        R"(header_contradicts "there" {"header":"X-Corvane-Node","name":"strKe"})";
    const std::string wrongNode = R"(wrong_node "there" {"node":"b"})";
    const std::tuple<std::string, std::string, std::string, std::string> rows[] = {
        {"", "", ofA, ""},
        {"", "", ofB, wrongNode},
        {"", "", ofNone, ""},
        {"", "", "1", ""},
        {"", ofA, ofA, ""},
        {"", ofB, ofB, wrongNode},
        {"", ofB, ofA, otherSession},
        {"", ofA, ofNone, otherSession},
        {"", ofA, "1", otherSession},
        {"a", "", ofA, ""},
        {"a", "", ofB, otherNode},
        {"b", "", ofB, wrongNode},
        {"b", "", ofA, otherNode},
        {"b", "", ofNone, ""},
        {"b", "", "1", ""},
        {"b", ofA, ofB, otherSession},
    };
    for (const auto& [node, session, token, expected] : rows)
        EXPECT_EQ(expected, refusalOf([&, to = Addressee{node, session}, own = token] {
                      checkSession(to, own, "a", "there");
                  }))
            << node << " " << session << " " << token;
}

TEST(Addressee, IsThisNode)
{
    const std::string ofSession = R"(wrong_node "X-Corvane-Session" {"node":"b"})";
    const std::string ofNode = R"(wrong_node "X-Corvane-Node" {"node":"b"})";
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {"", "", ""},     {"a", "", ""},        {"b", "", ofNode}, {"", ofA, ""},
        {"", ofNone, ""}, {"", ofB, ofSession}, {"a", ofNone, ""}, {"b", ofNone, ofNode},
    };
    for (const auto& [node, session, expected] : rows)
        EXPECT_EQ(expected, refusalOf([&, to = Addressee{node, session}] { checkNode(to, "a"); }))
            << node << " " << session;
}

// ---- Files.

class ConfinedFilesTest : public testing::Test {
protected:
    void SetUp() override
    {
        fs::create_directories(m_folder.path("ca/inner"));
        writeWhole(path("ca/root"), "of root");
        writeWhole(path("ca/.hidden"), "hidden");
        writeWhole(path("ca/a..b"), "dots");
        writeWhole(path("outside"), "outside");
        fs::create_symlink("root", path("ca/link"));
        fs::create_symlink("inner", path("ca/linked"));
        fs::create_symlink("../outside", path("ca/leading"));
        ASSERT_EQ(0, mkfifo(path("ca/pipe").c_str(), 0600));
    }

    std::string path(const std::string& name) const { return m_folder.path(name); }

    // Files end at so many bytes, as on a full disk.
    static void limitFiles(rlim_t bytes)
    {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {bytes, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &limit);
    }

private:
    support::TemporaryFolder m_folder;
};

TEST_F(ConfinedFilesTest, AreOpenedBelowTheFolderAlone)
{
    if (support::emulated)
        GTEST_SKIP() << "NOT TESTED: the emulator has no openat2";
    const ConfinedFiles files(path("ca"));
    for (const char* good : {"root", ".hidden", "a..b", "./root"}) {
        const Descriptor file = files.openFile(good, "there");
        EXPECT_EQ(FD_CLOEXEC, fcntl(file.get(), F_GETFD)) << good;
        EXPECT_EQ(O_NONBLOCK, fcntl(file.get(), F_GETFL) & (O_NONBLOCK | O_ACCMODE)) << good;
    }
    char bytes[8] = {};
    EXPECT_EQ(7, read(files.openFile("root", "").get(), bytes, sizeof bytes));
    EXPECT_STREQ("of root", bytes);
    EXPECT_EQ("", refusalOf([&] { EXPECT_TRUE(files.openFolder("inner", "there")); }));

    const auto file = [&](const std::string& name) {
        return refusalOf([&] { files.openFile(name, "there"); });
    };
    const auto folder = [&](const std::string& name) {
        return refusalOf([&] { files.openFolder(name, "there"); });
    };
    for (const std::string& name : {""s, "/etc/passwd"s, path("ca/root"), ".."s, "../outside"s,
                                    "inner/.."s, "inner/../root"s, "root\0"s, "root\0x"s}) {
        EXPECT_EQ(R"(outside_folder "there" {})", file(name)) << name;
        EXPECT_EQ(R"(outside_folder "there" {})", folder(name)) << name;
    }
    for (const char* name : {"none", "inner", "pipe", "link", "leading", "linked", "root/", "."})
        EXPECT_EQ(R"(no_such_file "there" {})", file(name)) << name;
    for (const char* name : {"none", "root", "pipe", "link", "leading", "linked"})
        EXPECT_EQ(R"(no_such_folder "there" {})", folder(name)) << name;
}

TEST_F(ConfinedFilesTest, AreNoneWithoutAFolder)
{
    const ConfinedFiles files("");
    EXPECT_EQ(R"(no_folder "there" {})", refusalOf([&] { files.openFile("root", "there"); }));
    EXPECT_EQ(R"(no_folder "there" {})", refusalOf([&] { files.openFolder("", "there"); }));
}

TEST_F(ConfinedFilesTest, NeedAFolderThatCanBeRead)
{
    const auto errorOf = [&](const std::string& folder) -> std::string {
        try {
            const ConfinedFiles files(folder);
        } catch (const UsageError& e) {
            return e.what();
        }
        return "";
    };
    EXPECT_EQ("cannot open the folder " + path("none") + ": No such file or directory",
              errorOf(path("none")));
    fs::permissions(path("outside"), fs::perms(0700));
    EXPECT_EQ("cannot open the folder " + path("outside") + ": Not a directory",
              errorOf(path("outside")));
    EXPECT_EQ("", errorOf(path("ca")));
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can be another user";
    fs::permissions(fs::path(path("ca")).parent_path(), fs::perms(0711));
    for (const auto& [mode, isRefused] :
         {std::pair(0755, false), {0700, true}, {0711, true}, {0744, true}}) {
        fs::permissions(path("ca"), fs::perms(mode));
        EXPECT_EQ(0, inChild([&, refused = isRefused] {
                      ASSERT_EQ(0, seteuid(65534));
                      EXPECT_EQ(refused
                                    ? "cannot open the folder " + path("ca") + ": Permission denied"
                                    : "",
                                errorOf(path("ca")));
                  }))
            << mode;
    }
}

TEST_F(ConfinedFilesTest, UploadsCannotBeChanged)
{
    errno = EINTR;  // of something that was before
    EXPECT_EQ(0, inChild([&] {
                  limitFiles(100000);
                  errno = EINTR;
                  for (const size_t size : {0, 1, 70000}) {
                      const std::string bytes(size, 'x');
                      const Descriptor file = ConfinedFiles::upload(bytes);
                      EXPECT_EQ(FD_CLOEXEC, fcntl(file.get(), F_GETFD));
                      EXPECT_EQ(F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE,
                                fcntl(file.get(), F_GET_SEALS));
                      EXPECT_EQ(bytes, readWhole("/proc/self/fd/" + std::to_string(file.get())));
                  }
              }));
}

TEST_F(ConfinedFilesTest, AnUploadThatFindsNoRoomIsTold)
{
    EXPECT_EQ(0, inChild([] {
                  limitFiles(10);
                  try {
                      ConfinedFiles::upload(std::string(11, 'x'));
                      ADD_FAILURE() << "it is kept";
                  } catch (const std::system_error& e) {
                      EXPECT_STREQ("cannot keep an upload: File too large", e.what());
                  }
                  EXPECT_TRUE(ConfinedFiles::upload(std::string(10, 'x')));
              }));
}

// ---- Sessions.

// Makes one in a place; false if there is no room.
bool make(Sessions& sessions, const std::string& token, WorkerLife life)
{
    const auto reservation = sessions.reserve(life);
    if (reservation != nullptr)
        reservation->add(token);
    return reservation != nullptr;
}

TEST(Sessions, HaveRoomInEachPlaceOfItsOwn)
{
    Sessions sessions(2, 2);
    EXPECT_TRUE(make(sessions, "a", {0, 1}));
    {
        const auto being = sessions.reserve({0, 1});
        ASSERT_NE(nullptr, being);
        EXPECT_EQ((WorkerLife{0, 1}), being->life());
        EXPECT_EQ(2U, sessions.countOf(0));
        EXPECT_EQ(1U, sessions.count());
        EXPECT_EQ(nullptr, sessions.reserve({0, 1}));
        EXPECT_NE(nullptr, sessions.reserve({1, 1}));
        EXPECT_EQ(0U, sessions.countOf(1));
    }
    EXPECT_EQ(1U, sessions.countOf(0));
    const auto cancelled = sessions.reserve({0, 1});
    cancelled->cancel();
    EXPECT_EQ(1U, sessions.countOf(0));
    cancelled->cancel();
    EXPECT_EQ(1U, sessions.countOf(0));
    EXPECT_TRUE(make(sessions, "b", {0, 1}));
    EXPECT_FALSE(make(sessions, "c", {0, 1}));
    EXPECT_EQ(2U, sessions.countOf(0));
    EXPECT_EQ(2U, sessions.count());
    sessions.end("a", Reason::session_freed);
    sessions.end("a", Reason::session_idle);
    EXPECT_EQ(1U, sessions.countOf(0));
    EXPECT_TRUE(make(sessions, "c", {0, 1}));
}

TEST(Sessions, AreKnownUntilTheirEnd)
{
    Sessions sessions(2, 10);
    make(sessions, "a", {1, 7});
    ASSERT_NE(nullptr, sessions.find("a"));
    EXPECT_EQ((WorkerLife{1, 7}), *sessions.find("a"));
    EXPECT_EQ(nullptr, sessions.find("b"));
    EXPECT_EQ(nullptr, sessions.enter("b"));
    EXPECT_EQ(Reason::session_unknown, sessions.reasonOf("a"));

    // It may end while it is in use.
    auto use = sessions.enter("a");
    ASSERT_NE(nullptr, use);
    EXPECT_EQ((WorkerLife{1, 7}), use->life());
    sessions.end("a", Reason::session_freed);
    use.reset();
    EXPECT_EQ(nullptr, sessions.find("a"));
    EXPECT_EQ(0U, sessions.count());
    EXPECT_EQ(Reason::session_freed, sessions.reasonOf("a"));
}

TEST(Sessions, EndWithTheirProcess)
{
    Sessions sessions(2, 10);
    make(sessions, "a", {0, 1});
    make(sessions, "b", {0, 1});
    make(sessions, "c", {0, 2});
    make(sessions, "d", {1, 1});
    sessions.endAllOf({0, 1}, Reason::session_worker_ended);
    for (const char* token : {"a", "b"}) {
        EXPECT_EQ(nullptr, sessions.find(token));
        EXPECT_EQ(Reason::session_worker_ended, sessions.reasonOf(token));
    }
    EXPECT_EQ(2U, sessions.count());
    EXPECT_EQ(1U, sessions.countOf(0));
    EXPECT_EQ(1U, sessions.countOf(1));
}

TEST(Sessions, AreIdleWhenNobodyHasUsedThem)
{
    Sessions sessions(1, 10);
    const auto before = Clock::now() - Seconds(1);
    const auto asOf = [&](auto time) {
        return sessions.idleSince(std::chrono::time_point_cast<Clock::duration>(time)).size();
    };
    make(sessions, "a", {0, 1});
    EXPECT_EQ(0U, asOf(before));
    EXPECT_EQ(1U, asOf(Clock::now()));
    {
        const auto first = sessions.enter("a");
        auto second = sessions.enter("a");
        EXPECT_EQ(0U, asOf(Clock::now()));
        second.reset();
        EXPECT_EQ(0U, asOf(Clock::now()));
    }
    EXPECT_EQ(1U, asOf(Clock::now()));
    // The end of the last use counts.
    auto use = sessions.enter("a");
    const auto during = Clock::now();
    while (Clock::now() == during) {
    }
    use.reset();
    EXPECT_EQ(0U, asOf(during));
    EXPECT_EQ(std::vector<SecretText>{"a"}, sessions.idleSince(Clock::now()));
}

TEST(Sessions, AreRememberedForSomeTime)
{
    constexpr int most = 4096;
    Sessions sessions(1, 1);
    const auto end = [&](int number) {
        const std::string token = std::to_string(number);
        ASSERT_TRUE(make(sessions, token, {0, 1}));
        sessions.end(token, Reason::session_idle);
    };
    for (int i = 0; i < most; ++i)
        end(i);
    EXPECT_EQ(Reason::session_idle, sessions.reasonOf("0"));
    end(most);
    EXPECT_EQ(Reason::session_unknown, sessions.reasonOf("0"));
    EXPECT_EQ(Reason::session_idle, sessions.reasonOf("1"));
    end(most + 1);
    EXPECT_EQ(Reason::session_unknown, sessions.reasonOf("1"));
    EXPECT_EQ(Reason::session_idle, sessions.reasonOf("2"));
    EXPECT_EQ(Reason::session_idle, sessions.reasonOf(std::to_string(most + 1)));
}

}  // namespace
