// The MAC and key-derivation requests.
#include "support/handler_families.h"

using namespace support;

namespace {

Handler mac(const std::string& request, const std::string& alg, const std::string& function)
{
    Handler handler{request,
                    {{alg, "4"},
                     {"strKey", "MDEyMzQ1Njc4OWFiY2RlZg=="},
                     {"strdata", "Ynl0ZXMgb2YgYW4gaW5wdXQ="}},
                    "read " + alg + " strKey strdata\n" + function +
                        "(alg=4, key=\"0123456789abcdef\", in=\"bytes of an input\", out[80])\n"
                        "Data=\"Ynl0ZXMgb2YgYW4gaW5wdXQ=\"\n"
                        "errorCode=\"0\"\n",
                    {function}};
    handler.allocation = 81;
    return handler;
}

Handler hmac()
{
    return mac("QZaven_crypto_hmac", "strHashAlg", "aven_crypto_hmac");
}

Handler cmac()
{
    return mac("QZaven_crypto_cmac", "strCipherAlg", "aven_crypto_cmac");
}

Handler derive()
{
    Handler handler{
        "QZaven_crypto_kdf",
        {{"HashType", "4"}, {"srcdata", "a text-_of+/more characters"}, {"OutLen", "17"}},
        "read HashType srcdata OutLen\n"
        "aven_crypto_kdf(alg=4, in=\"a text-_of+/more characters\", out[17])\n"
        "Data=\"" +
            toUrlBase64(doubles::pattern(17)) +
            "\"\n"
            "errorCode=\"0\"\n",
        {"aven_crypto_kdf"}};
    handler.allocation = 18;
    return handler;
}

// Facts of both MACs.
class Mac : public ::testing::TestWithParam<Handler> {
protected:
    const Handler& handler = GetParam();
    const std::string alg = handler.parameters[0].first;
    const std::string function = handler.calls.back();

    Place place(const std::string& parameter, const std::string& argument)
    {
        return {handler.request, handler.parameters, parameter, function, argument};
    }
};

}  // namespace

// clang-format off
FAMILY(HandlerFrame,    hmac(), cmac(), derive());
FAMILY(EngineCodes,     hmac(), cmac(), derive());
FAMILY(EncodedOutput,   hmac(), cmac(), derive());
FAMILY(AllocatedOutput, hmac(), cmac(), derive());
FAMILY(Mac,             hmac(), cmac());
// clang-format on

// ---- HMAC and CMAC

TEST_P(Mac, AllParametersAreRequired)
{
    expectRequired(handler.request, handler.parameters, {alg, "strKey", "strdata"});
}

TEST_P(Mac, MissingParametersAreReportedBeforeABadAlg)
{
    Plugin plugin;
    for (const char* name : {"strKey", "strdata"})
        EXPECT_EQ(failure(MISSING),
                  plugin.reply(handler.request, with(without(handler.parameters, name), alg, "0")));
}

TEST_P(Mac, KeyAndDataAreDecoded)
{
    expectDecoded(place("strKey", "params.key"));
    expectDecoded(place("strdata", "in"));
}

TEST_P(Mac, KeyLengthIsTheDecodedOne)
{
    Plugin plugin;
    EXPECT_EQ(
        16, arriving(plugin, place("strKey", "params.key_len"), "MDEyMzQ1Njc4OWFiY2RlZg==").number);
    EXPECT_EQ(0, arriving(plugin, place("strKey", "params.key_len"), "=").number);
    EXPECT_EQ(5000,
              arriving(plugin, place("strKey", "params.key_len"), toBase64(std::string(5000, 'k')))
                  .number);
}

TEST_P(Mac, OutputBecomesUrlSafeBase64UpTo80Bytes)
{
    expectOutput(handler.request, handler.parameters, function, 80);
}

TEST_P(Mac, CapacityIsTheSameForLongInput)
{
    Plugin plugin;
    plugin.reply(handler.request,
                 with(handler.parameters, "strdata", toBase64(std::string(5000, 'x'))));
    EXPECT_EQ(80, plugin.journal.only(function)["out"].number);
    EXPECT_EQ(5000, plugin.journal.only(function)["in_len"].number);
}

TEST_P(Mac, SuccessWithoutBytesEndsWithCodeZero)
{
    Plugin plugin;
    plugin.engine.on(function).output = "";
    EXPECT_EQ(failure(0), plugin.reply(handler.request, handler.parameters));
}

