// Tokens: which are good, and how they are replaced.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "host/output.h"
#include "service/operation/bearer_tokens.h"
#include "support/served_host.h"

namespace fs = std::filesystem;

namespace {

using support::eventually;
using support::HttpConnection;
using support::ServedHost;
using support::writeWhole;

const std::string tokenA(43, 'a');
const std::string tokenB(43, 'b');
const std::string tokenC(43, 'c');

class TokenRequests : public testing::Test {
protected:
    void SetUp() override { NEEDS_WORKERS(); }

    std::string path(const std::string& name) const { return m_folder.path(name); }

    std::string make(const std::string& name, const std::string& text, unsigned mode) const
    {
        writeWhole(path(name), text + "\n");
        fs::permissions(path(name), fs::perms(mode));
        return path(name);
    }

private:
    support::TemporaryFolder m_folder;
};

TEST(BearerTokens, AreAllGood)
{
    const support::TemporaryFolder folder;
    const std::vector<std::string> files = {folder.path("first"), folder.path("second")};
    EXPECT_THROW(BearerTokens{files}, UsageError);
    // The first is made, the second is not.
    EXPECT_TRUE(fs::exists(files[0]));
    EXPECT_FALSE(fs::exists(files[1]));
    for (size_t i : {0U, 1U}) {
        writeWhole(files[i], (i == 0 ? tokenA : tokenB + "x") + "\n");
        fs::permissions(files[i], fs::perms(0600));
    }
    BearerTokens tokens(files);
    EXPECT_EQ(tokenA, tokens.text());
    EXPECT_EQ(files[0], tokens.file());
    EXPECT_TRUE(tokens.isShownBy("Bearer " + tokenA));
    EXPECT_TRUE(tokens.isShownBy("bearer " + tokenB + "x"));
    for (const std::string& wrong :
         {tokenB, tokenC, std::string(), tokenA + tokenB, tokenA + " ", tokenA.substr(1),
          tokenA.substr(0, 22) + tokenB.substr(22), "b" + tokenA.substr(1), tokenA.substr(1) + "b",
          tokenA + "," + tokenB})
        EXPECT_FALSE(tokens.isShownBy("Bearer " + wrong)) << wrong;
    for (const std::string& wrong :
         {std::string(), std::string("Bearer"), tokenA, "Basic  " + tokenA, " Bearer " + tokenA})
        EXPECT_FALSE(tokens.isShownBy(wrong)) << wrong;
    EXPECT_FALSE(tokens.reload());

    // One that is not fit keeps all of them.
    writeWhole(files[0], tokenC + "\n");
    writeWhole(files[1], "short\n");
    EXPECT_THROW(tokens.reload(), UsageError);
    EXPECT_TRUE(tokens.isShownBy("Bearer " + tokenA));
    EXPECT_FALSE(tokens.isShownBy("Bearer " + tokenC));
    writeWhole(files[1], tokenC + "\n");
    EXPECT_TRUE(tokens.reload());
    EXPECT_EQ(tokenC, tokens.text());
    EXPECT_TRUE(tokens.isShownBy("Bearer " + tokenC));
    EXPECT_FALSE(tokens.isShownBy("Bearer " + tokenA));
    EXPECT_FALSE(tokens.isShownBy("Bearer " + tokenB + "x"));
}

TEST(BearerTokens, AreReplacedWhileTheyAreShown)
{
    const support::TemporaryFolder folder;
    const std::vector<std::string> files = {folder.path("first"), folder.path("second")};
    for (const std::string& file : files) {
        writeWhole(file, tokenA);
        fs::permissions(file, fs::perms(0600));
    }
    BearerTokens tokens(files);
    std::atomic<bool> isOver = false;
    std::atomic<size_t> refused = 0;
    std::atomic<size_t> shown = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&] {
            while (!isOver) {
                refused += tokens.isShownBy("Bearer " + tokenA) ? 0 : 1;
                refused += tokens.isShownBy("Bearer " + tokenC) ? 1 : 0;
                ++shown;
            }
        });
    for (int round = 0; round < 50 || shown < 1000; ++round) {
        writeWhole(files[1], round % 2 == 0 ? tokenB : tokenA + "xyz");
        EXPECT_TRUE(tokens.reload());
    }
    isOver = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0U, refused);
}

// ---- The service.

int statusWith(const ServedHost& host, const std::string& token)
{
    return host.ask("GET", "/v1/status", {{"Authorization", "Bearer " + token}}).status;
}

