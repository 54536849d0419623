// The development engine while memory runs out: each allocation of a call fails once, wherever it
// is made. The call then says so, and the engine goes on.
#include <openssl/err.h>

#include <algorithm>
#include <string>
#include <vector>

#include "doubles/journal.h"
#include "support/allocation_fault.h"
#include "support/engine_limits.h"

namespace {

using support::AllocationFault;
using support::dataOf;
using support::server;
using support::sizeOf;

class EngineMemory : public support::EngineLimits {
protected:
    using Codes = std::vector<int>;

    // Makes the call with the first, the second, ... allocation failing, until it needs no more.
    // Some of libcrypto's functions do without the memory that they ask for, and some do not say
    // why they fail: `others` are the codes of what they may seem to have found.
    template <class Once>
    void eachAllocation(const char* name, Once call, const Codes& others = {})
    {
        SCOPED_TRACE(name);
        Codes allowed = {0, AVEN_E_NO_MEMORY, AVEN_E_INTERNAL};
        allowed.insert(allowed.end(), others.begin(), others.end());
        size_t refused = 0;
        // libcrypto does not look again for algorithms that it could not load at first.
        ASSERT_EQ(call(), 0);
        for (size_t n = 1;; ++n) {
            int code = 0;
            bool isOver = false;
            {
                const AllocationFault fault = AllocationFault::nth(m_journal, n);
                code = call();
                isOver = !fault.struck();
            }
            if (isOver) {
                EXPECT_EQ(code, 0);
                break;
            }
            EXPECT_EQ(std::count(allowed.begin(), allowed.end(), code), 1)
                << code << ", allocation " << n;
            refused += code != 0 ? 1 : 0;
        }
        EXPECT_GT(refused, 0u);
    }

    const unsigned char* in = dataOf(data);
    const uint32_t inLen = sizeOf(data);

private:
    const doubles::Journal m_journal;
};

TEST_F(EngineMemory, CiphersSayThatItIsShort)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    unsigned char sealed[100];
    uint32_t sealedLength = 0;
    for (int alg : {AVEN_CIPHER_SM4, AVEN_CIPHER_AES_128}) {
        gcm.alg = cbc.alg = alg;
        eachAllocation("seal", [&] {
            return engine.aven_crypto_encrypt(&gcm, in, inLen, sealed,
                                              &(sealedLength = sizeof sealed), 16, tag);
        });
        eachAllocation("open", [&] {
            return engine.aven_crypto_decrypt(&gcm, sealed, sealedLength, tag, 16, out,
                                              &(len = sizeof out));
        });
        eachAllocation("encrypt", [&] {
            return engine.aven_crypto_encrypt(&cbc, in, inLen, sealed,
                                              &(sealedLength = sizeof sealed), 0, nullptr);
        });
        eachAllocation("decrypt", [&] {
            return engine.aven_crypto_decrypt(&cbc, sealed, sealedLength, nullptr, 0, out,
                                              &(len = sizeof out));
        });
    }
}

TEST_F(EngineMemory, MacsAndDerivedKeysSayThatItIsShort)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    eachAllocation(
        "HMAC", [&] { return engine.aven_crypto_hmac(&mac, in, inLen, out, &(len = sizeof out)); });
    eachAllocation(
        "CMAC", [&] { return engine.aven_crypto_cmac(&mac, in, inLen, out, &(len = sizeof out)); });
    eachAllocation("KDF", [&] { return engine.aven_crypto_kdf(0, in, inLen, 100, out); });
}

TEST_F(EngineMemory, EnvelopesSayThatItIsShort)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    void* sm2Certificate = certificate("sm2");
    const EnvelopeParams rows[] = {
        {AVEN_CIPHER_SM4, AVEN_MODE_CBC, rsa, rsaCertificate},
        {AVEN_CIPHER_SM4, AVEN_MODE_GCM, rsa, rsaCertificate},
        {AVEN_CIPHER_SM4, AVEN_MODE_CBC, sm2, sm2Certificate},
    };
    unsigned char sealed[2000];
    uint32_t sealedLength = 0;
    for (const EnvelopeParams& row : rows) {
        eachAllocation("seal", [&] {
            return engine.aven_crypto_pkcs7_encrypt(&row, in, inLen, sealed,
                                                    &(sealedLength = sizeof sealed));
        });
        // An RSA key that had no memory once may open nothing for a while: libcrypto keeps in it
        // what blinds the next use.
        if (row.keypair == rsa)
            continue;
        eachAllocation(
            "open",
            [&] {
                return engine.aven_crypto_pkcs7_decrypt(&row, sealed, sealedLength, out,
                                                        &(len = sizeof out));
            },
            Codes{AVEN_E_ENVELOPE_TEXT, AVEN_E_ENVELOPE_OPEN});
    }
}

TEST_F(EngineMemory, RootsSayThatItIsShort)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    for (KeyKind kind : {KeyKind::Sm2, KeyKind::Rsa}) {
        const std::string& roots = server(kind).rootFile();
        void* session = newSession();
        eachAllocation(
            "roots",
            [&] { return engine.aven_ke_set_root_certificate(session, roots.c_str(), nullptr); },
            Codes{AVEN_E_KEY_TEXT, AVEN_E_KE_ROOTS_OPEN});
    }
}

// A start that fails leaves neither an engine nor errors of libcrypto's behind.
TEST(EngineMemoryAtStart, EngineRunsOnlyIfItSaysSo)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    const doubles::Journal journal;
    support::DevkitEngine engine;
    ERR_clear_error();
    ERR_raise(ERR_LIB_USER, 77);
    const unsigned long before = ERR_peek_last_error();
    size_t refused = 0;
    bool isOver = false;
    // Not every allocation: there are many.
    for (size_t n = 1; !isOver; n += 1 + n / 8) {
        int code = 0;
        {
            const AllocationFault fault = AllocationFault::nth(journal, n);
            code = engine.aven_global_init();
            isOver = !fault.struck();
        }
        EXPECT_TRUE(code == 0 || code == AVEN_E_NO_MEMORY || code == AVEN_E_START ||
                    code == AVEN_E_RANDOM || code == AVEN_E_INTERNAL)
            << code << ", allocation " << n;
        EXPECT_EQ(ERR_peek_last_error(), before) << n;
        void* ke = nullptr;
        EXPECT_EQ(engine.aven_ke_new(&ke), code == 0 ? 0 : AVEN_E_NOT_INITIALISED) << n;
        refused += code != 0 ? 1 : 0;
        EXPECT_EQ(engine.aven_global_cleanup(), 0);
    }
    EXPECT_GT(refused, 0u);
    EXPECT_EQ(ERR_get_error(), before);
    EXPECT_EQ(ERR_get_error(), 0u);
}

}  // namespace
