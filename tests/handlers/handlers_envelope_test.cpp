// The envelope requests.
#include "support/handler_families.h"

using namespace support;

namespace {

constexpr char ENCRYPT[] = "QZaven_crypto_envelope_encrypt";
constexpr char DECRYPT[] = "QZaven_crypto_envelope_decrypt";

const Pairs ENCRYPTION = {{"strdata", "a text-_of+/more characters"},
                          {"strpk", "MIIBszCCAVqgAwIBA-_"},
                          {"strCipherAlg", "4"},
                          {"strMode", "2"}};

const Pairs DECRYPTION = {{"strEncdata", "Ynl0ZXMgb2YgYW4gaW5wdXQ="},
                          {"strKeyPairType", "3"},
                          {"strsk", "MHcCAQEEIGP1-Q_A=="},
                          {"strCipherAlg", "4"},
                          {"strMode", "2"}};

Handler encrypt()
{
    Handler handler{ENCRYPT,
                    ENCRYPTION,
                    "read strdata strpk strCipherAlg strMode\n"
                    "aven_certificate_unmarshal(cert=\"MIIBszCCAVqgAwIBA+/\", password=null, "
                    "certificate=null)\n"
                    "aven_crypto_pkcs7_encrypt(alg=4, mode=2, keypair=null, certificate=given, "
                    "in=\"a text-_of+/more characters\", out[3099])\n"
                    "Data=\"YSB0ZXh0LV9vZisvbW9yZSBjaGFyYWN0ZXJz\"\n"
                    "errorCode=\"0\"\n"
                    "aven_certificate_free(certificate=given)\n",
                    {"aven_certificate_unmarshal", "aven_crypto_pkcs7_encrypt"}};
    handler.engineUnbound = "aven_certificate_free(certificate=null)\n";
    handler.allocation = 3100;
    handler.writesUnencodable = false;
    return handler;
}

Handler decrypt()
{
    Handler handler{DECRYPT,
                    DECRYPTION,
                    "read strEncdata strKeyPairType strsk strCipherAlg strMode\n"
                    "aven_keypair_unmarshal(type=3, private_key=\"MHcCAQEEIGP1+Q/A==\", "
                    "public_key=null, password=null, keypair=null)\n"
                    "aven_crypto_pkcs7_decrypt(alg=4, mode=2, keypair=given, certificate=null, "
                    "in=\"bytes of an input\", out[81])\n"
                    "Data=\"bytes%2520of%2520an%2520input\"\n"
                    "errorCode=\"0\"\n"
                    "aven_keypair_free(keypair=given)\n",
                    {"aven_keypair_unmarshal", "aven_crypto_pkcs7_decrypt"}};
    handler.engineUnbound = "aven_keypair_free(keypair=null)\n";
    handler.allocation = 82;
    handler.writesUnencodable = false;
    return handler;
}

// Independent of the plug-in's own: each byte but the unreserved ones as %25XX.
std::string escapedTwice(const std::string& bytes)
{
    std::string escaped;
    char buffer[8];
    for (const char c : bytes) {
        const bool kept = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') ||
                          (c >= 'a' && c <= 'z') ||
                          (c != '\0' && std::string("-_.~!*'()").find(c) != std::string::npos);
        snprintf(buffer, sizeof buffer, "%%25%02X",
                 static_cast<unsigned>(static_cast<unsigned char>(c)));
        escaped += kept ? std::string(1, c) : buffer;
    }
    return escaped;
}

// Facts of both directions. The object is the certificate or the key pair.
class Envelope : public ::testing::TestWithParam<Handler> {
protected:
    const Handler& handler = GetParam();
    const bool encrypting = handler.request == ENCRYPT;
    const std::string object = encrypting ? "certificate" : "keypair";
    const std::string readObject = handler.calls[0];
    const std::string cipher = handler.calls[1];
    const std::string freeObject = "aven_" + object + "_free";
    const std::string freedNull = freeObject + "(" + object + "=null)\n";
    const std::string freed = freeObject + "(" + object + "=given)\n";
    const std::string key = encrypting ? "strpk" : "strsk";

