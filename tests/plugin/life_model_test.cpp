// The plug-in's life beside a model of it: each order of starting it, of starting it without a
// library or with one that lacks a function, of stopping it, and of requests that succeed and
// fail, up to six in a row. After each step the calls of the two libraries and of the loader, the
// results and what was printed are the model's.
//
// The orders are the paths of a tree. Whoever goes back in it puts the plug-in's own memory back,
// which is all that it keeps: so each path begins with a plug-in that has just been loaded.
#include <dlfcn.h>
#include <link.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/built_library.h"
#include "support/plugin_test.h"

namespace {

using support::Library;
using support::LoaderDetour;
using support::StdoutCapture;

// What takes two seconds takes a minute in a sanitizer or an emulator.
constexpr bool IS_SLOW = support::SANITIZED || CORVANE_EMULATOR[0] != '\0';
constexpr int LONGEST = IS_SLOW ? 5 : 6;
constexpr int REFUSAL = 77;  // the engine's code for a request that fails

const std::string MODULE = "libCorvaneParamsModule.so";
const std::string ENGINE = "libSoftModuleaven.so";
const std::string NOWHERE = "/nowhere/";

// What the loader finds by a library's name.
struct File {
    std::string path;
    bool isThere;
    bool isWhole;  // or it lacks the function that a request needs
};

struct Files {
    const File wholeModule = {support::paramsDouble(), true, true};
    const File otherModule = {support::paramsLacking("AddRetParams"), true, false};
    const File noModule = {NOWHERE + MODULE, false, false};
    const File wholeEngine = {support::engineDouble(), true, true};
    const File otherEngine = {support::engineLacking("aven_version"), true, false};
    const File noEngine = {NOWHERE + ENGINE, false, false};
};

const Files& files()
{
    static const Files all;
    return all;
}

// What a step did, in words: calls, then what was printed.
using Seen = std::vector<std::string>;

// ---- The model

class Model {
public:
    Seen init(const File& module, const File& engine)
    {
        Seen seen;
        std::string printed;
        if (m_module != nullptr)
            seen.push_back("close " + m_module->path);
        seen.push_back("open " + MODULE);
        m_module = m_functions = module.isThere ? &module : nullptr;
        if (!module.isThere)
            printed += "load fail, " + module.path +
                       ": cannot open shared object file: No such file or directory\n";

        seen.push_back("open " + ENGINE);  // one that is open already is never closed
        m_engine = engine.isThere ? &engine : nullptr;
        if (engine.isThere)
            seen.insert(seen.end(), {"aven_global_init", "aven_global_set_logger"});
        else
            printed += ENGINE +
                       " load fail\n"
                       "m_softMoudleAven.aven_global_init ERROR 0xffffb109\n";
        seen.push_back(printed);
        return seen;
    }

    Seen free()
    {
        Seen seen;
        if (m_module != nullptr)
            seen.push_back("close " + m_module->path);
        m_module = nullptr;  // its functions stay
        if (m_engine != nullptr)
            seen.insert(seen.end(), {"aven_global_cleanup", "close " + m_engine->path});
        m_engine = nullptr;
        seen.emplace_back();
        return seen;
    }

    Seen version()
    {
        const bool answers = m_engine != nullptr && m_engine->isWhole;
        return request(answers ? "aven_version" : "", answers ? "engine double 1.0" : "",
                       m_engine != nullptr ? "0" : "-20215");
    }

    Seen newSession()
    {
        const bool answers = m_engine != nullptr;
        return request(answers ? "aven_ke_new" : "", "",
                       answers ? std::to_string(REFUSAL) : "-20215");
    }

private:
    Seen request(const std::string& engineCall, const std::string& data, const std::string& code)
    {
        Seen seen = {"syslog"};
        if (m_functions != nullptr)
            seen.insert(seen.end(), {"ClearRetParams", "ClearRetCustomParam"});
        if (!engineCall.empty())
            seen.push_back(engineCall);
        if (m_functions != nullptr && m_functions->isWhole)
            seen.insert(seen.end(), {"Data=" + data, "errorCode=" + code});
        if (m_functions != nullptr)
            seen.emplace_back("ClearHttpParams");
        seen.insert(seen.end(), {"syslog", ""});
        return seen;
    }

