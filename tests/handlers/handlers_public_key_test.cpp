// The two public-key requests.
#include "support/handler_families.h"

using namespace support;

namespace {

const Pairs ENCRYPTION = {{"strKeyPairType", "1"},
                          {"strpk", "MFkwEwYHKoZIzj0C-Q_A=="},
                          {"strdata", "Ynl0ZXMgb2YgYW4gaW5wdXQ="}};

const Pairs DECRYPTION = {{"strKeyPairType", "1"},
                          {"strsk", "MHcCAQEEIGP1-Q_A=="},
                          {"strPassword", "a long-_password"},
                          {"strdata", "Ynl0ZXMgb2YgYW4gaW5wdXQ="}};

Handler encrypt()
{
    Handler handler{"QZaven_crypto_public_encrypt",
                    ENCRYPTION,
                    "read strKeyPairType strpk strRsaPaddingE strnoAsn1 strnoc1c3c2 strdata\n"
                    "aven_keypair_unmarshal(type=1, private_key=null, "
                    "public_key=\"MFkwEwYHKoZIzj0C+Q/A==\", password=null, keypair=null)\n"
                    "aven_crypto_public_encrypt(keypair=given, rsa_padding_e=0, no_asn1=0, "
                    "no_c1c3c2=0, in=\"bytes of an input\", out[146])\n"
                    "Data=\"Ynl0ZXMgb2YgYW4gaW5wdXQ=\"\n"
                    "errorCode=\"0\"\n"
                    "aven_keypair_free(keypair=given)\n",
                    {"aven_keypair_unmarshal", "aven_crypto_public_encrypt"}};
    handler.allocation = 147;
    return handler;
}

Handler decrypt()
{
    Handler handler{
        "QZaven_crypto_private_decrypt",
        DECRYPTION,
        "read strKeyPairType strsk strPassword strRsaPaddingE strnoAsn1 strnoc1c3c2 strdata\n"
        "aven_keypair_unmarshal(type=1, private_key=\"MHcCAQEEIGP1+Q/A==\", public_key=null, "
        "password=\"a long-_password\", keypair=null)\n"
        "aven_crypto_private_decrypt(keypair=given, rsa_padding_e=0, no_asn1=0, no_c1c3c2=0, "
        "in=\"bytes of an input\", out[33])\n"
        "Data=\"Ynl0ZXMgb2YgYW4gaW5wdXQ=\"\n"
        "errorCode=\"0\"\n"
        "aven_keypair_free(keypair=given)\n",
        {"aven_keypair_unmarshal", "aven_crypto_private_decrypt"}};
    handler.allocation = 34;
    return handler;
}

// Facts of both requests.
class PublicKey : public ::testing::TestWithParam<Handler> {
protected:
    const Handler& handler = GetParam();
    const std::string key = handler.parameters[1].first;
    const std::string cipher = handler.calls.back();

    Place place(const std::string& parameter, const std::string& argument)
    {
        return {handler.request, handler.parameters, parameter, cipher, argument};
    }

    Place keyPlace(const std::string& parameter, const std::string& argument)
    {
        return {handler.request, handler.parameters, parameter, "aven_keypair_unmarshal", argument};
    }

    // The engine functions called and the results written, in order.
    static std::vector<std::string> steps(const Plugin& plugin)
    {
        std::vector<std::string> names;
        for (const Call& call : plugin.journal.calls) {
            if (call.function == "AddRetParams")
                names.push_back(call["name"].bytes);
            else if (call.function.compare(0, 5, "aven_") == 0)
                names.push_back(call.function);
        }
        return names;
    }
};

using Steps = std::vector<std::string>;

}  // namespace

// clang-format off
FAMILY(HandlerFrame,    encrypt(), decrypt());
FAMILY(EngineCodes,     encrypt(), decrypt());
FAMILY(EncodedOutput,   encrypt(), decrypt());
FAMILY(AllocatedOutput, encrypt(), decrypt());
FAMILY(PublicKey,       encrypt(), decrypt());
// clang-format on

// ---- Parameters

TEST_P(PublicKey, KeyAndDataAreRequired)
{
    expectRequired(handler.request, handler.parameters, {key, "strdata"});
}

TEST_P(PublicKey, OptionalParametersMayBeAbsentOrEmpty)
{
    Plugin plugin;
    const Pairs least = {{key, "a-_"}, {"strdata", "YWJj"}};
    Pairs empty = least;
    for (const char* name :
         {"strKeyPairType", "strPassword", "strRsaPaddingE", "strnoAsn1", "strnoc1c3c2"})
        empty.emplace_back(name, "");
    for (const Pairs& parameters : {least, empty}) {
        EXPECT_EQ(success("YWJj"), plugin.reply(handler.request, parameters));
        const Call& read = plugin.journal.only("aven_keypair_unmarshal");
        EXPECT_EQ(0, read["type"].number);
        EXPECT_TRUE(read["password"].null);
        const Call& call = plugin.journal.only(cipher);
        EXPECT_EQ(0, call["params.rsa_padding_e"].number);
        EXPECT_EQ(0, call["params.no_asn1"].number);
        EXPECT_EQ(0, call["params.no_c1c3c2"].number);
    }
}

