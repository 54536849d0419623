// corvane-host doctor: what it tells of libraries that work, and of those that do not.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>

#include "engine_interface.h"
#include "params_interface.h"
#include "support/held.h"
#include "support/host_program.h"
#include "support/shell.h"

namespace {

using namespace std::string_literals;
using namespace support;

constexpr const char* FAULTS = "CORVANE_ENGINE_FAULTS";

class HostDoctor : public Host {
protected:
    ~HostDoctor() override { unsetenv(FAULTS); }

    Ended doctor(Arguments more = {}) const
    {
        more.insert(more.begin(), "doctor");
        const auto add = [&](const std::string& option, const std::string& library) {
            if (std::find(more.begin(), more.end(), option) == more.end())
                more.insert(more.end(), {option, library});
        };
        add("--plugin", plugin);
        add("--params", params);
        add("--engine", engine);
        return run(more);
    }

    Json report(Arguments more = {}) const
    {
        more.emplace_back("--json");
        const Ended ended = doctor(more);
        EXPECT_TRUE(Json::accept(ended.out)) << ended.out << ended.err;
        Json json = Json::parse(ended.out, nullptr, false);
        json["code"] = ended.code;
        return json;
    }
};

// The check of that name; null if there is none.
Json check(const Json& report, const std::string& name)
{
    for (const Json& row : report["checks"])
        if (row["name"] == name)
            return row;
    return nullptr;
}

std::string status(const Json& report, const std::string& name)
{
    const Json row = check(report, name);
    return row.is_null() ? "absent" : row["status"].get<std::string>();
}

Arguments failed(const Json& report)
{
    Arguments names;
    for (const Json& row : report["checks"])
        if (row["status"] == "FAIL")
            names.push_back(row["name"]);
    return names;
}

// ---- Libraries that work.

TEST_F(HostDoctor, TellsOfEachRequestThatItWorks)
{
    const Json report = this->report();
    EXPECT_EQ(SUCCESS, report["code"]) << report.dump(1);
    EXPECT_EQ(true, report["ok"]);
    EXPECT_EQ(Arguments{}, failed(report));
    for (const Json& request : run({"list", "--json"}).json())
        EXPECT_EQ("ok", status(report, request["name"])) << request["name"];
    for (const char* library : {"plug-in", "parameter module", "engine"})
        for (const char* what : {" file", " permissions", " SONAME", " loads", " functions"})
            EXPECT_EQ("ok", status(report, library + std::string(what))) << library << what;
    for (const char* name : {"search path", "log level", "plug-in starts", "plug-in ends"})
        EXPECT_EQ("ok", status(report, name)) << name;
    EXPECT_NE("absent", status(report, "plug-in's messages"));
    EXPECT_NE("absent", status(report, "engine's log"));
    EXPECT_TRUE(holds(check(report, "QZaVen_GetVersion")["detail"], "development engine"));
}

TEST_F(HostDoctor, TextHasALineForEachCheckAndASummary)
{
    const Ended ended = doctor();
    EXPECT_EQ(SUCCESS, ended.code) << ended.out;
    std::istringstream lines(ended.out);
    size_t checks = 0;
    std::string last;
    const std::regex row("(ok    |note  |FAIL  )\\S.*");
    for (std::string line; std::getline(lines, line); last = line)
        checks += std::regex_match(line, row) ? 1 : 0;
    EXPECT_EQ(report()["checks"].size(), checks);
    EXPECT_TRUE(holds(last, std::to_string(checks) + " checks: ")) << last;
    EXPECT_TRUE(holds(last, ", 0 failed")) << last;
}

TEST_F(HostDoctor, TextHasNoOtherControlCharacters)
{
    std::string name = "absent";
    for (char c = 1; c < 0x20; ++c)
        name += c;
    const Ended ended = doctor({"--engine", path(name)});
    EXPECT_TRUE(holds(ended.out, "absent")) << ended.out;
    EXPECT_TRUE(std::none_of(ended.out.begin(), ended.out.end(), [](char c) {
        return c >= 0 && c < 0x20 && c != '\n';
    })) << ended.out;
}

TEST_F(HostDoctor, FindsTheUsualPlacesItself)
{
    const Ended ended = run({"doctor", "--json"});
    EXPECT_EQ(SUCCESS, ended.code) << ended.out;
    EXPECT_TRUE(holds(check(ended.json(), "engine file")["detail"], "usual place"));
}

TEST_F(HostDoctor, TellsWhereItHasLookedForALibraryThatIsNowhere)
{
    if (emulated)
        GTEST_SKIP() << "NOT TESTED: the emulator starts the program where it was built";
    const std::string alone = path("corvane-host");
    fs::copy_file(hostProgram, alone);
    const Json found = check(run({"doctor", "--json"}, "", alone).json(), "engine file");
    EXPECT_EQ("note", found["status"]);
    EXPECT_TRUE(holds(found["detail"], "libSoftModuleaven.so is neither in " +
                                           fs::path(alone).parent_path().string()))
        << found;
    EXPECT_EQ("name the file with --plugin, --params or --engine", found["hint"]);
}

// Descriptor 3 is what standard output is elsewhere.
Json engineLog(const std::string& redirections)
{
    const ShellOutcome ended =
        shell("exec 3>&1; '" + hostProgram + "' doctor --json " + redirections);
    return check(Json::parse(ended.output), "engine's log");
}

TEST_F(HostDoctor, TellsThatNobodyTakesTheLog)
{
    const Json closed = engineLog("2>&-");
    EXPECT_EQ("note", closed["status"]);
    EXPECT_EQ("/dev/stderr, but standard error is closed: the log is lost", closed["detail"]);
    EXPECT_EQ("start the host with standard error on a file or a pipe", closed["hint"]);
    EXPECT_EQ("/dev/stderr, which is /dev/null here: the log is lost",
              engineLog("2>/dev/null")["detail"]);
}

TEST_F(HostDoctor, TellsWhereTheLogGoes)
{
    const Json pipe = engineLog("2>&1 >&3 | cat >/dev/null");
    EXPECT_EQ("ok", pipe["status"]);
    EXPECT_EQ("/dev/stderr, here a pipe", pipe["detail"]);
    EXPECT_EQ("/dev/stderr, here a file", engineLog("2>'" + path("log") + "'")["detail"]);
    EXPECT_EQ("/dev/stderr, here a device", engineLog("2>/dev/zero")["detail"]);
}

TEST_F(HostDoctor, TellsWhereTheLoaderLooks)
{
    const char* const kept = getenv("LD_LIBRARY_PATH");
    const std::string before = kept == nullptr ? "" : kept;
    const auto detail = [&] { return check(report(), "search path")["detail"].get<std::string>(); };
    unsetenv("LD_LIBRARY_PATH");
    EXPECT_TRUE(holds(detail(), "; LD_LIBRARY_PATH is not set; the loader's folders: /"))
        << detail();
    setenv("LD_LIBRARY_PATH", path("a").c_str(), 1);
    const std::string set = detail();
    EXPECT_TRUE(holds(set, "; LD_LIBRARY_PATH is " + path("a") + "; ")) << set;
    EXPECT_TRUE(emulated || holds(set, "the loader's folders: " + path("a") + ", /")) << set;
    if (kept == nullptr)
        unsetenv("LD_LIBRARY_PATH");
    else
        setenv("LD_LIBRARY_PATH", before.c_str(), 1);
}

TEST_F(HostDoctor, WrongCommandLinesAreRefused)
{
    EXPECT_EQ(USAGE, run({"doctor", "--seconds", "0"}).code);
    EXPECT_EQ(USAGE, run({"doctor", "--seconds", "x"}).code);
    EXPECT_EQ(USAGE, run({"doctor", "more"}).code);
}

// ---- Files that cannot be loaded.

TEST_F(HostDoctor, FilesThatCannotBeLoadedAreToldApartWithoutLoading)
{
    const std::string whole = readWhole(engine);
    std::string bits32 = whole;
    bits32[4] = 1;
    std::string foreign = whole;
    const bool isArm = foreign[18] == '\xB7';
    foreign[18] = isArm ? '\x3E' : '\xB7';
    std::string object = whole;
    object[16] = 1;
    struct Row {
        std::string file;
        std::string words;
    };
    const Row rows[] = {
        {path("absent.so"), "No such file"},
        {path(""), "is a folder"},
        {file("empty.so", ""), "is empty"},
        {file("text.so", "not a library"), "is no library"},
        {file("ident.so", whole.substr(0, 30)), "is cut"},
        {file("half.so", whole.substr(0, whole.size() / 2)), "is cut"},
        {file("cut.so", whole.substr(0, whole.size() - 1)), "is cut"},
        {file("32.so", bits32), "is a 32-bit library"},
        {file("foreign.so", foreign), isArm ? "is for x86-64" : "is for 64-bit ARM"},
        {file("object.so", object), "no shared library"},
    };
    for (const auto& [option, what] : {std::pair("--engine", "engine"s),
                                       {"--params", "parameter module"},
                                       {"--plugin", "plug-in"}})
        for (const Row& row : rows) {
            const Json report = this->report({option, row.file});
            EXPECT_EQ(LOADING, report["code"]) << row.file;
            EXPECT_EQ(false, report["ok"]);
            const Json found = check(report, what + " file");
            EXPECT_EQ("FAIL", found["status"]) << row.file;
            EXPECT_TRUE(holds(found["detail"], row.words)) << found;
            EXPECT_NE("", found["hint"]);
            EXPECT_EQ("absent", status(report, what + " loads"));
            EXPECT_EQ("note", status(report, "requests"));
        }
}

TEST_F(HostDoctor, FilesDamagedInsideEndNothing)
{
    const std::string whole = readWhole(params);
    // The program headers, each 56 bytes behind the header's 64.
    for (size_t at = 24; at < 64 + size_t{8} * 56; at += 24) {
        std::string bytes = whole;
        bytes.replace(at, 8, "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x7F");
        const Json report = this->report({"--params", file("damaged.so", bytes)});
        EXPECT_TRUE(report["code"] == LOADING || report["code"] == SUCCESS) << at << report.dump(1);
        EXPECT_EQ("ok", status(report, "engine loads")) << at;
    }
}

TEST_F(HostDoctor, LibraryThatLacksAnotherOneIsToldOf)
{
    const Json report =
        this->report({"--engine", patched(engine, "libcrypto.so.3", "libcryptx.so.3")});
    EXPECT_EQ(LOADING, report["code"]);
    EXPECT_EQ("ok", status(report, "engine file"));
    EXPECT_EQ("FAIL", status(report, "engine loads"));
    EXPECT_TRUE(holds(check(report, "engine loads")["detail"], "libcryptx.so.3"));
}

TEST_F(HostDoctor, WhoMayWriteIsLookedAt)
{
    const std::string copy = file("copy.so", readWhole(engine));
    const auto permissions = [&](mode_t file, mode_t folder) {
        EXPECT_EQ(0, chmod(copy.c_str(), file));
        EXPECT_EQ(0, chmod(path("").c_str(), folder));
        const Json report = this->report({"--engine", copy});
        const bool isOk = status(report, "engine permissions") != "FAIL";
        EXPECT_EQ(isOk ? SUCCESS : REFUSED, report["code"]);
        EXPECT_EQ(isOk ? Arguments{} : Arguments{"engine permissions"}, failed(report));
        return check(report, "engine permissions");
    };
    const std::string folder = fs::path(copy).parent_path();
    Json found = permissions(0666, 0700);
    EXPECT_EQ("everybody may write to " + copy, found["detail"]);
    EXPECT_EQ("chmod o-w " + copy, found["hint"]);
    found = permissions(0644, 0777);
    EXPECT_EQ("everybody may replace files in " + folder, found["detail"]);
    EXPECT_EQ("chmod o-w " + folder, found["hint"]);
    found = permissions(0664, 01777);
    EXPECT_EQ("ok", found["status"]);
    EXPECT_EQ("readable, and not writable for everybody", found["detail"]);
    EXPECT_EQ("", found["hint"]);
}

TEST_F(HostDoctor, WhoOwnsALibraryIsLookedAt)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "NOT TESTED: only root can give files away";
    const std::string copy = file("copy.so", readWhole(engine));
    ASSERT_EQ(0, chown(copy.c_str(), 65534, 65534));
    const Json found = check(report({"--engine", copy}), "engine permissions");
    EXPECT_EQ("note", found["status"]);
    EXPECT_EQ(copy + " belongs to user 65534, who is neither root nor this one", found["detail"]);
}

