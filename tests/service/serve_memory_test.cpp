// What is left of secrets in the memory of the service's processes once their requests are over,
// however these ended.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <random>
#include <system_error>

#include "common/codec.h"
#include "peer/certificates.h"
#include "support/files.h"
#include "support/memory_scan.h"
#include "support/served_host.h"
#include "support/shell.h"

namespace {

using namespace std::string_literals;
using support::HttpAnswer;
using support::HttpConnection;
using support::HttpHeaders;
using support::Json;
using support::Marks;
using support::ServedHost;
using support::Trace;

const HttpHeaders jsonType = {{"Content-Type", "application/json"}};

std::string pathOf(const std::string& request)
{
    return "/v1/requests/" + request;
}
const std::string hmac = pathOf("QZaven_crypto_hmac");
const std::string encrypt = pathOf("QZaven_crypto_encrypt");
const std::string decrypt = pathOf("QZaven_crypto_decrypt");

// Secrets, and what to look for.
class Secrets {
public:
    Secrets() : m_random(std::random_device()()) {}

    std::string bytes(const std::string& name, size_t size)
    {
        std::string secret = draw(size, 256, [](unsigned i) { return static_cast<char>(i); });
        m_marks.add(name, secret);
        return secret;
    }
    // That needs no escapes in JSON, in forms and in headers.
    std::string text(const std::string& name, size_t size)
    {
        std::string secret = draw(size, 62, [](unsigned i) {
            return "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"[i];
        });
        m_marks.add(name, secret);
        return secret;
    }
    void add(const std::string& name, const std::string& bytes) { m_marks.add(name, bytes); }
    void mark(const std::string& name, const std::string& text) { m_marks.addText(name, text); }
    const Marks& marks() const { return m_marks; }

private:
    std::string draw(size_t size, unsigned kinds, char (*of)(unsigned))
    {
        std::string drawn;
        for (size_t i = 0; i < size; ++i)
            drawn += of(static_cast<unsigned>(m_random() % kinds));
        return drawn;
    }

    std::mt19937_64 m_random;
    Marks m_marks;
};

Json inBase64(const std::string& bytes)
{
    return {{"base64", toBase64(bytes)}};
}

std::string part(const std::string& disposition, const std::string& content)
{
    return "--B\r\nContent-Disposition: form-data; " + disposition + "\r\n\r\n" + content + "\r\n";
}

std::string privateDer(const Credential& credential)
{
    std::string der(static_cast<size_t>(i2d_PrivateKey(credential.key.get(), nullptr)), '\0');
    auto* out = reinterpret_cast<unsigned char*>(der.data());
    i2d_PrivateKey(credential.key.get(), &out);
    return der;
}

// The bytes of one request each, for a connection that stays open.
class Traffic {
public:
    Traffic(const ServedHost& host, Secrets& secrets) : m_host(host), m_secrets(secrets) {}

