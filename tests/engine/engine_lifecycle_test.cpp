// The development engine's start and stop, log, texts, threads and unloading.
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <set>
#include <thread>
#include <utility>
#include <vector>

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
    const std::string library = OpenSSL_version(OPENSSL_VERSION);
    EXPECT_EQ(library.find("OpenSSL 3"), 0u) << library;
    EXPECT_EQ(engine.aven_version(),
              "SoftModuleaven development engine " CORVANE_VERSION " (" + library + ")");
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

// Hosts and their clients have them as numbers.
TEST(EngineTexts, NumbersAreThoseOfTheDocuments)
{
    const std::pair<int, int> rows[] = {
        {AVEN_CIPHER_SM4, 1},      {AVEN_CIPHER_AES_128, 2},
        {AVEN_CIPHER_AES_192, 3},  {AVEN_CIPHER_AES_256, 4},
        {AVEN_CIPHER_ARIA_256, 5}, {AVEN_CIPHER_CAMELLIA_256, 6},
        {AVEN_CIPHER_3DES, 7},     {AVEN_MODE_ECB, 1},
        {AVEN_MODE_CBC, 2},        {AVEN_MODE_CFB, 3},
        {AVEN_MODE_OFB, 4},        {AVEN_MODE_CTR, 5},
        {AVEN_MODE_GCM, 6},        {AVEN_PADDING_NONE, 0},
        {AVEN_PADDING_PKCS7, 1},   {AVEN_HASH_DEFAULT, 0},
        {AVEN_HASH_SM3, 1},        {AVEN_HASH_SHA1, 2},
        {AVEN_HASH_SHA224, 3},     {AVEN_HASH_SHA256, 4},
        {AVEN_HASH_SHA384, 5},     {AVEN_HASH_SHA512, 6},
        {AVEN_KEY_ANY, 0},         {AVEN_KEY_SM2, 1},
        {AVEN_KEY_RSA, 3},         {AVEN_RSA_OAEP, 0},
        {AVEN_RSA_PKCS1, 1},       {AVEN_OK, 0},
    };
    for (const auto& [number, written] : rows)
        EXPECT_EQ(number, written);
}

