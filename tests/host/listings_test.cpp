// What a terminal shows of the catalogue, whole, and how lines are broken.
#include "host/catalogue/listings.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "host/catalogue/http_routes.h"
#include "host/catalogue/layout.h"
#include "host/catalogue/renderings.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr Style plain = {};
constexpr Style coloured = {true};

// ---- Lines.

TEST(Layout, ALineIsAsLongAsItMayBe)
{
    EXPECT_EQ("aa bb\n  cc", wrapped("aa bb cc", 2, 7));
    EXPECT_EQ("aa\n  bb\n  cc", wrapped("aa bb cc", 2, 6));
    EXPECT_EQ("aa bb\n  cc", wrapped("  aa\n bb  cc ", 2, 9));
    EXPECT_EQ("aa bb cc", wrapped("aa bb cc", 2, 10));
    EXPECT_EQ("a\nlongest\nb", wrapped("a longest b", 0, 3));
    EXPECT_EQ("", wrapped(" ", 4, 10));
}

TEST(Layout, LinesHave80ColumnsUnlessOthersAreChosen)
{
    std::string fits = "xx";
    std::string doesNot = "xxx";
    for (int i = 0; i < 39; ++i) {
        fits += " x";
        doesNot += " x";
    }
    ASSERT_EQ(80U, fits.size());
    EXPECT_EQ(fits, wrapped(fits, 0));
    EXPECT_EQ(doesNot.substr(0, 79) + "\nx", wrapped(doesNot, 0));
    chooseColumns(81);
    EXPECT_EQ(doesNot, wrapped(doesNot, 0));
    EXPECT_EQ("a\nb", wrapped("a b", 0, 1));
    chooseColumns(80);
}

TEST(Layout, TextStandsInItsColumnOrOnTheNextLine)
{
    EXPECT_EQ("abc text\n", labelled("abc", 4, "text"));
    EXPECT_EQ("abcd\n    text\n", labelled("abcd", 4, "text"));
    EXPECT_EQ("  text\n", labelled("", 2, "text"));
    EXPECT_EQ("abc\n", labelled("abc", 4, ""));
}

TEST(Layout, HeadingsHaveColoursIfWished)
{
    EXPECT_EQ("a", plain.heading("a"));
    EXPECT_EQ("\033[1ma\033[0m", coloured.heading("a"));
}

// ---- Lists.

TEST(Listings, DescribeTellsAllOfARequest)
{
    EXPECT_EQ(R"(QZaven_crypto_cmac
  CMAC.
  strCipherAlg      required, 1 to 7, text
                    the cipher
                    numbers: 1 sm4 (16-byte key), 2 aes-128 (16-byte key), 3
                    aes-192 (24-byte key), 4 aes-256 (32-byte key), 5 aria-256
                    (32-byte key), 6 camellia-256 (32-byte key), 7 3des (24-byte
                    key)
  strKey            required, as many bytes as the cipher takes, base64
                    the key
  strdata           required, base64
                    the data
  results
  Data              base64: the check value
  errorCode         text: 0, or the code of the failure
  codes
    -20001, -20084, -20000, -20215 of the plug-in, and those of the engine;
    `corvane-host explain CODE` says more
  if its answer is lost
    safe: nothing is kept of it: it may be sent again, to any worker or host
)",
              describe(*findRequest("QZaven_crypto_cmac"), plain));
}

TEST(Listings, DescribeTellsWhatThereIsNot)
{
    EXPECT_EQ(R"(QZaVen_GetVersion
  The engine's version text.
  takes no parameters
  results
  Data              text: the text
  errorCode         text: 0, or the code of the failure
  codes
    -20215 of the plug-in, and those of the engine; `corvane-host explain CODE`
    says more
  if its answer is lost
    safe: nothing is kept of it: it may be sent again, to any worker or host
)",
              describe(*findRequest("QZaVen_GetVersion"), plain));
    EXPECT_EQ(
        "\033[1mQZaVen_strerror\033[0m\n"
        "  The engine's text for an error code. Writes no errorCode.\n"
        "  strErr            required, text\n"
        "                    error code, as in an errorCode result\n"
        "  \033[1mresults\033[0m\n"
        "  Data              text: the text\n"
        "  \033[1mif its answer is lost\033[0m\n"
        "    safe: nothing is kept of it: it may be sent again, to any worker or host\n",
        describe(*findRequest("QZaVen_strerror"), coloured));
}