TEST_F(TokenRequests, MayShowEitherTokenUntilItIsReplaced)
{
    for (const char* threads : {"1", "3"}) {
        make("first", tokenA, 0600);
        make("second", tokenB, 0640);
        ServedHost host({"--token-file", path("first"), "--token-file", path("second"),
                         "--front-threads", threads});
        EXPECT_NE(std::string::npos, host.output().find(path("first")));
        EXPECT_EQ(std::string::npos, host.output().find(path("second")));
        EXPECT_EQ(200, statusWith(host, tokenA));
        EXPECT_EQ(200, statusWith(host, tokenB));
        EXPECT_EQ(401, statusWith(host, tokenC));

        // A connection of before learns of it as well.
        HttpConnection connection(host.port());
        const std::string old = host.text("GET", "/v1/status");
        connection.send(old);
        EXPECT_EQ(200, connection.receive().status);
        make("first", tokenC, 0600);
        host.signal(SIGHUP);
        EXPECT_TRUE(eventually([&] { return statusWith(host, tokenC) == 200; }));
        EXPECT_EQ(401, statusWith(host, tokenA));
        EXPECT_EQ(200, statusWith(host, tokenB));
        connection.send(old);
        EXPECT_EQ(401, connection.receive().status);
        EXPECT_NE(std::string::npos, host.errors().find("corvane-host: the tokens were replaced"));
        EXPECT_EQ(0, host.stop());
    }
}

TEST_F(TokenRequests, KeepTheTokensIfANewFileIsNotFit)
{
    make("first", tokenA, 0600);
    make("second", tokenB, 0600);
    ServedHost host({"--token-file", path("first"), "--token-file", path("second")});
    const auto expectKept = [&](const std::string& reason) {
        host.signal(SIGHUP);
        const std::string line = "corvane-host: the tokens stay as they are: the token file " +
                                 path("second") + " " + reason;
        EXPECT_TRUE(eventually([&] { return host.errors().find(line) != std::string::npos; }))
            << line << "\n"
            << host.errors();
        EXPECT_EQ(200, statusWith(host, tokenA));
        EXPECT_EQ(200, statusWith(host, tokenB));
        EXPECT_EQ(401, statusWith(host, tokenC));
    };
    // The first one is good, but is not taken without the second.
    make("first", tokenC, 0600);
    make("second", "short", 0600);
    expectKept("must hold one token");
    make("second", "", 0600);
    expectKept("is empty");
    make("second", tokenC, 0644);
    expectKept("is open to everybody");
    fs::remove(path("second"));
    expectKept("is not there");
    fs::create_symlink("first", path("second"));
    fs::permissions(fs::path(path("second")).parent_path(), fs::perms(0777));
    expectKept("is a symbolic link that cannot be followed");
    EXPECT_EQ(std::string::npos, host.errors().find(tokenC));
    fs::permissions(fs::path(path("second")).parent_path(), fs::perms(0755));
    host.signal(SIGHUP);
    EXPECT_TRUE(eventually([&] { return statusWith(host, tokenC) == 200; }));
    EXPECT_EQ(401, statusWith(host, tokenB));
    EXPECT_EQ(0, host.stop());
}

TEST_F(TokenRequests, AreServedWhileTokensAreReplaced)
{
    make("first", tokenA, 0600);
    make("second", tokenB, 0600);
    ServedHost host({"--token-file", path("first"), "--token-file", path("second"), "--rate", "0",
                     "--front-threads", "3"});
    host.workers();
    std::atomic<bool> isOver = false;
    std::atomic<size_t> wrong = 0;
    std::vector<std::thread> clients;
    for (int i = 0; i < 4; ++i)
        clients.emplace_back([&] {
            HttpConnection connection(host.port());
            while (!isOver) {
                connection.send(host.text("GET", "/v1/status"));
                wrong += connection.receive().status == 200 ? 0 : 1;
            }
        });
    for (int round = 0; round < 20; ++round) {
        const std::string& next = round % 2 == 0 ? tokenC : tokenB;
        make("second", next, 0600);
        host.signal(SIGHUP);
        EXPECT_TRUE(eventually([&] { return statusWith(host, next) == 200; }));
    }
    isOver = true;
    for (std::thread& client : clients)
        client.join();
    EXPECT_EQ(0U, wrong);
    EXPECT_EQ(0, host.stop());
}

TEST_F(TokenRequests, HaveTwoFilesAtMost)
{
    const std::string file = make("token", tokenA, 0600);
    const auto [code, errors] =
        support::runHost({"serve", "--listen", "127.0.0.1:0", "--token-file", file, "--token-file",
                          file, "--token-file", file});
    EXPECT_EQ(2, code);
    EXPECT_EQ(0U, errors.find("corvane-host: --token-file is given twice at most\n")) << errors;
}

}  // namespace
