// The binding to the parameter module, on instances of the tests' own.
#include <dlfcn.h>

#include <climits>
#include <cstring>

#include "module_CorvaneParams.h"
#include "support/plugin_test.h"

using support::engineDouble;
using support::paramsDouble;
using support::paramsLacking;
using support::Stage;

namespace {

using Functions = std::vector<std::string>;

char* chars(std::string& text)
{
    return text.data();
}

// Calls one forwarding method with arguments that differ from each other.
struct Forwarding {
    const char* function;
    int (*call)(CorvaneParamsClass& binding);
};

std::string name = "a name";
std::string value = std::string("va\0lue", 6);
char room[16];
long nameLen = 5;
long roomLen = 7;
int count = 0;

const Forwarding forwardings[] = {
    {"AddHttpParams",
     [](CorvaneParamsClass& b) { return b._aven_AddHttpParams(chars(name), 6, chars(value), 6); }},
    {"GetHttpParams",
     [](CorvaneParamsClass& b) { return b._aven_GetHttpParams(chars(name), 6, room, &roomLen); }},
    {"ChangeHttpParams",
     [](CorvaneParamsClass& b) {
         return b._aven_ChangeHttpParams(chars(name), 6, chars(value), 6);
     }},
    {"ClearHttpParams", [](CorvaneParamsClass& b) { return b._aven_ClearHttpParams(); }},
    {"AddRetParams",
     [](CorvaneParamsClass& b) { return b._aven_AddRetParams(chars(name), 6, chars(value), 6); }},
    {"GetRetParams",
     [](CorvaneParamsClass& b) { return b._aven_GetRetParams(chars(name), 6, room, &roomLen); }},
    {"GetRetParamsSum", [](CorvaneParamsClass& b) { return b._aven_GetRetParamsSum(&count); }},
    {"GetRetParamFromIndex",
     [](CorvaneParamsClass& b) {
         return b._aven_GetRetParamFromIndex(3, chars(name), &nameLen, room, &roomLen);
     }},
    {"ClearRetParams", [](CorvaneParamsClass& b) { return b._aven_ClearRetParams(); }},
    {"SetRetCustomParam",
     [](CorvaneParamsClass& b) { return b._aven_SetRetCustomParam(chars(value), 6); }},
    {"GetRetCustomParam",
     [](CorvaneParamsClass& b) { return b._aven_GetRetCustomParam(room, &roomLen); }},
    {"ClearRetCustomParam", [](CorvaneParamsClass& b) { return b._aven_ClearRetCustomParam(); }},
};
static_assert(std::size(forwardings) == 12, "one row for each function");

// Expects that every method but those of `missing` forwards.
void expectForwarding(Stage& stage, CorvaneParamsClass& binding, const std::string& missing)
{
    for (const Forwarding& row : forwardings) {
        SCOPED_TRACE(row.function);
        const bool there = row.function != missing;
        stage.journal.calls.clear();
        stage.params.forget();
        stage.params.on(row.function).code = 321;
        EXPECT_EQ(there ? 321 : -20216, row.call(binding));
        EXPECT_EQ(there ? Functions{row.function} : Functions(), stage.journal.functions());
    }
}

int load(CorvaneParamsClass& binding, std::string path, int number = 0)
{
    return binding.Load(path.data(), number);
}

long long at(const void* pointer)
{
    return static_cast<long long>(reinterpret_cast<intptr_t>(pointer));
}

}  // namespace

TEST(ParamsBinding, NewInstanceIsUnbound)
{
    Stage stage;
    CorvaneParamsClass binding;

    for (const Forwarding& row : forwardings)
        EXPECT_EQ(-20216, row.call(binding)) << row.function;
    EXPECT_EQ(-20215, binding.initFuction());
    binding.Free();
    EXPECT_EQ(Functions(), stage.journal.functions());
}

TEST(ParamsBinding, InstanceIsOneAndThere)
{
    ASSERT_NE(nullptr, CorvaneParamsClass::getInstance());
    EXPECT_EQ(CorvaneParamsClass::getInstance(), CorvaneParamsClass::getInstance());
}

