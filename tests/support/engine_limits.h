// One engine with all that its functions may be given: keys, a certificate, blocks that are
// right, sessions of each stage. For tests that change one thing of it at a time.
#ifndef CORVANE_TESTS_ENGINE_LIMITS_H
#define CORVANE_TESTS_ENGINE_LIMITS_H

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "support/engine_everything.h"
#include "support/held.h"

namespace support {

class EngineLimits : public KeyedEngineTest {
protected:
    void SetUp() override
    {
        KeyedEngineTest::SetUp();
        rsa = privateKey("rsa2048");
        sm2 = privateKey("sm2");
        rsaCertificate = certificate("rsa2048");
        cbc = {AVEN_CIPHER_AES_128, AVEN_MODE_CBC, 1, dataOf(key), 16, dataOf(iv), 16, nullptr, 0};
        gcm = {AVEN_CIPHER_AES_128,
               AVEN_MODE_GCM,
               0,
               dataOf(key),
               16,
               dataOf(iv),
               12,
               dataOf(aad),
               20};
        mac = {AVEN_HASH_SM3, dataOf(key), 16};
        rsaPkey = {rsa, AVEN_RSA_OAEP, 0, 0};
        sm2Raw = {sm2, 0, 1, 0};
        envelope = {AVEN_CIPHER_AES_128, AVEN_MODE_CBC, rsa, rsaCertificate};
    }

    void* newSession()
    {
        void* ke = nullptr;
        EXPECT_EQ(engine.aven_ke_new(&ke), 0);
        return ke;
    }

    void* greetedSession(std::string& hello)
    {
        void* ke = newSession();
        const std::string& roots = server(KeyKind::Rsa).rootFile();
        EXPECT_EQ(engine.aven_ke_set_root_certificate(ke, roots.c_str(), nullptr), 0);
        unsigned char bytes[32];
        uint32_t length = 32;
        EXPECT_EQ(engine.aven_ke_client_hello(ke, bytes, &length), 0);
        hello.assign(reinterpret_cast<char*>(bytes), length);
        return ke;
    }

    void* establishedSession(std::shared_ptr<ChannelKeys>& keys)
    {
        void* ke = newSession();
        EXPECT_EQ(server(KeyKind::Rsa).establish(engine, ke, keys), 0);
        return ke;
    }

    // What a call with an output gives.
    using Call = std::function<int(unsigned char* out, uint32_t* outLength)>;
    std::string sealed(const Call& call)
    {
        std::string text(5000, '\0');
        uint32_t length = sizeOf(text);
        EXPECT_EQ(call(reinterpret_cast<unsigned char*>(text.data()), &length), 0);
        text.resize(length);
        return text;
    }

    const std::string key = pattern(16), iv = pattern(16, 2), aad = pattern(20, 3);
    const std::string data = pattern(40, 4);
    void* rsa = nullptr;
    void* sm2 = nullptr;
    void* rsaCertificate = nullptr;
    SymmCipherParams cbc, gcm;
    MacParams mac;
    PkeyCipherParams rsaPkey, sm2Raw;
    EnvelopeParams envelope;

    // For calls that must not, or need not, write.
    unsigned char out[5000];
    uint32_t len = sizeof out;
    unsigned char tag[16];
    void* handle = nullptr;
};

}  // namespace support

#endif
