#include "library_checks.h"

#include <link.h>

#include "log.h"

namespace {

using Names = std::vector<const char*>;

#define NAME(name, parameters) #name,
const Names paramsFunctions = {CORVANE_PARAMS_FUNCTIONS(NAME)};
#undef NAME
#define NAME(result, name, parameters) #name,
const Names engineFunctions = {AVEN_ENGINE_FUNCTIONS(NAME)};
#undef NAME
const Names pluginEntries = {"Corvane_plugin_Init", "Corvane_plugin_Request",
                             "Corvane_plugin_Free"};

const Names& functionsOf(const LibraryChoice& library)
{
    const std::string name = library.name;
    return name == paramsName   ? paramsFunctions
           : name == engineName ? engineFunctions
                                : pluginEntries;
}

std::string loadedFrom(void* handle)
{
    link_map* map = nullptr;
    return dlinfo(handle, RTLD_DI_LINKMAP, &map) == 0 ? map->l_name : "";
}

void checkFunctions(const LibraryChoice& library, void* handle, const Tell& tell)
{
    const bool isEngine = library.name == std::string(engineName);
    const Names& names = functionsOf(library);
    size_t found = 0;
    for (const char* name : names) {
        if (dlsym(handle, name) != nullptr) {
            ++found;
            continue;
        }
        tell({std::string(library.what) + " function " + name, Status::Fail, "missing",
              isEngine ? "requests that need it are refused with -20215; take an engine that has it"
                       : std::string("take a ") + library.what + " that has it",
              !isEngine});
    }
    if (found == names.size())
        tell(
            {std::string(library.what) + " functions", Status::Ok, "all " + std::to_string(found)});
}

// The plug-in's own, which is the process's from its loading on.
void checkLogLevel(void* plugin, const Tell& tell)
{
    const auto* level = static_cast<const int*>(dlsym(plugin, "_log_level"));
    const auto levelOf = reinterpret_cast<decltype(&log_get_level)>(dlsym(plugin, "log_get_level"));
    if (level == nullptr || levelOf == nullptr) {
        tell({"log level", Status::Note, "the plug-in does not export _log_level and log_get_level",
              "take a plug-in that does, or do without a choice of the level"});
        return;
    }
    std::string name = "no name";
    for (const char* known : {"crit", "err", "warning", "notice", "info", "debug"})
        if (levelOf(known) == *level)
            name = known;
    tell({"log level", Status::Ok,
          std::to_string(*level) + " (" + name + ") at the start: " +
              (*level > 3 ? "two messages for each request; log_set_level(3) ends them"
                          : "no messages for requests")});
}

}  // namespace

Check libraryCheck(const LibraryChoice& library)
{
    const std::string name = std::string(library.what) + " loads";
    return {name,
            [library, name](const Tell& tell) {
                try {
                    // Never closed: the process ends soon.
                    void* handle = openLibrary(library.path).release();
                    tell({name, Status::Ok, "from " + loadedFrom(handle)});
                    checkFunctions(library, handle, tell);
                    if (library.name == std::string(pluginName))
                        checkLogLevel(handle, tell);
                } catch (const LoadError& e) {
                    tell({name, Status::Fail, e.what(),
                          "install what it needs (ldd tells), or name another file", true});
                }
            },
            true};
}

Check startCheck(Subject& subject)
{
    return {"plug-in starts",
            [&subject](const Tell& tell) {
                try {
                    subject.session();
                    tell({"plug-in starts", Status::Ok, "module bound, engine initialised"});
                } catch (const LoadError& e) {
                    tell({"plug-in starts", Status::Fail, e.what(),
                          "mend the failures above, or ask the engine's maker what the code means",
                          true});
                }
            },
            true};
}

Check endCheck(Subject& subject)
{
    return {"plug-in ends", [&subject](const Tell& tell) {
                subject.session();
                subject.end();
                tell({"plug-in ends", Status::Ok, "engine cleaned up, libraries closed"});
            }};
}
