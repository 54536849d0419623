// What becomes of requests when the processes that serve them die, hang or do not start.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>
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

const char* const path = "/v1/requests/QZaven_crypto_kdf";
const Json kdf = {{"HashType", 4}, {"srcdata", "s"}, {"OutLen", 16}};

// A request that is on its way while other things happen.
class Pending {
public:
    explicit Pending(const ServedHost& host, const std::string& name = "QZaven_crypto_kdf",
                     const Json& parameters = kdf)
        : m_connection(host.port())
    {
        m_connection.send(host.text("POST", "/v1/requests/" + name,
                                    {{"Content-Type", "application/json"}}, parameters.dump()));
    }
    HttpAnswer answer() { return m_connection.receive(); }
    bool isAnswered() const
    {
        pollfd waiting = {m_connection.descriptor(), POLLIN, 0};
        return poll(&waiting, 1, 0) == 1;
    }

private:
    HttpConnection m_connection;
};

void killAndWait(const ServedHost& host, pid_t worker)
{
    const double before = host.metric("corvane_worker_restarts_total");
    kill(worker, SIGKILL);
    EXPECT_TRUE(
        eventually([&] { return host.metric("corvane_worker_restarts_total") == before + 1; }));
}

void waitUntilBusy(const ServedHost& host, double count)
{
    EXPECT_TRUE(eventually([&] { return host.metric("corvane_workers_busy") == count; }));
}

TEST(ServeWorkers, ACrashCostsOnlyTheRequestInIt)
{
    NEEDS_WORKERS();
    ServedHost host({"--workers", "1"});
    const pid_t worker = host.workers(1).at(0);
    kill(worker, SIGSTOP);
    Pending inIt(host);
    waitUntilBusy(host, 1);
    Pending behindIt(host);
    Pending last(host);
    EXPECT_TRUE(eventually([&] { return host.metric("corvane_queue") == 2; }));
    kill(worker, SIGKILL);

    const HttpAnswer failed = inIt.answer();
    EXPECT_EQ(502, failed.status);
    EXPECT_EQ("worker_failed", failed.code());
    EXPECT_EQ("0", behindIt.answer().result("errorCode"));
    EXPECT_EQ("0", last.answer().result("errorCode"));
    EXPECT_EQ(1, host.metric("corvane_worker_restarts_total"));
    EXPECT_EQ(1, host.metric(
                     "corvane_requests_total{name=\"QZaven_crypto_kdf\",code=\"worker_failed\"}"));
    const std::vector<pid_t> now = host.workers(1);
    ASSERT_EQ(1U, now.size());
    EXPECT_NE(worker, now[0]);
}

// What was sent ahead to a worker that hangs goes to the other one.
TEST(ServeWorkers, AHangKeepsNobodyElseWaiting)
{
    NEEDS_WORKERS();
    ServedHost host({"--request-seconds", "600"});
    const std::vector<pid_t> workers = host.workers();
    for (int round = 0; round < 10; ++round) {
        for (const pid_t worker : workers)
            kill(worker, SIGSTOP);
        std::vector<std::unique_ptr<Pending>> pending;
        for (int i = 0; i < 20; ++i)
            pending.push_back(std::make_unique<Pending>(host));
        EXPECT_TRUE(eventually([&] { return host.metric("corvane_queue") == 18; }));
        kill(workers[1], SIGCONT);
        EXPECT_TRUE(eventually([&] {
            return host.metric("corvane_queue") == 0 && host.metric("corvane_workers_busy") == 1;
        }));
        EXPECT_TRUE(eventually([&] {
            return std::count_if(pending.begin(), pending.end(),
                                 [](const auto& one) { return one->isAnswered(); }) == 19;
        }));
        kill(workers[0], SIGCONT);
        for (const auto& one : pending)
            EXPECT_EQ("0", one->answer().result("errorCode"));
    }
    EXPECT_EQ(0, host.metric("corvane_worker_restarts_total"));
    // Each was served once.
    double served = 0;
    const Json status = host.status();
    for (const Json& worker : status["workers"])
        served += worker["requests"].get<double>();
    EXPECT_EQ(200, served);
}

