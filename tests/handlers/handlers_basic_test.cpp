// The version, the error text and the two Base64 requests.
#include "support/handler_families.h"

using namespace support;

namespace {

Handler version()
{
    Handler handler{"QZaVen_GetVersion",
                    {},
                    "aven_version()\n"
                    "Data=\"engine double 1.0\"\n"
                    "errorCode=\"0\"\n",
                    {"aven_version"}};
    handler.engineUnbound = "aven_version()\n";
    handler.codeIfLacking = 0;
    return handler;
}

Handler errorText()
{
    Handler handler{"QZaVen_strerror",
                    {{"strErr", "-20001 (as it was told)"}},
                    "read strErr\n"
                    "aven_strerror(code=-20001)\n"
                    "Data=\"text of -20001\"\n",
                    {"aven_strerror"}};
    handler.results = {"Data"};
    return handler;
}

Handler base64Encode()
{
    Handler handler{"QZaven_crypto_base64_encode",
                    {{"strIn", "bytes of a longer input"}},
                    "read strIn\n"
                    "aven_crypto_base64_encode(in=\"bytes of a longer input\", out=null)\n"
                    "aven_crypto_base64_encode(in=\"bytes of a longer input\", out[23])\n"
                    "Data=\"bytes of a longer input\"\n"
                    "errorCode=\"0\"\n",
                    {"aven_crypto_base64_encode"}};
    return handler;
}

Handler base64Decode()
{
    Handler handler{"QZaven_crypto_base64_Decode",
                    {{"strIn", "Ynl0ZXMgb2YgYW4gaW5wdXQ"}},
                    "read strIn\n"
                    "aven_crypto_base64_decode(in=\"Ynl0ZXMgb2YgYW4gaW5wdXQ\", out=null)\n"
                    "aven_crypto_base64_decode(in=\"Ynl0ZXMgb2YgYW4gaW5wdXQ\", out[23])\n"
                    "Data=\"Ynl0ZXMgb2YgYW4gaW5wdXQ\"\n"
                    "errorCode=\"0\"\n",
                    {"aven_crypto_base64_decode"}};
    handler.writesUnencodable = false;
    return handler;
}

// Facts of both Base64 directions.
class Base64Request : public ::testing::TestWithParam<Handler> {
protected:
    const Handler& handler = GetParam();
    const std::string function = handler.calls.back();
};

}  // namespace

// clang-format off
FAMILY(HandlerFrame,  version(), errorText(), base64Encode(), base64Decode());
FAMILY(EngineCodes,                           base64Encode(), base64Decode());
FAMILY(EncodedOutput,                                         base64Decode());
FAMILY(Base64Request,                         base64Encode(), base64Decode());
// clang-format on

// ---- Version

TEST(GetVersion, RequestParametersAreIgnored)
{
    Plugin plugin;
    EXPECT_EQ(version().transcript,
              plugin.play("QZaVen_GetVersion", {{"strErr", "1"}, {"strIn", "a"}, {"Data", "b"}}));
}

TEST(GetVersion, TextIsNotEncoded)
{
    Plugin plugin;
    plugin.engine.on("aven_version").text = "1.0+/ \xC3\xA9%";
    EXPECT_EQ(success("1.0+/ \xC3\xA9%"), plugin.reply("QZaVen_GetVersion"));
}

TEST(GetVersion, EmptyOrNullTextFailsWithTheBindingsCode)
{
    Plugin plugin;
    plugin.engine.on("aven_version").text = "";
    EXPECT_EQ(failure(0), plugin.reply("QZaVen_GetVersion"));
    plugin.engine.on("aven_version").nullText = true;
    EXPECT_EQ(failure(0), plugin.reply("QZaVen_GetVersion"));
}

TEST(GetVersion, UnloadedEngineIsReportedAfterASuccessToo)
{
    Plugin plugin("", paramsDouble());
    EXPECT_EQ(failure(NOT_LOADED), plugin.reply("QZaVen_GetVersion"));
    EXPECT_EQ(failure(NOT_LOADED), plugin.reply("QZaVen_GetVersion"));
}

// ---- Error text

