// The key-exchange session requests.
#include "support/handler_families.h"

using namespace support;

namespace {

const std::vector<std::string> ONLY_CODE = {"errorCode"};

Handler create()
{
    Handler handler{
        "QZaven_ke_new",
        {},
        std::string("aven_ke_new(ke=null)\nData=\"") + FIRST_SESSION_TEXT + "\"\nerrorCode=\"0\"\n",
        {"aven_ke_new"}};
    handler.engineUnbound = "aven_ke_new(ke=null)\n";
    return handler;
}

Handler destroy()
{
    Handler handler{"QZaven_ke_free",
                    {{"strKe", "00000000000000012345"}},
                    "read strKe\n"
                    "aven_ke_free(ke=12345)\n"
                    "errorCode=\"0\"\n",
                    {"aven_ke_free"}};
    handler.results = ONLY_CODE;
    return handler;
}

// The client's keys or certificates, as "key" or "cert" in the parameters' names.
Handler setOwn(const std::string& request, const std::string& function, const std::string& kind)
{
    Handler handler{request,
                    {{"strKe", "12345"},
                     {"strSig_" + kind, "MHcCAQEE-c_dAAAA"},
                     {"strEnc_" + kind, "ef-g_h=="},
                     {"strPassword", "a long-_password"}},
                    "read strKe strSig_" + kind + " strEnc_" + kind + " strPassword\n" + function +
                        "(ke=12345, sig_" + kind + "=\"MHcCAQEE+c/dAAAA\", enc_" + kind +
                        "=\"ef+g/h==\", password=\"a long-_password\")\n"
                        "errorCode=\"0\"\n",
                    {function}};
    handler.results = ONLY_CODE;
    return handler;
}

Handler setKeys()
{
    return setOwn("QZaven_ke_set_public_key", "aven_ke_set_public_key", "key");
}

Handler setCerts()
{
    return setOwn("QZaven_ke_set_certificate", "aven_ke_set_certificate", "cert");
}

Handler setRoots()
{
    Handler handler{"QZaven_ke_set_root_certificate",
                    {{"strKe", "12345"},
                     {"strCa_file", "/etc/roots/ca-file_1.pem"},
                     {"strCa_path", "/etc/roots/ca-path_1/"}},
                    "read strKe strCa_file strCa_path\n"
                    "aven_ke_set_root_certificate(ke=12345, ca_file=\"/etc/roots/ca-file_1.pem\", "
                    "ca_path=\"/etc/roots/ca-path_1/\")\n"
                    "errorCode=\"0\"\n",
                    {"aven_ke_set_root_certificate"}};
    handler.results = ONLY_CODE;
    return handler;
}

Handler hello()
{
    Handler handler{"QZaven_ke_client_hello",
                    {{"strKe", "00000000000000012345"}},
                    "read strKe\n"
                    "aven_ke_client_hello(ke=12345, out[32])\n"
                    "Data=\"AQIDBAUGBwgJCgsMDQ4PEBESExQVFhcYGRobHB0eHyA=\"\n"
                    "errorCode=\"0\"\n",
                    {"aven_ke_client_hello"}};
    handler.writesUnencodable = false;
    return handler;
}

Handler exchange()
{
    Handler handler{"QZaven_ke_client_key_exchange",
                    {{"strKe", "12345"},
                     {"strSrvr_rand", "cmFuZA=="},
                     {"strSrvr_sig_cert", "c2lnLWNlcnRpZmljYXRl"},
                     {"strSrvr_enc_cert", "ZW5jLWNlcnQ="},
                     {"strSrvr_sign", "c2lnbg=="}},
                    "read strKe strSrvr_rand strSrvr_sig_cert strSrvr_enc_cert strSrvr_sign\n"
                    "aven_ke_client_key_exchange(ke=12345, srvr_rand=\"rand\", "
                    "srvr_sig_cert=\"sig-certificate\", "
                    "srvr_enc_cert=\"enc-cert\", srvr_sign=\"sign\", out[256])\n"
                    "Data=\"" +
                        toUrlBase64(doubles::pattern(200)) +
                        "\"\n"
                        "errorCode=\"0\"\n",
                    {"aven_ke_client_key_exchange"}};
    handler.writesUnencodable = false;
    return handler;
}

// Facts of every request on an existing session.
class SessionHandle : public ::testing::TestWithParam<Handler> {
protected:
    const Handler& handler = GetParam();
};

// Of the two that give a session the client's keys.
class ClientKeys : public ::testing::TestWithParam<Handler> {
protected:
    const Handler& handler = GetParam();
    const std::string sig = handler.parameters[1].first;
    const std::string enc = handler.parameters[2].first;
    const std::string function = handler.calls.back();
    const std::string kind = function == "aven_ke_set_public_key" ? "key" : "cert";
    const std::string sigArgument = "sig_" + kind;
    const std::string encArgument = "enc_" + kind;

    // The engine call of a request with these parameters and a session.
    std::string call(const Pairs& parameters)
    {
        Plugin plugin;
        Pairs all = {{"strKe", "12345"}};
        all.insert(all.end(), parameters.begin(), parameters.end());
        EXPECT_EQ(failure(0, ONLY_CODE), plugin.reply(handler.request, all));
        return plugin.engineCalls();
    }

