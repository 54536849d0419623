// The sources as an integrator takes them: the headers compile alone as C and as C++, and
// one compiler command builds the plug-in.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/shell.h"

namespace {

using support::shell;
using support::ShellOutcome;

const std::string SOURCES = std::string(CORVANE_SOURCE_DIR) + "/src";

// The compiler for this program's architecture.
std::string compilerCommand(const std::string& name)
{
    const std::string target = CORVANE_TOOLCHAIN;
    if (target.empty() || name.compare(0, 5, "clang") != 0)
        return target + name;
    return name + " --target=" + target.substr(0, target.size() - 1);
}

bool installed(const std::string& compiler)
{
    return shell("command -v " + compilerCommand(compiler)).status == 0;
}

struct Language {
    const char* name;
    const char* compiler;
    const char* options;
    const char* suffix;
};

const Language LANGUAGES[] = {
    {"GccC11", "gcc", "-std=c11", ".c"},
    {"GccCpp17", "g++", "-std=c++17 -Wconversion -Wshadow", ".cpp"},
    {"ClangC11", "clang", "-std=c11", ".c"},
    {"ClangCpp17", "clang++", "-std=c++17 -Wconversion -Wshadow", ".cpp"},
};

class Headers : public testing::TestWithParam<Language> {
protected:
    void SetUp() override
    {
        if (!installed(GetParam().compiler))
            GTEST_SKIP() << "NOT TESTED: there is no " << GetParam().compiler;
    }
    // Compiles a text, any warning being an error.
    void compile(const std::string& text)
    {
        const std::string source = scratch.write(std::string("source") + GetParam().suffix, text);
        const ShellOutcome outcome =
            shell(compilerCommand(GetParam().compiler) + " " + GetParam().options +
                  " -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I'" + SOURCES + "' " + source);
        EXPECT_EQ(outcome.status, 0) << text << outcome.output;
    }

