// Hosts with names, as behind a balancer: whose a session is, and what comes to the wrong one.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <ostream>

#include "service/operation/nodes.h"
#include "support/served_host.h"

namespace {

using support::HttpAnswer;
using support::HttpHeaders;
using support::Json;
using support::ServedHost;

const std::string someRandom(32, 'A');
const std::string requests = "/v1/requests/";
const std::string freePath = requests + "QZaven_ke_free";

TEST(Nodes, AreNamedAsLabelsOfDns)
{
    for (const std::string& name : {std::string("a"), std::string("0"), std::string("corvane-0"),
                                    std::string("a--b"), std::string(63, 'z')})
        EXPECT_TRUE(isNodeName(name)) << name;
    for (const std::string& name :
         {std::string(), std::string(64, 'z'), std::string("A"), std::string("-a"),
          std::string("a-"), std::string("a.b"), std::string("a_b"), std::string("a b"),
          std::string("a\n"), std::string("a\0", 2), std::string("\xC3\xA4")})
        EXPECT_FALSE(isNodeName(name)) << name;
}

// At an end, within, and in the random text of a token.
TEST(Nodes, HaveSuchCharacters)
{
    for (int i = 0; i < 256; ++i) {
        const char c = static_cast<char>(i);
        const bool isDigit = c >= '0' && c <= '9';
        const bool isSmall = isDigit || (c >= 'a' && c <= 'z');
        EXPECT_EQ(isSmall, isNodeName(std::string(1, c))) << i;
        EXPECT_EQ(isSmall, isNodeName(std::string("a") + c)) << i;
        EXPECT_EQ(isSmall, isNodeName(c + std::string("a"))) << i;
        EXPECT_EQ(isSmall || c == '-', isNodeName(std::string("a") + c + "b")) << i;
        const bool isRandom = isSmall || (c >= 'A' && c <= 'Z') || c == '-' || c == '_';
        const std::string random = someRandom.substr(1) + c;
        EXPECT_EQ(isRandom, nodeOfSession("ke_" + random).has_value()) << i;
        EXPECT_EQ(isRandom, nodeOfSession("ke_a." + random).has_value()) << i;
    }
}

TEST(Nodes, StandInTokens)
{
    for (const std::string node : {"", "a", "corvane-0"}) {
        const std::string token = makeSessionToken(node);
        EXPECT_EQ(node, nodeOfSession(token).value_or("none")) << token;
        EXPECT_NE(token, makeSessionToken(node));
    }
    EXPECT_EQ(3U + 32U, makeSessionToken("").size());
}

TEST(Nodes, AreNotReadFromWhatIsNoToken)
{
    for (const std::string& text :
         {std::string(), std::string("ke_"), std::string("1"), someRandom, "KE_" + someRandom,
          "ke_" + someRandom + "A", "ke_" + someRandom.substr(1), "ke_." + someRandom,
          "ke_A." + someRandom, "ke_a." + someRandom + "=", "ke_a.b." + someRandom,
          "ke_a./" + someRandom.substr(1), "ke_../../a." + someRandom, "ke_a-." + someRandom,
          "ke_a.." + someRandom.substr(1), "ke_" + std::string(64, 'a') + "." + someRandom,
          "ke_a." + someRandom + "\n", " ke_a." + someRandom})
        EXPECT_FALSE(nodeOfSession(text)) << text;
}

// Two hosts, a and b, with a session each.
class ServeNode : public testing::Test {
protected:
    struct Node {
        std::unique_ptr<ServedHost> host;
        std::string session;
    };

    static void SetUpTestSuite()
    {
        if (support::emulated)
            return;
        for (const std::string name : {"a", "b"}) {
            Node& node = m_nodes[name];
            node.host = std::make_unique<ServedHost>(
                ServedHost::Options{"--node", name, "--workers", "1", "--rate", "0"});
            node.session = node.host->request("QZaven_ke_new").result("Data");
        }
    }
    static void TearDownTestSuite() { m_nodes.clear(); }
    void SetUp() override { NEEDS_WORKERS(); }

    static const ServedHost& host(const std::string& node) { return *m_nodes.at(node).host; }
    static const std::string& session(const std::string& node) { return m_nodes.at(node).session; }