TEST_P(PublicKey, TypeIsOneOrThree)
{
    expectChoice(keyPlace("strKeyPairType", "type"), "13");
}

TEST_P(PublicKey, FlagsAreZeroOrOne)
{
    expectChoice(place("strRsaPaddingE", "params.rsa_padding_e"), "01");
    expectChoice(place("strnoAsn1", "params.no_asn1"), "01");
    expectChoice(place("strnoc1c3c2", "params.no_c1c3c2"), "01");
}

TEST_P(PublicKey, EachFlagHasItsField)
{
    Plugin plugin;
    Pairs flags = handler.parameters;
    flags.insert(flags.end(), {{"strRsaPaddingE", "1"}, {"strnoAsn1", "0"}, {"strnoc1c3c2", "1"}});
    plugin.reply(handler.request, flags);
    EXPECT_NE(std::string::npos,
              plugin.engineCalls().find("rsa_padding_e=1, no_asn1=0, no_c1c3c2=1"));
    flags = with(with(with(flags, "strRsaPaddingE", "0"), "strnoAsn1", "1"), "strnoc1c3c2", "0");
    plugin.reply(handler.request, flags);
    EXPECT_NE(std::string::npos,
              plugin.engineCalls().find("rsa_padding_e=0, no_asn1=1, no_c1c3c2=0"));
}

TEST_P(PublicKey, KeyIsRewrittenAndNotDecoded)
{
    expectRewritten(keyPlace(key, key == "strpk" ? "public_key" : "private_key"));
}

TEST_P(PublicKey, DataIsDecoded)
{
    expectDecoded(place("strdata", "in"));
}

TEST_P(PublicKey, KeyOfTheOtherRequestIsNotRead)
{
    Plugin plugin;
    const std::string other = key == "strpk" ? "strsk" : "strpk";
    EXPECT_EQ(failure(MISSING), plugin.reply(handler.request, {{other, "a"}, {"strdata", "YWJj"}}));
    plugin.play(handler.request, with(handler.parameters, other, "other"));
    EXPECT_EQ(std::string::npos, plugin.transcript().find("other"));
}

TEST(CryptoPublicEncrypt, PasswordIsNotRead)
{
    Plugin plugin;
    EXPECT_EQ(encrypt().transcript, plugin.play("QZaven_crypto_public_encrypt",
                                                with(ENCRYPTION, "strPassword", "secret")));
}

TEST(CryptoPrivateDecrypt, PasswordIsPassedUpToItsFirstNul)
{
    expectUnchanged({"QZaven_crypto_private_decrypt", DECRYPTION, "strPassword",
                     "aven_keypair_unmarshal", "password"},
                    true);
}

TEST(CryptoPrivateDecrypt, PasswordThatBeginsWithANulIsNotNull)
{
    Plugin plugin;
    plugin.reply("QZaven_crypto_private_decrypt", with(DECRYPTION, "strPassword", text("\0abc")));
    EXPECT_FALSE(plugin.journal.only("aven_keypair_unmarshal")["password"].null);
    EXPECT_EQ("", plugin.journal.only("aven_keypair_unmarshal")["password"].bytes);
}

// ---- Order of the checks

TEST_P(PublicKey, MissingParametersAreReportedBeforeInvalidOnes)
{
    Plugin plugin;
    for (const std::string& missing : {key, std::string("strdata")})
        for (const char* invalid :
             {"strKeyPairType", "strRsaPaddingE", "strnoAsn1", "strnoc1c3c2"}) {
            SCOPED_TRACE(missing + " missing, " + invalid + " invalid");
            EXPECT_EQ(failure(MISSING),
                      plugin.reply(handler.request,
                                   with(without(handler.parameters, missing), invalid, "2")));
        }
}

TEST_P(PublicKey, InvalidValuesAreReportedBeforeTheKeyIsRead)
{
    Plugin plugin;
    plugin.engine.on("aven_keypair_unmarshal").code = -7;
    for (const char* invalid : {"strKeyPairType", "strRsaPaddingE", "strnoAsn1", "strnoc1c3c2"}) {
        SCOPED_TRACE(invalid);
        EXPECT_EQ(failure(INVALID),
                  plugin.reply(handler.request, with(handler.parameters, invalid, "2")));
        EXPECT_EQ("", plugin.engineCalls());
    }
}

