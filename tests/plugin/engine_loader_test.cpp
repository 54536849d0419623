// Loading the engine, its lifecycle calls and the text forms of handles.
#include <dlfcn.h>

#include <climits>
#include <cstdint>
#include <locale>
#include <random>

#include "engine_binding.h"
#include "support/allocation_fault.h"
#include "support/plugin_test.h"

using support::engineDouble;
using support::engineLacking;
using support::Stage;

namespace {

using Functions = std::vector<std::string>;

constexpr int NOT_LOADED = -20215;

struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\1"; }
};

// The stage holds no engine of its own; the binding opens them by path.
class EngineLoad : public ::testing::Test {
protected:
    void TearDown() override { engine.unloadLibrary(); }

    // Opens an engine and attaches the double's state.
    int load(const std::string& path)
    {
        stage.changeEngine(path);
        return engine.loadLibrary(path.c_str());
    }

    // Leaves a code behind that no function sets by itself.
    void leaveCode(int code)
    {
        load(engineDouble());
        stage.engine.on("aven_global_cleanup").code = code;
        ASSERT_EQ(code, engine.aven_global_cleanup());
        stage.engine.forget();
        stage.journal.calls.clear();
    }

    Stage stage{"", ""};
    doubles::Journal& journal = stage.journal;
    CSoftMoudle_aven engine;
};

}  // namespace

TEST_F(EngineLoad, NewObjectHoldsNoCode)
{
    EXPECT_EQ(0, engine.get_ErrorCode());
    EXPECT_FALSE(engine.isLoad());
    EXPECT_EQ(NOT_LOADED, engine.get_ErrorCode());
}

TEST_F(EngineLoad, OpensThePathAtOnce)
{
    stage.changeEngine(engineDouble());
    journal.calls.clear();

    EXPECT_EQ(0, engine.loadLibrary(engineDouble().c_str()));
    EXPECT_EQ(Functions{"dlopen"}, journal.functions());
    EXPECT_EQ(engineDouble(), journal.only("dlopen")["path"].bytes);
    EXPECT_EQ(RTLD_NOW, journal.only("dlopen")["flags"].number);
    EXPECT_TRUE(engine.isLoad());
    EXPECT_EQ(0, engine.get_ErrorCode());
}

TEST_F(EngineLoad, MissingLibraryIsPrinted)
{
    for (const std::string path :
         {"/nowhere/libSoftModuleaven.so", "libSoftModuleaven.so", "%s%n"}) {
        SCOPED_TRACE(path);
        CSoftMoudle_aven fresh;
        EXPECT_EQ(path + " load fail\n", support::printedBy([&] {
                      EXPECT_EQ(NOT_LOADED, fresh.loadLibrary(path.c_str()));
                  }));
        EXPECT_EQ(0, fresh.get_ErrorCode()) << "the code is isLoad's to set";
        EXPECT_FALSE(fresh.isLoad());
        EXPECT_EQ(NOT_LOADED, fresh.get_ErrorCode());
    }
}

TEST_F(EngineLoad, SuccessLeavesTheCodeAlone)
{
    leaveCode(55);
    EXPECT_EQ(0, engine.loadLibrary(engineDouble().c_str()));
    EXPECT_EQ(55, engine.get_ErrorCode());
}

TEST_F(EngineLoad, FailureForgetsTheOpenEngineWithoutClosingIt)
{
    leaveCode(55);
    journal.calls.clear();

    EXPECT_EQ("/nowhere/at/all.so load fail\n", support::printedBy([&] {
                  EXPECT_EQ(NOT_LOADED, engine.loadLibrary("/nowhere/at/all.so"));
              }));
    EXPECT_EQ(Functions{"dlopen"}, journal.functions());
    EXPECT_EQ(55, engine.get_ErrorCode());
    EXPECT_FALSE(engine.isLoad());
    EXPECT_EQ("", engine.aven_version());
    EXPECT_EQ(NOT_LOADED, engine.aven_global_init("x"));
    EXPECT_EQ(NOT_LOADED, engine.aven_global_cleanup());
}

