// A good call of each of the development engine's functions, on real keys and with the
// peer of its key exchange, and arguments for calls that are not to get that far.
#ifndef CORVANE_TESTS_ENGINE_EVERYTHING_H
#define CORVANE_TESTS_ENGINE_EVERYTHING_H

#include <type_traits>

#include "openssl_tool.h"
#include "peer/ke_server.h"

namespace support {

inline const unsigned char* dataOf(const std::string& text)
{
    return reinterpret_cast<const unsigned char*>(text.data());
}

inline uint32_t sizeOf(const std::string& text)
{
    return static_cast<uint32_t>(text.size());
}

// An argument of any type for a call that is not to get as far as looking at it. Where a
// length or a handle would be stored there is one, so that a test can see it cleared.
struct AnyArgument {
    uint32_t* length;
    void** handle;

    operator uint32_t*() const { return length; }
    operator void**() const { return handle; }
    operator int() const { return 1; }
    operator uint32_t() const { return 0; }
    template <class Object>
    operator Object*() const
    {
        return nullptr;
    }
};

// Calls a function of the engine with such arguments.
template <class Result, class... Parameters>
Result callAnyhow(Result (*function)(Parameters...), uint32_t& length, void*& handle)
{
    [[maybe_unused]] const AnyArgument argument = {&length, &handle};
    return function(static_cast<Parameters>(argument)...);
}

// A server with certificates of its own, whose root lies in a file.
class TestServer {
public:
    explicit TestServer(KeyKind kind)
    {
        const Credential root = makeRoot(rootPlan(), kind);
        m_credentials.signing = makeCredential(signingPlan(), kind, root);
        m_credentials.encryption = makeCredential(encryptionPlan(), kind, root);
        const std::string name = kind == KeyKind::Sm2 ? "server-sm2.crt" : "server-rsa.crt";
        openssl().write(name, toPem(root.certificate.get()));
        m_rootFile = openssl().path(name);
    }

    const std::string& rootFile() const { return m_rootFile; }

    ServerAnswer answer(const std::string& hello) const
    {
        return answerHello(m_credentials, hello);
    }

    // Takes a new session through the exchange. Returns the engine's first code that is
    // not 0; else the server's keys are stored, too.
    int establish(const DevkitEngine& engine, void* ke, std::shared_ptr<ChannelKeys>& keys) const
    {
        if (int code = engine.aven_ke_set_root_certificate(ke, m_rootFile.c_str(), nullptr))
            return code;
        std::string hello(32, '\0'), message(256, '\0');
        uint32_t length = 32;
        if (int code = engine.aven_ke_client_hello(
                ke, reinterpret_cast<unsigned char*>(hello.data()), &length))
            return code;
        const ServerAnswer server = answer(hello);
        length = 256;
        if (int code = engine.aven_ke_client_key_exchange(
                ke, dataOf(server.random), sizeOf(server.random), dataOf(server.signingCertificate),
                sizeOf(server.signingCertificate), dataOf(server.encryptionCertificate),
                sizeOf(server.encryptionCertificate), dataOf(server.signature),
                sizeOf(server.signature), reinterpret_cast<unsigned char*>(message.data()),
                &length))
            return code;
        message.resize(length);
        keys = std::make_shared<ChannelKeys>(
            acceptKeyExchange(m_credentials, hello, server.random, message));
        return 0;
    }

private:
    ServerCredentials m_credentials;
    std::string m_rootFile;
};

// Made once for the test program.
inline const TestServer& server(KeyKind kind)
{
    static const TestServer sm2(KeyKind::Sm2), rsa(KeyKind::Rsa);
    return kind == KeyKind::Sm2 ? sm2 : rsa;
}

// Handles that threads share; null ones are made and freed by each use.
struct SharedKeys {
    void* keyPair = nullptr;
    void* certificate = nullptr;
};

// Uses every function of a running engine but the global ones, with results checked.
class Everything {
public:
    explicit Everything(KeyKind kind)
        : m_kind(kind),
          m_keyText(privatePem(kind == KeyKind::Sm2 ? "sm2" : "rsa2048")),
          m_certificateText(certificatePem(kind == KeyKind::Sm2 ? "sm2" : "rsa2048"))
    {
        server(kind);  // before threads begin
    }

