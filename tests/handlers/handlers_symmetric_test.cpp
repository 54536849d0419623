// The symmetric cipher requests: encryption, decryption, key generation.
#include "support/handler_families.h"

using namespace support;

namespace {

constexpr char ENCRYPT[] = "QZaven_crypto_encrypt";
constexpr char DECRYPT[] = "QZaven_crypto_decrypt";
constexpr char GENERATE[] = "QZaven_crypto_gen_symmkey";

const std::vector<std::string> WITH_TAG = {"Data", "errorCode", "gcmOutTag"};

const Pairs COMMON = {{"strCipherAlg", "4"},
                      {"strMode", "2"},
                      {"strKey", "MDEyMzQ1Njc4OWFiY2RlZg=="},
                      {"strIV", "aXYgb2YgMTYgYnl0ZXMuLg=="},
                      {"strdata", "Ynl0ZXMgb2YgYW4gaW5wdXQ="}};

const Pairs GCM_ENCRYPTION = with(with(COMMON, "strMode", "6"), "straad", "YWRkaXRpb25hbCBkYXRh");
const Pairs GCM_DECRYPTION = with(GCM_ENCRYPTION, "strtag", "dGFnIG9mIDE2IGJ5dGVzLg==");

constexpr char READ_TO_ENCRYPT[] =
    "read strCipherAlg strMode strCipherPadding strKey strIV straad strdata strgcmTagLen\n";
constexpr char READ_TO_DECRYPT[] =
    "read strCipherAlg strMode strCipherPadding strKey strIV straad strtag strdata\n";

Handler encrypt()
{
    Handler handler{ENCRYPT,
                    COMMON,
                    std::string(READ_TO_ENCRYPT) +
                        "aven_crypto_encrypt(alg=4, mode=2, padding=0, key=\"0123456789abcdef\", "
                        "iv=\"iv of 16 bytes..\", aad=null, tag_len=0, tag=null, "
                        "in=\"bytes of an input\", out[145])\n"
                        "Data=\"Ynl0ZXMgb2YgYW4gaW5wdXQ=\"\n"
                        "errorCode=\"0\"\n"
                        "gcmOutTag=\"\"\n",
                    {"aven_crypto_encrypt"}};
    handler.results = WITH_TAG;
    handler.allocation = 146;
    return handler;
}

Handler encryptGcm()
{
    Handler handler = encrypt();
    handler.parameters = GCM_ENCRYPTION;
    handler.variant = "_gcm";
    handler.transcript = std::string(READ_TO_ENCRYPT) +
                         "aven_crypto_encrypt(alg=4, mode=6, padding=0, key=\"0123456789abcdef\", "
                         "iv=\"iv of 16 bytes..\", aad=\"additional data\", tag_len=16, tag[512], "
                         "in=\"bytes of an input\", out[145])\n"
                         "Data=\"Ynl0ZXMgb2YgYW4gaW5wdXQ=\"\n"
                         "errorCode=\"0\"\n"
                         "gcmOutTag=\"AQIDBAUGBwgJCgsMDQ4PEA==\"\n";
    return handler;
}

Handler decrypt()
{
    Handler handler{DECRYPT,
                    COMMON,
                    std::string(READ_TO_DECRYPT) +
                        "aven_crypto_decrypt(alg=4, mode=2, padding=0, key=\"0123456789abcdef\", "
                        "iv=\"iv of 16 bytes..\", aad=null, tag=null, "
                        "in=\"bytes of an input\", out[81])\n"
                        "Data=\"Ynl0ZXMgb2YgYW4gaW5wdXQ=\"\n"
                        "errorCode=\"0\"\n",
                    {"aven_crypto_decrypt"}};
    handler.allocation = 82;
    return handler;
}

Handler decryptGcm()
{
    Handler handler = decrypt();
    handler.parameters = GCM_DECRYPTION;
    handler.variant = "_gcm";
    handler.transcript =
        std::string(READ_TO_DECRYPT) +
        "aven_crypto_decrypt(alg=4, mode=6, padding=0, key=\"0123456789abcdef\", "
        "iv=\"iv of 16 bytes..\", aad=\"additional data\", tag=\"tag of 16 bytes.\", "
        "in=\"bytes of an input\", out[81])\n"
        "Data=\"Ynl0ZXMgb2YgYW4gaW5wdXQ=\"\n"
        "errorCode=\"0\"\n";
    return handler;
}

Handler generate()
{
    return {GENERATE,
            {{"strCipherAlg", "0000000000000004"}},
            "read strCipherAlg\n"
            "aven_crypto_gen_symmkey(type=4, out[1024])\n"
            "Data=\"AQIDBAUGBwgJCgsMDQ4PEA==\"\n"
            "errorCode=\"0\"\n",
            {"aven_crypto_gen_symmkey"}};
}

// Facts of both directions; the parameter is the request in its tagged mode.
class SymmCipher : public ::testing::TestWithParam<Handler> {
protected:
    const Handler& handler = GetParam();
    const std::string function = handler.calls.back();
    const Pairs tagged = handler.parameters;  // mode 6
    const Pairs plain = without(without(with(tagged, "strMode", "2"), "straad"), "strtag");
    const Pairs refusal = handler.failed(INVALID);

