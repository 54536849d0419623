// The library's own calls stay inside it. This program is a host with functions of the
// library's names; the library must not call them.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>

#include "Corvane_plugin.h"
#include "base64.h"
#include "base64_stream.h"
#include "log.h"
#include "support/built_library.h"
#include "support/plugin_test.h"

// ---- The host's own functions. They count their calls and do nothing else.

static int hostCalls = 0;

std::string base64_encode(const unsigned char*, unsigned int)
{
    hostCalls++;
    return "host";
}
std::string base64_decode(const std::string&)
{
    hostCalls++;
    return "host";
}
bool is_base64(unsigned char)
{
    hostCalls++;
    return false;
}
bool is_base64_w(unsigned int)
{
    hostCalls++;
    return false;
}
long GetPtrForStr(std::string)
{
    return ++hostCalls;
}
void encodeini(unsigned char**)
{
    hostCalls++;
}
int encodeupdate(unsigned char*, int, unsigned char*, unsigned char*)
{
    return ++hostCalls;
}
int encodefinish(unsigned char*, unsigned char*)
{
    return ++hostCalls;
}
int decodeini(unsigned char**)
{
    return ++hostCalls;
}
int decodeupdate(unsigned char*, int, unsigned char*, unsigned char*)
{
    return ++hostCalls;
}
int decodefinish(unsigned char*, unsigned char**)
{
    return ++hostCalls;
}
void hex_dump_to_buffer(const void*, unsigned long, int, int, char*, unsigned long, bool)
{
    hostCalls++;
}
void log_open(const char*, bool)
{
    hostCalls++;
}
int log_get_level(const char*)
{
    return 1000 + ++hostCalls;
}

namespace {

using support::contains;
using support::LIBRARY;
using support::SANITIZED;
using support::StdoutCapture;
using support::tool;
using Names = std::set<std::string>;

class Binding : public testing::Test {
protected:
    void SetUp() override
    {
        hostCalls = 0;
        void* library = dlopen(LIBRARY.c_str(), RTLD_NOW | RTLD_NOLOAD);
        ASSERT_NE(library, nullptr);
        // The loader finds the host's functions first.
        for (const char* name : {"log_open", "log_get_level", "_Z12encodeupdatePhiS_S_"}) {
            void* first = dlsym(RTLD_DEFAULT, name);
            ASSERT_NE(first, nullptr) << name;
            ASSERT_NE(first, dlsym(library, name)) << name;
        }
        dlclose(library);
    }
};

// A function of the library's own that the loader binds would be taken over by a host.
// Data is shared on purpose: the level, and the classes' tables.
TEST_F(Binding, LeavesNoOwnFunctionToTheLoader)
{
    if (SANITIZED)
        GTEST_SKIP() << "NOT TESTED: the sanitizers refer to functions in their own ways";
    Names functions;
    for (const std::string& line : tool("nm -D --defined-only")) {
        std::istringstream fields(line);
        std::string address, type, name;
        fields >> address >> type >> name;
        if (type == "T" || type == "W" || type == "i")
            functions.insert(name);
    }
    EXPECT_GT(functions.size(), 100U);
    bool level = false;
    for (const std::string& line : tool("readelf -r -W")) {
        std::istringstream fields(line);
        for (std::string field; fields >> field;) {
            EXPECT_EQ(functions.count(field), 0U) << line;
            level = level || field == "_log_level";
        }
    }
    EXPECT_TRUE(level) << "the level is not shared with the host";
}

TEST_F(Binding, EncodingStaysInTheLibrary)
{
    char out[8] = {};
    unsigned length = 0;
    EXPECT_EQ(CV_Base64Encode(reinterpret_cast<const unsigned char*>("foob"), 4, out, &length, 0),
              0);
    EXPECT_EQ(std::string(out, length), "Zm9vYg==");
    EXPECT_EQ(hostCalls, 0);
}

TEST_F(Binding, DecodingStaysInTheLibrary)
{
    unsigned char out[8] = {};
    unsigned length = 0;
    EXPECT_EQ(CV_Base64Decode("Zm9vYg==", 8, out, &length), 0);
    EXPECT_EQ(std::string(out, out + length), "foob");
    EXPECT_EQ(hostCalls, 0);
}

TEST_F(Binding, DumpsStayInTheLibrary)
{
    StdoutCapture output;
    log_set_level(5);
    print_hex_buf("key", "A", 1);
    log_set_level(4);
    EXPECT_TRUE(contains(output.text(), "0x00000000:  41 "));
    EXPECT_EQ(hostCalls, 0);
}

TEST_F(Binding, RequestsStayInTheLibrary)
{
    support::PluginHost host;
    host.init();
    host.request("QZaven_crypto_hmac",
                 {{"strHashAlg", "1"}, {"strKey", "a2V5"}, {"strdata", "Zm9v"}});
    const size_t place = host.journal.place("aven_crypto_hmac");
    ASSERT_NE(place, doubles::Journal::npos);
    EXPECT_EQ(host.journal.calls[place]["params.key"].bytes, "key");
    ASSERT_EQ(host.params.ret.size(), 2U);
    EXPECT_NE(host.params.ret[0].second, "host");
    EXPECT_EQ(host.params.ret[1].second, "0");
    host.request("QZaven_ke_encrypt", {{"strKe", "16"}, {"strdata", "Zm9vYg"}});
    EXPECT_EQ(host.journal.only("aven_ke_encrypt")["ke"].number, 16);
    EXPECT_EQ(host.journal.only("aven_ke_encrypt")["in"].bytes, "foob");
    host.free();
    EXPECT_EQ(hostCalls, 0);
}

TEST_F(Binding, TheHostKeepsItsOwnFunctions)
{
    log_open("x", false);
    EXPECT_EQ(log_get_level("debug"), 1002);
    EXPECT_EQ(base64_encode(nullptr, 0), "host");
    EXPECT_EQ(hostCalls, 3);
}

TEST_F(Binding, SharesTheLogLevel)
{
    log_set_level(-7);
    EXPECT_EQ(_log_level, -7);

    StdoutCapture output;
    _log_level = 5;
    print_hex_dump(6, "A", 1);
    _log_level = 4;
    print_hex_dump(6, "B", 1);
    EXPECT_EQ(output.text(), "0x00000000:  41" + std::string(47, ' ') + "A\n");
}

}  // namespace
