// HTTP on several threads: what clients see is the same whichever thread their connection is on.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/served_host.h"

namespace fs = std::filesystem;

namespace {

using support::eventually;
using support::HttpAnswer;
using support::HttpConnection;
using support::HttpHeaders;
using support::Json;
using support::ServedHost;

constexpr size_t threads = 3;
const HttpHeaders jsonType = {{"Content-Type", "application/json"}};

ServedHost::Options with(ServedHost::Options more)
{
    more.insert(more.end(), {"--front-threads", std::to_string(threads)});
    return more;
}

using Connections = std::vector<std::unique_ptr<HttpConnection>>;

// Each goes to the thread that has the fewest, so that they are on all threads.
Connections connect(const ServedHost& host, size_t count)
{
    Connections all;
    for (size_t i = 0; i < count; ++i) {
        all.push_back(std::make_unique<HttpConnection>(host.port()));
        all.back()->send(host.text("GET", "/livez"));
        EXPECT_EQ(200, all.back()->receive().status);
    }
    return all;
}

HttpAnswer ask(const ServedHost& host, HttpConnection& connection, const std::string& name,
               const Json& parameters)
{
    connection.send(host.text("POST", "/v1/requests/" + name, jsonType, parameters.dump()));
    return connection.receive();
}

Json kdfOf(const std::string& data)
{
    return {{"HashType", 4}, {"srcdata", data}, {"OutLen", 16}};
}

class ServeThreads : public testing::Test {
protected:
    void SetUp() override { NEEDS_WORKERS(); }
};

size_t threadsOf(const ServedHost& host)
{
    const fs::directory_iterator tasks("/proc/" + std::to_string(host.pid()) + "/task");
    return static_cast<size_t>(std::distance(fs::begin(tasks), fs::end(tasks)));
}

TEST_F(ServeThreads, AreAsManyAsToldBesideTheServices)
{
    const ServedHost one({"--front-threads", "1"});
    const ServedHost two({"--front-threads", "2"});
    const ServedHost five({"--front-threads", "5"});
    EXPECT_EQ(1U, threadsOf(one));
    if (support::sanitized)  // which adds one of its own
        EXPECT_LE(3U, threadsOf(two));
    else
        EXPECT_EQ(3U, threadsOf(two));
    EXPECT_EQ(threadsOf(two) + 3, threadsOf(five));
}

TEST_F(ServeThreads, GiveEachClientItsOwnAnswers)
{
    const ServedHost host(with({"--rate", "0"}));
    host.workers();
    constexpr size_t clients = 24;
    std::vector<std::string> right;
    for (size_t i = 0; i < clients; ++i)
        right.push_back(host.request("QZaven_crypto_kdf", kdfOf(std::to_string(i))).result("Data"));
    std::atomic<size_t> wrong = 0;
    std::vector<std::thread> all;
    for (size_t i = 0; i < clients; ++i)
        all.emplace_back([&, i] {
            HttpConnection connection(host.port());
            for (int round = 0; round < 100; ++round) {
                const HttpAnswer answer =
                    ask(host, connection, "QZaven_crypto_kdf", kdfOf(std::to_string(i)));
                wrong += answer.status != 200 || answer.result("Data") != right[i] ? 1 : 0;
            }
        });
    for (std::thread& one : all)
        one.join();
    EXPECT_EQ(0U, wrong);
    EXPECT_EQ(clients * 101,
              host.metric("corvane_requests_total{name=\"QZaven_crypto_kdf\",code=\"0\"}"));
    // A line for each of them.
    EXPECT_TRUE(eventually([&] {
        const std::string log = support::readWhole(host.path("access.log"));
        size_t lines = 0;
        for (size_t at = 0; (at = log.find("QZaven_crypto_kdf", at)) != std::string::npos; ++at)
            ++lines;
        return lines == clients * 101;
    }));
}

TEST_F(ServeThreads, ServeASessionAndABatchFromAny)
{
    const ServedHost host(with({}));
    host.workers();
    const Connections connections = connect(host, threads);
    const std::string token =
        ask(host, *connections[0], "QZaven_ke_new", Json::object()).result("Data");
    for (const auto& connection : connections) {
        const HttpAnswer answer =
            ask(host, *connection, "QZaven_ke_client_hello", {{"strKe", token}});
        // The engine's own answer: it has the session, which lacks its roots.
        EXPECT_EQ("-30081", answer.result("errorCode")) << answer.body;
        connection->send(host.text("POST", "/v1/batch", jsonType,
                                   R"({"requests": [{"name": "QZaVen_GetVersion"},
                                       {"name": "QZaVen_GetVersion"}]})"));
        EXPECT_EQ(200, connection->receive().status);
    }
    EXPECT_EQ(200, ask(host, *connections[1], "QZaven_ke_free", {{"strKe", token}}).status);
    EXPECT_EQ(410, ask(host, *connections[2], "QZaven_ke_free", {{"strKe", token}}).status);
}

