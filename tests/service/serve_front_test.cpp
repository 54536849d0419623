// The front process itself: what it keeps in memory, what becomes of it without memory, how
// it ends, and which ciphers it takes.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>
#include <sstream>
#include <thread>

#include "support/failing_memory.h"
#include "support/served_host.h"

namespace fs = std::filesystem;

namespace {

using support::eventually;
using support::HttpAnswer;
using support::HttpConnection;
using support::HttpHeaders;
using support::Json;
using support::ServedHost;

const std::string version = "/v1/requests/QZaVen_GetVersion";
const HttpHeaders jsonType = {{"Content-Type", "application/json"}};

std::string repeated(const std::string& text, size_t count)
{
    std::string out;
    for (size_t i = 0; i < count; ++i)
        out += text;
    return out;
}

// The most memory that the front has ever had, in bytes.
size_t peakOf(const ServedHost& host)
{
    const std::string status =
        support::readWhole("/proc/" + std::to_string(host.pid()) + "/status");
    return std::strtoul(status.c_str() + status.find("VmHWM:") + 6, nullptr, 10) << 10U;
}

std::vector<Json> logOf(const ServedHost& host)
{
    std::vector<Json> entries;
    std::istringstream lines(support::readWhole(host.path("access.log")));
    for (std::string line; std::getline(lines, line);)
        entries.push_back(Json::parse(line));
    return entries;
}

size_t loggedOf(const ServedHost& host, const std::string& route)
{
    const std::vector<Json> log = logOf(host);
    return static_cast<size_t>(std::count_if(
        log.begin(), log.end(), [&](const Json& entry) { return entry["route"] == route; }));
}

size_t loggedWith(const ServedHost& host, int status)
{
    const std::vector<Json> log = logOf(host);
    return static_cast<size_t>(std::count_if(
        log.begin(), log.end(), [&](const Json& entry) { return entry["status"] == status; }));
}

class ServeFront : public testing::Test {
protected:
    void SetUp() override { NEEDS_WORKERS(); }

    // A folder of its own with a certificate and its key; the command for a client.
    void makeCertificate()
    {
        ASSERT_EQ(0, system(("openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj "
                             "/CN=localhost -keyout " +
                             m_folder.path("key") + " -out " + m_folder.path("cert") + " >" +
                             m_folder.path("log") + " 2>&1")
                                .c_str()));
    }
    ServedHost::Options tls() const
    {
        return {"--tls-cert", m_folder.path("cert"), "--tls-key", m_folder.path("key")};
    }
    // What openssl s_client says when it has sent the bytes.
    std::string tlsClient(const ServedHost& host, const std::string& options,
                          const std::string& bytes) const
    {
        support::writeWhole(m_folder.path("bytes"), bytes);
        [[maybe_unused]] const int ignored =
            system(("openssl s_client " + options + " -connect " + host.host() + " <" +
                    m_folder.path("bytes") + " >" + m_folder.path("said") + " 2>&1")
                       .c_str());
        return support::readWhole(m_folder.path("said"));
    }

