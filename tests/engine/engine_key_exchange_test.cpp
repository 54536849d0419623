// The development engine's key exchange with the peer: whole exchanges, the order of calls,
// handles, threads.
#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/key_exchange_session.h"

namespace {

using support::Channel;
using support::Exact;
using support::KeyExchange;
using support::kinds;
using support::nameOf;
using support::pattern;
using support::Result;
using support::stringOf;
using support::toHex;
using support::World;
using support::worldOf;

// ---- Whole exchanges.

TEST_F(KeyExchange, BothSidesHaveTheSameKeys)
{
    for (KeyKind kind : kinds) {
        SCOPED_TRACE(nameOf(kind));
        const Channel channel = connect(worldOf(kind));
        for (size_t size : {0u, 1u, 15u, 16u, 17u, 1000u, 70000u}) {
            SCOPED_TRACE(size);
            const std::string text = pattern(size);
            const Result sealed = encrypt(channel.ke, text);
            ASSERT_EQ(sealed.code, 0);
            EXPECT_EQ(sealed.len, size + 28);
            EXPECT_EQ(openMessage(channel.keys, sealed.out), text);

            const Result opened = decrypt(channel.ke, sealMessage(channel.keys, text));
            ASSERT_EQ(opened.code, 0);
            EXPECT_EQ(opened.out, text);
            EXPECT_EQ(toHex(hmac(channel.ke, text).out), toHex(channelHmac(channel.keys, text)));
            EXPECT_EQ(toHex(cmac(channel.ke, text).out), toHex(channelCmac(channel.keys, text)));
        }
    }
}

TEST_F(KeyExchange, SessionsAndMessagesAreAllDifferent)
{
    const World& world = worldOf(KeyKind::Sm2);
    const Channel one = connect(world), other = connect(world);
    EXPECT_NE(stringOf(one.keys.block()), stringOf(other.keys.block()));
    EXPECT_EQ(decrypt(other.ke, sealMessage(one.keys, "text")).code, AVEN_E_TAG_MISMATCH);
    EXPECT_NE(hmac(one.ke, "text").out, hmac(other.ke, "text").out);

    // The six keys and MACs share nothing either.
    const std::string block = stringOf(one.keys.block());
    std::set<std::string> keys;
    for (size_t at = 0; at < block.size(); at += KE_BLOCK)
        keys.insert(block.substr(at, KE_BLOCK));
    EXPECT_EQ(keys.size(), block.size() / KE_BLOCK);

    std::set<std::string> nonces;
    for (int i = 0; i < 100; ++i)
        nonces.insert(encrypt(one.ke, "text").out.substr(0, KE_NONCE));
    EXPECT_EQ(nonces.size(), 100u);
}

TEST_F(KeyExchange, ServerCertificatesMayBePem)
{
    for (KeyKind kind : kinds) {
        const World& world = worldOf(kind);
        void* ke = newSession(world.rootFile);
        const std::string greeting = hello(ke).out;
        ServerAnswer answer = answerHello(world.server, greeting);
        answer.signingCertificate = toPem(world.server.signing.certificate.get());
        answer.encryptionCertificate = toPem(world.server.encryption.certificate.get());
        const Result message = exchange(ke, answer);
        ASSERT_EQ(message.code, 0);
        const ChannelKeys keys =
            acceptKeyExchange(world.server, greeting, answer.random, message.out);
        EXPECT_EQ(openMessage(keys, encrypt(ke, "text").out), "text");
    }
}

// ---- Order and handles.

TEST_F(KeyExchange, CallsOutOfOrderAreRefused)
{
    const World& world = worldOf(KeyKind::Sm2);
    const auto channelCode = [&](void* ke) {
        const int code = encrypt(ke, "text").code;
        EXPECT_EQ(decrypt(ke, pattern(40)).code, code);
        EXPECT_EQ(hmac(ke, "text").code, code);
        EXPECT_EQ(cmac(ke, "text").code, code);
        uint32_t len = 0;
        EXPECT_EQ(engine.aven_ke_hmac(ke, nullptr, 0, nullptr, &len), code);
        EXPECT_EQ(engine.aven_ke_cmac(ke, nullptr, 0, nullptr, &len), code);
        return code;
    };
    const std::string key = support::publicPem("sm2"), certificate = support::certificatePem("sm2");
    const auto settingsCode = [&](void* ke) {
        const int code = setKeys(ke, key, "");
        EXPECT_EQ(setCertificates(ke, certificate, ""), code);
        EXPECT_EQ(engine.aven_ke_set_root_certificate(ke, world.rootFile.c_str(), nullptr), code);
        return code;
    };

    void* ke = newSession();
    const ServerAnswer early = answerHello(world.server, pattern(32));
    EXPECT_EQ(hello(ke).code, AVEN_E_KE_TOO_EARLY);
    EXPECT_EQ(exchange(ke, early).code, AVEN_E_KE_TOO_EARLY);
    EXPECT_EQ(channelCode(ke), AVEN_E_KE_TOO_EARLY);
    EXPECT_EQ(settingsCode(ke), 0);
    EXPECT_EQ(exchange(ke, early).code, AVEN_E_KE_TOO_EARLY);

    const Result greeting = hello(ke);
    ASSERT_EQ(greeting.code, 0);
    EXPECT_EQ(hello(ke).code, AVEN_E_KE_TOO_LATE);
    EXPECT_EQ(settingsCode(ke), AVEN_E_KE_TOO_LATE);
    EXPECT_EQ(channelCode(ke), AVEN_E_KE_TOO_EARLY);
    EXPECT_EQ(exchange(ke, early).code, AVEN_E_KE_SIGNATURE);

    const ServerAnswer answer = answerHello(world.server, greeting.out);
    EXPECT_EQ(exchange(ke, answer).code, 0);
    EXPECT_EQ(exchange(ke, answer).code, AVEN_E_KE_TOO_LATE);
    EXPECT_EQ(hello(ke).code, AVEN_E_KE_TOO_LATE);
    EXPECT_EQ(settingsCode(ke), AVEN_E_KE_TOO_LATE);
    EXPECT_EQ(hmac(ke, "text").code, 0);
}

TEST_F(KeyExchange, HandlesThatAreNoneAreErrors)
{
    const World& world = worldOf(KeyKind::Sm2);
    const ServerAnswer answer = answerHello(world.server, pattern(32));
    const auto everyCode = [&](void* ke) {
        const int code = hello(ke).code;
        EXPECT_EQ(exchange(ke, answer).code, code);
        EXPECT_EQ(setKeys(ke, support::publicPem("sm2"), ""), code);
        EXPECT_EQ(setCertificates(ke, support::certificatePem("sm2"), ""), code);
        EXPECT_EQ(engine.aven_ke_set_root_certificate(ke, world.rootFile.c_str(), nullptr), code);
        EXPECT_EQ(encrypt(ke, "text").code, code);
        EXPECT_EQ(decrypt(ke, pattern(40)).code, code);
        EXPECT_EQ(hmac(ke, "text").code, code);
        EXPECT_EQ(cmac(ke, "text").code, code);
        EXPECT_EQ(engine.aven_ke_free(ke), code);
        return code;
    };

    EXPECT_EQ(everyCode(nullptr), AVEN_E_NULL_POINTER);
    EXPECT_EQ(everyCode(reinterpret_cast<void*>(1)), AVEN_E_HANDLE);
    EXPECT_EQ(everyCode(reinterpret_cast<void*>(-1)), AVEN_E_HANDLE);
    int local = 0;
    EXPECT_EQ(everyCode(&local), AVEN_E_HANDLE);

    void* freed = connect(world).ke;
    EXPECT_EQ(engine.aven_ke_free(freed), 0);
    EXPECT_EQ(everyCode(freed), AVEN_E_HANDLE);

    void* live = connect(world).ke;
    EXPECT_EQ(everyCode(static_cast<char*>(live) + 1), AVEN_E_HANDLE);
    EXPECT_EQ(hmac(live, "text").code, 0);

    // A handle of another kind, in both directions.
    const Exact text(support::publicPem("sm2"));
    void* keyPair = nullptr;
    ASSERT_EQ(engine.aven_keypair_unmarshal(AVEN_KEY_ANY, nullptr, 0, text.data(), text.size(),
                                            nullptr, &keyPair),
              0);
    EXPECT_EQ(everyCode(keyPair), AVEN_E_HANDLE);
    EXPECT_EQ(engine.aven_keypair_free(live), AVEN_E_HANDLE);
    EXPECT_EQ(engine.aven_keypair_free(keyPair), 0);
    EXPECT_EQ(hmac(live, "text").code, 0);
    EXPECT_EQ(engine.aven_ke_new(nullptr), AVEN_E_NULL_POINTER);
}

TEST_F(KeyExchange, HandlesAreUnguessableAndSurviveDecimalText)
{
    std::set<void*> handles;
    for (int i = 0; i < 200; ++i) {
        void* ke = newSession();
        const long number = reinterpret_cast<long>(ke);
        EXPECT_GT(number, 0);
        EXPECT_EQ(reinterpret_cast<void*>(atol(std::to_string(number).c_str())), ke);
        handles.insert(ke);
    }
    EXPECT_EQ(handles.size(), 200u);
    for (int bit = 0; bit < 63; ++bit) {
        size_t set = 0;
        for (void* ke : handles)
            set += reinterpret_cast<uintptr_t>(ke) >> bit & 1;
        EXPECT_GT(set, 40u) << bit;
        EXPECT_LT(set, 160u) << bit;
    }
}

TEST_F(KeyExchange, LiveSessionsAreLimited)
{
    std::vector<void*> sessions;
    for (int i = 0; i < AVEN_KE_SESSIONS_MAX; ++i)
        sessions.push_back(newSession());
    void* more = &more;
    EXPECT_EQ(engine.aven_ke_new(&more), AVEN_E_KE_SESSIONS);
    EXPECT_EQ(more, nullptr);
    EXPECT_EQ(engine.aven_ke_free(sessions.back()), 0);
    EXPECT_EQ(engine.aven_ke_new(&more), 0);
    void* another = nullptr;
    EXPECT_EQ(engine.aven_ke_new(&another), AVEN_E_KE_SESSIONS);

    // A restart ends them all.
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
    EXPECT_EQ(engine.aven_ke_free(more), AVEN_E_NOT_INITIALISED);
    EXPECT_EQ(engine.aven_global_init(), 0);
    EXPECT_EQ(engine.aven_ke_free(more), AVEN_E_HANDLE);
    for (int i = 0; i < AVEN_KE_SESSIONS_MAX; ++i)
        newSession();
}

// ---- Threads.

TEST_F(KeyExchange, EightThreadsWithSessionsOfTheirOwn)
{
    worldOf(KeyKind::Sm2);
    worldOf(KeyKind::Rsa);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([this, t] {
            for (int i = 0; i < 4; ++i) {
                const Channel channel = connect(worldOf(kinds[(t + i) % 2]));
                EXPECT_EQ(openMessage(channel.keys, encrypt(channel.ke, "text").out), "text");
                EXPECT_EQ(decrypt(channel.ke, sealMessage(channel.keys, "text")).out, "text");
                EXPECT_EQ(engine.aven_ke_free(channel.ke), 0);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

// Only one thread can complete a step; all others learn that they are too late.
TEST_F(KeyExchange, EightThreadsInOneExchange)
{
    const World& world = worldOf(KeyKind::Sm2);
    void* ke = newSession(world.rootFile);
    std::atomic<int> greeted{0};
    std::string greeting;
    const auto inEightThreads = [](auto body) {
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; ++t)
            threads.emplace_back(body);
        for (std::thread& thread : threads)
            thread.join();
    };
    inEightThreads([&] {
        const Result result = hello(ke);
        if (result.code == 0 && greeted++ == 0)
            greeting = result.out;
        else
            EXPECT_EQ(result.code, AVEN_E_KE_TOO_LATE);
    });
    EXPECT_EQ(greeted, 1);

    const ServerAnswer answer = answerHello(world.server, greeting);
    std::atomic<int> established{0};
    inEightThreads([&] {
        const int code = exchange(ke, answer).code;
        EXPECT_TRUE(code == 0 || code == AVEN_E_KE_TOO_LATE);
        established += code == 0 ? 1 : 0;
    });
    EXPECT_EQ(established, 1);
}

TEST_F(KeyExchange, SessionMayBeFreedWhileInUse)
{
    const World& world = worldOf(KeyKind::Sm2);
    for (int round = 0; round < 5; ++round) {
        const Channel channel = connect(world);
        const std::string text = pattern(2000), message = sealMessage(channel.keys, text);
        std::atomic<int> used{0}, freed{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; ++t) {
            threads.emplace_back([&, t] {
                for (;;) {
                    const Result result =
                        t % 2 == 0 ? decrypt(channel.ke, message) : hmac(channel.ke, text);
                    if (result.code != 0) {
                        EXPECT_EQ(result.code, AVEN_E_HANDLE);
                        return;
                    }
                    if (++used >= 40 && t < 2 && engine.aven_ke_free(channel.ke) == 0)
                        ++freed;
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(freed, 1);
    }
}

}  // namespace