    Place place(const std::string& parameter, const std::string& argument)
    {
        return {handler.request, tagged, parameter, function, argument, refusal};
    }

    // A block's field when the request has these parameters.
    doubles::Argument field(const Pairs& parameters, const std::string& name)
    {
        Plugin plugin;
        plugin.reply(handler.request, parameters);
        return plugin.journal.only(function)[name];
    }
};

}  // namespace

// clang-format off
FAMILY(HandlerFrame,    encrypt(), encryptGcm(), decrypt(), decryptGcm(), generate());
FAMILY(EngineCodes,     encrypt(), encryptGcm(), decrypt(), decryptGcm(), generate());
FAMILY(EncodedOutput,   encrypt(), encryptGcm(), decrypt(), decryptGcm(), generate());
FAMILY(AllocatedOutput, encrypt(), encryptGcm(), decrypt(), decryptGcm());
FAMILY(SymmCipher,                 encryptGcm(),            decryptGcm());
// clang-format on

// ---- Required parameters

TEST_P(SymmCipher, AlgModeKeyAndDataAreRequired)
{
    for (const Pairs& parameters : {plain, tagged, with(plain, "strMode", "1")})
        expectRequired(handler.request, parameters,
                       {"strCipherAlg", "strMode", "strKey", "strdata"}, handler.failed(MISSING));
}

TEST_P(SymmCipher, IvIsRequiredExceptInMode1)
{
    for (const char* mode : {"2", "3", "4", "5"})
        expectRequired(handler.request, with(plain, "strMode", mode), {"strIV"},
                       handler.failed(MISSING));
    expectRequired(handler.request, tagged, {"strIV"}, handler.failed(MISSING));
}

TEST_P(SymmCipher, AadIsRequiredInMode6)
{
    expectRequired(handler.request, tagged, {"straad"}, handler.failed(MISSING));
}

TEST(CryptoDecrypt, TagIsRequiredInMode6)
{
    expectRequired(DECRYPT, GCM_DECRYPTION, {"strtag"});
    expectRequired(DECRYPT, GCM_DECRYPTION, {"straad", "strtag"});
}

TEST_P(SymmCipher, IvIsIgnoredInMode1)
{
    for (const Pairs& parameters : {without(plain, "strIV"), with(plain, "strIV", ""), plain}) {
        const Pairs mode1 = with(parameters, "strMode", "1");
        EXPECT_TRUE(field(mode1, "params.iv").null);
        EXPECT_EQ(0, field(mode1, "params.iv_len").number);
        EXPECT_EQ(1, field(mode1, "params.mode").number);
    }
}

