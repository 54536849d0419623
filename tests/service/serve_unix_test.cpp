// A host that listens at a path: who may connect, what may stand there before and what is left.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <set>
#include <thread>

#include "host/output.h"
#include "service/http/unix_socket.h"
#include "support/served_host.h"

namespace fs = std::filesystem;

namespace {

using namespace std::string_literals;
using support::eventually;
using support::HttpAnswer;
using support::HttpConnection;
using support::Json;
using support::ServedHost;
using support::writeWhole;

#define NEEDS_ROOT()    \
    if (geteuid() != 0) \
    GTEST_SKIP() << "only root can give files away and be another user"

constexpr uid_t somebody = 65534;
constexpr gid_t group = 4712;

sockaddr_un addressOf(const std::string& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

// A socket of somebody else's making.
Descriptor bindAt(const std::string& path, int type = SOCK_STREAM)
{
    Descriptor socket(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    const sockaddr_un address = addressOf(path);
    EXPECT_EQ(0, bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
    return socket;
}

// The rights of another user, for as long as it lives. Groups that root has stay.
class AnotherUser {
public:
    explicit AnotherUser(uid_t user)
    {
        EXPECT_EQ(0, setegid(user));
        EXPECT_EQ(0, seteuid(user));
    }
    ~AnotherUser()
    {
        EXPECT_EQ(0, seteuid(0));
        EXPECT_EQ(0, setegid(0));
    }
    AnotherUser(const AnotherUser&) = delete;
    AnotherUser& operator=(const AnotherUser&) = delete;
};

class UnixPath : public testing::Test {
protected:
    std::string path(const std::string& name) const { return m_folder.path(name); }
    std::string place(const std::string& name = "socket") const { return "unix:" + path(name); }

    struct stat look(const std::string& name = "socket") const
    {
        struct stat info = {};
        EXPECT_EQ(0, lstat(path(name).c_str(), &info));
        return info;
    }
    bool isThere(const std::string& name = "socket") const
    {
        return fs::exists(fs::symlink_status(path(name)));
    }

    UnixSocket open(const std::string& name = "socket", mode_t mode = 0660,
                    const std::string& itsGroup = "") const
    {
        return listenAtPath(path(name), SocketAccess{mode, itsGroup});
    }
    void expectRefusal(const std::string& text, const std::string& itsGroup = "") const
    {
        try {
            open("socket", 0660, itsGroup);
            ADD_FAILURE() << "it listens";
        } catch (const UsageError& e) {
            EXPECT_EQ("cannot listen on " + place() + ": " + text, e.what());
        }
    }

private:
    support::TemporaryFolder m_folder;
};

using ServeUnix = UnixPath;

// ---- The file.

TEST_F(UnixPath, HasItsModeWhateverTheProcesssIs)
{
    for (const mode_t mask : {0, 022, 077, 0777}) {
        const mode_t before = umask(mask);
        for (const mode_t mode : {0660, 0600, 0666, 0777, 0}) {
            const UnixSocket made = open("socket", mode);
            EXPECT_EQ(mode, look().st_mode & 07777);
            EXPECT_TRUE(S_ISSOCK(look().st_mode));
        }
        umask(before);
    }
}

TEST_F(UnixPath, HasItsGroup)
{
    NEEDS_ROOT();
    {
        const UnixSocket made = open("socket", 0660, std::to_string(group));
        EXPECT_EQ(group, look().st_gid);
        EXPECT_EQ(0660U, look().st_mode & 07777U);
    }
    {
        const UnixSocket made = open("socket", 0660, "daemon");
        EXPECT_EQ(getgrnam("daemon")->gr_gid, look().st_gid);
    }
    for (const char* name : {"no-such-group", "-1", "4294967295", "1x", "0x1", " 1"}) {
        expectRefusal("there is no group "s + name, name);
        EXPECT_FALSE(isThere()) << name;
    }
}

// A machine may know no group of nine digits, but that is the system's to say.
TEST_F(UnixPath, HasAGroupOfNineDigitsAtMost)
{
    NEEDS_ROOT();
    try {
        const UnixSocket made = open("socket", 0660, "123456789");
        EXPECT_EQ(123456789U, look().st_gid);
    } catch (const UsageError& e) {
        EXPECT_EQ(
            "cannot listen on " + place() + ": its group cannot be 123456789: Invalid argument"s,
            e.what());
    }
    expectRefusal("there is no group 1234567890", "1234567890");
}

// Nothing of it reaches programs that the host starts, and nobody waits in it.
TEST_F(UnixPath, IsTheProcesssOwn)
{
    std::set<int> before;
    const auto look = [](const auto& see) {
        for (int number = 0; number < 1024; ++number)
            if (fcntl(number, F_GETFD) >= 0)
                see(number);
    };
    look([&](int number) { before.insert(number); });
    const UnixSocket made = open();
    EXPECT_EQ(O_NONBLOCK, fcntl(made.descriptor.get(), F_GETFL) & O_NONBLOCK);
    size_t more = 0;
    look([&](int number) {
        if (before.count(number) != 0)
            return;
        ++more;
        EXPECT_EQ(FD_CLOEXEC, fcntl(number, F_GETFD)) << number;
    });
    EXPECT_EQ(2U, more);
}

TEST_F(UnixPath, IsGoneAtTheEnd)
{
    {
        const UnixSocket made = open();
        EXPECT_TRUE(isThere());
        EXPECT_GE(HttpConnection(path("socket")).descriptor(), 0);
    }
    EXPECT_FALSE(isThere());
}

// A host that drains does not take it from the next one.
TEST_F(UnixPath, OfAnotherOneIsLeft)
{
    for (int i = 0; i < 50; ++i) {
        auto first = std::make_unique<UnixSocket>(open());
        fs::remove(path("socket"));
        const UnixSocket second = open();
        first.reset();
        ASSERT_TRUE(isThere());
    }
    auto first = std::make_unique<UnixSocket>(open());
    fs::remove(path("socket"));
    writeWhole(path("socket"), "a file");
    first.reset();
    EXPECT_EQ("a file", support::readWhole(path("socket")));
}

TEST_F(UnixPath, OfAHostThatWasKilledIsReplaced)
{
    bindAt(path("socket"));
    EXPECT_TRUE(isThere());
    const UnixSocket made = open();
    EXPECT_GE(HttpConnection(path("socket")).descriptor(), 0);
}

TEST_F(UnixPath, IsNotTakenFromAnother)
{
    {
        const UnixSocket made = open();
        errno = ECONNREFUSED;  // of something before
        expectRefusal("another process listens there");
        EXPECT_GE(HttpConnection(path("socket")).descriptor(), 0);
    }
    // Nor from one that has no room for more.
    {
        const Descriptor busy = bindAt(path("socket"));
        ASSERT_EQ(0, listen(busy.get(), 0));
        const HttpConnection first(path("socket"));
        expectRefusal("another process listens there");
    }
    fs::remove(path("socket"));
    {
        const Descriptor datagrams = bindAt(path("socket"), SOCK_DGRAM);
        expectRefusal("another process listens there");
    }
}

TEST_F(UnixPath, ThatIsSomethingElseIsRefused)
{
    const auto expectLeft = [&] {
        expectRefusal("something that is no socket is there");
        EXPECT_TRUE(isThere());
        fs::remove_all(path("socket"));
    };
    writeWhole(path("socket"), "a file");
    expectLeft();
    fs::create_directory(path("socket"));
    expectLeft();
    ASSERT_EQ(0, mkfifo(path("socket").c_str(), 0600));
    expectLeft();
    // A link is not followed, to a socket that is left over neither.
    bindAt(path("stale"));
    fs::create_symlink("stale", path("socket"));
    expectLeft();
    EXPECT_TRUE(isThere("stale"));
    fs::create_symlink("nothing", path("socket"));
    expectLeft();
    EXPECT_FALSE(isThere("nothing"));
    fs::create_symlink("socket", path("socket"));
    expectLeft();
}

TEST_F(UnixPath, OfAnotherUserIsRefused)
{
    NEEDS_ROOT();
    bindAt(path("socket"));
    ASSERT_EQ(0, lchown(path("socket").c_str(), somebody, somebody));
    expectRefusal("another user's socket is there");
    EXPECT_TRUE(isThere());
}

// What the system refuses is told with its reason.
TEST_F(UnixPath, OfAUserWithFewRightsIsHisOwn)
{
    NEEDS_ROOT();
    fs::permissions(fs::path(path("socket")).parent_path(), fs::perms(0777));
    fs::create_directory(path("closed"));
    fs::permissions(path("closed"), fs::perms(0755));
    bindAt(path("closed/stale"));
    ASSERT_EQ(0, lchown(path("closed/stale").c_str(), somebody, somebody));
    const AnotherUser user(somebody);
    expectRefusal("its group cannot be 4712: Operation not permitted", std::to_string(group));
    EXPECT_FALSE(isThere());
    {
        const UnixSocket made = open("socket", 0660, std::to_string(somebody));
        EXPECT_EQ(somebody, look().st_uid);
        EXPECT_EQ(somebody, look().st_gid);
    }
    for (const char* name : {"closed/new", "closed/stale"})
        try {
            open(name);
            ADD_FAILURE() << name;
        } catch (const UsageError& e) {
            EXPECT_EQ("cannot listen on " + place(name) + ": Permission denied", e.what());
        }
}

TEST_F(UnixPath, MustBePossible)
{
    const auto expect = [&](const std::string& there, const std::string& text) {
        try {
            listenAtPath(there, SocketAccess{0660, ""});
            ADD_FAILURE() << there;
        } catch (const UsageError& e) {
            EXPECT_EQ("cannot listen on unix:" + there + ": " + text, e.what());
        }
    };
    expect(path("no/folder"), "No such file or directory");
    writeWhole(path("file"), "");
    expect(path("file/socket"), "Not a directory");
    expect("/" + std::string(107, 'x'), "a socket's path has at most 107 bytes");
    EXPECT_THROW(listenAtPath("/proc/socket", SocketAccess{0660, ""}), UsageError);
}

// ---- The service.

TEST_F(ServeUnix, AnswersAsAtAnAddress)
{
    NEEDS_WORKERS();
    for (const char* threads : {"1", "3"}) {
        ServedHost host({"--listen", place(), "--front-threads", threads});
        EXPECT_EQ("corvane-host: listening on " + place() +
                      "\ncorvane-host: to see the token: cat '" + host.path("token") + "'\n",
                  host.output());
        EXPECT_EQ(0660U, look().st_mode & 07777U);
        EXPECT_EQ(200, host.get("/livez").status);
        EXPECT_EQ("0", host.request("QZaVen_GetVersion").result("errorCode"));
        EXPECT_EQ(401, host.ask("GET", "/v1/status", {{"Authorization", ""}}).status);
        // Hosts' names are looked at as ever.
        EXPECT_EQ(200, host.ask("GET", "/livez", {{"Host", "127.0.0.1:80"}}).status);
        EXPECT_EQ(403, host.ask("GET", "/livez", {{"Host", "strange.example"}}).status);
        EXPECT_EQ(403, host.ask("GET", "/livez", {{"Host", path("socket")}}).status);
        EXPECT_EQ(400, host.ask("GET", "/livez", {{"Host", ""}}).status);
        // Many requests on a connection, and many connections.
        HttpConnection connection = host.connect();
        for (int i = 0; i < 20; ++i) {
            connection.send(host.text("GET", "/v1/status"));
            EXPECT_EQ(200, connection.receive().status);
        }
        std::vector<std::thread> clients;
        for (int i = 0; i < 8; ++i)
            clients.emplace_back([&host] {
                for (int k = 0; k < 20; ++k)
                    EXPECT_EQ(200, host.get("/livez").status);
            });
        for (std::thread& client : clients)
            client.join();
        EXPECT_TRUE(eventually([&] { return host.metric("corvane_connections") == 2; }));
        const std::string log = support::readWhole(host.path("access.log"));
        EXPECT_NE(std::string::npos, log.find("\"address\":\"unix\",\"method\":\"GET\"")) << log;
        EXPECT_EQ(0, host.stop());
        EXPECT_FALSE(isThere());
    }
}

TEST_F(ServeUnix, IsOnTheMachineItself)
{
    NEEDS_WORKERS();
    ServedHost host({"--listen", place(), "--no-auth", "--listen-mode", "0600"});
    EXPECT_EQ("corvane-host: listening on " + place() + "\ncorvane-host: no token is asked for\n",
              host.output());
    EXPECT_EQ(0600U, look().st_mode & 07777U);
    EXPECT_EQ("0", host.request("QZaVen_GetVersion").result("errorCode"));
    EXPECT_EQ(0, host.stop(SIGINT));
    EXPECT_FALSE(isThere());
}

TEST_F(ServeUnix, TakesLargeBodiesAndManyRequestsAtOnce)
{
    NEEDS_WORKERS();
    const ServedHost host({"--listen", place(), "--rate", "0"});
    const HttpAnswer large = host.request(
        "QZaven_crypto_hmac", {{"strHashAlg", 4},
                               {"strKey", {{"hex", "00"}}},
                               {"strdata", {{"text", std::string(size_t{3} << 20, 'x')}}}});
    EXPECT_EQ("0", large.result("errorCode"));
    HttpConnection connection = host.connect();
    std::string bytes;
    for (int i = 0; i < 50; ++i)
        bytes += host.text("GET", "/livez");
    connection.send(bytes);
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(200, connection.receive().status);
}

TEST_F(ServeUnix, IsReplacedAfterAKill)
{
    NEEDS_WORKERS();
    {
        ServedHost host({"--listen", place()});
        host.stop(SIGKILL);
    }
    EXPECT_TRUE(isThere());
    ServedHost host({"--listen", place()});
    EXPECT_EQ(200, host.get("/livez").status);
    EXPECT_EQ(0, host.stop());
    EXPECT_FALSE(isThere());
}

// Its clients have one rate together, or each its own behind a proxy that is trusted.
TEST_F(ServeUnix, MayBeAProxys)
{
    NEEDS_WORKERS();
    const std::vector<std::string> few = {
        "--rate", "0.001", "--burst", "2", "--listen", place(), "--connections-per-address", "2"};
    {
        const ServedHost host(few);
        EXPECT_EQ(200, host.ask("GET", "/livez", {{"X-Forwarded-For", "192.0.2.1"}}).status);
        EXPECT_EQ(200, host.get("/livez").status);
        EXPECT_EQ(429, host.ask("GET", "/livez", {{"X-Forwarded-For", "192.0.2.2"}}).status);
    }
    std::vector<std::string> trusting = few;
    trusting.insert(trusting.end(), {"--trusted-proxy", "unix"});
    const ServedHost host(trusting);
    std::vector<std::unique_ptr<HttpConnection>> connections;
    for (const char* client : {"192.0.2.1", "192.0.2.1", "192.0.2.2", "192.0.2.3"}) {
        connections.push_back(std::make_unique<HttpConnection>(path("socket")));
        connections.back()->send(
            host.text("GET", "/livez", {{"X-Forwarded-For", client}, {"X-Request-Id", "mine"}}));
        const HttpAnswer answer = connections.back()->receive();
        EXPECT_EQ(200, answer.status);
        EXPECT_EQ("mine", answer.headers.at("x-request-id"));
    }
    EXPECT_EQ(429, host.ask("GET", "/livez", {{"X-Forwarded-For", "192.0.2.1"}}).status);
    EXPECT_EQ(429, host.ask("GET", "/livez", {{"X-Forwarded-For", "1.1.1.1, 192.0.2.1"}}).status);
}

TEST_F(ServeUnix, IsWrittenAsAPath)
{
    const auto expect = [](std::vector<std::string> options, const std::string& text) {
        options.insert(options.begin(), {"serve", "--no-auth"});
        const auto [code, errors] = support::runHost(options);
        EXPECT_EQ(2, code) << text;
        EXPECT_EQ(0U, errors.find("corvane-host: " + text)) << errors;
    };
    for (const char* listen : {"unix:", "unix:socket", "unix:@name", "unix:./socket"})
        expect({"--listen", listen}, "--listen takes a unix socket as unix:/PATH");
    for (const char* mode : {"8", "0800", "1777", "rw", "-1", "00660", "0o660"})
        expect({"--listen", place(), "--listen-mode="s + mode},
               "--listen-mode: takes a mode such as 0660");
    expect({"--listen", "127.0.0.1:0", "--listen-mode", "0660"},
           "--listen-mode and --listen-group are for --listen unix:/PATH");
    expect({"--listen", "127.0.0.1:0", "--listen-group", "daemon"},
           "--listen-mode and --listen-group are for --listen unix:/PATH");
    if (!support::emulated) {  // its workers have begun to start
        writeWhole(path("socket"), "a file");
        const auto [code, errors] = support::runHost({"serve", "--no-auth", "--listen", place()});
        EXPECT_EQ(2, code);
        EXPECT_NE(std::string::npos,
                  errors.find("cannot listen on " + place() + ": something that is no socket"))
            << errors;
    }
}

}  // namespace
