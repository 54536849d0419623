// The walk through every request, devkit/walk.jsonl, sent to the service by HTTP. The other side
// of its key exchange is the service's own.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <sstream>

#include "peer/certificates.h"
#include "support/base64_text.h"
#include "support/served_host.h"

namespace {

using namespace std::string_literals;
using support::fromUrlBase64;
using support::HttpAnswer;
using support::Json;
using support::toUrlBase64;

bool beginsWith(const std::string& text, const std::string& part)
{
    return text.compare(0, part.size(), part) == 0;
}

// By one of libcrypto's i2d_ functions.
template <class Object>
std::string toDer(const std::shared_ptr<Object>& object,
                  int (*write)(const Object*, unsigned char**))
{
    unsigned char* der = nullptr;
    const int size = write(object.get(), &der);
    const std::string bytes(reinterpret_cast<char*>(der), static_cast<size_t>(std::max(size, 0)));
    OPENSSL_free(der);
    return bytes;
}

// The walk is gone twice: with the first answer to each request that may be sent again, and with
// the second one.
enum class Kept { First, Second };

class ServeWalk : public support::ServedSuite, public testing::WithParamInterface<Kept> {
protected:
    const std::string m_bytes = "bytes \x00\x01\xfe"s;
    const std::string m_message = "a letter";
    // The files that the walk names.
    std::map<std::string, std::string> m_files = {{"file", m_bytes},
                                                  {"message", m_message},
                                                  {"nonce", "123456789012"},
                                                  {"iv", "6543210987654321"},
                                                  {"mackey", "1234567890123456"}};
    std::map<std::string, Json> m_results;         // of the steps, by ID
    std::map<std::string, std::string> m_retries;  // of the requests, what the catalogue says
    Json m_exchange;                               // names the exchange to the other side

    void addCredential(const std::string& name, KeyKind kind)
    {
        const Credential credential = makeRoot({name, ""}, kind);
        m_files[name + ".der"] = toDer(credential.key, i2d_PrivateKey);
        m_files[name + ".pub.der"] = toDer(credential.key, i2d_PUBKEY);
        m_files[name + ".crt.der"] = toDer(credential.certificate, i2d_X509);
    }

    // A value of the walk, as a client of the service writes it.
    Json value(const std::string& written) const
    {
        const auto encoded = [this](const std::string& file) {
            return Json{{"base64", toUrlBase64(m_files.at(file))}};
        };
        if (m_files.count(written) != 0)
            return encoded(written);  // a path; the service has no such file, so it is sent along
        if (beginsWith(written, "b64:@"))
            return encoded(written.substr(5));
        if (beginsWith(written, "b64:"))
            return {{"text", written.substr(4)}};
        if (written == "@file")
            return encoded("file");  // its bytes are no text, which JSON would need
        if (beginsWith(written, "@"))
            return m_files.at(written.substr(1));
        const size_t dot = written.find('.');
        if (beginsWith(written, "${"))
            return m_results.at(written.substr(2, dot - 2))
                .at(written.substr(dot + 1, written.size() - dot - 2));
        return written;
    }

    void send(const Json& step)
    {
        const std::string name = step["request"];
        Json parameters = step.value("params", Json::object());
        for (Json& written : parameters)
            written = value(written.get<std::string>());
        const Json results = succeeded(name, host().request(name, parameters));
        m_results[step["id"]] =
            m_retries.at(name) == "safe" ? sendAgain(name, parameters, results) : results;
        if (m_retries.at(name) == "once")
            expectRefusal(name, parameters);
    }

    // The answer to be used.
    Json sendAgain(const std::string& name, const Json& parameters, const Json& first) const
    {
        const double sessions = host().metric("corvane_sessions");
        const Json second = succeeded(name, host().request(name, parameters));
        EXPECT_EQ(sessions, host().metric("corvane_sessions")) << name;
        for (const auto& [result, value] : first.items())
            EXPECT_TRUE(second.contains(result)) << name << " " << result;
        return GetParam() == Kept::First ? first : second;
    }