    Place place(const std::string& parameter, const std::string& argument)
    {
        return {handler.request, handler.parameters, parameter, cipher, argument};
    }

    doubles::Objects& objects(Plugin& plugin) const
    {
        return encrypting ? plugin.engine.certificates : plugin.engine.keypairs;
    }

    // The end of a transcript, from the first result on.
    static std::string ending(const std::string& transcript)
    {
        return transcript.substr(transcript.find("Data="));
    }

    std::string failureLines(int code) const { return written(handler.failed(code)); }
};

}  // namespace

// clang-format off
FAMILY(HandlerFrame,    encrypt(), decrypt());
FAMILY(EngineCodes,     encrypt(), decrypt());
FAMILY(EncodedOutput,   encrypt(), decrypt());
FAMILY(AllocatedOutput, encrypt(), decrypt());
FAMILY(Envelope,        encrypt(), decrypt());
// clang-format on

// ---- Parameters

TEST(CryptoEnvelopeEncrypt, AllParametersAreRequired)
{
    expectRequired(ENCRYPT, ENCRYPTION, {"strdata", "strpk", "strCipherAlg", "strMode"},
                   failure(MISSING), "aven_certificate_free(certificate=null)\n");
}

TEST(CryptoEnvelopeDecrypt, AllParametersAreRequired)
{
    expectRequired(DECRYPT, DECRYPTION,
                   {"strEncdata", "strKeyPairType", "strsk", "strCipherAlg", "strMode"},
                   failure(MISSING), "aven_keypair_free(keypair=null)\n");
}

TEST_P(Envelope, AlgIsANumberFrom1To7)
{
    expectNumber(place("strCipherAlg", "params.alg"), 1, 7);
}

TEST_P(Envelope, ModeIsExactlyOneDigitFrom1To6)
{
    expectChoice(place("strMode", "params.mode"), "123456");
}

TEST_P(Envelope, CertificateOrKeyIsRewrittenAndNotDecoded)
{
    expectRewritten({handler.request, handler.parameters, key, readObject,
                     encrypting ? "cert" : "private_key"});
}

TEST(CryptoEnvelopeEncrypt, DataIsTakenByteForByte)
{
    expectUnchanged({ENCRYPT, ENCRYPTION, "strdata", "aven_crypto_pkcs7_encrypt", "in"});
}

TEST(CryptoEnvelopeDecrypt, EnvelopeIsDecoded)
{
    expectDecoded({DECRYPT, DECRYPTION, "strEncdata", "aven_crypto_pkcs7_decrypt", "in"});
}

TEST(CryptoEnvelopeDecrypt, TypeIsOneOrThree)
{
    expectChoice({DECRYPT, DECRYPTION, "strKeyPairType", "aven_keypair_unmarshal", "type"}, "13");
}

TEST_P(Envelope, PasswordIsNotRead)
{
    Plugin plugin;
    EXPECT_EQ(handler.transcript,
              plugin.play(handler.request, with(handler.parameters, "strPassword", "secret")));
}

// ---- Order of the checks

TEST_P(Envelope, MissingParametersAreReportedBeforeInvalidOnes)
{
    Plugin plugin;
    for (const auto& missing : handler.parameters)
        for (const char* invalid : {"strCipherAlg", "strMode", "strKeyPairType"}) {
            if (missing.first == invalid)
                continue;
            SCOPED_TRACE(missing.first + " missing, " + invalid + " invalid");
            EXPECT_EQ(failure(MISSING),
                      plugin.reply(handler.request,
                                   with(without(handler.parameters, missing.first), invalid, "9")));
            EXPECT_EQ(freedNull, plugin.engineCalls());
        }
}

