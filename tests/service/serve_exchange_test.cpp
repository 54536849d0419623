// One request and what becomes of it, to the last word: its answer's headers, its line in the log,
// its bounds, and the time that it has.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <sstream>
#include <thread>

#include "support/served_host.h"

namespace {

using support::eventually;
using support::HttpAnswer;
using support::HttpConnection;
using support::HttpHeaders;
using support::Json;
using support::ServedHost;

using Clock = std::chrono::steady_clock;
using Named = std::map<std::string, std::string>;

const HttpHeaders jsonType = {{"Content-Type", "application/json"}};
const std::string version = "/v1/requests/QZaVen_GetVersion";

// What each answer has, beside its size, its number and the date.
Named with(Named more)
{
    more.insert({{"cache-control", "no-store"},
                 {"content-type", "application/json"},
                 {"x-content-type-options", "nosniff"}});
    return more;
}

Named headersOf(const HttpAnswer& answer)
{
    EXPECT_EQ(16U, answer.headers.at("x-request-id").size());
    EXPECT_EQ(std::to_string(answer.body.size()), answer.headers.at("content-length"));
    Named headers = answer.headers;
    for (const char* name : {"x-request-id", "content-length", "date"})
        headers.erase(name);
    return headers;
}

// What the log has of each, beside its time and number; "milliseconds" have been looked at.
Json lineOf(Json line, double leastMilliseconds = 0)
{
    EXPECT_GE(line.value("milliseconds", -1.0), leastMilliseconds) << line;
    for (const char* name : {"time", "id", "milliseconds"})
        line.erase(name);
    return line;
}

Json line(const std::string& method, const std::string& route, int status, size_t received,
          size_t sent, bool isWhole)
{
    return {{"address", "127.0.0.1"}, {"method", method}, {"route", route},  {"status", status},
            {"received", received},   {"sent", sent},     {"whole", isWhole}};
}

Json with(Json line, const std::string& name, const Json& value)
{
    line[name] = value;
    return line;
}

class ServeExchange : public support::ServedSuite {
protected:
    static Json logged(const HttpAnswer& answer)
    {
        return lineOf(host().logged(answer.headers.at("x-request-id")));
    }
};

// ---- Answers.

TEST_F(ServeExchange, AnswersHaveTheseHeaders)
{
    EXPECT_EQ(with({}), headersOf(host().get("/livez")));
    EXPECT_EQ(with({}), headersOf(host().get("/v1/nothing")));
    EXPECT_EQ(with({{"www-authenticate", "Bearer"}}),
              headersOf(host().ask("GET", "/v1/status", {{"Authorization", ""}})));
    EXPECT_EQ(with({{"allow", "GET, HEAD"}}), headersOf(host().ask("DELETE", "/livez")));
    EXPECT_EQ(with({{"allow", "GET, HEAD"}}), headersOf(host().ask("DELETE", "/")));
    EXPECT_EQ(with({{"allow", "POST"}}), headersOf(host().get(version)));
    EXPECT_EQ("this path takes POST", host().get(version).json()["error"]["text"]);
    EXPECT_EQ("this path takes GET", host().ask("DELETE", "/").json()["error"]["text"]);
    EXPECT_EQ(405, host().ask("HEAD", version).status);
}

TEST_F(ServeExchange, ThePageHasTwoPaths)
{
    EXPECT_EQ(host().get("/").body, host().get("/index.html").body);
}

// Its own pages send it with each request that changes something.
TEST_F(ServeExchange, ItsOwnOriginIsTaken)
{
    const std::string own = "http://" + host().host();
    for (const char* site : {"", "same-origin", "same-site"})
        EXPECT_EQ(
            200,
            host().ask("GET", "/v1/status", {{"Origin", own}, {"Sec-Fetch-Site", site}}).status)
            << site;
}

// ---- Heads.

TEST_F(ServeExchange, HeadsHaveSoManyHeadersAndBytes)
{
    const std::string start = "GET /livez HTTP/1.1\r\nHost: " + host().host() + "\r\n";
    const auto many = [&](size_t count) {
        std::string bytes = start;
        for (size_t i = 1; i < count; ++i)
            bytes += "X: y\r\n";
        return host().raw(bytes + "\r\n");
    };
    EXPECT_EQ(200, many(64).status);
    const HttpAnswer refused = many(65);
    EXPECT_EQ(431, refused.status);
    const Json error = refused.json()["error"];
    EXPECT_EQ("too_many_headers", error["reason"]);
    EXPECT_EQ((Json{{"headers", "64"}, {"bytes", "16384"}}), error["values"]);
    EXPECT_EQ("there are more than 64 headers, or more than 16384 bytes", error["text"]);

    // With a colon, a blank and the end of the line for each.
    const auto large = [&](size_t bytes) {
        const size_t before = std::string("Host: \r\nX: \r\n").size() + host().host().size();
        return host().raw(start + "X: " + std::string(bytes - before, 'y') + "\r\n\r\n").status;
    };
    EXPECT_EQ(200, large(16384));
    EXPECT_EQ(431, large(16385));
}

TEST_F(ServeExchange, ConnectionsEndBehindWhatTwoMayReadDifferently)
{
    const std::string next = host().text("GET", "/livez");
    const std::string start = "GET /livez HTTP/1.1\r\nHost: " + host().host() + "\r\n";
    for (const auto& [head, reason] :
         std::map<std::string, std::string>{{"X-A: \x01\r\n\r\n", "bad_header"},
                                            {"X(A: b\r\n\r\n", "bad_header"},
                                            {"X-A: b\n\r\n", "bad_head"},
                                            {"Host: localhost\r\n\r\n", "header_twice"}}) {
        HttpConnection connection(host().port());
        connection.send(start + head + next);
        const HttpAnswer answer = connection.receive();
        EXPECT_EQ(400, answer.status);
        EXPECT_EQ(reason, answer.json()["error"]["reason"]);
        EXPECT_EQ(with({{"connection", "close"}}), headersOf(answer));
        EXPECT_TRUE(connection.isEnded());
    }
    // But not behind what is clear and refused.
    HttpConnection connection(host().port());
    for (int i = 0; i < 3; ++i) {
        connection.send(host().text("GET", "/v1/nothing"));
        const HttpAnswer answer = connection.receive();
        EXPECT_EQ(404, answer.status);
        EXPECT_EQ(with({}), headersOf(answer));
    }
}

TEST_F(ServeExchange, BodiesThatAreNotDueEndTheirConnection)
{
    for (const char* path : {"/", "/livez", "/v1/catalogue"}) {
        HttpConnection connection(host().port());
        connection.send(host().text("GET", path, {}, "{}") + host().text("GET", "/livez"));
        const HttpAnswer answer = connection.receive();
        EXPECT_EQ(400, answer.status);
        EXPECT_EQ("body_not_due", answer.json()["error"]["reason"]);
        EXPECT_EQ("close", answer.headers.at("connection"));
        EXPECT_TRUE(connection.isEnded());
    }
}

// ---- The log.

TEST_F(ServeExchange, EachHasItsLine)
{
    for (const char* path : {"/", "/openapi.json"}) {
        const HttpAnswer whole = host().get(path);
        EXPECT_EQ(line("GET", path, 200, 0, whole.body.size(), true), logged(whole));
        EXPECT_EQ(line("HEAD", path, 200, 0, 0, true), logged(host().ask("HEAD", path)));
        HttpConnection connection(host().port());
        connection.send(host().text("GET", path, {{"If-None-Match", whole.headers.at("etag")}}) +
                        host().text("GET", "/livez"));
        const HttpAnswer kept = connection.receive();
        EXPECT_EQ(304, kept.status);
        EXPECT_EQ(line("GET", path, 304, 0, 0, true), logged(kept));
        EXPECT_EQ(200, connection.receive().status);
    }
    const std::string body = R"({"strNothing": "x"})";
    const HttpAnswer answer = host().ask("POST", version, jsonType, body);
    EXPECT_EQ(with(line("POST", "/v1/requests/{name}", 200, body.size(), answer.body.size(), true),
                   "request", "QZaVen_GetVersion"),
              logged(answer));
    const HttpAnswer unknown = host().get("/nothing");
    EXPECT_EQ(with(line("GET", "", 404, 0, unknown.body.size(), true), "error", "not_found"),
              logged(unknown));
}

// Methods of no more than 16 characters, if they are words.
TEST_F(ServeExchange, LinesHaveNoMethodThatMayBeAnything)
{
    for (const auto& [method, known] : std::map<std::string, std::string>{
             {std::string(16, 'A'), std::string(16, 'A')}, {std::string(17, 'A'), ""}}) {
        const HttpAnswer answer = host().ask(method, "/livez");
        EXPECT_EQ(with(line(known, "/livez", 405, 0, answer.body.size(), true), "error",
                       "method_not_allowed"),
                  logged(answer));
    }
    const HttpAnswer answer = host().ask("G(T", "/livez");
    EXPECT_EQ(with(line("", "", 400, 0, answer.body.size(), true), "error", "malformed"),
              logged(answer));
}

// ---- Time.

std::vector<Json> logOf(const ServedHost& host, size_t count)
{
    std::vector<Json> lines;
    EXPECT_TRUE(eventually([&] {
        lines.clear();
        std::istringstream log(support::readWhole(host.path("access.log")));
        for (std::string text; std::getline(log, text);)
            if (Json one = Json::parse(text, nullptr, false); one.value("status", 0) == 408)
                lines.push_back(std::move(one));
        return lines.size() >= count;
    }));
    lines.resize(count);
    return lines;
}

double millisecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

class ServeTime : public testing::Test {
protected:
    void SetUp() override { NEEDS_WORKERS(); }
};

TEST_F(ServeTime, LateOnesAreToldAndLogged)
{
    const ServedHost host({"--read-seconds", "0.2"});
    const Json error = {{"code", "timeout"},
                        {"reason", "not_whole_in_time"},
                        {"source", "host"},
                        {"text", "the request did not arrive whole in time"}};
    const std::string whole = host.text("POST", version, jsonType, "{  }");
    for (const std::string& bytes : {std::string(), whole.substr(0, 10), whole.substr(0, 60),
                                     whole.substr(0, whole.size() - 1)}) {
        const Clock::time_point start = Clock::now();
        HttpConnection late(host.port());
        late.send(bytes);
        const HttpAnswer answer = late.receive();
        EXPECT_GE(millisecondsSince(start), 200);
        EXPECT_EQ(408, answer.status);
        EXPECT_EQ(with({{"connection", "close"}}), headersOf(answer));
        for (const auto& [name, value] : error.items())
            EXPECT_EQ(value, answer.json()["error"][name]) << answer.body;
        EXPECT_TRUE(late.isEnded());
    }
    const std::vector<Json> lines = logOf(host, 4);
    EXPECT_EQ(line("", "", 408, 0, 0, false), lineOf(lines[0], 200));
    EXPECT_EQ(line("", "", 408, 0, 0, false), lineOf(lines[1], 200));
    EXPECT_EQ(line("", "", 408, 0, 0, false), lineOf(lines[2], 200));
    EXPECT_EQ(
        with(line("POST", "/v1/requests/{name}", 408, 3, 0, false), "request", "QZaVen_GetVersion"),
        lineOf(lines[3], 200));
    EXPECT_EQ(4, host.metric("corvane_http_answers_total{status=\"408\"}"));
}

// Whether bytes, or the end, have come.
bool hasCome(const HttpConnection& connection)
{
    pollfd waiting = {connection.descriptor(), POLLIN, 0};
    return poll(&waiting, 1, 0) != 0;
}

// The time begins again where a request does.
TEST_F(ServeTime, WhoWaitedHasTimeForTheHead)
{
    const ServedHost host({"--read-seconds", "0.4"});
    EXPECT_TRUE(eventually([&] {
        HttpConnection connection(host.port());
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        const Clock::time_point start = Clock::now();
        connection.send("GET /livez HTTP/1.1\r\nHost: localhost\r\nX-A: ");
        // Unless this process or the host was held up for too long.
        return connection.receive().status == 408 && millisecondsSince(start) >= 400;
    }));
}

// A request that is there is served, however late the host comes to it. It looks at the time while
// it has other requests, too.
TEST_F(ServeTime, WhatHasComeIsServed)
{
    const ServedHost host({"--read-seconds", "0.2", "--rate", "0"});
    const std::string request = host.text("GET", "/livez");
    std::string many;
    for (int i = 0; i < 500; ++i)
        many += request;
    for (int i = 0; i < 4; ++i)
        EXPECT_TRUE(eventually([&] {
            HttpConnection connection(host.port());
            connection.send(request);
            if (connection.receive().status != 200)
                return false;
            const HttpConnection other(host.port());
            other.send(many);
            kill(host.pid(), SIGSTOP);
            const bool isOpen = !hasCome(connection);
            connection.send(request);
            std::this_thread::sleep_for(std::chrono::milliseconds(250));
            kill(host.pid(), SIGCONT);
            // Unless this process was held up for too long.
            if (!isOpen)
                return false;
            EXPECT_EQ(200, connection.receive().status);
            return true;
        }));
}

// The time is for what clients send: a worker has its own.
TEST_F(ServeTime, WhatAWorkerDoesIsNotLate)
{
    const ServedHost host({"--read-seconds", "0.4", "--workers", "1"});
    const pid_t worker = host.workers(1).at(0);
    kill(worker, SIGSTOP);
    HttpConnection waiting(host.port());
    waiting.send(host.text("POST", version, jsonType, "{}"));
    EXPECT_TRUE(eventually([&] { return host.metric("corvane_workers_busy") == 1; }));
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(408, HttpConnection(host.port()).receive().status);
    kill(worker, SIGCONT);
    EXPECT_EQ(200, waiting.receive().status);
}

// Whether all threads of a process wait for something; one that lacks a processor does not.
bool isWaiting(pid_t pid)
{
    for (const auto& task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        const std::string stat = support::readWhole(task.path() / "stat");
        const size_t end = stat.rfind(')');
        if (end == std::string::npos || stat.compare(end, 3, ") S") != 0)
            return false;
    }
    return true;
}

// Connections that say nothing, one for which there is no room, and a request that waits.
TEST_F(ServeTime, WaitingTakesNone)
{
    for (const char* threads : {"1", "3"}) {
        const ServedHost host({"--read-seconds", "600", "--workers", "1", "--connections", "3",
                               "--front-threads", threads});
        const pid_t worker = host.workers(1).at(0);
        const auto isAtRest = [&] {
            const double before = support::processorSeconds(host.pid());
            for (int i = 0; i < 10; ++i) {
                if (!isWaiting(host.pid()))
                    return false;
                std::this_thread::sleep_for(std::chrono::milliseconds(15));
            }
            return support::processorSeconds(host.pid()) < before + 0.05;
        };
        EXPECT_TRUE(eventually(isAtRest)) << threads;
        kill(worker, SIGSTOP);
        HttpConnection waiting(host.port());
        waiting.send(host.text("POST", version, jsonType, "{}"));
        EXPECT_TRUE(eventually([&] { return host.metric("corvane_workers_busy") == 1; }));
        EXPECT_TRUE(eventually(isAtRest)) << threads;
        std::vector<std::unique_ptr<HttpConnection>> silent;
        for (int i = 0; i < 3; ++i)
            silent.push_back(std::make_unique<HttpConnection>(host.port()));
        EXPECT_TRUE(eventually(isAtRest)) << threads;
        kill(worker, SIGCONT);
        EXPECT_EQ(200, waiting.receive().status);
    }
}

}  // namespace