    static void expectRefusal(const std::string& name, const Json& parameters)
    {
        const HttpAnswer answer = host().request(name, parameters);
        EXPECT_EQ(200, answer.status) << name;
        EXPECT_EQ("AVEN_E_KE_TOO_LATE", answer.json()["error"]["name"]) << answer.body;
    }

    static Json succeeded(const std::string& name, const HttpAnswer& answer)
    {
        EXPECT_EQ(200, answer.status) << name << " " << answer.body;
        const Json json = answer.json();
        EXPECT_TRUE(json["error"].is_null()) << name << " " << answer.body;
        EXPECT_EQ(Json::array(), json["warnings"]) << name;
        EXPECT_TRUE(json["microseconds"].is_number()) << name;
        return json["results"];
    }

    // One step of the other side, with the exchange's name and whatever else it takes.
    Json peer(const std::string& name, Json members = Json::object()) const
    {
        if (!m_exchange.is_null())
            members["exchange"] = m_exchange;
        const HttpAnswer answer = host().ask(
            "POST", "/v1/peer/" + name, {{"Content-Type", "application/json"}}, members.dump());
        EXPECT_EQ(200, answer.status) << name << " " << answer.body;
        EXPECT_TRUE(answer.json()["error"].is_null()) << name << " " << answer.body;
        return answer.json()["results"];
    }

    void answerHello(const std::string& hello)
    {
        const Json answer = peer("answer", {{"hello", hello}});
        for (const char* file : {"rand", "sig_cert", "enc_cert", "sign"})
            m_files[file] = answer["strSrvr_"s + file];
        m_exchange = answer["exchange"];
    }

    void expectPeerDecrypts(const std::string& data)
    {
        EXPECT_EQ(toUrlBase64(m_message), peer("decrypt", {{"data", data}})["Data"]);
        m_files["from_server"] = peer("encrypt", {{"data", toUrlBase64(m_message)}})["Data"];
    }

    void expectPeersMac(const std::string& name, const std::string& data) const
    {
        EXPECT_EQ(peer(name, {{"data", toUrlBase64(m_message)}})["Data"], data) << name;
    }

