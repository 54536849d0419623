// The development engine under eight threads: all functions at once, shared and own keys,
// and starts and stops in between. Meant to run under ThreadSanitizer too.
#include <unistd.h>

#include <atomic>
#include <thread>

#include "support/engine_everything.h"
#include "support/held.h"

namespace {

using support::DevkitEngine;
using support::Everything;
using support::SharedKeys;

constexpr int THREADS = 8;

const KeyKind kinds[] = {KeyKind::Sm2, KeyKind::Rsa};

// Runs `body(thread)` in eight threads at once.
template <class Body>
void inThreads(Body body)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t)
        threads.emplace_back([&body, t] { body(t); });
    for (std::thread& thread : threads)
        thread.join();
}

TEST(EngineThreads, AllFunctionsAtOnce)
{
    DevkitEngine engine;
    ASSERT_EQ(engine.aven_global_init(), 0);
    const Everything everything[] = {Everything(kinds[0]), Everything(kinds[1])};
    inThreads([&](int thread) {
        for (int round = 0; round < (support::emulated ? 2 : 10); ++round)
            EXPECT_EQ(everything[(thread + round) % 2].use(engine), 0);
    });
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
}

TEST(EngineThreads, KeysAreShared)
{
    DevkitEngine engine;
    ASSERT_EQ(engine.aven_global_init(), 0);
    for (KeyKind kind : kinds) {
        const Everything everything(kind);
        const SharedKeys keys = everything.readKeys(engine);
        inThreads([&](int) {
            for (int round = 0; round < 5; ++round)
                EXPECT_EQ(everything.use(engine, keys), 0);
        });
    }
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
}

// A call that has found its key keeps it; a later one does not find it any more.
TEST(EngineThreads, KeysAreFreedWhileInUse)
{
    DevkitEngine engine;
    ASSERT_EQ(engine.aven_global_init(), 0);
    for (KeyKind kind : kinds) {
        const Everything everything(kind);
        for (int round = 0; round < 5; ++round) {
            const SharedKeys keys = everything.readKeys(engine);
            inThreads([&](int thread) {
                if (thread == 0) {
                    usleep(1000);
                    EXPECT_EQ(engine.aven_keypair_free(keys.keyPair), 0);
                    EXPECT_EQ(engine.aven_certificate_free(keys.certificate), 0);
                    return;
                }
                const int code = everything.use(engine, keys);
                EXPECT_TRUE(code == 0 || code == AVEN_E_HANDLE) << code;
            });
        }
    }
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
}

TEST(EngineThreads, OneOfManyFreesWins)
{
    DevkitEngine engine;
    ASSERT_EQ(engine.aven_global_init(), 0);
    const Everything everything(KeyKind::Sm2);
    for (int round = 0; round < 20; ++round) {
        const SharedKeys keys = everything.readKeys(engine);
        std::atomic<int> freed{0}, gone{0};
        inThreads([&](int) {
            const int code = engine.aven_keypair_free(keys.keyPair);
            ++(code == 0 ? freed : gone);
            EXPECT_TRUE(code == 0 || code == AVEN_E_HANDLE) << code;
        });
        EXPECT_EQ(freed, 1);
        EXPECT_EQ(gone, THREADS - 1);
    }
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
}

TEST(EngineThreads, OneSessionServesAll)
{
    DevkitEngine engine;
    ASSERT_EQ(engine.aven_global_init(), 0);
    void* ke = nullptr;
    ASSERT_EQ(engine.aven_ke_new(&ke), 0);
    std::shared_ptr<ChannelKeys> keys;
    ASSERT_EQ(support::server(KeyKind::Sm2).establish(engine, ke, keys), 0);
    inThreads([&](int thread) {
        const std::string text = support::pattern(100, static_cast<unsigned>(thread));
        for (int round = 0; round < 50; ++round) {
            unsigned char out[128];
            uint32_t length = sizeof out;
            EXPECT_EQ(engine.aven_ke_encrypt(ke, support::dataOf(text), support::sizeOf(text), out,
                                             &length),
                      0);
            EXPECT_EQ(openMessage(*keys, {reinterpret_cast<char*>(out), length}), text);
        }
    });
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
}

// Between two calls the engine may have stopped, and taken every handle with it.
TEST(EngineThreads, OthersStartAndStopMeanwhile)
{
    DevkitEngine engine;
    ASSERT_EQ(engine.aven_global_init(), 0);
    const Everything everything[] = {Everything(kinds[0]), Everything(kinds[1])};
    std::atomic<bool> stop{false};
    std::atomic<int> wholeRounds{0}, cutRounds{0};
    std::thread starter([&] {
        for (int round = 0; round < 30; ++round) {
            usleep(20000);
            EXPECT_EQ(engine.aven_global_cleanup(), 0);
            EXPECT_EQ(engine.aven_global_init(), 0);
            EXPECT_EQ(engine.aven_global_set_logger(round % 2 == 0 ? "/dev/null" : ""), 0);
            EXPECT_NE(engine.aven_version(), nullptr);
            EXPECT_NE(engine.aven_strerror(round), nullptr);
        }
        stop = true;
    });
    inThreads([&](int thread) {
        while (!stop) {
            const int code = everything[thread % 2].use(engine);
            const bool isCut = code == AVEN_E_NOT_INITIALISED || code == AVEN_E_HANDLE;
            EXPECT_TRUE(code == 0 || isCut) << code;
            ++(isCut ? cutRounds : wholeRounds);
        }
    });
    starter.join();
    EXPECT_GT(cutRounds, 0);
    EXPECT_EQ(everything[0].use(engine), 0);
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
}

// Threads that come and go leave nothing behind that the engine's end would miss.
TEST(EngineThreads, ManyShortOnesComeAndGo)
{
    DevkitEngine engine;
    ASSERT_EQ(engine.aven_global_init(), 0);
    const Everything everything(KeyKind::Rsa);
    for (int round = 0; round < 10; ++round)
        inThreads([&](int) { EXPECT_EQ(everything.use(engine), 0); });
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
}

}  // namespace
