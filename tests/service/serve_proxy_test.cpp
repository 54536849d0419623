// Behind a proxy: whose requests they are, by what number they are found, and what strangers
// try to make of that.
#include <gtest/gtest.h>

#include <memory>

#include "support/served_host.h"

namespace {

using namespace std::string_literals;
using support::eventually;
using support::HttpAnswer;
using support::HttpConnection;
using support::HttpHeaders;
using support::Json;
using support::ServedHost;

constexpr const char* forwardedFor = "X-Forwarded-For";
constexpr const char* requestId = "X-Request-Id";

// The address by which the log knows who sent this.
std::string loggedAddress(const ServedHost& host, const HttpHeaders& headers)
{
    const HttpAnswer answer = host.ask("GET", "/livez", headers);
    EXPECT_EQ(200, answer.status) << answer.body;
    return host.logged(answer.headers.at("x-request-id")).value("address", "");
}

bool isOwnId(const std::string& id)
{
    return id.size() == 16 && id.find_first_not_of("0123456789abcdef") == std::string::npos;
}

class ServeProxy : public testing::Test {
protected:
    void SetUp() override { NEEDS_WORKERS(); }
};

TEST_F(ServeProxy, TellsTheClient)
{
    const ServedHost host({"--trusted-proxy", "127.0.0.1", "--trusted-proxy", "10.0.0.0/8"});
    EXPECT_EQ("192.0.2.1", loggedAddress(host, {{forwardedFor, "192.0.2.1"}}));
    EXPECT_EQ("192.0.2.1", loggedAddress(host, {{"x-forwarded-FOR", "192.0.2.1 , 10.1.1.1"}}));
    EXPECT_EQ("2001:db8::1", loggedAddress(host, {{forwardedFor, "[2001:DB8::1]:4711"}}));
    EXPECT_EQ("192.0.2.1", loggedAddress(host, {{forwardedFor, "::ffff:192.0.2.1"}}));
    EXPECT_EQ("127.0.0.1", loggedAddress(host, {}));
    // Given several times it is one list.
    EXPECT_EQ("192.0.2.1", loggedAddress(host, {{forwardedFor, "203.0.113.9"},
                                                {forwardedFor, "192.0.2.1"},
                                                {forwardedFor, "10.1.1.1"}}));
    // Each request of a connection is somebody's.
    HttpConnection connection(host.port());
    for (const std::string& address : {"192.0.2.1"s, "192.0.2.2"s, "127.0.0.1"s}) {
        HttpHeaders headers;
        if (address != "127.0.0.1")
            headers.emplace_back(forwardedFor, address);
        connection.send(host.text("GET", "/livez", headers));
        const std::string id = connection.receive().headers.at("x-request-id");
        EXPECT_EQ(address, host.logged(id).value("address", ""));
    }
}

TEST_F(ServeProxy, IsNotFooledByWhatAClientWrote)
{
    const ServedHost host({"--trusted-proxy", "127.0.0.1", "--trusted-proxy", "10.0.0.0/8"});
    const std::vector<std::pair<std::string, HttpHeaders>> rows = {
        {"192.0.2.1", {{forwardedFor, "203.0.113.9, 192.0.2.1"}}},
        {"192.0.2.1", {{forwardedFor, "10.9.9.9, 192.0.2.1, 10.1.1.1"}}},
        {"192.0.2.1", {{forwardedFor, "203.0.113.9"}, {forwardedFor, "192.0.2.1"}}},
        {"192.0.2.1", {{forwardedFor, ","}, {forwardedFor, ",192.0.2.1"}}},
        {"192.0.2.1", {{forwardedFor, "127.0.0.1"}, {forwardedFor, "192.0.2.1"}}},
        {"192.0.2.1", {{forwardedFor, std::string(9000, 'x') + ", 192.0.2.1"}}},
        {"192.0.2.1", {{forwardedFor, "\"203.0.113.9, 192.0.2.1"}}},
        {"192.0.2.1", {{forwardedFor, "\xff\xfe, 192.0.2.1"}}},
        // What is no address says nothing, and what is before it neither.
        {"127.0.0.1", {{forwardedFor, "203.0.113.9, unknown"}}},
        {"127.0.0.1", {{forwardedFor, "203.0.113.9,"}}},
        {"127.0.0.1", {{forwardedFor, "203.0.113.9 10.1.1.1"}}},
        {"127.0.0.1", {{forwardedFor, "203.0.113.9\t"}, {forwardedFor, "-"}}},
        {"10.1.1.1", {{forwardedFor, "203.0.113.9, , 10.1.1.1"}}},
        {"10.1.1.1", {{forwardedFor, "203.0.113.9, \"10.2.2.2\", 10.1.1.1"}}},
        // Other headers of the kind say nothing at all.
        {"127.0.0.1", {{"Forwarded", "for=203.0.113.9"}}},
        {"127.0.0.1", {{"X-Real-IP", "203.0.113.9"}, {"X-Client-IP", "203.0.113.9"}}},
        {"127.0.0.1", {{"X_Forwarded_For", "203.0.113.9"}}},
        {"192.0.2.1", {{"X-Forwarded", "203.0.113.9"}, {forwardedFor, "192.0.2.1"}}},
    };
    for (const auto& [address, headers] : rows)
        EXPECT_EQ(address, loggedAddress(host, headers)) << headers.front().second.substr(0, 100);
    // As many headers and bytes as there may be, and no more.
    HttpHeaders many(60, {forwardedFor, "203.0.113.9"});
    many.emplace_back(forwardedFor, "192.0.2.1");
    EXPECT_EQ("192.0.2.1", loggedAddress(host, many));
    many.insert(many.end(), 10, {forwardedFor, "203.0.113.9"});
    EXPECT_EQ(431, host.ask("GET", "/livez", many).status);
    EXPECT_EQ(431, host.ask("GET", "/livez", {{forwardedFor, std::string(17000, '1')}}).status);
    // Heads that hide something are refused as ever.
    for (const std::string& hidden : {"192.0.2.1\0, 10.1.1.1"s, "192.0.2.1\r\n 10.1.1.1"s,
                                      "192.0.2.1\n10.1.1.1"s, "192.0.2.1\x01"s})
        EXPECT_EQ(400, host.ask("GET", "/livez", {{forwardedFor, hidden}}).status) << hidden;
}

TEST_F(ServeProxy, IsBelievedOnlyIfItIsTrusted)
{
    const ServedHost none;
    const ServedHost others({"--trusted-proxy", "10.0.0.0/8", "--trusted-proxy", "::1",
                             "--trusted-proxy", "unix", "--trusted-proxy", "127.0.0.2/31"});
    for (const ServedHost* host : {&none, &others}) {
        for (const char* address : {"192.0.2.1", "10.0.0.1", "::1", "unix", "127.0.0.2", "garbage"})
            EXPECT_EQ("127.0.0.1", loggedAddress(*host, {{forwardedFor, address}})) << address;
        for (const HttpHeaders& headers :
             {HttpHeaders{{requestId, "mine"}}, HttpHeaders{{requestId, "a"}, {requestId, "b"}},
              HttpHeaders{{forwardedFor, "10.0.0.1"}, {requestId, "mine"}}}) {
            const HttpAnswer answer = host->ask("GET", "/livez", headers);
            EXPECT_EQ(200, answer.status);
            EXPECT_TRUE(isOwnId(answer.headers.at("x-request-id")));
        }
    }
}

TEST_F(ServeProxy, TellsTheNumber)
{
    const ServedHost host({"--trusted-proxy", "127.0.0.1"});
    for (const std::string& id :
         {"a"s, "0"s, "8d3b2f6e-7c1a-4b69-9d4f-0a1b2c3d4e5f"s, "A_b.c-9"s, std::string(64, 'x')}) {
        const HttpAnswer answer = host.ask("GET", "/v1/status", {{requestId, id}});
        EXPECT_EQ(200, answer.status);
        EXPECT_EQ(id, answer.headers.at("x-request-id"));
        EXPECT_EQ("/v1/status", host.logged(id).value("route", ""));
    }
    // Also where the request is refused.
    const HttpAnswer refused = host.ask("GET", "/v1/nothing", {{"x-request-id", "refused"}});
    EXPECT_EQ(404, refused.status);
    EXPECT_EQ("refused", refused.headers.at("x-request-id"));
    EXPECT_EQ(404, host.logged("refused").value("status", 0));
}

TEST_F(ServeProxy, TellsNoNumberThatIsOfAnotherForm)
{
    const ServedHost host({"--trusted-proxy", "127.0.0.1"});
    for (const std::string& id :
         {" "s, std::string(65, 'x'), std::string(10000, 'x'), "a b"s, "a,b"s, "a\tb"s, "a\"b"s,
          "a\\b"s, "{}"s, "<script>"s, "a/b"s, "a:b"s, "a=b"s, "\xc3\xa4"s, "\xff"s, "a;b"s,
          "%0d%0aX: y"s, "${x}"s}) {
        const HttpAnswer answer = host.ask("GET", "/livez", {{requestId, id}});
        EXPECT_EQ(200, answer.status) << id;
        EXPECT_TRUE(isOwnId(answer.headers.at("x-request-id"))) << id;
    }
    // Two of them are none.
    const HttpAnswer twice = host.ask("GET", "/livez", {{requestId, "a"}, {requestId, "a"}});
    EXPECT_EQ(200, twice.status);
    EXPECT_TRUE(isOwnId(twice.headers.at("x-request-id")));
    for (const std::string& id : {"a\0b"s, "a\nSet-Cookie: x=y"s, "a\r\n b"s, "a\x7f"s}) {
        const HttpAnswer answer = host.ask("GET", "/livez", {{requestId, id}});
        EXPECT_EQ(400, answer.status) << id;
        EXPECT_TRUE(isOwnId(answer.headers.at("x-request-id")));
        EXPECT_EQ(0U, answer.headers.count("set-cookie"));
    }
}

int statusOf(const ServedHost& host, const std::string& client, const std::string& forged = "")
{
    return host.ask("GET", "/livez", {{forwardedFor, forged + client}}).status;
}

TEST_F(ServeProxy, HasARateForEachClient)
{
    for (const char* threads : {"1", "3"}) {
        const ServedHost host({"--trusted-proxy", "127.0.0.1", "--rate", "0.001", "--burst", "3",
                               "--front-threads", threads});
        for (const char* client : {"192.0.2.1", "192.0.2.2", "2001:db8::1", "127.0.0.5"}) {
            for (int i = 0; i < 3; ++i)
                EXPECT_EQ(200, statusOf(host, client));
            EXPECT_EQ(429, statusOf(host, client)) << client;
        }
        // No more for who claims to be another one, or is another one of his network.
        for (const char* forged : {"203.0.113.1, ", "127.0.0.1, ", ",", "unknown, "})
            EXPECT_EQ(429, statusOf(host, "192.0.2.1", forged)) << forged;
        EXPECT_EQ(429, statusOf(host, "192.0.2.1:1234"));
        EXPECT_EQ(429, statusOf(host, "::ffff:192.0.2.1"));
        EXPECT_EQ(429, statusOf(host, "2001:db8::2:3:4:5"));
        EXPECT_EQ(200, statusOf(host, "2001:db8:0:1::1"));
        // What tells nobody is the proxy's own, together.
        for (const char* nobody : {"unknown", "-", "192.0.2.300"})
            EXPECT_EQ(200, statusOf(host, nobody));
        EXPECT_EQ(429, statusOf(host, "garbage"));
        EXPECT_EQ(429, host.ask("GET", "/livez").status);
        EXPECT_EQ(200, statusOf(host, "192.0.2.3"));
    }
}

TEST_F(ServeProxy, HasAsManyConnectionsAsItNeeds)
{
    const auto open = [](const ServedHost& host, size_t count) {
        std::vector<std::unique_ptr<HttpConnection>> connections;
        std::vector<int> statuses;
        for (size_t i = 0; i < count; ++i) {
            connections.push_back(std::make_unique<HttpConnection>(host.port()));
            connections.back()->send(host.text("GET", "/livez", {{forwardedFor, "192.0.2.1"}}));
            statuses.push_back(connections.back()->receive().status);
        }
        return statuses;
    };
    const ServedHost trusting({"--trusted-proxy", "127.0.0.1", "--connections-per-address", "2"});
    EXPECT_EQ(std::vector<int>(12, 200), open(trusting, 12));
    EXPECT_TRUE(eventually([&] { return trusting.metric("corvane_connections") == 1; }));
    const ServedHost strict({"--trusted-proxy", "10.0.0.0/8", "--connections-per-address", "2"});
    EXPECT_EQ((std::vector<int>{200, 200, 429}), open(strict, 3));
}

TEST_F(ServeProxy, IsWrittenAsAnAddressOrANetwork)
{
    const auto expect = [](const std::string& proxy, const std::string& text) {
        const auto [code, errors] = support::runHost(
            {"serve", "--no-auth", "--listen", "127.0.0.1:0", "--trusted-proxy", proxy});
        EXPECT_EQ(2, code);
        EXPECT_EQ(0U, errors.find("corvane-host: --trusted-proxy " + text)) << errors;
    };
    expect("proxy.example", "takes an address, a network such as 10.0.0.0/8, or unix");
    expect("", "takes an address");
    expect("0.0.0.0/0", "0.0.0.0/0 would let every client choose its address");
}

}  // namespace