TEST(Strerror, WithoutStrErrOnlyAnEmptyDataIsWritten)
{
    const Pairs reply = {{"Data", ""}};
    expectRequired("QZaVen_strerror", errorText().parameters, {"strErr"}, reply);
}

TEST(Strerror, CodeIsReadUpToItsFirstForeignCharacter)
{
    Plugin plugin;
    const std::vector<std::pair<std::string, int>> codes = {
        {"0", 0},
        {"5", 5},
        {"-20001", -20001},
        {"-20001x", -20001},
        {" +7", 7},
        {"0x10", 0},
        {"abc", 0},
        {"-2147483648", INT_MIN},
        {"2147483647", INT_MAX},
        {text("12\0"
              "34"),
         12},
        {text("\0"), 0},
    };
    for (const auto& [given, code] : codes) {
        SCOPED_TRACE(quoted(given));
        const Pairs reply = {{"Data", "text of " + std::to_string(code)}};
        EXPECT_EQ(reply, plugin.reply("QZaVen_strerror", {{"strErr", given}}));
        EXPECT_EQ("aven_strerror(code=" + std::to_string(code) + ")\n", plugin.engineCalls());
    }
}

TEST(Strerror, EmptyOrNullTextIsWritten)
{
    Plugin plugin;
    const Pairs reply = {{"Data", ""}};
    plugin.engine.on("aven_strerror").text = "";
    EXPECT_EQ(reply, plugin.reply("QZaVen_strerror", {{"strErr", "1"}}));
    plugin.engine.on("aven_strerror").nullText = true;
    EXPECT_EQ(reply, plugin.reply("QZaVen_strerror", {{"strErr", "1"}}));
    EXPECT_EQ("aven_strerror(code=1)\n", plugin.engineCalls());
}

TEST(Strerror, TextIsNotEncoded)
{
    Plugin plugin;
    plugin.engine.on("aven_strerror").text = "a+b/c d%\n\xFF";
    const Pairs reply = {{"Data", "a+b/c d%\n\xFF"}};
    EXPECT_EQ(reply, plugin.reply("QZaVen_strerror", {{"strErr", "1"}}));
}

// ---- Base64, both directions

TEST(Base64Encode, StrInIsRequired)
{
    expectRequired("QZaven_crypto_base64_encode", base64Encode().parameters, {"strIn"});
}

TEST(Base64Decode, StrInIsRequired)
{
    expectRequired("QZaven_crypto_base64_Decode", base64Decode().parameters, {"strIn"});
}

// Either direction needs both of the engine's functions.
TEST(Base64Encode, LackOfTheDecoderIsReported)
{
    Plugin plugin(engineLacking("aven_crypto_base64_decode"));
    EXPECT_EQ(failure(NOT_LOADED), plugin.reply("QZaven_crypto_base64_encode", {{"strIn", "abc"}}));
    EXPECT_EQ("", plugin.engineCalls());
}

TEST(Base64Decode, LackOfTheEncoderIsReported)
{
    Plugin plugin(engineLacking("aven_crypto_base64_encode"));
    EXPECT_EQ(failure(NOT_LOADED),
              plugin.reply("QZaven_crypto_base64_Decode", {{"strIn", "YWJj"}}));
    EXPECT_EQ("", plugin.engineCalls());
}

TEST(Base64Encode, InputArrivesAsItWasSent)
{
    expectUnchanged(
        {"QZaven_crypto_base64_encode", {}, "strIn", "aven_crypto_base64_encode", "in"});
}

TEST(Base64Decode, InputArrivesInTheStandardAlphabetWithoutAddedPadding)
{
    expectRewritten(
        {"QZaven_crypto_base64_Decode", {}, "strIn", "aven_crypto_base64_decode", "in"});
}

namespace {

// Data when the engine delivers an output in answer to "input".
std::string delivered(const std::string& request, const std::string& function,
                      const std::string& output)
{
    Plugin plugin;
    plugin.engine.onQuery(function).reported = static_cast<long long>(output.size());
    plugin.engine.on(function).output = output;
    const Pairs reply = plugin.reply(request, {{"strIn", "input"}});
    EXPECT_EQ(function + "(in=\"input\", out=null)\n" + function + "(in=\"input\", out[" +
                  std::to_string(output.size()) + "])\n",
              plugin.engineCalls());
    EXPECT_EQ(success(reply.at(0).second), reply);
    return reply.at(0).second;
}

}  // namespace

