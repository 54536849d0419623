// The host as a service, with the development engine.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <thread>

#include "peer/certificates.h"
#include "support/base64_text.h"
#include "support/request_rows.h"
#include "support/served_host.h"

namespace fs = std::filesystem;

namespace {

using support::eventually;
using support::fromUrlBase64;
using support::HttpAnswer;
using support::HttpConnection;
using support::Json;
using support::ServedHost;
using support::toUrlBase64;

const Json hmac = {{"strHashAlg", 4},
                   {"strKey", {{"text", "Jefe"}}},
                   {"strdata", {{"base64", "d2hhdCBkbyB5YSB3YW50IGZvciBub3RoaW5nPw"}}}};
// RFC 4231, section 4.3.
const std::string hmacAnswer = "W9zBRr9gdU5qBCQmCJV1x1oAPwidJzmDnexYuWTsOEM=";

class Serve : public support::ServedSuite {};

// ---- Requests.

TEST_F(Serve, AnswersAKnownRequestInEveryForm)
{
    const Json results = {{"Data", hmacAnswer}, {"errorCode", "0"}};
    const HttpAnswer json = host().request(
        "QZaven_crypto_hmac",
        {{"strHashAlg", "4"},
         {"strKey", "SmVmZQ=="},
         {"strdata", {{"hex", "7768617420646f2079612077616e7420666f72206e6f7468696e673f"}}}});
    EXPECT_EQ(results, json.json()["results"]) << json.body;

    const std::string path = "/v1/requests/QZaven_crypto_hmac";
    const HttpAnswer form = host().ask(
        "POST", path, {{"Content-Type", "application/x-www-form-urlencoded"}},
        "strHashAlg=4&strKey=SmVmZQ%3D%3D&strdata=d2hhdCBkbyB5YSB3YW50IGZvciBub3RoaW5nPw");
    EXPECT_EQ(results, form.json()["results"]) << form.body;

    const HttpAnswer multipart =
        host().ask("POST", path, {{"Content-Type", "multipart/form-data; boundary=\"x y\""}},
                   "--x y\r\nContent-Disposition: form-data; name=\"strHashAlg\"\r\n\r\n4\r\n"
                   "--x y\r\nContent-Disposition: form-data; name=\"strKey\"\r\n\r\nSmVmZQ\r\n"
                   "--x y\r\nContent-Disposition: form-data; name=\"strdata\"; filename=\"f\"\r\n"
                   "Content-Type: application/octet-stream\r\n\r\nwhat do ya want for "
                   "nothing?\r\n--x y--\r\n");
    EXPECT_EQ(results, multipart.json()["results"]) << multipart.body;

    const std::string body = hmac.dump();
    const HttpAnswer chunked = host().raw(
        host().text("POST", path,
                    {{"Content-Type", "application/json"}, {"Transfer-Encoding", "chunked"}}) +
        "5\r\n" + body.substr(0, 5) + "\r\n" +
        [&] {
            char size[16];
            snprintf(size, sizeof size, "%zx", body.size() - 5);
            return std::string(size);
        }() +
        "\r\n" + body.substr(5) + "\r\n0\r\n\r\n");
    EXPECT_EQ(results, chunked.json()["results"]) << chunked.body;
}

TEST_F(Serve, ExplainsARefusalOfThePlugin)
{
    const HttpAnswer answer = host().request("QZaven_crypto_hmac", {{"strHashAlg", 4}});
    EXPECT_EQ(200, answer.status);
    const Json json = answer.json();
    EXPECT_EQ("-20001", json["error"]["code"]);
    EXPECT_EQ("plug-in", json["error"]["source"]);
    EXPECT_NE("", json["error"]["text"]);
    EXPECT_EQ("-20001", json["results"]["errorCode"]);
    EXPECT_EQ(2U, json["warnings"].size());
    EXPECT_EQ("strKey", json["warnings"][0]["field"]);
    EXPECT_EQ("missing", json["warnings"][0]["code"]);
    EXPECT_EQ((Json{{"need", "required"}}), json["warnings"][0]["values"]);
}

TEST_F(Serve, WarnsOfUnknownParameters)
{
    Json given = hmac;
    given["strWhatever"] = "x";
    const Json json = host().request("QZaven_crypto_hmac", given).json();
    EXPECT_TRUE(json["error"].is_null());
    ASSERT_EQ(1U, json["warnings"].size());
    EXPECT_EQ("strWhatever", json["warnings"][0]["field"]);
}

TEST_F(Serve, KeepsConnectionsForFurtherRequests)
{
    HttpConnection connection(host().port());
    const std::string request = host().text("POST", "/v1/requests/QZaven_crypto_hmac",
                                            {{"Content-Type", "application/json"}}, hmac.dump());
    // Pipelined, too.
    connection.send(request + request + request);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(hmacAnswer, connection.receive().result("Data"));
    connection.send(request);
    const HttpAnswer last = connection.receive();
    EXPECT_EQ(hmacAnswer, last.result("Data"));
    EXPECT_EQ("no-store", last.headers.at("cache-control"));
    EXPECT_EQ("application/json", last.headers.at("content-type"));
    EXPECT_EQ(16U, last.headers.at("x-request-id").size());
}

TEST_F(Serve, AnswersABatchInOrder)
{
    Json requests = Json::array();
    for (int i = 0; i < 256; ++i)
        requests.push_back(
            {{"name", "QZaven_crypto_kdf"},
             {"parameters", {{"HashType", 4}, {"srcdata", "s"}, {"OutLen", i + 1}}}});
    const Json answers = host().batch(requests).json()["answers"];
    ASSERT_EQ(256U, answers.size());
    for (size_t i = 0; i < 256; ++i)
        EXPECT_EQ(i + 1, fromUrlBase64(answers[i]["results"]["Data"]).size());

    // In one session, too: what comes after its end is told so.
    const std::string token = host().request("QZaven_ke_new").result("Data");
    const Json one = {{"name", "QZaven_ke_client_hello"}, {"parameters", {{"strKe", token}}}};
    const Json end = {{"name", "QZaven_ke_free"}, {"parameters", {{"strKe", token}}}};
    const Json ordered =
        host().batch({one, one, end, one, {{"name", "QZaVen_GetVersion"}}}).json()["answers"];
    EXPECT_TRUE(ordered[0]["error"].is_null() || ordered[0]["error"]["source"] != "host");
    EXPECT_TRUE(ordered[2]["error"].is_null());
    EXPECT_EQ("session_gone", ordered[3]["error"]["code"]);
    EXPECT_EQ("session_freed", ordered[3]["error"]["reason"]);
    EXPECT_EQ("strKe", ordered[3]["error"]["field"]);
    EXPECT_TRUE(ordered[4]["error"].is_null());
}

TEST_F(Serve, SendsNothingOfABatchThatIsNotWhole)
{
    const double before =
        host().metric("corvane_requests_total{name=\"QZaven_crypto_hmac\",code=\"0\"}");
    const HttpAnswer answer = host().batch(
        {{{"name", "QZaven_crypto_hmac"}, {"parameters", hmac}},
         {{"name", "QZaven_crypto_hmac"}, {"parameters", {{"strKey", {{"hex", "0g"}}}}}}});
    EXPECT_EQ(400, answer.status);
    EXPECT_EQ("bad_encoding", answer.code());
    EXPECT_EQ("requests[1].parameters.strKey", answer.json()["error"]["field"]);
    EXPECT_EQ(before,
              host().metric("corvane_requests_total{name=\"QZaven_crypto_hmac\",code=\"0\"}"));
}

// ---- Sessions.

TEST(ServeSessions, AreSpreadLimitedAndFreedWhenIdle)
{
    NEEDS_WORKERS();
    ServedHost host({"--sessions", "2", "--session-seconds", "0.4"});
    host.workers();
    std::vector<std::string> tokens;
    for (int i = 0; i < 4; ++i)
        tokens.push_back(host.request("QZaven_ke_new").result("Data"));
    EXPECT_EQ(4U, std::set<std::string>(tokens.begin(), tokens.end()).size());
    EXPECT_EQ(0U, std::set<std::string>(tokens.begin(), tokens.end()).count(""));
    const HttpAnswer full = host.request("QZaven_ke_new");
    if (full.status != 200) {  // unless the first have expired already
        EXPECT_EQ("busy", full.code());
        EXPECT_EQ("1", full.headers.at("retry-after"));
    }
    EXPECT_TRUE(eventually([&] { return host.metric("corvane_sessions") == 0; }));
    const HttpAnswer gone = host.request("QZaven_ke_client_hello", {{"strKe", tokens[0]}});
    EXPECT_EQ(410, gone.status);
    EXPECT_NE(std::string::npos, gone.json()["error"]["text"].get<std::string>().find("idle"));
    EXPECT_NE("", host.request("QZaven_ke_new").result("Data"));
}

TEST(ServeSessions, FailedOneHasNoToken)
{
    NEEDS_WORKERS();
    ServedHost host({}, {"CORVANE_ENGINE_FAULTS=aven_ke_new:*=-30007"});
    const HttpAnswer answer = host.request("QZaven_ke_new");
    EXPECT_EQ("-30007", answer.code());
    EXPECT_EQ("engine", answer.json()["error"]["source"]);
    EXPECT_EQ("", answer.result("Data"));
    EXPECT_EQ(0, host.metric("corvane_sessions"));
    EXPECT_EQ(0, host.status()["workers"][0]["sessions"]);
}

// ---- Files of root certificates.

TEST(ServeFiles, AreBelowTheFolder)
{
    NEEDS_WORKERS();
    const Credential root = makeRoot(rootPlan(), KeyKind::Sm2);
    const support::TemporaryFolder temporary;
    const fs::path& folder = temporary.path();
    fs::create_directories(folder / "ca/inner");
    support::writeWhole(folder / "ca/inner/root.crt", toPem(root.certificate.get()));
    support::writeWhole(folder / "outside.crt", toPem(root.certificate.get()));
    fs::create_symlink("../outside.crt", folder / "ca/link.crt");
    mkfifo((folder / "ca/pipe").c_str(), 0600);

    ServedHost host({"--ca-folder", (folder / "ca").string()});
    const std::string token = host.request("QZaven_ke_new").result("Data");
    const auto set = [&](const std::string& file, const std::string& path) {
        Json given = {{"strKe", token}, {"strCa_file", file}};
        if (!path.empty())
            given["strCa_path"] = path;
        return host.request("QZaven_ke_set_root_certificate", given);
    };
    EXPECT_TRUE(set("inner/root.crt", "").json()["error"].is_null())
        << set("inner/root.crt", "").body;
    EXPECT_TRUE(set("inner/root.crt", "inner").json()["error"].is_null());
    for (const char* bad : {"/etc/passwd", "../outside.crt", "link.crt", "inner/../inner/root.crt",
                            "none.crt", "inner", "pipe", "inner/root.crt/", "/proc/self/environ"}) {
        const HttpAnswer answer = set(bad, "");
        EXPECT_EQ(400, answer.status) << bad;
        EXPECT_EQ("bad_path", answer.code()) << bad;
        EXPECT_EQ("strCa_file", answer.json()["error"]["field"]) << bad;
    }
    EXPECT_EQ("strCa_path", set("inner/root.crt", "..").json()["error"]["field"]);
    EXPECT_EQ("bad_path", set("inner/root.crt", "inner/root.crt").code());
}

TEST(ServeFiles, NeedAFolder)
{
    NEEDS_WORKERS();
    ServedHost host;
    const std::string token = host.request("QZaven_ke_new").result("Data");
    EXPECT_EQ("bad_path", host.request("QZaven_ke_set_root_certificate",
                                       {{"strKe", token}, {"strCa_file", "root.crt"}})
                              .code());
}

// ---- What operators see.

TEST_F(Serve, TellsItsState)
{
    const Json status = host().status();
    EXPECT_EQ(CORVANE_VERSION, status["version"]);
    EXPECT_EQ(2U, status["workers"].size());
    EXPECT_EQ(256, status["limits"]["batch"]);
    EXPECT_NE(std::string::npos, status["engine"].get<std::string>().find("development engine"));
    EXPECT_EQ(std::size(support::requestRows),
              host().get("/v1/catalogue").json()["requests"].size());
    EXPECT_EQ("3.1.0", host().get("/openapi.json").json()["openapi"]);
    for (const char* path : {"/livez", "/readyz"}) {
        const HttpAnswer answer = host().ask("GET", path, {{"Authorization", ""}});
        EXPECT_EQ(200, answer.status) << path;
        EXPECT_EQ("ok", answer.json()["status"]) << path;
    }
}

TEST_F(Serve, CountsRequests)
{
    const std::string row = "corvane_requests_total{name=\"QZaven_crypto_hmac\",code=\"0\"}";
    host().request("QZaven_crypto_hmac", hmac);
    const double before = host().metric(row);
    host().request("QZaven_crypto_hmac", hmac);
    EXPECT_EQ(before + 1, host().metric(row));
    EXPECT_GT(
        host().metric("corvane_request_seconds_bucket{name=\"QZaven_crypto_hmac\",le=\"+Inf\"}"),
        1);
    EXPECT_GT(host().metric("corvane_http_answers_total{status=\"200\"}"), 1);
    EXPECT_EQ(2, host().metric("corvane_workers"));
    EXPECT_GT(host().metric("corvane_resident_bytes{process=\"front\"}"), 1e6);
    EXPECT_GT(host().metric("corvane_resident_bytes{process=\"worker1\"}"), 1e6);
}

TEST_F(Serve, ServesTheConsole)
{
    const HttpAnswer page = host().ask("GET", "/", {{"Authorization", ""}});
    EXPECT_EQ(200, page.status);
    EXPECT_EQ("text/html; charset=utf-8", page.headers.at("content-type"));
    EXPECT_EQ(support::readWhole(CORVANE_SOURCE_DIR "/devkit/console/index.html"), page.body);
    EXPECT_NE(std::string::npos,
              page.headers.at("content-security-policy").find("default-src 'none'"));
    EXPECT_EQ("nosniff", page.headers.at("x-content-type-options"));
    // What is no page needs less, but not to be taken for one.
    const HttpAnswer answer = host().request("QZaven_crypto_hmac", hmac);
    EXPECT_EQ("nosniff", answer.headers.at("x-content-type-options"));
    EXPECT_EQ("no-store", answer.headers.at("cache-control"));
    EXPECT_EQ(0U, answer.headers.count("content-security-policy"));
    for (const char* header : {"x-frame-options", "referrer-policy", "cross-origin-opener-policy",
                               "cross-origin-resource-policy"})
        EXPECT_EQ(1U, page.headers.count(header)) << header;
    const HttpAnswer again = host().ask("GET", "/", {{"If-None-Match", page.headers.at("etag")}});
    EXPECT_EQ(304, again.status);
    EXPECT_EQ(200, host().ask("HEAD", "/").status);
}

TEST_F(Serve, LogsNoSecrets)
{
    const std::string secret = "TopSecretValue0123456789";
    host().request("QZaven_crypto_kdf", {{"HashType", 4}, {"srcdata", secret}, {"OutLen", 16}});
    host().request("QZaven_crypto_kdf",
                   {{"HashType", secret}, {"srcdata", secret}, {secret, secret}});
    host().request(secret, {{"srcdata", secret}});
    host().get("/" + secret + "?" + secret);
    host().ask("POST", "/v1/requests/QZaven_crypto_hmac", {{"Content-Type", "application/json"}},
               "{\"strKey\": \"" + secret + "\"");
    host().ask("GET", "/v1/status", {{"Authorization", "Bearer " + secret}});
    const std::string session = host().request("QZaven_ke_new").result("Data");
    host().request("QZaven_ke_client_hello", {{"strKe", session}});

    const std::string log = support::readWhole(host().path("access.log"));
    const std::string errors = host().errors();
    // The name of a parameter, which the client chose, is not a value.
    for (const std::string& text : {log, host().get("/metrics").body}) {
        EXPECT_EQ(std::string::npos, text.find(secret));
        EXPECT_EQ(std::string::npos, text.find(session));
        EXPECT_EQ(std::string::npos, text.find(host().token()));
    }
    EXPECT_EQ(std::string::npos, errors.find(session));
    EXPECT_EQ(std::string::npos, errors.find(host().token()));
    std::istringstream lines(log);
    size_t count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        const Json entry = Json::parse(line);
        EXPECT_TRUE(entry.contains("id") && entry.contains("status") && entry.contains("route"));
    }
    EXPECT_GT(count, 5U);
}

