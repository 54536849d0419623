// What the key exchange and its channel leave in memory.
#include "engine/mac.h"
#include "engine_traces_material.h"
#include "peer/ke_server.h"
#include "support/files.h"

namespace {

using namespace support;

// What goes to and fro in an exchange, and its secrets.
struct Wire {
    Held hello;
    Held random, signing, encryption, signature;  // the server's answer
    Held message;
    Held preMaster, master, keys;
};

class ExchangeTraces : public MaterialTraces {
protected:
    void SetUp() override
    {
        MaterialTraces::SetUp();
        inChild([&] {
            const Credential root = makeRoot(rootPlan(), GetParam());
            const ServerCredentials server = {makeCredential(signingPlan(), GetParam(), root),
                                              makeCredential(encryptionPlan(), GetParam(), root)};
            writeCredentials(folder.path("server"), root, server);
        });
        ASSERT_EQ(engine.aven_ke_new(&ke), 0);
    }

    ServerCredentials server() const { return readCredentials(folder.path("server")); }

    void greet()
    {
        ASSERT_EQ(code([&] {
                      return engine.aven_ke_set_root_certificate(
                          ke, folder.path("server/root.crt").c_str(), nullptr);
                  }),
                  0);
        wire.hello = vault.room(32);
        ASSERT_EQ(code([&] {
                      return engine.aven_ke_client_hello(ke, wire.hello.data, &wire.hello.size);
                  }),
                  0);
        inChild([&] {
            const ServerAnswer answer = answerHello(server(), std::string(wire.hello.view()));
            wire.random = vault.hold(answer.random);
            wire.signing = vault.hold(answer.signingCertificate);
            wire.encryption = vault.hold(answer.encryptionCertificate);
            wire.signature = vault.hold(answer.signature);
        });
    }

    int exchange(uint32_t capacity = 256)
    {
        wire.message = vault.room(256);
        wire.message.size = capacity;
        return code([&] {
            return engine.aven_ke_client_key_exchange(
                ke, wire.random.data, wire.random.size, wire.signing.data, wire.signing.size,
                wire.encryption.data, wire.encryption.size, wire.signature.data,
                wire.signature.size, wire.message.data, &wire.message.size);
        });
    }

    // What the server makes of the client's message.
    void accept()
    {
        inChild([&] {
            const ServerCredentials own = server();
            wire.preMaster = vault.hold(opened(own.encryption.key.get()));
            const ChannelKeys keys = channelKeys(own);
            wire.keys = vault.hold(textOfBytes(keys.block()));
            EVP_MAC* kind = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
            const MacContext hmac = prepareHmac(kind, keHashName(keys.hash()));
            const SecretBytes master =
                kePrf(hmac.get(), {wire.preMaster.data, wire.preMaster.size}, "master secret",
                      {wire.hello.data, 32}, {wire.random.data, 32}, KE_SECRET);
            wire.master = vault.hold(textOfBytes(view(master)));
        });
        mark("pre-master secret", wire.preMaster);
        mark("master secret", wire.master);
    }

    // The client's data, sealed by the server.
    Held sealedByServer(Held data)
    {
        Held& sealed = vault.make<Held>();
        inChild([&] {
            sealed = vault.hold(sealMessage(channelKeys(server()), std::string(data.view())));
        });
        return sealed;
    }

    void end()
    {
        EXPECT_EQ(code([&] { return engine.aven_ke_free(ke); }), 0);
        mark("pre-master secret", wire.preMaster);
        mark("master secret", wire.master);
        mark("keys", wire.keys);
        expectNoTraces();
    }

    TemporaryFolder folder;
    Wire& wire = vault.make<Wire>();
    void* ke = nullptr;

private:
    static std::string textOfBytes(Bytes bytes)
    {
        return {reinterpret_cast<const char*>(bytes.data), bytes.size};
    }

    ChannelKeys channelKeys(const ServerCredentials& own) const
    {
        return acceptKeyExchange(own, std::string(wire.hello.view()),
                                 std::string(wire.random.view()), std::string(wire.message.view()));
    }

