// The dispatcher: names and function IDs, and the frame around each handler.
#include <cctype>
#include <climits>
#include <functional>
#include <new>
#include <set>
#include <type_traits>

#include "WebOperateAvenSoftModule.h"
#include "base64.h"
#include "engine_binding.h"
#include "module_CorvaneParams.h"
#include "support/allocation_fault.h"
#include "support/plugin_test.h"
#include "support/request_rows.h"

using support::engineDouble;
using support::paramsDouble;
using support::paramsLacking;
using support::PluginHost;
using support::RequestRow;
using support::requestRows;

namespace {

using Names = std::vector<std::string>;

// The engine function of each request that reads the same parameters as another, with
// parameters that bring it there.
const Pairs SESSION = {{"strKe", "16"}, {"strdata", "QUJD"}, {"strcipher", "QUJD"}};
const Pairs WHITE_BOX = {{"strKey", "MDEyMzQ1Njc4OWFiY2RlZg=="},
                         {"strIV", "MDEyMzQ1Njc4OWFiY2RlZg=="},
                         {"strdata", "QUJD"}};
const struct {
    const char* name;
    const char* engineCall;
    Pairs parameters;
} twins[] = {
    {"QZaven_crypto_base64_encode", "aven_crypto_base64_encode", {{"strIn", "QUJD"}}},
    {"QZaven_crypto_base64_Decode", "aven_crypto_base64_decode", {{"strIn", "QUJD"}}},
    {"QZaven_ke_free", "aven_ke_free", SESSION},
    {"QZaven_ke_client_hello", "aven_ke_client_hello", SESSION},
    {"QZaven_ke_encrypt", "aven_ke_encrypt", SESSION},
    {"QZaven_ke_decrypt", "aven_ke_decrypt", SESSION},
    {"QZaven_ke_hmac", "aven_ke_hmac", SESSION},
    {"QZaven_ke_cmac", "aven_ke_cmac", SESSION},
    {"QZaven_wbsm4_encrypt", "aven_wbsm4_encrypt", WHITE_BOX},
    {"QZaven_wbsm4_decrypt", "aven_wbsm4_decrypt", WHITE_BOX},
};

class Dispatch : public PluginTest {};

// Parameters with which every request reaches its last engine call.
const Pairs EVERY = {
    {"strErr", "-20001"},
    {"strIn", "aGVsbG8td29ybGQ_"},
    {"strKe", "1582628864"},
    {"strSig_key", "c2lnbmF0dXJlIGtleSBvZiB0aGUgY2xpZW50"},
    {"strEnc_key", "ZW5jcnlwdGlvbiBrZXkgb2YgdGhlIGNsaWVudA=="},
    {"strPassword", "a password that is not short"},
    {"strCa_file", "/some/where/certificates/ca.pem"},
    {"strdata", "VGhlIHF1aWNrIGJyb3duIGZveCBqdW1wcyBvdmVy"},
    {"strcipher", "VGhlIHF1aWNrIGJyb3duIGZveCBqdW1wcyBvdmVy"},
    {"strKeyPairType", "1"},
    {"strpk", "cHVibGljIGtleSBvciBjZXJ0aWZpY2F0ZQ=="},
    {"strsk", "cHJpdmF0ZSBrZXkgdGhhdCBpcyBub3Qgc2hvcnQ="},
    {"strCipherAlg", "1"},
    {"strMode", "6"},
    {"strKey", "MDEyMzQ1Njc4OWFiY2RlZg=="},
    {"strIV", "MDEyMzQ1Njc4OWFiY2RlZg=="},
    {"straad", "YWRkaXRpb25hbCBkYXRhIHRoYXQgaXMgbm90IHNob3J0"},
    {"strtag", "MDEyMzQ1Njc4OWFiY2RlZg=="},
    {"strHashAlg", "1"},
    {"HashType", "1"},
    {"srcdata", "what a key is derived from, not short"},
    {"OutLen", "48"},
    {"strEncdata", "VGhlIHF1aWNrIGJyb3duIGZveCBqdW1wcyBvdmVy"},
};

// Ways to throw: a class of the library's own, a standard one, and what is no class at all.
const struct {
    const char* what;
    void (*script)(doubles::Step& step);
} throwers[] = {
    {"its own class", [](doubles::Step& step) { step.throws = true; }},
    {"bad_alloc", [](doubles::Step& step) { step.during = [] { throw std::bad_alloc(); }; }},
    {"a number", [](doubles::Step& step) { step.during = [] { throw 7; }; }},
};

// Each function of a double, and the first calls of those with two by themselves.
template <class Double>
void throwFromEach(Double& script, const Names& functions, const std::function<void()>& expect)
{
    for (const std::string& function : functions) {
        SCOPED_TRACE(function);
        for (const bool query : {false, true}) {
            for (const auto& thrower : throwers) {
                SCOPED_TRACE(thrower.what);
                script.forget();
                thrower.script(query ? script.onQuery(function) : script.on(function));
                expect();
            }
        }
    }
    script.forget();
}

// A handler of a host's own, outside the library, that keeps to the plug-in's forms.
class HostsHandler : public CWebServerBase {
public:
    std::string Request() override
    {
        const std::string data = GetFindNameStringValueFromMapParams("strdata");
        const long session = GetPtrForStr(GetFindNameStringValueFromMapParams("strKe"));
        std::wstring wide = base64_decode_w(std::wstring(data.begin(), data.end()));
        const std::vector<unsigned int> elements(wide.begin(), wide.end());
        wide = base64_encode_w(elements.data(), static_cast<unsigned int>(elements.size()));

        AddRetStrToParamsMap("Data", std::string(wide.begin(), wide.end()));
        AddRetStrToParamsMap("next", m_engine.GetStrForInt(session + 1));
        AddRetStrToParamsMap("accepted", is_base64('/') && is_base64_w(L'+') ? "yes" : "no");
        return ReturnRequest();
    }

private:
    CSoftMoudle_aven m_engine;
};

}  // namespace