    std::string json() const
    {
        return post(hmac, Json{{"strHashAlg", 4},
                               {"strKey", inBase64(m_secrets.bytes("key", 32))},
                               {"strdata", {{"text", m_secrets.text("data", 300)}}}});
    }
    std::string shortJson() const
    {
        return post(hmac, Json{{"strHashAlg", 1},
                               {"strKey", {{"text", m_secrets.text("short key", 15)}}},
                               {"strdata", {{"hex", toHex(m_secrets.bytes("short data", 13))}}}});
    }
    std::string escapedJson() const
    {
        std::string digits;
        for (const char c : m_secrets.text("escaped", 40))
            digits += "\\u00" + toHex({&c, 1});
        return m_host.text("POST", hmac, jsonType,
                           R"({"strHashAlg": 1, "strKey": {"text": ")" + digits +
                               R"("}, "strdata": {"text": ")" + digits + "\"}}");
    }
    std::string urlEncoded() const
    {
        std::string escaped;
        for (const char c : m_secrets.bytes("form", 64))
            escaped += "%" + toHex({&c, 1});
        return m_host.text("POST", pathOf("QZaven_crypto_base64_encode"),
                           {{"Content-Type", "application/x-www-form-urlencoded"}},
                           "strIn=" + m_secrets.text("form text", 30) + escaped);
    }
    std::string multipart() const
    {
        return m_host.text("POST", hmac, {{"Content-Type", "multipart/form-data; boundary=B"}},
                           part("name=strHashAlg", "4") +
                               part("name=strKey; filename=k", m_secrets.bytes("file", 48)) +
                               part("name=strdata", toUrlBase64(m_secrets.bytes("part", 200))) +
                               "--B--\r\n");
    }
    std::string batch() const
    {
        Json requests = Json::array();
        for (int i = 0; i < 3; ++i)
            requests.push_back({{"name", "QZaven_crypto_hmac"},
                                {"parameters",
                                 {{"strHashAlg", 4},
                                  {"strKey", inBase64(m_secrets.bytes("batch key", 32))},
                                  {"strdata", inBase64(m_secrets.bytes("batch data", 500))}}}});
        return post("/v1/batch", {{"requests", requests}});
    }
    std::string large() const
    {
        return post(hmac, Json{{"strHashAlg", 4},
                               {"strKey", inBase64(m_secrets.bytes("key", 32))},
                               {"strdata", inBase64(m_secrets.bytes("large", 20000))}});
    }
    std::string inChunks() const
    {
        const std::string body = Json{{"strHashAlg", 4},
                                      {"strKey", inBase64(m_secrets.bytes("key in chunks", 32))},
                                      {"strdata", inBase64(m_secrets.bytes("chunks", 3000))}}
                                     .dump();
        std::string out =
            m_host.text("POST", hmac, {jsonType[0], {"Transfer-Encoding", "chunked"}});
        for (size_t at = 0; at < body.size(); at += 700) {
            const std::string chunk = body.substr(at, 700);
            out += toHex({"\0"s + static_cast<char>(chunk.size() >> 8U) +
                          static_cast<char>(chunk.size() & 255U)}) +
                   "\r\n" + chunk + "\r\n";
        }
        return out + "0\r\n\r\n";
    }
    std::string expecting() const
    {
        return m_host.text("POST", hmac, {jsonType[0], {"Expect", "100-continue"}},
                           Json{{"strHashAlg", 4},
                                {"strKey", inBase64(m_secrets.bytes("expected", 32))},
                                {"strdata", "AAAA"}}
                               .dump());
    }
    // The plug-in refuses it.
    std::string failing() const
    {
        return post(encrypt, Json{{"strCipherAlg", 4},
                                  {"strMode", 2},
                                  {"strKey", inBase64(m_secrets.bytes("wrong key", 31))},
                                  {"strIV", inBase64(std::string(16, 'i'))},
                                  {"strdata", inBase64(m_secrets.bytes("lost data", 64))}});
    }
    // The host does.
    std::string badJson() const
    {
        return m_host.text(
            "POST", hmac, jsonType,
            R"({"strHashAlg": 4, "strKey": ")" + m_secrets.text("bad JSON", 44) + "\", }");
    }
    std::string unknownParameter() const
    {
        return post(hmac, Json{{"strHashAlg", 4},
                               {"strKey", true},
                               {"strUnknown", m_secrets.text("unknown", 40)}});
    }
    std::string unknownRequest() const
    {
        return post(pathOf("QZaven_crypto_hmag"),
                    Json{{"strKey", inBase64(m_secrets.bytes("of nothing", 32))}});
    }
    std::string notBase64() const
    {
        return post(hmac, Json{{"strHashAlg", 4},
                               {"strKey", m_secrets.text("not Base64", 40) + "!"},
                               {"strdata", "AAAA"}});
    }
    std::string badForm() const
    {
        return m_host.text("POST", hmac, {{"Content-Type", "application/x-www-form-urlencoded"}},
                           "strKey=" + m_secrets.text("bad form", 40) + "&strdata=%");
    }
    std::string badBatch() const
    {
        return post("/v1/batch", {{"requests",
                                   {{{"name", "QZaven_crypto_hmac"},
                                     {"parameters", {{"strKey", m_secrets.text("bad batch", 44)}}}},
                                    {{"name", "none"}}}}});
    }
    std::string peerStep() const
    {
        return post("/v1/peer/decrypt",
                    {{"exchange", m_secrets.text("exchange", 24)},
                     {"data", toUrlBase64(m_secrets.bytes("for the peer", 100))}});
    }
    std::string unknownSession() const
    {
        return post(pathOf("QZaven_ke_encrypt"),
                    {{"strKe", "ke_" + m_secrets.text("no session", 32)},
                     {"strdata", inBase64(m_secrets.bytes("for no session", 100))}});
    }

private:
    std::string post(const std::string& path, const Json& body) const
    {
        return m_host.text("POST", path, jsonType, body.dump());
    }

    const ServedHost& m_host;
    Secrets& m_secrets;
};