// ---- Functions and names.

TEST_F(HostDoctor, MissingFunctionsAreNamed)
{
    // Only where the exported names stand alone does this rename the function.
    const Json report = this->report(
        {"--engine", patched(engine, "aven_crypto_cmac"s + '\0', "aven_crypto_xxxx"s + '\0')});
    EXPECT_EQ(REFUSED, report["code"]);
    EXPECT_EQ((Arguments{"engine function aven_crypto_cmac", "QZaven_crypto_cmac"}),
              failed(report));
    EXPECT_EQ("absent", status(report, "engine functions"));
}

TEST_F(HostDoctor, ModuleWithoutAFunctionCannotBeUsed)
{
    const Json report = this->report(
        {"--params", patched(params, "SetRetCustomParam"s + '\0', "SetRetCustomXxxxx"s + '\0')});
    EXPECT_EQ(LOADING, report["code"]);
    EXPECT_EQ("FAIL", status(report, "parameter module function SetRetCustomParam"));
    EXPECT_EQ("note", status(report, "requests"));
}

TEST_F(HostDoctor, LibrariesInEachOthersPlaceLackAllFunctions)
{
    const auto missing = [](const Json& report, const std::string& what) {
        const std::string prefix = what + " function ";
        const Arguments names = failed(report);
        return std::count_if(names.begin(), names.end(), [&](const std::string& name) {
            return name.compare(0, prefix.size(), prefix) == 0;
        });
    };
    if (emulated)
        GTEST_SKIP() << "NOT TESTED: the host starts itself again, past the emulator";
    EXPECT_EQ(34, missing(report({"--engine", plugin}), "engine"));
    EXPECT_EQ(12, missing(report({"--params", engine}), "parameter module"));
    const Json report = this->report({"--plugin", params});
    EXPECT_EQ(3, missing(report, "plug-in"));
    EXPECT_EQ(LOADING, report["code"]);
}

