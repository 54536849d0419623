// corvane-host doctor: what it tells of libraries that work, and of those that do not.
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/utsname.h>
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

// "NAME: DETAIL", and "; HINT" if there is one, of each check that is as told.
Arguments told(const Json& report, const std::string& status)
{
    Arguments all;
    for (const Json& row : report["checks"]) {
        const std::string hint = row["hint"];
        if (row["status"] == status)
            all.push_back(row["name"].get<std::string>() + ": " + row["detail"].get<std::string>() +
                          (hint.empty() ? "" : "; " + hint));
    }
    return all;
}

// Where the log and the plug-in's messages go is this machine's matter.
Arguments withoutLogs(Arguments rows)
{
    const auto isOfLogs = [](const std::string& row) {
        return row.compare(0, 12, "engine's log") == 0 ||
               row.compare(0, 18, "plug-in's messages") == 0;
    };
    rows.erase(std::remove_if(rows.begin(), rows.end(), isOfLogs), rows.end());
    return rows;
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

TEST_F(HostDoctor, TellsWhatItFound)
{
    const std::string machine = readWhole(engine)[18] == '\xB7' ? "64-bit ARM" : "x86-64";
    const auto fileRows = [&](const std::string& what, const std::string& file) {
        return Arguments{what + " file: " + file + ", as given; " + machine + ", " +
                             std::to_string(fs::file_size(file)) + " bytes",
                         what + " permissions: readable, and not writable for everybody",
                         what + " SONAME: " + fs::path(file).filename().string()};
    };
    const Arguments requests = {
        "QZaVen_strerror: -20001 is \"plug-in: required parameter is missing or empty\"",
        "QZaven_crypto_base64_encode: the answer of RFC 4648",
        "QZaven_crypto_base64_Decode: the answer of RFC 4648",
        "QZaven_ke_new: a session",
        "QZaven_ke_free: freed",
        "QZaven_ke_set_public_key: takes an SM2 key, PKCS#8",
        "QZaven_ke_set_certificate: takes an X.509 certificate",
        "QZaven_ke_set_root_certificate: takes a file with a root certificate, PEM",
        "QZaven_ke_client_hello: 32 bytes, others in each session",
        "QZaven_ke_client_key_exchange: refuses a server without a valid signature: -30090, "
        "server's certificate is for another use",
        "QZaven_ke_encrypt: refuses a session without keys: -30081, key-exchange session has not "
        "come this far",
        "QZaven_ke_decrypt: refuses a session without keys: -30081, key-exchange session has not "
        "come this far",
        "QZaven_ke_hmac: refuses a session without keys: -30081, key-exchange session has not "
        "come this far",
        "QZaven_ke_cmac: refuses a session without keys: -30081, key-exchange session has not "
        "come this far",
        "QZaven_crypto_public_encrypt: SM2: decrypts to what was encrypted",
        "QZaven_crypto_private_decrypt: the answer of openssl, SM2",
        "QZaven_crypto_encrypt: the answer of RFC 8998, SM4-GCM",
        "QZaven_crypto_decrypt: the answer of RFC 8998, SM4-GCM",
        "QZaven_crypto_gen_symmkey: 16 bytes, others each time",
        "QZaven_crypto_hmac: the answer of RFC 4231, HMAC-SHA-256",
        "QZaven_crypto_cmac: the answer of RFC 4493, AES-128-CMAC",
        "QZaven_crypto_kdf: the answer of ANSI X9.63 with SHA-256",
        "QZaven_crypto_envelope_encrypt: RSA: opens to what was sealed",
        "QZaven_crypto_envelope_decrypt: the answer of openssl, CMS",
        "QZaven_wbsm4_encrypt: the answer of openssl, SM4-CBC",
        "QZaven_wbsm4_decrypt: the answer of openssl, SM4-CBC",
        "plug-in ends: engine cleaned up, libraries closed"};

    Arguments expected;
    const auto add = [&](const Arguments& rows) {
        expected.insert(expected.end(), rows.begin(), rows.end());
    };
    add(fileRows("parameter module", params));
    add(fileRows("engine", engine));
    add(fileRows("plug-in", plugin));
    add({"parameter module loads: from " + params, "parameter module functions: all 12",
         "engine loads: from " + engine, "engine functions: all 34",
         "plug-in loads: from " + plugin, "plug-in functions: all 3",
         "log level: 4 (info) at the start: two messages for each request; log_set_level(3) ends "
         "them",
         "plug-in starts: module bound, engine initialised",
         "QZaVen_GetVersion: " + call({"QZaVen_GetVersion", "--raw", "Data"}).out});
    add(requests);

    Arguments found = withoutLogs(told(report(), "ok"));
    ASSERT_GE(found.size(), 2U);
    EXPECT_EQ(expected, Arguments(found.begin() + 2, found.end()));
    utsname system = {};
    EXPECT_EQ(0, uname(&system));
    const std::string version = run({"version"}).out;
    EXPECT_TRUE(emulated || found[0] == "host: " + version.substr(0, version.size() - 1) + ", " +
                                            system.sysname + " " + system.release + " " +
                                            system.machine + ", user " + std::to_string(geteuid()))
        << found[0];
}

TEST_F(HostDoctor, TellsWhetherSyslogTakesMessages)
{
    const Json found = check(report(), "plug-in's messages");
    const std::string detail = found["detail"];
    const std::string untaken = "they go to syslog, but nobody takes them: /dev/log: ";
    if (found["status"] == "ok") {
        EXPECT_EQ("syslog takes them at /dev/log, facilities local0 to local5", detail);
    } else {
        EXPECT_EQ("note", found["status"]);
        EXPECT_EQ(untaken, detail.substr(0, untaken.size()));
        EXPECT_NE("", found["hint"]);
    }
}

TEST_F(HostDoctor, WhatLibrariesPrintIsNotShown)
{
    EXPECT_EQ("", doctor().err);
}

TEST_F(HostDoctor, TextIsInColumnsThatColoursDoNotShift)
{
    setenv(FAULTS, "aven_crypto_hmac:*=-4711;aven_ke_encrypt:*=empty", 1);
    const std::string plain = doctor().out;
    const std::string hmac =
        "  QZaven_crypto_hmac                refused with -4711: unknown error code:\n"
        "                                        neither the development engine's nor the\n"
        "                                        plug-in's\n"
        "      -> corvane-host explain -4711; this engine may give its numbers another\n"
        "         meaning\n";
    const std::string encrypt =
        "  QZaven_ke_encrypt                 neither result nor error code for a\n"
        "                                        session without keys\n"
        "      -> a host must take empty Data for a failure\n";
    const std::string ends =
        "    plug-in ends                      engine cleaned up, libraries closed\n";
    EXPECT_TRUE(holds(plain, "\nFAIL" + hmac)) << plain;
    EXPECT_TRUE(holds(plain, "\nnote" + encrypt)) << plain;
    EXPECT_TRUE(holds(plain, "\nok" + ends)) << plain;
    const Json report = this->report();
    const size_t ok = told(report, "ok").size();
    const size_t notes = told(report, "note").size();
    EXPECT_TRUE(holds(plain, ends + "\n" + std::to_string(ok + notes + 1) +
                                 " checks: " + std::to_string(ok) + " ok, " +
                                 std::to_string(notes) + " to note, 1 failed\n"))
        << plain;

    const std::string coloured = doctor({"--color", "always"}).out;
    EXPECT_TRUE(holds(coloured, "\n\033[1;31mFAIL\033[0m" + hmac)) << coloured;
    EXPECT_TRUE(holds(coloured, "\n\033[33mnote\033[0m" + encrypt)) << coloured;
    EXPECT_TRUE(holds(coloured, "\n\033[32mok\033[0m" + ends)) << coloured;
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
    EXPECT_TRUE(std::regex_search(ended.out, std::regex("absent\\s+:\\s+No\\s+such\\s+file")))
        << ended.out;
    EXPECT_TRUE(std::none_of(ended.out.begin(), ended.out.end(), [](char c) {
        return c >= 0 && c < 0x20 && c != '\n';
    })) << ended.out;
}

TEST_F(HostDoctor, FindsTheUsualPlacesItself)
{
    const Ended ended = run({"doctor", "--json"});
    EXPECT_EQ(SUCCESS, ended.code) << ended.out;
    for (const char* library : {"engine file", "parameter module file", "plug-in file"})
        EXPECT_TRUE(holds(check(ended.json(), library)["detail"], ", the usual place; "))
            << library;
}

TEST_F(HostDoctor, TellsWhereItHasLookedForALibraryThatIsNowhere)
{
    if (emulated)
        GTEST_SKIP() << "NOT TESTED: the emulator starts the program where it was built";
    const std::string alone = path("corvane-host");
    fs::copy_file(hostProgram, alone);
    const Json report = run({"doctor", "--json"}, "", alone).json();
    const std::string path = check(report, "search path")["detail"];
    const std::string folders = path.substr(0, path.find("; LD_LIBRARY_PATH"));
    EXPECT_EQ(0U, folders.find(fs::path(alone).parent_path().string() + ", /")) << folders;
    const Json found = check(report, "engine file");
    EXPECT_EQ("note", found["status"]);
    EXPECT_EQ("libSoftModuleaven.so is neither in " + folders +
                  " nor in the loader's folders; its cache remains",
              found["detail"]);
    EXPECT_EQ("name the file with --plugin, --params or --engine", found["hint"]);
    EXPECT_EQ("absent", status(report, "engine permissions"));

    const char* const kept = getenv("LD_LIBRARY_PATH");
    const std::string before = kept == nullptr ? "" : kept;
    setenv("LD_LIBRARY_PATH", fs::path(engine).parent_path().c_str(), 1);
    EXPECT_EQ(0U, check(run({"doctor", "--json"}, "", alone).json(), "engine file")["detail"]
                      .get<std::string>()
                      .find(engine + ", found by the loader; "));
    if (kept == nullptr)
        unsetenv("LD_LIBRARY_PATH");
    else
        setenv("LD_LIBRARY_PATH", before.c_str(), 1);
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
    const Json nowhere = engineLog("2>/dev/null");
    EXPECT_EQ("note", nowhere["status"]);
    EXPECT_EQ("/dev/stderr, which is /dev/null here: the log is lost", nowhere["detail"]);
    EXPECT_EQ("start the host with standard error on a file or a pipe", nowhere["hint"]);
}

TEST_F(HostDoctor, TellsWhereTheLogGoes)
{
    const Json pipe = engineLog("2>&1 >&3 | cat >/dev/null");
    EXPECT_EQ("ok", pipe["status"]);
    EXPECT_EQ("/dev/stderr, here a pipe", pipe["detail"]);
    EXPECT_EQ("/dev/stderr, here a file", engineLog("2>'" + path("log") + "'")["detail"]);
    EXPECT_EQ("/dev/stderr, here a device", engineLog("2>/dev/zero")["detail"]);
}

TEST_F(HostDoctor, TellsOfALogThatIsATerminalOrASocket)
{
    const auto log = [&](int err) {
        const int out = open(path("out").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        EXPECT_EQ(SUCCESS, exitCode(start({"doctor", "--json"}, -1, out, err)));
        close(out);
        return check(Json::parse(readWhole(path("out"))), "engine's log");
    };
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_EQ(0, grantpt(terminal));
    ASSERT_EQ(0, unlockpt(terminal));
    const int side = open(ptsname(terminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_EQ("/dev/stderr, here a terminal", log(side)["detail"]);
    close(side);
    close(terminal);

    int sockets[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets));
    const Json socket = log(sockets[1]);
    close(sockets[0]);
    close(sockets[1]);
    EXPECT_EQ("note", socket["status"]);
    EXPECT_EQ(
        "/dev/stderr, which cannot be opened by its name here (No such device or address): an "
        "engine that does not copy the descriptor has no log",
        socket["detail"]);
    EXPECT_EQ("start the host with standard error on a file or a pipe, which it may open",
              socket["hint"]);
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
            EXPECT_EQ(Arguments{what + " file"}, failed(report)) << row.file;
            for (const char* further : {" permissions", " SONAME", " loads"})
                EXPECT_EQ("absent", status(report, what + further)) << row.file;
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
    EXPECT_EQ(Arguments{"engine loads"}, failed(report));
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
    for (const uid_t user : {uid_t{1}, uid_t{65534}}) {
        ASSERT_EQ(0, chown(copy.c_str(), user, user));
        const Json found = check(report({"--engine", copy}), "engine permissions");
        EXPECT_EQ("note", found["status"]);
        EXPECT_EQ(copy + " belongs to user " + std::to_string(user) +
                      ", who is neither root nor this one",
                  found["detail"]);
        EXPECT_EQ("whoever owns a library rules the host that loads it", found["hint"]);
    }
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

TEST_F(HostDoctor, FunctionsThatTheKeyExchangeLacksAreNoRefusals)
{
    const Json report =
        this->report({"--engine", patched(engine, "aven_ke_hmac"s + '\0', "aven_ke_xxxx"s + '\0')});
    EXPECT_EQ((Arguments{"engine function aven_ke_hmac: missing; requests that need it are refused "
                         "with -20215; take an engine that has it",
                         "QZaven_ke_hmac: refused with -20215: the engine lacks the function; take "
                         "an engine that has it"}),
              told(report, "FAIL"));
}

TEST_F(HostDoctor, PlugInWithoutALogLevelIsNoted)
{
    const Json report = this->report({"--plugin", patched(plugin, '\0' + "log_get_level"s + '\0',
                                                          '\0' + "log_get_xxxxx"s + '\0')});
    const Arguments notes = withoutLogs(told(report, "note"));
    EXPECT_EQ(Arguments{"log level: the plug-in does not export _log_level and log_get_level; take "
                        "a plug-in that does, or do without a choice of the level"},
              notes);
}

TEST_F(HostDoctor, PlugInHasAnyName)
{
    const Json found =
        check(report({"--plugin", patched(plugin, "libCorvane_plugin.so", "libForeign_plugin.so")}),
              "plug-in SONAME");
    EXPECT_EQ("ok", found["status"]);
    EXPECT_EQ("libForeign_plugin.so", found["detail"]);
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
    EXPECT_EQ(
        "libSoftModulexxxx.so; the plug-in opens it as libSoftModuleaven.so, a name that this "
        "program gives it with a link for its own time",
        found["detail"]);
    EXPECT_EQ("install it under that name in a folder that the host's loader searches",
              found["hint"]);
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

const std::string unknownCode =
    "-4711: unknown error code: neither the development engine's nor the plug-in's; corvane-host "
    "explain -4711; this engine may give its numbers another meaning";
const std::string wrongEngine = "; the development engine computes wrongly: build it again";
const std::string brokenEngine = "; the engine computes wrongly: replace it";

TEST_F(HostDoctor, AnswersThatComeBackAndThoseThatDoNotAreToldApart)
{
    setenv(FAULTS,
           "aven_crypto_private_decrypt:2=-4711;aven_crypto_pkcs7_decrypt:2=-4711;"
           "aven_wbsm4_decrypt:1=-4711;aven_crypto_decrypt:1=-4711",
           1);
    EXPECT_EQ(
        (Arguments{
            "QZaven_crypto_private_decrypt: the answer is not that of openssl, SM2" + wrongEngine,
            "QZaven_crypto_decrypt: the answer is not that of RFC 8998, SM4-GCM" + wrongEngine,
            "QZaven_crypto_envelope_decrypt: the answer is not that of openssl, CMS" + wrongEngine,
            "QZaven_wbsm4_decrypt: the answer is not that of openssl, SM4-CBC" + wrongEngine,
        }),
        told(report(), "FAIL"));

    setenv(FAULTS,
           "aven_crypto_decrypt:*=-4711;aven_crypto_private_decrypt:*=-4711;"
           "aven_crypto_pkcs7_decrypt:*=-4711;aven_wbsm4_decrypt:*=-4711",
           1);
    EXPECT_EQ((Arguments{
                  "QZaven_crypto_public_encrypt: QZaven_crypto_private_decrypt refuses with " +
                      unknownCode,
                  "QZaven_crypto_private_decrypt: refused with " + unknownCode,
                  "QZaven_crypto_decrypt: the answer is not that of RFC 8998, SM4-GCM, nor does "
                  "it come back" +
                      brokenEngine,
                  "QZaven_crypto_envelope_encrypt: does not open to what was sealed; replace the "
                  "engine",
                  "QZaven_crypto_envelope_decrypt: the answer is not that of openssl, CMS, nor "
                  "does it come back" +
                      brokenEngine,
                  "QZaven_wbsm4_decrypt: the answer is not that of openssl, SM4-CBC, nor does it "
                  "come back" +
                      brokenEngine,
              }),
              told(report(), "FAIL"));
}

TEST_F(HostDoctor, EmptyTextsAreNoted)
{
    setenv(FAULTS, "aven_ke_encrypt:*=empty;aven_version:*=empty;aven_strerror:*=empty", 1);
    EXPECT_EQ((Arguments{"QZaVen_GetVersion: the engine has no version text",
                         "QZaVen_strerror: the engine has no text for -20001; corvane-host explain "
                         "has one for the plug-in's codes",
                         "QZaven_ke_encrypt: neither result nor error code for a session without "
                         "keys; a host must take empty Data for a failure"}),
              withoutLogs(told(report(), "note")));
}

// For each session of the checks in their order: hello takes two of them.
TEST_F(HostDoctor, RootsThatAreRefusedFailTheChecksThatNeedThem)
{
    const auto failing = [&](const std::string& calls) {
        setenv(FAULTS, ("aven_ke_set_root_certificate:" + calls + "=-4711").c_str(), 1);
        return told(report(), "FAIL");
    };
    const std::string other = "QZaven_ke_set_root_certificate refuses with " + unknownCode;
    EXPECT_EQ(
        (Arguments{"QZaven_ke_set_root_certificate: refused with " + unknownCode,
                   "QZaven_ke_client_hello: " + other, "QZaven_ke_client_key_exchange: " + other}),
        failing("*"));
    EXPECT_EQ(Arguments{"QZaven_ke_client_hello: " + other}, failing("3"));
    EXPECT_EQ(Arguments{"QZaven_ke_client_key_exchange: " + other}, failing("4"));
}

// Each of its sessions once: what ends is the check with the third in each process.
TEST_F(HostDoctor, FreesItsSessions)
{
    setenv(FAULTS, "aven_ke_free:3=crash", 1);
    EXPECT_EQ((Arguments{"QZaven_ke_set_public_key", "QZaven_ke_client_hello", "QZaven_ke_decrypt",
                         "checks left out"}),
              failed(report()));
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

    EXPECT_EQ(Arguments{"QZaven_crypto_cmac: the answer is not that of RFC 4493, AES-128-CMAC; the "
                        "development engine computes wrongly: build it again"},
              told(report, "FAIL"));

    report =
        this->report({"--engine", patched(other, "development engine 1", "production  engine 1")});
    EXPECT_EQ(SUCCESS, report["code"]) << report.dump(1);
    EXPECT_EQ(Arguments{"QZaven_crypto_cmac: not the answer of RFC 4493, AES-128-CMAC, but a "
                        "consistent one; this engine may give its numbers another meaning: see its "
                        "documentation"},
              withoutLogs(told(report, "note")));
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

// The last check starts the engine again, behind one that ended its process.
TEST_F(HostDoctor, CrashAtTheEndIsToldOf)
{
    setenv(FAULTS, "aven_wbsm4_decrypt:*=crash;aven_global_cleanup:*=crash", 1);
    EXPECT_EQ((Arguments{"QZaven_wbsm4_decrypt", "plug-in ends"}), failed(report()));
}

TEST_F(HostDoctor, LibraryThatEndsItsProcessIsToldOfWithItsLastMessage)
{
    if (emulated || sanitized)
        GTEST_SKIP() << "NOT TESTED: the library is the machine's own, without the sanitizer";
    const std::string source = file("ends.c", R"(
        #include <stdlib.h>
        #include <string.h>
        #include <unistd.h>
        __attribute__((constructor)) static void end(void)
        {
            const char* words = getenv("LAST_WORDS");
            _exit(write(1, words, strlen(words)) < 0 ? 4 : 3);
        })");
    const std::string library = path("ends.so");
    EXPECT_EQ(0, shell("gcc -shared -fPIC -Wl,-soname,libCorvaneParamsModule.so '" + source +
                       "' -o '" + library + "'")
                     .status);
    const auto end = [&](const std::string& words) {
        setenv("LAST_WORDS", words.c_str(), 1);
        const Json report = this->report({"--params", library});
        unsetenv("LAST_WORDS");
        EXPECT_EQ(LOADING, report["code"]);
        EXPECT_EQ("ok", status(report, "engine loads"));
        return told(report, "FAIL");
    };
    const auto expected = [](const std::string& words) {
        return Arguments{"parameter module loads: ended its process with exit code 3" + words +
                         "; a host that must outlive this library loads it in a process of its "
                         "own, as corvane-host serve does"};
    };
    EXPECT_EQ(expected(""), end(""));
    EXPECT_EQ(expected("; last message: x"), end("x"));
    EXPECT_EQ(expected("; last message: two words"), end("one\ntwo words \r\n\n"));
    std::string many;
    while (many.size() < 3000)
        many += std::to_string(many.size()) + ",";
    EXPECT_EQ(expected("; last message: " + many.substr(many.size() - 1024)), end(many));
}

// Whatever is allowed here.
TEST_F(HostDoctor, ItsProcessesLeaveNoCoreDump)
{
    rlimit before = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_CORE, &before));
    if (before.rlim_max == 0)
        GTEST_SKIP() << "NOT TESTED: no process may leave one here";
    const rlimit all = {before.rlim_max, before.rlim_max};
    EXPECT_EQ(0, setrlimit(RLIMIT_CORE, &all));
    setenv(FAULTS, "aven_crypto_cmac:*=hang", 1);
    const int output = open(path("output").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const pid_t pid = start({"doctor", "--seconds", "600"}, -1, output, output);
    close(output);
    EXPECT_EQ(0, setrlimit(RLIMIT_CORE, &before));
    const std::string number = std::to_string(pid);
    bool isLimited = false;
    for (int i = 0; i < 10000 && !isLimited; ++i) {
        const std::string child = readWhole("/proc/" + number + "/task/" + number + "/children");
        isLimited = holds(readWhole("/proc/" + child.substr(0, child.find(' ')) + "/limits"),
                          "Max core file size        0                    0 ");
        usleep(1000);
    }
    EXPECT_TRUE(isLimited);
    kill(pid, SIGKILL);
    EXPECT_EQ(-1, exitCode(pid));
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
    EXPECT_EQ("22, from QZaven_ke_set_public_key on: too many processes were lost",
              check(report, "checks left out")["detail"]);
}

// With these it would run out of descriptors otherwise.
TEST_F(HostDoctor, ClosesWhatItOpensForItsProcesses)
{
    if (emulated || sanitized)
        GTEST_SKIP() << "NOT TESTED: what runs the program has descriptors of its own";
    setenv(FAULTS, "aven_crypto_base64_encode:*=crash;aven_ke_new:*=crash", 1);
    const ShellOutcome ended =
        shell("ulimit -n 16; '" + hostProgram + "' doctor --json 2>/dev/null </dev/null");
    ASSERT_TRUE(Json::accept(ended.output)) << ended.output;
    EXPECT_EQ(4U, failed(Json::parse(ended.output)).size()) << ended.output;
}

}  // namespace