    const File* m_module = nullptr;     // that is open
    const File* m_functions = nullptr;  // whose functions are called
    const File* m_engine = nullptr;     // that is open
};

// ---- The plug-in

// What a library may write of itself.
class OwnMemory {
public:
    explicit OwnMemory(const std::string& path) : m_path(path)
    {
        dl_iterate_phdr(
            [](dl_phdr_info* info, size_t, void* self) {
                static_cast<OwnMemory*>(self)->look(*info);
                return 0;
            },
            this);
        if (m_size == 0)
            throw std::logic_error(path + " has no memory of its own");
    }

    std::string copy() const
    {
        std::string bytes(m_size, '\0');
        copyBytes(m_start, bytes.data(), m_size);
        return bytes;
    }
    void putBack(const std::string& bytes) { copyBytes(bytes.data(), m_start, m_size); }

private:
    // As memcpy does, but where a sanitizer's own bytes stand between the library's.
    __attribute__((no_sanitize("address"))) static void copyBytes(const char* from, char* to,
                                                                  size_t size)
    {
        using Word = uint64_t __attribute__((may_alias, aligned(1)));
        for (; size >= sizeof(Word); size -= sizeof(Word)) {
            *reinterpret_cast<Word*>(to) = *reinterpret_cast<const Word*>(from);
            from += sizeof(Word);
            to += sizeof(Word);
        }
        for (; size > 0; --size)
            *to++ = *from++;
    }

    // The segment that can be written, without what the loader has made constant of it.
    void look(const dl_phdr_info& info)
    {
        if (m_path != info.dlpi_name)
            return;
        char* constantEnd = nullptr;
        for (int i = 0; i < info.dlpi_phnum; ++i)
            if (info.dlpi_phdr[i].p_type == PT_GNU_RELRO)
                constantEnd = end(info, info.dlpi_phdr[i]);
        for (int i = 0; i < info.dlpi_phnum; ++i) {
            const auto& segment = info.dlpi_phdr[i];
            if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) == 0)
                continue;
            m_start = std::max(end(info, segment) - segment.p_memsz, constantEnd);
            m_size = static_cast<size_t>(end(info, segment) - m_start);
        }
    }

    static char* end(const dl_phdr_info& info, const ElfW(Phdr) & segment)
    {
        return reinterpret_cast<char*>(info.dlpi_addr + segment.p_vaddr + segment.p_memsz);
    }

    const std::string m_path;
    char* m_start = nullptr;
    size_t m_size = 0;
};

// The plug-in between libraries that are all open, so that what it does with handles and functions
// is harmless even where it is wrong.
class Subject {
public:
    Subject()
    {
        for (const File* file : {&files().wholeModule, &files().otherModule})
            open(*file).find<doubles::ParamsAttach>(doubles::PARAMS_ATTACH)(&m_params);
        for (const File* file : {&files().wholeEngine, &files().otherEngine})
            open(*file).find<doubles::EngineAttach>(doubles::ENGINE_ATTACH)(&m_engine);
        m_engine.on("aven_ke_new").code = REFUSAL;
        m_journal.calls.clear();
    }

    Seen init(const File& module, const File& engine)
    {
        m_detour.files = {{MODULE, module.path}, {ENGINE, engine.path}};
        return after(m_init());
    }
    Seen free() { return after(m_free()); }
    Seen request(const std::string& name)
    {
        return after(m_request(name.data(), static_cast<unsigned>(name.size())));
    }

    std::string copy() const { return m_memory.copy(); }
    void putBack(const std::string& bytes) { m_memory.putBack(bytes); }

private:
    const Library& open(const File& file)
    {
        m_libraries.push_back(std::make_unique<Library>(file.path));
        m_paths[reinterpret_cast<intptr_t>(openLibrary(file.path).get())] = file.path;
        return *m_libraries.back();
    }

    Seen after(int result)
    {
        Seen seen;
        for (const doubles::Call& call : m_journal.calls)
            seen.push_back(inWords(call));
        keepOpen();
        m_journal.calls.clear();
        seen.push_back(m_output.take());
        if (result != 0)
            seen.push_back("returned " + std::to_string(result));
        return seen;
    }