TEST_P(SymmCipher, AadIsIgnoredInOtherModes)
{
    for (const char* mode : {"1", "2", "3", "4", "5"}) {
        SCOPED_TRACE(mode);
        const Pairs parameters = with(with(plain, "strMode", mode), "straad", "YWFk");
        EXPECT_TRUE(field(parameters, "params.aad").null);
        EXPECT_EQ(0, field(parameters, "params.aad_len").number);
    }
}

TEST_P(SymmCipher, IvIsUsedInModes2To6)
{
    for (const char* mode : {"2", "3", "4", "5", "6"}) {
        SCOPED_TRACE(mode);
        EXPECT_EQ("iv of 16 bytes..", field(with(tagged, "strMode", mode), "params.iv").bytes);
        EXPECT_EQ(16, field(with(tagged, "strMode", mode), "params.iv_len").number);
    }
}

// ---- Forms

TEST_P(SymmCipher, AlgIsANumberFrom1To7)
{
    expectNumber(place("strCipherAlg", "params.alg"), 1, 7);
}

TEST_P(SymmCipher, ModeIsExactlyOneDigitFrom1To6)
{
    expectChoice(place("strMode", "params.mode"), "123456");
}

TEST_P(SymmCipher, PaddingIsExactlyZeroOrOne)
{
    expectChoice(place("strCipherPadding", "params.padding"), "01");
}

TEST_P(SymmCipher, PaddingIsZeroUnlessGiven)
{
    EXPECT_EQ(0, field(plain, "params.padding").number);
    EXPECT_EQ(0, field(with(plain, "strCipherPadding", ""), "params.padding").number);
    EXPECT_EQ(1, field(with(plain, "strCipherPadding", "1"), "params.padding").number);
}

TEST_P(SymmCipher, BinaryParametersAreDecoded)
{
    expectDecoded(place("strKey", "params.key"));
    expectDecoded(place("strIV", "params.iv"));
    expectDecoded(place("straad", "params.aad"));
    expectDecoded(place("strdata", "in"));
}

TEST_P(SymmCipher, BlockHoldsTheDecodedLengths)
{
    EXPECT_EQ(16, field(tagged, "params.key_len").number);
    EXPECT_EQ(16, field(tagged, "params.iv_len").number);
    EXPECT_EQ(15, field(tagged, "params.aad_len").number);
    // Nothing in them, but not null.
    for (const auto& [name, argument] :
         Pairs{{"strKey", "params.key"}, {"strIV", "params.iv"}, {"straad", "params.aad"}}) {
        EXPECT_FALSE(field(with(tagged, name, "="), argument).null);
        EXPECT_EQ(0, field(with(tagged, name, "="), argument + "_len").number);
    }
}

// ---- Order of the checks

// Two faults at once: which one is reported.
TEST_P(SymmCipher, FirstFaultInTheOrderOfTheChecksIsReported)
{
    Plugin plugin;
    const Pairs badAlg = with(tagged, "strCipherAlg", "8");
    const Pairs badMode = with(tagged, "strMode", "7");
    const Pairs badPadding = with(tagged, "strCipherPadding", "2");
    const struct {
        const char* what;
        Pairs parameters;
        int code;
    } rows[] = {
        {"no data, bad alg", without(badAlg, "strdata"), MISSING},
        {"no data, bad mode", without(badMode, "strdata"), MISSING},
        {"no data, bad padding", without(badPadding, "strdata"), MISSING},
        {"no key, bad alg", without(badAlg, "strKey"), MISSING},
        {"no key, bad mode", without(badMode, "strKey"), MISSING},
        {"no mode, bad alg", without(badAlg, "strMode"), MISSING},
        {"no alg, bad mode", without(badMode, "strCipherAlg"), MISSING},
        {"no alg, bad padding", without(badPadding, "strCipherAlg"), MISSING},
        {"bad alg, no IV", without(badAlg, "strIV"), INVALID},
        {"bad alg, no aad", without(badAlg, "straad"), INVALID},
        {"bad mode, no IV", without(badMode, "strIV"), INVALID},
        {"bad mode, no aad", without(badMode, "straad"), INVALID},
        {"bad padding, no IV", without(badPadding, "strIV"), INVALID},
        {"bad padding, no aad", without(badPadding, "straad"), INVALID},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(handler.failed(row.code), plugin.reply(handler.request, row.parameters));
        EXPECT_EQ("", plugin.engineCalls());
    }
}