TEST(Listings, RequestsStandInTheirGroupsWithTheNumbersThatAreSought)
{
    EXPECT_EQ(R"(Envelope
  QZaven_crypto_envelope_encrypt
      strdata           required, text
      strpk             required, key-text
      strCipherAlg      required, 1 to 7, text
                        1 sm4 (16-byte key)
      strMode           required, one of 1 2 3 4 5 6, text
                        2 cbc
)",
              listRequests({"SM4", "CBC", "seals"}, plain));
    EXPECT_EQ(
        "\033[1mEngine\033[0m\n"
        "  QZaVen_GetVersion\n"
        "  QZaVen_strerror\n"
        "      strErr            required, text\n",
        listRequests({"engine's"}, coloured));
    EXPECT_EQ(
        "Base64\n"
        "  QZaven_crypto_base64_encode\n"
        "      strIn             required, text\n"
        "\n"
        "White-box SM4\n"
        "  QZaven_wbsm4_encrypt\n"
        "      strKey            required, 16 bytes, base64\n"
        "      strIV             required, 16 bytes, base64\n"
        "      strdata           required, base64\n",
        listRequests({"base64url", "encode"}, plain) + "\n" +
            listRequests({"whitebox", "encryption"}, plain));
    const std::string all = listRequests({}, plain);
    EXPECT_EQ(0U, all.find("Engine\n  QZaVen_GetVersion\n  QZaVen_strerror\n"));
    EXPECT_NE(all.npos, all.find("\n\nBase64\n  QZaven_crypto_base64_encode\n      strIn  "));
    EXPECT_NE(all.npos, all.find("      strgcmTagLen      optional, 4 to 16, default 16, text\n"));
    EXPECT_NE(all.npos, all.find("      strKeyPairType    optional, one of 1 3, text\n"));
    EXPECT_NE(all.npos,
              all.find("      strRsaPaddingE    optional, one of 0 1, default 0, text\n"));
    EXPECT_EQ("", listRequests({"nothing"}, plain));
}

TEST(Listings, CodesAreExplainedWhole)
{
    EXPECT_EQ(R"(-20084 PARAM_INVALID (plug-in)
  plug-in: parameter value is outside its allowed set or range
  likely cause  a number is out of range, or a flag, mode or type is none of its
                allowed digits
  what to do    corvane-host describe REQUEST lists the allowed values; blanks
                and leading zeros do not pass in flags
)",
              explain(*findErrorCode(-20084), plain));
    const std::string engines = explain(*findErrorCode(-30040), coloured);
    EXPECT_EQ(0U, engines.find("\033[1m-30040\033[0m ")) << engines;
    EXPECT_NE(engines.npos, engines.find(" (development engine)\n  ")) << engines;
    EXPECT_EQ("0 (plug-in and engine)\n  success: nothing is to be done\n", explainSuccess(plain));
}

TEST(Listings, AStatusIsExplainedByItselfAndByItsCodes)
{
    EXPECT_EQ(R"(503 (HTTP status)
  of /readyz: the host cannot take requests now; an error "busy" or "draining"
  says why a request was not taken

busy (host, HTTP status 503)
  the host has as much to do as it takes
  likely cause  more requests, sessions or bytes came at once than its limits
                allow
  what to do    wait as Retry-After says

draining (host, HTTP status 503)
  the host is stopping
  likely cause  it was told to stop before the request began
  what to do    try again later
)",
              explainStatus(503, plain));
    EXPECT_EQ("", explainStatus(299, plain));
    std::vector<unsigned> others;
    for (const StatusText& row : otherStatuses())
        others.push_back(row.status);
    EXPECT_EQ((std::vector<unsigned>{200, 304, 400, 413, 414, 431, 503, 505}), others);
}

