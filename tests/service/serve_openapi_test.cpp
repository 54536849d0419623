// The statuses of the OpenAPI document held against a running host: each operation is sent
// whatever brings about each status. What comes must be in the document, and what is there
// must come.
#include <gtest/gtest.h>
#include <signal.h>

#include <functional>
#include <map>
#include <memory>
#include <set>

#include "support/served_host.h"

namespace {

using support::eventually;
using support::HttpAnswer;
using support::HttpConnection;
using support::HttpHeaders;
using support::Json;
using support::sanitized;
using support::ServedHost;

const HttpHeaders jsonType = {{"Content-Type", "application/json"}};

struct Operation {
    std::string path;
    std::string method;
    Json peerMembers;  // that a step of the peer takes; null for others

    bool isPost() const { return method == "POST"; }
    bool isBatch() const { return path == "/v1/batch"; }
    bool isPeer() const { return peerMembers.is_array(); }
    // A body that is answered, perhaps with the plug-in's or the peer's error.
    std::string body() const
    {
        if (isBatch())
            return R"({"requests": [{"name": "QZaVen_GetVersion"}]})";
        Json members = Json::object();
        for (const Json& name : peerMembers)
            members[name.get<std::string>()] = "AAAA";
        return members.dump();
    }
};

HttpHeaders manyHeaders()
{
    HttpHeaders headers;
    for (int i = 0; i < 100; ++i)
        headers.emplace_back("X-" + std::to_string(i), "x");
    return headers;
}

class ServeOpenApi : public testing::Test {
protected:
    void SetUp() override
    {
        NEEDS_WORKERS();
        const ServedHost host;
        const Json document = host.get("/openapi.json").json();
        for (const auto& [path, item] : document["paths"].items())
            for (const auto& [method, entry] : item.items())
                add(path, method, entry);
        ASSERT_GT(m_operations.size(), 30U);
    }

    // Sends something to each operation and keeps the statuses.
    void provoke(const std::string& what, const std::function<HttpAnswer(const Operation&)>& send)
    {
        for (const Operation& operation : m_operations)
            see(operation, send(operation), what);
    }

    void see(const Operation& operation, const HttpAnswer& answer, const std::string& what)
    {
        m_seen[operation.path].insert(answer.status);
        EXPECT_EQ(1U, m_documented[operation.path].count(answer.status))
            << operation.path << " gave " << answer.status << " to " << what << ": " << answer.body;
    }

    static HttpAnswer ask(const ServedHost& host, const Operation& operation,
                          const HttpHeaders& more = {}, const std::string& behindPath = "")
    {
        HttpHeaders headers = operation.isPost() ? jsonType : HttpHeaders();
        headers.insert(headers.end(), more.begin(), more.end());
        return host.ask(operation.method, operation.path + behindPath, headers,
                        operation.isPost() ? operation.body() : "");
    }

    // Asks while the processes that would answer are stopped.
    static HttpAnswer askStopped(const ServedHost& host, const Operation& operation, bool isKilled)
    {
        // The one that was ended before may still be there, and the next not yet.
        std::vector<pid_t> servers;
        EXPECT_TRUE(eventually([&] {
            const bool isPeer = operation.isPeer();
            const int status =
                isPeer ? ask(host, operation).status : host.request("QZaVen_GetVersion").status;
            servers = isPeer ? std::vector<pid_t>{host.peer()} : host.workers(1);
            return status == 200 && servers.size() == 1;
        }));
        const pid_t server = servers.at(0);
        kill(server, SIGSTOP);
        HttpConnection connection(host.port());
        connection.send(host.text(operation.method, operation.path,
                                  operation.isPost() ? jsonType : HttpHeaders(),
                                  operation.isPost() ? operation.body() : ""));
        if (isKilled) {
            host.get("/livez");  // the request is on its way by now, most likely
            kill(server, SIGKILL);
        }
        const HttpAnswer answer = connection.receive();
        kill(server, SIGCONT);
        return answer;
    }

    void sendAllKinds();
    void sendBadHeads();
    void askHostsWithLimits();
    void askAFullHost();
    void askStoppedProcesses();

    // What the document has beyond what came.
    std::map<std::string, std::set<int>> unseen() const
    {
        std::map<std::string, std::set<int>> left = m_documented;
        for (const auto& [path, statuses] : m_seen)
            for (const int status : statuses)
                left[path].erase(status);
        return left;
    }

private:
    void add(const std::string& path, const std::string& method, const Json& entry)
    {
        Operation operation = {path, method == "post" ? "POST" : "GET", nullptr};
        if (path.compare(0, 9, "/v1/peer/") == 0)
            operation.peerMembers =
                entry["requestBody"]["content"]["application/json"]["schema"]["required"];
        for (const auto& [status, response] : entry["responses"].items())
            m_documented[path].insert(std::stoi(status));
        m_operations.push_back(operation);
    }