TEST_P(Envelope, AlgAndModeAreCheckedAfterTheReadAndTheObjectIsFreed)
{
    Plugin plugin;
    for (const auto& [name, value] :
         Pairs{{"strCipherAlg", "8"}, {"strCipherAlg", "0"}, {"strMode", "7"}, {"strMode", "06"}}) {
        SCOPED_TRACE(name + "=" + value);
        const std::string transcript =
            plugin.play(handler.request, with(handler.parameters, name, value));
        EXPECT_EQ(1u, plugin.journal.count(readObject));
        EXPECT_EQ(0u, plugin.journal.count(cipher));
        EXPECT_EQ(failureLines(INVALID) + freed, ending(transcript));
    }
}

TEST_P(Envelope, UnreadableObjectIsReportedBeforeABadAlgOrMode)
{
    Plugin plugin;
    plugin.engine.on(readObject).code = -7;
    for (const char* name : {"strCipherAlg", "strMode"}) {
        EXPECT_EQ(failure(-7), plugin.reply(handler.request, with(handler.parameters, name, "9")));
        EXPECT_EQ(0u, plugin.journal.count(cipher));
    }
}

TEST(CryptoEnvelopeDecrypt, TypeIsCheckedBeforeTheKeyIsRead)
{
    Plugin plugin;
    EXPECT_EQ(
        "read strEncdata strKeyPairType strsk strCipherAlg strMode\n"
        "Data=\"\"\n"
        "errorCode=\"-20084\"\n"
        "aven_keypair_free(keypair=null)\n",
        plugin.play(DECRYPT, with(DECRYPTION, "strKeyPairType", "2")));
}

// ---- The object's life: freed after the results, whatever happened

TEST_P(Envelope, UnreadableObjectEndsTheRequestAndNullIsFreed)
{
    Plugin plugin;
    plugin.engine.on(readObject).code = -7;
    EXPECT_EQ(failureLines(-7) + freedNull,
              ending(plugin.play(handler.request, handler.parameters)));
    EXPECT_EQ(0u, plugin.journal.count(cipher));
    EXPECT_EQ(1u, plugin.journal.count(freeObject));
}

TEST_P(Envelope, ObjectIsFreedAfterAFailureIsWritten)
{
    Plugin plugin;
    plugin.engine.on(cipher).code = -7;
    EXPECT_EQ(failureLines(-7) + freed, ending(plugin.play(handler.request, handler.parameters)));
    EXPECT_EQ(1u, plugin.journal.count(freeObject));
}

TEST_P(Envelope, MissingParameterIsWrittenBeforeNullIsFreed)
{
    Plugin plugin;
    EXPECT_EQ(failureLines(MISSING) + freedNull,
              ending(plugin.play(handler.request, without(handler.parameters, "strMode"))));
}

// An engine that fails the read but leaves an object behind.
TEST_P(Envelope, ObjectOfAFailingReadIsFreed)
{
    Plugin plugin;
    plugin.engine.on(readObject).code = -7;
    plugin.engine.on(readObject).object = reinterpret_cast<void*>(0x1230);
    EXPECT_EQ(failure(-7), plugin.reply(handler.request, handler.parameters));
    EXPECT_EQ(1, objects(plugin).freed);
    EXPECT_EQ(0, objects(plugin).nullsFreed);
}

TEST_P(Envelope, NullObjectIsUsedAndFreed)
{
    Plugin plugin;
    plugin.engine.on(readObject).object = nullptr;
    const std::string transcript = plugin.play(handler.request, handler.parameters);
    EXPECT_TRUE(plugin.journal.only(cipher)["params." + object].null);
    EXPECT_EQ(1, objects(plugin).nullsFreed);
    EXPECT_EQ(
        ending(handler.transcript).substr(0, ending(handler.transcript).find("aven_")) + freedNull,
        ending(transcript));
}