TEST(CryptoEncrypt, MissingIvOrAadIsReportedBeforeABadTagLength)
{
    Plugin plugin;
    const Pairs badLength = with(GCM_ENCRYPTION, "strgcmTagLen", "3");
    for (const char* name : {"strIV", "straad", "strdata"})
        EXPECT_EQ(failure(MISSING, WITH_TAG), plugin.reply(ENCRYPT, without(badLength, name)));
}

TEST(CryptoDecrypt, BadAlgModeOrPaddingIsReportedBeforeAMissingTag)
{
    Plugin plugin;
    const Pairs noTag = without(GCM_DECRYPTION, "strtag");
    EXPECT_EQ(failure(INVALID), plugin.reply(DECRYPT, with(noTag, "strCipherAlg", "0")));
    EXPECT_EQ(failure(INVALID), plugin.reply(DECRYPT, with(noTag, "strMode", "06")));
    EXPECT_EQ(failure(INVALID), plugin.reply(DECRYPT, with(noTag, "strCipherPadding", "2")));
}

// ---- The tag of an encryption

TEST(CryptoEncrypt, TagLengthIsANumberFrom4To16)
{
    expectNumber({ENCRYPT, GCM_ENCRYPTION, "strgcmTagLen", "aven_crypto_encrypt", "tag_len",
                  failure(INVALID, WITH_TAG)},
                 4, 16);
}

TEST(CryptoEncrypt, TagLengthIs16UnlessGiven)
{
    Plugin plugin;
    EXPECT_EQ(encryptGcm().transcript,
              plugin.play(ENCRYPT, with(GCM_ENCRYPTION, "strgcmTagLen", "")));
}

TEST(CryptoEncrypt, TagLengthIsIgnoredInOtherModes)
{
    Plugin plugin;
    for (const char* mode : {"1", "2", "3", "4", "5"}) {
        for (const char* length : {"99", "3", "-1", "abc", "4"}) {
            EXPECT_EQ(
                0u,
                plugin.play(ENCRYPT, with(with(COMMON, "strMode", mode), "strgcmTagLen", length))
                    .find(READ_TO_ENCRYPT));
            EXPECT_EQ(0, plugin.journal.only("aven_crypto_encrypt")["tag_len"].number);
            EXPECT_TRUE(plugin.journal.only("aven_crypto_encrypt")["tag"].null);
            EXPECT_EQ("0", plugin.params.ret.at(1).second);
        }
    }
}

TEST(CryptoEncrypt, TagBufferIs512ZeroBytesWhateverTheLength)
{
    Plugin plugin;
    for (const char* length : {"4", "12", "16"}) {
        plugin.reply(ENCRYPT, with(GCM_ENCRYPTION, "strgcmTagLen", length));
        EXPECT_EQ(512, plugin.journal.only("aven_crypto_encrypt")["tag"].number);
        EXPECT_TRUE(plugin.journal.only("aven_crypto_encrypt")["tag"].zeroed);
    }
}

