// The entry points, driven as a host drives them. This program is not linked to the
// plug-in, so that each test finds it freshly loaded.
#include <dlfcn.h>

#include <climits>
#include <cstring>
#include <fstream>
#include <memory>

#include "support/plugin_test.h"

using support::engineDouble;
using support::engineLacking;
using support::paramsDouble;
using support::paramsLacking;
using support::PluginHost;

namespace {

using Functions = std::vector<std::string>;

const std::string PARAMS_NOT_FOUND =
    "load fail, libCorvaneParamsModule.so: cannot open shared object file: "
    "No such file or directory\n";
const std::string ENGINE_NOT_FOUND =
    "libSoftModuleaven.so load fail\n"
    "m_softMoudleAven.aven_global_init ERROR 0xffffb109\n";

const Functions UNKNOWN_REQUEST = {"syslog", "ClearRetParams", "ClearRetCustomParam",
                                   "ClearHttpParams", "syslog"};

std::string sourceLine(const std::string& file, long long number)
{
    std::ifstream source(std::string(CORVANE_SOURCE_DIR) + "/" + file);
    std::string line;
    for (long long i = 0; i < number; ++i)
        std::getline(source, line);
    return line;
}

}  // namespace

TEST(Init, OpensTheModuleThenTheEngineAndSetsItsLogger)
{
    PluginHost host;

    EXPECT_EQ(0, host.init());
    EXPECT_EQ("", host.printed);
    EXPECT_EQ((Functions{"dlopen", "dlopen", "aven_global_init", "aven_global_set_logger"}),
              host.journal.functions());
    EXPECT_EQ("libCorvaneParamsModule.so", host.journal.at("dlopen", 0)["path"].bytes);
    EXPECT_EQ(RTLD_NOW, host.journal.at("dlopen", 0)["flags"].number);
    EXPECT_EQ("libSoftModuleaven.so", host.journal.at("dlopen", 1)["path"].bytes);
    EXPECT_EQ(RTLD_NOW, host.journal.at("dlopen", 1)["flags"].number);
    EXPECT_EQ("/dev/stderr", host.journal.only("aven_global_set_logger")["target"].bytes);
}