TEST_F(HostDoctor, OtherSonameIsNotedAndTheRestTested)
{
    if (emulated)
        GTEST_SKIP() << "NOT TESTED: the host starts itself again, past the emulator";
    const Json report =
        this->report({"--engine", patched(engine, "libSoftModuleaven.so", "libSoftModulexxxx.so")});
    EXPECT_EQ(SUCCESS, report["code"]) << report.dump(1);
    const Json found = check(report, "engine SONAME");
    EXPECT_EQ("note", found["status"]);
    EXPECT_TRUE(holds(found["detail"], "libSoftModulexxxx.so")) << found;
    EXPECT_EQ("ok", status(report, "QZaven_crypto_hmac"));
}

// ---- Engines that fail.

TEST_F(HostDoctor, EngineThatDoesNotStartIsToldOf)
{
    setenv(FAULTS, "aven_global_init:*=-4711", 1);
    const Json report = this->report();
    EXPECT_EQ(LOADING, report["code"]);
    EXPECT_EQ(Arguments{"plug-in starts"}, failed(report));
    EXPECT_EQ("note", status(report, "requests"));
}

TEST_F(HostDoctor, RefusedRequestsAreFailures)
{
    setenv(FAULTS, "aven_crypto_hmac:*=-4711;aven_crypto_kdf:*=empty", 1);
    const Json report = this->report();
    EXPECT_EQ(REFUSED, report["code"]);
    EXPECT_EQ((Arguments{"QZaven_crypto_hmac", "QZaven_crypto_kdf"}), failed(report));
    EXPECT_TRUE(holds(check(report, "QZaven_crypto_hmac")["detail"], "-4711"));
}