TEST(Listings, AllCodesStandInColumns)
{
    const std::string list = listErrorCodes(plain);
    EXPECT_EQ(0U, list.find("errorCode of plug-in and engine\n"
                            "0       success\n"
                            "-20000  plug-in: output buffer could not be allocated\n"
                            "-20001  plug-in: required parameter is missing or empty\n"))
        << list;
    EXPECT_NE(list.npos,
              list.find("\n\nerrors of `corvane-host serve`, with the status of HTTP\n"
                        "malformed             400  the request is not of its form\n"
                        "wrong_type            400  a value has a type that the parameter does "
                        "not take\n"))
        << list;
    EXPECT_NE(list.npos, list.find("\nduplicate_parameter   400  a name is given twice\n")) << list;
    const std::string end =
        "\nworker_timeout        504  the request took longer than the host allows\n";
    EXPECT_EQ(list.size() - end.size(), list.find(end)) << list;
    EXPECT_EQ(0U, listErrorCodes(coloured).find("\033[1merrorCode of plug-in and engine\033[0m\n"));
}

// ---- For programs.

Json parameterOf(const char* request, const char* name)
{
    const Json json = toJson(*findRequest(request));
    for (const Json& parameter : json["parameters"])
        if (parameter["name"] == name)
            return parameter;
    return nullptr;
}

TEST(Renderings, ParametersHaveAllThatIsKnownOfTheirValues)
{
    EXPECT_EQ(R"({"name":"strIV","form":"base64",)"
              R"j("need":"required unless the mode is ECB (strMode 1)","required":false,)j"
              R"("requiredWhen":{"parameter":"strMode","isNot":"1"},"length":"iv","secret":true,)"
              R"("meaning":"initial value; ECB takes none"})",
              parameterOf("QZaven_crypto_encrypt", "strIV").dump());
    EXPECT_EQ(R"({"name":"strgcmTagLen","form":"text","need":"optional","required":false,)"
              R"("usedWhen":{"parameter":"strMode","is":"6"},"range":[4,16],"default":"16",)"
              R"("secret":false,"meaning":"length of the tag in bytes; GCM alone has one"})",
              parameterOf("QZaven_crypto_encrypt", "strgcmTagLen").dump());
    EXPECT_EQ(R"({"name":"strdata","form":"base64","need":"required","required":true,)"
              R"("wholeBlocks":"always","secret":true,"meaning":"the ciphertext"})",
              parameterOf("QZaven_crypto_decrypt", "strdata").dump());
    EXPECT_EQ(R"({"name":"strKey","form":"base64","need":"required","required":true,"bytes":16,)"
              R"("secret":true,"meaning":"the key"})",
              parameterOf("QZaven_wbsm4_encrypt", "strKey").dump());
    EXPECT_EQ(R"({"name":"strPassword","form":"text","need":"optional","required":false,)"
              R"("secret":true,"meaning":"password of the private key"})",
              parameterOf("QZaven_crypto_private_decrypt", "strPassword").dump());
    EXPECT_EQ(false, parameterOf("QZaven_ke_set_root_certificate", "strCa_file")["secret"]);
}