using Kind = std::string (Traffic::*)() const;

// The one in chunks ends its connection.
constexpr Kind answered[] = {&Traffic::json,           &Traffic::shortJson,
                             &Traffic::escapedJson,    &Traffic::urlEncoded,
                             &Traffic::multipart,      &Traffic::batch,
                             &Traffic::large,          &Traffic::failing,
                             &Traffic::badJson,        &Traffic::unknownParameter,
                             &Traffic::notBase64,      &Traffic::badForm,
                             &Traffic::badBatch,       &Traffic::peerStep,
                             &Traffic::unknownSession, &Traffic::unknownRequest,
                             &Traffic::expecting,      &Traffic::inChunks};

class ServeMemory : public testing::Test {
protected:
    void SetUp() override
    {
        NEEDS_WORKERS();
        // Nobody else may read the memory of processes that leave no dumps.
        if (geteuid() != 0)
            GTEST_SKIP() << "NOT TESTED: only root can read the host's memory";
    }

    // Over one connection each, or over `open`, which is made anew where the host has ended it, as
    // it does with one that was silent for too long.
    void sendAll(const ServedHost& host, std::optional<HttpConnection>& open, int count)
    {
        const Traffic traffic(host, m_secrets);
        for (int i = 0; i < count; ++i) {
            const std::string bytes =
                (traffic.*answered[static_cast<size_t>(i) % std::size(answered)])();
            HttpAnswer answer;
            if (i % 3 != 0 && open && open->send(bytes))
                answer = open->receive();
            if (answer.status == 0)
                answer = open.emplace(host.port()).send(bytes) ? open->receive() : answer;
            EXPECT_NE(0, answer.status) << bytes;
        }
    }
    void sendOdd(const ServedHost& host);
    void useSession(const ServedHost& host);
    void decryptSecret(const ServedHost& host);

    std::vector<Trace> tracesOf(const std::string& name, pid_t pid) const
    {
        std::vector<Trace> traces = tracesIn(pid, m_secrets.marks());
        for (Trace& trace : traces)
            trace.region = name + "'s " + trace.region;
        return traces;
    }
    std::vector<Trace> tracesOf(const ServedHost& host) const
    {
        std::vector<Trace> traces = tracesOf("front", host.pid());
        std::vector<pid_t> workers = host.workers();
        for (const pid_t worker : workers)
            for (Trace& trace : tracesOf("worker", worker))
                traces.push_back(std::move(trace));
        for (Trace& trace : tracesOf("peer", host.peer()))
            traces.push_back(std::move(trace));
        return traces;
    }

    Secrets m_secrets;
};

// What no answer comes to, or not on the usual way.
void ServeMemory::sendOdd(const ServedHost& host)
{
    const Traffic traffic(host, m_secrets);
    // Two at once.
    HttpConnection two = host.connect();
    two.send(traffic.json() + traffic.multipart() + traffic.json());
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(200, two.receive().status);

    const std::string wrong = "Bearer " + m_secrets.text("wrong token", 43);
    EXPECT_EQ(401, host.ask("POST", hmac, {jsonType[0], {"Authorization", wrong}},
                            R"({"strKey": ")" + m_secrets.text("unauthorised", 44) + "\"}")
                       .status);
    // Too large, as announced and in chunks.
    const std::string tooLarge = m_secrets.text("too large", 70000);
    EXPECT_EQ(413, host.ask("POST", hmac, jsonType, tooLarge).status);
    const HttpConnection chunked = host.connect();
    chunked.send(host.text("POST", hmac, {jsonType[0], {"Transfer-Encoding", "chunked"}}) +
                 "11170\r\n" + tooLarge);
    // Clients that go away in the middle of a body, in the middle of a head, and before the answer.
    for (const std::string& bytes : {traffic.large(), traffic.inChunks(), traffic.json()}) {
        host.connect().send(bytes.substr(0, bytes.size() - 40));
        host.connect().send(bytes.substr(0, bytes.size() / 2));
        host.connect().send(bytes);
    }
    host.connect().send("POST " + hmac + " HTTP/1.1\r\nAuthorization: Bearer " +
                        m_secrets.text("cut token", 43));
    host.ask("HEAD", "/v1/status", {{"Authorization", wrong}});
    EXPECT_EQ(400, host.ask("GET", "/v1/status", {{"Content-Type", "text/plain"}},
                            m_secrets.text("not due", 100))
                       .status);
}

