// Faults on request: what the environment variable asks for, what calls do then, and what
// a client of the plug-in sees.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "support/engine_everything.h"

namespace {

using support::callAnyhow;
using support::dataOf;
using support::DevkitEngine;
using support::openssl;
using support::pattern;

constexpr const char* VARIABLE = "CORVANE_ENGINE_FAULTS";

// Set while the engine is loaded.
class Requested {
public:
    explicit Requested(const std::string& text) { setenv(VARIABLE, text.c_str(), 1); }
    ~Requested() { unsetenv(VARIABLE); }
    Requested(const Requested&) = delete;
    Requested& operator=(const Requested&) = delete;
};

size_t count(const std::string& text, const std::string& piece)
{
    size_t n = 0;
    for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1))
        ++n;
    return n;
}

int encrypt(const DevkitEngine& engine, uint32_t& length)
{
    const std::string key = pattern(16);
    SymmCipherParams params = {};
    params.alg = AVEN_CIPHER_SM4;
    params.mode = AVEN_MODE_ECB;
    params.padding = AVEN_PADDING_PKCS7;
    params.key = dataOf(key);
    params.key_len = 16;
    unsigned char out[32];
    length = sizeof out;
    return engine.aven_crypto_encrypt(&params, dataOf(key), 16, out, &length, 0, nullptr);
}

// ---- Which calls fail

TEST(EngineFaults, NthCallReturnsTheCode)
{
    const Requested faults("aven_crypto_encrypt:3=-12345");
    DevkitEngine engine;
    ASSERT_EQ(engine.aven_global_init(), 0);
    uint32_t length = 0;
    for (int call = 1; call <= 5; ++call) {
        EXPECT_EQ(encrypt(engine, length), call == 3 ? -12345 : 0) << call;
        EXPECT_EQ(length, call == 3 ? 0u : 32u) << call;
    }
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
}

TEST(EngineFaults, EveryCallReturnsTheCode)
{
    const Requested faults("aven_crypto_encrypt:*=7");
    DevkitEngine engine;
    ASSERT_EQ(engine.aven_global_init(), 0);
    uint32_t length = 0;
    for (int call = 1; call <= 3; ++call)
        EXPECT_EQ(encrypt(engine, length), 7);
    void* ke = nullptr;
    EXPECT_EQ(engine.aven_ke_new(&ke), 0);
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
}

TEST(EngineFaults, FirstMatchingEntryWinsAndCallsCountForAll)
{
    const Requested faults(
        "aven_crypto_encrypt:2=-1;aven_crypto_encrypt:*=-2147483648;aven_crypto_encrypt:3=-3");
    DevkitEngine engine;
    ASSERT_EQ(engine.aven_global_init(), 0);
    uint32_t length = 0;
    EXPECT_EQ(encrypt(engine, length), INT32_MIN);
    EXPECT_EQ(encrypt(engine, length), -1);
    EXPECT_EQ(encrypt(engine, length), INT32_MIN);
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
}

// Calls are counted from loading, also while the engine is stopped; a new load counts anew.
TEST(EngineFaults, CountingBeginsWithLoading)
{
    const Requested faults("aven_crypto_encrypt:2=-1");
    for (int load = 0; load < 2; ++load) {
        DevkitEngine engine;
        uint32_t length = 0;
        EXPECT_EQ(encrypt(engine, length), AVEN_E_NOT_INITIALISED);
        ASSERT_EQ(engine.aven_global_init(), 0);
        EXPECT_EQ(encrypt(engine, length), -1);
        EXPECT_EQ(engine.aven_global_cleanup(), 0);
        ASSERT_EQ(engine.aven_global_init(), 0);
        EXPECT_EQ(encrypt(engine, length), 0);
        EXPECT_EQ(engine.aven_global_cleanup(), 0);
    }
}

TEST(EngineFaults, GlobalFunctionsFailToo)
{
    const Requested faults(
        "aven_global_init:1=-5;aven_global_set_logger:1=-6;aven_global_cleanup:1=-7");
    DevkitEngine engine;
    EXPECT_EQ(engine.aven_global_init(), -5);
    EXPECT_EQ(engine.aven_global_set_logger("/dev/null"), -6);
    uint32_t length = 0;
    EXPECT_EQ(encrypt(engine, length), AVEN_E_NOT_INITIALISED);
    EXPECT_EQ(engine.aven_global_init(), 0);
    EXPECT_EQ(engine.aven_global_cleanup(), -7);
    EXPECT_EQ(encrypt(engine, length), 0);
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
}