TEST(Init, EngineFailureIsPrintedAndNothingElse)
{
    const struct {
        int code;
        const char* printed;
    } rows[] = {
        {1, "m_softMoudleAven.aven_global_init ERROR 0x1\n"},
        {0xABCD, "m_softMoudleAven.aven_global_init ERROR 0xabcd\n"},
        {-1, "m_softMoudleAven.aven_global_init ERROR 0xffffffff\n"},
        {-20215, "m_softMoudleAven.aven_global_init ERROR 0xffffb109\n"},
        {INT_MIN, "m_softMoudleAven.aven_global_init ERROR 0x80000000\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.code);
        PluginHost host;
        host.engine.on("aven_global_init").code = row.code;

        EXPECT_EQ(0, host.init());
        EXPECT_EQ(row.printed, host.printed);
        EXPECT_EQ((Functions{"dlopen", "dlopen", "aven_global_init", "aven_global_set_logger"}),
                  host.journal.functions())
            << "the logger is set all the same, nothing is undone";
        EXPECT_EQ((Pairs{{"Data", "engine double 1.0"}, {"errorCode", "0"}}),
                  host.request("QZaVen_GetVersion"));
    }
}

TEST(Init, LoggerResultIsIgnored)
{
    PluginHost host;
    host.engine.on("aven_global_set_logger").code = -7;

    EXPECT_EQ(0, host.init());
    EXPECT_EQ("", host.printed);
}

TEST(Init, ExceptionsOfTheEngineEndInTheBinding)
{
    const struct {
        const char* throwing;
        int initCode;
        const char* printed;
        size_t loggerCalls;
    } rows[] = {
        {"aven_global_init", 5, "", 0},
        {"aven_global_set_logger", 0, "", 1},
        {"aven_global_set_logger", 5, "m_softMoudleAven.aven_global_init ERROR 0x5\n", 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.throwing);
        PluginHost host;
        host.engine.on("aven_global_init").code = row.initCode;
        host.engine.on(row.throwing).throws = true;

        EXPECT_EQ(0, host.init());
        EXPECT_EQ(row.printed, host.printed);
        EXPECT_EQ(row.loggerCalls, host.journal.count("aven_global_set_logger"));
    }
}

TEST(Init, EngineMissing)
{
    PluginHost host("", paramsDouble());

    EXPECT_EQ(0, host.init());
    EXPECT_EQ(ENGINE_NOT_FOUND, host.printed);
    EXPECT_EQ((Pairs{{"Data", ""}, {"errorCode", "-20215"}}), host.request("QZaVen_GetVersion"));
}

TEST(Init, ModuleMissing)
{
    PluginHost host(engineDouble(), "");

    EXPECT_EQ(0, host.init());
    EXPECT_EQ(PARAMS_NOT_FOUND, host.printed);
    EXPECT_EQ((Functions{"dlopen", "dlopen", "aven_global_init", "aven_global_set_logger"}),
              host.journal.functions());
}

TEST(Init, BothMissing)
{
    PluginHost host("", "");

    EXPECT_EQ(0, host.init());
    EXPECT_EQ(PARAMS_NOT_FOUND + ENGINE_NOT_FOUND, host.printed);
    EXPECT_EQ(0, host.requestBytes("QZaVen_GetVersion", 17));
    EXPECT_EQ((Functions{"syslog", "syslog"}), host.journal.functions());
    EXPECT_EQ(0, host.free());
    EXPECT_EQ("", host.printed);
    EXPECT_EQ(Functions(), host.journal.functions());
}

TEST(Init, EngineThatLacksAFunctionLoads)
{
    for (const std::string& function : doubles::engineFunctions()) {
        SCOPED_TRACE(function);
        PluginHost host(engineLacking(function));
        Functions calls = {"dlopen", "dlopen"};
        if (function != "aven_global_init") {
            calls.push_back("aven_global_init");
            if (function != "aven_global_set_logger")
                calls.push_back("aven_global_set_logger");
        }

        EXPECT_EQ(0, host.init());
        EXPECT_EQ(calls, host.journal.functions());
        EXPECT_EQ(function == "aven_global_init"
                      ? "m_softMoudleAven.aven_global_init ERROR 0xffffb109\n"
                      : "",
                  host.printed);
    }
}

TEST(Init, ModuleThatLacksAFunctionIsNotReported)
{
    for (const std::string& function : doubles::paramsFunctions()) {
        SCOPED_TRACE(function);
        PluginHost host(engineDouble(), paramsLacking(function));

        EXPECT_EQ(0, host.init());
        EXPECT_EQ("", host.printed);
        EXPECT_EQ((Functions{"dlopen", "dlopen", "aven_global_init", "aven_global_set_logger"}),
                  host.journal.functions());
    }
}

TEST(Init, SecondCallClosesTheModuleButNotTheEngine)
{
    PluginHost host;
    host.init();
    const long long module = host.journal.at("dlopen", 0)["handle"].number;

    EXPECT_EQ(0, host.init());
    EXPECT_EQ(
        (Functions{"dlclose", "dlopen", "dlopen", "aven_global_init", "aven_global_set_logger"}),
        host.journal.functions());
    EXPECT_EQ(module, host.journal.only("dlclose")["handle"].number);
    EXPECT_EQ((Pairs{{"Data", "engine double 1.0"}, {"errorCode", "0"}}),
              host.request("QZaVen_GetVersion"));
}

TEST(Init, SecondCallLooksAllEngineFunctionsUpAfresh)
{
    const Pairs versionMissing = {{"Data", ""}, {"errorCode", "0"}};
    const Pairs versionThere = {{"Data", "engine double 1.0"}, {"errorCode", "0"}};
    PluginHost host(engineLacking("aven_version"));
    host.init();
    EXPECT_EQ(versionMissing, host.request("QZaVen_GetVersion"));

    host.changeEngine(engineDouble());
    host.init();
    EXPECT_EQ(versionThere, host.request("QZaVen_GetVersion"));

    host.changeEngine(engineLacking("aven_version"));
    host.init();
    EXPECT_EQ(versionMissing, host.request("QZaVen_GetVersion"));
}

TEST(Init, SecondCallWithoutAnEngineLeavesNoneLoaded)
{
    PluginHost host;
    host.init();
    host.changeEngine("");

    EXPECT_EQ(0, host.init());
    EXPECT_EQ(ENGINE_NOT_FOUND, host.printed);
    EXPECT_EQ((Pairs{{"Data", ""}, {"errorCode", "-20215"}}), host.request("QZaVen_GetVersion"));
}

TEST(Init, SecondCallLooksAllModuleFunctionsUpAfresh)
{
    const Pairs success = {{"Data", "engine double 1.0"}, {"errorCode", "0"}};
    PluginHost host(engineDouble(), paramsLacking("AddRetParams"));
    host.init();
    EXPECT_EQ(Pairs(), host.request("QZaVen_GetVersion"));
    host.free();

    host.changeParams(paramsDouble());
    host.init();
    EXPECT_EQ(success, host.request("QZaVen_GetVersion"));
    host.free();

    host.changeParams(paramsLacking("AddRetParams"));
    host.init();
    EXPECT_EQ(Pairs(), host.request("QZaVen_GetVersion"));
}

// The first module's functions lie in memory that is unmapped by then.
TEST(Init, SecondCallWithoutAModuleReachesTheFirstNoMore)
{
    PluginHost host;
    host.init();
    host.free();
    host.changeParams("");

    EXPECT_EQ(0, host.init());
    EXPECT_EQ(PARAMS_NOT_FOUND, host.printed);
    EXPECT_EQ(0, host.requestBytes("QZaVen_GetVersion", 17));
    EXPECT_EQ((Functions{"syslog", "aven_version", "syslog"}), host.journal.functions());
}

TEST(Free, ClosesTheModuleThenCleansUpAndClosesTheEngine)
{
    PluginHost host;
    host.init();
    const long long module = host.journal.at("dlopen", 0)["handle"].number;
    const long long engine = host.journal.at("dlopen", 1)["handle"].number;

    EXPECT_EQ(0, host.free());
    EXPECT_EQ("", host.printed);
    EXPECT_EQ((Functions{"dlclose", "aven_global_cleanup", "dlclose"}), host.journal.functions());
    EXPECT_EQ(module, host.journal.at("dlclose", 0)["handle"].number);
    EXPECT_EQ(engine, host.journal.at("dlclose", 1)["handle"].number);
}

TEST(Free, CleanupFailureIsIgnored)
{
    for (const bool throws : {false, true}) {
        PluginHost host;
        host.engine.on("aven_global_cleanup").code = 9;
        host.engine.on("aven_global_cleanup").throws = throws;
        host.init();

        EXPECT_EQ(0, host.free());
        EXPECT_EQ("", host.printed);
        EXPECT_EQ((Functions{"dlclose", "aven_global_cleanup", "dlclose"}),
                  host.journal.functions());
    }
}

TEST(Free, EngineWithoutCleanupIsClosed)
{
    PluginHost host(engineLacking("aven_global_cleanup"));
    host.init();

    EXPECT_EQ(0, host.free());
    EXPECT_EQ((Functions{"dlclose", "dlclose"}), host.journal.functions());
}

TEST(Free, SecondCallDoesNothing)
{
    PluginHost host;
    host.init();
    host.free();

    EXPECT_EQ(0, host.free());
    EXPECT_EQ("", host.printed);
    EXPECT_EQ(Functions(), host.journal.functions());
}

TEST(Free, BeforeInitDoesNothing)
{
    PluginHost host;

    EXPECT_EQ(0, host.free());
    EXPECT_EQ("", host.printed);
    EXPECT_EQ(Functions(), host.journal.functions());
}

TEST(Free, InitAfterItServesAgain)
{
    PluginHost host;
    host.init();
    host.free();

    EXPECT_EQ(0, host.init());
    EXPECT_EQ((Functions{"dlopen", "dlopen", "aven_global_init", "aven_global_set_logger"}),
              host.journal.functions());
    EXPECT_EQ((Pairs{{"Data", "engine double 1.0"}, {"errorCode", "0"}}),
              host.request("QZaVen_GetVersion"));
}

// The stage keeps the module's library in memory here, as a host may.
TEST(Free, LeavesTheModulesFunctionsInPlace)
{
    PluginHost host;
    host.init();
    host.free();

    EXPECT_EQ((Pairs{{"Data", ""}, {"errorCode", "-20215"}}), host.request("QZaVen_GetVersion"));
    EXPECT_EQ((Functions{"syslog", "ClearRetParams", "ClearRetCustomParam", "AddRetParams",
                         "AddRetParams", "ClearHttpParams", "syslog"}),
              host.journal.functions());
}

TEST(Request, BeforeInitReachesNeitherLibrary)
{
    PluginHost host;
    for (const char* name : {"QZaVen_GetVersion", "QZaven_crypto_hmac", "QZaven_ke_new", ""}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(0, host.requestBytes(name, static_cast<unsigned>(strlen(name))));
        EXPECT_EQ("", host.printed);
        EXPECT_EQ((Functions{"syslog", "syslog"}), host.journal.functions());
    }
}

TEST(Request, NullNameOfLengthZeroRunsNoHandler)
{
    PluginHost host;
    host.init();
    host.params.http = {{"strIn", "left over"}};
    host.params.ret = {{"stale", "result"}};
    host.params.custom = "stale";

    EXPECT_EQ(0, host.requestBytes(nullptr, 0));
    EXPECT_EQ(UNKNOWN_REQUEST, host.journal.functions());
    EXPECT_EQ(Pairs(), host.params.http);
    EXPECT_EQ(Pairs(), host.params.ret);
    EXPECT_EQ("", host.params.custom);
}

TEST(Request, NameIsTakenByItsLengthAlone)
{
    const struct {
        const char* what;
        std::string bytes;
        unsigned len;
        bool known;
    } rows[] = {
        {"exact", "QZaVen_GetVersion", 17, true},
        {"longer text, cut", "QZaVen_GetVersionXYZ", 17, true},
        {"longer text, not cut", "QZaVen_GetVersionXYZ", 20, false},
        {"cut short", "QZaVen_GetVersion", 16, false},
        {"length 0", "QZaVen_GetVersion", 0, false},
        {"NUL behind it counts", std::string("QZaVen_GetVersion\0", 18), 18, false},
        {"NUL and more behind it count", std::string("QZaVen_GetVersion\0ab", 20), 20, false},
        {"NUL before it counts", std::string("\0QZaVen_GetVersion", 18), 18, false},
    };
    PluginHost host;
    host.init();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        // Memory of exactly that size, without a terminator.
        const auto exact = std::make_unique<char[]>(row.len);
        memcpy(exact.get(), row.bytes.data(), row.len);
        host.params.ret.clear();

        EXPECT_EQ(0, host.requestBytes(exact.get(), row.len));
        EXPECT_EQ(row.known ? 1U : 0U, host.journal.count("aven_version"));
        EXPECT_EQ(row.known ? 2U : 0U, host.params.ret.size());
        EXPECT_EQ(0, memcmp(exact.get(), row.bytes.data(), row.len)) << "the name was changed";
    }
}