TEST(FunctionId, IsThePlaceInTheTable)
{
    CWebOperateAvenSoftModule handler;
    for (size_t i = 0; i < std::size(requestRows); ++i)
        EXPECT_EQ(static_cast<int>(i), handler.GetFunctionID(requestRows[i].name))
            << requestRows[i].name;
}

TEST(FunctionId, NamesAreMatchedWholeAndExactly)
{
    CWebOperateAvenSoftModule handler;
    for (const RequestRow& row : requestRows) {
        const std::string name = row.name;
        std::string lower = name;
        std::string upper = name;
        for (size_t i = 0; i < name.size(); ++i) {
            lower[i] = static_cast<char>(tolower(name[i]));
            upper[i] = static_cast<char>(toupper(name[i]));
        }
        for (const std::string& other :
             {lower, upper, name + " ", " " + name, name + std::string(1, '\0'), name + "x",
              name.substr(1), name.substr(2), name.substr(0, name.size() - 1)})
            EXPECT_EQ(-1, handler.GetFunctionID(other)) << other;
    }
    for (const char* other : {"", "QZ", "qzaven_ke_new", "QZaVen_ke_new", "QZaven_GetVersion",
                              "QZaven_strerror", "QZaven_crypto_base64_decode"})
        EXPECT_EQ(-1, handler.GetFunctionID(other)) << other;
}

TEST_F(Dispatch, EachNameRunsItsHandler)
{
    for (const RequestRow& row : requestRows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.results, request(row.name));
        EXPECT_EQ(row.read, host.parametersRead());
        EXPECT_EQ(row.engineCall == nullptr ? Names() : Names{row.engineCall},
                  journal.functions("aven_"));
        EXPECT_EQ("", params.custom);
    }
}

TEST_F(Dispatch, TwinRequestsCallTheirOwnEngineFunction)
{
    for (const auto& twin : twins) {
        SCOPED_TRACE(twin.name);
        request(twin.name, twin.parameters);
        const std::set<std::string> called = [this] {
            const Names names = journal.functions("aven_");
            return std::set<std::string>(names.begin(), names.end());
        }();
        EXPECT_EQ(std::set<std::string>{twin.engineCall}, called);
    }
}

TEST_F(Dispatch, ResultsAreEmptiedFirstAndParametersLast)
{
    Names names;
    for (const RequestRow& row : requestRows)
        names.push_back(row.name);
    names.push_back("no such request");
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        request(name, {{"strKe", "1"}, {"unread", "value"}});
        const Names calls = journal.functions();
        ASSERT_GE(calls.size(), 5U);
        EXPECT_EQ((Names{"syslog", "ClearRetParams", "ClearRetCustomParam"}),
                  Names(calls.begin(), calls.begin() + 3));
        EXPECT_EQ((Names{"ClearHttpParams", "syslog"}), Names(calls.end() - 2, calls.end()));
        for (const char* once : {"ClearRetParams", "ClearRetCustomParam", "ClearHttpParams"})
            EXPECT_EQ(1U, journal.count(once)) << once;
        EXPECT_EQ(Pairs(), params.http);
    }
}

TEST_F(Dispatch, UnknownNameWritesNothing)
{
    EXPECT_EQ(Pairs(), request("QZaven_ke_new ", {{"strKe", "1"}}));
    EXPECT_EQ(Pairs(), host.resultsWritten());
    EXPECT_EQ(Names(), host.parametersRead());
    EXPECT_EQ(Names(), journal.functions("aven_"));
}

