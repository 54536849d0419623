// A minimal host in C++. README.md tells how it is built and what it prints.
#include <dlfcn.h>

#include <iostream>
#include <map>
#include <stdexcept>
#include <string>

#include "Corvane_plugin.h"
#include "params_interface.h"

// The functions are found at run time; the module's have pointers of their own names.
#define DECLARE(name, parameters) static int(*name) parameters = nullptr;
CORVANE_PARAMS_FUNCTIONS(DECLARE)
static decltype(&Corvane_plugin_Init) pluginInit = nullptr;
static decltype(&Corvane_plugin_Request) pluginRequest = nullptr;
static decltype(&Corvane_plugin_Free) pluginFree = nullptr;

static void require(bool ok, const std::string& what)
{
    if (ok)
        return;
    const char* reason = dlerror();  // the loader's, if it was the loader that failed
    throw std::runtime_error(what + (reason != nullptr ? std::string(": ") + reason : ""));
}

// The plug-in opens module and engine by bare name and gets what is open with that SONAME.
static void* openLibrary(const std::string& path, const char* name)
{
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    require(library != nullptr, "cannot load");
    require(dlopen(name, RTLD_NOW | RTLD_NOLOAD) == library, path + " has not the SONAME " + name);
    return library;  // open until the process ends
}

template <class Function>
static void find(void* library, const char* name, Function*& function)
{
    function = reinterpret_cast<Function*>(dlsym(library, name));
    require(function != nullptr, "cannot find a function");
}

// Sends a request, prints its results and gives its "Data". Its values may hold zero bytes.
static std::string send(const std::string& request, std::map<std::string, std::string> parameters)
{
    for (auto& [key, value] : parameters) {
        std::string name = key;  // the module takes pointers to bytes that are not constant
        const long keyLen = long(name.size()), valueLen = long(value.size());
        require(AddHttpParams(name.data(), keyLen, value.data(), valueLen) == 0, "storing " + name);
    }
    pluginRequest(request.data(), static_cast<unsigned>(request.size()));  // 0 always

    int count = 0;
    require(GetRetParamsSum(&count) == 0, "results cannot be counted");
    std::cout << request << '\n';
    std::map<std::string, std::string> results;
    for (int i = 0; i < count; ++i) {
        long nameLen = 0, valueLen = 0;  // first the lengths alone, then the bytes
        require(GetRetParamFromIndex(i, nullptr, &nameLen, nullptr, &valueLen) == 0, "no length");
        std::string name(std::size_t(nameLen), '\0'), value(std::size_t(valueLen), '\0');
        require(GetRetParamFromIndex(i, name.data(), &nameLen, value.data(), &valueLen) == 0,
                "no value");
        std::cout << "  " << name << ": " << value << '\n';
        results[name] = value;
    }
    // Code 0 with an empty Data is a failure too; a plug-in without a module writes nothing.
    require(results["errorCode"] == "0" && (results.count("Data") == 0 || results["Data"] != ""),
            request + " has failed");
    return results["Data"];
}

int main(int argc, char** argv)
try {
    require(argc == 4, "usage: own-host MODULE ENGINE PLUGIN, paths with a slash");
    void* module = openLibrary(argv[1], "libCorvaneParamsModule.so");
#define FIND(name, parameters) find(module, #name, name);
    CORVANE_PARAMS_FUNCTIONS(FIND)
    openLibrary(argv[2], "libSoftModuleaven.so");
    void* plugin = openLibrary(argv[3], "libCorvane_plugin.so");
    find(plugin, "Corvane_plugin_Init", pluginInit);
    find(plugin, "Corvane_plugin_Request", pluginRequest);
    find(plugin, "Corvane_plugin_Free", pluginFree);
    pluginInit();  // 0 always; what fails is printed, and the requests fail
    send("QZaVen_GetVersion", {});
    send("QZaven_crypto_base64_encode", {{"strIn", "any text"}});
    const std::string key = "SmVmZQ==", data = "d2hhdCBkbyB5YSB3YW50IGZvciBub3RoaW5nPw==";
    send("QZaven_crypto_hmac", {{"strHashAlg", "4"}, {"strKey", key}, {"strdata", data}});
    send("QZaven_crypto_encrypt", {{"strCipherAlg", "2"},
                                   {"strMode", "2"},
                                   {"strIV", "Pa-6Qp2etDC0ItqALJ-sQQ=="},
                                   {"strCipherPadding", "1"},
                                   {"strKey", "BqkhQDa4oVtRLgPVNBIABg=="},
                                   {"strdata", "U2luZ2xlIGJsb2NrIG1zZw=="}});
    send("QZaven_ke_free", {{"strKe", send("QZaven_ke_new", {})}});
    pluginFree();
} catch (const std::exception& error) {
    std::cerr << "own-host: " << error.what() << '\n';
    return 1;
}
