// Values by HTTP: what arrives at the plug-in, and what is refused before it.
#include <gtest/gtest.h>

#include "support/base64_text.h"
#include "support/served_host.h"

namespace {

using namespace std::string_literals;
using support::HttpAnswer;
using support::Json;
using support::ServedHost;

const std::string text = "what do ya want for nothing?";
const std::string encoded = "d2hhdCBkbyB5YSB3YW50IGZvciBub3RoaW5nPw";
const std::string mac = "W9zBRr9gdU5qBCQmCJV1x1oAPwidJzmDnexYuWTsOEM=";  // RFC 4231, section 4.3

class ServeValues : public support::ServedSuite {
protected:
    static Json parameters(const Json& data)
    {
        return {{"strHashAlg", 4}, {"strKey", {{"text", "Jefe"}}}, {"strdata", data}};
    }
    static HttpAnswer hmac(const Json& data)
    {
        return host().request("QZaven_crypto_hmac", parameters(data));
    }
    static HttpAnswer form(const std::string& body)
    {
        return host().ask("POST", "/v1/requests/QZaven_crypto_hmac",
                          {{"Content-Type", "application/x-www-form-urlencoded"}}, body);
    }

    static void expectRefused(const HttpAnswer& answer, const std::string& field)
    {
        EXPECT_EQ(400, answer.status) << answer.body;
        EXPECT_EQ("bad_encoding", answer.code());
        const Json error = answer.json()["error"];
        EXPECT_EQ(field, error["field"]) << answer.body;
        const std::string told = error["text"];
        for (const char* words : {"strdata is not Base64 (URL-safe)", "{\"text\"}", "{\"raw\"}"})
            EXPECT_NE(std::string::npos, told.find(words)) << told;
        EXPECT_EQ(std::string::npos, answer.body.find("5ecret")) << answer.body;
    }
};

TEST_F(ServeValues, TextIsItsBytesAsTheParameterTakesThem)
{
    for (const Json& data : {Json{{"text", text}}, Json{{"base64", encoded}}, Json(encoded),
                             Json(encoded + "=="), Json(encoded + "\n"), Json{{"raw", encoded}}}) {
        const HttpAnswer answer = hmac(data);
        EXPECT_EQ(mac, answer.result("Data")) << data << answer.body;
        EXPECT_EQ(Json::array(), answer.json()["warnings"]) << data;
    }
    // Beyond ASCII too: the bytes of UTF-8, whatever they are.
    for (const std::string& odd : {"h\xc3\xa9llo \xf0\x9f\x98\x80"s, "\0"s, "a\0b"s, "@x"s})
        EXPECT_EQ(hmac({{"base64", support::toUrlBase64(odd)}}).result("Data"),
                  hmac({{"text", odd}}).result("Data"));
    // A text stays what it is where text is due.
    EXPECT_EQ("QHg=", host()
                          .request("QZaven_crypto_base64_encode", {{"strIn", {{"text", "@x"}}}})
                          .result("Data"));
}

TEST_F(ServeValues, StringThatIsNotBase64IsRefusedWithTheRemedy)
{
    for (const char* data : {"5ecret text", "5ecret5ecret5", "5ecret!=", "=", "\n",
                             "5ecr\net==", "\xc3\xa9", " 5ecret="})
        expectRefused(hmac(data), "strdata");
    expectRefused(hmac("5ecr\0et0"s), "strdata");
    expectRefused(form("strHashAlg=4&strKey=SmVmZQ&strdata=5ecret!"), "strdata");
    // A plus sign that was not escaped is a blank.
    expectRefused(form("strHashAlg=4&strKey=SmVmZQ&strdata=AAA+"), "strdata");
    expectRefused(host().ask("POST", "/v1/requests/QZaven_crypto_hmac",
                             {{"Content-Type", "multipart/form-data; boundary=B"}},
                             "--B\r\nContent-Disposition: form-data; name=\"strdata\"\r\n\r\n"
                             "5ecret!\r\n--B--"),
                  "strdata");
}

TEST_F(ServeValues, RawIsSentAsItIsAndWarnedOf)
{
    for (const std::string& data : {"5ecret!"s, "AAA\0AAA"s, "="s}) {
        const HttpAnswer answer = hmac({{"raw", data}});
        EXPECT_EQ(200, answer.status) << answer.body;
        ASSERT_EQ(1U, answer.json()["warnings"].size()) << answer.body;
        EXPECT_EQ("strdata", answer.json()["warnings"][0]["field"]);
        EXPECT_EQ(std::string::npos, answer.body.find("5ecret"));
    }
    // The plug-in decodes up to the null character.
    EXPECT_EQ(hmac({{"hex", "0000"}}).result("Data"), hmac({{"raw", "AAA\0AAA"s}}).result("Data"));
    EXPECT_EQ("-20001", hmac({{"raw", ""}}).code());
    EXPECT_EQ("wrong_type", hmac({{"raw", 1}}).code());
    EXPECT_EQ("wrong_type", hmac({{"raw", "AA"}, {"text", "AA"}}).code());
}

TEST_F(ServeValues, SurrogateAloneIsNoText)
{
    for (const char* member : {"text", "raw"}) {
        const HttpAnswer answer = host().ask(
            "POST", "/v1/requests/QZaven_crypto_hmac", {{"Content-Type", "application/json"}},
            "{\"strdata\": {\""s + member + "\": \"5ecret\\ud800\"}}");
        EXPECT_EQ("malformed", answer.code()) << answer.body;
        EXPECT_EQ(std::string::npos, answer.body.find("5ecret"));
    }
}

TEST_F(ServeValues, RawPathsAreConfinedAsOthers)
{
    const std::string session = host().request("QZaven_ke_new").result("Data");
    for (const char* member : {"raw", "text"}) {
        EXPECT_EQ("bad_path", host()
                                  .request("QZaven_ke_set_root_certificate",
                                           {{"strKe", {{member, session}}},
                                            {"strCa_file", {{member, "/etc/passwd"}}}})
                                  .code());
        EXPECT_EQ("session_gone",
                  host().request("QZaven_ke_free", {{"strKe", {{member, "1"}}}}).code());
    }
    EXPECT_EQ(200, host().request("QZaven_ke_free", {{"strKe", {{"raw", session}}}}).status);
}

TEST_F(ServeValues, BatchIsRefusedAsAWholeAndSaysWhichPart)
{
    const Json good = {{"name", "QZaven_crypto_hmac"}, {"parameters", parameters(encoded)}};
    const Json bad = {{"name", "QZaven_crypto_hmac"}, {"parameters", parameters("5ecret!")}};
    const double before =
        host().metric("corvane_requests_total{name=\"QZaven_crypto_hmac\",code=\"0\"}");
    expectRefused(host().batch({good, bad, good}), "requests[1].parameters.strdata");
    EXPECT_EQ(before,
              host().metric("corvane_requests_total{name=\"QZaven_crypto_hmac\",code=\"0\"}"));

    const Json raw = {{"name", "QZaven_crypto_hmac"}, {"parameters", parameters({{"raw", "!"}})}};
    const Json answers = host().batch({good, raw, good}).json()["answers"];
    ASSERT_EQ(3U, answers.size());
    EXPECT_EQ(mac, answers[0]["results"]["Data"]);
    EXPECT_EQ(1U, answers[1]["warnings"].size());
    EXPECT_EQ(mac, answers[2]["results"]["Data"]);
}

TEST_F(ServeValues, PeerTakesStringsOfBase64Alone)
{
    for (const char* member : {"text", "raw", "hex"})
        EXPECT_EQ("wrong_type",
                  host()
                      .ask("POST", "/v1/peer/answer", {{"Content-Type", "application/json"}},
                           "{\"hello\": {\""s + member + "\": \"00\"}}")
                      .code())
            << member;
}

}  // namespace