// Each function of the engine that serves requests: the requests that are told to fail are
// those that need it.
TEST_F(HostDoctor, EachFunctionOfTheEngineIsTried)
{
    if (emulated || sanitized)
        GTEST_SKIP() << "starts the host dozens of times, each a second here";
    const std::set<std::string> notForRequests = {"aven_global_init", "aven_global_cleanup",
                                                  "aven_global_set_logger", "aven_keypair_free",
                                                  "aven_certificate_free"};
    // Refused by an engine that is right, too.
    const std::set<std::string> refusedAnyway = {"aven_ke_client_key_exchange", "aven_ke_encrypt",
                                                 "aven_ke_decrypt", "aven_ke_hmac", "aven_ke_cmac"};
    const auto tried = [&](const std::string& function, bool returnsCode) {
        if (notForRequests.count(function) != 0)
            return;
        const bool anyway = refusedAnyway.count(function) != 0;
        setenv(FAULTS, (function + ":*=" + (returnsCode && !anyway ? "-4711" : "empty")).c_str(),
               1);
        const Json report = this->report();
        size_t notOk = 0;
        for (const Json& row : report["checks"])
            notOk +=
                row["status"] != "ok" && row["name"].get<std::string>().find("QZ") == 0 ? 1 : 0;
        EXPECT_GE(notOk, 1U) << function;
        EXPECT_EQ("ok", status(report, "plug-in ends")) << function;
    };
#define ROW(result, name, parameters) tried(#name, std::is_same_v<result, int>);
    AVEN_ENGINE_FUNCTIONS(ROW)
#undef ROW
}