TEST_F(Dispatch, OtherFunctionIdsRunNothing)
{
    constexpr int count = std::size(requestRows);
    for (const int id : {-1, -2, count, count + 1, INT_MIN, INT_MAX}) {
        SCOPED_TRACE(id);
        journal.calls.clear();
        params.http = {{"strIn", "x"}};
        params.ret = {{"stale", "x"}};
        CWebOperateAvenSoftModule handler;
        handler.SetFunctionID(id);

        EXPECT_EQ("", handler.Request());
        EXPECT_EQ((Names{"ClearRetParams", "ClearRetCustomParam", "ClearHttpParams"}),
                  journal.functions());
        EXPECT_EQ(Pairs(), params.ret);
        EXPECT_EQ(Pairs(), params.http);
    }
}

TEST_F(Dispatch, RequestReturnsTheEmptyTextThroughTheBaseToo)
{
    CWebOperateAvenSoftModule handler;
    handler.SetFunctionID(0);
    CWebServerBase& base = handler;

    EXPECT_EQ("", base.Request());
    EXPECT_EQ((Pairs{{"Data", "engine double 1.0"}, {"errorCode", "0"}}), params.ret);
}

TEST_F(Dispatch, ReturnRequestEmptiesTheParametersAndIgnoresTheResult)
{
    CWebOperateAvenSoftModule handler;
    for (const bool throws : {false, true}) {
        journal.calls.clear();
        params.on("ClearHttpParams").code = 5;
        params.on("ClearHttpParams").throws = throws;
        EXPECT_EQ("", handler.ReturnRequest());
        EXPECT_EQ(Names{"ClearHttpParams"}, journal.functions());
    }
}

TEST_F(Dispatch, FailingModuleCallsAroundTheHandlerAreIgnored)
{
    for (const char* function : {"ClearRetParams", "ClearRetCustomParam", "ClearHttpParams"}) {
        for (const bool throws : {false, true}) {
            SCOPED_TRACE(function);
            params.forget();
            params.on(function).code = 5;
            params.on(function).throws = throws;
            host.request("QZaVen_GetVersion");

            EXPECT_EQ((Pairs{{"Data", "engine double 1.0"}, {"errorCode", "0"}}),
                      host.resultsWritten());
            EXPECT_EQ(1U, journal.count("ClearHttpParams"));
            EXPECT_EQ(2U, journal.count("syslog"));
        }
    }
    params.forget();
}

TEST_F(Dispatch, ResultThatCannotBeStoredIsLostWithoutNotice)
{
    for (const bool throws : {false, true}) {
        params.forget();
        params.on("AddRetParams", "Data").code = 5;
        params.on("AddRetParams", "Data").throws = throws;
        EXPECT_EQ((Pairs{{"errorCode", "0"}}), request("QZaVen_GetVersion"));
        EXPECT_EQ((Pairs{{"Data", "engine double 1.0"}, {"errorCode", "0"}}),
                  host.resultsWritten());
    }
}

TEST_F(Dispatch, ExceptionWhileAParameterIsReadEndsTheHandlerWithCodeZero)
{
    for (const bool query : {true, false}) {
        params.forget();
        (query ? params.onQuery("GetHttpParams") : params.on("GetHttpParams")).throws = true;
        EXPECT_EQ((Pairs{{"Data", ""}, {"errorCode", "0"}}),
                  request("QZaven_crypto_base64_encode", {{"strIn", "abc"}}));
        EXPECT_EQ(Names(), journal.functions("aven_"));
    }
    params.forget();
}

TEST_F(Dispatch, HandlerOfAHostHasTheFormsOfThePlugins)
{
    params.http = {{"strKe", "-17"}, {"strdata", "Zm9vYg=="}};
    params.ret.clear();
    HostsHandler handler;
    EXPECT_EQ("", handler.Request());
    EXPECT_EQ((Pairs{{"Data", "Zm9vYg=="}, {"next", "-16"}, {"accepted", "yes"}}), params.ret);
    EXPECT_EQ(Pairs(), params.http);
}

TEST(DispatchUnbound, WithoutAModuleNothingIsWrittenAndNothingFails)
{
    *CorvaneParamsClass::getInstance() = CorvaneParamsClass();  // as freshly loaded
    PluginHost host(engineDouble(), "");
    host.init();
    for (const RequestRow& row : requestRows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(0,
                  host.requestBytes(row.name, static_cast<unsigned>(std::string(row.name).size())));
        EXPECT_EQ(row.engineCall == nullptr ? Names() : Names{row.engineCall},
                  host.journal.functions("aven_"));
        EXPECT_EQ("", host.printed);
    }
    host.free();
}

