// The handler base's members that read parameters and write results.
#include <climits>
#include <clocale>
#include <locale>

#include "WebServerBase.h"
#include "module_CorvaneParams.h"
#include "support/allocation_fault.h"
#include "support/plugin_test.h"

using support::paramsLacking;
using support::Stage;

namespace {

using Functions = std::vector<std::string>;

class Handler : public CWebServerBase {
public:
    std::string Request() override { return ""; }
};

std::string everyByte()
{
    std::string bytes;
    for (int i = 0; i < 256; ++i)
        bytes += static_cast<char>(i);
    return bytes;
}

const std::string ZERO_INSIDE("a\0b", 3);

class ParamMaps : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, CorvaneParamsClass::getInstance()->Load());
        stage.journal.calls.clear();
    }

    void TearDown() override { CorvaneParamsClass::getInstance()->Free(); }

    Stage stage;
    doubles::Journal& journal = stage.journal;
    doubles::ParamsDouble& params = stage.params;
    Handler handler;
};

// The two reading members, which must not differ but in the store.
struct Reading {
    const char* function;
    std::string (CWebServerBase::*read)(std::string);
    Pairs doubles::ParamsDouble::*store;
};

class ReadParam : public ParamMaps, public ::testing::WithParamInterface<Reading> {
protected:
    std::string read(const std::string& name)
    {
        journal.calls.clear();
        return (handler.*GetParam().read)(name);
    }

    Pairs& store() { return params.*GetParam().store; }
    const char* function() const { return GetParam().function; }
};

INSTANTIATE_TEST_SUITE_P(
    , ReadParam,
    ::testing::Values(Reading{"GetHttpParams", &CWebServerBase::GetFindNameStringValueFromMapParams,
                              &doubles::ParamsDouble::http},
                      Reading{"GetRetParams", &CWebServerBase::GetRetStrToParamsMap,
                              &doubles::ParamsDouble::ret}),
    [](const auto& reading) { return reading.param.function; });

// The two writing members, which must not differ but in the store and in what they leave out.
struct Writing {
    const char* function;
    void (CWebServerBase::*write)(std::string, std::string);
    Pairs doubles::ParamsDouble::*store;
    bool takesEmptyNames;
    bool takesEmptyValues;
};

void PrintTo(const Writing& writing, std::ostream* out)
{
    *out << writing.function;
}

class WriteParam : public ParamMaps, public ::testing::WithParamInterface<Writing> {
protected:
    void write(const std::string& name, const std::string& value)
    {
        journal.calls.clear();
        (handler.*GetParam().write)(name, value);
    }

    Pairs& store() { return params.*GetParam().store; }
    const char* function() const { return GetParam().function; }
};

INSTANTIATE_TEST_SUITE_P(
    , WriteParam,
    ::testing::Values(Writing{"AddHttpParams", &CWebServerBase::InsertStringValueFromMapParams,
                              &doubles::ParamsDouble::http, true, false},
                      Writing{"AddRetParams", &CWebServerBase::AddRetStrToParamsMap,
                              &doubles::ParamsDouble::ret, false, true}),
    [](const auto& writing) { return writing.param.function; });

// A C++ locale that groups digits; streams would obey it.
struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\1"; }
};

struct GroupingLocale {
    GroupingLocale() : previous(std::locale::global(std::locale(std::locale(), new Grouping))) {}
    ~GroupingLocale() { std::locale::global(previous); }
    std::locale previous;
};

}  // namespace