TEST(ServeLog, IsReopened)
{
    NEEDS_WORKERS();
    ServedHost host;
    host.get("/livez");
    fs::rename(host.path("access.log"), host.path("old.log"));
    host.signal(SIGHUP);
    EXPECT_TRUE(eventually([&] { return fs::exists(host.path("access.log")); }));
    host.get("/livez");
    EXPECT_TRUE(eventually([&] { return !support::readWhole(host.path("access.log")).empty(); }));
    EXPECT_EQ(0600U, static_cast<unsigned>(fs::status(host.path("access.log")).permissions()));
}

// ---- End.

TEST(ServeEnd, LosesNoAnswer)
{
    NEEDS_WORKERS();
    ServedHost host;
    const std::vector<pid_t> workers = host.workers();
    HttpConnection underWay(host.port());
    HttpConnection idle(host.port());
    idle.send(host.text("GET", "/livez"));
    EXPECT_EQ(200, idle.receive().status);

    // Held up in a worker while the host is told to end.
    for (const pid_t worker : workers)
        kill(worker, SIGSTOP);
    underWay.send(host.text("POST", "/v1/requests/QZaven_crypto_hmac",
                            {{"Content-Type", "application/json"}}, hmac.dump()));
    EXPECT_TRUE(eventually([&] { return host.metric("corvane_workers_busy") == 1; }));
    host.signal(SIGTERM);
    EXPECT_TRUE(idle.isEnded());
    EXPECT_TRUE(eventually([&] { return HttpConnection(host.port()).descriptor() < 0; }));
    EXPECT_FALSE(host.hasEnded());
    for (const pid_t worker : workers)
        kill(worker, SIGCONT);
    const HttpAnswer answer = underWay.receive();
    EXPECT_EQ(hmacAnswer, answer.result("Data")) << answer.body;
    EXPECT_EQ(0, host.wait());
    for (const pid_t worker : workers)
        EXPECT_FALSE(support::isRunning(worker));
}