TEST_F(ServeThreads, CountAClientsRequestsTogether)
{
    const ServedHost host(with({"--rate", "0.01", "--burst", "7"}));
    Connections connections;
    for (size_t i = 0; i < threads; ++i)
        connections.push_back(std::make_unique<HttpConnection>(host.port()));
    size_t taken = 0;
    for (size_t i = 0; i < 12; ++i) {
        HttpConnection& connection = *connections[i % threads];
        connection.send(host.text("GET", "/livez"));
        taken += connection.receive().status == 200 ? 1 : 0;
    }
    EXPECT_EQ(7U, taken);
}

TEST_F(ServeThreads, CountAClientsConnectionsTogether)
{
    const ServedHost host(with({"--connections-per-address", "4"}));
    const Connections connections = connect(host, 4);
    HttpConnection beyond(host.port());
    EXPECT_EQ(429, beyond.receive().status);
    // That one is counted until its thread has closed it.
    EXPECT_TRUE(eventually([&] {
        connections[0]->send(host.text("GET", "/metrics"));
        return support::rowOf(connections[0]->receive().body, "corvane_connections") == 4;
    }));
}

TEST_F(ServeThreads, TakeOnlySoManyConnectionsTogether)
{
    const ServedHost host(with({"--connections", "4"}));
    Connections connections = connect(host, 4);
    HttpConnection waiting(host.port());
    waiting.send(host.text("GET", "/livez"));
    connections[0]->send(host.text("GET", "/metrics"));
    EXPECT_EQ(4, support::rowOf(connections[0]->receive().body, "corvane_connections"));
    connections.pop_back();
    EXPECT_EQ(200, waiting.receive().status);
}

// Also of those that come all at once.
TEST_F(ServeThreads, TakeNoMoreOfABurst)
{
    const ServedHost host(with({"--connections", "4"}));
    EXPECT_EQ(200, host.get("/livez").status);
    kill(host.pid(), SIGSTOP);
    Connections burst;
    for (size_t i = 0; i < 12; ++i) {
        burst.push_back(std::make_unique<HttpConnection>(host.port()));
        burst.back()->send(host.text("GET", "/metrics"));
    }
    kill(host.pid(), SIGCONT);
    // One has to go before the next one comes.
    for (auto& one : burst) {
        const HttpAnswer answer = one->receive();
        EXPECT_EQ(200, answer.status);
        EXPECT_GE(4, support::rowOf(answer.body, "corvane_connections"));
        one.reset();
    }
}

// How often each thread has waited for something.
std::vector<size_t> waitsOf(const ServedHost& host)
{
    std::vector<size_t> waits;
    for (const auto& task :
         fs::directory_iterator("/proc/" + std::to_string(host.pid()) + "/task")) {
        const std::string status = support::readWhole(task.path() / "status");
        const std::string name = "\nvoluntary_ctxt_switches:";
        waits.push_back(std::stoul(status.substr(status.find(name) + name.size())));
    }
    return waits;
}

TEST_F(ServeThreads, HaveAsManyConnectionsEach)
{
    const ServedHost host(with({"--rate", "0"}));
    host.workers();
    EXPECT_TRUE(eventually([&] { return host.metric("corvane_connections") == 1; }));
    const Connections connections = connect(host, threads);
    EXPECT_TRUE(eventually([&] {
        const std::vector<size_t> before = waitsOf(host);
        for (int i = 0; i < 50; ++i)
            for (const auto& connection : connections) {
                connection->send(host.text("GET", "/livez"));
                EXPECT_EQ(200, connection->receive().status);
            }
        const std::vector<size_t> after = waitsOf(host);
        size_t busy = 0;
        for (size_t i = 0; i < std::min(before.size(), after.size()); ++i)
            busy += after[i] >= before[i] + 25 ? 1 : 0;
        // Unless a thread was held up: it finds its next request without a wait.
        return busy == threads;
    }));
}