TEST_P(ReadParam, MakesTwoCallsAlsoForAnEmptyValue)
{
    const std::string values[] = {
        "",
        "v",
        ZERO_INSIDE,
        std::string(1, '\0'),
        std::string(5, '\0'),
        "text of ordinary size",
        everyByte(),
        std::string(15, 'x'),
        std::string(16, 'x'),
        std::string(17, 'x'),
        std::string(4096, 'y'),
        std::string(300000, 'z'),
    };
    for (const std::string& value : values) {
        SCOPED_TRACE(value.size());
        store() = {{"other", "x"}, {"name", value}};
        const auto length = static_cast<long long>(value.size());

        EXPECT_EQ(value, read("name"));
        ASSERT_EQ((Functions{function(), function()}), journal.functions());
        const Call& first = journal.at(function(), 0);
        EXPECT_EQ("name", first["name"].bytes);
        EXPECT_EQ(4, first["name_len"].number);
        EXPECT_TRUE(first["value"].null);
        EXPECT_EQ(0, first["value_len"].number);
        const Call& second = journal.at(function(), 1);
        EXPECT_EQ("name", second["name"].bytes);
        EXPECT_EQ(4, second["name_len"].number);
        EXPECT_FALSE(second["value"].null);
        EXPECT_EQ(length, second["value_len"].number);
        EXPECT_TRUE(second["value"].zeroed) << "the value's length and one byte more";
    }
}

TEST_P(ReadParam, NamesAreBytesWithALength)
{
    for (const std::string& name : {std::string(), ZERO_INSIDE, everyByte()}) {
        store() = {{name, "found"}, {"a", "wrong"}};
        EXPECT_EQ("found", read(name));
        EXPECT_EQ(name, journal.at(function())["name"].bytes);
    }
}

TEST_P(ReadParam, AbsentNameIsTheEmptyTextAfterOneCall)
{
    store() = {{"name", "x"}};
    EXPECT_EQ("", read("nam"));
    EXPECT_EQ(Functions{function()}, journal.functions());
}

TEST_P(ReadParam, FailingFirstCallIsTheEmptyText)
{
    store() = {{"name", "value"}};
    for (const int code : {1, -1, -20216, INT_MIN}) {
        params.onQuery(function()).code = code;
        EXPECT_EQ("", read("name"));
        EXPECT_EQ(Functions{function()}, journal.functions());
    }
}

TEST_P(ReadParam, ResultOfTheSecondCallIsNotChecked)
{
    store() = {{"name", "value"}};
    params.on(function()).code = 5;  // the module then leaves buffer and length alone
    EXPECT_EQ(std::string(5, '\0'), read("name"));
}

TEST_P(ReadParam, SecondCallDecidesTheLengthWithinTheFirst)
{
    const struct {
        const char* what;
        long long reported;
        std::string value;
    } rows[] = {
        {"as announced", 5, "value"}, {"less", 2, "va"},
        {"nothing", 0, ""},           {"one more", 6, "value"},
        {"far more", 100, "value"},   {"absurd", LONG_MAX, "value"},
        {"negative", -1, ""},         {"very negative", LONG_MIN, ""},
    };
    store() = {{"name", "value"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        params.on(function()).reported = row.reported;
        EXPECT_EQ(row.value, read("name"));
    }
}

TEST_P(ReadParam, ValueThatGrewBetweenTheCallsIsCut)
{
    store() = {{"name", "value"}};
    params.on(function()).output = "value and more";
    params.on(function()).reported = 14;
    EXPECT_EQ("value", read("name"));
}

TEST_P(ReadParam, NegativeAnnouncementIsTheEmptyText)
{
    store() = {{"name", "value"}};
    for (const long long announced : {-1LL, -5LL, static_cast<long long>(LONG_MIN)}) {
        params.onQuery(function()).reported = announced;
        params.on(function()).reported = announced;
        EXPECT_EQ("", read("name"));
        params.on(function()).reported = 5;
        EXPECT_EQ("", read("name")) << "no room was announced";
    }
}

// Left to the frame of the handler, which reports no code for it.
TEST_P(ReadParam, AnnouncementBeyondMemoryIsAFailureNotACrash)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    store() = {{"name", "value"}};
    for (const long long announced :
         {static_cast<long long>(LONG_MAX), static_cast<long long>(LONG_MAX - 1), 1LL << 60}) {
        params.onQuery(function()).reported = announced;
        EXPECT_ANY_THROW(read("name"));
        EXPECT_EQ(Functions{function()}, journal.functions()) << "there was no buffer to pass";
    }
}