// What one request leaves behind in front of a module that lacks a function.
TEST(DispatchPartlyBound, OnlyTheMissingFunctionIsMissed)
{
    const Pairs parameters = {{"strIn", "abc"}};
    const Pairs stale = {{"stale", "result of an earlier request"}};
    const Pairs success = {{"Data", "abc"}, {"errorCode", "0"}};
    const Pairs missing = {{"Data", ""}, {"errorCode", "-20001"}};
    for (const std::string& function : doubles::paramsFunctions()) {
        SCOPED_TRACE(function);
        PluginHost host(engineDouble(), paramsLacking(function));
        host.init();
        Pairs expected = function == "GetHttpParams"  ? missing
                         : function == "AddRetParams" ? Pairs()
                                                      : success;
        if (function == "ClearRetParams")
            expected.insert(expected.begin(), stale[0]);

        EXPECT_EQ(expected, host.request("QZaven_crypto_base64_encode", parameters));
        EXPECT_EQ(function == "ClearHttpParams" ? parameters : Pairs(), host.params.http);
        EXPECT_EQ(function == "ClearRetCustomParam" ? "custom text of an earlier request" : "",
                  host.params.custom);
        EXPECT_EQ(0U, host.journal.count(function));
        host.free();
    }
}

// Whatever the two libraries throw, and wherever: the entry point returns 0, and what the
// frame does around a handler is done.
TEST_F(Dispatch, NoExceptionOfAnotherLibraryEscapesARequest)
{
    for (const RequestRow& row : requestRows) {
        SCOPED_TRACE(row.name);
        const std::string name = row.name;
        const auto expect = [&] {
            params.http = EVERY;
            params.ret.clear();
            ASSERT_NO_THROW(
                EXPECT_EQ(0, host.requestBytes(name.data(), static_cast<unsigned>(name.size()))));
            EXPECT_EQ("", host.printed);
            for (const char* once : {"ClearRetParams", "ClearRetCustomParam", "ClearHttpParams"})
                EXPECT_EQ(1U, journal.count(once)) << once;
            EXPECT_EQ(2U, journal.count("syslog"));
            EXPECT_EQ(0, engine.keypairs.strangersFreed + engine.certificates.strangersFreed);
        };
        throwFromEach(params, doubles::paramsFunctions(), expect);
        throwFromEach(engine, doubles::engineFunctions(), expect);
        EXPECT_TRUE(engine.keypairs.live.empty() && engine.certificates.live.empty());
    }
}

TEST_F(Dispatch, NoExceptionOfAnotherLibraryEscapesInitOrFree)
{
    const auto expect = [&] {
        ASSERT_NO_THROW(EXPECT_EQ(0, host.init()));
        ASSERT_NO_THROW(EXPECT_EQ(0, host.free()));
    };
    throwFromEach(params, doubles::paramsFunctions(), expect);
    throwFromEach(engine, doubles::engineFunctions(), expect);
    host.init();
}

// Memory that runs out anywhere in a request must not get past the entry point, and must
// not keep the host's next request from being served.
TEST_F(Dispatch, NoAllocationFailureEscapesARequest)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    host.logLevel() = 3;
    for (const RequestRow& row : requestRows) {
        SCOPED_TRACE(row.name);
        const std::string name = row.name;
        bool struck = true;
        size_t n = 1;
        for (; struck && n < 1000; ++n) {
            params.http = EVERY;
            params.ret.clear();
            journal.calls.clear();
            {
                const auto fault = support::AllocationFault::nth(journal, n);
                ASSERT_NO_THROW(host.find<int (*)(const char*, unsigned)>("Corvane_plugin_Request")(
                    name.data(), static_cast<unsigned>(name.size())))
                    << "allocation " << n;
                struck = fault.struck();
            }
            ASSERT_EQ(Pairs(), params.http) << "allocation " << n;
        }
        EXPECT_TRUE(n > 2 || name.size() <= 15) << "the name's own allocation did not fail";
        EXPECT_FALSE(struck);
    }
    host.logLevel() = 4;
    request("QZaven_ke_free", {{"strKe", "16"}});
    engine.keypairs.live.clear();
}

static_assert(std::is_abstract_v<CWebServerBase>);
static_assert(std::has_virtual_destructor_v<CWebServerBase>);
static_assert(std::is_base_of_v<CWebServerBase, CWebOperateAvenSoftModule>);
static_assert(std::is_convertible_v<CWebOperateAvenSoftModule*, CWebServerBase*>);
// The virtual table's pointer, a map, a text and a list; then two 32-bit numbers.
static_assert(sizeof(CWebServerBase) == sizeof(void*) + sizeof(std::map<std::string, std::string>) +
                                            sizeof(std::string) + sizeof(std::list<std::string>));
static_assert(sizeof(CWebOperateAvenSoftModule) == sizeof(CWebServerBase) + 8);
