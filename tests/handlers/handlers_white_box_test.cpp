// The white-box SM4 requests.
#include "support/handler_families.h"

using namespace support;

namespace {

// The engine may add 32 bytes when it encrypts and none when it decrypts.
Handler whiteBox(const std::string& request, const std::string& function, size_t margin)
{
    Handler handler{request,
                    {{"strKey", "MDEyMzQ1Njc4OWFiY2RlZg=="},
                     {"strIV", "aXYgb2YgMTYgYnl0ZXMuLg=="},
                     {"strdata", "Ynl0ZXMgb2YgYW4gaW5wdXQ="}},
                    "read strKey strIV strdata\n" + function +
                        "(kind=1, key=\"0123456789abcdef\", iv=\"iv of 16 bytes..\", "
                        "in=\"bytes of an input\", out[" +
                        std::to_string(17 + margin) +
                        "])\n"
                        "Data=\"Ynl0ZXMgb2YgYW4gaW5wdXQ=\"\n"
                        "errorCode=\"0\"\n",
                    {function}};
    handler.allocation = 17 + margin + 1;
    return handler;
}

Handler encrypt()
{
    return whiteBox("QZaven_wbsm4_encrypt", "aven_wbsm4_encrypt", 32);
}

Handler decrypt()
{
    return whiteBox("QZaven_wbsm4_decrypt", "aven_wbsm4_decrypt", 0);
}

// Facts of both directions.
class Wbsm4 : public ::testing::TestWithParam<Handler> {
protected:
    const Handler& handler = GetParam();
    const Pairs& good = handler.parameters;
    const std::string function = handler.calls.back();
};

}  // namespace

// clang-format off
FAMILY(HandlerFrame,    encrypt(), decrypt());
FAMILY(EngineCodes,     encrypt(), decrypt());
FAMILY(EncodedOutput,   encrypt(), decrypt());
FAMILY(AllocatedOutput, encrypt(), decrypt());
FAMILY(Wbsm4,           encrypt(), decrypt());
// clang-format on

TEST_P(Wbsm4, AllParametersAreRequired)
{
    expectRequired(handler.request, good, {"strKey", "strIV", "strdata"});
}

TEST_P(Wbsm4, KeyAndIvDecodeToExactly16Bytes)
{
    Plugin plugin;
    for (const auto& [parameter, argument] : Pairs{{"strKey", "key"}, {"strIV", "iv"}}) {
        const Place place = {handler.request, good, parameter, function, argument};
        for (const size_t size : {1u, 8u, 15u, 17u, 24u, 32u, 33u, 4112u, 65552u})
            expectRefused(plugin, place, toUrlBase64(std::string(size, 'k')));
        for (const std::string& refused :
             {text("="), text("Y"), text("!"), text("0123456789abcdef"),
              text("MDEyMzQ1Njc4OWFi\nY2RlZg=="), text(" MDEyMzQ1Njc4OWFiY2RlZg=="),
              text("MDEyMzQ1=Njc4OWFiY2RlZg==")})
            expectRefused(plugin, place, refused);

        // The last one's rest is not looked at.
        for (const char* accepted :
             {"----____AGFiY2RlZmdoaQ==", "++++////AGFiY2RlZmdoaQ==", "-+-+_/_/AGFiY2RlZmdoaQ==",
              "----____AGFiY2RlZmdoaQ", "----____AGFiY2RlZmdoaQ==\nrest"}) {
            SCOPED_TRACE(parameter + "=" + accepted);
            EXPECT_EQ(quoted(text("\xFB\xEF\xBE\xFF\xFF\xFF\0abcdefghi")),
                      quoted(arriving(plugin, place, accepted).bytes));
        }
    }
}

TEST_P(Wbsm4, DataIsDecoded)
{
    expectDecoded({handler.request, good, "strdata", function, "in"});
}

TEST_P(Wbsm4, MissingParametersAreReportedBeforeBadLengths)
{
    Plugin plugin;
    for (const auto& [missing, bad] : Pairs{{"strdata", "strKey"},
                                            {"strdata", "strIV"},
                                            {"strIV", "strKey"},
                                            {"strKey", "strIV"}}) {
        SCOPED_TRACE(missing + " missing, " + bad + " bad");
        EXPECT_EQ(failure(MISSING),
                  plugin.reply(handler.request, with(without(good, missing), bad, "YWJj")));
    }
}

TEST_P(Wbsm4, BadLengthsAreReportedBeforeDataThatDecodesToNothing)
{
    Plugin plugin;
    EXPECT_EQ(failure(INVALID),
              plugin.reply(handler.request, with(with(good, "strdata", "="), "strKey", "YWJj")));
}

TEST_P(Wbsm4, DataUnderTheNameOfTheChannelRequestIsNotRead)
{
    Plugin plugin;
    EXPECT_EQ(failure(MISSING), plugin.reply(handler.request, with(without(good, "strdata"),
                                                                   "strcipher", "Ynl0ZXM=")));
    EXPECT_EQ("", plugin.engineCalls());
}

TEST_P(Wbsm4, SuccessWithoutBytesEndsWithCodeZero)
{
    Plugin plugin;
    plugin.engine.on(function).output = "";
    EXPECT_EQ(failure(0), plugin.reply(handler.request, good));
}

TEST_P(Wbsm4, OutputBecomesUrlSafeBase64UpToTheCapacity)
{
    expectOutput(handler.request, good, function, handler.allocation - 1);
}

TEST_P(Wbsm4, CapacityFollowsTheInput)
{
    Plugin plugin;
    const size_t margin = handler.allocation - 1 - 17;
    for (const size_t size : {1u, 16u, 1000u, 100000u}) {
        plugin.reply(handler.request, with(good, "strdata", toBase64(std::string(size, 'x'))));
        EXPECT_EQ(static_cast<long long>(size + margin),
                  plugin.journal.only(function)["out"].number);
        EXPECT_TRUE(plugin.journal.only(function)["out"].zeroed);
    }
}

TEST_P(Wbsm4, DataThatDecodesToNothingReachesTheEngine)
{
    Plugin plugin;
    EXPECT_EQ(failure(0), plugin.reply(handler.request, with(good, "strdata", "=")));
    EXPECT_EQ(0, plugin.journal.only(function)["in_len"].number);
    EXPECT_FALSE(plugin.journal.only(function)["in"].null);
    EXPECT_FALSE(plugin.journal.only(function)["out"].null);
}