TEST(ServeEnd, DoesNotWaitForEver)
{
    NEEDS_WORKERS();
    ServedHost host({"--drain-seconds", "0.2"});
    const std::vector<pid_t> workers = host.workers();
    for (const pid_t worker : workers)
        kill(worker, SIGSTOP);
    HttpConnection underWay(host.port());
    underWay.send(host.text("POST", "/v1/requests/QZaven_crypto_hmac",
                            {{"Content-Type", "application/json"}}, hmac.dump()));
    EXPECT_TRUE(eventually([&] { return host.metric("corvane_workers_busy") == 1; }));
    EXPECT_EQ(0, host.stop());
    const HttpAnswer answer = underWay.receive();
    EXPECT_EQ(503, answer.status);
    EXPECT_EQ("draining", answer.code());
    for (const pid_t worker : workers)
        EXPECT_FALSE(support::isRunning(worker));
}

// ---- Start.

TEST(ServeStart, MakesATokenForItsOwnerAlone)
{
    NEEDS_WORKERS();
    ServedHost host;
    EXPECT_EQ(0600U, static_cast<unsigned>(fs::status(host.path("token")).permissions()));
    EXPECT_EQ(host.token() + "\n", support::readWhole(host.path("token")));
    EXPECT_GE(host.token().size(), 43U);
    EXPECT_EQ(200, host.get("/v1/status").status);

    // The next start takes it, and does not show it again.
    ServedHost next({"--token-file", host.path("token")});
    EXPECT_EQ(std::string::npos, next.output().find(host.token()));
    EXPECT_EQ(200,
              next.ask("GET", "/v1/status", {{"Authorization", "Bearer " + host.token()}}).status);
}

