// The command line host, driven as a user drives it, with the real libraries.
#include "support/host_program.h"

namespace {

using namespace std::string_literals;
using namespace support;

using HostValues = Host;
using HostResults = Host;
using HostUsage = Host;
using HostLoading = Host;

std::string allBytes()
{
    std::string bytes;
    for (int i = 0; i < 256; ++i)
        bytes += static_cast<char>(i);
    return bytes;
}

// ---- Values.

TEST_F(HostValues, PlainTextIsTakenAsItIs)
{
    EXPECT_EQ("hello = world", received("hello = world"));
    EXPECT_EQ("b64", received("b64"));
    EXPECT_EQ("x@y", received("x@y"));
}

TEST_F(HostValues, FileBytesAreTakenAsTheyAre)
{
    EXPECT_EQ(allBytes(), received("@" + file("bytes", allBytes())));
}

TEST_F(HostValues, StandardInputIsTakenAsItIs)
{
    EXPECT_EQ(allBytes(), received("@-", allBytes()));
}

TEST_F(HostValues, Base64IsMadeOfTextFileAndInput)
{
    EXPECT_EQ("-_8=", received("b64:@" + file("bytes", "\xFB\xFF")));
    EXPECT_EQ("-_8=", received("b64:@-", "\xFB\xFF"));
    EXPECT_EQ("Zg==", received("b64:f"));
    EXPECT_EQ("Zm8=", received("b64:fo"));
    EXPECT_EQ("Zm9v", received("b64:foo"));
    EXPECT_EQ("Zm9vYmFy", received("b64:foobar"));
}

TEST_F(HostValues, HexDigitsAreTheirBytes)
{
    EXPECT_EQ("\xfb\xff", received("hex:fbFF"));
    EXPECT_EQ("\0"s, received("hex:00"));
}

TEST_F(HostValues, TextPrefixKeepsWhatFollows)
{
    EXPECT_EQ("@file", received("text:@file"));
    EXPECT_EQ("b64:x", received("text:b64:x"));
    EXPECT_EQ("hex:0", received("text:hex:0"));
    EXPECT_EQ("text:", received("text:text:"));
    EXPECT_EQ("QHg=", received("b64:text:@x"));
}

TEST_F(HostValues, LongValuesArriveWhole)
{
    std::string bytes;
    while (bytes.size() < 3'000'001)
        bytes += allBytes();
    EXPECT_TRUE(bytes == received("@" + file("bytes", bytes)));
}

TEST_F(HostValues, BadHexIsRefusedAndNotQuoted)
{
    for (const char* digits : {"5ec", "5ecret", "5e c"}) {
        const Ended ended = call({"QZaven_crypto_base64_encode", "strIn=hex:"s + digits});
        EXPECT_EQ(USAGE, ended.code);
        EXPECT_TRUE(holds(ended.err, "strIn")) << ended.err;
        EXPECT_FALSE(holds(ended.err, "5e")) << ended.err;
    }
}

TEST_F(HostValues, UnreadableFileIsNamed)
{
    const Ended ended = call({"QZaven_crypto_base64_encode", "strIn=b64:@" + path("absent")});
    EXPECT_EQ(USAGE, ended.code);
    EXPECT_TRUE(holds(ended.err, path("absent"))) << ended.err;
    EXPECT_EQ(USAGE, call({"QZaven_crypto_base64_encode", "strIn=@" + path("")}).code);
}

TEST_F(HostValues, StandardInputServesOneValue)
{
    const Ended ended = call({"QZaven_crypto_hmac", "strKey=b64:@-", "strdata=b64:@-"}, "key");
    EXPECT_EQ(USAGE, ended.code);
    EXPECT_TRUE(holds(ended.err, "strdata: standard input")) << ended.err;
}

// ---- Results and exit codes.

TEST_F(HostResults, AreJsonInOrderOnCleanOutput)
{
    const Ended ended = call({"QZaven_crypto_encrypt", "strCipherAlg=4", "strMode=6",
                              "strKey=b64:" + std::string(32, 'k'), "strIV=b64:iviviviviviv",
                              "straad=b64:a", "strdata=b64:data"});
    ASSERT_EQ(SUCCESS, ended.code) << ended.err;
    const Json json = ended.json();
    Arguments names;
    for (const auto& [name, value] : json.items())
        names.push_back(name);
    EXPECT_EQ((Arguments{"Data", "errorCode", "gcmOutTag"}), names);
    EXPECT_EQ("0", json["errorCode"]);
}

// With this plug-in the engine's log goes where results go.
TEST_F(HostResults, WhatLibrariesPrintGoesToErrors)
{
    const Ended ended = run({"--plugin", patched(plugin, "/dev/stderr", "/dev/stdout"), "call",
                             "QZaVen_GetVersion", "--raw", "errorCode"});
    EXPECT_EQ(SUCCESS, ended.code);
    EXPECT_EQ("0", ended.out);
    EXPECT_TRUE(holds(ended.err, "SoftModuleaven: ")) << ended.err;
}

TEST_F(HostResults, RefusalGivesCodeTextAndResults)
{
    const Ended ended = call({"QZaven_crypto_gen_symmkey", "strCipherAlg=8"});
    EXPECT_EQ(REFUSED, ended.code);
    EXPECT_EQ((Json{{"Data", ""}, {"errorCode", "-20084"}}), ended.json());
    const std::string meaning = call({"QZaVen_strerror", "strErr=-20084", "--raw", "Data"}).out;
    ASSERT_FALSE(meaning.empty());
    EXPECT_TRUE(holds(ended.err, "failed with -20084: " + meaning)) << ended.err;
}

// What to do is known of the development engine's texts alone.
TEST_F(HostResults, AnEnginesTextIsToldWithoutTheBlanksBehindIt)
{
    const std::string text = "plug-in: parameter value is outside its allowed set or range";
    const std::string other = text.substr(0, text.size() - 4) + "\n \r\n";
    const Ended ended = run({"-q", "--engine", patched(engine, text, other), "call",
                             "QZaven_crypto_gen_symmkey", "strCipherAlg=8"});
    EXPECT_EQ(REFUSED, ended.code);
    EXPECT_TRUE(holds(ended.err, "QZaven_crypto_gen_symmkey failed with -20084: " +
                                     text.substr(0, text.size() - 4) + "\n"))
        << ended.err;
    EXPECT_FALSE(holds(ended.err, "what to do")) << ended.err;
}

TEST_F(HostResults, ErrorTextSucceedsWithoutErrorCode)
{
    const Ended ended = call({"QZaVen_strerror", "strErr=-20001"});
    EXPECT_EQ(SUCCESS, ended.code);
    EXPECT_FALSE(ended.json().contains("errorCode"));

    const Ended without = call({"QZaVen_strerror"});
    EXPECT_EQ(REFUSED, without.code);
    EXPECT_EQ((Json{{"Data", ""}}), without.json());
    EXPECT_TRUE(holds(without.err, "\ncorvane-host: QZaVen_strerror failed: no text\n"))
        << without.err;
}

TEST_F(HostResults, RawDecodesBase64)
{
    const Ended ended = call({"QZaven_crypto_gen_symmkey", "strCipherAlg=2", "--raw", "Data"});
    EXPECT_EQ(SUCCESS, ended.code);
    EXPECT_EQ(16U, ended.out.size());
}

TEST_F(HostResults, RawUndoesBothEscapes)
{
    const Ended ended = call({"QZaven_crypto_base64_Decode",
                              "strIn=b64:@" + file("bytes", allBytes()), "--raw", "Data"});
    EXPECT_EQ(SUCCESS, ended.code) << ended.err;
    EXPECT_EQ(allBytes(), ended.out);
}

TEST_F(HostResults, RawGivesTextAsItIs)
{
    EXPECT_EQ(call({"QZaVen_GetVersion"}).json()["Data"],
              call({"QZaVen_GetVersion", "--raw", "Data"}).out);
    EXPECT_EQ("0", call({"QZaVen_GetVersion", "--raw", "errorCode"}).out);
}

// One result for each --raw.
TEST_F(HostResults, ParametersMayStandBehindRaw)
{
    const Ended ended = call({"QZaVen_strerror", "--raw", "Data", "strErr=-20084"});
    EXPECT_EQ(SUCCESS, ended.code) << ended.err;
    EXPECT_EQ("plug-in: parameter value is outside its allowed set or range", ended.out);
}

TEST_F(HostResults, OutputFileHoldsResults)
{
    const std::string key = path("key");
    const Ended ended =
        call({"QZaven_crypto_gen_symmkey", "strCipherAlg=4", "--raw", "Data", "-o", key});
    EXPECT_EQ(SUCCESS, ended.code);
    EXPECT_EQ("", ended.out);
    EXPECT_EQ(32U, readWhole(key).size());

    EXPECT_EQ(SUCCESS, call({"QZaVen_GetVersion", "-o", path("json")}).code);
    EXPECT_EQ("0", Json::parse(readWhole(path("json")))["errorCode"]);
    EXPECT_EQ(USAGE, call({"QZaVen_GetVersion", "-o", path("no/folder")}).code);
}

TEST_F(HostResults, RawWritesNothingAfterRefusal)
{
    const std::string kept = file("kept", "before");
    const Ended ended = call(
        {"QZaven_crypto_gen_symmkey", "strCipherAlg=9", "--raw", "Data", "-o", kept, "--force"});
    EXPECT_EQ(REFUSED, ended.code);
    EXPECT_EQ("before", readWhole(kept));
    EXPECT_EQ("", ended.out);
}

TEST_F(HostResults, FullOutputIsAnError)
{
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    const int err = open(path("err").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_EQ(USAGE, exitCode(start({"call", "QZaVen_GetVersion"}, -1, full, err)));
    close(full);
    close(err);
}

TEST_F(HostResults, TimeIsAMemberOrALine)
{
    EXPECT_GT(call({"QZaVen_GetVersion", "--time"}).json()["microseconds"].get<double>(), 0);
    const Ended raw = call({"QZaVen_GetVersion", "--time", "--raw", "errorCode"});
    EXPECT_EQ("0", raw.out);
    EXPECT_TRUE(holds(raw.err, "microseconds: ")) << raw.err;
    EXPECT_EQ("", run({"-q", "call", "QZaVen_GetVersion", "--time"}).err);
    EXPECT_EQ("", run({"-q", "call", "QZaVen_GetVersion", "--raw", "errorCode"}).err);
}

// The engine's version text comes back as it is, so it can hold any bytes.
TEST_F(HostResults, BytesThatAreNotUtf8AreGivenAsBase64)
{
    struct Row {
        std::string bytes;
        bool utf8;
    };
    const Row rows[] = {
        {"\x7F", true},               // the last of one byte
        {"\xC2\x80", true},           // the first and last of two
        {"\xDF\xBF", true},           //
        {"\xE0\xA0\x80", true},       // of three, and around the surrogates
        {"\xED\x9F\xBF", true},       //
        {"\xEF\xBF\xBF", true},       //
        {"\xF0\x90\x80\x80", true},   // of four
        {"\xF4\x8F\xBF\xBF", true},   //
        {"\x80", false},              // a continuation alone
        {"\xC1\xBF", false},          // too long a form
        {"\xE0\x9F\xBF", false},      //
        {"\xF0\x8F\xBF\xBF", false},  //
        {"\xED\xA0\x80", false},      // a surrogate
        {"\xF4\x90\x80\x80", false},  // beyond the last character
        {"\xF5\x80\x80\x80", false},  //
        {"\xE2\x82"
         "e",
         false},  // cut short
        {"\xC3"
         "e",
         false},          //
        {"\xFF", false},  //
    };
    for (const Row& row : rows) {
        const std::string word = "development engine ";
        const std::string other = row.bytes + word.substr(row.bytes.size());
        const Ended ended =
            run({"call", "QZaVen_GetVersion", "--engine", patched(engine, word, other)});
        ASSERT_EQ(SUCCESS, ended.code) << ended.err;
        const Json data = ended.json()["Data"];
        if (row.utf8)
            EXPECT_TRUE(data.is_string() && holds(data, other)) << data;
        else
            EXPECT_TRUE(data.is_object() && data["base64"].is_string()) << data;
    }
}

// ---- Command lines.

TEST_F(HostUsage, UnknownRequestGetsASuggestion)
{
    const Ended ended = call({"QZaven_crypto_hmacc"});
    EXPECT_EQ(USAGE, ended.code);
    EXPECT_TRUE(holds(ended.err, "did you mean QZaven_crypto_hmac?")) << ended.err;
    EXPECT_TRUE(holds(call({"qzaven_getversion"}).err, "QZaVen_GetVersion?"));
    EXPECT_EQ(USAGE, run({"describe", "nothing"}).code);
}

TEST_F(HostUsage, ForceSendsAnUnknownName)
{
    const Ended ended = call({"QZaven_unknown", "--force"});
    EXPECT_EQ(REFUSED, ended.code);
    EXPECT_EQ(Json::object(), ended.json());
    EXPECT_TRUE(holds(ended.err, "QZaven_unknown failed: the plug-in wrote no results\n"))
        << ended.err;
}

TEST_F(HostUsage, OddParametersAreWarnedOfAndSent)
{
    const Ended ended =
        call({"QZaven_crypto_hmac", "strHashAlg=77", "strKey=raw:5ecret5ecret5", "strKee=5ecret"});
    EXPECT_EQ(REFUSED, ended.code);
    EXPECT_EQ("-20001", ended.json()["errorCode"]);
    for (const char* warning : {"strHashAlg must be 1 to 6", "strKey is not Base64",
                                "strKee is not a parameter", "strdata is missing"})
        EXPECT_TRUE(holds(ended.err, warning)) << warning << " in " << ended.err;
    EXPECT_FALSE(holds(ended.err, "5ecret")) << ended.err;
}

TEST_F(HostUsage, NeedsThatDependOnTheModeAreKnown)
{
    const auto warns = [&](const char* mode, const char* parameter) {
        const Ended ended = call({"QZaven_crypto_decrypt", "strCipherAlg=1", "strMode="s + mode,
                                  "strKey=AAAA", "strdata=AAAA"});
        return holds(ended.err, parameter + " is missing"s);
    };
    EXPECT_FALSE(warns("1", "strIV"));
    EXPECT_TRUE(warns("2", "strIV"));
    EXPECT_FALSE(warns("5", "straad"));
    EXPECT_TRUE(warns("6", "straad"));
    EXPECT_TRUE(warns("6", "strtag"));
}

TEST_F(HostUsage, WrongCommandLinesQuoteNoValues)
{
    const Arguments rows[] = {
        {"call", "QZaVen_strerror", "5ecret"},   // no name
        {"call", "QZaVen_strerror", "=5ecret"},  // an empty one
        {"call", "QZaVen_strerror", "-5ecret"},  // taken for options
        {"call", "QZaVen_strerror", "strErr=5ecret", "strErr=5ecret"},
        {"call", "QZaVen_strerror", "strErr=5ecret", "--raw", "gcmOutTag"},
        {"call", "QZaVen_strerror", "strErr=5ecret", "--raw"},
        {"call"},
        {"list", "strKey=5ecret"},
        {},
    };
    for (const Arguments& row : rows) {
        const Ended ended = run(row);
        EXPECT_EQ(USAGE, ended.code);
        EXPECT_EQ("", ended.out);
        EXPECT_NE("", ended.err);
        EXPECT_FALSE(holds(ended.err, "5ecret")) << ended.err;
    }
}

TEST_F(HostUsage, HelpGoesToOutput)
{
    const Ended ended = run({"call", "--help"});
    EXPECT_EQ(SUCCESS, ended.code);
    EXPECT_EQ("", ended.err);
    EXPECT_TRUE(holds(ended.out, "b64:@FILE"));
}

// ---- Loading.

TEST_F(HostLoading, UsualPlacesAreFoundFromAnyFolder)
{
    EXPECT_EQ(SUCCESS, run({"call", "QZaVen_GetVersion"}).code);
}

TEST_F(HostLoading, MissingAndForeignFilesAreRefused)
{
    const std::string text = file("text.so", "not a library");
    for (const char* option : {"--plugin", "--params", "--engine"})
        for (const std::string& library : {path("absent.so"), text, path("")}) {
            const Ended ended = run({"call", "QZaVen_GetVersion", option, library});
            EXPECT_EQ(LOADING, ended.code) << option << " " << library;
            EXPECT_TRUE(holds(ended.err, "cannot load a library: " + library)) << ended.err;
            EXPECT_EQ("", ended.out);
        }
}

TEST_F(HostLoading, LibrariesInEachOthersPlaceAreRefused)
{
    const Arguments rows[] = {
        {"--plugin", params}, {"--plugin", engine}, {"--params", plugin},
        {"--params", engine}, {"--engine", plugin}, {"--engine", params},
    };
    for (const Arguments& row : rows) {
        const Ended ended = run({row[0], row[1], "call", "QZaVen_GetVersion"});
        EXPECT_EQ(LOADING, ended.code) << row[0] << " " << row[1];
        EXPECT_EQ("", ended.out);
        EXPECT_TRUE(holds(ended.err, "corvane-host: ")) << ended.err;
    }
}

TEST_F(HostLoading, EngineThatCannotInitialiseIsRefused)
{
    const Ended ended = run({"--engine", patched(engine, "aven_global_init", "aven_global_xxxx"),
                             "call", "QZaVen_GetVersion"});
    EXPECT_EQ(LOADING, ended.code);
    const std::string begin = "corvane-host: the plug-in could not initialise: ";
    const size_t told = ended.err.find(begin);
    ASSERT_NE(std::string::npos, told) << ended.err;
    const std::string sentence = ended.err.substr(told);
    EXPECT_TRUE(holds(sentence,
                      "m_softMoudleAven.aven_global_init ERROR 0xffffb109 (-20215); "
                      "corvane-host doctor says why\n"))
        << ended.err;
}

TEST_F(HostLoading, ModuleWithoutAFunctionIsRefused)
{
    // Only where the exported names stand alone does this rename the function.
    const Ended ended =
        run({"--params", patched(params, "SetRetCustomParam"s + '\0', "SetRetCustomXxxxx"s + '\0'),
             "call", "QZaVen_GetVersion"});
    EXPECT_EQ(LOADING, ended.code);
    EXPECT_TRUE(holds(ended.err, "SetRetCustomParam")) << ended.err;
}

// Folders of links that hosts have left behind.
size_t leftFolders()
{
    size_t count = 0;
    for (const auto& entry : fs::directory_iterator(fs::temp_directory_path()))
        count += entry.path().filename().string().rfind("corvane-host-", 0) == 0 ? 1 : 0;
    return count;
}

TEST_F(HostLoading, LibrariesUnderAnotherNameAreGivenTheirBareNames)
{
    if (emulated)
        GTEST_SKIP() << "NOT TESTED: the host starts itself again, past the emulator";
    setenv("TMPDIR", path("").c_str(), 1);
    const std::string otherParams =
        patched(params, "libCorvaneParamsModule.so", "libForeignParamsModule.so");
    const std::string otherEngine = patched(engine, "libSoftModuleaven.so", "libSoftModulexxxx.so");

    const Ended ended = run({"--params", otherParams, "--engine", otherEngine, "call",
                             "QZaven_crypto_base64_encode", "strIn=@-", "--raw", "Data"},
                            "input");
    EXPECT_EQ(SUCCESS, ended.code) << ended.err;
    EXPECT_EQ("input", ended.out);
    EXPECT_EQ(0U, leftFolders());

    setenv("LD_LIBRARY_PATH", "/nowhere", 1);
    EXPECT_EQ(SUCCESS, run({"--engine", otherEngine, "call", "QZaVen_GetVersion"}).code);
    EXPECT_EQ(0U, leftFolders());
    unsetenv("LD_LIBRARY_PATH");

    EXPECT_EQ(LOADING, run({"--engine", otherEngine, "--plugin", path("absent"), "call",
                            "QZaVen_GetVersion"})
                           .code);
    EXPECT_EQ(0U, leftFolders());
    unsetenv("TMPDIR");
}

// It has been started again, which did not help.
TEST_F(HostLoading, LibraryThatDoesNotGetItsBareNameIsRefused)
{
    const std::string other = patched(engine, "libSoftModuleaven.so", "libSoftModulexxxx.so");
    setenv("CORVANE_HOST_LINKS", path("links").c_str(), 1);
    const Ended ended = run({"-q", "--engine", other, "call", "QZaVen_GetVersion"});
    unsetenv("CORVANE_HOST_LINKS");
    EXPECT_EQ(LOADING, ended.code);
    EXPECT_EQ("", ended.out);
    EXPECT_EQ("corvane-host: " + other +
                  " does not answer to the name libSoftModuleaven.so, by which the plug-in opens "
                  "it\n",
              ended.err);
}

TEST_F(HostLoading, FolderForLinksThatCannotBeMadeIsAnError)
{
    const std::string other = patched(engine, "libSoftModuleaven.so", "libSoftModulexxxx.so");
    setenv("TMPDIR", path("absent").c_str(), 1);
    const Ended ended = run({"--engine", other, "call", "QZaVen_GetVersion"});
    unsetenv("TMPDIR");
    EXPECT_EQ(LOADING, ended.code);
    EXPECT_TRUE(holds(ended.err, "folder for links")) << ended.err;
}

}  // namespace