// A whole exchange, and what is then sent each way.
void ServeMemory::useSession(const ServedHost& host)
{
    const auto ask = [&](const std::string& path, const Json& members) {
        return host.ask("POST", path, jsonType, members.dump());
    };
    const std::string session = host.request("QZaven_ke_new").result("Data");
    ASSERT_NE("", session);
    m_secrets.mark("session", session);
    const auto request = [&](const std::string& name, Json parameters) {
        parameters["strKe"] = session;
        const HttpAnswer answer = host.request("QZaven_ke_" + name, parameters);
        EXPECT_EQ("0", answer.result("errorCode")) << name << answer.body;
        return answer.result("Data");
    };
    const Credential client = makeRoot(rootPlan(), KeyKind::Sm2);
    const std::string root = ask("/v1/peer/root", Json::object()).result("root");
    const std::string certificate = toDer(client.certificate.get());
    const std::string key = privateDer(client);
    m_secrets.add("private key", key.substr(7, 32));
    request("set_public_key", {{"strSig_key", inBase64(key)}, {"strEnc_key", inBase64(key)}});
    request("set_certificate",
            {{"strSig_cert", inBase64(certificate)}, {"strEnc_cert", inBase64(certificate)}});
    request("set_root_certificate", {{"strCa_file", {{"base64", root}}}});
    const HttpAnswer begun =
        ask("/v1/peer/answer", {{"hello", request("client_hello", Json::object())}});
    const std::string exchange = begun.result("exchange");
    Json server;
    for (const char* name :
         {"strSrvr_rand", "strSrvr_sig_cert", "strSrvr_enc_cert", "strSrvr_sign"})
        server[name] = begun.result(name);
    const std::string message = request("client_key_exchange", server);
    ask("/v1/peer/finish", {{"exchange", exchange}, {"message", message}});

    for (const size_t size : {size_t{14}, size_t{500}, size_t{5000}}) {
        const std::string there = m_secrets.bytes("for the server", size);
        const std::string sealed = request("encrypt", {{"strdata", inBase64(there)}});
        const HttpAnswer opened =
            ask("/v1/peer/decrypt", {{"exchange", exchange}, {"data", sealed}});
        EXPECT_EQ(there, fromBase64(opened.result("Data")).value_or(""));
        const std::string back = m_secrets.bytes("for the client", size);
        const HttpAnswer answer =
            ask("/v1/peer/encrypt", {{"exchange", exchange}, {"data", toUrlBase64(back)}});
        const std::string got = request("decrypt", {{"strcipher", answer.result("Data")}});
        EXPECT_EQ(back, fromBase64(got).value_or(""));
    }
    request("free", Json::object());
    EXPECT_NE(200, host.request("QZaven_ke_hmac", {{"strKe", session}}).status);
}

// It is in an answer. The shortest is a result so short that a text holds it without other memory.
void ServeMemory::decryptSecret(const ServedHost& host)
{
    for (const size_t size : {size_t{9}, size_t{16}, size_t{800}, size_t{40000}}) {
        const std::string secret = m_secrets.bytes("plaintext", size);
        Json parameters = {{"strCipherAlg", 4},
                           {"strMode", 5},
                           {"strKey", inBase64(m_secrets.bytes("cipher key", 32))},
                           {"strIV", inBase64(std::string(16, 'i'))},
                           {"strdata", inBase64(secret)}};
        const HttpAnswer sealed = host.request("QZaven_crypto_encrypt", parameters);
        parameters["strdata"] = sealed.result("Data");
        const HttpAnswer opened = host.request("QZaven_crypto_decrypt", parameters);
        EXPECT_EQ(secret, fromBase64(opened.result("Data")).value_or(""));
    }
}

TEST_F(ServeMemory, HoldsNothingOfRequestsThatAreOver)
{
    ServedHost host({"--rate", "0", "--body-bytes", "60000", "--read-seconds", "5"});
    host.workers();
    std::optional<HttpConnection> open;
    sendAll(host, open, 1000);
    sendOdd(host);
    useSession(host);
    decryptSecret(host);
    // Clients that went away in the middle are noticed when the time to read is over.
    ASSERT_TRUE(support::eventually([&] { return host.metric("corvane_connections") == 1; }));
    // And one more that waits for the next request.
    sendAll(host, open, 30);
    const std::vector<Trace> traces = tracesOf(host);
    EXPECT_EQ(0U, traces.size()) << textOf(traces);
}