TEST(Request, ReturnsZeroAlsoWhenItFails)
{
    PluginHost host;
    host.init();
    host.engine.on("aven_ke_new").code = 77;

    EXPECT_EQ((Pairs{{"Data", ""}, {"errorCode", "77"}}), host.request("QZaven_ke_new"));
    EXPECT_EQ((Pairs{{"Data", ""}, {"errorCode", "-20001"}}), host.request("QZaven_crypto_hmac"));
}

TEST(Request, NoStateIsLeftForTheNext)
{
    PluginHost host;
    host.init();
    host.engine.on("aven_ke_new").code = 77;
    host.request("QZaven_ke_new");
    host.engine.on("aven_version").nullText = true;

    EXPECT_EQ((Pairs{{"Data", ""}, {"errorCode", "0"}}), host.request("QZaVen_GetVersion"));
}

TEST(RequestLog, StartAndEndWithPriorityPlaceAndText)
{
    PluginHost host;
    host.init();
    host.request("QZaVen_GetVersion");

    ASSERT_EQ(2U, host.journal.count("syslog"));
    const char* const formats[] = {"[%s - %s:%u] plugin operate start\n",
                                   "[%s - %s:%u] plugin operate end\n"};
    const char* const words[] = {"plugin operate start", "plugin operate end"};
    for (size_t i = 0; i < 2; ++i) {
        const Call& message = host.journal.at("syslog", i);
        EXPECT_EQ(142, message["priority"].number);
        EXPECT_EQ(formats[i], message["format"].bytes);
        EXPECT_EQ("Corvane_plugin_Request", message["function"].bytes);
        EXPECT_EQ("./src/Corvane_plugin.cpp", message["file"].bytes);
        EXPECT_NE(std::string::npos,
                  sourceLine("src/Corvane_plugin.cpp", message["line"].number).find(words[i]))
            << "line " << message["line"].number;
    }
    EXPECT_EQ(0U, host.journal.place("syslog", 0));
    EXPECT_EQ(host.journal.calls.size() - 1, host.journal.place("syslog", 1));
    EXPECT_EQ(0U, host.journal.count("openlog") + host.journal.count("closelog"));
}