    std::string expected(const std::string& sigValue, const std::string& encValue,
                         const std::string& password)
    {
        return function + "(ke=12345, " + sigArgument + "=" + sigValue + ", " + encArgument + "=" +
               encValue + ", password=" + password + ")\n";
    }
};

}  // namespace

// clang-format off
FAMILY(HandlerFrame,  create(), destroy(), setKeys(), setCerts(), setRoots(), hello(), exchange());
FAMILY(EngineCodes,   create(), destroy(), setKeys(), setCerts(), setRoots(), hello(), exchange());
FAMILY(EncodedOutput,                                                         hello(), exchange());
FAMILY(SessionHandle,           destroy(), setKeys(), setCerts(), setRoots(), hello(), exchange());
FAMILY(ClientKeys,                         setKeys(), setCerts());
// clang-format on

// ---- Every request on an existing session

TEST_P(SessionHandle, IsRequired)
{
    expectRequired(handler.request, handler.parameters, {"strKe"}, handler.failed(MISSING));
}

TEST_P(SessionHandle, TextIsTakenUnchecked)
{
    Plugin plugin;
    const std::vector<std::pair<std::string, long long>> handles = {
        {"1", 1},
        {"-1", -1},
        {"9223372036854775807", LLONG_MAX},
        {"-9223372036854775808", LLONG_MIN},
        {"94826310041872", 94826310041872},
        {"12x", 12},
        {" 12", 12},
        {text("12\0"
              "3"),
         12},
        {"0", 0},
        {"abc", 0},
        {" ", 0},
        {text("\0"), 0},
        {"0x10", 0},
    };
    for (const auto& [given, handle] : handles) {
        SCOPED_TRACE(quoted(given));
        plugin.reply(handler.request, with(handler.parameters, "strKe", given));
        const Call& call = plugin.journal.only(handler.calls.back());
        EXPECT_EQ(handle, call["ke"].number);
        EXPECT_EQ(handle == 0, call["ke"].null);
    }
}

// ---- Creating and freeing

TEST(KeNew, RequestParametersAreIgnored)
{
    Plugin plugin;
    EXPECT_EQ(create().transcript, plugin.play("QZaven_ke_new", {{"strKe", "7"}, {"Data", "x"}}));
}

TEST(KeNew, HandleIsTheSignedDecimalTextOfThePointer)
{
    const std::vector<std::pair<intptr_t, std::string>> handles = {
        {1, "1"},
        {0x7FFFFFFFFFFFFFFF, "9223372036854775807"},
        {-5, "-5"},
        {0x555555554000, "93824992231424"},
    };
    for (const auto& [handle, data] : handles) {
        Plugin plugin;
        plugin.engine.on("aven_ke_new").object = reinterpret_cast<void*>(handle);
        EXPECT_EQ(success(data), plugin.reply("QZaven_ke_new"));
    }
}

TEST(KeNew, NullHandleTravelsAsZero)
{
    Plugin plugin;
    plugin.engine.on("aven_ke_new").object = nullptr;
    EXPECT_EQ(success("0"), plugin.reply("QZaven_ke_new"));
}

TEST(KeNew, HandleOfAFailingCallIsDropped)
{
    Plugin plugin;
    plugin.engine.on("aven_ke_new").object = reinterpret_cast<void*>(0x1230);
    plugin.engine.on("aven_ke_new").code = -7;
    EXPECT_EQ(failure(-7), plugin.reply("QZaven_ke_new"));
}

TEST(KeNew, EachRequestStartsFromANullHandle)
{
    Plugin plugin;
    EXPECT_EQ(success("1582628864"), plugin.reply("QZaven_ke_new"));
    EXPECT_EQ(success("1582628880"), plugin.reply("QZaven_ke_new"));
    EXPECT_EQ("aven_ke_new(ke=null)\n", plugin.engineCalls());
}

TEST(KeFree, SessionMadeByKeNewIsFreed)
{
    Plugin plugin;
    const std::string handle = plugin.reply("QZaven_ke_new").at(0).second;
    EXPECT_EQ(failure(0, ONLY_CODE), plugin.reply("QZaven_ke_free", {{"strKe", handle}}));
    EXPECT_EQ(1, plugin.engine.sessions.freed);
    EXPECT_TRUE(plugin.engine.sessions.live.empty());
}

TEST(KeFree, SessionIsFreedAgainWhenAskedTo)
{
    Plugin plugin;
    const std::string handle = plugin.reply("QZaven_ke_new").at(0).second;
    for (int i = 0; i < 2; ++i) {
        plugin.reply("QZaven_ke_free", {{"strKe", handle}});
        EXPECT_EQ("aven_ke_free(ke=" + handle + ")\n", plugin.engineCalls());
    }
}

// ---- Keys and certificates of the client

