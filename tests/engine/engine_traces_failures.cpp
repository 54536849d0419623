// What calls leave in memory that fail for want of memory or because a fault on request strikes
// them, and the proof that traces are found where nothing is wiped.
#include <functional>

#include "engine_traces_material.h"
#include "support/allocation_fault.h"

namespace {

using namespace support;

class FailureTraces : public MaterialTraces {
protected:
    struct Call {
        std::string function;
        std::function<int()> make;
    };

    void SetUp() override
    {
        MaterialTraces::SetUp();
        const Held keyText = material.texts[0].text;
        ASSERT_EQ(engine.aven_keypair_unmarshal(AVEN_KEY_ANY, keyText.data, keyText.size, nullptr,
                                                0, nullptr, &pkey.keypair),
                  0);
        ASSERT_EQ(
            engine.aven_certificate_unmarshal(material.certificate.data, material.certificate.size,
                                              nullptr, &envelope.certificate),
            0);
        envelope.keypair = pkey.keypair;
        envelope.alg = GetParam() == KeyKind::Sm2 ? AVEN_CIPHER_SM4 : AVEN_CIPHER_AES_256;
        envelope.mode = AVEN_MODE_CBC;
        sealedText = vault.room(ROOM);
        ASSERT_EQ(engine.aven_crypto_public_encrypt(&pkey, text.data, text.size, sealedText.data,
                                                    &sealedText.size),
                  0);
        sealedEnvelope = vault.room(ROOM);
        ASSERT_EQ(engine.aven_crypto_pkcs7_encrypt(&envelope, text.data, text.size,
                                                   sealedEnvelope.data, &sealedEnvelope.size),
                  0);
    }

    void markAll()
    {
        mark("key", key);
        mark("text", text);
    }

    // A call of each function that takes a secret or gives one, on its own output buffer.
    std::vector<Call> calls()
    {
        std::vector<Call> all;
        const auto add = [&](const char* function, std::function<int()> make) {
            all.push_back({function, std::move(make)});
        };
        add("aven_crypto_encrypt", [this] {
            return engine.aven_crypto_encrypt(&cipher, text.data, text.size, out.data, fresh(), 16,
                                              tag.data);
        });
        add("aven_crypto_decrypt", [this] {
            return engine.aven_crypto_decrypt(&cipher, text.data, text.size, tag.data, 16, out.data,
                                              fresh());
        });
        add("aven_crypto_hmac", [this] {
            return engine.aven_crypto_hmac(&mac, text.data, text.size, out.data, fresh());
        });
        add("aven_crypto_cmac", [this] {
            return engine.aven_crypto_cmac(&mac, text.data, text.size, out.data, fresh());
        });
        add("aven_crypto_kdf",
            [this] { return engine.aven_crypto_kdf(0, text.data, text.size, 100, out.data); });
        add("aven_wbsm4_encrypt", [this] {
            return engine.aven_wbsm4_encrypt(1, key.data, key.size, iv.data, iv.size, text.data,
                                             text.size, out.data, fresh());
        });
        add("aven_wbsm4_decrypt", [this] {
            return engine.aven_wbsm4_decrypt(1, key.data, key.size, iv.data, iv.size, text.data, 96,
                                             out.data, fresh());
        });
        add("aven_crypto_base64_encode", [this] {
            return engine.aven_crypto_base64_encode(text.data, text.size, out.data, fresh());
        });
        add("aven_crypto_public_encrypt", [this] {
            return engine.aven_crypto_public_encrypt(&pkey, text.data, text.size, out.data,
                                                     fresh());
        });
        add("aven_crypto_private_decrypt", [this] {
            return engine.aven_crypto_private_decrypt(&pkey, sealedText.data, sealedText.size,
                                                      out.data, fresh());
        });
        add("aven_crypto_pkcs7_encrypt", [this] {
            return engine.aven_crypto_pkcs7_encrypt(&envelope, text.data, text.size, out.data,
                                                    fresh());
        });
        add("aven_crypto_pkcs7_decrypt", [this] {
            return engine.aven_crypto_pkcs7_decrypt(&envelope, sealedEnvelope.data,
                                                    sealedEnvelope.size, out.data, fresh());
        });
        return all;
    }

    // Reads the private key in some form and frees it.
    Call reading(const KeyText& form)
    {
        return {form.name, [this, form] {
                    void* handle = nullptr;
                    const int result = engine.aven_keypair_unmarshal(
                        AVEN_KEY_ANY, form.text.data, form.text.size, nullptr, 0,
                        reinterpret_cast<const char*>(material.password.data), &handle);
                    engine.aven_keypair_free(handle);
                    return result;
                }};
    }

    void freeKeys()
    {
        EXPECT_EQ(engine.aven_keypair_free(pkey.keypair), 0);
        EXPECT_EQ(engine.aven_certificate_free(envelope.certificate), 0);
    }