TEST(ParamsBinding, LoadOpensTheBareName)
{
    Stage stage;
    CorvaneParamsClass binding;

    EXPECT_EQ("", support::printedBy([&] { EXPECT_EQ(0, binding.Load()); }));
    EXPECT_EQ("libCorvaneParamsModule.so", stage.journal.only("dlopen")["path"].bytes);
    EXPECT_EQ(RTLD_NOW, stage.journal.only("dlopen")["flags"].number);
    EXPECT_EQ(Functions{"dlopen"}, stage.journal.functions());
    EXPECT_EQ(0, binding.initFuction());
    expectForwarding(stage, binding, "none");
    binding.Free();
}

TEST(ParamsBinding, LoadOfAPathIgnoresTheNumber)
{
    for (const int number : {0, 1, -1, INT_MIN, INT_MAX}) {
        Stage stage(engineDouble(), "");
        CorvaneParamsClass binding;
        EXPECT_EQ(0, load(binding, paramsDouble(), number));
        EXPECT_EQ(paramsDouble(), stage.journal.only("dlopen")["path"].bytes);
        EXPECT_EQ(RTLD_NOW, stage.journal.only("dlopen")["flags"].number);
        binding.Free();
    }
}

TEST(ParamsBinding, MissingLibraryIsPrintedForTheBareNameOnly)
{
    Stage stage("", "");
    CorvaneParamsClass binding;
    EXPECT_EQ("", support::printedBy([&] {
                  EXPECT_EQ(-20215, load(binding, "/nowhere/libCorvaneParamsModule.so"));
              }));
    EXPECT_EQ(
        "load fail, libCorvaneParamsModule.so: cannot open shared object file: "
        "No such file or directory\n",
        support::printedBy([&] { EXPECT_EQ(-20215, binding.Load()); }));
    EXPECT_EQ(-20215, binding.initFuction());
    for (const Forwarding& row : forwardings)
        EXPECT_EQ(-20216, row.call(binding)) << row.function;
}

TEST(ParamsBinding, ModuleThatLacksAFunctionKeepsTheOthers)
{
    for (const Forwarding& row : forwardings) {
        SCOPED_TRACE(row.function);
        Stage stage("", paramsLacking(row.function));
        CorvaneParamsClass binding;

        EXPECT_EQ(-20216, binding.Load());
        EXPECT_EQ(-20216, binding.initFuction());
        expectForwarding(stage, binding, row.function);

        EXPECT_EQ(-20216, load(binding, paramsLacking(row.function)));
        expectForwarding(stage, binding, row.function);
        binding.Free();
    }
}

TEST(ParamsBinding, FunctionsAreLookedUpAgainOnEveryLoad)
{
    CorvaneParamsClass binding;
    {
        Stage stage("", paramsLacking("SetRetCustomParam"));
        EXPECT_EQ(-20216, binding.Load());
        binding.Free();
    }
    {
        Stage stage;
        EXPECT_EQ(0, binding.Load());
        expectForwarding(stage, binding, "none");
        binding.Free();
    }
    {
        Stage stage("", paramsLacking("AddHttpParams"));
        EXPECT_EQ(-20216, binding.Load());
        expectForwarding(stage, binding, "AddHttpParams");
        binding.Free();
    }
}

TEST(ParamsBinding, SecondLoadClosesTheFirstLibraryBeforehand)
{
    for (const bool byPath : {false, true}) {
        Stage stage;
        CorvaneParamsClass binding;
        binding.Load();
        const long long first = stage.journal.only("dlopen")["handle"].number;
        stage.journal.calls.clear();

        EXPECT_EQ(0, byPath ? load(binding, paramsDouble()) : binding.Load());
        EXPECT_EQ((Functions{"dlclose", "dlopen"}), stage.journal.functions());
        EXPECT_EQ(first, stage.journal.only("dlclose")["handle"].number);
        binding.Free();
    }
}

// Those of the library that was closed would be called otherwise.
TEST(ParamsBinding, FailedSecondLoadLeavesNeitherLibraryNorFunctions)
{
    Stage stage;
    CorvaneParamsClass binding;
    binding.Load();
    stage.journal.calls.clear();

    EXPECT_EQ(-20215, load(binding, "/nowhere/at/all.so"));
    EXPECT_EQ((Functions{"dlclose", "dlopen"}), stage.journal.functions());
    EXPECT_EQ(-20215, binding.initFuction());
    stage.journal.calls.clear();
    for (const Forwarding& row : forwardings)
        EXPECT_EQ(-20216, row.call(binding)) << row.function;
    binding.Free();
    EXPECT_EQ(Functions(), stage.journal.functions());
}

