// Values on the command line, in files of parameters and in scripts: what arrives at the
// plug-in, and what is refused before anything is sent.
#include <nlohmann/json.hpp>
#include <sstream>

#include "support/base64_text.h"
#include "support/der.h"
#include "support/host_program.h"

namespace {

using namespace std::string_literals;
using namespace support;

class HostValueForms : public Host {
protected:
    // HMAC-SHA-256 of `data` under the key "Jefe".
    Ended hmac(const std::string& data, const std::string& input = "") const
    {
        return call({"QZaven_crypto_hmac", "strHashAlg=4", "strKey=SmVmZQ", "strdata=" + data},
                    input);
    }

    std::string macOf(const std::string& data, const std::string& input = "") const
    {
        const Ended ended = hmac(data, input);
        EXPECT_EQ(SUCCESS, ended.code) << data << " " << ended.err;
        return ended.code == SUCCESS ? ended.json()["Data"].get<std::string>() : "";
    }
};

const std::string text = "what do ya want for nothing?";
const std::string mac = "W9zBRr9gdU5qBCQmCJV1x1oAPwidJzmDnexYuWTsOEM=";  // RFC 4231, section 4.3
const std::string encoded = "d2hhdCBkbyB5YSB3YW50IGZvciBub3RoaW5nPw";

// ---- Where Base64 is due.

TEST_F(HostValueForms, EveryWayOfGivingBytesGivesTheSameMac)
{
    EXPECT_EQ(mac, macOf(encoded + "=="));
    EXPECT_EQ(mac, macOf(encoded));
    EXPECT_EQ(mac, macOf("text:" + text));
    EXPECT_EQ(mac, macOf("b64:" + text));
    EXPECT_EQ(mac, macOf("b64:@" + file("data", text)));
    EXPECT_EQ(mac, macOf("@-", encoded));
    EXPECT_EQ(mac, macOf("raw:" + encoded));
    EXPECT_EQ(mac, macOf("raw:@" + file("encoded", encoded)));
    EXPECT_EQ(mac, macOf("hex:7768617420646f2079612077616e7420666f72206e6f7468696e673f"));
}

TEST_F(HostValueForms, TextThatIsNotBase64IsRefusedWithTheRemedy)
{
    for (const char* data : {"5ecret text", "5ecret5ecret5", "5ecret!=", "5ec==", "=", "====", "\n",
                             " SmVmZQ", "Sm VmZQ", "SmVm\nZQ==", "SmVmZQ\t"}) {
        const Ended ended = hmac(data);
        EXPECT_EQ(USAGE, ended.code) << data;
        EXPECT_EQ("", ended.out) << data;
        EXPECT_TRUE(holds(ended.err, "strdata is not Base64 (URL-safe)")) << ended.err;
        for (const char* remedy : {"text:", "b64:@FILE", "raw:"})
            EXPECT_TRUE(holds(ended.err, remedy)) << ended.err;
        EXPECT_FALSE(holds(ended.err, "5ec")) << ended.err;
        EXPECT_FALSE(holds(ended.err, "SmV")) << ended.err;
    }
    EXPECT_EQ(USAGE, hmac("@" + file("data", text)).code);
    EXPECT_EQ(USAGE, hmac("@-", text).code);
}

TEST_F(HostValueForms, RawIsSentAsItIsAndWarnedOf)
{
    // The plug-in decodes up to the blank.
    EXPECT_EQ(macOf("SmVm"), macOf("raw:SmVm ZQ=="));
    const Ended ended = hmac("raw:5ecret!");
    EXPECT_TRUE(holds(ended.err, "warning: QZaven_crypto_hmac: strdata is not Base64"))
        << ended.err;
    EXPECT_FALSE(holds(ended.err, "5ecret")) << ended.err;
    EXPECT_EQ("@x", received("raw:text:@x"));
    EXPECT_EQ("hex:0", received("raw:hex:0"));
    EXPECT_EQ("bytes", received("raw:@" + file("bytes", "bytes")));
}

TEST_F(HostValueForms, AnEmptyValueIsOneThatIsNotGiven)
{
    for (const char* data : {"", "raw:", "text:", "hex:", "b64:"}) {
        const Ended ended = hmac(data);
        EXPECT_EQ(REFUSED, ended.code) << data;
        EXPECT_TRUE(holds(ended.err, "strdata is missing")) << ended.err;
    }
}

TEST_F(HostValueForms, EitherAlphabetAndBothTogetherAreBase64)
{
    const std::string expected = macOf("hex:fbfffbff");
    EXPECT_EQ(expected, macOf("-__7_w=="));
    EXPECT_EQ(expected, macOf("+//7/w"));
    EXPECT_EQ(expected, macOf("-/_7_w=="));
}

// As tools write files of Base64.
TEST_F(HostValueForms, ALineEndBehindBase64IsNoPartOfIt)
{
    EXPECT_EQ(mac, macOf("@" + file("unix", encoded + "==\n")));
    EXPECT_EQ(mac, macOf("@" + file("dos", encoded + "==\r\n")));
    EXPECT_EQ(mac, macOf("@" + file("unpadded", encoded + "\n")));
}

// The engine reads these texts itself, and it takes lines.
TEST_F(HostValueForms, BrokenLinesAreTakenWhereTheEngineDecodes)
{
    const std::string lines = "SmVm\r\nZQ==\n";
    const Ended decoded =
        call({"QZaven_crypto_base64_Decode", "strIn=@" + file("lines", lines), "--raw", "Data"});
    EXPECT_EQ(SUCCESS, decoded.code) << decoded.err;
    EXPECT_EQ("Jefe", decoded.out);
    EXPECT_EQ(USAGE, call({"QZaven_crypto_base64_Decode", "strIn=Sm Vm"}).code);
    EXPECT_EQ(USAGE, call({"QZaven_crypto_base64_Decode", "strIn=J!"}).code);
    EXPECT_EQ(REFUSED, call({"QZaven_crypto_base64_Decode", "strIn=raw:J!"}).code);
}

// A public key, as openssl writes it.
constexpr const char* publicKey =
    "MFkwEwYHKoZIzj0CAQYIKoEcz1UBgi0DQgAEqm17IKif1X/qKj5r4WU4nmZBXLHPzT1YWSAQnWcshogJ4OHmKQJX"
    "kYb2VhgcAvdwO8oidjQ2uezIjMLF2OP0Dw==";

TEST_F(HostValueForms, KeysAreTakenInEveryForm)
{
    const std::string key = publicKey;
    std::string pem = "-----BEGIN PUBLIC KEY-----\n";
    for (size_t at = 0; at < key.size(); at += 64)
        pem += key.substr(at, 64) + "\n";
    const std::string wrapped = pem.substr(pem.find('\n') + 1);
    pem += "-----END PUBLIC KEY-----\n";

    const auto encrypts = [&](const std::string& strpk) {
        return call({"QZaven_crypto_public_encrypt", "strKeyPairType=1", "strpk=" + strpk,
                     "strdata=b64:x"});
    };
    for (const std::string& strpk :
         {key, "@" + file("wrapped", wrapped), "b64:@" + file("pem", pem), "text:" + pem,
          "b64:@" + file("der", fromBase64(key)), "@" + path("pem"), "@" + path("der")}) {
        const Ended ended = encrypts(strpk);
        EXPECT_EQ(SUCCESS, ended.code) << strpk << " " << ended.err;
    }
    // What is neither PEM, DER nor Base64 stays refused, and so do all for data.
    const std::string cut = fromBase64(key).substr(1);
    const Ended ended = encrypts("@" + file("cut", cut));
    EXPECT_EQ(USAGE, ended.code);
    EXPECT_EQ(USAGE, encrypts("@" + file("short", fromBase64(key).substr(0, 80))).code);
    EXPECT_EQ(USAGE, encrypts("@" + file("one", "0")).code);
    EXPECT_EQ(USAGE, encrypts(pem).code);
    // DER of any length goes to the engine, which finds no key in it; cut, or longer, it stays.
    for (const size_t size : {0, 1, 127, 128, 255, 256, 65535, 65536}) {
        const std::string der = tlv(0x30, std::string(size, '\xFF'));
        EXPECT_EQ(REFUSED, encrypts("@" + file("der", der)).code) << size;
        EXPECT_EQ(USAGE, encrypts("@" + file("cut", der.substr(0, der.size() - 1))).code) << size;
        EXPECT_EQ(USAGE, encrypts("@" + file("longer", der + '\xFF')).code) << size;
    }
    EXPECT_EQ(USAGE, hmac("@" + path("pem")).code);
    EXPECT_TRUE(holds(ended.err, "strpk is not Base64 (URL-safe)")) << ended.err;
}

// ---- Where text is due.

TEST_F(HostValueForms, BytesForATextAreTheBytes)
{
    EXPECT_EQ("@file", received("text:@file"));
    EXPECT_EQ("text:", received("text:text:"));
    EXPECT_EQ("\xfb\xff", received("hex:fbFF"));
    EXPECT_EQ("Zg==", received("b64:f"));  // which says that it encodes
    const std::string derived =
        call({"QZaven_crypto_kdf", "HashType=4", "srcdata=01", "OutLen=16"}).out;
    EXPECT_EQ(derived,
              call({"QZaven_crypto_kdf", "HashType=4", "srcdata=hex:3031", "OutLen=16"}).out);
}

// ---- The same from a file and in a script.

TEST_F(HostValueForms, FilesOfParametersHaveTheSameForms)
{
    const auto send = [&](const std::string& parameters) {
        return call({"QZaven_crypto_hmac", "--params-file", "-"}, parameters);
    };
    EXPECT_EQ(mac,
              send("strHashAlg=4\nstrKey=text:Jefe\nstrdata=text:" + text + "\n").json()["Data"]);
    EXPECT_EQ(
        mac,
        send(Json{{"strHashAlg", 4}, {"strKey", "raw:SmVmZQ"}, {"strdata", "text:" + text}}.dump())
            .json()["Data"]);
    const Ended ended = send("strHashAlg=4\nstrKey=5ecret key\nstrdata=" + encoded);
    EXPECT_EQ(USAGE, ended.code);
    EXPECT_TRUE(holds(ended.err, "strKey is not Base64")) << ended.err;
    EXPECT_FALSE(holds(ended.err, "5ecret")) << ended.err;
}

TEST_F(HostValueForms, StepsOfAScriptHaveTheSameForms)
{
    const auto step = [](const std::string& data) {
        return Json{{"id", "a"},
                    {"request", "QZaven_crypto_hmac"},
                    {"params", {{"strHashAlg", 4}, {"strKey", "text:Jefe"}, {"strdata", data}}}};
    };
    EXPECT_EQ(mac, script(Json{step("text:" + text)}.dump()).json()[0]["results"]["Data"]);

    Json wrong = {step(encoded), step("5ecret text")};
    wrong[1]["id"] = "b";
    const Ended ended = script(wrong.dump());
    EXPECT_EQ(USAGE, ended.code);
    EXPECT_TRUE(holds(ended.err, "step 2 (b): ")) << ended.err;
    EXPECT_FALSE(holds(ended.err, "5ecret")) << ended.err;

    Json second = {
        {"request", "QZaven_crypto_hmac"},
        {"params", {{"strHashAlg", 4}, {"strKey", "${a.Data}"}, {"strdata", "text:${a.Data}"}}}};
    const Ended chained = script(Json{step(encoded), second}.dump());
    EXPECT_EQ(SUCCESS, chained.code) << chained.err;
    second["params"]["strKey"] = "${a.Data}!";
    EXPECT_EQ(USAGE, script(Json{step(encoded), second}.dump()).code);
}

TEST_F(HostValueForms, UnknownRequestsAndParametersTakeAnything)
{
    EXPECT_EQ(REFUSED, call({"QZaven_unknown", "a=5ecret!", "b=text:x", "--force"}).code);
    EXPECT_EQ(SUCCESS, call({"QZaVen_GetVersion", "strKey=not Base64"}).code);
}

TEST_F(HostValueForms, BenchRefusesAsCallDoes)
{
    const Ended ended = run({"bench", "QZaven_crypto_hmac", "strHashAlg=4", "strKey=SmVmZQ",
                             "strdata=not Base64", "--count", "1"});
    EXPECT_EQ(USAGE, ended.code);
    EXPECT_EQ("", ended.out);
}

}  // namespace