TEST(EngineTexts, LimitsAreThoseOfTheDocuments)
{
    const std::pair<int, int> rows[] = {
        {AVEN_GCM_IV_MAX, 128},
        {AVEN_GCM_TAG_MIN, 4},
        {AVEN_GCM_TAG_MAX, 16},
        {AVEN_KDF_MAX, 1'073'741'824},
        {AVEN_RSA_BITS_MIN, 2048},
        {AVEN_RSA_BITS_MAX, 4096},
        {AVEN_KEY_TEXT_MAX, 65'536},
        {AVEN_ENVELOPE_RECIPIENTS_MAX, 64},
        {AVEN_KEY_ITERATIONS_MAX, 2'000'000},
        {AVEN_KEY_SCRYPT_MAX, 1'048'576},
        {AVEN_KEY_SCRYPT_MEMORY_MAX, 33'554'432},
        {AVEN_KE_SESSIONS_MAX, 1024},
        {AVEN_KE_MESSAGE_MAX, 256},
        {AVEN_KE_CHAIN_MAX, 10},
        {AVEN_KE_ROOTS_MAX, 1000},
        {AVEN_KE_ROOT_BYTES_MAX, 2'097'152},
        {AVEN_KE_ROOT_FILE_BYTES_MAX, 16'777'216},
        {AVEN_KE_ROOT_ENTRIES_MAX, 4096},
        {AVEN_KE_ROOT_BYTES_OF_ALL_MAX, 33'554'432},
    };
    for (const auto& [limit, written] : rows)
        EXPECT_EQ(limit, written);
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

TEST(EngineLog, LinesBeginWithTheTimeAndTheName)
{
    TemporaryFile log;
    const time_t before = time(nullptr);
    DevkitEngine engine;
    ASSERT_EQ(engine.aven_global_set_logger(log.path), 0);
    ASSERT_EQ(engine.aven_global_init(), 0);
    const std::string banner =
        "Z SoftModuleaven: *** DEVELOPMENT ENGINE - NOT FOR PRODUCTION USE"
        " *** " +
        std::string(engine.aven_version()) + "\n";
    EXPECT_EQ(engine.aven_crypto_gen_symmkey(1, nullptr, nullptr), AVEN_E_NULL_POINTER);
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
    const time_t after = time(nullptr);

    const std::string text = readWhole(log.path);
    const size_t second = text.find('\n') + 1;
    EXPECT_EQ(text.substr(0, second).substr(19), banner);
    EXPECT_EQ(text.substr(second).substr(19),
              "Z SoftModuleaven: aven_crypto_gen_symmkey: -30002 AVEN_E_NULL_POINTER\n");
    for (const size_t line : {size_t{0}, second}) {
        tm utc = {};
        const std::string written = text.substr(line, 19);
        ASSERT_NE(strptime(written.c_str(), "%Y-%m-%dT%H:%M:%S", &utc), nullptr) << written;
        const time_t moment = timegm(&utc);
        EXPECT_TRUE(before <= moment && moment <= after) << written;
    }
}

// The descriptors of this process that stand for a file.
std::vector<int> descriptorsOf(const std::string& path)
{
    std::vector<int> found;
    std::error_code gone;  // the loop's own descriptor
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        if (std::filesystem::read_symlink(entry.path(), gone) == path)
            found.push_back(std::stoi(entry.path().filename()));
    return found;
}

TEST(EngineLog, NewFileIsForItsOwnerAndForThisProcessAlone)
{
    const support::TemporaryFolder folder;
    const std::string path = folder.path("log");
    const mode_t usual = umask(0);
    DevkitEngine engine;
    EXPECT_EQ(engine.aven_global_set_logger(path.c_str()), 0);
    umask(usual);

    struct stat file = {};
    ASSERT_EQ(stat(path.c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 07777u, 0600u);
    const std::vector<int> descriptors = descriptorsOf(path);
    ASSERT_EQ(descriptors.size(), 1u);
    EXPECT_EQ(fcntl(descriptors[0], F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
    EXPECT_TRUE(descriptorsOf(path).empty());
}

// Another file in place of a standard stream, while it lives.
class Redirected {
public:
    Redirected(int stream, const char* path) : m_stream(stream), m_saved(dup(stream))
    {
        const int target = open(path, O_RDWR);
        dup2(target, stream);
        close(target);
    }
    Redirected(const Redirected&) = delete;
    Redirected& operator=(const Redirected&) = delete;
    ~Redirected()
    {
        dup2(m_saved, m_stream);
        close(m_saved);
    }

private:
    int m_stream;
    int m_saved;
};

// A process without standard input gets its number for whatever it opens next.
TEST(EngineLog, MayHaveTheNumberZero)
{
    const support::TemporaryFolder folder;
    const std::string path = folder.path("log");
    DevkitEngine engine;
    ASSERT_EQ(engine.aven_global_init(), 0);
    const Redirected input(STDIN_FILENO, "/dev/null");
    close(STDIN_FILENO);
    EXPECT_EQ(engine.aven_global_set_logger(path.c_str()), 0);
    EXPECT_EQ(descriptorsOf(path), std::vector<int>{0});
    EXPECT_EQ(engine.aven_crypto_gen_symmkey(1, nullptr, nullptr), AVEN_E_NULL_POINTER);
    EXPECT_EQ(engine.aven_global_set_logger(""), 0);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);  // closed
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
    EXPECT_EQ(count(readWhole(path), "\n"), 2u);
}

TEST(EngineLog, NothingIsWrittenAnywhereWithoutOne)
{
    TemporaryFile input, output, error, log;
    {
        fflush(stdout);
        const Redirected streams[] = {
            {STDIN_FILENO, input.path}, {STDOUT_FILENO, output.path}, {STDERR_FILENO, error.path}};
        DevkitEngine engine;
        const auto fail = [&] { engine.aven_crypto_gen_symmkey(1, nullptr, nullptr); };
        fail();
        engine.aven_global_init();
        fail();
        engine.aven_global_set_logger(log.path);
        engine.aven_global_set_logger("");
        fail();
        engine.aven_global_set_logger(log.path);
        engine.aven_global_cleanup();
        fail();
        EXPECT_NE(fcntl(STDIN_FILENO, F_GETFD), -1);
    }
    for (const TemporaryFile* file : {&input, &output, &error})
        EXPECT_EQ(readWhole(file->path), "");
    EXPECT_EQ(count(readWhole(log.path), "\n"), 2u);
}

// Nor does it matter what the number was before.
TEST(EngineLog, LeavesTheHostsErrorNumberAlone)
{
    DevkitEngine engine;
    ASSERT_EQ(engine.aven_global_init(), 0);
    for (const char* target : {"/dev/null", "/dev/full"}) {
        ASSERT_EQ(engine.aven_global_set_logger(target), 0);
        errno = EINTR;
        EXPECT_EQ(engine.aven_crypto_gen_symmkey(1, nullptr, nullptr), AVEN_E_NULL_POINTER);
        EXPECT_EQ(errno, EINTR) << target;
    }
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
}

TEST(EngineLog, StandardStreamsShareTheirPosition)
{
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
        TemporaryFile file;
        fflush(stdout);
        {
            const Redirected redirected(stream, file.path);
            DevkitEngine engine;
            engine.aven_global_init();
            ASSERT_EQ(write(stream, "before\n", 7), 7);
            const char* target = stream == STDOUT_FILENO ? "/dev/stdout" : "/dev/stderr";
            EXPECT_EQ(engine.aven_global_set_logger(target), 0);
            ASSERT_EQ(write(stream, "behind\n", 7), 7);
            engine.aven_global_cleanup();
        }
        const std::string text = readWhole(file.path);
        EXPECT_EQ(text.find("before\n"), 0u);
        EXPECT_EQ(text.find("behind\n"), text.size() - 7) << text;
        EXPECT_EQ(count(text, "\n"), 3u) << text;
    }
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