TEST(CryptoEncrypt, TagBecomesUrlSafeBase64OfItsLength)
{
    Plugin plugin;
    std::string bytes;
    while (bytes.size() < 16)
        bytes += "\xFB\xFF\xBF";
    plugin.engine.on("aven_crypto_encrypt").tag = bytes;
    plugin.engine.on("aven_crypto_encrypt").output = "\xFB\xFF";
    for (const int length : {4, 13, 16}) {
        const Pairs expected = {
            {"Data", "-_8="},
            {"errorCode", "0"},
            {"gcmOutTag", toUrlBase64(bytes.substr(0, static_cast<size_t>(length)))}};
        EXPECT_EQ(expected, plugin.reply(ENCRYPT, with(GCM_ENCRYPTION, "strgcmTagLen",
                                                       std::to_string(length))));
    }
}

TEST(CryptoEncrypt, TagThatTheEngineLeavesAloneIsZeros)
{
    Plugin plugin;
    plugin.engine.on("aven_crypto_encrypt").tag = "";
    EXPECT_EQ("AAAAAA==",
              plugin.reply(ENCRYPT, with(GCM_ENCRYPTION, "strgcmTagLen", "4")).at(2).second);
}

// The failure path writes the tag as the engine left it, not encoded.
TEST(CryptoEncrypt, SuccessWithoutBytesEndsWithCodeZeroAndTheRawTag)
{
    Plugin plugin;
    plugin.engine.on("aven_crypto_encrypt").output = "";
    const Pairs expected = {{"Data", ""}, {"errorCode", "0"}, {"gcmOutTag", doubles::pattern(5)}};
    EXPECT_EQ(expected, plugin.reply(ENCRYPT, with(GCM_ENCRYPTION, "strgcmTagLen", "5")));
    EXPECT_EQ(failure(0, WITH_TAG), plugin.reply(ENCRYPT, COMMON));
}

// As is the output when it cannot be encoded; the tag has not been by then.
TEST(CryptoEncrypt, OutputThatCannotBeEncodedIsWrittenWithTheRawTag)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    Plugin plugin;
    std::unique_ptr<AllocationFault> fault;
    plugin.engine.on("aven_crypto_encrypt").during = [&] {
        fault.reset(new AllocationFault(AllocationFault::atLeast(plugin.journal, 24)));
    };
    const Pairs expected = {
        {"Data", "bytes of an input"}, {"errorCode", "0"}, {"gcmOutTag", doubles::pattern(16)}};
    EXPECT_EQ(expected, plugin.reply(ENCRYPT, GCM_ENCRYPTION));
    EXPECT_TRUE(fault->struck());
}

TEST(CryptoEncrypt, FailedAllocationStopsInTheHandlerWhileTheRawTagIsWritten)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    Plugin plugin;
    plugin.engine.on("aven_crypto_encrypt").output = "";
    EXPECT_LT(0u, failEachAllocation(plugin, ENCRYPT, GCM_ENCRYPTION));
    EXPECT_EQ(doubles::pattern(16), plugin.resultsWritten().back().second);
}

TEST(CryptoEncrypt, TagParameterIsNotRead)
{
    Plugin plugin;
    EXPECT_EQ(encryptGcm().transcript,
              plugin.play(ENCRYPT, with(GCM_ENCRYPTION, "strtag", "YWJj")));
}

TEST(CryptoEncrypt, TagIsWrittenLastOnEachFailure)
{
    Plugin plugin;
    for (const Pairs& parameters :
         {Pairs(), with(COMMON, "strMode", "7"), with(GCM_ENCRYPTION, "strgcmTagLen", "17")})
        EXPECT_EQ("gcmOutTag", plugin.reply(ENCRYPT, parameters).back().first);
}

// ---- The tag of a decryption

TEST(CryptoDecrypt, TagIsDecodedInMode6)
{
    expectDecoded({DECRYPT, GCM_DECRYPTION, "strtag", "aven_crypto_decrypt", "tag"});
}