TEST(ServeStart, RefusesWhatIsNotSafe)
{
    const support::TemporaryFolder temporary;
    const fs::path& folder = temporary.path();
    const std::string token = folder / "token";
    support::writeWhole(token, std::string(43, 'x') + "\n");
    const auto run = [&](std::vector<std::string> options, const char* text) {
        options.insert(options.begin(), "serve");
        const auto [code, errors] = support::runHost(options);
        EXPECT_EQ(2, code) << text;
        EXPECT_NE(std::string::npos, errors.find(text)) << errors;
    };
    fs::permissions(token, fs::perms(0644));
    run({"--listen", "127.0.0.1:0", "--token-file", token}, "mode 0600");
    fs::permissions(token, fs::perms(0600));
    support::writeWhole(token, "short\n");
    run({"--listen", "127.0.0.1:0", "--token-file", token}, "must hold one token");
    run({"--listen", "0.0.0.0:0", "--token-file", token}, "needs --tls-cert");
    run({"--listen", "[::]:0", "--no-auth"}, "--no-auth is for loopback");
    run({"--listen", "127.0.0.1.example.com:0", "--no-auth"}, "--no-auth is for loopback");
    run({"--listen", "127.0.0.1"}, "HOST:PORT");
    run({"--listen", "127.0.0.1:70000"}, "port");
    run({"--listen", "127.0.0.1:0", "--tls-cert", "x"}, "belong together");
    run({"--listen", "127.0.0.1:0", "--no-auth", "--ca-folder", "/nonexistent"},
        "cannot open the folder");
}