    support::TemporaryFolder scratch;
};

const char* const C_HEADERS[] = {
    "Corvane_plugin.h", "engine_interface.h", "params_interface.h", "log.h", "base64_stream.h",
};

TEST_P(Headers, CompileAloneAndTwice)
{
    for (const char* header : C_HEADERS) {
        const std::string line = std::string("#include \"") + header + "\"\n";
        compile(line + line + "int unit;\n");
    }
}

TEST_P(Headers, CompileTogetherInAnyOrder)
{
    std::string forwards, backwards;
    for (const char* header : C_HEADERS) {
        const std::string line = std::string("#include \"") + header + "\"\n";
        forwards = forwards + line;
        backwards = line + backwards;
    }
    compile(forwards + "int unit;\n");
    compile(backwards + "int unit;\n");
}

TEST_P(Headers, DeclareWhatAHostCalls)
{
    compile(
        "#include \"Corvane_plugin.h\"\n"
        "#include \"log.h\"\n"
        "#include \"base64_stream.h\"\n"
        "int (*init)(void) = Corvane_plugin_Init;\n"
        "int (*request)(const char*, unsigned int) = Corvane_plugin_Request;\n"
        "int (*release)(void) = Corvane_plugin_Free;\n"
        "void (*open_log)(const char*, bool) = log_open;\n"
        "int (*get_level)(const char*) = log_get_level;\n"
        "void (*set_level)(int) = log_set_level;\n"
        "void (*close_log)(void) = log_close;\n"
        "int* level = &_log_level;\n"
        "int (*encode)(const unsigned char*, unsigned int, char*, unsigned int*, int) =\n"
        "    CV_Base64Encode;\n"
        "int (*decode)(const char*, unsigned int, unsigned char*, unsigned int*) =\n"
        "    CV_Base64Decode;\n");
}

struct Contract {
    const char* header;
    const char* prototypes;  // with this macro the header declares the functions
    const char* list;        // this macro lists them
    const char* row;         // ROW, of one in the list, with `result`, `name` and `parameters`
    const char* result;
};

const Contract CONTRACTS[] = {
    {"params_interface.h", "CORVANE_PARAMS_PROTOTYPES", "CORVANE_PARAMS_FUNCTIONS",
     "ROW(name, parameters)", "int"},
    {"engine_interface.h", "AVEN_ENGINE_PROTOTYPES", "AVEN_ENGINE_FUNCTIONS",
     "ROW(result, name, parameters)", "result"},
};

std::string includeLine(const Contract& contract)
{
    return std::string("#include \"") + contract.header + "\"\n";
}

std::string prototypesLine(const Contract& contract)
{
    return std::string("#define ") + contract.prototypes + "\n";
}

// The list with each function as `text`, in which {} stands for the result's type.
std::string listAs(const Contract& contract, std::string text)
{
    text.replace(text.find("{}"), 2, contract.result);
    return std::string("#define ") + contract.row + " " + text + "\n" + contract.list + "(ROW)\n";
}

TEST_P(Headers, DeclarationsHaveTheListsTypes)
{
    for (const Contract& contract : CONTRACTS)
        compile(prototypesLine(contract) + includeLine(contract) +
                listAs(contract, "{}(*p_##name) parameters = name;"));
}

TEST_P(Headers, DeclareTheFunctionsAlsoAfterTheyWereIncludedWithout)
{
    for (const Contract& contract : CONTRACTS)
        compile(includeLine(contract) + prototypesLine(contract) + includeLine(contract) +
                includeLine(contract) + listAs(contract, "{}(*p_##name) parameters = name;"));
}

std::string languageName(const testing::TestParamInfo<Language>& language)
{
    return language.param.name;
}

INSTANTIATE_TEST_SUITE_P(Compilers, Headers, testing::ValuesIn(LANGUAGES), languageName);

// What the preprocessor makes of a text, without blanks.
std::string preprocessed(const std::string& text)
{
    support::TemporaryFolder scratch;
    ShellOutcome outcome = shell(compilerCommand("gcc") + " -E -P -I'" + SOURCES + "' " +
                                 scratch.write("source.c", text));
    EXPECT_EQ(outcome.status, 0) << outcome.output;
    std::string& output = outcome.output;
    output.erase(std::remove_if(output.begin(), output.end(), isspace), output.end());
    return output;
}

// The declarations are for readers, the list is what the code goes by: same functions in the
// same order, same types, same names of parameters.
TEST(Prototypes, SayWhatTheListSays)
{
    if (!installed("gcc"))
        GTEST_SKIP() << "NOT TESTED: there is no gcc";
    for (const Contract& contract : CONTRACTS) {
        const std::string without = preprocessed(includeLine(contract));
        const std::string with = preprocessed(prototypesLine(contract) + includeLine(contract));
        ASSERT_EQ(with.substr(0, without.size()), without);

        std::string declared = with.substr(without.size());
        for (const char* around :
             {"#pragmaGCCvisibilitypush(default)", "#pragmaGCCvisibilitypop"}) {
            const size_t at = declared.find(around);
            ASSERT_NE(at, std::string::npos) << declared;
            declared.erase(at, strlen(around));
        }
        const std::string listed =
            preprocessed(includeLine(contract) + listAs(contract, "{} name parameters;"));
        EXPECT_EQ(declared, listed.substr(without.size()));
        EXPECT_NE(declared, "");
    }
}

// A host in C that is linked to the library and prints what it gets from it.
const char* const HOST =
    "#include <stdio.h>\n"
    "#include \"Corvane_plugin.h\"\n"
    "#include \"base64_stream.h\"\n"
    "#include \"log.h\"\n"
    "int main(void)\n"
    "{\n"
    "    char text[8] = {0};\n"
    "    unsigned int length = 0;\n"
    "    int code = CV_Base64Encode((const unsigned char*)\"foo\", 3, text, &length, 0);\n"
    "    printf(\"%d %u %s\\n\", code, length, text);\n"
    "    printf(\"%d %d\\n\", _log_level, log_get_level(\"DEBUG\"));\n"
    "    log_set_level(-1);\n"
    "    printf(\"%d\\n\", _log_level);\n"
    "    printf(\"%d\\n\", Corvane_plugin_Request(\"QZaVen_GetVersion\", 17));\n"
    "    printf(\"%d\\n\", Corvane_plugin_Free());\n"
    "    return 0;\n"
    "}\n";

TEST(PlainBuild, OneCommandBuildsAWorkingPlugin)
{
    if (!installed("g++") || !installed("gcc"))
        GTEST_SKIP() << "NOT TESTED: there is no g++";
    support::TemporaryFolder scratch;
    const std::string library = scratch.path("libplain.so");
    ShellOutcome built = shell(compilerCommand("g++") + " -std=c++17 -O2 -shared -fPIC '" +
                               SOURCES + "'/*.cpp -o " + library);
    ASSERT_EQ(built.status, 0) << built.output;
    EXPECT_EQ(built.output, "");

    const std::string host = scratch.path("host");
    built = shell(compilerCommand("gcc") + " -std=c11 -I'" + SOURCES + "' " +
                  scratch.write("host.c", HOST) + " " + library + " -o " + host);
    ASSERT_EQ(built.status, 0) << built.output;

    const ShellOutcome outcome = shell(CORVANE_EMULATOR " " + host);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output,
              "0 4 Zm9v\n"
              "4 5\n"
              "-1\n"
              "0\n"
              "0\n");
}

}  // namespace