TEST_P(ClientKeys, AbsentOnesAreNull)
{
    EXPECT_EQ(expected("null", "null", "null"), call({}));
    EXPECT_EQ(expected("\"s\"", "null", "null"), call({{sig, "s"}}));
    EXPECT_EQ(expected("null", "\"e\"", "null"), call({{enc, "e"}}));
    EXPECT_EQ(expected("null", "null", "\"p\""), call({{"strPassword", "p"}}));
    EXPECT_EQ(expected("null", "null", "null"), call({{sig, ""}, {enc, ""}, {"strPassword", ""}}));
}

TEST_P(ClientKeys, TextsAreRewrittenAndNotDecoded)
{
    expectRewritten({handler.request, handler.parameters, sig, function, sigArgument});
    expectRewritten({handler.request, handler.parameters, enc, function, encArgument});
}

TEST_P(ClientKeys, PasswordIsPassedUpToItsFirstNul)
{
    expectUnchanged({handler.request, handler.parameters, "strPassword", function, "password"},
                    true);
}

TEST_P(ClientKeys, PasswordThatBeginsWithANulIsNotNull)
{
    EXPECT_EQ(expected("null", "null", "\"\""), call({{"strPassword", text("\0abc")}}));
}

TEST_P(ClientKeys, ParametersOfTheOtherKindAreNotRead)
{
    const std::string other = kind == "key" ? "cert" : "key";
    EXPECT_EQ(expected("null", "null", "null"),
              call({{"strSig_" + other, "a"}, {"strEnc_" + other, "b"}}));
}

// ---- Trusted roots

TEST(KeSetRootCertificate, FileIsRequired)
{
    expectRequired("QZaven_ke_set_root_certificate", setRoots().parameters, {"strKe", "strCa_file"},
                   failure(MISSING, ONLY_CODE));
}

TEST(KeSetRootCertificate, AbsentPathIsNull)
{
    Plugin plugin;
    for (const Pairs& parameters : {without(setRoots().parameters, "strCa_path"),
                                    with(setRoots().parameters, "strCa_path", "")}) {
        EXPECT_EQ(failure(0, ONLY_CODE),
                  plugin.reply("QZaven_ke_set_root_certificate", parameters));
        EXPECT_EQ(
            "aven_ke_set_root_certificate(ke=12345, ca_file=\"/etc/roots/ca-file_1.pem\", "
            "ca_path=null)\n",
            plugin.engineCalls());
    }
}

TEST(KeSetRootCertificate, FileAndPathArePassedUpToTheirFirstNul)
{
    const Handler handler = setRoots();
    for (const auto& [parameter, argument] :
         Pairs{{"strCa_file", "ca_file"}, {"strCa_path", "ca_path"}})
        expectUnchanged(
            {handler.request, handler.parameters, parameter, handler.calls[0], argument}, true);
}

// ---- Client hello

TEST(KeClientHello, OutputBecomesUrlSafeBase64UpTo32Bytes)
{
    expectOutput("QZaven_ke_client_hello", hello().parameters, "aven_ke_client_hello", 32);
}

TEST(KeClientHello, TwoBytesBecomeFourCharacters)
{
    Plugin plugin;
    plugin.engine.on("aven_ke_client_hello").output = "\xFB\xFF";
    EXPECT_EQ(success("-_8="), plugin.reply("QZaven_ke_client_hello", hello().parameters));
}

TEST(KeClientHello, SuccessWithoutBytesEndsWithCodeZero)
{
    Plugin plugin;
    plugin.engine.on("aven_ke_client_hello").output = "";
    EXPECT_EQ(failure(0), plugin.reply("QZaven_ke_client_hello", hello().parameters));
}

// ---- Client key exchange

TEST(KeClientKeyExchange, ServerValuesAreDecoded)
{
    const Handler handler = exchange();
    for (const auto& [parameter, argument] : Pairs{{"strSrvr_rand", "srvr_rand"},
                                                   {"strSrvr_sig_cert", "srvr_sig_cert"},
                                                   {"strSrvr_enc_cert", "srvr_enc_cert"},
                                                   {"strSrvr_sign", "srvr_sign"}})
        expectDecoded({handler.request, handler.parameters, parameter, handler.calls[0], argument});
}

TEST(KeClientKeyExchange, AbsentServerValuesAreEmptyAndNotNull)
{
    Plugin plugin;
    EXPECT_EQ(success(toUrlBase64(doubles::pattern(200))),
              plugin.reply("QZaven_ke_client_key_exchange", {{"strKe", "12345"}}));
    EXPECT_EQ(
        "aven_ke_client_key_exchange(ke=12345, srvr_rand=\"\", srvr_sig_cert=\"\", "
        "srvr_enc_cert=\"\", srvr_sign=\"\", out[256])\n",
        plugin.engineCalls());
}

TEST(KeClientKeyExchange, OutputBecomesUrlSafeBase64UpTo256Bytes)
{
    expectOutput("QZaven_ke_client_key_exchange", exchange().parameters,
                 "aven_ke_client_key_exchange", 256);
}

TEST(KeClientKeyExchange, SuccessWithoutBytesEndsWithCodeZero)
{
    Plugin plugin;
    plugin.engine.on("aven_ke_client_key_exchange").output = "";
    EXPECT_EQ(failure(0), plugin.reply("QZaven_ke_client_key_exchange", exchange().parameters));
}