    // Makes allocations of the call fail, one each time: each of the first 32, and ever fewer of
    // the many that follow. Looks once, at the end.
    void failAllocations(const Call& call)
    {
        SCOPED_TRACE(call.function);
        const doubles::Journal journal = {};
        size_t n = 0;
        bool struck = true;
        while (struck) {
            n += 1 + n / 32;
            code([&] {
                const AllocationFault fault = AllocationFault::nth(journal, n);
                const int result = call.make();
                struck = fault.struck();
                return result;
            });
        }
        EXPECT_GT(n, 1U);
    }

    uint32_t* fresh()
    {
        out.size = ROOM;
        return &out.size;
    }

    static constexpr uint32_t ROOM = 4096;

    const Held key = vault.random(16), iv = vault.random(16), text = vault.random(100);
    const Held tag = vault.room(16);
    Held out = vault.room(ROOM);
    SymmCipherParams cipher = {
        AVEN_CIPHER_SM4, AVEN_MODE_GCM, 0, key.data, 16, iv.data, 12, nullptr, 0};
    MacParams mac = {1, key.data, 16};
    PkeyCipherParams pkey = {nullptr, AVEN_RSA_OAEP, 0, 0};
    EnvelopeParams envelope = {};
    Held sealedText, sealedEnvelope;
};

TEST_P(FailureTraces, NoneRemainWithoutMemory)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    for (const Call& call : calls()) {
        if (call.function == "aven_crypto_base64_encode")
            continue;  // allocates nothing
        failAllocations(call);
        markAll();
        expectNoTraces();
    }
    freeKeys();
    if (GetParam() == KeyKind::Rsa)
        return;  // libcrypto wipes no factors if it fails to make the key of them
    for (int i : {0, 3, 5, 11}) {
        failAllocations(reading(material.texts[i]));
        markMaterial();
        expectNoTraces();
    }
}

// The proof that these tests can fail.
TEST_P(FailureTraces, ManyKeysAreFoundWithoutWiping)
{
    const WithoutWiping off;
    freeKeys();
    for (int i = 0; i < material.textCount; ++i) {
        SCOPED_TRACE(material.texts[i].name);
        EXPECT_EQ(code(reading(material.texts[i]).make), 0);
        markMaterial();
        EXPECT_GE(traces().size(), GetParam() == KeyKind::Sm2 ? 3U : 10U);
        forget();
    }
}

TEST_P(FailureTraces, ManyUsesAreFoundWithoutWiping)
{
    const WithoutWiping off;
    size_t found = 0;
    for (const Call& call : calls()) {
        code(call.make);
        markAll();
        found += traces().empty() ? 0 : 1;
        forget();
    }
    EXPECT_GE(found, 7U);
    freeKeys();
}

// Set while the engine's library is loaded, which reads it then.
struct FaultsOnRequest {
    FaultsOnRequest()
    {
        setenv("CORVANE_ENGINE_FAULTS",
               "aven_crypto_encrypt:*=-1;aven_crypto_hmac:*=-1;aven_crypto_kdf:*=-1;"
               "aven_crypto_base64_encode:*=empty;aven_wbsm4_encrypt:*=empty;"
               "aven_keypair_unmarshal:*=-1",
               1);
    }
    ~FaultsOnRequest() { unsetenv("CORVANE_ENGINE_FAULTS"); }
};

class StruckTraces : FaultsOnRequest, public EngineTraces {};

TEST_F(StruckTraces, NoneRemainOfCallsThatAFaultStrikes)
{
    const Held key = secret("key", 16), text = secret("text", 1000), out = vault.room(2000);
    uint32_t size = out.size;
    void* handle = nullptr;
    const SymmCipherParams cipher = {
        AVEN_CIPHER_SM4, AVEN_MODE_ECB, 1, key.data, 16, nullptr, 0, nullptr, 0};
    const MacParams mac = {1, key.data, 16};
    code([&] {
        EXPECT_EQ(
            engine.aven_crypto_encrypt(&cipher, text.data, text.size, out.data, &size, 0, nullptr),
            -1);
        EXPECT_EQ(engine.aven_crypto_hmac(&mac, text.data, text.size, out.data, &size), -1);
        EXPECT_EQ(engine.aven_crypto_kdf(0, text.data, text.size, 100, out.data), -1);
        EXPECT_EQ(engine.aven_crypto_base64_encode(text.data, text.size, out.data, &size), 0);
        EXPECT_EQ(engine.aven_wbsm4_encrypt(1, key.data, 16, key.data, 16, text.data, text.size,
                                            out.data, &size),
                  0);
        EXPECT_EQ(engine.aven_keypair_unmarshal(0, text.data, text.size, nullptr, 0,
                                                reinterpret_cast<const char*>(key.data), &handle),
                  -1);
        return 0;
    });
    expectNoTraces();
}

INSTANTIATE_TEST_SUITE_P(Both, FailureTraces, testing::Values(KeyKind::Sm2, KeyKind::Rsa),
                         nameOfKind);

}  // namespace