TEST_F(EngineLoad, SecondLoadClosesNothing)
{
    load(engineDouble());
    journal.calls.clear();

    EXPECT_EQ(0, engine.loadLibrary(engineDouble().c_str()));
    EXPECT_EQ(Functions{"dlopen"}, journal.functions());
}

TEST_F(EngineLoad, FunctionsOfAnEarlierEngineAreForgotten)
{
    ASSERT_EQ(0, load(engineDouble()));
    EXPECT_EQ("engine double 1.0", engine.aven_version());
    ASSERT_EQ(0, load(engineLacking("aven_version")));
    EXPECT_EQ("", engine.aven_version());
    EXPECT_EQ("text of 3", engine.aven_strerror("3"));
    ASSERT_EQ(0, load(engineDouble()));
    EXPECT_EQ("engine double 1.0", engine.aven_version());
}

TEST_F(EngineLoad, StateIsSharedAndCodesAreNot)
{
    CSoftMoudle_aven other;
    load(engineDouble());
    stage.engine.on("aven_global_init").code = 8;

    EXPECT_EQ(8, engine.aven_global_init("x"));
    EXPECT_EQ(0, other.get_ErrorCode());
    EXPECT_TRUE(other.isLoad());
    EXPECT_EQ(8, engine.get_ErrorCode());
    other.unloadLibrary();
    EXPECT_FALSE(engine.isLoad());
}

TEST_F(EngineLoad, ObjectsComeAndGoWithoutTouchingTheEngine)
{
    load(engineDouble());
    journal.calls.clear();
    {
        CSoftMoudle_aven other;
    }
    EXPECT_EQ(Functions(), journal.functions());
    EXPECT_TRUE(engine.isLoad());
}

TEST_F(EngineLoad, EveryEngineThatLacksAFunctionLoadsSilently)
{
    for (const std::string& function : doubles::engineFunctions()) {
        SCOPED_TRACE(function);
        EXPECT_EQ("", support::printedBy([&] { EXPECT_EQ(0, load(engineLacking(function))); }));
        EXPECT_TRUE(engine.isLoad());
    }
}

TEST_F(EngineLoad, UnloadClosesOnce)
{
    load(engineDouble());
    const long long handle = journal.at("dlopen", journal.count("dlopen") - 1)["handle"].number;
    journal.calls.clear();

    engine.unloadLibrary();
    engine.unloadLibrary();
    EXPECT_EQ(Functions{"dlclose"}, journal.functions());
    EXPECT_EQ(handle, journal.only("dlclose")["handle"].number);
    EXPECT_FALSE(engine.isLoad());
    EXPECT_EQ("", engine.aven_version());
    EXPECT_EQ("", engine.aven_strerror("1"));
    EXPECT_EQ(NOT_LOADED, engine.aven_global_init("x"));
    EXPECT_EQ(NOT_LOADED, engine.aven_global_cleanup());
    EXPECT_EQ(Functions(), journal.functions("aven_"));
}

TEST_F(EngineLoad, InitReturnsTheEnginesResultAndSetsTheLogger)
{
    load(engineDouble());
    for (const int code : {0, 1, -1, NOT_LOADED, INT_MIN, INT_MAX}) {
        SCOPED_TRACE(code);
        journal.calls.clear();
        stage.engine.on("aven_global_init").code = code;
        stage.engine.on("aven_global_set_logger").code = 99;
        EXPECT_EQ(code, engine.aven_global_init("/var/log/engine"));
        EXPECT_EQ(code, engine.get_ErrorCode());
        EXPECT_EQ((Functions{"aven_global_init", "aven_global_set_logger"}), journal.functions());
        EXPECT_EQ("/var/log/engine", journal.only("aven_global_set_logger")["target"].bytes);
    }
}

TEST_F(EngineLoad, LogTargetIsATextAlsoIfEmpty)
{
    load(engineDouble());
    engine.aven_global_init("");
    engine.aven_global_init(std::string("a\0b", 3));
    EXPECT_FALSE(journal.at("aven_global_set_logger", 0)["target"].null);
    EXPECT_EQ("", journal.at("aven_global_set_logger", 0)["target"].bytes);
    EXPECT_EQ("a", journal.at("aven_global_set_logger", 1)["target"].bytes);
}