    support::TemporaryFolder m_folder;
};

// ---- Requests that end in the HTTP library.

// Heads for which the library has no room, so that it answers or ends by itself.
const std::string cookies = "Cookie: " + repeated("a=b; ", 2500) + "\r\n\r\n";
const std::string longHead = "GET /" + std::string(40000, 'a') + " HTTP/1.1\r\n" + cookies;
const std::string longQuery =
    "GET /?" + repeated("a&", 30000) + " HTTP/1.1\r\nX-A: b\r\n\r\nX-B: c\r\n\r\n";

TEST_F(ServeFront, RequestsThatEndInTheLibraryAreLoggedAndForgotten)
{
    ServedHost host({"--rate", "0", "--drain-seconds", "600"});
    host.workers();
    const auto send = [&](const std::string& bytes) {
        HttpConnection connection(host.port());
        connection.send(bytes);
        shutdown(connection.descriptor(), SHUT_WR);
        EXPECT_TRUE(connection.isEnded() || connection.receive().status >= 400);
    };
    const auto logged = [&] { return loggedOf(host, ""); };
    const size_t few = 20;
    for (size_t i = 0; i < few; ++i)
        for (const std::string& bytes : {longHead, longQuery})
            send(bytes);
    EXPECT_TRUE(eventually([&] { return logged() == 2 * few; })) << logged();
    const size_t memory = peakOf(host);
    for (int i = 0; i < 1000; ++i)
        send(longHead);
    if (!support::sanitized) {
        EXPECT_LT(peakOf(host), memory + (size_t{15} << 20));
    }
    EXPECT_EQ(200, host.get("/livez").status);
    EXPECT_EQ(0, host.stop());
}

TEST_F(ServeFront, WhatTheLibraryAnsweredIsInTheLog)
{
    ServedHost host;
    EXPECT_EQ(400, host.raw("GET /livez HTTP/1.1\r\n\r\n").status);
    EXPECT_EQ(431, host.raw("GET /livez HTTP/1.1\r\nX-A: " + std::string(100000, 'a')).status);
    EXPECT_TRUE(eventually([&] { return loggedWith(host, 400) == 1; }));
    EXPECT_TRUE(eventually([&] { return loggedWith(host, 431) == 1; }));
    EXPECT_EQ(1, host.metric("corvane_http_answers_total{status=\"431\"}"));
    // Without a first line there is nothing to tell but that there was something.
    host.raw("\x16\x03\x01\r\n");
    EXPECT_TRUE(eventually([&] { return loggedWith(host, 0) == 1; }));
    // And nothing was sent: nothing to tell.
    {
        HttpConnection silent(host.port());
    }
    EXPECT_TRUE(eventually([&] { return host.metric("corvane_connections") == 1; }));
    EXPECT_EQ(1U, loggedWith(host, 0));
}

TEST_F(ServeFront, RequestsThatEndInTheLibraryAreLoggedOverTls)
{
    makeCertificate();
    ServedHost host(tls());
    tlsClient(host, "-quiet", longHead);
    EXPECT_TRUE(eventually([&] { return logOf(host).size() == 1; }));
    EXPECT_EQ(0, host.stop());
}

// ---- Bodies.

class ServeBodies : public ServeFront {
protected:
    static constexpr size_t largest = size_t{1} << 20;
    static constexpr size_t most = 16;

    // Connections that have sent the same bytes.
    using Clients = std::vector<std::unique_ptr<HttpConnection>>;
    static Clients clients(const ServedHost& host, const std::string& bytes, size_t count)
    {
        Clients all;
        for (size_t i = 0; i < count; ++i) {
            all.push_back(std::make_unique<HttpConnection>(host.port()));
            all.back()->send(bytes);
        }
        return all;
    }

    static bool isAnswered(const HttpConnection& connection)
    {
        pollfd waiting = {connection.descriptor(), POLLIN, 0};
        return poll(&waiting, 1, 0) == 1;
    }
    static size_t countAnswered(const Clients& all)
    {
        return static_cast<size_t>(std::count_if(all.begin(), all.end(),
                                                 [](const auto& one) { return isAnswered(*one); }));
    }

    static std::string head(const ServedHost& host, const HttpHeaders& more)
    {
        HttpHeaders headers = jsonType;
        headers.insert(headers.end(), more.begin(), more.end());
        return host.text("POST", "/v1/requests/QZaven_crypto_base64_encode", headers);
    }

    static double refused(const ServedHost& host)
    {
        return std::max(0.0, host.metric("corvane_http_answers_total{status=\"503\"}"));
    }

    // A small request is served again when the others are gone.
    static void expectRoom(const ServedHost& host)
    {
        EXPECT_TRUE(eventually([&] { return host.request("QZaVen_GetVersion").status == 200; }));
    }

