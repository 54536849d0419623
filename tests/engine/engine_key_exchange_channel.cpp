// The channel that a key exchange opens, and the buffers of its calls.
#include <string>
#include <vector>

#include "support/key_exchange_session.h"

namespace {

using support::Channel;
using support::ChannelFunction;
using support::Exact;
using support::Fenced;
using support::KeyExchange;
using support::pattern;
using support::Result;
using support::stringOf;
using support::World;
using support::worldOf;

// ---- The channel.

TEST_F(KeyExchange, TamperedAndCutMessagesAreRefused)
{
    const Channel channel = connect(worldOf(KeyKind::Sm2));
    const std::string text = pattern(50), message = sealMessage(channel.keys, text);
    for (size_t i = 0; i < message.size(); i += support::EVERY_PLACE) {
        for (int bit : {0, 7}) {
            std::string bad = message;
            bad[i] = static_cast<char>(bad[i] ^ (1 << bit));
            ASSERT_EQ(decrypt(channel.ke, bad).code, AVEN_E_TAG_MISMATCH) << i;
        }
    }
    for (size_t size = 0; size < message.size(); size += support::EVERY_PLACE) {
        ASSERT_EQ(decrypt(channel.ke, message.substr(0, size)).code,
                  size < 28 ? AVEN_E_KE_MESSAGE : AVEN_E_TAG_MISMATCH)
            << size;
    }
    EXPECT_EQ(decrypt(channel.ke, message + '\0').code, AVEN_E_TAG_MISMATCH);

    // There is no protection against replay.
    EXPECT_EQ(decrypt(channel.ke, message).out, text);
    EXPECT_EQ(decrypt(channel.ke, message).out, text);
}

TEST_F(KeyExchange, MessagesOfTheOtherDirectionAreRefused)
{
    const Channel channel = connect(worldOf(KeyKind::Rsa));
    const std::string own = encrypt(channel.ke, "text").out;
    EXPECT_EQ(decrypt(channel.ke, own).code, AVEN_E_TAG_MISMATCH);
    EXPECT_EQ(decrypt(channel.ke, sealMessage(channel.keys, "text", Direction::ToServer)).code,
              AVEN_E_TAG_MISMATCH);
    EXPECT_EQ(openMessage(channel.keys, own, Direction::ToServer), "text");
    EXPECT_THROW(openMessage(channel.keys, own, Direction::ToClient), PeerError);

    // The label alone makes a difference, too: with both keys the same it still must.
    std::string block = stringOf(channel.keys.block());
    block.replace(48, 16, block.substr(64, 16));
    const ChannelKeys sameKeys = restoreKeys(KeyKind::Rsa, block);
    EXPECT_EQ(decrypt(channel.ke, sealMessage(sameKeys, "text", Direction::ToServer)).code,
              AVEN_E_TAG_MISMATCH);
    EXPECT_EQ(decrypt(channel.ke, sealMessage(sameKeys, "text", Direction::ToClient)).code, 0);
}

TEST_F(KeyExchange, InputMayBeTheOutput)
{
    const Channel channel = connect(worldOf(KeyKind::Sm2));
    const std::string text = pattern(300);
    std::vector<unsigned char> buffer(text.size() + KE_OVERHEAD);
    std::copy(text.begin(), text.end(), buffer.begin());
    uint32_t len = static_cast<uint32_t>(buffer.size());
    ASSERT_EQ(engine.aven_ke_encrypt(channel.ke, buffer.data(), 300, buffer.data(), &len), 0);
    EXPECT_EQ(openMessage(channel.keys, std::string(buffer.begin(), buffer.end())), text);

    const std::string message = sealMessage(channel.keys, text);
    std::copy(message.begin(), message.end(), buffer.begin());
    ASSERT_EQ(engine.aven_ke_decrypt(channel.ke, buffer.data(), len, buffer.data(), &len), 0);
    EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + len), text);
}

// ---- Buffers.

