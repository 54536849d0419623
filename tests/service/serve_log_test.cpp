// What the access log tells of requests that failed, and what the host tells of messages that
// nobody takes.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <thread>

#include "common/descriptor.h"
#include "host/syslog_target.h"
#include "support/document_table.h"
#include "support/served_host.h"

namespace fs = std::filesystem;

namespace {

using support::eventually;
using support::HttpAnswer;
using support::Json;
using support::ServedHost;

const Json goodHmac = {{"strHashAlg", 4}, {"strKey", {{"text", "k"}}}, {"strdata", "AAAA"}};
const Json badHmac = {{"strHashAlg", 9}, {"strKey", {{"text", "k"}}}, {"strdata", "AAAA"}};
const Json noHmac = {{"strHashAlg", 4}, {"strKey", "no Base64"}, {"strdata", "AAAA"}};

const Json versionPart = {{"name", "QZaVen_GetVersion"}};
Json hmacPart(const Json& parameters)
{
    return {{"name", "QZaven_crypto_hmac"}, {"parameters", parameters}};
}

class ServeLogLines : public support::ServedSuite {
protected:
    static Json lineOf(const HttpAnswer& answer)
    {
        return host().logged(answer.headers.at("x-request-id"));
    }
    static HttpAnswer hmac(const Json& parameters)
    {
        return host().request("QZaven_crypto_hmac", parameters);
    }
    // A step of the key exchange's other side.
    static HttpAnswer peer(const std::string& body)
    {
        return host().ask("POST", "/v1/peer/answer", {{"Content-Type", "application/json"}}, body);
    }
};

TEST_F(ServeLogLines, HaveTheCodeOfWhatFailed)
{
    struct Row {
        HttpAnswer answer;
        int status;
        const char* error;  // "": it did not fail
    };
    const std::vector<Row> rows = {
        {hmac(goodHmac), 200, ""},
        {hmac(badHmac), 200, "-20084"},
        {hmac({{"strHashAlg", 4}}), 200, "-20001"},
        {hmac(noHmac), 400, "bad_encoding"},
        {host().request("QZaven_ke_client_hello", {{"strKe", "ke_gone"}}), 410, "session_gone"},
        {host().request("QZaven_ke_client_hello",
                        {{"strKe", host().request("QZaven_ke_new").result("Data")}}),
         200, "-30081"},
        {host().request("QZaVen_strerror", {{"strErr", "-30081"}}), 200, ""},
        {host().request("nothing"), 404, "unknown_request"},
        {host().ask("GET", "/v1/status", {{"Authorization", "Bearer wrong"}}), 401, "unauthorized"},
        {host().get("/livez"), 200, ""},
        {peer(R"({"hello": "AAAA"})"), 200, "peer_refused"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.status, row.answer.status) << row.answer.body;
        const Json line = lineOf(row.answer);
        EXPECT_EQ(row.status, line.value("status", 0)) << line;
        EXPECT_EQ(row.error, line.value("error", "")) << line;
        EXPECT_EQ(row.answer.code(), line.value("error", "")) << line;
    }
    EXPECT_EQ("QZaven_crypto_hmac", lineOf(rows[1].answer).value("request", ""));
}

TEST_F(ServeLogLines, CountWhatFailedInABatch)
{
    for (const auto& [parts, failed] : std::vector<std::pair<Json, size_t>>{
             {Json::array({hmacPart(goodHmac), hmacPart(goodHmac)}), 0},
             {Json::array({hmacPart(badHmac), hmacPart(goodHmac), hmacPart(badHmac)}), 2},
             {Json::array({hmacPart(badHmac)}), 1}}) {
        const HttpAnswer answer = host().batch(parts);
        EXPECT_EQ(200, answer.status) << answer.body;
        const Json line = lineOf(answer);
        EXPECT_EQ(parts.size(), line.value("requests", size_t{0})) << line;
        EXPECT_EQ(failed, line.value("failed", size_t{99})) << line;
        EXPECT_FALSE(line.contains("error")) << line;
    }
    // Refused as a whole, nothing of it was sent.
    const Json line = lineOf(host().batch(Json::array({hmacPart(goodHmac), hmacPart(noHmac)})));
    EXPECT_EQ("bad_encoding", line.value("error", ""));
    EXPECT_FALSE(line.contains("requests")) << line;
    // Others are none.
    EXPECT_FALSE(lineOf(hmac(badHmac)).contains("requests"));
}

// Nothing of what clients sent is in what the host, its workers and libraries write.
TEST(ServeLogOfAll, HasNoValues)
{
    NEEDS_WORKERS();
    const std::string secret = "TopSecretValue0123456789";
    ServedHost host({"--plugin-log", "debug"});
    host.workers();
    host.request("QZaven_crypto_hmac",
                 {{"strHashAlg", 9}, {"strKey", {{"text", secret}}}, {"strdata", secret}});
    host.request("QZaven_crypto_hmac",
                 {{"strHashAlg", secret}, {"strKey", {{"text", secret}}}, {"strdata", secret}});
    host.batch(Json::array({hmacPart({{"strHashAlg", 4}, {"strKey", secret}, {"strdata", "!"}})}));
    host.request(secret);
    host.get("/" + secret);
    EXPECT_EQ(0, host.stop());
    for (const std::string file : {"access.log", "err", "out"}) {
        EXPECT_NE("", support::readWhole(host.path(file))) << file;
        EXPECT_EQ(std::string::npos, support::readWhole(host.path(file)).find(secret)) << file;
    }
}

// docs/serving.md names each member that a line may have.
TEST_F(ServeLogLines, HaveTheMembersThatTheDocumentNames)
{
    std::set<std::string> named;
    for (support::TableRow& row : support::tableOf("docs/serving.md", {"member", "what it is"}))
        for (const std::string& name : support::namesIn(row["member"]))
            named.insert(name);
    std::set<std::string> seen = {"dropped"};  // of a line without an answer
    for (const HttpAnswer& answer : {hmac(badHmac), host().batch(Json::array({versionPart}))}) {
        const Json line = lineOf(answer);
        for (const auto& [name, value] : line.items())
            seen.insert(name);
    }
    EXPECT_EQ(named, seen);
}

TEST(ServeLogOfACrash, HasTheCodeAndLosesNoOtherLine)
{
    NEEDS_WORKERS();
    const ServedHost host({"--workers", "1"}, {"CORVANE_ENGINE_FAULTS=aven_crypto_hmac:*=crash"});
    const pid_t worker = host.workers(1).at(0);
    const HttpAnswer crashed = host.request("QZaven_crypto_hmac", goodHmac);
    EXPECT_EQ(502, crashed.status);
    const Json line = host.logged(crashed.headers.at("x-request-id"));
    EXPECT_EQ("worker_failed", line.value("error", "")) << line;
    EXPECT_EQ(502, line.value("status", 0)) << line;
    EXPECT_EQ("QZaven_crypto_hmac", line.value("request", "")) << line;
    // Which process it was.
    EXPECT_TRUE(eventually([&] {
        return host.errors().find("corvane-host: worker process " + std::to_string(worker) +
                                  " ended in QZaven_crypto_hmac; another one takes its place\n") !=
               std::string::npos;
    })) << host.errors();

    // In a batch it is a failed one.
    const HttpAnswer batch = host.batch(Json::array({versionPart, hmacPart(goodHmac)}));
    const Json second = host.logged(batch.headers.at("x-request-id"));
    EXPECT_EQ(200, second.value("status", 0)) << second;
    EXPECT_EQ(2, second.value("requests", 0)) << second;
    EXPECT_EQ(1, second.value("failed", 0)) << second;
}

TEST(ServeLogOfAWorker, TellsWhoHungAndNothingOfThoseThatWereToEnd)
{
    NEEDS_WORKERS();
    const auto told = [](const ServedHost& host) {
        const std::string errors = host.errors();
        return errors.find("worker process") != std::string::npos ? errors : "";
    };
    const ServedHost hangs({"--workers", "1", "--request-seconds", "1"},
                           {"CORVANE_ENGINE_FAULTS=aven_crypto_hmac:*=hang"});
    hangs.workers(1);
    EXPECT_EQ("worker_timeout", hangs.request("QZaven_crypto_hmac", goodHmac).code());
    EXPECT_NE(std::string::npos, told(hangs).find(" took too long in QZaven_crypto_hmac; "))
        << told(hangs);

    ServedHost host({"--workers", "1"});
    host.workers(1);
    host.signal(SIGUSR2);
    EXPECT_TRUE(eventually(
        [&] { return host.errors().find("all workers have been replaced") != std::string::npos; }));
    EXPECT_EQ(0, host.stop());
    EXPECT_EQ("", told(host));
}

// ---- The plug-in's messages.

// Listens at a path, as a syslog service does.
Descriptor listener(const std::string& path, int kind)
{
    Descriptor socket(::socket(AF_UNIX, kind | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(0, bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
    if (kind == SOCK_STREAM) {
        EXPECT_EQ(0, listen(socket.get(), 0));
    }
    return socket;
}

TEST(SyslogTarget, IsWhoeverListens)
{
    const support::TemporaryFolder folder;
    const std::string path = folder.path("log");
    const SyslogTarget missing = lookAtSyslog(path);
    EXPECT_EQ(path + ": No such file or directory", missing.fault);
    EXPECT_NE(std::string::npos, missing.remedy.find("start a syslog service")) << missing.remedy;
    for (const int kind : {SOCK_DGRAM, SOCK_STREAM}) {
        const Descriptor socket = listener(path, kind);
        // Nobody takes the connections; it is not waited for.
        for (int i = 0; i < 5; ++i)
            EXPECT_EQ("", lookAtSyslog(path).fault);
        fs::remove(path);
    }
    listener(path, SOCK_DGRAM);
    EXPECT_EQ(path + ": Connection refused", lookAtSyslog(path).fault) << "a left one";
}

TEST(SyslogTarget, ThatMayNotBeWrittenToIsNone)
{
    if (geteuid() == 0)
        GTEST_SKIP() << "root may write to every socket";
    const support::TemporaryFolder folder;
    const Descriptor socket = listener(folder.path("log"), SOCK_DGRAM);
    fs::permissions(folder.path("log"), fs::perms(0));
    EXPECT_EQ("let this user write to " + folder.path("log"),
              lookAtSyslog(folder.path("log")).remedy);
}

TEST(SyslogTarget, IsMissedAtTheStartWhereMessagesWouldBeSent)
{
    NEEDS_WORKERS();
    const bool isMissing = !lookAtSyslog().fault.empty();
    for (const std::string level : {"crit", "notice", "info", "debug"}) {
        const ServedHost host({"--workers", "1", "--plugin-log", level});
        const bool isSent = level == "info" || level == "debug";
        const std::string told = host.errors();
        const size_t at = told.find("corvane-host: --plugin-log " + level +
                                    ": nobody takes the plug-in's messages: /dev/log: ");
        EXPECT_EQ(isMissing && isSent, at != std::string::npos) << level << "\n" << told;
    }
}

}  // namespace