TEST(RequestLog, LevelDecides)
{
    const struct {
        int level;
        size_t messages;
    } rows[] = {{INT_MIN, 0}, {-1, 0}, {0, 0}, {3, 0}, {4, 2}, {5, 2}, {100, 2}, {INT_MAX, 2}};
    PluginHost host;
    host.init();
    EXPECT_EQ(4, host.logLevel());
    for (const auto& row : rows) {
        SCOPED_TRACE(row.level);
        host.logLevel() = row.level;
        host.request("QZaVen_GetVersion");
        EXPECT_EQ(row.messages, host.journal.count("syslog"));
        host.request("no such request");
        EXPECT_EQ(row.messages, host.journal.count("syslog"));
        EXPECT_EQ(row.level, host.logLevel());
    }
}

TEST(RequestLog, LevelIsReadAgainBeforeTheEnd)
{
    const struct {
        int before;
        int during;
        Functions messages;
    } rows[] = {
        {4, 3, {"[%s - %s:%u] plugin operate start\n"}},
        {3, 4, {"[%s - %s:%u] plugin operate end\n"}},
    };
    for (const auto& row : rows) {
        PluginHost host;
        host.init();
        host.logLevel() = row.before;
        host.engine.on("aven_version").during = [&] { host.logLevel() = row.during; };
        host.request("QZaVen_GetVersion");

        Functions messages;
        for (const Call& call : host.journal.calls)
            if (call.function == "syslog")
                messages.push_back(call["format"].bytes);
        EXPECT_EQ(row.messages, messages);
    }
}

TEST(Forgetting, CallsInitFreeAndAnEmptyRequest)
{
    PluginHost host;
    host.journal.calls.clear();
    EXPECT_EQ("", support::printedBy(
                      [&] { host.find<void (*)()>("_Z26prevent_Corvane_forgettingv")(); }));
    Functions calls = {"dlopen",           "dlopen",
                       "aven_global_init", "aven_global_set_logger",
                       "dlclose",          "aven_global_cleanup",
                       "dlclose"};
    calls.insert(calls.end(), UNKNOWN_REQUEST.begin(), UNKNOWN_REQUEST.end());
    EXPECT_EQ(calls, host.journal.functions());
}