// Each of several crashes costs the one request in it, however many were sent ahead.
TEST(ServeWorkers, CrashesInARowCostOneRequestEach)
{
    NEEDS_WORKERS();
    ServedHost host({"--workers", "1", "--rate", "0"});
    for (int round = 0; round < 5; ++round) {
        const pid_t worker = host.workers(1).at(0);
        std::vector<std::unique_ptr<Pending>> pending;
        for (int i = 0; i < 40; ++i)
            pending.push_back(std::make_unique<Pending>(host));
        kill(worker, SIGKILL);
        size_t lost = 0;
        for (const auto& one : pending) {
            const HttpAnswer answer = one->answer();
            lost += answer.status == 502 ? 1 : 0;
            EXPECT_TRUE(answer.status == 502 || answer.result("errorCode") == "0");
        }
        EXPECT_LE(lost, 1U);
    }
}

// Sessions wait for their own worker, which must not be kept busy for ever by others.
TEST(ServeWorkers, SessionsAreServedBesideManyOthers)
{
    NEEDS_WORKERS();
    ServedHost host({"--workers", "1", "--rate", "0"});
    const std::string token = host.request("QZaven_ke_new").result("Data");
    std::atomic<bool> isOver = false;
    std::vector<std::thread> clients;
    for (int i = 0; i < 8; ++i)
        clients.emplace_back([&] {
            HttpConnection connection(host.port());
            const std::string request =
                host.text("POST", path, {{"Content-Type", "application/json"}}, kdf.dump());
            while (!isOver && connection.send(request) && connection.receive().status == 200) {
            }
        });
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(200, host.request("QZaven_ke_client_hello", {{"strKe", token}}).status);
    isOver = true;
    for (std::thread& client : clients)
        client.join();
}

TEST(ServeWorkers, AHangIsEndedAndTold)
{
    NEEDS_WORKERS();
    ServedHost host({"--request-seconds", "0.3"});
    const std::vector<pid_t> before = host.workers();
    for (const pid_t worker : before)
        kill(worker, SIGSTOP);
    Pending first(host);
    const HttpAnswer answer = first.answer();
    EXPECT_EQ(504, answer.status);
    EXPECT_EQ("worker_timeout", answer.code());
    for (const pid_t worker : before)
        kill(worker, SIGCONT);
    Pending second(host);
    EXPECT_EQ("0", second.answer().result("errorCode"));
    EXPECT_EQ(2U, host.workers().size());
}

TEST(ServeWorkers, OneThatDiesIdleIsReplacedAtOnce)
{
    NEEDS_WORKERS();
    ServedHost host;
    const std::vector<pid_t> before = host.workers();
    killAndWait(host, before.at(0));
    const std::vector<pid_t> after = host.workers();
    EXPECT_EQ(2U, after.size());
    EXPECT_EQ(0, std::count(after.begin(), after.end(), before.at(0)));
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(200, host.request("QZaven_crypto_kdf", kdf).status);
}

TEST(ServeWorkers, SessionsEndWithTheirWorker)
{
    NEEDS_WORKERS();
    ServedHost host;
    const std::vector<pid_t> workers = host.workers();
    std::vector<std::string> tokens;
    for (int i = 0; i < 4; ++i)
        tokens.push_back(host.request("QZaven_ke_new").result("Data"));
    EXPECT_EQ(2, host.status()["workers"][0]["sessions"]);

    // One that waits for the worker of its session is told so, and sent nowhere else.
    kill(workers.at(0), SIGSTOP);
    std::vector<std::unique_ptr<Pending>> pending;
    for (const std::string& token : tokens) {
        const Json parameters = {{"strKe", token}};
        pending.push_back(std::make_unique<Pending>(host, "QZaven_ke_client_hello", parameters));
    }
    waitUntilBusy(host, 1);
    EXPECT_TRUE(eventually([&] { return host.metric("corvane_queue") == 1; }));
    kill(workers.at(0), SIGKILL);
    std::multiset<int> statuses;
    for (const auto& one : pending)
        statuses.insert(one->answer().status);
    EXPECT_EQ((std::multiset<int>{200, 200, 410, 502}), statuses);

    EXPECT_EQ(2, host.metric("corvane_sessions"));
    size_t gone = 0;
    for (const std::string& token : tokens) {
        const HttpAnswer answer = host.request("QZaven_ke_free", {{"strKe", token}});
        if (answer.status != 410)
            continue;
        ++gone;
        EXPECT_NE(std::string::npos,
                  answer.json()["error"]["text"].get<std::string>().find("worker process ended"));
    }
    EXPECT_EQ(2U, gone);
}

