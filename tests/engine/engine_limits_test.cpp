// The development engine's limits, function by function: lengths up to the largest, and
// numbers and handles that mean nothing.
#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "support/engine_limits.h"

namespace {

using support::dataOf;
using support::EngineLimits;
using support::privatePem;
using support::server;
using support::sizeOf;

// The largest length that there is, readable as zeros that take no memory until read.
class Endless {
public:
    static constexpr uint32_t SIZE = UINT32_MAX;

    Endless()
        : m_memory(
              mmap(nullptr, SIZE, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0))
    {
        if (m_memory == MAP_FAILED)
            abort();
    }
    Endless(const Endless&) = delete;
    Endless& operator=(const Endless&) = delete;
    ~Endless() { munmap(m_memory, SIZE); }

    const unsigned char* data() const { return static_cast<const unsigned char*>(m_memory); }

private:
    void* m_memory;
};

// ---- The largest lengths

// Calls one function after the other with a length that is the largest.
class EngineLargest : public EngineLimits {
protected:
    void SetUp() override
    {
        EngineLimits::SetUp();
        if (support::emulated)
            GTEST_SKIP() << "reads gigabytes, which takes the emulator half a minute";
    }

    // `expected` is the code, `needed` the length that is stored: 0, or what would be needed.
    template <class Call>
    void refused(int line, int expected, uint32_t needed, const Call& call)
    {
        len = sizeof out;
        EXPECT_EQ(call(), expected) << "line " << line;
        EXPECT_EQ(len, needed) << "line " << line;
    }