    // What must come of a step, by its ID; given its result "Data".
    using Check = std::function<void(const std::string&)>;
    std::map<std::string, Check> checks();
};

std::map<std::string, ServeWalk::Check> ServeWalk::checks()
{
    const auto gives = [](const std::string& bytes) {
        return [=](const std::string& data) { EXPECT_EQ(toUrlBase64(bytes), data); };
    };
    const auto givesEscaped = [](const std::string& text) {
        return [=](const std::string& data) { EXPECT_EQ(text, data); };
    };
    const auto hasSize = [](size_t size) {
        return [=](const std::string& data) { EXPECT_EQ(size, fromUrlBase64(data).size()); };
    };
    // The next step opens what this one sealed.
    const Check seals = [this](const std::string& data) {
        m_files["sealed"] = fromUrlBase64(data);
    };

    return {
        {"version",
         [](auto& data) { EXPECT_NE(std::string::npos, data.find(CORVANE_VERSION)) << data; }},
        {"error_text", [](auto& data) { EXPECT_NE("", data); }},
        {"b64", gives(m_bytes)},
        {"b64_back", givesEscaped("bytes%2520%2500%2501%25FE")},
        {"aes", hasSize(32)},
        {"gcm_back", gives(m_bytes)},
        {"sm4", hasSize(16)},
        {"cbc_back", gives(m_bytes)},
        {"box_back", gives(m_bytes)},
        {"hmac", hasSize(32)},
        {"cmac", hasSize(16)},
        {"kdf", hasSize(48)},
        {"oaep", seals},
        {"oaep_back", gives(m_message)},
        {"pkcs1", seals},
        {"pkcs1_back", gives(m_message)},
        {"sm2", seals},
        {"sm2_back", gives(m_message)},
        {"cms", seals},
        {"cms_back", givesEscaped("a%2520letter")},
        {"sm2_envelope_back", givesEscaped("a%2520letter")},
        {"ke_hello", [this](auto& data) { answerHello(data); }},
        {"ke_exchange",
         [this](auto& data) {
             peer("finish", {{"message", data}});
         }},
        {"ke_encrypt", [this](auto& data) { expectPeerDecrypts(data); }},
        {"ke_decrypt", gives(m_message)},
        {"ke_hmac", [this](auto& data) { expectPeersMac("hmac", data); }},
        {"ke_cmac", [this](auto& data) { expectPeersMac("cmac", data); }},
    };
}

TEST_P(ServeWalk, EveryRequestIsAnswered)
{
    const Json catalogue = host().get("/v1/catalogue").json();
    for (const Json& request : catalogue["requests"])
        m_retries[request["name"]] = request["retry"]["code"];
    addCredential("rsa", KeyKind::Rsa);
    addCredential("sm2", KeyKind::Sm2);
    m_files["server/root.crt"] = fromUrlBase64(peer("root")["root"]);

    std::map<std::string, Check> checks = this->checks();
    std::set<std::string> sent;
    std::istringstream walk(support::readWhole(CORVANE_SOURCE_DIR "/devkit/walk.jsonl"));
    for (std::string line; std::getline(walk, line);) {
        const Json step = Json::parse(line);
        SCOPED_TRACE(step["title"].get<std::string>());
        send(step);
        const auto check = checks.extract(step["id"].get<std::string>());
        if (!check.empty())
            check.mapped()(m_results[check.key()].value("Data", ""));
        sent.insert(step["request"]);
    }
    EXPECT_EQ(catalogue["requests"].size(), sent.size());
    EXPECT_TRUE(checks.empty()) << checks.begin()->first << " is no step";

    const std::string token = m_results["ke"]["Data"];
    EXPECT_EQ("ke_", token.substr(0, 3));
    EXPECT_GE(token.size(), 3U + 22);
    const HttpAnswer gone = host().request("QZaven_ke_free", {{"strKe", token}});
    EXPECT_EQ("session_gone", gone.code());
    EXPECT_EQ("session_freed", gone.json()["error"]["reason"]);
}

INSTANTIATE_TEST_SUITE_P(OfThoseSentAgain, ServeWalk, testing::Values(Kept::First, Kept::Second),
                         [](const auto& kept) {
                             return kept.param == Kept::First ? "TheFirst" : "TheSecond";
                         });

// The sessions of this test are its host's only ones.
TEST(ServeRetry, OfANewSessionLeavesTheFirst)
{
    NEEDS_WORKERS();
    const support::ServedHost host;
    const std::string first = host.request("QZaven_ke_new").result("Data");
    const std::string second = host.request("QZaven_ke_new").result("Data");
    EXPECT_NE(first, second);
    EXPECT_EQ(2, host.metric("corvane_sessions"));
    for (const std::string& token : {first, second})
        EXPECT_EQ("0", host.request("QZaven_ke_free", {{"strKe", token}}).result("errorCode"));
    EXPECT_EQ(0, host.metric("corvane_sessions"));
}

// What a session refuses after its hello, it took before: whether a setting that got no answer was
// carried out cannot be told by sending it again.
TEST(ServeRetry, OfASettingDependsOnTheSession)
{
    NEEDS_WORKERS();
    const support::ServedHost host;
    const std::string token = host.request("QZaven_ke_new").result("Data");
    const std::string root = host.ask("POST", "/v1/peer/root").json()["results"]["root"];
    const auto set = [&] {
        return host
            .request("QZaven_ke_set_root_certificate",
                     {{"strKe", token}, {"strCa_file", {{"base64", root}}}})
            .json()["error"];
    };
    EXPECT_TRUE(set().is_null()) << set();
    EXPECT_TRUE(set().is_null());
    host.request("QZaven_ke_client_hello", {{"strKe", token}});
    EXPECT_EQ("AVEN_E_KE_TOO_LATE", set()["name"]);
}

}  // namespace