TEST(ServeStart, SpeaksTls)
{
    NEEDS_WORKERS();
    const support::TemporaryFolder temporary;
    const fs::path& folder = temporary.path();
    const std::string quiet = " >" + (folder / "log").string() + " 2>&1";
    const std::string key = folder / "key.pem";
    const std::string cert = folder / "cert.pem";
    ASSERT_EQ(
        0,
        system(("openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=localhost -keyout " +
                key + " -out " + cert + quiet)
                   .c_str()));
    ServedHost host({"--tls-cert", cert, "--tls-key", key});
    support::writeWhole(
        folder / "request",
        host.text("POST", "/v1/requests/QZaven_crypto_hmac",
                  {{"Content-Type", "application/json"}, {"Connection", "close"}}, hmac.dump()));
    // The command's exit code tells how the connection ended, which is no matter here.
    [[maybe_unused]] const int ignored =
        system(("openssl s_client -quiet -CAfile " + cert + " -verify_return_error -connect " +
                host.host() + " <" + (folder / "request").string() + " >" +
                (folder / "answer").string() + " 2>&1")
                   .c_str());
    const std::string answer = support::readWhole(folder / "answer");
    EXPECT_NE(std::string::npos, answer.find("HTTP/1.1 200 OK")) << answer;
    EXPECT_NE(std::string::npos, answer.find(hmacAnswer)) << answer;
    // Plain HTTP gets nothing.
    EXPECT_EQ(0, host.get("/livez").status);
    EXPECT_EQ(0, host.stop());
}