TEST_P(Envelope, FailureToFreeIsIgnored)
{
    Plugin plugin;
    plugin.engine.on(freeObject).code = -9;
    EXPECT_EQ(handler.transcript, plugin.play(handler.request, handler.parameters));
    plugin.engine.on(freeObject).throws = true;
    EXPECT_EQ(handler.transcript, plugin.play(handler.request, handler.parameters));
    EXPECT_EQ(failure(MISSING), plugin.reply(handler.request, {}));
}

TEST_P(Envelope, EngineThatLacksTheFreeFunctionStillServes)
{
    Plugin plugin(engineLacking(freeObject));
    EXPECT_EQ("0", plugin.request(handler.request, handler.parameters).at(1).second);
    EXPECT_EQ(1u, objects(plugin).live.size());
    EXPECT_EQ(failure(MISSING), plugin.request(handler.request, {}));
}

// The read's own code is still 0 after an exception, so the request goes on.
TEST_P(Envelope, ExceptionInTheReadLeavesANullObject)
{
    Plugin plugin;
    plugin.engine.on(readObject).throws = true;
    plugin.engine.on(readObject).object = nullptr;
    EXPECT_EQ("0", plugin.reply(handler.request, handler.parameters).at(1).second);
    EXPECT_TRUE(plugin.journal.only(cipher)["params." + object].null);
    EXPECT_EQ(1, objects(plugin).nullsFreed);
}

TEST_P(Envelope, ObjectOfOneRequestIsNotUsedByTheNext)
{
    Plugin plugin;
    plugin.reply(handler.request, handler.parameters);
    plugin.engine.on(readObject).code = -7;
    plugin.reply(handler.request, handler.parameters);
    EXPECT_TRUE(plugin.journal.only(readObject)[object].null);
    EXPECT_TRUE(plugin.journal.only(freeObject)[object].null);
}

// ---- Outputs

// Without bytes, too, the engine's success is one; a failure would look the same but for
// the order, which is the same.
TEST_P(Envelope, SuccessWithoutBytesIsASuccess)
{
    Plugin plugin;
    plugin.engine.on(cipher).output = "";
    EXPECT_EQ(failureLines(0) + freed, ending(plugin.play(handler.request, handler.parameters)));
}

TEST(CryptoEnvelopeEncrypt, OutputBecomesUrlSafeBase64UpTo3072BytesMore)
{
    expectOutput(ENCRYPT, ENCRYPTION, "aven_crypto_pkcs7_encrypt", 27 + 3072);
}

TEST(CryptoEnvelopeDecrypt, OutputIsEscapedTwiceUpTo64BytesMore)
{
    expectOutput(DECRYPT, DECRYPTION, "aven_crypto_pkcs7_decrypt", 17 + 64, escapedTwice);
}

TEST(CryptoEnvelopeDecrypt, EachByteIsEscapedOrKept)
{
    Plugin plugin;
    std::string all(256, '\0');
    for (size_t i = 0; i < all.size(); ++i)
        all[i] = static_cast<char>(i);
    EXPECT_EQ(success(escapedTwice(all)),
              plugin.reply(DECRYPT, with(DECRYPTION, "strEncdata", toBase64(all))));
    EXPECT_EQ(success("a%2520b%252B%252F%253D"),
              plugin.reply(DECRYPT, with(DECRYPTION, "strEncdata", toBase64("a b+/="))));
}

TEST_P(Envelope, ObjectIsFreedWhenAnAllocationFailsAfterItWasRead)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    Plugin plugin;
    plugin.engine.on(cipher).output = std::string(handler.allocation - 1, ' ');
    EXPECT_TRUE(requestWithFault(plugin, handler.request, handler.parameters, [&] {
        return new AllocationFault(
            AllocationFault::atLeast(plugin.journal, handler.allocation + 20));
    }));
    EXPECT_EQ(failureLines(0) + freed, ending(plugin.transcript()));
}
