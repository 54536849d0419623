// The requests on an established key-exchange channel.
#include "support/handler_families.h"

using namespace support;

namespace {

// Encryption and decryption offer 64 bytes more than the input; the MACs ask first.
Handler channel(const std::string& request, const std::string& data, const std::string& function,
                bool query)
{
    const std::string call = function + "(ke=12345, in=\"bytes of an input\", ";
    Handler handler{request,
                    {{"strKe", "12345"}, {data, "Ynl0ZXMgb2YgYW4gaW5wdXQ="}},
                    "read strKe " + data + "\n" + (query ? call + "out=null)\n" : "") + call +
                        (query ? "out[17])\n" : "out[81])\n") +
                        "Data=\"Ynl0ZXMgb2YgYW4gaW5wdXQ=\"\n"
                        "errorCode=\"0\"\n",
                    {function}};
    return handler;
}

Handler encrypt()
{
    return channel("QZaven_ke_encrypt", "strdata", "aven_ke_encrypt", false);
}

Handler decrypt()
{
    return channel("QZaven_ke_decrypt", "strcipher", "aven_ke_decrypt", false);
}

Handler hmac()
{
    return channel("QZaven_ke_hmac", "strdata", "aven_ke_hmac", true);
}

Handler cmac()
{
    return channel("QZaven_ke_cmac", "strdata", "aven_ke_cmac", true);
}

// Facts of all four.
class Channel : public ::testing::TestWithParam<Handler> {
protected:
    const Handler& handler = GetParam();
    const std::string data = handler.parameters[1].first;
    const std::string function = handler.calls.back();
};

// Of those that offer 64 bytes more than the input.
class ChannelCipher : public Channel {};

// Of those that ask the engine for the length first.
class ChannelMac : public Channel {};

}  // namespace

// clang-format off
FAMILY(HandlerFrame,  encrypt(), decrypt(), hmac(), cmac());
FAMILY(EngineCodes,   encrypt(), decrypt(), hmac(), cmac());
FAMILY(EncodedOutput, encrypt(), decrypt(), hmac(), cmac());
FAMILY(Channel,       encrypt(), decrypt(), hmac(), cmac());
FAMILY(ChannelCipher, encrypt(), decrypt());
FAMILY(ChannelMac,                          hmac(), cmac());
// clang-format on

TEST_P(Channel, HandleIsRequired)
{
    expectRequired(handler.request, handler.parameters, {"strKe"});
}

TEST_P(Channel, MissingHandleIsReportedWithoutDataToo)
{
    Plugin plugin;
    EXPECT_EQ(failure(MISSING), plugin.reply(handler.request, {}));
    EXPECT_EQ("", plugin.engineCalls());
}

TEST_P(Channel, HandleIsTakenUnchecked)
{
    Plugin plugin;
    const Pairs handles = {
        {"0", "null"}, {"abc", "null"},
        {" ", "null"}, {text("\0"), "null"},
        {"-1", "-1"},  {"12x", "12"},
        {" 12", "12"}, {"9223372036854775807", "9223372036854775807"},
    };
    for (const auto& [given, handle] : handles) {
        SCOPED_TRACE(quoted(given));
        EXPECT_EQ(success("Ynl0ZXMgb2YgYW4gaW5wdXQ="),
                  plugin.reply(handler.request, with(handler.parameters, "strKe", given)));
        EXPECT_EQ(0u, plugin.engineCalls().find(function + "(ke=" + handle + ", "));
    }
}

TEST_P(Channel, DataIsDecoded)
{
    expectDecoded({handler.request, handler.parameters, data, function, "in"});
}

// Without data the engine is asked all the same, for zero bytes.
TEST_P(Channel, DataIsOptional)
{
    Plugin plugin;
    for (const Pairs& parameters :
         {without(handler.parameters, data), with(handler.parameters, data, "")}) {
        EXPECT_EQ(failure(0), plugin.reply(handler.request, parameters));
        EXPECT_LE(1u, plugin.journal.count(function));
        EXPECT_EQ(0, plugin.journal.at(function)["in_len"].number);
        EXPECT_FALSE(plugin.journal.at(function)["in"].null);
    }
    plugin.engine.on(function).code = -7;
    EXPECT_EQ(failure(-7), plugin.reply(handler.request, without(handler.parameters, data)));
}