    const ServedHost::Options m_options = {"--body-bytes",
                                           std::to_string(largest),
                                           "--workers",
                                           "1",
                                           "--rate",
                                           "0",
                                           "--request-seconds",
                                           "600"};
};

TEST_F(ServeBodies, HaveTheirRoomFromTheirAnnouncementOn)
{
    const ServedHost host(m_options);
    host.workers(1);
    {
        const Clients all =
            clients(host, head(host, {{"Content-Length", std::to_string(largest)}}), most + 10);
        EXPECT_TRUE(eventually([&] { return refused(host) == 10; })) << refused(host);
        // Which ones, is not told by the order in which they came, if threads take them.
        EXPECT_TRUE(eventually([&] { return countAnswered(all) == 10; }));
        for (const auto& one : all) {
            if (!isAnswered(*one))
                continue;
            const HttpAnswer answer = one->receive();
            EXPECT_EQ("busy", answer.code());
            EXPECT_EQ("1", answer.headers.at("retry-after"));
        }
        EXPECT_EQ("busy", host.request("QZaVen_GetVersion").code());
    }
    expectRoom(host);
}

TEST_F(ServeBodies, InChunksTakeTheirRoomPieceByPiece)
{
    const ServedHost host(m_options);
    host.workers(1);
    const size_t before = peakOf(host);
    {
        const std::string chunk = "80000\r\n" + std::string(0x80000, ' ') + "\r\n";
        const Clients all =
            clients(host, head(host, {{"Transfer-Encoding", "chunked"}}) + chunk, 2 * most + 10);
        EXPECT_TRUE(eventually([&] { return refused(host) >= 10; })) << refused(host);
        EXPECT_LE(refused(host), 11);
    }
    if (!support::sanitized) {
        EXPECT_LT(peakOf(host), before + 3 * most * largest);
    }
    expectRoom(host);
}

TEST_F(ServeBodies, AreCountedUntilTheirRequestIsOver)
{
    const ServedHost host(m_options);
    const pid_t worker = host.workers(1).at(0);
    kill(worker, SIGSTOP);
    const size_t before = peakOf(host);
    {
        std::string body = "{\"strIn\": \"\"}";
        body.insert(body.size() - 2, largest - body.size(), 'A');
        const Clients all = clients(
            host, head(host, {{"Content-Length", std::to_string(largest)}}) + body, 3 * most);
        EXPECT_TRUE(eventually([&] { return refused(host) == 2 * most; })) << refused(host);
        EXPECT_TRUE(eventually([&] { return host.metric("corvane_queue") == most - 1; }));
        if (!support::sanitized) {
            EXPECT_LT(peakOf(host), before + 3 * most * largest);
        }
        kill(worker, SIGCONT);
        size_t served = 0;
        for (const auto& one : all)
            served += one->receive().status == 200 ? 1 : 0;
        EXPECT_EQ(most, served);
    }
    expectRoom(host);
}

// ---- Without memory.

class ServeWithoutMemory : public ServeFront {
protected:
    void SetUp() override
    {
        if (support::sanitized)
            GTEST_SKIP() << "the sanitizer has taken malloc over";
        ServeFront::SetUp();
    }

    // Requests of all kinds; what becomes of them is no matter.
    static void sendAll(const ServedHost& host)
    {
        const std::string hmac = "/v1/requests/QZaven_crypto_hmac";
        const std::string large = "{\"strIn\": \"" + std::string(200000, 'A') + "\"}";
        const std::string batch = "{\"requests\": [" +
                                  repeated("{\"name\": \"QZaVen_GetVersion\"},", 63) +
                                  "{\"name\": \"QZaVen_GetVersion\"}]}";
        for (const std::string& bytes :
             {host.text("GET", "/livez"), host.text("GET", "/readyz"), host.text("GET", "/metrics"),
              host.text("GET", "/v1/catalogue"), host.text("GET", "/v1/status"),
              host.text("GET", "/"), host.text("GET", "/livez", {{"Host", "a"}}),
              host.text("POST", hmac, jsonType, "{}"), host.text("POST", hmac, jsonType, "{"),
              host.text("POST", "/v1/requests/QZaven_crypto_base64_encode", jsonType, large),
              host.text("POST", "/v1/batch", jsonType, batch),
              host.text("POST", "/v1/peer/root", jsonType, "{}"),
              host.text("POST", "/v1/requests/QZaven_ke_new", jsonType, "{}"), longHead}) {
            HttpConnection connection(host.port());
            connection.send(bytes);
            connection.receive();
        }
    }

