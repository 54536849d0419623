// Values by HTTP: what arrives at the plug-in, and what is refused before it.
#include <gtest/gtest.h>

#include "common/pairs.h"
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

// ---- Names for numbers.

const Json namedCipher = {
    {"strCipherAlg", "AES_256"}, {"strMode", "cbc"}, {"strCipherPadding", "pkcs7"}};

Json encryption(const Json& numbers)
{
    Json parameters = {{"strKey", {{"hex", std::string(64, '1')}}},
                       {"strIV", {{"hex", std::string(32, '2')}}},
                       {"strdata", "aGVsbG8="}};
    parameters.update(numbers);
    return parameters;
}

TEST_F(ServeValues, NameIsAsGoodAsItsNumber)
{
    constexpr const char* request = "QZaven_crypto_encrypt";
    const std::string expected =
        host()
            .request(request,
                     encryption({{"strCipherAlg", 4}, {"strMode", 2}, {"strCipherPadding", 1}}))
            .result("Data");
    ASSERT_NE("", expected);
    const HttpAnswer named = host().request(request, encryption(namedCipher));
    EXPECT_EQ(expected, named.result("Data")) << named.body;
    EXPECT_EQ(Json::array(), named.json()["warnings"]);

    const Json part = {{"name", request}, {"parameters", encryption(namedCipher)}};
    EXPECT_EQ(expected, host().batch(Json::array({part})).json()["answers"][0]["results"]["Data"]);

    const std::string key = support::toUrlBase64(std::string(32, '\x11'));
    const std::string iv = support::toUrlBase64(std::string(16, '\x22'));
    EXPECT_EQ(expected, host()
                            .ask("POST", "/v1/requests/"s + request,
                                 {{"Content-Type", "application/x-www-form-urlencoded"}},
                                 "strCipherAlg=aes+256&strMode=CBC&strCipherPadding=PKCS%237&"
                                 "strdata=aGVsbG8&strKey=" +
                                     key + "&strIV=" + iv)
                            .result("Data"));
    std::string parts;
    for (const auto& [name, value] : Pairs{{"strCipherAlg", "aes-256"},
                                           {"strMode", "cbc"},
                                           {"strCipherPadding", "pkcs7"},
                                           {"strdata", "aGVsbG8="},
                                           {"strKey", key},
                                           {"strIV", iv}})
        parts +=
            "--B\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value + "\r\n";
    EXPECT_EQ(expected,
              host()
                  .ask("POST", "/v1/requests/"s + request,
                       {{"Content-Type", "multipart/form-data; boundary=B"}}, parts + "--B--")
                  .result("Data"));
}

TEST_F(ServeValues, UnknownNamesAndOtherTextsAreRefusedWhereANumberIsDue)
{
    for (const char* cipher : {"aes-265", "aes-256-cbc", "4x", "no"}) {
        Json parameters = namedCipher;
        parameters["strCipherAlg"] = cipher;
        const HttpAnswer answer = host().request("QZaven_crypto_encrypt", encryption(parameters));
        EXPECT_EQ(400, answer.status);
        EXPECT_EQ("wrong_type", answer.code()) << answer.body;
        EXPECT_EQ("name_for_number", answer.json()["error"]["reason"]) << answer.body;
        EXPECT_EQ("strCipherAlg", answer.json()["error"]["field"]) << answer.body;
    }
    for (const char* length : {"16K", "1e3", "12.9"}) {
        const HttpAnswer answer = host().request(
            "QZaven_crypto_kdf",
            {{"HashType", "sm3"}, {"srcdata", {{"text", "secret"}}}, {"OutLen", length}});
        EXPECT_EQ("text_for_number", answer.json()["error"]["reason"]) << answer.body;
        EXPECT_EQ("0 to 65535", answer.json()["error"]["values"]["allowed"]) << answer.body;
    }
}

TEST_F(ServeValues, NamesMarkedAsTextAreSentAsTheyAre)
{
    for (const Json& cipher : {Json{{"raw", "aes-256"}}, Json{{"text", "aes-256"}}}) {
        Json parameters = namedCipher;
        parameters["strCipherAlg"] = cipher;
        const HttpAnswer answer = host().request("QZaven_crypto_encrypt", encryption(parameters));
        EXPECT_EQ("-20084", answer.code()) << answer.body;
        const Json warning = answer.json()["warnings"][0];
        EXPECT_EQ("unknown_name", warning["code"]) << answer.body;
        EXPECT_EQ("strCipherAlg", warning["field"]);
        EXPECT_EQ("aes-256", warning["values"]["nearest"]) << answer.body;
    }
}

TEST_F(ServeValues, ServiceWithoutNamesTakesNumbersAlone)
{
    const ServedHost plain({"--names", "none"});
    EXPECT_EQ("wrong_type", plain.request("QZaven_crypto_encrypt", encryption(namedCipher)).code());
    EXPECT_EQ(std::string::npos, plain.ask("GET", "/v1/catalogue").body.find("\"choices\""));
    EXPECT_EQ(std::string::npos, plain.ask("GET", "/openapi.json").body.find("aes-256"));
    EXPECT_NE(std::string::npos, host().ask("GET", "/v1/catalogue").body.find("\"choices\""));
}

// ---- What is told before the plug-in or the engine refuses.

TEST_F(ServeValues, WarningsTellWhatIsWrongAndQuoteNothing)
{
    Json parameters = encryption(namedCipher);
    parameters["strKey"] = {{"text", "5ecret5ecret5ecr"}};
    parameters["strIV"] = "0102030405060708";
    parameters["strMod"] = "x";
    parameters["5ecret!"] = "x";
    const Json warnings = host().request("QZaven_crypto_encrypt", parameters).json()["warnings"];
    Json codes = Json::array();
    for (const Json& warning : warnings)
        codes.push_back(warning["code"]);
    EXPECT_EQ((Json{"misspelt", "odd_name", "wrong_size", "wrong_size", "looks_like_hex"}), codes);
    EXPECT_EQ("a parameter", warnings[1]["field"]);
    EXPECT_EQ((Json{{"bytes", "32"}, {"size", "16"}}), warnings[2]["values"]);
    EXPECT_EQ(std::string::npos, warnings.dump().find("5ecret"));
}

TEST_F(ServeValues, JsonThatComesAsAFormIsRefused)
{
    for (const std::string& body :
         {"{\"strKey\":\"5ecret\"}"s, " \r\n{\"strKey\": \"a+b&c=\"}\n"s, "{}"s}) {
        const HttpAnswer answer = form(body);
        EXPECT_EQ(415, answer.status) << answer.body;
        const Json error = answer.json()["error"];
        EXPECT_EQ("json_as_form", error["reason"]);
        EXPECT_EQ("Content-Type", error["field"]);
        EXPECT_NE(std::string::npos,
                  error["text"].get<std::string>().find("Content-Type: application/json"));
        EXPECT_EQ(std::string::npos, answer.body.find("5ecret")) << answer.body;
    }
    // A form is one also with braces in it.
    EXPECT_EQ("wrong_type", form("strHashAlg={}").code());
    EXPECT_EQ("-20001", form("{strKey}=5ecret").code());
    EXPECT_EQ(std::string::npos, form("{strKey}=5ecret").body.find("strKey}"));
}

}  // namespace
