#include "support/plugin_test.h"

namespace support {

namespace {

const std::string doublesDir = CORVANE_DOUBLES_DIR;

}  // namespace

std::string engineDouble()
{
    return doublesDir + "/libSoftModuleaven.so";
}

std::string paramsDouble()
{
    return doublesDir + "/libCorvaneParamsModule.so";
}

std::string engineLacking(const std::string& function)
{
    return doublesDir + "/lacks/" + function + "/libSoftModuleaven.so";
}

std::string paramsLacking(const std::string& function)
{
    return doublesDir + "/lacks/" + function + "/libCorvaneParamsModule.so";
}

Library::Library(const std::string& path)
    : m_path(path), m_library(path.empty() ? nullptr : openLibrary(path, RTLD_NOW))
{
}

Library::~Library()
{
    if (m_library == nullptr)
        return;
    m_library.reset();
    // Bounded, because the test program itself may be linked to the library.
    for (int i = 0; i < 64; ++i) {
        void* still = dlopen(m_path.c_str(), RTLD_NOW | RTLD_NOLOAD);
        if (still == nullptr)
            break;
        dlclose(still);
        if (m_path == CORVANE_PLUGIN_LIBRARY)
            break;
        dlclose(still);
    }
}

Stage::Stage(const std::string& enginePath, const std::string& paramsPath)
    : engine(journal), params(journal)
{
    changeEngine(enginePath);
    changeParams(paramsPath);
    capture = std::make_unique<SystemCapture>(journal);
}

Stage::~Stage()
{
    capture.reset();
}

void Stage::changeEngine(const std::string& path)
{
    engineLibrary.reset();
    engineLibrary = std::make_unique<Library>(path);
    if (!path.empty())
        engineLibrary->find<doubles::EngineAttach>(doubles::ENGINE_ATTACH)(&engine);
}

void Stage::changeParams(const std::string& path)
{
    paramsLibrary.reset();
    paramsLibrary = std::make_unique<Library>(path);
    if (!path.empty())
        paramsLibrary->find<doubles::ParamsAttach>(doubles::PARAMS_ATTACH)(&params);
}

int PluginHost::init()
{
    journal.calls.clear();
    StdoutCapture output;
    const int result = plugin.find<int (*)()>("Corvane_plugin_Init")();
    printed = output.text();
    return result;
}

int PluginHost::free()
{
    journal.calls.clear();
    StdoutCapture output;
    const int result = plugin.find<int (*)()>("Corvane_plugin_Free")();
    printed = output.text();
    return result;
}

int PluginHost::requestBytes(const char* name, unsigned int len)
{
    journal.calls.clear();
    StdoutCapture output;
    const int result =
        plugin.find<int (*)(const char*, unsigned int)>("Corvane_plugin_Request")(name, len);
    printed = output.text();
    return result;
}

Pairs PluginHost::request(const std::string& name, const Pairs& parameters)
{
    params.http = parameters;
    params.ret = {{"stale", "result of an earlier request"}};
    params.custom = "custom text of an earlier request";
    EXPECT_EQ(0, requestBytes(name.data(), static_cast<unsigned int>(name.size())));
    return params.ret;
}

std::vector<std::string> PluginHost::parametersRead() const
{
    std::vector<std::string> names;
    for (const Call& call : journal.calls)
        if (call.function == "GetHttpParams" && call["value"].null)
            names.push_back(call["name"].bytes);
    return names;
}

Pairs PluginHost::resultsWritten() const
{
    Pairs results;
    for (const Call& call : journal.calls)
        if (call.function == "AddRetParams")
            results.emplace_back(call["name"].bytes, call["value"].bytes);
    return results;
}

int& PluginHost::logLevel()
{
    return *plugin.find<int*>("_log_level");
}

void PluginTest::SetUp()
{
    ASSERT_EQ(0, host.init());
    ASSERT_EQ("", host.printed);
    journal.calls.clear();
}

void PluginTest::TearDown()
{
    for (const auto* objects : {&engine.keypairs, &engine.certificates}) {
        EXPECT_TRUE(objects->live.empty()) << "an engine object was not freed";
        EXPECT_EQ(0, objects->strangersFreed) << "an engine object was freed twice";
    }
    host.free();
}

Pairs PluginTest::request(const std::string& name, const Pairs& parameters)
{
    const Pairs results = host.request(name, parameters);
    EXPECT_TRUE(params.http.empty()) << "request parameters are left";
    EXPECT_EQ("", host.printed);
    return results;
}

}  // namespace support