    static void expectAsBefore(const ServedHost& host)
    {
        EXPECT_TRUE(eventually([&] { return host.request("QZaVen_GetVersion").status == 200; }));
        EXPECT_EQ(2U, host.workers().size());
        EXPECT_TRUE(eventually([&] { return host.metric("corvane_queue") == 0; }));
        EXPECT_TRUE(eventually([&] { return host.metric("corvane_connections") == 1; }));
        EXPECT_TRUE(eventually([&] { return host.get("/readyz").status == 200; }));
    }

    support::FailingMemory m_memory{support::preloaded("failing_memory")};
    // What cannot go on without memory, such as the start of a worker, is waited for so long.
    const ServedHost::Options m_options = {"--rate",         "0",   "--session-seconds", "0.5",
                                           "--read-seconds", "0.5", "--request-seconds", "1"};
};

TEST_F(ServeWithoutMemory, GoesOn)
{
    ServedHost host(m_options, m_memory.environment());
    host.workers();
    for (const size_t atLeast : {200000, 20000, 3000})
        for (const size_t every : {1, 2, 3, 7}) {
            const size_t before = m_memory.failed();
            m_memory.fail(every, atLeast);
            sendAll(host);
            m_memory.fail(0, 0);
            ASSERT_FALSE(host.hasEnded()) << every << " " << atLeast << host.errors();
            EXPECT_GT(m_memory.failed(), before) << every << " " << atLeast;
            expectAsBefore(host);
        }
    EXPECT_EQ(0, host.stop());
}

// Where not even small things fit, it may end, but not by a signal.
TEST_F(ServeWithoutMemory, EndsWithASentenceIfItMust)
{
    auto host = std::make_unique<ServedHost>(m_options, m_memory.environment());
    for (const size_t every : {997, 499, 211, 101, 53, 23, 11, 5, 3, 2}) {
        const std::vector<pid_t> workers = host->workers();
        const size_t before = m_memory.failed();
        m_memory.fail(every, 1);
        if (every % 2 == 1)
            kill(workers.at(0), SIGKILL);
        for (int i = 0; i < 10 && !host->hasEnded(); ++i)
            sendAll(*host);
        m_memory.fail(0, 0);
        EXPECT_GT(m_memory.failed(), before) << every;
        EXPECT_TRUE(eventually([&] {
            return host->hasEnded() || host->request("QZaVen_GetVersion").status == 200;
        })) << every;
        if (!host->hasEnded()) {
            expectAsBefore(*host);
            continue;
        }
        EXPECT_EQ(EXIT_FAILURE, host->wait()) << every << " " << host->errors();
        EXPECT_NE(std::string::npos, host->errors().find("out of memory"));
        host = std::make_unique<ServedHost>(m_options, m_memory.environment());
    }
}

// ---- Documents.

TEST_F(ServeFront, SendsItsDocumentsOnceIfTheyAreKept)
{
    const ServedHost host;
    for (const char* path : {"/openapi.json", "/v1/catalogue"}) {
        const HttpAnswer whole = host.get(path);
        EXPECT_EQ(200, whole.status);
        EXPECT_EQ("application/json", whole.headers.at("content-type"));
        ASSERT_EQ(1U, whole.headers.count("etag")) << path;
        EXPECT_EQ(whole.body, host.get(path).body);
        EXPECT_EQ(std::string::npos, whole.body.find('\n')) << "on one line";
        const HttpAnswer kept =
            host.ask("GET", path, {{"If-None-Match", whole.headers.at("etag")}});
        EXPECT_EQ(304, kept.status);
        EXPECT_EQ("", kept.body);
        EXPECT_EQ(std::to_string(whole.body.size()),
                  host.ask("HEAD", path).headers.at("content-length"));
    }
    EXPECT_NE(host.get("/openapi.json").headers.at("etag"),
              host.get("/v1/catalogue").headers.at("etag"));
    EXPECT_EQ(401, host.ask("GET", "/v1/catalogue", {{"Authorization", ""}}).status);
}

// ---- The end.

// A client that sends one request after the other until it is told to close.
struct Sender {
    size_t answered = 0;
    size_t lost = 0;     // sent, but neither answered nor after a goodbye
    size_t refused = 0;  // answered, but not served
    bool isDismissed = false;