TEST(Base64Encode, OutputBecomesUrlSafeAndIsNotEscaped)
{
    const Pairs outputs = {
        {"+/8=", "-_8="},     {"/+==", "_-=="}, {"a++//b", "a--__b"},         {"-_8=", "-_8="},
        {"AA\nAA", "AA\nAA"}, {"%*", "%*"},     {text("+\0/"), text("-\0_")}, {"", ""},
    };
    for (const auto& [output, data] : outputs)
        EXPECT_EQ(quoted(data), quoted(delivered("QZaven_crypto_base64_encode",
                                                 "aven_crypto_base64_encode", output)));
}

TEST(Base64Decode, OutputIsEscapedTwice)
{
    const Pairs outputs = {
        {"a b+/=", "a%2520b%252B%252F%253D"},
        {"-_.~!*'()", "-_.~!*'()"},
        {"Az09", "Az09"},
        {text("\0\n\x7F"), "%2500%250A%257F"},
        {"\xFB\xFF", "%25FB%25FF"},
        {"%25", "%252525"},
        {"\"\\&", "%2522%255C%2526"},
        {"", ""},
    };
    for (const auto& [output, data] : outputs)
        EXPECT_EQ(data,
                  delivered("QZaven_crypto_base64_Decode", "aven_crypto_base64_decode", output));
}

TEST(Base64Encode, OutputBeyondTheQueriedLengthIsCut)
{
    Plugin plugin;
    plugin.engine.onQuery("aven_crypto_base64_encode").reported = 3;
    plugin.engine.on("aven_crypto_base64_encode").output = "+/+/+/";
    for (const long long told : {3LL, 4LL, 6LL, 1LL << 20, static_cast<long long>(UINT_MAX)}) {
        plugin.engine.on("aven_crypto_base64_encode").reported = told;
        EXPECT_EQ(success("-_-"), plugin.reply("QZaven_crypto_base64_encode", {{"strIn", "abc"}}));
    }
    plugin.engine.on("aven_crypto_base64_encode").reported = 1;
    EXPECT_EQ(success("-"), plugin.reply("QZaven_crypto_base64_encode", {{"strIn", "abc"}}));
}

TEST_P(Base64Request, FailedQueryEndsTheRequest)
{
    Plugin plugin;
    plugin.engine.onQuery(function).code = -9;
    plugin.engine.onQuery(function).reported = 3;
    EXPECT_EQ(failure(-9), plugin.reply(handler.request, handler.parameters));
    EXPECT_EQ(1u, plugin.journal.count(function));

    plugin.engine.onQuery(function).throws = true;
    plugin.engine.onQuery(function).code = 0;
    EXPECT_EQ(failure(0), plugin.reply(handler.request, handler.parameters));
    EXPECT_EQ(1u, plugin.journal.count(function));
}

TEST_P(Base64Request, QueryThatReportsNoBytesIsFollowedByTheCall)
{
    Plugin plugin;
    plugin.engine.onQuery(function).reported = 0;
    EXPECT_EQ(success(""), plugin.reply(handler.request, handler.parameters));
    EXPECT_EQ(2u, plugin.journal.count(function));
    EXPECT_EQ(0, plugin.journal.at(function, 1)["out"].number);
    EXPECT_FALSE(plugin.journal.at(function, 1)["out"].null);
}

TEST_P(Base64Request, BufferThatCannotBeAllocatedEndsWithCodeZero)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    Plugin plugin;
    plugin.engine.onQuery(function).reported = 3777;
    EXPECT_TRUE(requestWithFault(plugin, handler.request, handler.parameters, [&] {
        return new AllocationFault(AllocationFault::exactly(plugin.journal, 3778));
    }));
    EXPECT_EQ(failure(0), plugin.resultsWritten());
    EXPECT_EQ(1u, plugin.journal.count(function));
}