TEST_P(Mac, DataThatDecodesToNothingReachesTheEngine)
{
    Plugin plugin;
    plugin.engine.on(function).output = "\xFB\xFF";
    EXPECT_EQ(success("-_8="),
              plugin.reply(handler.request, with(handler.parameters, "strdata", "=")));
}

TEST_P(Mac, AlgorithmOfTheOtherMacIsNotRead)
{
    Plugin plugin;
    const std::string other = alg == "strHashAlg" ? "strCipherAlg" : "strHashAlg";
    EXPECT_EQ(failure(MISSING),
              plugin.reply(handler.request, with(without(handler.parameters, alg), other, "4")));
}

TEST(CryptoHmac, HashAlgIsANumberFrom1To6)
{
    expectNumber(
        {"QZaven_crypto_hmac", hmac().parameters, "strHashAlg", "aven_crypto_hmac", "params.alg"},
        1, 6);
}

TEST(CryptoCmac, CipherAlgIsANumberFrom1To7)
{
    expectNumber(
        {"QZaven_crypto_cmac", cmac().parameters, "strCipherAlg", "aven_crypto_cmac", "params.alg"},
        1, 7);
}

// ---- Key derivation

TEST(CryptoKdf, AllParametersAreRequired)
{
    expectRequired("QZaven_crypto_kdf", derive().parameters, {"HashType", "srcdata", "OutLen"});
}

TEST(CryptoKdf, MissingParametersAreReportedBeforeInvalidOnes)
{
    Plugin plugin;
    const Pairs good = derive().parameters;
    for (const char* name : {"srcdata", "OutLen"})
        EXPECT_EQ(failure(MISSING),
                  plugin.reply("QZaven_crypto_kdf", with(without(good, name), "HashType", "7")));
    for (const char* name : {"HashType", "srcdata"})
        EXPECT_EQ(failure(MISSING),
                  plugin.reply("QZaven_crypto_kdf", with(without(good, name), "OutLen", "-1")));
}

TEST(CryptoKdf, HashTypeIsANumberFrom0To6)
{
    expectNumber({"QZaven_crypto_kdf", derive().parameters, "HashType", "aven_crypto_kdf", "alg"},
                 0, 6);
}

TEST(CryptoKdf, OutLenIsANumberFrom0To65535)
{
    expectNumber({"QZaven_crypto_kdf", derive().parameters, "OutLen", "aven_crypto_kdf", "out_len"},
                 0, 65535);
}

TEST(CryptoKdf, SourceIsTakenByteForByte)
{
    expectUnchanged({"QZaven_crypto_kdf", derive().parameters, "srcdata", "aven_crypto_kdf", "in"});
}

TEST(CryptoKdf, OutputOfAnyLengthBecomesUrlSafeBase64)
{
    Plugin plugin;
    std::string bytes;
    while (bytes.size() < 65535)
        bytes += text("\xFB\xFF\xBF\0a");
    plugin.engine.on("aven_crypto_kdf").output = bytes;
    for (const size_t length : {1u, 2u, 3u, 16u, 65534u, 65535u}) {
        SCOPED_TRACE(length);
        EXPECT_EQ(success(toUrlBase64(bytes.substr(0, length))),
                  plugin.reply("QZaven_crypto_kdf",
                               with(derive().parameters, "OutLen", std::to_string(length))));
        EXPECT_TRUE(plugin.journal.only("aven_crypto_kdf")["out"].zeroed);
    }
}

// The output has the wanted length whatever the engine writes.
TEST(CryptoKdf, BytesThatTheEngineLeavesAloneAreZeros)
{
    Plugin plugin;
    plugin.engine.on("aven_crypto_kdf").output = "";
    EXPECT_EQ(success("AAAA"),
              plugin.reply("QZaven_crypto_kdf", with(derive().parameters, "OutLen", "3")));
}

TEST(CryptoKdf, NoOutputIsAskedForAndEndsWithTheEnginesCode)
{
    Plugin plugin;
    const Pairs none = with(derive().parameters, "OutLen", "0");
    EXPECT_EQ(failure(0), plugin.reply("QZaven_crypto_kdf", none));
    EXPECT_EQ("aven_crypto_kdf(alg=4, in=\"a text-_of+/more characters\", out[0])\n",
              plugin.engineCalls());
    EXPECT_FALSE(plugin.journal.only("aven_crypto_kdf")["out"].null);

    plugin.engine.on("aven_crypto_kdf").code = -7;
    EXPECT_EQ(failure(-7), plugin.reply("QZaven_crypto_kdf", none));
}