    void run(const ServedHost& host, std::atomic<size_t>& started)
    {
        HttpConnection connection(host.port());
        const std::string request = host.text("POST", version, jsonType, "{}");
        while (!isDismissed) {
            if (!connection.send(request)) {
                ++lost;
                return;
            }
            const HttpAnswer answer = connection.receive();
            if (answer.status == 0) {
                ++lost;
                return;
            }
            refused += answer.status == 200 ? 0 : 1;
            if (++answered == 5)
                ++started;
            const auto found = answer.headers.find("connection");
            isDismissed = found != answer.headers.end() && found->second == "close";
        }
    }
};

TEST_F(ServeFront, LosesNoRequestOfAKeptConnection)
{
    for (int restart = 0; restart < 8; ++restart) {
        ServedHost host({"--rate", "0"});
        host.workers();
        std::vector<Sender> senders(6);
        std::atomic<size_t> started = 0;
        std::vector<std::thread> threads;
        for (Sender& sender : senders)
            threads.emplace_back([&] { sender.run(host, started); });
        EXPECT_TRUE(eventually([&] { return started == senders.size(); }));
        EXPECT_EQ(0, host.stop());
        for (std::thread& thread : threads)
            thread.join();
        for (const Sender& sender : senders) {
            EXPECT_EQ(0U, sender.lost) << restart << " after " << sender.answered;
            EXPECT_EQ(0U, sender.refused);
            EXPECT_TRUE(sender.isDismissed);
        }
    }
}

TEST_F(ServeFront, ServesWhatItHasAcceptedWhenToldToEnd)
{
    ServedHost host({"--rate", "0"});
    host.workers();
    HttpConnection kept(host.port());
    kept.send(host.text("GET", "/livez"));
    EXPECT_EQ(200, kept.receive().status);

    // The system makes these connections while the front stands still.
    kill(host.pid(), SIGSTOP);
    std::vector<std::unique_ptr<HttpConnection>> waiting;
    for (int i = 0; i < 40; ++i) {
        waiting.push_back(std::make_unique<HttpConnection>(host.port()));
        waiting.back()->send(host.text("POST", version, jsonType, "{}"));
    }
    kept.send(host.text("POST", version, jsonType, "{}"));
    host.signal(SIGTERM);
    kill(host.pid(), SIGCONT);
    const auto expectServed = [](HttpConnection& connection) {
        const HttpAnswer answer = connection.receive();
        EXPECT_EQ(200, answer.status) << answer.body;
        EXPECT_EQ("close",
                  answer.headers.count("connection") != 0 ? answer.headers.at("connection") : "");
        EXPECT_TRUE(connection.isEnded());
    };
    expectServed(kept);
    for (const auto& one : waiting)
        expectServed(*one);
    EXPECT_EQ(0, host.wait());
}

// A body that is on its way, and a connection whose client sends no more, too.
TEST_F(ServeFront, WaitsForABodyWhenToldToEnd)
{
    ServedHost host({"--read-seconds", "600", "--drain-seconds", "600"});
    host.workers();
    const std::string whole = host.text("POST", version, jsonType, "{}");
    HttpConnection slow(host.port());
    slow.send(whole.substr(0, whole.size() - 1));
    HttpConnection idle(host.port());
    HttpConnection half(host.port());
    shutdown(half.descriptor(), SHUT_WR);
    EXPECT_TRUE(eventually([&] { return host.metric("corvane_connections") >= 3; }));
    host.signal(SIGTERM);
    EXPECT_TRUE(idle.isEnded());
    EXPECT_TRUE(half.isEnded());
    EXPECT_FALSE(host.hasEnded());
    slow.send(whole.substr(whole.size() - 1));
    EXPECT_EQ(200, slow.receive().status);
    EXPECT_EQ(0, host.wait());
}

// Where all connections are taken, some wait in the system for as long as those ask on.
TEST_F(ServeFront, EndsThoughConnectionsAreAtTheirLimit)
{
    ServedHost host({"--rate", "0", "--connections", "9", "--drain-seconds", "1"});
    host.workers();
    std::atomic<bool> isOver{false};
    std::vector<std::thread> askers;
    for (int i = 0; i < 8; ++i)
        askers.emplace_back([&] {
            const std::string request = host.text("GET", "/livez");
            std::string many;
            for (int k = 0; k < 50; ++k)
                many += request;
            HttpConnection connection(host.port());
            while (!isOver && connection.send(many))
                for (int k = 0; k < 50 && connection.receive().status == 200; ++k) {
                }
        });
    std::vector<std::unique_ptr<HttpConnection>> waiting;
    for (int i = 0; i < 6; ++i)
        waiting.push_back(std::make_unique<HttpConnection>(host.port()));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    host.signal(SIGTERM);
    EXPECT_TRUE(eventually([&] { return host.hasEnded(); }));
    host.signal(SIGKILL);
    isOver = true;
    for (std::thread& asker : askers)
        asker.join();
}

TEST_F(ServeFront, EndsAtOnceWhenToldTwice)
{
    ServedHost host({"--drain-seconds", "600"});
    host.workers();
    const std::string whole = host.text("POST", version, jsonType, "{}");
    HttpConnection slow(host.port());
    slow.send(whole.substr(0, whole.size() - 1));
    EXPECT_TRUE(eventually([&] { return host.metric("corvane_connections") == 2; }));
    host.signal(SIGTERM);
    EXPECT_TRUE(eventually([&] { return HttpConnection(host.port()).descriptor() < 0; }));
    EXPECT_FALSE(host.hasEnded());
    EXPECT_EQ(0, host.stop(SIGINT));
}

// A request that a worker has is not waited for then, nor is its client.
TEST_F(ServeFront, EndsAtOnceWithARequestUnderWay)
{
    ServedHost host({"--drain-seconds", "600", "--workers", "1"});
    kill(host.workers(1).at(0), SIGSTOP);
    std::vector<std::unique_ptr<HttpConnection>> underWay;
    for (int i = 0; i < 3; ++i) {
        underWay.push_back(std::make_unique<HttpConnection>(host.port()));
        underWay.back()->send(host.text("POST", version, jsonType, "{}"));
    }
    EXPECT_TRUE(eventually([&] { return host.metric("corvane_queue") == 2; }));
    host.signal(SIGTERM);
    EXPECT_TRUE(eventually([&] { return HttpConnection(host.port()).descriptor() < 0; }));
    EXPECT_EQ(0, host.stop());
    for (const auto& one : underWay) {
        const HttpAnswer answer = one->receive();
        EXPECT_EQ(503, answer.status);
        EXPECT_EQ("draining", answer.code());
        EXPECT_EQ("host_stopped", answer.json()["error"]["reason"]);
        EXPECT_EQ("1", answer.headers.at("retry-after"));
        EXPECT_EQ("close", answer.headers.at("connection"));
    }
}

// ---- Ciphers.

TEST_F(ServeFront, TakesOnlyCiphersThatKeepWhatWasSaid)
{
    makeCertificate();
    const ServedHost host(tls());
    const std::string request = host.text("GET", "/livez", {{"Connection", "close"}});
    const auto isTaken = [&](const std::string& options) {
        return tlsClient(host, "-quiet " + options, request).find("HTTP/1.1 200") !=
               std::string::npos;
    };
    EXPECT_TRUE(isTaken("-tls1_3"));
    for (const char* cipher : {"ECDHE-RSA-AES128-GCM-SHA256", "ECDHE-RSA-AES256-GCM-SHA384",
                               "ECDHE-RSA-CHACHA20-POLY1305"})
        EXPECT_TRUE(isTaken(std::string("-tls1_2 -cipher ") + cipher)) << cipher;
    for (const char* cipher :
         {"AES128-SHA", "AES128-GCM-SHA256", "AES256-SHA256", "ECDHE-RSA-AES128-SHA",
          "ECDHE-RSA-AES256-SHA", "DHE-RSA-AES128-SHA", "DHE-RSA-AES128-GCM-SHA256"})
        EXPECT_FALSE(isTaken(std::string("-tls1_2 -cipher ") + cipher + ":@SECLEVEL=0")) << cipher;
    EXPECT_FALSE(isTaken("-tls1_1 -cipher ALL:@SECLEVEL=0"));
}

}  // namespace