TEST(CryptoDecrypt, TagOfAnyLengthIsPassed)
{
    Plugin plugin;
    for (const size_t size : {1u, 17u, 512u, 600u, 5000u}) {
        plugin.reply(DECRYPT, with(GCM_DECRYPTION, "strtag", toUrlBase64(std::string(size, 't'))));
        EXPECT_EQ(std::string(size, 't'), plugin.journal.only("aven_crypto_decrypt")["tag"].bytes);
    }
}

TEST(CryptoDecrypt, TagIsNullInOtherModes)
{
    Plugin plugin;
    for (const char* mode : {"1", "2", "3", "4", "5"}) {
        EXPECT_EQ(success("Ynl0ZXMgb2YgYW4gaW5wdXQ="),
                  plugin.reply(DECRYPT, with(with(COMMON, "strMode", mode), "strtag", "dGFn")));
        EXPECT_TRUE(plugin.journal.only("aven_crypto_decrypt")["tag"].null);
        EXPECT_EQ(0, plugin.journal.only("aven_crypto_decrypt")["tag_len"].number);
    }
}

TEST(CryptoDecrypt, TagLengthParameterIsIgnored)
{
    Plugin plugin;
    EXPECT_EQ(decryptGcm().transcript,
              plugin.play(DECRYPT, with(GCM_DECRYPTION, "strgcmTagLen", "99")));
}

// ---- Outputs

TEST(CryptoEncrypt, OutputBecomesUrlSafeBase64UpTo128BytesMore)
{
    expectOutput(ENCRYPT, COMMON, "aven_crypto_encrypt", 17 + 128);
    expectOutput(ENCRYPT, GCM_ENCRYPTION, "aven_crypto_encrypt", 17 + 128);
}

TEST(CryptoDecrypt, OutputBecomesUrlSafeBase64UpTo64BytesMore)
{
    expectOutput(DECRYPT, COMMON, "aven_crypto_decrypt", 17 + 64);
    expectOutput(DECRYPT, GCM_DECRYPTION, "aven_crypto_decrypt", 17 + 64);
}

TEST(CryptoDecrypt, SuccessWithoutBytesEndsWithCodeZero)
{
    Plugin plugin;
    plugin.engine.on("aven_crypto_decrypt").output = "";
    EXPECT_EQ(failure(0), plugin.reply(DECRYPT, COMMON));
}

TEST_P(SymmCipher, DataThatDecodesToNothingReachesTheEngine)
{
    Plugin plugin;
    plugin.engine.on(function).output = "\xFB\xFF";
    EXPECT_EQ("-_8=", plugin.reply(handler.request, with(plain, "strdata", "=")).front().second);
    EXPECT_EQ(0, plugin.journal.only(function)["in_len"].number);
    EXPECT_FALSE(plugin.journal.only(function)["in"].null);
}

// ---- Key generation

TEST(CryptoGenSymmkey, AlgIsRequired)
{
    expectRequired(GENERATE, generate().parameters, {"strCipherAlg"});
}

TEST(CryptoGenSymmkey, AlgIsANumberFrom1To7)
{
    expectNumber(
        {GENERATE, generate().parameters, "strCipherAlg", "aven_crypto_gen_symmkey", "type"}, 1, 7);
}

TEST(CryptoGenSymmkey, OutputBecomesUrlSafeBase64UpTo1024Bytes)
{
    expectOutput(GENERATE, generate().parameters, "aven_crypto_gen_symmkey", 1024);
}

TEST(CryptoGenSymmkey, SuccessWithoutBytesEndsWithCodeZero)
{
    Plugin plugin;
    plugin.engine.on("aven_crypto_gen_symmkey").output = "";
    EXPECT_EQ(failure(0), plugin.reply(GENERATE, generate().parameters));
}

TEST(CryptoGenSymmkey, OtherParametersAreIgnored)
{
    Plugin plugin;
    EXPECT_EQ(generate().transcript,
              plugin.play(GENERATE, {{"strCipherAlg", "4"}, {"strMode", "9"}, {"strKey", "?"}}));
}
