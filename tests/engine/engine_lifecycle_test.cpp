// The development engine's start and stop, log, texts, threads and unloading.
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <set>
#include <thread>

#include "support/engine_everything.h"
#include "support/rounds.h"

namespace {

using support::DevkitEngine;
using support::Everything;
using support::Fenced;
using support::readWhole;

struct TemporaryFile {
    TemporaryFile() { close(mkstemp(path)); }
    ~TemporaryFile() { unlink(path); }
    char path[32] = "/tmp/engine-log-XXXXXX";
};

size_t count(const std::string& text, const std::string& piece)
{
    size_t n = 0;
    for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1))
        ++n;
    return n;
}

int generateKey(DevkitEngine& engine)
{
    Fenced key(32);
    return engine.aven_crypto_gen_symmkey(AVEN_CIPHER_AES_256, key.data(), &key.len);
}

// The first code that is not 0.
int useEverything(const DevkitEngine& engine)
{
    static const Everything everything(KeyKind::Rsa);
    return everything.use(engine);
}

// ---- Start and stop

// Whether a function needs a running engine.
bool needsEngine(const std::string& name)
{
    return name.rfind("aven_global_", 0) != 0 && name != "aven_version" && name != "aven_strerror";
}

TEST(EngineLifecycle, NothingWorksBeforeInitAndAfterCleanup)
{
    DevkitEngine engine;
    // Whatever the arguments are; null is freed all the same.
    const auto refuses = [](auto function, const std::string& name) {
        uint32_t length = 99;
        void* handle = nullptr;
        const auto result = support::callAnyhow(function, length, handle);
        if constexpr (std::is_same_v<decltype(result), const int>) {
            const bool freesNull = name == "aven_keypair_free" || name == "aven_certificate_free";
            EXPECT_EQ(result, freesNull ? 0 : AVEN_E_NOT_INITIALISED) << name;
        }
    };
    const auto refusesAll = [&] {
#define ROW(result, name, params) \
    if (needsEngine(#name))       \
        refuses(engine.name, #name);
        AVEN_ENGINE_FUNCTIONS(ROW)
#undef ROW
        for (auto free : {engine.aven_keypair_free, engine.aven_certificate_free})
            EXPECT_EQ(free(&engine), AVEN_E_NOT_INITIALISED);
        EXPECT_NE(engine.aven_version(), nullptr);
        EXPECT_NE(engine.aven_strerror(AVEN_E_NOT_INITIALISED), nullptr);
        EXPECT_EQ(engine.aven_global_set_logger(""), 0);
        EXPECT_EQ(useEverything(engine), AVEN_E_NOT_INITIALISED);
    };
    refusesAll();
    EXPECT_EQ(engine.aven_global_init(), 0);
    EXPECT_EQ(useEverything(engine), 0);
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
    refusesAll();
}

// Handles end with the engine that gave them out.
TEST(EngineLifecycle, HandlesDoNotOutliveCleanup)
{
    DevkitEngine engine;
    ASSERT_EQ(engine.aven_global_init(), 0);
    const support::SharedKeys keys = Everything(KeyKind::Sm2).readKeys(engine);
    void* ke = nullptr;
    EXPECT_EQ(engine.aven_ke_new(&ke), 0);
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
    ASSERT_EQ(engine.aven_global_init(), 0);
    EXPECT_EQ(engine.aven_keypair_free(keys.keyPair), AVEN_E_HANDLE);
    EXPECT_EQ(engine.aven_certificate_free(keys.certificate), AVEN_E_HANDLE);
    EXPECT_EQ(engine.aven_ke_free(ke), AVEN_E_HANDLE);
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
}

TEST(EngineLifecycle, InitAndCleanupAnyNumberOfTimes)
{
    DevkitEngine engine;
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
    for (int round = 0; round < 5; ++round) {
        EXPECT_EQ(engine.aven_global_init(), 0);
        EXPECT_EQ(engine.aven_global_init(), 0);
        EXPECT_EQ(useEverything(engine), 0);
        EXPECT_EQ(engine.aven_global_cleanup(), 0);  // one ends it, however many inits
        EXPECT_EQ(generateKey(engine), AVEN_E_NOT_INITIALISED);
        EXPECT_EQ(engine.aven_global_cleanup(), 0);
    }
}

TEST(EngineLifecycle, LeavesTheHostsErrorQueueAlone)
{
    DevkitEngine engine;
    ERR_clear_error();
    ERR_raise(ERR_LIB_USER, 77);
    const unsigned long before = ERR_peek_last_error();
    EXPECT_EQ(engine.aven_global_init(), 0);
    EXPECT_EQ(useEverything(engine), 0);
    unsigned char data[32] = {}, out[64];
    uint32_t len = sizeof out;
    EXPECT_EQ(engine.aven_wbsm4_decrypt(1, data, 16, data, 16, data, 32, out, &len),
              AVEN_E_BAD_PADDING);
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
    EXPECT_EQ(ERR_get_error(), before);
    EXPECT_EQ(ERR_get_error(), 0u);
}

// ---- Texts

TEST(EngineTexts, VersionNamesADevelopmentEngine)
{
    DevkitEngine engine;
    const std::string version = engine.aven_version();
    EXPECT_NE(version.find("development engine"), std::string::npos) << version;
    EXPECT_NE(version.find("OpenSSL 3"), std::string::npos) << version;
    EXPECT_EQ(engine.aven_version(), engine.aven_version());
}

TEST(EngineTexts, EveryCodeHasATextOfItsOwn)
{
    DevkitEngine engine;
    std::set<std::string> texts = {engine.aven_strerror(0)};
    std::set<int> codes = {0};
    const auto isNew = [&](int code, const char* text, const char* cause, const char* remedy) {
        EXPECT_STREQ(engine.aven_strerror(code), text);
        EXPECT_TRUE(texts.insert(text).second) << text;
        EXPECT_TRUE(codes.insert(code).second) << code;
        EXPECT_STRNE(cause, "");
        EXPECT_STRNE(remedy, "");
    };
#define ROW(name, code, text, cause, remedy) isNew(code, text, cause, remedy);
    AVEN_PLUGIN_ERRORS(ROW)
    const std::set<int> plugins = codes;
    AVEN_ENGINE_ERRORS(ROW)
#undef ROW
    for (const int code : codes)
        EXPECT_NE(plugins.count(code) != 0, code <= -30001) << code;
    for (int code : {-20000, -20001, -20002, -20084, -20215, -20216})
        EXPECT_EQ(codes.count(code), 1u) << code;
    for (int code : {1, -1, -20003, -30000, INT32_MAX, INT32_MIN}) {
        const std::string text = engine.aven_strerror(code);
        EXPECT_EQ(text.find("unknown error code"), 0u) << text;
    }
}

TEST(EngineTexts, ReadmeListsEveryCode)
{
    const std::string readme = readWhole(CORVANE_SOURCE_DIR "/devkit/engine/README.md");
    size_t codes = 0;
    const auto listed = [&](const std::string& row) {
        EXPECT_EQ(count(readme, row), 1u) << row;
        ++codes;
    };
#define ROW(name, code, text, cause, remedy) \
    listed("| " #code " | `" #name "` | " text " | " cause " | " remedy " |\n");
    AVEN_ENGINE_ERRORS(ROW)
#undef ROW
    EXPECT_EQ(count(readme, "\n| -30"), codes);  // and no others
}

TEST(EngineTexts, ReadmeHasTheLimits)
{
    const std::string readme = readWhole(CORVANE_SOURCE_DIR "/devkit/engine/README.md");
    const auto number = [](int value) { return std::to_string(value); };
    static_assert(AVEN_KEY_ITERATIONS_MAX == 2'000'000 && AVEN_KEY_SCRYPT_MAX == 1 << 20,
                  "written so in the README");
    const std::string rows[] = {
        "text of a key or certificate | " + number(AVEN_KEY_TEXT_MAX >> 10) + " KiB",
        "RSA modulus; public exponent | " + number(AVEN_RSA_BITS_MAX) + " bits; 64 bits",
        "iterations of an encrypted key | 2,000,000",
        "scrypt of an encrypted key | N * r * p = 2^20, and " +
            number(AVEN_KEY_SCRYPT_MEMORY_MAX >> 20) + " MiB",
        "an envelope's recipients | " + number(AVEN_ENVELOPE_RECIPIENTS_MAX),
        "key-exchange sessions | " + number(AVEN_KE_SESSIONS_MAX),
        "certificates between a server's and its root | " + number(AVEN_KE_CHAIN_MAX),
    };
    for (const std::string& row : rows)
        EXPECT_EQ(count(readme, "\n| " + row + " | "), 1u) << row;
}

// ---- The log

TEST(EngineLog, BannerComesWithWhicheverIsSecond)
{
    const char* const banner = "DEVELOPMENT ENGINE - NOT FOR PRODUCTION USE";
    DevkitEngine engine;
    TemporaryFile first, second;
    ASSERT_EQ(engine.aven_global_init(), 0);
    EXPECT_EQ(engine.aven_global_set_logger(first.path), 0);
    EXPECT_EQ(count(readWhole(first.path), banner), 1u);
    EXPECT_EQ(engine.aven_global_cleanup(), 0);

    EXPECT_EQ(engine.aven_global_set_logger(second.path), 0);
    EXPECT_EQ(readWhole(second.path), "");
    ASSERT_EQ(engine.aven_global_init(), 0);
    EXPECT_EQ(count(readWhole(second.path), banner), 1u);
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
    EXPECT_EQ(count(readWhole(first.path), banner), 1u);
}

TEST(EngineLog, AppendsOneLinePerFailureWithoutSecrets)
{
    DevkitEngine engine;
    TemporaryFile log;
    std::ofstream(log.path) << "kept\n";
    ASSERT_EQ(engine.aven_global_init(), 0);
    ASSERT_EQ(engine.aven_global_set_logger(log.path), 0);
    const char secret[] = "fifteen secrets";
    MacParams params = {};
    params.alg = AVEN_CIPHER_SM4;
    params.key = reinterpret_cast<const unsigned char*>(secret);
    params.key_len = 15;
    unsigned char out[80];
    uint32_t len = sizeof out;
    EXPECT_EQ(engine.aven_crypto_cmac(&params, params.key, 15, out, &len), AVEN_E_KEY_LENGTH);
    EXPECT_EQ(engine.aven_global_cleanup(), 0);

    const std::string text = readWhole(log.path);
    EXPECT_EQ(text.find("kept\n"), 0u);
    EXPECT_EQ(count(text, "\n"), 3u) << text;
    EXPECT_NE(text.find("aven_crypto_cmac: -30040 AVEN_E_KEY_LENGTH\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("fifteen"), std::string::npos);
}

TEST(EngineLog, TargetsAreChecked)
{
    DevkitEngine engine;
    TemporaryFile log;
    ASSERT_EQ(engine.aven_global_init(), 0);
    ASSERT_EQ(engine.aven_global_set_logger(log.path), 0);
    EXPECT_EQ(engine.aven_global_set_logger(nullptr), AVEN_E_NULL_POINTER);
    EXPECT_EQ(engine.aven_global_set_logger("/nonexistent/log"), AVEN_E_LOG_TARGET);
    EXPECT_NE(readWhole(log.path).find("AVEN_E_LOG_TARGET"), std::string::npos);  // still there
    const std::string before = readWhole(log.path);
    EXPECT_EQ(engine.aven_global_set_logger(""), 0);
    EXPECT_EQ(engine.aven_crypto_gen_symmkey(1, nullptr, nullptr), AVEN_E_NULL_POINTER);
    EXPECT_EQ(readWhole(log.path), before);
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
}

TEST(EngineLog, StandardErrorSharesItsPosition)
{
    TemporaryFile file;
    const int saved = dup(STDERR_FILENO);
    const int target = open(file.path, O_WRONLY | O_TRUNC);
    dup2(target, STDERR_FILENO);
    close(target);
    {
        DevkitEngine engine;
        engine.aven_global_init();
        ASSERT_EQ(write(STDERR_FILENO, "before\n", 7), 7);
        EXPECT_EQ(engine.aven_global_set_logger("/dev/stderr"), 0);
        ASSERT_EQ(write(STDERR_FILENO, "behind\n", 7), 7);
        engine.aven_global_cleanup();
    }
    dup2(saved, STDERR_FILENO);
    close(saved);
    const std::string text = readWhole(file.path);
    EXPECT_EQ(text.find("before\n"), 0u);
    EXPECT_EQ(text.find("behind\n"), text.size() - 7) << text;
    EXPECT_EQ(count(text, "\n"), 3u) << text;
}

// ---- Unloading

// CORVANE_ENGINE_ROUNDS=10000 is the long run.
template <class Round>
void staysFlat(int rounds, Round round)
{
    support::staysFlat("CORVANE_ENGINE_ROUNDS", rounds, round);
}

enum class Cleanup { yes, no };

void loadUseAndUnload(Cleanup cleanup)
{
    {
        DevkitEngine engine;
        ASSERT_EQ(engine.aven_global_init(), 0);
        ASSERT_EQ(engine.aven_global_set_logger("/dev/null"), 0);
        ASSERT_EQ(useEverything(engine), 0);
        if (cleanup == Cleanup::yes) {
            ASSERT_EQ(engine.aven_global_cleanup(), 0);
        }
    }
    ASSERT_FALSE(isLibraryOpen(CORVANE_ENGINE_LIBRARY));
}

TEST(EngineUnload, RoundsWithCleanupStayFlat)
{
    staysFlat(500, [] { loadUseAndUnload(Cleanup::yes); });
}

TEST(EngineUnload, RoundsWithoutCleanupStayFlat)
{
    staysFlat(100, [] { loadUseAndUnload(Cleanup::no); });
}

TEST(EngineUnload, RoundsInAThreadOfTheirOwnStayFlat)
{
    staysFlat(100, [] { std::thread([] { loadUseAndUnload(Cleanup::yes); }).join(); });
}

TEST(EngineUnload, RoundsUsedByAThreadOfItsOwnStayFlat)
{
    staysFlat(100, [] {
        {
            DevkitEngine engine;
            ASSERT_EQ(engine.aven_global_init(), 0);
            std::thread([&] { EXPECT_EQ(useEverything(engine), 0); }).join();
            ASSERT_EQ(engine.aven_global_cleanup(), 0);
        }
        ASSERT_FALSE(isLibraryOpen(CORVANE_ENGINE_LIBRARY));
    });
}

// The host may open the library as often as it likes; it is one engine.
TEST(EngineUnload, HandlesAreClosedInAnyOrder)
{
    for (bool firstGoesFirst : {true, false}) {
        auto first = std::make_unique<DevkitEngine>(), second = std::make_unique<DevkitEngine>();
        ASSERT_EQ(first->aven_global_init(), 0);
        if (firstGoesFirst)
            first.swap(second);
        second.reset();
        EXPECT_EQ(useEverything(*first), 0);
        EXPECT_TRUE(isLibraryOpen(CORVANE_ENGINE_LIBRARY));
        first.reset();
        EXPECT_FALSE(isLibraryOpen(CORVANE_ENGINE_LIBRARY));
    }
}

TEST(EngineUnload, AThreadThatUsedItMayEndLater)
{
    std::atomic<int> step{0};
    auto engine = std::make_unique<DevkitEngine>();
    ASSERT_EQ(engine->aven_global_init(), 0);
    std::thread user([&] {
        EXPECT_EQ(useEverything(*engine), 0);
        step = 1;
        while (step != 2)
            std::this_thread::yield();
    });
    while (step != 1)
        std::this_thread::yield();
    engine.reset();
    EXPECT_FALSE(isLibraryOpen(CORVANE_ENGINE_LIBRARY));
    step = 2;
    user.join();
}

// The process may end while the engine runs and while threads call it.
TEST(EngineUnload, ProcessMayExitWithoutCleanup)
{
    for (bool withThreads : {false, true}) {
        const pid_t child = fork();
        if (child == 0) {
            DevkitEngine& engine = *new DevkitEngine;
            if (engine.aven_global_init() != 0 || useEverything(engine) != 0)
                _exit(9);
            if (withThreads) {
                for (int t = 0; t < 8; ++t) {
                    std::thread([&engine] {
                        for (;;)
                            generateKey(engine);
                    }).detach();
                }
                usleep(10000);
            }
            exit(0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << withThreads;
    }
}

}  // namespace
