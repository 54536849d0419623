// Workers are replaced one after the other while the service goes on.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <set>
#include <thread>

#include "support/served_host.h"

namespace fs = std::filesystem;

namespace {

using support::eventually;
using support::HttpAnswer;
using support::HttpConnection;
using support::Json;
using support::ServedHost;

// HMAC-SHA-256 of "what do ya want for nothing?" with the key "Jefe": RFC 4231, test case 2.
const Json hmac = {{"strHashAlg", 4},
                   {"strKey", {{"text", "Jefe"}}},
                   {"strdata", {{"text", "what do ya want for nothing?"}}}};
const char* const rightHmac = "W9zBRr9gdU5qBCQmCJV1x1oAPwidJzmDnexYuWTsOEM=";

// How often a text stands in what the host wrote to standard error.
size_t told(const ServedHost& host, const std::string& text)
{
    const std::string errors = host.errors();
    size_t count = 0;
    for (size_t at = 0; (at = errors.find(text, at)) != std::string::npos; ++at)
        ++count;
    return count;
}

void waitForEnds(const ServedHost& host, size_t count)
{
    EXPECT_TRUE(eventually([&] { return told(host, "all workers have been replaced") == count; }));
}

size_t countOfSame(const std::vector<pid_t>& some, const std::vector<pid_t>& others)
{
    return static_cast<size_t>(std::count_if(some.begin(), some.end(), [&](pid_t pid) {
        return std::count(others.begin(), others.end(), pid) > 0;
    }));
}

// The workers once those that were replaced are gone: they may take a moment to clean up.
std::vector<pid_t> workersAfter(const ServedHost& host, size_t count)
{
    std::vector<pid_t> now;
    EXPECT_TRUE(eventually([&] { return (now = host.workers(count)).size() == count; }));
    return now;
}

// Clients that ask for an HMAC again and again, and look at each answer.
class Load {
public:
    explicit Load(const ServedHost& host)
    {
        for (int i = 0; i < 4; ++i)
            m_clients.emplace_back([this, &host] { run(host); });
    }
    ~Load()
    {
        m_isOver = true;
        for (std::thread& client : m_clients)
            client.join();
    }
    int right() const { return m_right; }
    int others() const { return m_others; }

private:
    void run(const ServedHost& host)
    {
        HttpConnection connection(host.port());
        const std::string request = host.text("POST", "/v1/requests/QZaven_crypto_hmac",
                                              {{"Content-Type", "application/json"}}, hmac.dump());
        while (!m_isOver && m_others == 0) {
            connection.send(request);
            const HttpAnswer answer = connection.receive();
            const bool isRight = answer.status == 200 && answer.result("Data") == rightHmac;
            EXPECT_TRUE(isRight) << answer.status << ' ' << answer.body;
            ++(isRight ? m_right : m_others);
        }
    }