TEST(EngineFaults, NothingFailsWithoutTheVariableOrWithAnEmptyOne)
{
    for (bool isSet : {false, true}) {
        if (isSet)
            setenv(VARIABLE, "", 1);
        DevkitEngine engine;
        EXPECT_EQ(engine.aven_global_init(), 0);
        uint32_t length = 0;
        EXPECT_EQ(encrypt(engine, length), 0);
        EXPECT_EQ(engine.aven_global_cleanup(), 0);
        unsetenv(VARIABLE);
    }
}

// ---- What a call brings that a fault strikes

template <class Result>
void expectNothing(Result result, const char* name)
{
    if constexpr (std::is_same_v<Result, int>) {
        EXPECT_EQ(result, 0) << name;
    } else {
        EXPECT_EQ(result, nullptr) << name;
    }
}

// Not even arguments are looked at.
TEST(EngineFaults, EveryFunctionCanBringNothing)
{
    std::string text;
#define ROW(result, name, params) text += (text.empty() ? "" : ";") + std::string(#name ":*=empty");
    AVEN_ENGINE_FUNCTIONS(ROW)
#undef ROW
    const Requested faults(text);
    DevkitEngine engine;
    testing::internal::CaptureStderr();
    const auto brings = [](auto function, const char* name, bool hasLength, bool hasHandle) {
        uint32_t length = 99;
        void* handle = &length;
        expectNothing(callAnyhow(function, length, handle), name);
        EXPECT_EQ(length, hasLength ? 0u : 99u) << name;
        EXPECT_EQ(handle == nullptr, hasHandle) << name;
    };
#define ROW(result, name, params)                                        \
    brings(engine.name, #name, count(#params, "uint32_t* out_len") == 1, \
           count(#params, "void** ") == 1);
    AVEN_ENGINE_FUNCTIONS(ROW)
#undef ROW
    EXPECT_EQ(count(testing::internal::GetCapturedStderr(), "brings no result\n"), 34u);
}

TEST(EngineFaults, EveryCodeFunctionCanReturnACode)
{
    std::string text;
#define ROW(result, name, params)    \
    if (std::is_same_v<result, int>) \
        text += (text.empty() ? "" : ";") + std::string(#name ":1=-4711");
    AVEN_ENGINE_FUNCTIONS(ROW)
#undef ROW
    const Requested faults(text);
    DevkitEngine engine;
    testing::internal::CaptureStderr();
    const auto returnsCode = [](auto function, const char* name) {
        uint32_t length = 99;
        void* handle = nullptr;
        using Result = decltype(callAnyhow(function, length, handle));
        if constexpr (std::is_same_v<Result, int>) {
            EXPECT_EQ(callAnyhow(function, length, handle), -4711) << name;
            EXPECT_NE(callAnyhow(function, length, handle), -4711) << name;
        }
    };
#define ROW(result, name, params)                       \
    if (std::string(#name) != "aven_global_set_logger") \
        returnsCode(engine.name, #name);
    AVEN_ENGINE_FUNCTIONS(ROW)
#undef ROW
    EXPECT_EQ(engine.aven_global_set_logger(nullptr), -4711);
    EXPECT_EQ(engine.aven_global_set_logger(nullptr), AVEN_E_NULL_POINTER);
    EXPECT_EQ(count(testing::internal::GetCapturedStderr(), "returns -4711\n"), 32u);
}

// ---- Calls that do not return

// Calls aven_version in a process of its own, with standard error in `log`.
pid_t callVersion(const std::string& faults, const std::string& log)
{
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    const int file = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    dup2(file, STDERR_FILENO);
    const Requested requested(faults);
    DevkitEngine engine;
    engine.aven_version();
    _exit(0);
}

TEST(EngineFaults, CrashEndsTheProcess)
{
    const pid_t pid = callVersion("aven_version:1=crash", openssl().path("crash"));
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
    EXPECT_EQ(count(openssl().read("crash"), "*** FAULT ON REQUEST *** aven_version crashes"), 1u);
}

TEST(EngineFaults, HangNeverReturns)
{
    openssl().write("hang", "");
    const pid_t pid = callVersion("aven_version:1=hang", openssl().path("hang"));
    int status = 0;
    while (count(openssl().read("hang"), "*** FAULT ON REQUEST *** aven_version hangs") == 0 &&
           waitpid(pid, &status, WNOHANG) == 0)
        usleep(1000);
    usleep(20'000);  // that it would need to return
    EXPECT_EQ(waitpid(pid, &status, WNOHANG), 0);
    kill(pid, SIGKILL);
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
}

// ---- The log

TEST(EngineFaults, LogSaysThatTheyAreOnAndWhenTheyStrike)
{
    const Requested faults("aven_crypto_encrypt:1=-12345;aven_ke_new:1=empty");
    DevkitEngine engine;
    const std::string path = openssl().path("faults-log");
    ASSERT_EQ(engine.aven_global_set_logger(path.c_str()), 0);
    ASSERT_EQ(engine.aven_global_init(), 0);
    uint32_t length = 0;
    void* ke = nullptr;
    EXPECT_EQ(encrypt(engine, length), -12345);
    EXPECT_EQ(engine.aven_ke_new(&ke), 0);
    EXPECT_EQ(encrypt(engine, length), 0);
    EXPECT_EQ(engine.aven_global_cleanup(), 0);

    const std::string log = openssl().read("faults-log");
    EXPECT_EQ(count(log, "*** FAULTS ON REQUEST *** CORVANE_ENGINE_FAULTS is set"), 2u) << log;
    EXPECT_EQ(count(log, "*** FAULT ON REQUEST *** "), 2u) << log;
    EXPECT_EQ(count(log, "aven_crypto_encrypt returns -12345\n"), 1u) << log;
    EXPECT_EQ(count(log, "aven_ke_new brings no result\n"), 1u) << log;
}

TEST(EngineFaults, WithoutALogStandardErrorSaysIt)
{
    const Requested faults("aven_version:1=empty");
    DevkitEngine engine;
    testing::internal::CaptureStderr();
    EXPECT_EQ(engine.aven_version(), nullptr);
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(count(said, "*** FAULT ON REQUEST *** aven_version brings no result\n"), 1u) << said;
    EXPECT_NE(engine.aven_version(), nullptr);
}

// ---- Malformed text

TEST(EngineFaults, MalformedTextKeepsTheEngineFromStarting)
{
    std::string tooMany = "aven_ke_new:1=1";
    for (int i = 0; i < 64; ++i)
        tooMany += ";aven_ke_new:1=1";
    const struct {
        std::string text;
        int entry;
    } rows[] = {
        {"aven_crypto_encrypt", 1},
        {"aven_crypto_encrypt:1", 1},
        {"aven_crypto_encrypt:1=", 1},
        {"aven_crypto_encrypt=1", 1},
        {"aven_crypto_encrypt:=1", 1},
        {"aven_crypto_encrypt:0=1", 1},
        {"aven_crypto_encrypt:-1=1", 1},
        {"aven_crypto_encrypt:1x=1", 1},
        {"aven_crypto_encrypt:**=1", 1},
        {"aven_crypto_encrypt:4294967296=1", 1},
        {"aven_crypto_encrypt:1=0", 1},
        {"aven_crypto_encrypt:1=x", 1},
        {"aven_crypto_encrypt:1=1 ", 1},
        {"aven_crypto_encrypt:1=2147483648", 1},
        {"aven_crypto_encrypt:1=Empty", 1},
        {"aven_crypto_encrypt:1=crashes", 1},
        {"aven_crypto_encrypt:1=1=1", 1},
        {" aven_crypto_encrypt:1=1", 1},
        {"aven_crypto_encryp:1=1", 1},
        {":1=1", 1},
        {";", 1},
        {"aven_ke_new:1=1;", 2},
        {"aven_ke_new:1=1;;aven_ke_new:2=1", 2},
        {"aven_ke_new:1=1,aven_ke_new:2=1", 1},
        {"aven_version:1=-1", 1},  // a text
        {tooMany, 65},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text.substr(0, 40));
        const Requested faults(row.text);
        DevkitEngine engine;
        testing::internal::CaptureStderr();
        EXPECT_EQ(engine.aven_global_init(), AVEN_E_FAULTS);
        uint32_t length = 0;
        EXPECT_EQ(encrypt(engine, length), AVEN_E_NOT_INITIALISED);
        void* ke = nullptr;
        EXPECT_EQ(engine.aven_ke_new(&ke), AVEN_E_NOT_INITIALISED);  // none strikes
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_EQ(count(said, "malformed: entry " + std::to_string(row.entry) + " of"), 1u) << said;

        const std::string log = openssl().path("malformed-log");
        EXPECT_EQ(engine.aven_global_set_logger(log.c_str()), 0);
        EXPECT_EQ(count(openssl().read("malformed-log"), "FAULTS ON REQUEST *** malformed"), 1u);
        EXPECT_EQ(engine.aven_global_cleanup(), 0);
        unlink(log.c_str());
    }
}

TEST(EngineFaults, SixtyFourEntriesFit)
{
    std::string text = "aven_crypto_encrypt:64=-64";
    for (int i = 63; i > 0; --i)
        text += ";aven_crypto_encrypt:" + std::to_string(i) + "=" + std::to_string(-i);
    const Requested faults(text);
    DevkitEngine engine;
    ASSERT_EQ(engine.aven_global_init(), 0);
    ASSERT_EQ(engine.aven_global_set_logger("/dev/null"), 0);
    uint32_t length = 0;
    for (int i = 1; i <= 64; ++i)
        EXPECT_EQ(encrypt(engine, length), -i);
    EXPECT_EQ(encrypt(engine, length), 0);
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
}

// ---- Through host, plug-in and parameter module

struct Ended {
    int code = -1;
    nlohmann::json results;
    std::string err;
};

Ended callRequest(const std::string& faults, const std::string& arguments)
{
    const std::string host =
        "'" CORVANE_HOST_PROGRAM "' --plugin '" CORVANE_PLUGIN_LIBRARY
        "' --params '" CORVANE_PARAMS_LIBRARY "' --engine '" CORVANE_ENGINE_LIBRARY "' call " +
        arguments + " >" + openssl().path("host-out") + " 2>" + openssl().path("host-err");
    const Requested requested(faults);
    Ended ended;
    ended.code = WEXITSTATUS(system(host.c_str()));
    ended.err = openssl().read("host-err");
    ended.results = nlohmann::json::parse(openssl().read("host-out"), nullptr, false);
    return ended;
}

TEST(EngineFaultsThroughHost, CodeReachesTheClient)
{
    const Ended ended =
        callRequest("aven_crypto_gen_symmkey:1=-12345", "QZaven_crypto_gen_symmkey strCipherAlg=4");
    EXPECT_EQ(ended.code, 1);
    EXPECT_EQ(ended.results.value("errorCode", ""), "-12345") << ended.results;
    EXPECT_EQ(ended.results.value("Data", "?"), "") << ended.results;
    EXPECT_GE(count(ended.err, "*** FAULTS ON REQUEST ***"), 1u) << ended.err;
    EXPECT_EQ(count(ended.err, "*** FAULT ON REQUEST *** aven_crypto_gen_symmkey returns -12345"),
              1u)
        << ended.err;
}

TEST(EngineFaultsThroughHost, SuccessWithoutBytesReachesTheClient)
{
    const Ended ended =
        callRequest("aven_crypto_gen_symmkey:*=empty", "QZaven_crypto_gen_symmkey strCipherAlg=4");
    EXPECT_EQ(ended.results.value("Data", "?"), "") << ended.results;
    EXPECT_EQ(count(ended.err, "aven_crypto_gen_symmkey brings no result"), 1u) << ended.err;
}

TEST(EngineFaultsThroughHost, OtherCallsWorkAsEver)
{
    const Ended ended =
        callRequest("aven_crypto_gen_symmkey:2=-12345", "QZaven_crypto_gen_symmkey strCipherAlg=4");
    EXPECT_EQ(ended.code, 0) << ended.err;
    EXPECT_EQ(ended.results.value("errorCode", ""), "0") << ended.results;
}

TEST(EngineFaultsThroughHost, MalformedTextIsSeen)
{
    const Ended ended = callRequest("nonsense", "QZaven_crypto_gen_symmkey strCipherAlg=4");
    EXPECT_NE(ended.code, 0);
    EXPECT_GE(count(ended.err, "FAULTS ON REQUEST *** malformed: entry 1"), 1u) << ended.err;
}

}  // namespace