TEST(Renderings, ModesHaveTheirInitialValuesAndCiphersTheModesThatTheyLack)
{
    EXPECT_EQ(
        R"([{"value":"1","name":"ecb","text":"ECB","names":["ecb"],"iv":"none","wholeBlocks":true},)"
        R"({"value":"2","name":"cbc","text":"CBC","names":["cbc"],"iv":"block","wholeBlocks":true},)"
        R"({"value":"3","name":"cfb","text":"CFB","names":["cfb"],"iv":"block"},)"
        R"({"value":"4","name":"ofb","text":"OFB","names":["ofb"],"iv":"block"},)"
        R"({"value":"5","name":"ctr","text":"CTR","names":["ctr"],"iv":"block"},)"
        R"({"value":"6","name":"gcm","text":"GCM","names":["gcm"],)"
        R"("iv":{"min":1,"max":128,"usual":12}}])",
        parameterOf("QZaven_crypto_encrypt", "strMode")["choices"].dump());
    const Json ciphers = parameterOf("QZaven_crypto_encrypt", "strCipherAlg")["choices"];
    EXPECT_EQ(R"({"value":"7","name":"3des","text":"3DES",)"
              R"("names":["3des","des3","tdes","des-ede3"],"keyBytes":24,"blockBytes":8,)"
              R"("lackedModes":["5","6"]})",
              ciphers.back().dump());
    EXPECT_FALSE(ciphers.front().contains("lackedModes"));
}

TEST(Renderings, RequestsAndCodesAreWhole)
{
    EXPECT_EQ(
        R"({"id":4,"name":"QZaven_ke_new","group":"Key-exchange session",)"
        R"("summary":"Creates a session.","keywords":"handshake TLCP open start begin",)"
        R"("parameters":[],"results":[{"name":"Data","form":"handle","meaning":"the session"},)"
        R"({"name":"errorCode","form":"text","meaning":"0, or the code of the failure"}],)"
        R"("codes":[-20215],"retry":{"code":"leaves-a-session","text":"sending it again makes )"
        R"(another session; the first stays until it is freed, which corvane-host serve does )"
        R"(once it is idle"}})",
        toJson(*findRequest("QZaven_ke_new")).dump());
    EXPECT_EQ(R"({"code":"unknown_request","name":"unknown_request","source":"host",)"
              R"("text":"no request has this name",)"
              R"("cause":"the name is misspelt; names are case-sensitive",)"
              R"("remedy":"see /v1/catalogue for the names","status":404,"reasons":[)"
              R"({"name":"no_such_request","text":"there is no request of this name"},)"
              R"({"name":"misspelt_request","text":)"
              R"("there is no request of this name; did you mean {nearest}?"}]})",
              toJson(*findHostCode("unknown_request")).dump());
    const Json number = toJson(*findErrorCode(-20001));
    EXPECT_EQ(-20001, number["code"]);
    EXPECT_FALSE(number.contains("status"));
    EXPECT_FALSE(number.contains("reasons"));
    const Json all = catalogueJson();
    EXPECT_EQ(R"j({"code":"not_base64","text":"{field} is not Base64 (URL-safe)"})j",
              all["warnings"][4].dump());
    EXPECT_EQ(catalogue().size(), all["requests"].size());
    EXPECT_EQ(errorCodes().size(), all["codes"].size());
    EXPECT_EQ(hostCodes().size(), all["hostCodes"].size());
}

// ---- Paths.

TEST(HttpRoutes, APathHasOneNameOrNone)
{
    const auto routeOf = [](const char* path) {
        const Route* route = findRoute(path);
        return route == nullptr ? std::string() : std::string(route->pattern);
    };
    EXPECT_EQ("/v1/requests/{name}", routeOf("/v1/requests/x"));
    EXPECT_EQ("/v1/requests/{name}", routeOf("/v1/requests/"));
    EXPECT_EQ("/v1/peer/{step}", routeOf("/v1/peer/root"));
    EXPECT_EQ("/livez", routeOf("/livez"));
    for (const char* path : {"/v1/requests", "/v1/requests/x/", "/v1/requests/x/y", "/livez/",
                             "/live", "/", "", "/v1/batch/x"})
        EXPECT_EQ("", routeOf(path)) << path;
    for (const char* path : {"/v1", "/v1/", "/v1/x", "/metrics"})
        EXPECT_TRUE(needsToken(path)) << path;
    for (const char* path : {"/v1x", "/v", "/metrics/", "/livez", "/", ""})
        EXPECT_FALSE(needsToken(path)) << path;
}

}  // namespace