TEST(ServeWorkers, SessionsInUseAreNotIdle)
{
    NEEDS_WORKERS();
    ServedHost host({"--session-seconds", "2"});
    const std::vector<pid_t> workers = host.workers();
    const std::string token = host.request("QZaven_ke_new").result("Data");
    for (const pid_t worker : workers)
        kill(worker, SIGSTOP);
    Pending pending(host, "QZaven_ke_client_hello", {{"strKe", token}});
    waitUntilBusy(host, 1);
    // The end of an idle session would be queued behind the request.
    std::this_thread::sleep_for(std::chrono::seconds(4));
    EXPECT_EQ(1, host.metric("corvane_sessions"));
    EXPECT_EQ(0, host.metric("corvane_queue"));
    for (const pid_t worker : workers)
        kill(worker, SIGCONT);
    EXPECT_EQ(200, pending.answer().status);
    EXPECT_TRUE(eventually([&] { return host.metric("corvane_sessions") == 0; }));
}

TEST(ServeWorkers, AllOtherAnswersAreRightWhileWorkersAreKilled)
{
    NEEDS_WORKERS();
    ServedHost host({"--rate", "0"});
    const std::string right = host.request("QZaven_crypto_kdf", kdf).result("Data");
    ASSERT_NE("", right);
    std::atomic<bool> isOver = false;
    std::atomic<int> good = 0;
    std::atomic<int> failed = 0;
    std::atomic<int> wrong = 0;
    std::vector<std::thread> clients;
    for (int i = 0; i < 3; ++i)
        clients.emplace_back([&] {
            HttpConnection connection(host.port());
            const std::string request =
                host.text("POST", path, {{"Content-Type", "application/json"}}, kdf.dump());
            while (!isOver) {
                connection.send(request);
                const HttpAnswer answer = connection.receive();
                if (answer.status == 200 && answer.result("Data") == right)
                    ++good;
                else if (answer.status == 502)
                    ++failed;
                else
                    ++wrong;
            }
        });
    const int rounds = 10;
    for (int i = 0; i < rounds; ++i) {
        const int before = good;
        const std::vector<pid_t> workers = support::childrenOf(host.pid());
        if (!workers.empty())
            kill(workers[static_cast<size_t>(i) % workers.size()], SIGKILL);
        EXPECT_TRUE(eventually([&] { return good > before + 20; }));
    }
    isOver = true;
    for (std::thread& client : clients)
        client.join();
    EXPECT_EQ(0, wrong);
    EXPECT_LE(failed, rounds);
    EXPECT_GT(good, 20 * rounds);
}

TEST(ServeWorkers, AnEngineThatDoesNotLoadIsTriedAgainMoreAndMoreSlowly)
{
    NEEDS_WORKERS();
    // A look at the file shows nothing: it needs a library that there is not.
    const support::TemporaryFolder temporary;
    const fs::path& folder = temporary.path();
    std::string bytes = support::readWhole(support::engine);
    for (size_t at = 0; (at = bytes.find("libcrypto.so.3", at)) != std::string::npos;)
        bytes.replace(at, 14, "libcryptx.so.3", 14);
    support::writeWhole(folder / "engine.so", bytes);
    ServedHost host({"--workers", "1", "--request-seconds", "1"}, {},
                    {"--plugin", support::plugin, "--params", support::params, "--engine",
                     folder / "engine.so"});
    const HttpAnswer ready = host.get("/readyz");
    EXPECT_EQ(503, ready.status);
    const HttpAnswer answer = host.request("QZaven_crypto_kdf", kdf);
    EXPECT_EQ(503, answer.status);
    EXPECT_EQ("busy", answer.code());
    EXPECT_EQ(200, host.get("/livez").status);
    // After 0.1, 0.2, 0.4, 0.8 and 1.6 seconds: in the two that have passed not more.
    const double restarts = host.metric("corvane_worker_restarts_total");
    EXPECT_GE(restarts, 2);
    EXPECT_LE(restarts, 20);
    EXPECT_NE(std::string::npos, host.errors().find("libcryptx.so.3"));
    EXPECT_EQ(0, host.stop());
}