    // The first code that is not what it should be; WRONG_RESULT if a result is not.
    static constexpr int WRONG_RESULT = 1;
    int use(const DevkitEngine& engine, SharedKeys shared = {}) const
    {
        try {
            plain(engine);
            keys(engine, shared);
            exchange(engine);
        } catch (const Stop& stop) {
            return stop.code;
        }
        return 0;
    }

    // The same without keys and key exchange, which take most of the time.
    int useQuickly(const DevkitEngine& engine) const
    {
        try {
            plain(engine);
        } catch (const Stop& stop) {
            return stop.code;
        }
        return 0;
    }

    SharedKeys readKeys(const DevkitEngine& engine) const
    {
        SharedKeys keys;
        EXPECT_EQ(readKeyPair(engine, &keys.keyPair), 0);
        EXPECT_EQ(readCertificate(engine, &keys.certificate), 0);
        return keys;
    }

private:
    struct Stop {
        int code;
    };

    // An output buffer for the next call.
    struct Room {
        unsigned char bytes[4096];
        uint32_t length = 0;

        unsigned char* data()
        {
            length = sizeof bytes;
            return bytes;
        }
        std::string text() const { return {reinterpret_cast<const char*>(bytes), length}; }
    };

    static void expect(int code, int expected = 0)
    {
        if (code != expected)
            throw Stop{code == 0 ? WRONG_RESULT : code};
    }

    static void expectSame(const std::string& a, const std::string& b)
    {
        if (a != b)
            throw Stop{WRONG_RESULT};
    }

    void plain(const DevkitEngine& engine) const
    {
        const std::string key = pattern(16), iv = pattern(12, 2), block = pattern(16, 3);
        Room out, back;
        SymmCipherParams cipher = {};
        cipher.alg = AVEN_CIPHER_SM4;
        cipher.mode = AVEN_MODE_GCM;
        cipher.key = dataOf(key);
        cipher.key_len = 16;
        cipher.iv = dataOf(iv);
        cipher.iv_len = 12;
        for (int alg : {AVEN_CIPHER_SM4, AVEN_CIPHER_AES_128}) {
            cipher.alg = alg;
            unsigned char tag[16];
            expect(engine.aven_crypto_encrypt(&cipher, dataOf(m_text), sizeOf(m_text), out.data(),
                                              &out.length, 16, tag));
            expect(engine.aven_crypto_decrypt(&cipher, out.bytes, out.length, tag, 16, back.data(),
                                              &back.length));
            expectSame(back.text(), m_text);
            tag[0] ^= 1;
            expect(engine.aven_crypto_decrypt(&cipher, out.bytes, out.length, tag, 16, back.data(),
                                              &back.length),
                   AVEN_E_TAG_MISMATCH);
        }

        MacParams mac = {};
        mac.alg = 1;
        mac.key = dataOf(key);
        mac.key_len = 16;
        expect(
            engine.aven_crypto_hmac(&mac, dataOf(m_text), sizeOf(m_text), out.data(), &out.length));
        expect(engine.aven_crypto_hmac(&mac, dataOf(m_text), sizeOf(m_text), back.data(),
                                       &back.length));
        expectSame(out.text(), back.text());
        expect(
            engine.aven_crypto_cmac(&mac, dataOf(m_text), sizeOf(m_text), out.data(), &out.length));
        expect(engine.aven_crypto_kdf(0, dataOf(m_text), sizeOf(m_text), 200, out.data()));
        expect(engine.aven_crypto_base64_encode(dataOf(m_text), sizeOf(m_text), out.data(),
                                                &out.length));
        expect(engine.aven_crypto_base64_decode(out.bytes, out.length, back.data(), &back.length));
        expectSame(back.text(), m_text);
        expect(engine.aven_crypto_gen_symmkey(AVEN_CIPHER_AES_256, out.data(), &out.length));
        expect(engine.aven_wbsm4_encrypt(1, dataOf(key), 16, dataOf(block), 16, dataOf(m_text),
                                         sizeOf(m_text), out.data(), &out.length));
        expect(engine.aven_wbsm4_decrypt(1, dataOf(key), 16, dataOf(block), 16, out.bytes,
                                         out.length, back.data(), &back.length));
        expectSame(back.text(), m_text);
    }