TEST_P(Channel, OutputForNoDataIsASuccess)
{
    Plugin plugin;
    plugin.engine.onQuery(function).reported = 2;
    plugin.engine.on(function).output = "\xFB\xFF";
    EXPECT_EQ(success("-_8="), plugin.reply(handler.request, without(handler.parameters, data)));
}

TEST_P(Channel, DataUnderTheOtherNameIsNotRead)
{
    Plugin plugin;
    const std::string other = data == "strdata" ? "strcipher" : "strdata";
    EXPECT_EQ(failure(0),
              plugin.reply(handler.request, {{"strKe", "1"}, {other, "Ynl0ZXMgb2YgYW4gaW5wdXQ="}}));
    EXPECT_EQ("", plugin.journal.at(function)["in"].bytes);
}

TEST_P(Channel, SuccessWithoutBytesEndsWithCodeZero)
{
    Plugin plugin;
    plugin.engine.on(function).output = "";
    EXPECT_EQ(failure(0), plugin.reply(handler.request, handler.parameters));
}

// The output buffers of this family are not tested; a failure ends in the engine
// binding with the code held, which is 0.
TEST_P(Channel, BufferThatCannotBeAllocatedEndsWithCodeZero)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    Plugin plugin;
    const size_t size = 4000;
    plugin.engine.onQuery(function).reported = size + 64;
    EXPECT_TRUE(requestWithFault(
        plugin, handler.request, with(handler.parameters, data, toBase64(std::string(size, 'x'))),
        [&] { return new AllocationFault(AllocationFault::exactly(plugin.journal, size + 65)); }));
    EXPECT_EQ(failure(0), plugin.resultsWritten());
    for (const Call& call : plugin.journal.calls)
        if (call.function == function) {
            EXPECT_TRUE(call["out"].null);
        }
}

TEST_P(ChannelCipher, OutputBecomesUrlSafeBase64UpTo64BytesMore)
{
    expectOutput(handler.request, handler.parameters, function, 17 + 64);
}

TEST_P(ChannelCipher, CapacityFollowsTheInput)
{
    Plugin plugin;
    for (const size_t size : {1u, 10u, 64u, 1000u, 100000u}) {
        plugin.reply(handler.request,
                     with(handler.parameters, data, toBase64(std::string(size, 'x'))));
        EXPECT_EQ(static_cast<long long>(size) + 64, plugin.journal.only(function)["out"].number);
        EXPECT_TRUE(plugin.journal.only(function)["out"].zeroed);
    }
}

TEST_P(ChannelMac, OutputBecomesUrlSafeBase64UpToTheQueriedLength)
{
    Plugin plugin;
    doubles::Step& step = plugin.engine.on(function);
    plugin.engine.onQuery(function).reported = 4;
    step.output = text("\xFB\xFF\0\xFB");
    EXPECT_EQ(success("-_8A-w=="), plugin.reply(handler.request, handler.parameters));
    EXPECT_EQ(4, plugin.journal.at(function, 1)["out"].number);
    for (const long long told : {5LL, 4096LL, static_cast<long long>(UINT_MAX)}) {
        step.reported = told;
        EXPECT_EQ(success("-_8A-w=="), plugin.reply(handler.request, handler.parameters));
    }
    step.reported = 2;
    EXPECT_EQ(success("-_8="), plugin.reply(handler.request, handler.parameters));
}

TEST_P(ChannelMac, FailedQueryEndsTheRequest)
{
    Plugin plugin;
    plugin.engine.onQuery(function).code = -9;
    plugin.engine.onQuery(function).reported = 4;
    EXPECT_EQ(failure(-9), plugin.reply(handler.request, handler.parameters));
    EXPECT_EQ(1u, plugin.journal.count(function));

    plugin.engine.onQuery(function).code = 0;
    plugin.engine.onQuery(function).throws = true;
    EXPECT_EQ(failure(0), plugin.reply(handler.request, handler.parameters));
    EXPECT_EQ(1u, plugin.journal.count(function));
}

TEST_P(ChannelMac, QueryThatReportsNoBytesEndsWithCodeZero)
{
    Plugin plugin;
    plugin.engine.onQuery(function).reported = 0;
    EXPECT_EQ(failure(0), plugin.reply(handler.request, handler.parameters));
    EXPECT_EQ(2u, plugin.journal.count(function));
    EXPECT_EQ(0, plugin.journal.at(function, 1)["out"].number);
}