TEST_F(EngineLoad, InitWithoutLoggerFunction)
{
    load(engineLacking("aven_global_set_logger"));
    for (const int code : {0, 6}) {
        journal.calls.clear();
        stage.engine.on("aven_global_init").code = code;
        EXPECT_EQ(code, engine.aven_global_init("x"));
        EXPECT_EQ(code, engine.get_ErrorCode());
        EXPECT_EQ(Functions{"aven_global_init"}, journal.functions());
    }
}

TEST_F(EngineLoad, MissingFunctionIsReturnedButNotStored)
{
    leaveCode(55);
    load(engineLacking("aven_global_init"));
    journal.calls.clear();
    EXPECT_EQ(NOT_LOADED, engine.aven_global_init("x"));
    EXPECT_EQ(0, engine.get_ErrorCode());
    EXPECT_EQ(Functions(), journal.functions());

    leaveCode(55);
    load(engineLacking("aven_global_cleanup"));
    EXPECT_EQ(NOT_LOADED, engine.aven_global_cleanup());
    EXPECT_EQ(0, engine.get_ErrorCode());

    leaveCode(55);
    load(engineLacking("aven_version"));
    EXPECT_EQ("", engine.aven_version());
    EXPECT_EQ(0, engine.get_ErrorCode());

    leaveCode(55);
    load(engineLacking("aven_strerror"));
    EXPECT_EQ("", engine.aven_strerror("1"));
    EXPECT_EQ(0, engine.get_ErrorCode());
}

TEST_F(EngineLoad, EngineNotLoadedIsReturnedAndStored)
{
    const auto expectStored = [](CSoftMoudle_aven& fresh) {
        EXPECT_EQ(NOT_LOADED, fresh.get_ErrorCode());
    };
    for (int i = 0; i < 4; ++i) {
        CSoftMoudle_aven fresh;
        switch (i) {
            case 0:
                EXPECT_EQ(NOT_LOADED, fresh.aven_global_init("x"));
                break;
            case 1:
                EXPECT_EQ(NOT_LOADED, fresh.aven_global_cleanup());
                break;
            case 2:
                EXPECT_EQ("", fresh.aven_version());
                break;
            default:
                EXPECT_EQ("", fresh.aven_strerror("1"));
        }
        expectStored(fresh);
    }
}

TEST_F(EngineLoad, ExceptionsLeaveTheCodeHeldSoFar)
{
    leaveCode(55);
    stage.engine.on("aven_global_init").code = 5;
    stage.engine.on("aven_global_init").throws = true;
    EXPECT_EQ(0, engine.aven_global_init("x"));
    EXPECT_EQ(0, engine.get_ErrorCode());
    EXPECT_EQ(0U, journal.count("aven_global_set_logger"));

    stage.engine.on("aven_global_init").throws = false;
    stage.engine.on("aven_global_set_logger").throws = true;
    EXPECT_EQ(5, engine.aven_global_init("x"));
    EXPECT_EQ(5, engine.get_ErrorCode());

    stage.engine.on("aven_global_cleanup").code = 5;
    stage.engine.on("aven_global_cleanup").throws = true;
    EXPECT_EQ(0, engine.aven_global_cleanup());
    EXPECT_EQ(0, engine.get_ErrorCode());

    stage.engine.on("aven_version").throws = true;
    EXPECT_EQ("", engine.aven_version());
    stage.engine.on("aven_strerror").throws = true;
    EXPECT_EQ("", engine.aven_strerror("1"));
}

TEST_F(EngineLoad, CleanupReturnsTheEnginesResult)
{
    load(engineDouble());
    for (const int code : {0, 1, -1, INT_MIN}) {
        stage.engine.on("aven_global_cleanup").code = code;
        EXPECT_EQ(code, engine.aven_global_cleanup());
        EXPECT_EQ(code, engine.get_ErrorCode());
    }
    EXPECT_TRUE(engine.isLoad()) << "cleanup does not unload";
}

