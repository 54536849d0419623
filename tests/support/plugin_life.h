// The plug-in as a host loads, starts, stops and unloads it, with the devkit's libraries.
#ifndef CORVANE_TESTS_PLUGIN_LIFE_H
#define CORVANE_TESTS_PLUGIN_LIFE_H

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <fstream>
#include <string>

#include "support/rounds.h"
#include "support/traffic.h"

namespace support {

inline const std::string PARAMS = "libCorvaneParamsModule.so";
inline const std::string ENGINE = "libSoftModuleaven.so";
inline const std::string PLUGIN = "libCorvane_plugin.so";

inline const HostLibraries BY_BARE_NAMES = {PARAMS, ENGINE, PLUGIN};
// What the host does not load is searched for by the plug-in.
inline const HostLibraries ENGINE_BY_PLUGIN = {PARAMS, "", PLUGIN};
inline const HostLibraries BOTH_BY_PLUGIN = {"", "", PLUGIN};

inline const std::string ENGINE_WITHOUT_INIT =
    "m_softMoudleAven.aven_global_init ERROR 0xffffb109\n";
inline const std::string ENGINE_NOT_OPEN = ENGINE + " load fail\n" + ENGINE_WITHOUT_INIT;

constexpr const char* ROUNDS = "CORVANE_PLUGIN_ROUNDS";
// In the environment: the folder in which the loader looks for libraries.
constexpr char DIRECTORY[] = "CORVANE_TEST_LIBRARY_DIRECTORY";

// By the loader's word and by the address space.
inline void expectUnloaded(const std::string& name)
{
    EXPECT_FALSE(isLibraryOpen(name)) << name;
    std::ifstream maps("/proc/self/maps");
    ASSERT_TRUE(maps.good());
    for (std::string line; std::getline(maps, line);)
        EXPECT_EQ(line.find(name), std::string::npos) << line;
}

inline void expectAllUnloaded()
{
    for (const std::string& name : {PARAMS, ENGINE, PLUGIN})
        expectUnloaded(name);
}

// Sends requests of all names; returns what was wrong, which is nothing.
inline std::string faultsOf(const DevkitHost& host)
{
    static const TrafficSetting setting;
    static std::atomic<uint32_t> number{0};
    TrafficClient client(host, setting, ++number, 1);
    client.actInEveryWay();
    client.leave();
    std::string faults;
    for (const std::string& complaint : client.count().complaints)
        faults += complaint + "\n";
    return faults;
}

inline DevkitHost::Results versionOf(const DevkitHost& host)
{
    return host.request("QZaVen_GetVersion", {});
}

inline const DevkitHost::Results NO_ENGINE = {{"Data", ""}, {"errorCode", "-20215"}};

inline void serveOnce(const HostLibraries& libraries)
{
    {
        DevkitHost host(libraries);
        ASSERT_EQ(host.init(), 0);
        EXPECT_EQ(faultsOf(host), "");
        EXPECT_EQ(host.free(), 0);
    }
    expectAllUnloaded();
}

}  // namespace support

#endif