TEST(ParamsBinding, FreeClosesOnceAndLeavesTheFunctions)
{
    Stage stage;
    CorvaneParamsClass binding;
    binding.Load();
    const long long handle = stage.journal.only("dlopen")["handle"].number;
    stage.journal.calls.clear();

    binding.Free();
    binding.Free();
    EXPECT_EQ(Functions{"dlclose"}, stage.journal.functions());
    EXPECT_EQ(handle, stage.journal.only("dlclose")["handle"].number);
    EXPECT_EQ(-20215, binding.initFuction());
    expectForwarding(stage, binding, "none");  // the stage keeps the library in memory
}

TEST(ParamsBinding, ArgumentsReachTheModuleUnchanged)
{
    Stage stage;
    CorvaneParamsClass binding;
    binding.Load();

    for (const char* function : {"AddHttpParams", "AddRetParams", "ChangeHttpParams"}) {
        SCOPED_TRACE(function);
        for (const Forwarding& row : forwardings)
            if (strcmp(row.function, function) == 0)
                row.call(binding);
        const Call& call = stage.journal.only(function);
        EXPECT_EQ("a name", call["name"].bytes);
        EXPECT_EQ(6, call["name_len"].number);
        EXPECT_EQ(value, call["value"].bytes);
        EXPECT_EQ(6, call["value_len"].number);
    }

    // Negative lengths and nulls are passed on as well.
    EXPECT_EQ(0, binding._aven_AddRetParams(nullptr, -1, nullptr, LONG_MIN));
    EXPECT_EQ(-1, stage.journal.at("AddRetParams", 1)["name_len"].number);
    EXPECT_EQ(LONG_MIN, stage.journal.at("AddRetParams", 1)["value_len"].number);
    EXPECT_TRUE(stage.journal.at("AddRetParams", 1)["value"].null);

    stage.params.http = stage.params.ret = {{"k", "1234567"}};
    for (const auto read :
         {&CorvaneParamsClass::_aven_GetHttpParams, &CorvaneParamsClass::_aven_GetRetParams}) {
        char key[] = "k";
        char target[8] = {};
        long length = 7;
        EXPECT_EQ(0, (binding.*read)(key, 1, target, &length));
        EXPECT_STREQ("1234567", target);
        EXPECT_EQ(7, length);
    }

    EXPECT_EQ(0, binding._aven_GetRetParamsSum(&count));
    EXPECT_EQ(at(&count), stage.journal.only("GetRetParamsSum")["count"].number);
    EXPECT_EQ(1, count);

    binding._aven_GetRetParamFromIndex(3, chars(name), &nameLen, room, &roomLen);
    const Call& byIndex = stage.journal.only("GetRetParamFromIndex");
    EXPECT_EQ(3, byIndex["index"].number);
    EXPECT_EQ(at(chars(name)), byIndex["name"].number);
    EXPECT_EQ(at(&nameLen), byIndex["name_len"].number);
    EXPECT_EQ(at(room), byIndex["value"].number);
    EXPECT_EQ(at(&roomLen), byIndex["value_len"].number);

    binding._aven_SetRetCustomParam(chars(value), 6);
    EXPECT_EQ(value, stage.params.custom);
    binding._aven_GetRetCustomParam(room, &roomLen);
    EXPECT_EQ(at(room), stage.journal.only("GetRetCustomParam")["text"].number);
    EXPECT_EQ(at(&roomLen), stage.journal.only("GetRetCustomParam")["text_len"].number);
    binding.Free();
}

TEST(ParamsBinding, ResultsPassUnchanged)
{
    Stage stage;
    CorvaneParamsClass binding;
    binding.Load();
    for (const Forwarding& row : forwardings) {
        for (const int code : {1, -1, -20216, INT_MIN, INT_MAX}) {
            stage.params.on(row.function).code = code;
            EXPECT_EQ(code, row.call(binding)) << row.function;
        }
    }
    binding.Free();
}

TEST(ParamsBinding, ExceptionsOfTheModulePassUnchanged)
{
    Stage stage;
    CorvaneParamsClass binding;
    binding.Load();
    for (const Forwarding& row : forwardings) {
        SCOPED_TRACE(row.function);
        stage.params.on(row.function).throws = true;
        EXPECT_THROW(row.call(binding), doubles::ScriptedException);
        EXPECT_TRUE(stage.journal.only(row.function).threw);
    }
    binding.Free();
}