TEST(ServeWorkers, AStartThatHangsIsEnded)
{
    NEEDS_WORKERS();
    ServedHost host({"--workers", "1", "--request-seconds", "0.2"},
                    {"CORVANE_ENGINE_FAULTS=aven_global_init:1=hang"});
    EXPECT_TRUE(eventually([&] { return host.metric("corvane_worker_restarts_total") >= 2; }));
    EXPECT_EQ(503, host.get("/readyz").status);
    EXPECT_EQ(0, host.stop());
}

// An update that goes wrong must not take the service with it, and one that is made good
// brings it back.
TEST(ServeWorkers, ALibraryThatIsCutLaterIsNamedAndComesBack)
{
    NEEDS_WORKERS();
    const support::TemporaryFolder temporary;
    const fs::path& folder = temporary.path();
    const std::string whole = support::readWhole(support::engine);
    support::writeWhole(folder / "engine.so", whole);
    ServedHost host({"--workers", "1"}, {},
                    {"--plugin", support::plugin, "--params", support::params, "--engine",
                     folder / "engine.so"});
    const std::vector<pid_t> workers = host.workers(1);
    support::writeWhole(folder / "new.so", whole.substr(0, whole.size() / 20));
    fs::rename(folder / "new.so", folder / "engine.so");
    kill(workers.at(0), SIGKILL);
    EXPECT_TRUE(eventually(
        [&] { return host.errors().find("engine.so is cut: it has ") != std::string::npos; }));
    support::writeWhole(folder / "new.so", whole);
    fs::rename(folder / "new.so", folder / "engine.so");
    host.workers(1);
    EXPECT_EQ("0", host.request("QZaven_crypto_kdf", kdf).result("errorCode"));
    EXPECT_EQ(0, host.stop());
}

TEST(ServeWorkers, ALibraryOfAnotherNameLeavesNoFolderBehind)
{
    NEEDS_WORKERS();
    const support::TemporaryFolder temporary;
    const fs::path& folder = temporary.path();
    fs::create_directories(folder / "tmp");
    std::string bytes = support::readWhole(support::engine);
    for (size_t at = 0; (at = bytes.find("libSoftModuleaven.so", at)) != std::string::npos;)
        bytes.replace(at, 20, "libSoftModuleother.so", 20);
    support::writeWhole(folder / "other.so", bytes);

    ServedHost host({}, {"TMPDIR=" + (folder / "tmp").string()},
                    {"--plugin", support::plugin, "--params", support::params, "--engine",
                     folder / "other.so"});
    const std::vector<pid_t> workers = host.workers();
    EXPECT_EQ("0", host.request("QZaven_crypto_kdf", kdf).result("errorCode"));
    killAndWait(host, workers.at(0));
    host.workers();
    EXPECT_TRUE(eventually([&] { return fs::is_empty(folder / "tmp"); }));
    EXPECT_EQ("0", host.request("QZaven_crypto_kdf", kdf).result("errorCode"));
    host.stop();
}

// How many messages the plug-ins of a host's workers send to syslog for ten requests.
size_t syslogMessages(const fs::path& library, const ServedHost::Options& options)
{
    ServedHost host(options, {"LD_PRELOAD=" + library.string()});
    host.workers();
    const auto shown = [&] {
        const std::string errors = host.errors();
        size_t count = 0;
        for (size_t at = 0; (at = errors.find("syslog ", at)) != std::string::npos; ++at)
            ++count;
        return count;
    };
    const size_t before = shown();
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ("0", host.request("QZaven_crypto_kdf", kdf).result("errorCode"));
    return shown() - before;
}