    static HttpAnswer post(const std::string& path, HttpHeaders headers, const Json& body,
                           const std::string& node = "a")
    {
        headers.emplace_back("Content-Type", "application/json");
        return host(node).ask("POST", path, headers, body.dump());
    }
    // How many sessions a host has.
    static int sessions(const std::string& node) { return host(node).status()["sessions"]; }
    static double served(const std::string& node)
    {
        return host(node).status()["workers"][0]["requests"];
    }

private:
    inline static std::map<std::string, Node> m_nodes;
};

TEST_F(ServeNode, HasItsNameInTokensAndAnswers)
{
    EXPECT_EQ("a", nodeOfSession(session("a")));
    EXPECT_EQ("b", nodeOfSession(session("b")));
    EXPECT_EQ("b", host("b").status()["node"]);
    for (const char* path : {"/", "/livez", "/readyz", "/metrics", "/v1/status", "/nothing"})
        EXPECT_EQ("a", host("a").get(path).headers["x-corvane-node"]) << path;
    EXPECT_EQ(
        "a", host("a").ask("GET", "/v1/status", {{"Authorization", ""}}).headers["x-corvane-node"]);
}

// Also where the front ends a connection with a refusal of its own.
TEST(ServeNodeAlone, HasItsNameInRefusalsThatEndAConnection)
{
    NEEDS_WORKERS();
    const ServedHost host({"--node", "a", "--read-seconds", "0.2"});
    const HttpAnswer late = host.raw("GET /livez HTTP/1.1\r\nHost: localhost\r\n");
    EXPECT_EQ(408, late.status);
    EXPECT_EQ("a", late.headers.at("x-corvane-node"));
}

TEST_F(ServeNode, ServesItsOwnSessionsWithTheHeadersAndWithout)
{
    const std::string path = requests + "QZaven_ke_client_hello";
    const Json body = {{"strKe", session("a")}};
    for (const HttpHeaders& headers :
         {HttpHeaders{},
          {{"X-Corvane-Session", session("a")}},
          {{"X-Corvane-Node", "a"}},
          {{"x-corvane-node", " a "}, {"x-corvane-session", session("a")}},
          {{"X-Corvane-Node", ""}, {"X-Corvane-Session", ""}}})
        EXPECT_EQ(200, post(path, headers, body).status);
    // What belongs to no session may be sent with them as well.
    EXPECT_EQ(200, post(requests + "QZaVen_GetVersion", {{"X-Corvane-Session", session("a")}},
                        Json::object())
                       .status);
}

TEST_F(ServeNode, TellsWhichNodeIsTheRightOne)
{
    const HttpAnswer answer = post(freePath, {}, {{"strKe", session("b")}});
    EXPECT_EQ(421, answer.status);
    const Json error = answer.json()["error"];
    EXPECT_EQ("wrong_node", error["code"]);
    EXPECT_EQ("wrong_node", error["reason"]);
    EXPECT_EQ("strKe", error["field"]);
    EXPECT_EQ(Json({{"node", "b"}}), error["values"]);
    EXPECT_EQ("a", answer.headers.at("x-corvane-node"));
}

TEST_F(ServeNode, CarriesOutNothingOfWhatIsForAnother)
{
    const double servedBefore = served("a");
    const int sessionsBefore = sessions("a");
    const Json getVersion = {{"name", "QZaVen_GetVersion"}};
    const Json batch = {
        {"requests",
         {getVersion, {{"name", "QZaven_ke_free"}, {"parameters", {{"strKe", session("b")}}}}}}};
    const HttpHeaders toB = {{"X-Corvane-Node", "b"}};
    for (const HttpAnswer& answer :
         {post(requests + "QZaven_ke_new", toB, Json::object()),
          post("/v1/batch", toB, {{"requests", {getVersion}}}), post("/v1/batch", {}, batch),
          post("/v1/peer/root", toB, Json::object()), host("a").ask("GET", "/v1/status", toB)})
        EXPECT_EQ(421, answer.status) << answer.body;
    EXPECT_EQ(servedBefore, served("a"));
    EXPECT_EQ(sessionsBefore, sessions("a"));
    EXPECT_EQ("requests[1].parameters.strKe",
              post("/v1/batch", {}, batch).json()["error"]["field"]);
}

TEST_F(ServeNode, KnowsItsFormerSessions)
{
    const std::string token = host("a").request("QZaven_ke_new").result("Data");
    EXPECT_EQ(200, host("a").request("QZaven_ke_free", {{"strKe", token}}).status);
    const HttpAnswer again =
        post(freePath, {{"X-Corvane-Session", token}}, Json({{"strKe", token}}));
    EXPECT_EQ(410, again.status);
    EXPECT_EQ("session_freed", again.json()["error"]["reason"]);
}

TEST_F(ServeNode, CountsWhatWasForAnother)
{
    const std::string row = "corvane_requests_total{name=\"QZaven_ke_free\",code=\"wrong_node\"}";
    const double before = std::max(0.0, host("a").metric(row));
    EXPECT_EQ(421, post(freePath, {}, {{"strKe", session("b")}}).status);
    EXPECT_EQ(before + 1, host("a").metric(row));
}

TEST(ServeNodeAlone, HasNoNameUnlessItIsGivenOne)
{
    NEEDS_WORKERS();
    const ServedHost host({"--workers", "1"});
    const HttpAnswer made = host.request("QZaven_ke_new");
    EXPECT_EQ(0U, made.headers.count("x-corvane-node"));
    EXPECT_EQ("", nodeOfSession(made.result("Data")));
    EXPECT_FALSE(host.status().contains("node"));
    // The headers mean nothing to it, whatever they hold.
    for (const HttpHeaders& headers : {HttpHeaders{{"X-Corvane-Node", "b"}},
                                       {{"X-Corvane-Session", "ke_b." + someRandom}},
                                       {{"X-Corvane-Node", "../.."}, {"X-Corvane-Session", "1"}}})
        EXPECT_EQ(200, host.ask("GET", "/v1/status", headers).status);
    EXPECT_EQ(410, host.request("QZaven_ke_free", {{"strKe", "ke_b." + someRandom}}).status);
}

TEST(ServeNodeAlone, IsNotStartedWithAnotherName)
{
    for (const std::string& name : {std::string("A"), std::string("a.b"), std::string("-a"),
                                    std::string("a b"), std::string(64, 'a')}) {
        const auto [exitCode, errors] = support::runHost({"serve", "--node", name});
        EXPECT_EQ(2, exitCode) << name;
        EXPECT_NE(std::string::npos, errors.find("--node takes")) << errors;
    }
}

// ---- Clients with bad intent.

struct Attack {
    const char* name;
    int status;
    const char* code;  // "": the HTTP library's own answer
    HttpHeaders headers;
    std::string token = "";  // in strKe; %a and %b stand for the session of a and of b
};

void PrintTo(const Attack& attack, std::ostream* out)
{
    *out << attack.name;
}

const Attack attacks[] = {
    // ---- Forged names of nodes.
    {"NodeThatDoesNotExist", 421, "wrong_node", {{"X-Corvane-Node", "z"}}},
    {"NodeWithCapitals", 400, "malformed", {{"X-Corvane-Node", "A"}}},
    {"NodeThatIsAPath", 400, "malformed", {{"X-Corvane-Node", "../a"}}},
    {"NodeThatIsAList", 400, "malformed", {{"X-Corvane-Node", "a, b"}}},
    {"NodeThatIsAPattern", 400, "malformed", {{"X-Corvane-Node", "*"}}},
    {"NodeWithControl", 400, "malformed", {{"X-Corvane-Node", "a\x01"}}},
    {"NodeInUtf8", 400, "malformed", {{"X-Corvane-Node", "\xC3\xA4"}}},
    {"LongNode", 400, "malformed", {{"X-Corvane-Node", std::string(64, 'a')}}},
    {"VeryLongNode", 400, "malformed", {{"X-Corvane-Node", std::string(15000, 'a')}}},
    {"TwoNodes", 400, "malformed", {{"X-Corvane-Node", "a"}, {"X-Corvane-Node", "b"}}},
    {"TheSameNodeTwice", 400, "malformed", {{"X-Corvane-Node", "a"}, {"x-corvane-node", "a"}}},

    // ---- Headers that another reader would end elsewhere.
    {"NodeThatIsFolded", 400, "malformed", {{"X-Corvane-Node", "a\r\n b"}}},
    {"NodeWithALineFeed", 400, "malformed", {{"X-Corvane-Node", "a\nX-Corvane-Node: b"}}},
    {"NodeWithANul", 400, "malformed", {{"X-Corvane-Node", std::string("a\0b", 3)}}},
    {"SessionWithALineFeed", 400, "malformed", {{"X-Corvane-Session", "%a\nHost: z"}}, "%a"},
    {"NodeWithABlankBeforeTheColon", 400, "malformed", {{"X-Corvane-Node ", "b"}}},

    // ---- Tokens.
    {"SessionThatIsNone", 400, "malformed", {{"X-Corvane-Session", "1"}}},
    {"SessionThatIsCut", 400, "malformed", {{"X-Corvane-Session", "ke_a.AAAA"}}},
    {"SessionThatIsTooLong", 400, "malformed", {{"X-Corvane-Session", "%aA"}}, "%a"},
    {"SessionOfAPath", 400, "malformed", {{"X-Corvane-Session", "ke_../a." + someRandom}}},
    {"TwoSessions", 400, "malformed", {{"X-Corvane-Session", "%a"}, {"X-Corvane-Session", "%b"}}},
    {"SessionOfAnotherNode", 421, "wrong_node", {{"X-Corvane-Session", "%b"}}, "%b"},
    {"SessionOfAnotherNodeInTheBodyAlone", 421, "wrong_node", {}, "%b"},
    {"SessionOfAnotherNodeInTheHeaderAlone", 421, "wrong_node", {{"X-Corvane-Session", "%b"}}},
    {"SessionOfANodeThatDoesNotExist", 421, "wrong_node", {}, "ke_z." + someRandom},
    {"OwnSessionUnderAnothersName", 400, "malformed", {{"X-Corvane-Session", "%b"}}, "%a"},
    {"AnothersSessionUnderItsOwnName", 400, "malformed", {{"X-Corvane-Session", "%a"}}, "%b"},
    {"OwnSessionForAnotherNode", 400, "malformed", {{"X-Corvane-Node", "b"}}, "%a"},
    {"AnothersSessionForThisNode", 400, "malformed", {{"X-Corvane-Node", "a"}}, "%b"},
    {"HeadersThatContradictEachOther",
     400,
     "malformed",
     {{"X-Corvane-Node", "a"}, {"X-Corvane-Session", "%b"}},
     "%b"},
    {"GuessedSession", 410, "session_gone", {}, "ke_a." + someRandom},
    {"GuessedSessionInBoth",
     410,
     "session_gone",
     {{"X-Corvane-Session", "ke_a." + someRandom}},
     "ke_a." + someRandom},
    {"SessionOfAHostWithoutName", 410, "session_gone", {}, "ke_" + someRandom},
    {"NodeThatIsNoneInATokenOfTheBody", 410, "session_gone", {}, "ke_../../etc." + someRandom},
    {"OwnSessionWithCapitals", 410, "session_gone", {}, "ke_A." + someRandom},
};

class ServeNodeAttack : public ServeNode, public testing::WithParamInterface<Attack> {
protected:
    static std::string filled(std::string text)
    {
        for (const std::string node : {"a", "b"})
            if (const size_t at = text.find("%" + node); at != std::string::npos)
                text.replace(at, 2, session(node));
        return text;
    }
};

TEST_P(ServeNodeAttack, IsRefusedAndChangesNothing)
{
    const Attack& attack = GetParam();
    const double servedBefore = served("a");
    HttpHeaders headers = attack.headers;
    for (auto& [name, value] : headers)
        value = filled(value);
    const Json body =
        attack.token.empty() ? Json::object() : Json({{"strKe", filled(attack.token)}});

    const HttpAnswer answer = post(freePath, headers, body);
    EXPECT_EQ(attack.status, answer.status) << answer.body;
    EXPECT_EQ(attack.code, answer.code());
    EXPECT_EQ("a", answer.headers.at("x-corvane-node"));
    EXPECT_EQ(servedBefore, served("a"));
    // What is quoted are names of nodes, never tokens.
    EXPECT_EQ(std::string::npos, answer.body.find(someRandom)) << answer.body;
    EXPECT_EQ(std::string::npos, answer.body.find(session("a"))) << answer.body;
    EXPECT_EQ(std::string::npos, answer.body.find(session("b"))) << answer.body;
    // Both sessions live.
    for (const std::string node : {"a", "b"})
        EXPECT_EQ(200,
                  post(requests + "QZaven_ke_client_hello", {{"X-Corvane-Session", session(node)}},
                       {{"strKe", session(node)}}, node)
                      .status);
}

INSTANTIATE_TEST_SUITE_P(All, ServeNodeAttack, testing::ValuesIn(attacks),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