    // Opens again what the step has closed: the memory that is put back does not tell the loader.
    void keepOpen()
    {
        for (size_t i = 0, count = m_journal.calls.size(); i < count; ++i) {
            const doubles::Call& call = m_journal.calls[i];
            const auto file = call.function == "dlclose" ? pathOf(call) : m_paths.end();
            if (file != m_paths.end())
                openLibrary(file->second).release();
        }
    }

    std::map<intptr_t, std::string>::const_iterator pathOf(const doubles::Call& call) const
    {
        return m_paths.find(static_cast<intptr_t>(call["handle"].number));
    }

    std::string inWords(const doubles::Call& call) const
    {
        if (call.function == "dlopen")
            return "open " + call["path"].bytes;
        if (call.function == "dlclose") {
            const auto file = pathOf(call);
            return "close " + (file != m_paths.end() ? file->second : "something else");
        }
        if (call.function == "AddRetParams")
            return call["name"].bytes + "=" + call["value"].bytes;
        return call.function;
    }

    doubles::Journal m_journal;
    doubles::EngineDouble m_engine{m_journal};
    doubles::ParamsDouble m_params{m_journal};
    std::vector<std::unique_ptr<Library>> m_libraries;
    std::map<intptr_t, std::string> m_paths;  // by handle
    Library m_plugin{CORVANE_PLUGIN_LIBRARY};
    OwnMemory m_memory{CORVANE_PLUGIN_LIBRARY};
    int (*m_init)() = m_plugin.find<int (*)()>("Corvane_plugin_Init");
    int (*m_free)() = m_plugin.find<int (*)()>("Corvane_plugin_Free");
    int (*m_request)(const char*, unsigned) =
        m_plugin.find<int (*)(const char*, unsigned)>("Corvane_plugin_Request");
    support::SystemCapture m_capture{m_journal};
    LoaderDetour m_detour;
    StdoutCapture m_output;
};

// ---- The steps

struct Step {
    const char* name;
    Seen (*ofModel)(Model& model);
    Seen (*ofSubject)(Subject& subject);
};

// A start with certain libraries, of either.
#define START(module, engine)                                                \
    [](Model& model) { return model.init(files().module, files().engine); }, \
        [](Subject& subject) { return subject.init(files().module, files().engine); }

const Step steps[] = {
    {"Init", START(wholeModule, wholeEngine)},
    {"Init without a module", START(noModule, wholeEngine)},
    {"Init without an engine", START(wholeModule, noEngine)},
    {"Init with a module that lacks a function", START(otherModule, wholeEngine)},
    {"Init with an engine that lacks a function", START(wholeModule, otherEngine)},
    {"Free", [](Model& model) { return model.free(); },
     [](Subject& subject) { return subject.free(); }},
    {"good request", [](Model& model) { return model.version(); },
     [](Subject& subject) { return subject.request("QZaVen_GetVersion"); }},
    {"failing request", [](Model& model) { return model.newSession(); },
     [](Subject& subject) { return subject.request("QZaven_ke_new"); }},
};

// Goes all paths from here that have so many steps more at most. What was wrong with the first
// one that differs, or nothing.
std::string explore(Subject& subject, const Model& model, int left, int& taken)
{
    if (left == 0)
        return "";
    const std::string here = subject.copy();
    for (const Step& step : steps) {
        Model after = model;
        const Seen expected = step.ofModel(after);
        const Seen seen = step.ofSubject(subject);
        ++taken;
        std::string wrong;
        if (seen != expected)
            wrong = "\n  is " + testing::PrintToString(seen) + "\n  instead of " +
                    testing::PrintToString(expected);
        else
            wrong = explore(subject, after, left - 1, taken);
        if (!wrong.empty())
            return std::string("; ") + step.name + wrong;
        subject.putBack(here);
    }
    return "";
}

}  // namespace

TEST(LifeModel, HoldsForEachOrderOfSteps)
{
    int taken = 0;
    std::string wrong;
    {
        Subject subject;
        wrong = explore(subject, Model(), LONGEST, taken);
    }
    EXPECT_EQ(wrong, "");
    int expected = 0;
    for (int length = 1, paths = 1; length <= LONGEST; ++length)
        expected += paths *= 8;
    EXPECT_EQ(taken, expected);
}