TEST(ServeWorkers, SendNothingToSyslogForRequestsUnlessTold)
{
    NEEDS_WORKERS();
    if (support::sanitized)
        GTEST_SKIP() << "the sanitizer must be the first library";
    std::string name = (fs::temp_directory_path() / "serve_syslog_XXXXXX").string();
    const fs::path folder = mkdtemp(name.data());
    // The loader takes a blank in a path for the end of it.
    const fs::path library = folder / "library.so";
    fs::create_symlink(support::preloaded("shown_syslog"), library);
    EXPECT_EQ(0U, syslogMessages(library, {}));
    EXPECT_EQ(20U, syslogMessages(library, {"--plugin-log", "info"}));
    EXPECT_EQ(0U, syslogMessages(library, {"--plugin-log", "err"}));
    fs::remove_all(folder);
}

TEST(ServeWorkers, EndWithTheFront)
{
    NEEDS_WORKERS();
    ServedHost host;
    const std::vector<pid_t> workers = host.workers();
    kill(workers.at(0), SIGSTOP);  // ends, too, though it reads nothing
    host.stop(SIGKILL);
    for (const pid_t worker : workers)
        EXPECT_TRUE(eventually([&] { return !support::isRunning(worker); }));
}

TEST(ServeWorkers, HoldNothingOfTheFront)
{
    NEEDS_WORKERS();
    ServedHost host;
    HttpConnection connection(host.port());
    connection.send(host.text("GET", "/livez"));
    connection.receive();
    const std::vector<pid_t> before = host.workers();
    killAndWait(host, before.at(0));
    if (geteuid() != 0) {
        std::error_code refused;
        fs::directory_iterator("/proc/" + std::to_string(before.at(1)) + "/fd", refused);
        EXPECT_EQ(std::errc::permission_denied, refused);
        GTEST_SKIP() << "root alone sees what workers hold";
    }
    for (const pid_t worker : host.workers()) {
        size_t sockets = 0;
        for (const auto& entry :
             fs::directory_iterator("/proc/" + std::to_string(worker) + "/fd")) {
            std::error_code gone;
            const std::string target = fs::read_symlink(entry.path(), gone);
            EXPECT_EQ(std::string::npos, target.find("token")) << target;
            EXPECT_EQ(std::string::npos, target.find("access.log")) << target;
            sockets += target.compare(0, 7, "socket:") == 0 ? 1 : 0;
        }
        EXPECT_EQ(1U, sockets);
    }
}

// Or else the first call of a function would leave on the stack what registers held.
TEST(ServeWorkers, BindAtOnceAsTheFrontDoes)
{
    NEEDS_WORKERS();
    if (geteuid() != 0)
        GTEST_SKIP() << "NOT TESTED: root alone sees what the processes were started with";
    for (const auto& [given, expected] : {std::pair("OTHER=", "LD_BIND_NOW=1"),
                                          {"LD_BIND_NOW=", "LD_BIND_NOW=1"},
                                          {"LD_BIND_NOW=yes", "LD_BIND_NOW=yes"}}) {
        const ServedHost host({}, {given});
        for (const pid_t pid : {host.pid(), host.workers().at(0)}) {
            const std::string variables =
                '\0' + support::readWhole("/proc/" + std::to_string(pid) + "/environ");
            EXPECT_NE(std::string::npos, variables.find('\0' + std::string(expected) + '\0'))
                << given;
        }
    }
}

TEST(ServeWorkers, LeaveNoCoreDumpAndNeitherDoesTheFront)
{
    NEEDS_WORKERS();
    ServedHost host;
    HttpConnection connection(host.port());
    connection.send(host.text("GET", "/livez"));
    connection.receive();
    std::vector<pid_t> processes = host.workers();
    processes.push_back(host.pid());
    for (const pid_t process : processes)
        EXPECT_NE(std::string::npos,
                  support::readWhole("/proc/" + std::to_string(process) + "/limits")
                      .find("Max core file size        0                    0"));
}

}  // namespace