// Where no descriptor is left for them, they wait, and no longer than that.
TEST_F(ServeThreads, TakeConnectionsAgainWhenThereAreDescriptors)
{
    const ServedHost host(with({}));
    host.workers();
    rlimit before = {};
    if (prlimit(host.pid(), RLIMIT_NOFILE, nullptr, &before) != 0)
        GTEST_SKIP() << "NOT TESTED: limits of other processes are not to be changed here";
    for (int i = 0; i < 3; ++i) {
        const rlimit none = {0, before.rlim_max};
        ASSERT_EQ(0, prlimit(host.pid(), RLIMIT_NOFILE, &none, nullptr));
        HttpConnection waiting(host.port());
        waiting.send(host.text("GET", "/livez"));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        ASSERT_EQ(0, prlimit(host.pid(), RLIMIT_NOFILE, &before, nullptr));
        EXPECT_EQ(200, waiting.receive().status);
    }
}

// The sockets at which a process listens.
size_t listeningOf(const ServedHost& host)
{
    const std::string process = "/proc/" + std::to_string(host.pid());
    std::set<std::string> own;
    for (const auto& entry : fs::directory_iterator(process + "/fd"))
        own.insert(fs::read_symlink(entry).string());
    size_t count = 0;
    for (const char* table : {"/net/tcp", "/net/tcp6"}) {
        std::istringstream rows(support::readWhole(process + table));
        for (std::string row; std::getline(rows, row);) {
            std::istringstream words(row);
            const std::vector<std::string> fields{std::istream_iterator<std::string>(words), {}};
            count += fields.size() > 9 && fields[3] == "0A" &&
                             own.count("socket:[" + fields[9] + "]") != 0
                         ? 1
                         : 0;
        }
    }
    return count;
}

TEST_F(ServeThreads, ListenAtOnePlaceAlone)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "NOT TESTED: only root sees the host's descriptors";
    EXPECT_EQ(1U, listeningOf(ServedHost(with({}))));
    EXPECT_EQ(1U, listeningOf(ServedHost({"--front-threads", "1"})));
}

TEST_F(ServeThreads, AreNotHeldUpByStalledConnections)
{
    ServedHost host(with({"--rate", "0", "--drain-seconds", "1"}));
    host.workers();
    const std::string whole = host.text("POST", "/v1/requests/QZaVen_GetVersion", jsonType, "{}");
    Connections stalled;
    for (size_t i = 0; i < 60; ++i) {
        stalled.push_back(std::make_unique<HttpConnection>(host.port()));
        stalled.back()->send(whole.substr(0, whole.size() - 1 - i));
    }
    for (size_t i = 0; i < 50; ++i)
        EXPECT_EQ(200, host.request("QZaVen_GetVersion").status);
    EXPECT_EQ(0, host.stop());
}

TEST_F(ServeThreads, AnswerAllOthersWhileWorkersAreKilledAndThenEnd)
{
    ServedHost host(with({"--rate", "0"}));
    host.workers();
    std::atomic<bool> isOver = false;
    std::atomic<size_t> good = 0;
    std::atomic<size_t> failed = 0;
    std::atomic<size_t> wrong = 0;
    std::vector<std::thread> clients;
    for (size_t i = 0; i < 16; ++i)
        clients.emplace_back([&] {
            HttpConnection connection(host.port());
            while (!isOver) {
                const HttpAnswer answer = ask(host, connection, "QZaven_crypto_kdf", kdfOf("s"));
                const auto close = answer.headers.find("connection");
                if (answer.status == 200)
                    ++good;
                else
                    ++(answer.status == 502 ? failed : wrong);
                // The goodbye of a host that ends.
                if (close != answer.headers.end() && close->second == "close")
                    return;
            }
        });
    constexpr size_t rounds = 5;
    for (size_t i = 0; i < rounds; ++i) {
        const size_t before = good;
        const std::vector<pid_t> workers = support::childrenOf(host.pid());
        if (!workers.empty())
            kill(workers[i % workers.size()], SIGKILL);
        EXPECT_TRUE(eventually([&] { return good > before + 50; }));
    }
    // With all of them asking: none is lost.
    EXPECT_EQ(0, host.stop());
    isOver = true;
    for (std::thread& client : clients)
        client.join();
    EXPECT_EQ(0U, wrong);
    EXPECT_LE(failed, rounds);
}

}  // namespace