TEST_F(EngineLoad, TextsAreCopiedUpToTheirNul)
{
    load(engineDouble());
    const std::string longText(5000, 't');
    for (const std::string& text : {std::string(), std::string("x"), longText}) {
        stage.engine.on("aven_version").text = text;
        stage.engine.on("aven_strerror").text = text;
        EXPECT_EQ(text, engine.aven_version());
        EXPECT_EQ(text, engine.aven_strerror("1"));
    }
    stage.engine.on("aven_version").text = std::string("a\0b", 3);
    EXPECT_EQ("a", engine.aven_version());
    stage.engine.on("aven_version").nullText = true;
    stage.engine.on("aven_strerror").nullText = true;
    EXPECT_EQ("", engine.aven_version());
    EXPECT_EQ("", engine.aven_strerror("1"));
    EXPECT_EQ(0, engine.get_ErrorCode());
}

TEST_F(EngineLoad, ErrorCodeIsReadAsADecimalNumber)
{
    const struct {
        std::string text;
        int code;
    } rows[] = {
        {"0", 0},
        {"", 0},
        {"abc", 0},
        {"-20001", -20001},
        {"-20001x", -20001},
        {" \t\n12", 12},
        {"+5", 5},
        {"--5", 0},
        {"0x10", 0},
        {"010", 10},
        {"1.9", 1},
        {"2147483647", INT_MAX},
        {"-2147483648", INT_MIN},
        {std::string("12\0 34", 6), 12},
    };
    load(engineDouble());
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        journal.calls.clear();
        EXPECT_EQ("text of " + std::to_string(row.code), engine.aven_strerror(row.text));
        EXPECT_EQ(row.code, journal.only("aven_strerror")["code"].number);
    }
}

TEST_F(EngineLoad, HandleTextIsSignedDecimal)
{
    const struct {
        long value;
        const char* text;
    } rows[] = {
        {0, "0"},
        {-5, "-5"},
        {1234567, "1234567"},
        {LONG_MAX, "9223372036854775807"},
        {LONG_MIN, "-9223372036854775808"},
    };
    const auto expectAll = [&] {
        for (const auto& row : rows) {
            EXPECT_EQ(row.text, engine.GetStrForInt(row.value));
            EXPECT_EQ(row.value, GetPtrForStr(row.text));
        }
    };
    expectAll();

    const std::locale previous = std::locale::global(std::locale(std::locale(), new Grouping));
    expectAll();
    std::locale::global(previous);
    EXPECT_EQ(0, engine.get_ErrorCode()) << "uses nothing of the object";
}

// Texts of more than 15 characters need memory.
TEST_F(EngineLoad, HandleTextIsEmptyWithoutMemory)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    std::string text = "before";
    {
        const auto fault = support::AllocationFault::nth(journal, 1);
        EXPECT_NO_THROW(text = engine.GetStrForInt(LONG_MIN));
        EXPECT_TRUE(fault.struck());
    }
    EXPECT_EQ("", text);
}

TEST_F(EngineLoad, HandleTextIsReadAsFarAsItIsANumber)
{
    const struct {
        std::string text;
        long value;
    } rows[] = {
        {"", 0},
        {"xyz", 0},
        {" 42", 42},
        {"-5x", -5},
        {"+7", 7},
        {"0x10", 0},
        {"12 34", 12},
        {"-", 0},
        {std::string("9\0"
                     "9",
                     3),
         9},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.value, GetPtrForStr(row.text)) << row.text;
}

TEST_F(EngineLoad, HandleTextsRoundTrip)
{
    std::mt19937_64 random(20240607);
    for (int i = 0; i < 2000; ++i) {
        const auto value = static_cast<long>(random() >> (i % 64));
        ASSERT_EQ(value, GetPtrForStr(engine.GetStrForInt(value)));
        ASSERT_EQ(-value, GetPtrForStr(engine.GetStrForInt(-value)));
    }
}