    int readKeyPair(const DevkitEngine& engine, void** handle) const
    {
        return engine.aven_keypair_unmarshal(AVEN_KEY_ANY, dataOf(m_keyText), sizeOf(m_keyText),
                                             nullptr, 0, nullptr, handle);
    }

    int readCertificate(const DevkitEngine& engine, void** handle) const
    {
        return engine.aven_certificate_unmarshal(dataOf(m_certificateText),
                                                 sizeOf(m_certificateText), nullptr, handle);
    }

    void keys(const DevkitEngine& engine, SharedKeys shared) const
    {
        SharedKeys keys = shared;
        if (keys.keyPair == nullptr)
            expect(readKeyPair(engine, &keys.keyPair));
        if (keys.certificate == nullptr)
            expect(readCertificate(engine, &keys.certificate));

        Room out, back;
        const PkeyCipherParams pkey = {keys.keyPair, AVEN_RSA_OAEP, 0, 0};
        expect(engine.aven_crypto_public_encrypt(&pkey, dataOf(m_text), sizeOf(m_text), out.data(),
                                                 &out.length));
        expect(engine.aven_crypto_private_decrypt(&pkey, out.bytes, out.length, back.data(),
                                                  &back.length));
        expectSame(back.text(), m_text);

        const EnvelopeParams envelope = {AVEN_CIPHER_SM4, AVEN_MODE_CBC, keys.keyPair,
                                         keys.certificate};
        expect(engine.aven_crypto_pkcs7_encrypt(&envelope, dataOf(m_text), sizeOf(m_text),
                                                out.data(), &out.length));
        expect(engine.aven_crypto_pkcs7_decrypt(&envelope, out.bytes, out.length, back.data(),
                                                &back.length));
        expectSame(back.text(), m_text);

        if (shared.keyPair == nullptr)
            expect(engine.aven_keypair_free(keys.keyPair));
        if (shared.certificate == nullptr)
            expect(engine.aven_certificate_free(keys.certificate));
    }

    void exchange(const DevkitEngine& engine) const
    {
        void* ke = nullptr;
        expect(engine.aven_ke_new(&ke));
        expect(engine.aven_ke_set_public_key(ke, dataOf(m_keyText), sizeOf(m_keyText), nullptr, 0,
                                             nullptr));
        expect(engine.aven_ke_set_certificate(ke, dataOf(m_certificateText),
                                              sizeOf(m_certificateText), nullptr, 0, nullptr));
        std::shared_ptr<ChannelKeys> keys;
        expect(server(m_kind).establish(engine, ke, keys));

        Room out;
        expect(engine.aven_ke_encrypt(ke, dataOf(m_text), sizeOf(m_text), out.data(), &out.length));
        expectSame(openMessage(*keys, out.text()), m_text);
        const std::string message = sealMessage(*keys, m_text);
        expect(
            engine.aven_ke_decrypt(ke, dataOf(message), sizeOf(message), out.data(), &out.length));
        expectSame(out.text(), m_text);
        expect(engine.aven_ke_hmac(ke, dataOf(m_text), sizeOf(m_text), out.data(), &out.length));
        expectSame(out.text(), channelHmac(*keys, m_text));
        expect(engine.aven_ke_cmac(ke, dataOf(m_text), sizeOf(m_text), out.data(), &out.length));
        expectSame(out.text(), channelCmac(*keys, m_text));
        expect(engine.aven_ke_free(ke));
    }

    KeyKind m_kind;
    std::string m_keyText;
    std::string m_certificateText;
    std::string m_text = pattern(100);
};

}  // namespace support

#endif