    const Endless endless;
    const unsigned char* in = endless.data();
    const unsigned char* some = dataOf(data);
    uint32_t* n = &len;
    static constexpr uint32_t MOST = Endless::SIZE;
};

#define REFUSED(expected, needed, function, ...) \
    refused(__LINE__, expected, needed, [&] { return function(__VA_ARGS__); })

TEST_F(EngineLargest, TextsAndCiphertextsAreRefused)
{
    REFUSED(AVEN_E_INPUT_TOO_LONG, 0, engine.aven_crypto_base64_encode, in, MOST, out, n);
    REFUSED(AVEN_E_BASE64_CHARACTER, 0, engine.aven_crypto_base64_decode, in, MOST, out, n);
    REFUSED(AVEN_E_INPUT_TOO_LONG, 0, engine.aven_crypto_encrypt, &cbc, in, MOST, out, n, 0,
            nullptr);
    REFUSED(AVEN_E_BUFFER_TOO_SMALL, MOST, engine.aven_crypto_encrypt, &gcm, in, MOST, out, n, 16,
            tag);
    REFUSED(AVEN_E_BUFFER_TOO_SMALL, MOST, engine.aven_crypto_decrypt, &gcm, in, MOST, tag, 16, out,
            n);
    REFUSED(AVEN_E_BUFFER_TOO_SMALL, MOST, engine.aven_crypto_decrypt, &cbc, in, MOST, nullptr, 0,
            out, n);
    REFUSED(AVEN_E_TAG_LENGTH, 0, engine.aven_crypto_decrypt, &gcm, some, 40, in, MOST, out, n);
    REFUSED(AVEN_E_INPUT_TOO_LONG, 0, engine.aven_wbsm4_encrypt, 1, some, 16, some, 16, in, MOST,
            out, n);
    REFUSED(AVEN_E_BUFFER_TOO_SMALL, MOST, engine.aven_wbsm4_decrypt, 1, some, 16, some, 16, in,
            MOST, out, n);
    REFUSED(AVEN_E_KEY_LENGTH, 0, engine.aven_wbsm4_encrypt, 1, in, MOST, some, 16, some, 40, out,
            n);
    REFUSED(AVEN_E_IV_LENGTH, 0, engine.aven_wbsm4_decrypt, 1, some, 16, in, MOST, some, 40, out,
            n);
    EXPECT_EQ(engine.aven_crypto_kdf(0, in, MOST, 16, out), AVEN_E_INPUT_TOO_LONG);
}

TEST_F(EngineLargest, FieldsOfBlocksAreRefused)
{
    for (auto lengths : {&SymmCipherParams::key_len, &SymmCipherParams::iv_len}) {
        SymmCipherParams params = cbc;
        params.key = params.iv = in;
        params.*lengths = MOST;
        const bool isKey = lengths == &SymmCipherParams::key_len;
        REFUSED(isKey ? AVEN_E_KEY_LENGTH : AVEN_E_IV_LENGTH, 0, engine.aven_crypto_encrypt,
                &params, some, 40, out, n, 0, nullptr);
    }
    SymmCipherParams params = cbc;
    params.aad = in;
    params.aad_len = MOST;
    REFUSED(AVEN_E_NOT_AUTHENTICATED, 0, engine.aven_crypto_encrypt, &params, some, 40, out, n, 0,
            nullptr);
    params = gcm;
    params.iv = in;
    params.iv_len = MOST;
    REFUSED(AVEN_E_IV_LENGTH, 0, engine.aven_crypto_encrypt, &params, some, 40, out, n, 16, tag);
    mac.key = in;
    mac.key_len = MOST;
    REFUSED(AVEN_E_KEY_LENGTH, 0, engine.aven_crypto_cmac, &mac, some, 40, out, n);
}

TEST_F(EngineLargest, KeysAndWhatTheyTakeAreRefused)
{
    REFUSED(AVEN_E_INPUT_TOO_LONG, 0, engine.aven_crypto_public_encrypt, &rsaPkey, in, MOST, out,
            n);
    REFUSED(AVEN_E_INPUT_TOO_LONG, 0, engine.aven_crypto_public_encrypt, &sm2Raw, in, MOST, out, n);
    REFUSED(AVEN_E_DECRYPTION, 0, engine.aven_crypto_private_decrypt, &rsaPkey, in, MOST, out, n);
    REFUSED(AVEN_E_DECRYPTION, 0, engine.aven_crypto_private_decrypt, &sm2Raw, in, MOST, out, n);
    REFUSED(AVEN_E_INPUT_TOO_LONG, 0, engine.aven_crypto_pkcs7_encrypt, &envelope, in, MOST, out,
            n);
    REFUSED(AVEN_E_ENVELOPE_TEXT, 0, engine.aven_crypto_pkcs7_decrypt, &envelope, in, MOST, out, n);
    EXPECT_EQ(engine.aven_keypair_unmarshal(0, in, MOST, nullptr, 0, nullptr, &handle),
              AVEN_E_INPUT_TOO_LONG);
    EXPECT_EQ(engine.aven_keypair_unmarshal(0, nullptr, 0, in, MOST, nullptr, &handle),
              AVEN_E_INPUT_TOO_LONG);
    EXPECT_EQ(engine.aven_certificate_unmarshal(in, MOST, nullptr, &handle), AVEN_E_INPUT_TOO_LONG);
}

TEST_F(EngineLargest, MessagesOfAChannelAreRefused)
{
    std::shared_ptr<ChannelKeys> keys;
    void* ke = establishedSession(keys);
    REFUSED(AVEN_E_INPUT_TOO_LONG, 0, engine.aven_ke_encrypt, ke, in, MOST, out, n);
    REFUSED(AVEN_E_BUFFER_TOO_SMALL, MOST - 28, engine.aven_ke_decrypt, ke, in, MOST, out, n);
}

TEST_F(EngineLargest, PartsOfAKeyExchangeAreRefused)
{
    void* fresh = newSession();
    std::string hello;
    void* greeted = greetedSession(hello);
    const ServerAnswer answer = server(KeyKind::Rsa).answer(hello);

    const auto certificates = [&](const unsigned char* signing, uint32_t signingLength,
                                  const unsigned char* signature, uint32_t signatureLength) {
        return engine.aven_ke_client_key_exchange(
            greeted, dataOf(answer.random), sizeOf(answer.random), signing, signingLength,
            dataOf(answer.encryptionCertificate), sizeOf(answer.encryptionCertificate), signature,
            signatureLength, out, n);
    };
    REFUSED(AVEN_E_INPUT_TOO_LONG, 0, certificates, in, MOST, some, 40);
    REFUSED(AVEN_E_KE_SIGNATURE, 0, certificates, dataOf(answer.signingCertificate),
            sizeOf(answer.signingCertificate), in, MOST);
    REFUSED(AVEN_E_KE_SERVER_RANDOM, 0, engine.aven_ke_client_key_exchange, greeted, in, MOST, some,
            40, some, 40, some, 40, out, n);
    EXPECT_EQ(engine.aven_ke_set_public_key(fresh, in, MOST, nullptr, 0, nullptr),
              AVEN_E_INPUT_TOO_LONG);
    EXPECT_EQ(engine.aven_ke_set_certificate(fresh, in, MOST, nullptr, 0, nullptr),
              AVEN_E_INPUT_TOO_LONG);
}

#undef REFUSED

// ---- Numbers that mean nothing

class EngineNumbers : public EngineLimits {
protected:
    // The code that both directions end with.
    int codeOfCipher(int alg, int mode, int padding)
    {
        const unsigned char* in = dataOf(data);
        SymmCipherParams params = cbc;
        params.alg = alg;
        params.mode = mode;
        params.padding = padding;
        const int code =
            engine.aven_crypto_encrypt(&params, in, 32, out, &(len = sizeof out), 0, nullptr);
        EXPECT_EQ(engine.aven_crypto_decrypt(&params, in, 32, nullptr, 0, out, &(len = sizeof out)),
                  code);
        return code;
    }