// A value of which only a part is known to be there is no value. The frame of the handler
// takes the exception.
TEST_P(ReadParam, ExceptionsOfTheModuleAreLeftToTheCaller)
{
    store() = {{"name", "value"}};
    for (const char* stored : {"name", "absent"}) {
        params.onQuery(function()).throws = true;
        EXPECT_THROW(read(stored), doubles::ScriptedException);
        EXPECT_EQ(Functions{function()}, journal.functions());
    }
    params.forget();
    for (const bool writes : {false, true}) {
        params.on(function()).throws = true;  // behind its work
        params.on(function()).code = writes ? 0 : 5;
        EXPECT_THROW(read("name"), doubles::ScriptedException);
        EXPECT_EQ((Functions{function(), function()}), journal.functions());
    }
}

TEST_P(ReadParam, FunctionMissing)
{
    CorvaneParamsClass::getInstance()->Free();
    std::string path = paramsLacking(function());
    CorvaneParamsClass::getInstance()->Load(path.data(), 0);
    EXPECT_EQ("", read("name"));
    EXPECT_EQ(Functions(), journal.functions());
}

TEST_F(ParamMaps, ReadingMembersUseTheirOwnStore)
{
    params.http = {{"name", "request"}};
    params.ret = {{"name", "result"}};
    EXPECT_EQ("request", handler.GetFindNameStringValueFromMapParams("name"));
    EXPECT_EQ("result", handler.GetRetStrToParamsMap("name"));
}