// ---- The bundled other side of a key exchange.

class ServePeer : public Serve {
protected:
    HttpAnswer step(const ServedHost& host, const std::string& name, const Json& members) const
    {
        return host.ask("POST", "/v1/peer/" + name, {{"Content-Type", "application/json"}},
                        members.dump());
    }
};

TEST_F(ServePeer, RefusesWhatIsNoStepOfAnExchange)
{
    const ServedHost host;
    EXPECT_EQ(true, host.status()["peer"]);
    EXPECT_EQ("not_found", step(host, "nothing", Json::object()).code());
    EXPECT_EQ(404U, step(host, "nothing", Json::object()).status);
    const HttpAnswer missing = step(host, "answer", Json::object());
    EXPECT_EQ(400U, missing.status);
    EXPECT_EQ("hello", missing.json()["error"]["field"]);
    EXPECT_EQ("wrong_type", step(host, "answer", {{"hello", {{"hex", "00"}}}}).code());

    for (const auto& [name, members] : std::vector<std::pair<std::string, Json>>{
             {"answer", {{"hello", "no Base64!"}}},
             {"answer", {{"hello", "AAAA"}}},
             {"decrypt", {{"exchange", "forged"}, {"data", "AAAA"}}},
             {"finish", {{"exchange", ""}, {"message", "AAAA"}}}}) {
        const HttpAnswer answer = step(host, name, members);
        EXPECT_EQ(200U, answer.status) << name;
        EXPECT_EQ("peer_refused", answer.code()) << name << members;
        EXPECT_EQ("peer", answer.json()["error"]["source"]) << name;
        EXPECT_EQ(Json::object(), answer.json()["results"]) << name;
    }
}

TEST_F(ServePeer, HasNoKeysBeforeTheExchangeIsFinished)
{
    const ServedHost host;
    const Json begun = step(host, "answer", {{"hello", toUrlBase64(std::string(32, 'h'))}}).json();
    EXPECT_EQ(nullptr, begun["error"]);
    EXPECT_EQ(step(host, "root", Json::object()).json()["results"]["root"],
              begun["results"]["root"]);
    EXPECT_EQ("peer_refused",
              step(host, "encrypt", {{"exchange", begun["results"]["exchange"]}, {"data", "AAAA"}})
                  .code());
}

TEST_F(ServePeer, ThatDiesIsReplaced)
{
    const ServedHost host;
    const Json root = step(host, "root", Json::object()).json()["results"]["root"];
    const pid_t first = host.peer();
    ASSERT_GT(first, 0);
    kill(first, SIGKILL);
    EXPECT_TRUE(eventually([&] { return host.peer() != first; }));
    const Json again = step(host, "root", Json::object()).json();
    EXPECT_EQ(nullptr, again["error"]);
    EXPECT_NE(root, again["results"]["root"]);
}

TEST_F(ServePeer, CanBeLeftOut)
{
    const ServedHost host({"--no-peer"});
    EXPECT_EQ(false, host.status()["peer"]);
    EXPECT_EQ(404U, step(host, "root", Json::object()).status);
}

}  // namespace