// Another cipher under a number: consistent, so that it is for the reader to judge, unless
// it is the engine whose numbers are known.
TEST_F(HostDoctor, OtherAnswersAreNotedIfTheEngineIsUnknown)
{
    const std::string other = patched(engine, "AES-128"s + '\0', "SM4"s + std::string(5, '\0'));
    Json report = this->report({"--engine", other});
    EXPECT_EQ(REFUSED, report["code"]);
    EXPECT_EQ(Arguments{"QZaven_crypto_cmac"}, failed(report));

    report =
        this->report({"--engine", patched(other, "development engine 1", "production  engine 1")});
    EXPECT_EQ(SUCCESS, report["code"]) << report.dump(1);
    EXPECT_EQ("note", status(report, "QZaven_crypto_cmac"));
    EXPECT_EQ(true, report["ok"]);
}

// ---- Engines that crash or hang.

TEST_F(HostDoctor, CrashCostsOneCheck)
{
    setenv(FAULTS, "aven_crypto_hmac:*=crash", 1);
    const Json report = this->report();
    EXPECT_EQ(REFUSED, report["code"]);
    EXPECT_EQ(Arguments{"QZaven_crypto_hmac"}, failed(report));
    const std::string detail = check(report, "QZaven_crypto_hmac")["detail"];
    EXPECT_TRUE(holds(detail, "signal 6")) << detail;
    // An emulator has the last word.
    EXPECT_TRUE(emulated || holds(detail, "aven_crypto_hmac crashes")) << detail;
    EXPECT_EQ("ok", status(report, "QZaven_wbsm4_decrypt"));
    EXPECT_EQ("ok", status(report, "plug-in ends"));
}

TEST_F(HostDoctor, CrashAtTheStartIsToldOf)
{
    setenv(FAULTS, "aven_global_init:*=crash", 1);
    const Json report = this->report();
    EXPECT_EQ(Arguments{"plug-in starts"}, failed(report));
    EXPECT_EQ("note", status(report, "requests"));
    EXPECT_EQ(LOADING, report["code"]);
}

TEST_F(HostDoctor, HangCostsOneCheck)
{
    setenv(FAULTS, "aven_crypto_cmac:*=hang", 1);
    const Json report = this->report({"--seconds", "2"});
    EXPECT_EQ(Arguments{"QZaven_crypto_cmac"}, failed(report));
    const std::string detail = check(report, "QZaven_crypto_cmac")["detail"];
    EXPECT_TRUE(holds(detail, "did not return within 2 s")) << detail;
    EXPECT_EQ("ok", status(report, "QZaven_wbsm4_decrypt"));
}

// Its standard input is read by nobody then.
TEST_F(HostDoctor, WhatHangsEndsWithIt)
{
    setenv(FAULTS, "aven_crypto_cmac:*=hang", 1);
    int input[2];
    ASSERT_EQ(0, pipe2(input, O_CLOEXEC));
    const int output = open(path("output").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const pid_t pid = start({"doctor", "--seconds", "600"}, input[0], output, output);
    close(input[0]);
    close(output);
    const std::string number = std::to_string(pid);
    while (readWhole("/proc/" + number + "/task/" + number + "/children").empty())
        usleep(1000);
    usleep(200000);  // for its first steps
    EXPECT_EQ(0, kill(pid, SIGKILL));
    exitCode(pid);
    pollfd writing = {input[1], 0, 0};
    EXPECT_EQ(1, poll(&writing, 1, 60000));
    close(input[1]);
}

TEST_F(HostDoctor, EngineThatAlwaysCrashesIsGivenUp)
{
    setenv(FAULTS, "aven_crypto_base64_encode:*=crash;aven_ke_new:*=crash", 1);
    const Json report = this->report();
    EXPECT_EQ((Arguments{"QZaven_crypto_base64_encode", "QZaven_ke_new", "QZaven_ke_free",
                         "checks left out"}),
              failed(report));
    EXPECT_TRUE(holds(check(report, "checks left out")["detail"], "QZaven_ke_set_public_key"));
}

}  // namespace
