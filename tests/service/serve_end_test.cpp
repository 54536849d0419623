// The time between the signal to end and the drain, in which balancers turn away from the host.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cstring>

#include "common/descriptor.h"
#include "support/served_host.h"

namespace {

using support::eventually;
using support::HttpAnswer;
using support::HttpConnection;
using support::Json;
using support::ServedHost;

constexpr const char* version = "QZaVen_GetVersion";

// A request that no worker serves before goOn().
class HeldRequest {
public:
    explicit HeldRequest(const ServedHost& host) : m_workers(host.workers()), m_client(host.port())
    {
        for (const pid_t worker : m_workers)
            kill(worker, SIGSTOP);
        m_client.send(host.text("POST", std::string("/v1/requests/") + version,
                                {{"Content-Type", "application/json"}}, "{}"));
        EXPECT_TRUE(eventually([&] { return host.metric("corvane_workers_busy") == 1; }));
    }

    void goOn() const
    {
        for (const pid_t worker : m_workers)
            kill(worker, SIGCONT);
    }
    HttpAnswer receive() { return m_client.receive(); }

private:
    const std::vector<pid_t> m_workers;
    HttpConnection m_client;
};

class LameDuck : public testing::Test {
protected:
    void SetUp() override { NEEDS_WORKERS(); }

    static void expectRefusingReady(const ServedHost& host)
    {
        EXPECT_TRUE(eventually([&] { return host.get("/readyz").status == 503; }));
        const HttpAnswer answer = host.get("/readyz");
        EXPECT_EQ(503, answer.status);
        EXPECT_EQ("draining", answer.code());
        EXPECT_EQ("host_stops", answer.json()["error"]["reason"]);
        EXPECT_EQ("1", answer.headers.at("retry-after"));
        EXPECT_EQ(0U, answer.headers.count("connection"));
        EXPECT_EQ(503, host.ask("HEAD", "/readyz").status);
    }
};

TEST_F(LameDuck, ReadyRefusesAndAllElseGoesOn)
{
    ServedHost host({"--lame-duck-seconds", "600"});
    host.workers();
    HttpConnection old(host.port());
    ASSERT_TRUE(old.send(host.text("GET", "/readyz")));
    EXPECT_EQ(200, old.receive().status);
    const std::string session = host.request("QZaven_ke_new").result("Data");

    host.signal(SIGTERM);
    expectRefusingReady(host);
    EXPECT_EQ(200, host.get("/livez").status);
    EXPECT_EQ("0", host.request(version).result("errorCode"));
    const Json part = {{"name", version}, {"parameters", Json::object()}};
    EXPECT_EQ(200, host.batch(Json::array({part})).status);
    // Sessions too, also new ones, and connections of before.
    EXPECT_EQ("0", host.request("QZaven_ke_free", {{"strKe", session}}).result("errorCode"));
    EXPECT_EQ("0", host.request("QZaven_ke_new").result("errorCode"));
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(old.send(host.text("GET", "/v1/status")));
        const HttpAnswer answer = old.receive();
        EXPECT_EQ(200, answer.status);
        EXPECT_EQ(0U, answer.headers.count("connection"));
    }
    EXPECT_FALSE(host.hasEnded());
    EXPECT_EQ(0, host.stop());
}

TEST_F(LameDuck, ASecondSignalEndsAtOnce)
{
    for (const int second : {SIGTERM, SIGINT}) {
        ServedHost host({"--lame-duck-seconds", "600", "--drain-seconds", "600"});
        host.workers();
        const std::string whole = host.text("POST", "/v1/requests/QZaVen_GetVersion",
                                            {{"Content-Type", "application/json"}}, "{}");
        HttpConnection slow(host.port());
        slow.send(whole.substr(0, whole.size() - 1));
        host.signal(SIGINT);
        expectRefusingReady(host);
        EXPECT_EQ(0, host.stop(second));
    }
}

TEST_F(LameDuck, TheDrainFollows)
{
    ServedHost host({"--lame-duck-seconds", "0.5", "--drain-seconds", "600"});
    HeldRequest underWay(host);
    host.signal(SIGTERM);
    EXPECT_TRUE(eventually([&] { return HttpConnection(host.port()).descriptor() < 0; }));
    EXPECT_FALSE(host.hasEnded());
    underWay.goOn();
    const HttpAnswer answer = underWay.receive();
    EXPECT_EQ("0", answer.result("errorCode")) << answer.body;
    EXPECT_EQ("close", answer.headers.at("connection"));
    EXPECT_EQ(0, host.wait());
}

// A host without that time drains at once, and says so to connections that it has.
TEST_F(LameDuck, ReadyRefusesInTheDrainToo)
{
    ServedHost host({"--drain-seconds", "600"});
    HeldRequest underWay(host);
    const std::string ready = host.text("GET", "/readyz");
    HttpConnection asker(host.port());
    asker.send(ready.substr(0, ready.size() - 2));
    EXPECT_TRUE(eventually([&] { return host.metric("corvane_connections") == 3; }));
    host.signal(SIGTERM);
    EXPECT_TRUE(eventually([&] { return HttpConnection(host.port()).descriptor() < 0; }));
    asker.send("\r\n");
    const HttpAnswer answer = asker.receive();
    EXPECT_EQ(503, answer.status);
    EXPECT_EQ("draining", answer.code());
    underWay.goOn();
    EXPECT_EQ(200, underWay.receive().status);
    EXPECT_EQ(0, host.wait());
}

// The other signals keep their meaning.
TEST_F(LameDuck, WorkersAreStillReplaced)
{
    ServedHost host({"--lame-duck-seconds", "600"});
    const std::vector<pid_t> before = host.workers();
    host.signal(SIGTERM);
    expectRefusingReady(host);
    host.signal(SIGHUP);
    host.signal(SIGUSR2);
    EXPECT_TRUE(eventually([&] {
        const std::vector<pid_t> workers = support::childrenOf(host.pid());
        return workers.size() == before.size() && workers.front() > before.back();
    }));
    kill(support::childrenOf(host.pid()).front(), SIGKILL);
    EXPECT_TRUE(eventually([&] { return host.metric("corvane_worker_restarts_total") >= 3; }));
    EXPECT_EQ(0, host.stop());
}

// systemd is told at the signal, since its own time for the end runs from there.
TEST_F(LameDuck, TheManagerIsToldAtOnce)
{
    const support::TemporaryFolder folder;
    const Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, folder.path("notify").c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(0, bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address));
    ServedHost host({"--lame-duck-seconds", "600"}, {"NOTIFY_SOCKET=" + folder.path("notify")});
    std::string told;
    const auto isTold = [&](const char* text) {
        return eventually([&] {
            std::array<char, 256> buffer;
            const ssize_t count = recv(socket.get(), buffer.data(), buffer.size(), 0);
            if (count > 0)
                told.append(buffer.data(), static_cast<size_t>(count)).append("\n");
            return told.find(text) != std::string::npos;
        });
    };
    EXPECT_TRUE(isTold("READY=1")) << told;
    EXPECT_EQ(std::string::npos, told.find("STOPPING"));
    host.signal(SIGTERM);
    EXPECT_TRUE(isTold("STOPPING=1")) << told;
    EXPECT_EQ(200, host.get("/livez").status);
    EXPECT_EQ(0, host.stop());
}

}  // namespace