    std::string opened(EVP_PKEY* key) const
    {
        EVP_PKEY_CTX* context = EVP_PKEY_CTX_new(key, nullptr);
        EVP_PKEY_decrypt_init(context);
        std::string out(1000, '\0');
        size_t size = out.size();
        if (EVP_PKEY_decrypt(context, reinterpret_cast<unsigned char*>(out.data()), &size,
                             wire.message.data, wire.message.size) != 1)
            throw std::runtime_error("the message does not open");
        out.resize(size);
        return out;
    }
};

TEST_P(ExchangeTraces, NoneRemainOfSecretsAndKeys)
{
    greet();
    wire.signature.data[wire.signature.size - 1] ^= 1;
    EXPECT_EQ(exchange(), AVEN_E_KE_SIGNATURE);
    wire.signature.data[wire.signature.size - 1] ^= 1;
    ASSERT_EQ(exchange(), 0);
    accept();
    expectNoTraces();
    end();
}

// The message is made and does not fit: what it carries is known to nobody, but it must be made
// of other secrets than the next one.
TEST_P(ExchangeTraces, NoneRemainIfTheMessageDoesNotFit)
{
    greet();
    EXPECT_EQ(exchange(100), AVEN_E_BUFFER_TOO_SMALL);
    ASSERT_EQ(exchange(), 0);
    accept();
    end();
}

TEST_P(ExchangeTraces, NoneRemainOfChannelData)
{
    greet();
    ASSERT_EQ(exchange(), 0);
    accept();
    expectNoTraces();
    for (size_t size : {size_t{100}, size_t{1} << 20}) {
        SCOPED_TRACE(size);
        const Held data = secret("data", size);
        Held out = vault.room(size + KE_OVERHEAD), mac = vault.room(32);
        EXPECT_EQ(code([&] {
                      return engine.aven_ke_encrypt(ke, data.data, data.size, out.data, &out.size);
                  }),
                  0);
        expectNoTraces();
        mark("data", data);
        EXPECT_EQ(code([&] {
                      return engine.aven_ke_hmac(ke, data.data, data.size, mac.data, &mac.size);
                  }),
                  0);
        expectNoTraces();
        mark("data", data);
        mac.size = 32;
        EXPECT_EQ(code([&] {
                      return engine.aven_ke_cmac(ke, data.data, data.size, mac.data, &mac.size);
                  }),
                  0);
        expectNoTraces();

        const Held sealed = sealedByServer(data);
        mark("data", data);
        EXPECT_EQ(code([&] {
                      return engine.aven_ke_decrypt(ke, sealed.data, sealed.size, out.data,
                                                    &out.size);
                  }),
                  0);
        EXPECT_EQ(out.view(), data.view());
        expectNoTraces();
        mark("data", data);
        sealed.data[sealed.size - 1] ^= 1;
        EXPECT_EQ(code([&] {
                      return engine.aven_ke_decrypt(ke, sealed.data, sealed.size, out.data,
                                                    &out.size);
                  }),
                  AVEN_E_TAG_MISMATCH);
        out.size = 1;
        EXPECT_EQ(code([&] {
                      return engine.aven_ke_encrypt(ke, data.data, data.size, out.data, &out.size);
                  }),
                  AVEN_E_BUFFER_TOO_SMALL);
        expectNoTraces();
    }
    end();
}

TEST_P(ExchangeTraces, NoneRemainOfTheClientsKeys)
{
    for (int i = 0; i < material.textCount; ++i) {
        const KeyText& key = material.texts[i];
        SCOPED_TRACE(key.name);
        EXPECT_EQ(code([&] {
                      return engine.aven_ke_set_public_key(
                          ke, key.text.data, key.text.size, key.text.data, key.text.size,
                          reinterpret_cast<const char*>(material.password.data));
                  }),
                  0);
        EXPECT_NE(code([&] {
                      return engine.aven_ke_set_public_key(ke, key.text.data, key.text.size,
                                                           material.otherKey.data,
                                                           material.otherKey.size - 40, nullptr);
                  }),
                  0);
        EXPECT_EQ(code([&] { return engine.aven_ke_free(ke); }), 0);
        markMaterial();
        expectNoTraces();
        ASSERT_EQ(engine.aven_ke_new(&ke), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Both, ExchangeTraces, testing::Values(KeyKind::Sm2, KeyKind::Rsa),
                         nameOfKind);

}  // namespace