    std::vector<Operation> m_operations;
    std::map<std::string, std::set<int>> m_documented;
    std::map<std::string, std::set<int>> m_seen;
};

// Each of these starts a host for what it sends.

void ServeOpenApi::sendAllKinds()
{
    const ServedHost host;
    provoke("what is right", [&](const auto& o) { return ask(host, o); });
    provoke("what is kept", [&](const auto& o) {
        const HttpAnswer first = ask(host, o);
        const auto etag = first.headers.find("etag");
        return etag == first.headers.end() ? first
                                           : ask(host, o, {{"If-None-Match", etag->second}});
    });
    provoke("an unknown name", [&](const auto& o) {
        return host.ask("POST", o.path, jsonType, R"({"requests": [{"name": "QZaven_nothing"}]})");
    });
    provoke("a session that is gone", [&](const auto& o) {
        const std::string gone = R"({"strKe": "ke_gone"})";
        const std::string part =
            R"({"requests": [{"name": "QZaven_ke_free", "parameters": )" + gone + "}]}";
        return host.ask("POST", o.path, jsonType, o.isBatch() ? part : gone);
    });
    provoke("a plain text", [&](const auto& o) {
        return host.ask(o.method, o.path, {{"Content-Type", "text/plain"}}, "x");
    });
}

void ServeOpenApi::sendBadHeads()
{
    const ServedHost host;
    const auto announce = [&](const Operation& o, const std::string& length) {
        return host.raw(host.text(o.method, o.path, {{"Content-Length", length}}));
    };
    provoke("a query", [&](const auto& o) { return ask(host, o, {}, "?x=1"); });
    provoke("no token", [&](const auto& o) { return ask(host, o, {{"Authorization", ""}}); });
    provoke("a strange host", [&](const auto& o) {
        return ask(host, o, {{"Host", "strange.example"}});
    });
    provoke("another method", [&](const auto& o) { return host.ask("DELETE", o.path); });
    provoke("much to come", [&](const auto& o) { return announce(o, "99999999"); });
    provoke("no number", [&](const auto& o) { return announce(o, std::string(30, '9')); });
    provoke("a long first line",
            [&](const auto& o) { return ask(host, o, {}, "?" + std::string(70000, 'x')); });
    provoke("many headers", [&](const auto& o) { return ask(host, o, manyHeaders()); });
    provoke("HTTP of another version", [&](const auto& o) {
        std::string bytes = host.text(o.method, o.path);
        return host.raw(bytes.replace(bytes.find("HTTP/1.1"), 8, "HTTP/2.0"));
    });
}

void ServeOpenApi::askHostsWithLimits()
{
    const ServedHost named({"--node", "a", "--workers", "1"});
    provoke("another node", [&](const auto& o) {
        return ask(named, o, {{"X-Corvane-Node", "b"}});
    });

    const ServedHost alone({"--no-peer"});
    provoke("a host without a peer", [&](const auto& o) { return ask(alone, o); });

    const ServedHost strict({"--rate", "0.001", "--burst", "1"});
    strict.get("/livez");
    provoke("one request too many", [&](const auto& o) { return ask(strict, o); });

    const ServedHost hasty({"--read-seconds", "0.3"});
    std::vector<std::unique_ptr<HttpConnection>> halves;
    for (const Operation& operation : m_operations) {
        const std::string whole = hasty.text(operation.method, operation.path);
        halves.push_back(std::make_unique<HttpConnection>(hasty.port()));
        halves.back()->send(whole.substr(0, whole.size() - 2));
    }
    for (size_t i = 0; i < halves.size(); ++i)
        see(m_operations[i], halves[i]->receive(), "half a request");
}

// Bodies that are announced take all memory that there is for them.
void ServeOpenApi::askAFullHost()
{
    const ServedHost host({"--body-bytes", "10000"});
    std::vector<std::unique_ptr<HttpConnection>> announced;
    for (int i = 0; i < 16; ++i) {
        announced.push_back(std::make_unique<HttpConnection>(host.port()));
        announced.back()->send(
            host.text("POST", "/v1/batch",
                      {{"Content-Type", "application/json"}, {"Content-Length", "10000"}}));
    }
    EXPECT_TRUE(eventually([&] { return host.batch(Json::array()).status == 503; }));
    provoke("a full host", [&](const auto& o) { return ask(host, o); });
}

void ServeOpenApi::askStoppedProcesses()
{
    // A worker must have started in that time, too.
    const ServedHost hasty({"--workers", "1", "--request-seconds", sanitized ? "1.5" : "0.2"});
    const ServedHost host({"--workers", "1"});
    for (const Operation& operation : m_operations)
        for (const bool isKilled : {false, true})
            EXPECT_TRUE(eventually([&] {
                const HttpAnswer answer = askStopped(isKilled ? host : hasty, operation, isKilled);
                see(operation, answer, "a process that hangs or dies");
                // Others need no process, or tell of it in a part of the answer.
                return !operation.isPost() || operation.isBatch() ||
                       answer.status == (isKilled ? 502 : 504);
            })) << operation.path;
}

TEST_F(ServeOpenApi, HasTheStatusesThatComeAndNoOthers)
{
    sendAllKinds();
    sendBadHeads();
    askHostsWithLimits();
    askAFullHost();
    askStoppedProcesses();

    // There it stands for an answer for which there was no memory.
    const std::map<std::string, std::set<int>> exceptions = {{"/v1/batch", {502}},
                                                             {"/readyz", {502}}};
    for (const auto& [path, statuses] : unseen()) {
        const auto exception = exceptions.find(path);
        EXPECT_EQ(exception == exceptions.end() ? std::set<int>() : exception->second, statuses)
            << path << " has what did not come";
    }
}

}  // namespace
