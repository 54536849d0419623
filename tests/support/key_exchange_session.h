// A client's session of the development engine beside a server: every call of a key exchange,
// each with its own buffers, which are looked at for what was written beside them.
#ifndef CORVANE_TESTS_KEY_EXCHANGE_SESSION_H
#define CORVANE_TESTS_KEY_EXCHANGE_SESSION_H

#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include <memory>
#include <string>

#include "peer/ke_server.h"
#include "support/held.h"
#include "support/openssl_tool.h"

namespace support {

constexpr KeyKind kinds[] = {KeyKind::Sm2, KeyKind::Rsa};

inline const char* nameOf(KeyKind kind)
{
    return kind == KeyKind::Sm2 ? "SM2" : "RSA";
}

inline std::string stringOf(Bytes bytes)
{
    return std::string(reinterpret_cast<const char*>(bytes.data), bytes.size);
}

// One kind's root and server, made once, and the root's file.
struct World {
    TemporaryFolder directory;
    Credential root;
    ServerCredentials server;
    std::string rootFile;

    explicit World(KeyKind kind)
        : root(makeRoot(rootPlan(), kind)),
          server{makeCredential(signingPlan(), kind, root),
                 makeCredential(encryptionPlan(), kind, root)},
          rootFile(directory.write("root.crt", toPem(root.certificate.get())))
    {
    }
};

inline const World& worldOf(KeyKind kind)
{
    static const World sm2(KeyKind::Sm2);
    static const World rsa(KeyKind::Rsa);
    return kind == KeyKind::Sm2 ? sm2 : rsa;
}

using ChannelFunction = int (*)(void*, const unsigned char*, uint32_t, unsigned char*, uint32_t*);

// A session that has come all the way, and the peer's keys.
struct Channel {
    void* ke;
    ChannelKeys keys;
};

class KeyExchange : public EngineTest {
protected:
    void* newSession()
    {
        void* ke = nullptr;
        EXPECT_EQ(engine.aven_ke_new(&ke), 0);
        return ke;
    }

    // One that trusts the roots in a file.
    void* newSession(const std::string& rootFile)
    {
        void* ke = newSession();
        EXPECT_EQ(engine.aven_ke_set_root_certificate(ke, rootFile.c_str(), nullptr), 0);
        return ke;
    }

    Result hello(void* ke, size_t capacity = KE_RANDOM)
    {
        Fenced out(capacity);
        return resultOf(engine.aven_ke_client_hello(ke, out.data(), &out.len), out, &Fenced::wiped);
    }

    Result exchange(void* ke, const ServerAnswer& answer, size_t capacity = AVEN_KE_MESSAGE_MAX)
    {
        const Exact random(answer.random), signing(answer.signingCertificate),
            encryption(answer.encryptionCertificate), signature(answer.signature);
        Fenced out(capacity);
        return resultOf(
            engine.aven_ke_client_key_exchange(
                ke, random.data(), random.size(), signing.data(), signing.size(), encryption.data(),
                encryption.size(), signature.data(), signature.size(), out.data(), &out.len),
            out, &Fenced::wiped);
    }

    Result call(ChannelFunction function, void* ke, const std::string& data, size_t capacity)
    {
        const Exact in(data);
        Fenced out(capacity);
        return resultOf(function(ke, in.data(), in.size(), out.data(), &out.len), out,
                        &Fenced::wiped);
    }

    // With the capacities that the plug-in offers.
    Result encrypt(void* ke, const std::string& text)
    {
        return call(engine.aven_ke_encrypt, ke, text, text.size() + 64);
    }
    Result decrypt(void* ke, const std::string& message)
    {
        return call(engine.aven_ke_decrypt, ke, message, message.size() + 64);
    }
    Result hmac(void* ke, const std::string& data)
    {
        return call(engine.aven_ke_hmac, ke, data, KE_HASH);
    }
    Result cmac(void* ke, const std::string& data)
    {
        return call(engine.aven_ke_cmac, ke, data, KE_BLOCK);
    }

    Channel connect(const World& world)
    {
        void* ke = newSession(world.rootFile);
        const std::string greeting = hello(ke).out;
        const ServerAnswer answer = answerHello(world.server, greeting);
        const Result message = exchange(ke, answer);
        EXPECT_EQ(message.code, 0);
        return {ke, acceptKeyExchange(world.server, greeting, answer.random, message.out)};
    }

    // What an exchange with a server, under a root, ends with.
    int codeWith(const ServerCredentials& server, const Credential& root)
    {
        const TemporaryFolder directory;
        void* ke = newSession(directory.write("root.crt", toPem(root.certificate.get())));
        const Result result = exchange(ke, answerHello(server, hello(ke).out));
        EXPECT_EQ(engine.aven_ke_free(ke), 0);
        return result.code;
    }

    int setKeys(void* ke, const std::string& signing, const std::string& encryption,
                const char* password = nullptr)
    {
        const Exact sig(signing), enc(encryption);
        return engine.aven_ke_set_public_key(ke, signing.empty() ? nullptr : sig.data(), sig.size(),
                                             encryption.empty() ? nullptr : enc.data(), enc.size(),
                                             password);
    }

    int setCertificates(void* ke, const std::string& signing, const std::string& encryption)
    {
        const Exact sig(signing), enc(encryption);
        return engine.aven_ke_set_certificate(ke, signing.empty() ? nullptr : sig.data(),
                                              sig.size(), encryption.empty() ? nullptr : enc.data(),
                                              enc.size(), nullptr);
    }
};

// The root with another number and a comment that makes its DER so long.
inline CertificatePtr rootOfSize(const Credential& root, size_t size, int serial)
{
    CertificatePtr certificate(X509_dup(root.certificate.get()), X509_free);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), serial);
    const std::unique_ptr<ASN1_IA5STRING, decltype(&ASN1_IA5STRING_free)> comment(
        ASN1_IA5STRING_new(), ASN1_IA5STRING_free);
    std::string text(size - 1000, 'x');
    for (int round = 0; round < 2; ++round) {  // the first tells what is missing
        ASN1_STRING_set(comment.get(), text.data(), static_cast<int>(text.size()));
        X509_add1_ext_i2d(certificate.get(), NID_netscape_comment, comment.get(), 0,
                          X509V3_ADD_REPLACE);
        unsigned char* der = nullptr;
        i2d_re_X509_tbs(certificate.get(), &der);
        OPENSSL_free(der);
        if (round == 0)
            text += std::string(size - toDer(certificate.get()).size(), 'x');
    }
    EXPECT_EQ(toDer(certificate.get()).size(), size);
    return certificate;
}

}  // namespace support

#endif