// The scan would see them.
TEST_F(ServeMemory, IsFullOfTracesWhereNothingIsWiped)
{
    // The loader takes a blank in a path for the end of it.
    const support::TemporaryFolder folder;
    const std::string library = folder.path("no_wiping.so");
    std::filesystem::create_symlink(support::preloaded("no_wiping"), library);
    ServedHost host({"--rate", "0"}, {"LD_PRELOAD=" + library});
    host.workers();
    std::optional<HttpConnection> open;
    sendAll(host, open, static_cast<int>(std::size(answered)));
    EXPECT_LT(10U, tracesOf("front", host.pid()).size());
    size_t ofWorkers = 0;
    for (const pid_t worker : host.workers())
        ofWorkers += tracesOf("worker", worker).size();
    EXPECT_LT(10U, ofWorkers);
    EXPECT_LT(0U, tracesOf("peer", host.peer()).size());
}

// Connections end, or wait for the next request.
TEST_F(ServeMemory, HoldsNothingOfRequestsOverTls)
{
    const support::TemporaryFolder folder;
    const std::string cert = folder.path("cert");
    const std::string key = folder.path("key");
    ASSERT_EQ(0, system(("openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=localhost "
                         "-keyout " +
                         key + " -out " + cert + " 2>" + folder.path("log"))
                            .c_str()));
    ServedHost host({"--rate", "0", "--tls-cert", cert, "--tls-key", key});
    const Traffic traffic(host, m_secrets);
    std::vector<FILE*> idle;
    for (int i = 0; i < 12; ++i) {
        const bool ends = i < 10;
        const std::string said = folder.path("said" + std::to_string(i));
        FILE* const client = popen(
            ("exec openssl s_client -quiet " + std::string(i % 2 == 0 ? "-tls1_3" : "-tls1_2") +
             " -connect " + host.host() + " >" + said + " 2>&1")
                .c_str(),
            "w");
        std::string bytes;
        for (const Kind kind : answered)
            bytes += kind != &Traffic::inChunks ? (traffic.*kind)() : "";
        bytes += host.text("GET", "/livez") + (ends ? traffic.inChunks() : "");
        fwrite(bytes.data(), 1, bytes.size(), client);
        fflush(client);
        ASSERT_TRUE(support::eventually([&] {
            return support::readWhole(said).find(R"({"status":"ok"})") != std::string::npos;
        })) << support::readWhole(said);
        if (ends)
            pclose(client);
        else
            idle.push_back(client);
    }
    std::vector<Trace> traces = tracesOf("front", host.pid());
    for (const pid_t worker : support::childrenOf(host.pid()))
        for (Trace& trace : tracesOf("worker", worker))
            traces.push_back(std::move(trace));
    EXPECT_EQ(0U, traces.size()) << textOf(traces);
    host.stop();
    for (FILE* const client : idle)
        pclose(client);
}

// ---- Swap.

size_t lockedBytes(pid_t pid)
{
    const std::string status = support::readWhole("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find("VmLck:");
    return at == std::string::npos ? 0 : std::stoul(status.substr(at + 6)) * 1024;
}

TEST_F(ServeMemory, IsLockedOnDemandInAllProcesses)
{
    const ServedHost unlocked;
    EXPECT_EQ(0U, lockedBytes(unlocked.pid()));
    const ServedHost host({"--lock-memory"});
    std::vector<pid_t> processes = host.workers();
    processes.push_back(host.pid());
    processes.push_back(host.peer());
    for (const pid_t process : processes)
        EXPECT_LT(size_t{1} << 20, lockedBytes(process));
    Secrets secrets;
    EXPECT_EQ(200, host.raw(Traffic(host, secrets).large()).status);
}

TEST_F(ServeMemory, IsNotServedFromWhereItCannotBeLocked)
{
    const support::ShellOutcome ended = support::shell(
        "ulimit -l 64; setpriv --bounding-set=-ipc_lock --inh-caps=-ipc_lock '" CORVANE_HOST_PROGRAM
        "' --plugin '" CORVANE_PLUGIN_LIBRARY "' --params '" CORVANE_PARAMS_LIBRARY
        "' --engine '" CORVANE_ENGINE_LIBRARY
        "' serve --listen 127.0.0.1:0 --no-auth --lock-memory 2>&1");
    EXPECT_EQ(2, WEXITSTATUS(ended.status)) << ended.output;
    EXPECT_NE(std::string::npos,
              ended.output.find("the limit RLIMIT_MEMLOCK is 65536 and has to be off"))
        << ended.output;
}

}  // namespace