// Null, zero, one short, exact, more. Calls `run(out, len)`; the last two succeed.
template <class Run>
void checkCapacities(size_t needed, Run run)
{
    uint32_t len = 0;
    EXPECT_EQ(run(nullptr, nullptr), AVEN_E_NULL_POINTER);
    len = static_cast<uint32_t>(needed);
    EXPECT_EQ(run(nullptr, &len), AVEN_E_NULL_POINTER);
    for (size_t capacity : {size_t{0}, needed - 1}) {
        Fenced out(capacity);
        EXPECT_EQ(run(out.data(), &out.len), AVEN_E_BUFFER_TOO_SMALL);
        EXPECT_EQ(out.len, needed);
        EXPECT_TRUE(out.untouched());
    }
}

TEST_F(KeyExchange, HelloAndKeyExchangeCheckTheirBuffers)
{
    const World& world = worldOf(KeyKind::Rsa);
    void* ke = newSession(world.rootFile);
    checkCapacities(KE_RANDOM, [&](unsigned char* out, uint32_t* len) {
        return engine.aven_ke_client_hello(ke, out, len);
    });
    const Result greeting = hello(ke, 100);
    ASSERT_EQ(greeting.code, 0);
    ASSERT_EQ(greeting.len, KE_RANDOM);

    const ServerAnswer answer = answerHello(world.server, greeting.out);
    const Exact random(answer.random), signing(answer.signingCertificate),
        encryption(answer.encryptionCertificate), signature(answer.signature);
    const auto call = [&](const unsigned char* a, const unsigned char* b, const unsigned char* c,
                          const unsigned char* d, unsigned char* out, uint32_t* len) {
        return engine.aven_ke_client_key_exchange(ke, a, random.size(), b, signing.size(), c,
                                                  encryption.size(), d, signature.size(), out, len);
    };
    checkCapacities(256, [&](unsigned char* out, uint32_t* len) {
        return call(random.data(), signing.data(), encryption.data(), signature.data(), out, len);
    });
    for (int missing = 0; missing < 4; ++missing) {
        const auto unless = [&](int i, const Exact& value) {
            return i == missing ? nullptr : value.data();
        };
        Fenced out(256);
        EXPECT_EQ(call(unless(0, random), unless(1, signing), unless(2, encryption),
                       unless(3, signature), out.data(), &out.len),
                  AVEN_E_NULL_POINTER);
        EXPECT_EQ(out.len, 0u);
    }
    EXPECT_EQ(exchange(ke, answer, 256).code, 0);
}

TEST_F(KeyExchange, ChannelChecksItsBuffers)
{
    const Channel channel = connect(worldOf(KeyKind::Sm2));
    const std::string text = pattern(33), sealed = sealMessage(channel.keys, text);
    const struct {
        ChannelFunction function;
        const std::string& in;
        size_t needed;
        bool answersQueries;
    } rows[] = {
        {engine.aven_ke_encrypt, text, 33 + 28, false},
        {engine.aven_ke_decrypt, sealed, 33, false},
        {engine.aven_ke_hmac, text, 32, true},
        {engine.aven_ke_cmac, text, 16, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        const Exact in(row.in);
        checkCapacities(row.needed, [&](unsigned char* out, uint32_t* len) {
            return row.function(channel.ke, in.data(), in.size(), out, len);
        });
        for (size_t capacity : {row.needed, row.needed + 1, row.needed + 64}) {
            const Result result = call(row.function, channel.ke, row.in, capacity);
            EXPECT_EQ(result.code, 0);
            EXPECT_EQ(result.len, row.needed);
        }
        uint32_t len = 0;
        EXPECT_EQ(row.function(channel.ke, in.data(), in.size(), nullptr, &len),
                  row.answersQueries ? 0 : AVEN_E_BUFFER_TOO_SMALL);
        EXPECT_EQ(len, row.needed);

        Fenced out(200);
        EXPECT_EQ(row.function(channel.ke, nullptr, 1, out.data(), &out.len), AVEN_E_NULL_POINTER);
        EXPECT_EQ(out.len, 0u);
    }
    // Nothing is fine, too.
    EXPECT_EQ(openMessage(channel.keys, encrypt(channel.ke, "").out), "");
    Fenced out(64);
    EXPECT_EQ(engine.aven_ke_hmac(channel.ke, nullptr, 0, out.data(), &out.len), 0);
    EXPECT_EQ(out.text(), channelHmac(channel.keys, ""));
}

}  // namespace