// ---- The key pair's life

TEST_P(PublicKey, KeyThatCannotBeReadEndsTheRequest)
{
    Plugin plugin;
    plugin.engine.on("aven_keypair_unmarshal").code = -7;
    EXPECT_EQ(failure(-7), plugin.reply(handler.request, handler.parameters));
    EXPECT_EQ(Steps({"aven_keypair_unmarshal", "Data", "errorCode"}), steps(plugin));
}

TEST_P(PublicKey, KeyIsFreedBeforeAFailureIsWritten)
{
    Plugin plugin;
    const Steps expected = {"aven_keypair_unmarshal", cipher, "aven_keypair_free", "Data",
                            "errorCode"};
    plugin.engine.on(cipher).code = -7;
    EXPECT_EQ(failure(-7), plugin.reply(handler.request, handler.parameters));
    EXPECT_EQ(expected, steps(plugin));

    plugin.engine.forget();
    plugin.engine.on(cipher).throws = true;
    EXPECT_EQ(failure(0), plugin.reply(handler.request, handler.parameters));
    EXPECT_EQ(expected, steps(plugin));

    // Success without bytes is a failure too.
    plugin.engine.forget();
    plugin.engine.on(cipher).output = "";
    EXPECT_EQ(failure(0), plugin.reply(handler.request, handler.parameters));
    EXPECT_EQ(expected, steps(plugin));
    EXPECT_EQ(3, plugin.engine.keypairs.freed);
    EXPECT_EQ(0, plugin.engine.keypairs.nullsFreed);
}

TEST_P(PublicKey, KeyIsFreedAfterASuccessIsWritten)
{
    Plugin plugin;
    plugin.reply(handler.request, handler.parameters);
    EXPECT_EQ(Steps({"aven_keypair_unmarshal", cipher, "Data", "errorCode", "aven_keypair_free"}),
              steps(plugin));
    EXPECT_EQ(1, plugin.engine.keypairs.freed);
}

// An engine that fails the read but leaves an object behind.
TEST_P(PublicKey, KeyOfAFailingReadIsFreed)
{
    Plugin plugin;
    plugin.engine.on("aven_keypair_unmarshal").code = -7;
    plugin.engine.on("aven_keypair_unmarshal").object = reinterpret_cast<void*>(0x1230);
    EXPECT_EQ(failure(-7), plugin.reply(handler.request, handler.parameters));
    EXPECT_EQ(Steps({"aven_keypair_unmarshal", "aven_keypair_free", "Data", "errorCode"}),
              steps(plugin));
}

TEST_P(PublicKey, NullKeyIsUsedAndNotFreed)
{
    Plugin plugin;
    plugin.engine.on("aven_keypair_unmarshal").object = nullptr;
    plugin.reply(handler.request, handler.parameters);
    EXPECT_EQ(Steps({"aven_keypair_unmarshal", cipher, "Data", "errorCode"}), steps(plugin));
    EXPECT_TRUE(plugin.journal.only(cipher)["params.keypair"].null);

    plugin.engine.on(cipher).code = -7;
    EXPECT_EQ(failure(-7), plugin.reply(handler.request, handler.parameters));
    EXPECT_EQ(Steps({"aven_keypair_unmarshal", cipher, "Data", "errorCode"}), steps(plugin));
}

TEST_P(PublicKey, FailureToFreeTheKeyIsIgnored)
{
    Plugin plugin;
    plugin.engine.on("aven_keypair_free").code = -9;
    EXPECT_EQ(handler.transcript, plugin.play(handler.request, handler.parameters));
    plugin.engine.on("aven_keypair_free").throws = true;
    EXPECT_EQ(handler.transcript, plugin.play(handler.request, handler.parameters));
    plugin.engine.on(cipher).code = -7;
    EXPECT_EQ(failure(-7), plugin.reply(handler.request, handler.parameters));
}

TEST_P(PublicKey, EngineThatLacksTheFreeFunctionStillServes)
{
    Plugin plugin(engineLacking("aven_keypair_free"));
    EXPECT_EQ(success("Ynl0ZXMgb2YgYW4gaW5wdXQ="),
              plugin.request(handler.request, handler.parameters));
    EXPECT_EQ(1u, plugin.engine.keypairs.live.size());
}

// The read's own code is still 0 after an exception, so the request goes on.
TEST_P(PublicKey, ExceptionInTheReadLeavesANullKey)
{
    Plugin plugin;
    plugin.engine.on("aven_keypair_unmarshal").throws = true;
    plugin.engine.on("aven_keypair_unmarshal").object = nullptr;
    EXPECT_EQ(success("Ynl0ZXMgb2YgYW4gaW5wdXQ="),
              plugin.reply(handler.request, handler.parameters));
    EXPECT_TRUE(plugin.journal.only(cipher)["params.keypair"].null);
}