    std::atomic<bool> m_isOver = false;
    std::atomic<int> m_right = 0;
    std::atomic<int> m_others = 0;
    std::vector<std::thread> m_clients;
};

void expectNothingLost(const std::string& workers, size_t count)
{
    ServedHost host({"--rate", "0", "--workers", workers});
    std::vector<pid_t> before = host.workers(count);
    const Load load(host);
    for (size_t round = 1; round <= 3; ++round) {
        const int right = load.right();
        EXPECT_TRUE(eventually([&] { return load.right() > right + 50 || load.others() > 0; }));
        host.signal(SIGUSR2);
        waitForEnds(host, round);
        const std::vector<pid_t> now = workersAfter(host, count);
        EXPECT_EQ(0U, countOfSame(now, before));
        EXPECT_EQ(static_cast<double>(count), host.metric("corvane_workers"));
        before = now;
    }
    EXPECT_EQ(0, load.others());
    EXPECT_EQ(static_cast<double>(3 * count), host.metric("corvane_worker_restarts_total"));
}

TEST(ServeRoll, ReplacesEachWorkerAndLosesNothing)
{
    NEEDS_WORKERS();
    expectNothingLost("3", 3);
}

TEST(ServeRoll, ReplacesTheOnlyWorkerAndLosesNothing)
{
    NEEDS_WORKERS();
    expectNothingLost("1", 1);
}

TEST(ServeRoll, OneThatIsAskedForMeanwhileFollows)
{
    NEEDS_WORKERS();
    ServedHost host({"--roll-seconds", "600"});
    const std::string token = host.request("QZaven_ke_new").result("Data");
    host.signal(SIGUSR2);
    EXPECT_TRUE(eventually([&] { return told(host, "workers are being replaced") == 1; }));
    host.signal(SIGUSR2);
    // Both signals would be one if the first were still waiting.
    EXPECT_TRUE(eventually([&] { return host.metric("corvane_workers") == 3; }));
    EXPECT_EQ(200, host.request("QZaven_ke_free", {{"strKe", token}}).status);
    waitForEnds(host, 2);
    EXPECT_EQ(4, host.metric("corvane_worker_restarts_total"));
}

// Workers that die meanwhile do not hinder it.
TEST(ServeRoll, GoesOnWhenWorkersDie)
{
    NEEDS_WORKERS();
    ServedHost host({"--rate", "0", "--workers", "3"});
    std::vector<pid_t> before = host.workers(3);
    for (size_t round = 1; round <= 3; ++round) {
        host.signal(SIGUSR2);
        for (const pid_t worker : before)
            kill(worker, SIGKILL);
        waitForEnds(host, round);
        const std::vector<pid_t> now = workersAfter(host, 3);
        EXPECT_EQ(0U, countOfSame(now, before));
        EXPECT_EQ(rightHmac, host.request("QZaven_crypto_hmac", hmac).result("Data"));
        before = now;
    }
}

TEST(ServeRoll, LeavesAWorkerToItsSessions)
{
    NEEDS_WORKERS();
    ServedHost host({"--workers", "1", "--roll-seconds", "600"});
    const std::vector<pid_t> before = host.workers(1);
    const std::string token = host.request("QZaven_ke_new").result("Data");
    host.signal(SIGUSR2);
    EXPECT_TRUE(eventually([&] { return host.status()["workers"][0]["state"] == "leaving"; }));
    // The session goes on in its worker, and all else is served beside it.
    EXPECT_EQ(200, host.request("QZaven_ke_client_hello", {{"strKe", token}}).status);
    kill(before[0], SIGSTOP);
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(rightHmac, host.request("QZaven_crypto_hmac", hmac).result("Data"));
    kill(before[0], SIGCONT);
    EXPECT_EQ(0U, told(host, "have been replaced"));
    EXPECT_EQ(200, host.request("QZaven_ke_free", {{"strKe", token}}).status);
    waitForEnds(host, 1);
    EXPECT_EQ(0U, countOfSame(host.workers(1), before));
}

TEST(ServeRoll, EndsSessionsAfterItsTime)
{
    NEEDS_WORKERS();
    ServedHost host({"--roll-seconds", "0.2"});
    const std::string token = host.request("QZaven_ke_new").result("Data");
    host.signal(SIGUSR2);
    waitForEnds(host, 1);
    const HttpAnswer answer = host.request("QZaven_ke_client_hello", {{"strKe", token}});
    EXPECT_EQ(410, answer.status);
    EXPECT_EQ("session_worker_ended", answer.json()["error"]["reason"]);
    EXPECT_EQ(0, host.metric("corvane_sessions"));
    EXPECT_EQ(200, host.request("QZaven_ke_new").status);
}

// An update that goes wrong takes no worker, and one that is made good is taken.
TEST(ServeRoll, ABrokenPluginTakesNoWorkerAndIsTold)
{
    NEEDS_WORKERS();
    const support::TemporaryFolder temporary;
    const fs::path& folder = temporary.path();
    const std::string whole = support::readWhole(support::plugin);
    const auto put = [&](const std::string& bytes) {
        support::writeWhole(folder / "new.so", bytes);
        fs::rename(folder / "new.so", folder / "plugin.so");
    };
    put(whole);
    ServedHost host({"--rate", "0"}, {},
                    {"--plugin", folder / "plugin.so", "--params", support::params, "--engine",
                     support::engine});
    const std::vector<pid_t> before = host.workers();
    const Load load(host);
    for (size_t round = 1; round <= 2; ++round) {
        put(whole.substr(0, whole.size() / 20));
        host.signal(SIGUSR2);
        EXPECT_TRUE(
            eventually([&] { return told(host, "no further worker is replaced") == round; }));
        EXPECT_LE(round, told(host, "plugin.so is cut: it has "));
        EXPECT_EQ(before, host.workers());
        EXPECT_EQ(2, host.metric("corvane_workers"));
    }
    put(whole);
    host.signal(SIGUSR2);
    waitForEnds(host, 1);
    EXPECT_EQ(0U, countOfSame(host.workers(), before));
    EXPECT_EQ(0, load.others());
}

TEST(ServeRoll, TheEndOfTheServiceDoesNotWaitForIt)
{
    NEEDS_WORKERS();
    ServedHost host({"--roll-seconds", "3600"});
    EXPECT_EQ(200, host.request("QZaven_ke_new").status);
    host.signal(SIGUSR2);
    EXPECT_TRUE(eventually([&] { return host.metric("corvane_workers_ready") == 3; }));
    EXPECT_EQ(0, host.stop());
}

}  // namespace
