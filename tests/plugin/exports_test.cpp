// What the built library shows to the loader: its exports, the libraries that it needs, and
// its hardening.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>

#include "support/built_library.h"
#include "support/engine_calls.h"
#include "support/request_rows.h"

namespace {

using support::contains;
using support::LIBRARY;
using support::SANITIZED;
using support::tool;
using Names = std::set<std::string>;

void replaceAll(std::string& text, const std::string& from, const std::string& to)
{
    for (size_t at; (at = text.find(from)) != std::string::npos;)
        text.replace(at, from.size(), to);
}

// Standard texts and lists by their short names.
std::string shortened(std::string name)
{
    replaceAll(name, "std::__cxx11::", "std::");
    replaceAll(name, "[abi:cxx11]", "");
    for (const char* type : {"char", "wchar_t"}) {
        std::string of = type;
        replaceAll(name,
                   "std::basic_string<" + of + ", std::char_traits<" + of + ">, std::allocator<" +
                       of + "> >",
                   of == "char" ? "text" : "wide");
    }
    replaceAll(name, "std::list<wide, std::allocator<wide > >", "wides");
    return name;
}

// The names of the dynamic symbols that the library defines; decorated ones readable, so
// that "f" is a plain symbol and "f(int)" a decorated one.
Names exports()
{
    Names names;
    for (const std::string& line : tool("nm -D -C --defined-only")) {
        std::istringstream fields(line);
        std::string address, type, name;
        fields >> address >> type >> std::ws;
        std::getline(fields, name);
        // Sanitizers add their own, and without optimisation inline functions of the
        // standard library stay behind.
        if (SANITIZED &&
            (contains(name, "__odr_asan") || contains(name, "__asan") ||
             (type == "W" && (contains(name, "__gnu_cxx") || contains(name, "operator new(") ||
                              contains(name, "operator delete(")))))
            continue;
        names.insert(shortened(name));
    }
    return names;
}

const char* const PLAIN[] = {
    "Corvane_plugin_Init", "Corvane_plugin_Request", "Corvane_plugin_Free", "log_open",
    "log_get_level",       "log_set_level",          "log_close",           "_log_level",
    "CV_Base64Encode",     "CV_Base64Decode",
};

const char* const DECORATED[] = {
    "prevent_Corvane_forgetting()",

    "base64_encode(unsigned char const*, unsigned int)",
    "base64_decode(text const&)",
    "is_base64(unsigned char)",
    "base64_encode_w(unsigned int const*, unsigned int)",
    "base64_decode_w(wide const&)",
    "is_base64_w(unsigned int)",
    "encodeini(unsigned char**)",
    "encodeupdate(unsigned char*, int, unsigned char*, unsigned char*)",
    "encodefinish(unsigned char*, unsigned char*)",
    "decodeini(unsigned char**)",
    "decodeupdate(unsigned char*, int, unsigned char*, unsigned char*)",
    "decodefinish(unsigned char*, unsigned char**)",

    "GetPtrForStr(text)",

    "hex_dump_to_buffer(void const*, unsigned long, int, int, char*, unsigned long, bool)",
    "print_hex_dump(int, void const*, unsigned long)",
    "print_hex_buf(char const*, void const*, unsigned long)",
};

const char* const CLASSES[] = {
    // clang-format off
    "vtable for CWebServerBase",
    "typeinfo for CWebServerBase",
    "typeinfo name for CWebServerBase",
    "CWebServerBase::CWebServerBase()",
    "CWebServerBase::~CWebServerBase()",
    "CWebServerBase::ReturnRequest()",
    "CWebServerBase::GetFindNameStringValueFromMapParams(text)",
    "CWebServerBase::InsertStringValueFromMapParams(text, text)",
    "CWebServerBase::ChangedParamsValueByInputName(text, text)",
    "CWebServerBase::GetRetStrToParamsMap(text)",
    "CWebServerBase::AddRetStrToParamsMap(text, text)",
    "CWebServerBase::ClearRetParamsMap(int)",
    "CWebServerBase::SetRetCustomStr(text)",
    "CWebServerBase::GetStrErrorForInt(int)",
    "CWebServerBase::GetStrErrorHexForInt(int)",
    "CWebServerBase::multiToUnicode(text const&, wide&)",
    "CWebServerBase::multiToUTF8(text const&, text&)",
    "CWebServerBase::UTF8ToMulti(text const&, text&)",
    "CWebServerBase::UnicodeToUTF8(wide&, text&)",
    "CWebServerBase::UTF8ToUnicode(text const&, wide&)",
    "CWebServerBase::Utf8ToGbk(char*, unsigned long, char*, unsigned long)",
    "CWebServerBase::Utf8ToGbk(text&, text&)",
    "CWebServerBase::ReplaceInChar(char*, int, char, char)",
    "CWebServerBase::URLDataDecode(char*, int)",
    "CWebServerBase::URLDataEncode(char*, int)",
    "CWebServerBase::ToHex(unsigned char)",
    "CWebServerBase::FromHex(unsigned char)",
    "CWebServerBase::EncodeURIComponent(text const&)",
    "CWebServerBase::DecodeURIComponent(text const&)",
    "CWebServerBase::JsonUrlEncode(text)",
    "CWebServerBase::JsonUrlDecode(text)",
    "CWebServerBase::split(text, text)",
    "CWebServerBase::GetWListForDefaultWString(wide, wchar_t, wides&)",
    "CWebServerBase::runCmd(text)",
    "CWebServerBase::IS_MS_ENH_RSA_AES_PROV_XP()",

    "vtable for CWebOperateAvenSoftModule",
    "typeinfo for CWebOperateAvenSoftModule",
    "typeinfo name for CWebOperateAvenSoftModule",
    "CWebOperateAvenSoftModule::CWebOperateAvenSoftModule()",
    "CWebOperateAvenSoftModule::~CWebOperateAvenSoftModule()",
    "CWebOperateAvenSoftModule::GetFunctionID(text)",
    "CWebOperateAvenSoftModule::SetFunctionID(int)",
    "CWebOperateAvenSoftModule::Request()",

    "CSoftMoudle_aven::CSoftMoudle_aven()",
    "CSoftMoudle_aven::~CSoftMoudle_aven()",
    "CSoftMoudle_aven::loadLibrary(char const*)",
    "CSoftMoudle_aven::unloadLibrary()",
    "CSoftMoudle_aven::isLoad()",
    "CSoftMoudle_aven::get_ErrorCode()",
    "CSoftMoudle_aven::aven_global_init(text)",
    "CSoftMoudle_aven::aven_global_cleanup()",
    "CSoftMoudle_aven::aven_version()",
    "CSoftMoudle_aven::aven_strerror(text)",
    "CSoftMoudle_aven::GetStrForInt(long)",

    "CorvaneParamsClass::CorvaneParamsClass()",
    "CorvaneParamsClass::getInstance()",
    "CorvaneParamsClass::Load()",
    "CorvaneParamsClass::Load(char*, int)",
    "CorvaneParamsClass::initFuction()",
    "CorvaneParamsClass::Free()",
    "CorvaneParamsClass::_aven_AddHttpParams(char*, long, char*, long)",
    "CorvaneParamsClass::_aven_GetHttpParams(char*, long, char*, long*)",
    "CorvaneParamsClass::_aven_ChangeHttpParams(char*, long, char*, long)",
    "CorvaneParamsClass::_aven_ClearHttpParams()",
    "CorvaneParamsClass::_aven_AddRetParams(char*, long, char*, long)",
    "CorvaneParamsClass::_aven_GetRetParams(char*, long, char*, long*)",
    "CorvaneParamsClass::_aven_GetRetParamsSum(int*)",
    "CorvaneParamsClass::_aven_GetRetParamFromIndex(int, char*, long*, char*, long*)",
    "CorvaneParamsClass::_aven_ClearRetParams()",
    "CorvaneParamsClass::_aven_SetRetCustomParam(char*, long)",
    "CorvaneParamsClass::_aven_GetRetCustomParam(char*, long*)",
    "CorvaneParamsClass::_aven_ClearRetCustomParam()",
    // clang-format on
};

std::string nameOf(const std::string& call)
{
    return call.substr(0, call.find('('));
}

// QZaven_ke_new is served by makeaven_ke_new.
std::string handlerOf(const std::string& request)
{
    return "make" + request.substr(2);
}

TEST(Exports, AreTheseAndNoOthers)
{
    Names expected(std::begin(PLAIN), std::end(PLAIN));
    expected.insert(std::begin(DECORATED), std::end(DECORATED));
    expected.insert(std::begin(CLASSES), std::end(CLASSES));
    for (const auto& row : support::rows)
        expected.insert("CSoftMoudle_aven::" + nameOf(row.what) + row.exported);
    for (const auto& row : support::requestRows)
        expected.insert("CWebOperateAvenSoftModule::" + handlerOf(row.name) + "()");
    const Names actual = exports();

    for (const std::string& name : expected)
        EXPECT_EQ(actual.count(name), 1U) << "not exported: " << name;
    for (const std::string& name : actual)
        EXPECT_EQ(expected.count(name), 1U) << "exported: " << name;
}

TEST(Exports, LogLevelIsInitialisedData)
{
    int found = 0;
    for (const std::string& line : tool("nm -D --defined-only")) {
        if (!contains(line + "\n", " _log_level\n"))
            continue;
        EXPECT_TRUE(contains(line, " D ")) << line;
        found++;
    }
    EXPECT_EQ(found, 1);
}

// Names in quotes of readelf's dynamic section: "(NEEDED) Shared library: [libc.so.6]".
Names dynamicNames(const std::string& tag)
{
    Names names;
    for (const std::string& line : tool("readelf -d -W"))
        if (contains(line, "(" + tag + ")"))
            names.insert(line.substr(line.find('[') + 1, line.find(']') - line.find('[') - 1));
    return names;
}

TEST(Needed, IsTheStandardRuntimeAlone)
{
    Names allowed = {"libc.so.6", "libstdc++.so.6",       "libgcc_s.so.1",
                     "libm.so.6", "ld-linux-x86-64.so.2", "ld-linux-aarch64.so.1"};
    if (SANITIZED)
        allowed.insert({"libasan.so.8", "libubsan.so.1"});
    const Names needed = dynamicNames("NEEDED");
    for (const std::string& name : needed)
        EXPECT_EQ(allowed.count(name), 1U) << name;
    EXPECT_EQ(needed.count("libc.so.6"), 1U);
    EXPECT_EQ(needed.count("libstdc++.so.6"), 1U);
}

TEST(Needed, HasNoSearchPath)
{
    EXPECT_EQ(dynamicNames("RPATH"), Names{});
    EXPECT_EQ(dynamicNames("RUNPATH"), Names{});
    EXPECT_EQ(dynamicNames("SONAME"), Names{"libCorvane_plugin.so"});
}

TEST(Version, IsInANoteOfTheFile)
{
    std::string notes;
    for (const std::string& line : tool("readelf -n"))
        notes += line + "\n";
    EXPECT_TRUE(contains(
        notes,
        R"({"type":"corvane","name":"libCorvane_plugin.so","version":")" CORVANE_VERSION R"("})"))
        << notes;
}

TEST(Hardening, BindsNowAndSealsItsTables)
{
    bool relro = false;
    bool stack = false;
    for (const std::string& line : tool("readelf -l -W")) {
        relro = relro || contains(line, "GNU_RELRO");
        if (contains(line, "GNU_STACK")) {
            stack = true;
            EXPECT_TRUE(contains(line, " RW ")) << "executable stack: " << line;
        }
    }
    EXPECT_TRUE(relro);
    EXPECT_TRUE(stack);

    bool now = false;
    for (const std::string& line : tool("readelf -d -W")) {
        now = now || contains(line, "BIND_NOW") || contains(line, "Flags: NOW");
        EXPECT_FALSE(contains(line, "(TEXTREL)"));
    }
    EXPECT_TRUE(now);
}

TEST(Hardening, ChecksStackAndBuffers)
{
    if (SANITIZED)
        GTEST_SKIP() << "NOT TESTED: the sanitizers take the place of fortified calls";
    Names used;
    for (const std::string& line : tool("nm -D --undefined-only")) {
        std::string name = line.substr(line.rfind(' ') + 1);
        used.insert(name.substr(0, name.find('@')));
    }
    EXPECT_EQ(used.count("__stack_chk_fail"), 1U);
#if !defined(__clang__)  // which does not fortify calls with variable arguments
    EXPECT_EQ(used.count("__snprintf_chk"), 1U);
    EXPECT_EQ(used.count("__syslog_chk"), 1U);
    EXPECT_EQ(used.count("syslog"), 0U);
#endif
}

// The library's code is compiled with it throughout. The mark for the loader is not there:
// the linker drops it, as Debian's start files, which are linked in, do not carry it.
TEST(Hardening, ProtectsBranches)
{
#if defined(__aarch64__)
    const Names landing = {"paciasp", "bti"};
#else
    const Names landing = {"endbr64"};
#endif
    Names landings;  // addresses at which an indirect branch or call may arrive
    for (const std::string& line : tool("objdump -d --no-show-raw-insn")) {
        std::istringstream fields(line);
        std::string address, instruction;
        fields >> address >> instruction;
        if (landing.count(instruction) != 0)
            landings.insert(address.substr(0, address.size() - 1));
    }
    size_t functions = 0;
    for (const std::string& line : tool("nm -D --defined-only")) {
        std::istringstream fields(line);
        std::string address, type, name;
        fields >> address >> type >> name;
        if (type != "T" && type != "W")
            continue;
        functions++;
        EXPECT_EQ(landings.count(address.substr(address.find_first_not_of('0'))), 1U) << name;
    }
    EXPECT_GT(functions, 100U);
}

#if defined(__aarch64__)
TEST(Hardening, SignsReturnAddresses)
{
    size_t signs = 0, checks = 0;
    for (const std::string& line : tool("objdump -d --no-show-raw-insn")) {
        signs += contains(line, "paciasp") ? 1 : 0;
        checks += contains(line, "autiasp") ? 1 : 0;
    }
    EXPECT_GT(signs, 100U);
    EXPECT_GE(checks, signs);
}
#endif

TEST(Paths, AreRelativeToTheCheckout)
{
    std::ifstream file(LIBRARY, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    ASSERT_FALSE(bytes.empty());
    // A sanitizer's reports keep the compiler's own paths.
    EXPECT_TRUE(SANITIZED || !contains(bytes, CORVANE_SOURCE_DIR "/src"));
    EXPECT_TRUE(contains(bytes, std::string("./src/Corvane_plugin.cpp") + '\0'));
    EXPECT_TRUE(contains(bytes, std::string("./src/log.cpp") + '\0'));
}

}  // namespace