TEST_P(PublicKey, KeyIsFreedWhenAnAllocationFailsAfterItWasRead)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    Plugin plugin;
    plugin.engine.on(cipher).output = std::string(handler.allocation - 1, 'x');
    // Base64 of the output is longer than everything before it.
    const size_t size = toBase64(*plugin.engine.on(cipher).output).size();
    EXPECT_TRUE(requestWithFault(plugin, handler.request, handler.parameters, [&] {
        return new AllocationFault(AllocationFault::atLeast(plugin.journal, size));
    }));
    EXPECT_EQ("0", plugin.resultsWritten().back().second);
    plugin.expectNoObjects();
    EXPECT_EQ(1, plugin.engine.keypairs.freed);
}

// ---- Outputs

TEST(CryptoPublicEncrypt, OutputBecomesUrlSafeBase64UpTo129BytesMore)
{
    expectOutput("QZaven_crypto_public_encrypt", ENCRYPTION, "aven_crypto_public_encrypt",
                 17 + 129);
}

TEST(CryptoPublicEncrypt, OutputOfOtherTypesHas528BytesMore)
{
    expectOutput("QZaven_crypto_public_encrypt", with(ENCRYPTION, "strKeyPairType", "3"),
                 "aven_crypto_public_encrypt", 17 + 528);
    expectOutput("QZaven_crypto_public_encrypt", without(ENCRYPTION, "strKeyPairType"),
                 "aven_crypto_public_encrypt", 17 + 528);
}

TEST(CryptoPrivateDecrypt, OutputBecomesUrlSafeBase64UpTo16BytesMore)
{
    expectOutput("QZaven_crypto_private_decrypt", DECRYPTION, "aven_crypto_private_decrypt",
                 17 + 16);
    expectOutput("QZaven_crypto_private_decrypt", with(DECRYPTION, "strKeyPairType", "3"),
                 "aven_crypto_private_decrypt", 17 + 16);
}

namespace {

long long capacity(Plugin& plugin, const Pairs& parameters)
{
    plugin.reply("QZaven_crypto_public_encrypt", parameters);
    return plugin.journal.only("aven_crypto_public_encrypt")["out"].number;
}

}  // namespace

TEST(CryptoPublicEncrypt, CapacityFollowsTheTypeOfEachRequest)
{
    Plugin plugin;
    const Pairs one = ENCRYPTION;
    const Pairs three = with(ENCRYPTION, "strKeyPairType", "3");
    const Pairs none = without(ENCRYPTION, "strKeyPairType");
    EXPECT_EQ(17 + 528, capacity(plugin, three));
    EXPECT_EQ(17 + 129, capacity(plugin, one));
    EXPECT_EQ(17 + 528, capacity(plugin, none));
    EXPECT_EQ(17 + 129, capacity(plugin, one));
    EXPECT_EQ(17 + 528, capacity(plugin, three));
}

// The type that decides is the process's last one: a read that throws leaves the type of
// whichever request read a key before.
TEST(CryptoPublicEncrypt, CapacityFollowsTheLastSuccessfulReadOfAnyRequest)
{
    Plugin plugin;
    const Pairs envelope = {{"strEncdata", "YWJj"},
                            {"strKeyPairType", "3"},
                            {"strsk", "key"},
                            {"strCipherAlg", "1"},
                            {"strMode", "2"}};
    const auto throwing = [&](const char* type) {
        plugin.engine.on("aven_keypair_unmarshal").throws = true;
        plugin.engine.on("aven_keypair_unmarshal").object = nullptr;
        const long long offered = capacity(plugin, with(ENCRYPTION, "strKeyPairType", type));
        plugin.engine.forget();
        return offered;
    };

    plugin.reply("QZaven_crypto_private_decrypt", DECRYPTION);
    EXPECT_EQ(17 + 129, throwing("3")) << "after type 1";
    EXPECT_EQ(17 + 129, throwing("1")) << "a throwing read changes nothing";

    plugin.reply("QZaven_crypto_envelope_decrypt", envelope);
    EXPECT_EQ(17 + 528, throwing("1")) << "after type 3, from the envelope request";

    plugin.engine.on("aven_keypair_unmarshal").code = -7;
    plugin.reply("QZaven_crypto_private_decrypt", DECRYPTION);
    plugin.engine.forget();
    EXPECT_EQ(17 + 528, throwing("1")) << "a failed read of type 1 changes nothing";

    plugin.reply("QZaven_crypto_private_decrypt", DECRYPTION);
    EXPECT_EQ(17 + 129, throwing("3"));
}