    int codeOfEnvelope(int alg, int mode)
    {
        const unsigned char* in = dataOf(data);
        const EnvelopeParams params = {alg, mode, rsa, rsaCertificate};
        const int code = engine.aven_crypto_pkcs7_encrypt(&params, in, 8, out, &(len = sizeof out));
        EXPECT_EQ(engine.aven_crypto_pkcs7_decrypt(&params, in, 8, out, &(len = sizeof out)), code);
        return code;
    }

    int codeOfPublicKey(const PkeyCipherParams& params)
    {
        const unsigned char* in = dataOf(data);
        const int code =
            engine.aven_crypto_public_encrypt(&params, in, 8, out, &(len = sizeof out));
        EXPECT_EQ(engine.aven_crypto_private_decrypt(&params, in, 8, out, &(len = sizeof out)),
                  code);
        return code;
    }
};

// Numbers of which some mean something.
constexpr int32_t NUMBERS[] = {INT32_MIN, -1, 0, 7, 8, 100, INT32_MAX};

TEST_F(EngineNumbers, CipherNumbersOutsideTheirSetAreRefused)
{
    const unsigned char* in = dataOf(data);
    for (int number : NUMBERS) {
        if (number == 7)
            continue;
        SCOPED_TRACE(number);
        EXPECT_EQ(codeOfCipher(number, AVEN_MODE_CBC, 1), AVEN_E_CIPHER_NUMBER);
        EXPECT_EQ(codeOfEnvelope(number, AVEN_MODE_CBC), AVEN_E_CIPHER_NUMBER);
        EXPECT_EQ(engine.aven_crypto_gen_symmkey(number, out, &(len = sizeof out)),
                  AVEN_E_CIPHER_NUMBER);
        mac.alg = number;
        EXPECT_EQ(engine.aven_crypto_cmac(&mac, in, 8, out, &(len = sizeof out)),
                  AVEN_E_CIPHER_NUMBER);
    }
}

TEST_F(EngineNumbers, ModesAndPaddingsOutsideTheirSetsAreRefused)
{
    for (int number : NUMBERS) {
        SCOPED_TRACE(number);
        EXPECT_EQ(codeOfCipher(AVEN_CIPHER_SM4, number, 1), AVEN_E_MODE_NUMBER);
        EXPECT_EQ(codeOfEnvelope(AVEN_CIPHER_SM4, number), AVEN_E_MODE_NUMBER);
        if (number != 0) {
            EXPECT_EQ(codeOfCipher(AVEN_CIPHER_SM4, AVEN_MODE_CBC, number), AVEN_E_PADDING_NUMBER);
        }
    }
}

TEST_F(EngineNumbers, HashNumbersOutsideTheirSetAreRefused)
{
    const unsigned char* in = dataOf(data);
    for (int number : NUMBERS) {
        SCOPED_TRACE(number);
        mac.alg = number;
        EXPECT_EQ(engine.aven_crypto_hmac(&mac, in, 8, out, &(len = sizeof out)),
                  AVEN_E_HASH_NUMBER);
        if (number != 0) {
            EXPECT_EQ(engine.aven_crypto_kdf(number, in, 8, 16, out), AVEN_E_HASH_NUMBER);
        }
    }
}

TEST_F(EngineNumbers, KeyTypesPaddingsAndFormsOutsideTheirSetsAreRefused)
{
    const std::string keyText = privatePem("sm2");
    for (int number : NUMBERS) {
        if (number == 0)
            continue;
        SCOPED_TRACE(number);
        EXPECT_EQ(engine.aven_keypair_unmarshal(number, dataOf(keyText), sizeOf(keyText), nullptr,
                                                0, nullptr, &handle),
                  AVEN_E_KEY_TYPE);
        for (PkeyCipherParams pkey : {rsaPkey, sm2Raw}) {
            pkey.rsa_padding_e = number;
            EXPECT_EQ(codeOfPublicKey(pkey), AVEN_E_RSA_PADDING);
        }
        for (auto flag : {&PkeyCipherParams::no_asn1, &PkeyCipherParams::no_c1c3c2}) {
            PkeyCipherParams pkey = sm2Raw;
            pkey.*flag = number;
            EXPECT_EQ(codeOfPublicKey(pkey), AVEN_E_SM2_FORM);
        }
    }
}

TEST_F(EngineNumbers, WhiteBoxKindsOutsideTheirSetAreRefused)
{
    const unsigned char* in = dataOf(data);
    for (int number : NUMBERS) {
        SCOPED_TRACE(number);
        EXPECT_EQ(engine.aven_wbsm4_encrypt(number, dataOf(key), 16, dataOf(iv), 16, in, 8, out,
                                            &(len = sizeof out)),
                  AVEN_E_WHITEBOX_KIND);
        EXPECT_EQ(engine.aven_wbsm4_decrypt(number, dataOf(key), 16, dataOf(iv), 16, in, 16, out,
                                            &(len = sizeof out)),
                  AVEN_E_WHITEBOX_KIND);
        EXPECT_EQ(len, 0u);
    }
}

// Handles are looked up, never followed.
TEST_F(EngineLimits, ForeignHandlesAreRefused)
{
    const unsigned char* in = dataOf(data);
    void* ke = newSession();
    void* freed = newSession();
    EXPECT_EQ(engine.aven_ke_free(freed), 0);
    int object = 0;
    void* const foreign[] = {reinterpret_cast<void*>(1), &object, this, freed,
                             reinterpret_cast<void*>(UINTPTR_MAX)};
    const auto notASession = [&](void* handleOfOther) {
        const std::string& text = privatePem("sm2");
        const std::string& roots = server(KeyKind::Rsa).rootFile();
        uint32_t n = sizeof out;
        for (int code : {
                 engine.aven_ke_set_public_key(handleOfOther, dataOf(text), sizeOf(text), nullptr,
                                               0, nullptr),
                 engine.aven_ke_set_certificate(handleOfOther, dataOf(text), sizeOf(text), nullptr,
                                                0, nullptr),
                 engine.aven_ke_set_root_certificate(handleOfOther, roots.c_str(), nullptr),
                 engine.aven_ke_client_hello(handleOfOther, out, &(n = sizeof out)),
                 engine.aven_ke_client_key_exchange(handleOfOther, in, 32, in, 8, in, 8, in, 8, out,
                                                    &(n = sizeof out)),
                 engine.aven_ke_encrypt(handleOfOther, in, 8, out, &(n = sizeof out)),
                 engine.aven_ke_decrypt(handleOfOther, in, 40, out, &(n = sizeof out)),
                 engine.aven_ke_hmac(handleOfOther, in, 8, out, &(n = sizeof out)),
                 engine.aven_ke_cmac(handleOfOther, in, 8, out, &(n = sizeof out)),
                 engine.aven_ke_free(handleOfOther),
             })
            EXPECT_EQ(code, AVEN_E_HANDLE);
    };
    const auto notAKey = [&](void* handleOfOther) {
        rsaPkey.keypair = handleOfOther;
        EXPECT_EQ(engine.aven_crypto_public_encrypt(&rsaPkey, in, 8, out, &(len = sizeof out)),
                  AVEN_E_HANDLE);
        EXPECT_EQ(engine.aven_crypto_private_decrypt(&rsaPkey, in, 8, out, &(len = sizeof out)),
                  AVEN_E_HANDLE);
        envelope.keypair = handleOfOther;
        EXPECT_EQ(engine.aven_crypto_pkcs7_decrypt(&envelope, in, 8, out, &(len = sizeof out)),
                  AVEN_E_HANDLE);
        EXPECT_EQ(engine.aven_keypair_free(handleOfOther), AVEN_E_HANDLE);
    };
    const auto notACertificate = [&](void* handleOfOther) {
        envelope.certificate = handleOfOther;
        EXPECT_EQ(engine.aven_crypto_pkcs7_encrypt(&envelope, in, 8, out, &(len = sizeof out)),
                  AVEN_E_HANDLE);
        EXPECT_EQ(engine.aven_certificate_free(handleOfOther), AVEN_E_HANDLE);
    };
    for (void* other : foreign) {
        notASession(other);
        notAKey(other);
        notACertificate(other);
    }
    notASession(rsa);
    notASession(rsaCertificate);
    notAKey(ke);
    notAKey(rsaCertificate);
    notACertificate(ke);
    notACertificate(rsa);
}

}  // namespace