TEST_P(WriteParam, PassesAllButWhatIsEmpty)
{
    const struct {
        const char* what;
        std::string name;
        std::string value;
        bool passed;
    } rows[] = {
        {"ordinary", "name", "value", true},
        {"bytes", everyByte(), everyByte(), true},
        {"NUL is a name", std::string(1, '\0'), "value", true},
        {"NUL is a value", "name", std::string(1, '\0'), true},
        {"empty name", "", "value", GetParam().takesEmptyNames},
        {"empty value", "Data", "", GetParam().takesEmptyValues},
        {"both empty", "", "", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        store().clear();
        write(row.name, row.value);
        EXPECT_EQ(row.passed ? Functions{function()} : Functions(), journal.functions());
        EXPECT_EQ(row.passed ? Pairs({{row.name, row.value}}) : Pairs(), store());
        if (row.passed) {
            EXPECT_EQ(static_cast<long long>(row.value.size()),
                      journal.at(function())["value_len"].number);
        }
    }
}

TEST_P(WriteParam, NeverFailsVisibly)
{
    for (const bool throws : {false, true}) {
        params.on(function()).code = 5;
        params.on(function()).throws = throws;
        EXPECT_NO_THROW(write("name", "value"));
    }
}

TEST_F(ParamMaps, ChangePassesEverythingAndReturnsTheModulesResult)
{
    for (const std::string& value : {std::string("new"), std::string(), everyByte()}) {
        params.http = {{"name", "old"}};
        EXPECT_EQ(0, handler.ChangedParamsValueByInputName("name", value));
        EXPECT_EQ((Pairs{{"name", value}}), params.http);
    }
    EXPECT_EQ(doubles::NAME_UNKNOWN, handler.ChangedParamsValueByInputName("other", "x"));
    EXPECT_EQ(doubles::NAME_UNKNOWN, handler.ChangedParamsValueByInputName("", ""));
    EXPECT_EQ(5U, journal.count("ChangeHttpParams"));
    for (const int code : {1, -1, INT_MIN}) {
        params.on("ChangeHttpParams").code = code;
        EXPECT_EQ(code, handler.ChangedParamsValueByInputName("name", "x"));
    }
    params.on("ChangeHttpParams").throws = true;  // there is no code to return
    EXPECT_THROW(handler.ChangedParamsValueByInputName("name", "x"), doubles::ScriptedException);
}

TEST_F(ParamMaps, ClearResultsClearsTheCustomTextOnlyIfAsked)
{
    const struct {
        int alsoCustom;
        Functions calls;
    } rows[] = {
        {0, {"ClearRetParams"}},
        {1, {"ClearRetParams", "ClearRetCustomParam"}},
        {2, {"ClearRetParams", "ClearRetCustomParam"}},
        {-1, {"ClearRetParams", "ClearRetCustomParam"}},
        {256, {"ClearRetParams", "ClearRetCustomParam"}},
    };
    const auto expectAll = [&] {
        for (const auto& row : rows) {
            SCOPED_TRACE(row.alsoCustom);
            journal.calls.clear();
            EXPECT_NO_THROW(handler.ClearRetParamsMap(row.alsoCustom));
            EXPECT_EQ(row.calls, journal.functions());
        }
    };
    expectAll();

    for (const bool throws : {false, true}) {
        for (const char* function : {"ClearRetParams", "ClearRetCustomParam"}) {
            params.on(function).code = 5;
            params.on(function).throws = throws;
        }
        expectAll();  // results are ignored
    }
}

TEST_F(ParamMaps, CustomTextIsSetAndTheModulesResultReturned)
{
    for (const std::string& text : {std::string("text"), std::string(), everyByte()}) {
        EXPECT_EQ(0, handler.SetRetCustomStr(text));
        EXPECT_EQ(text, params.custom);
    }
    for (const int code : {1, -1, INT_MAX}) {
        params.on("SetRetCustomParam").code = code;
        EXPECT_EQ(code, handler.SetRetCustomStr("text"));
    }
    params.on("SetRetCustomParam").throws = true;  // there is no code to return
    EXPECT_THROW(handler.SetRetCustomStr("text"), doubles::ScriptedException);
}

TEST(ParamMapsUnbound, ReadsAreEmptyAndWritesAreLost)
{
    *CorvaneParamsClass::getInstance() = CorvaneParamsClass();  // as freshly loaded
    Handler handler;

    EXPECT_EQ("", handler.GetFindNameStringValueFromMapParams("name"));
    EXPECT_EQ("", handler.GetRetStrToParamsMap("name"));
    handler.InsertStringValueFromMapParams("name", "value");
    handler.AddRetStrToParamsMap("name", "value");
    handler.ClearRetParamsMap(1);
    EXPECT_EQ("", handler.ReturnRequest());
    EXPECT_EQ(-20216, handler.ChangedParamsValueByInputName("name", "value"));
    EXPECT_EQ(-20216, handler.SetRetCustomStr("text"));
}

TEST(CodeText, DecimalAndHexadecimal)
{
    const struct {
        int code;
        const char* decimal;
        const char* hexadecimal;
    } rows[] = {
        {0, "0", "0x0"},
        {1, "1", "0x1"},
        {10, "10", "0xA"},
        {15, "15", "0xF"},
        {16, "16", "0x10"},
        {255, "255", "0xFF"},
        {43981, "43981", "0xABCD"},
        {1234567, "1234567", "0x12D687"},
        {INT_MAX, "2147483647", "0x7FFFFFFF"},
        {-1, "-1", "-1"},
        {-20001, "-20001", "-20001"},
        {-20215, "-20215", "-20215"},
        {INT_MIN, "-2147483648", "-2147483648"},
    };
    Handler handler;
    const auto expectAll = [&] {
        for (const auto& row : rows) {
            EXPECT_EQ(row.decimal, handler.GetStrErrorForInt(row.code));
            EXPECT_EQ(row.hexadecimal, handler.GetStrErrorHexForInt(row.code));
        }
    };
    expectAll();

    GroupingLocale grouping;
    expectAll();
}

TEST_F(ParamMaps, NoAllocationFailureLeaksOrCrashes)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    const std::string longName(100, 'n');
    const std::string longValue(1000, 'v');
    const auto attempt = [&] {
        handler.InsertStringValueFromMapParams(longName, longValue);
        handler.GetFindNameStringValueFromMapParams(longName);
        handler.AddRetStrToParamsMap(longName, longValue);
        handler.GetRetStrToParamsMap(longName);
        handler.GetStrErrorForInt(INT_MIN);
        handler.GetStrErrorHexForInt(INT_MAX);
    };
    bool struck = true;
    size_t n = 1;
    for (; struck; ++n) {
        const auto fault = support::AllocationFault::nth(journal, n);
        try {
            attempt();
        } catch (const std::bad_alloc&) {
        }
        struck = fault.struck();
    }
    EXPECT_GT(n, 8U);
}
