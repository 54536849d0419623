// The client's own keys and certificates in the development engine's key exchange.
#include <string>

#include "support/key_exchange_session.h"

namespace {

using support::KeyExchange;
using support::keyFile;
using support::openssl;
using support::rootOfSize;
using support::toBase64;
using support::World;
using support::worldOf;

class ClientIdentity : public KeyExchange {
protected:
    // A key's text as it comes through a request.
    static std::string privateText(const std::string& name)
    {
        return toBase64(support::derOf(support::privatePem(name)));
    }
    static std::string publicText(const std::string& name)
    {
        return toBase64(support::publicPem(name));
    }
    static std::string certificateText(const std::string& name)
    {
        return toBase64(support::certificatePem(name));
    }
};

TEST_F(ClientIdentity, KeysAndCertificatesThatBelongTogetherAreTaken)
{
    void* ke = newSession();
    EXPECT_EQ(setKeys(ke, privateText("sm2"), privateText("rsa2048")), 0);
    EXPECT_EQ(setCertificates(ke, certificateText("sm2"), certificateText("rsa2048")), 0);
    EXPECT_EQ(setKeys(ke, publicText("sm2"), ""), 0);
    EXPECT_EQ(setKeys(ke, "", publicText("rsa2048")), 0);
    EXPECT_EQ(setKeys(ke, certificateText("sm2"), ""), 0);
    EXPECT_EQ(setCertificates(ke, "", support::certificatePem("rsa2048")), 0);

    // They change nothing about the exchange.
    const World& world = worldOf(KeyKind::Sm2);
    EXPECT_EQ(engine.aven_ke_set_root_certificate(ke, world.rootFile.c_str(), nullptr), 0);
    EXPECT_EQ(exchange(ke, answerHello(world.server, hello(ke).out)).code, 0);
}

TEST_F(ClientIdentity, MismatchIsRefusedInEitherOrderAndChangesNothing)
{
    void* keysFirst = newSession();
    EXPECT_EQ(setKeys(keysFirst, privateText("sm2"), privateText("rsa2048")), 0);
    EXPECT_EQ(setCertificates(keysFirst, certificateText("sm2-other"), ""), AVEN_E_KEY_MISMATCH);
    EXPECT_EQ(setCertificates(keysFirst, "", certificateText("sm2")), AVEN_E_KEY_MISMATCH);
    // The signing certificate fits but must not be kept alone.
    EXPECT_EQ(setCertificates(keysFirst, certificateText("sm2"), certificateText("sm2")),
              AVEN_E_KEY_MISMATCH);
    EXPECT_EQ(setKeys(keysFirst, privateText("sm2-other"), ""), 0);
    EXPECT_EQ(setCertificates(keysFirst, certificateText("sm2-other"), ""), 0);

    void* certificatesFirst = newSession();
    EXPECT_EQ(setCertificates(certificatesFirst, certificateText("sm2"), ""), 0);
    EXPECT_EQ(setKeys(certificatesFirst, privateText("sm2-other"), ""), AVEN_E_KEY_MISMATCH);
    EXPECT_EQ(setKeys(certificatesFirst, publicText("sm2-other"), ""), AVEN_E_KEY_MISMATCH);
    EXPECT_EQ(setKeys(certificatesFirst, privateText("sm2"), ""), 0);
}

TEST_F(ClientIdentity, MalformedTextsAreRefused)
{
    void* ke = newSession();
    EXPECT_EQ(setKeys(ke, "", ""), AVEN_E_KEY_MISSING);
    EXPECT_EQ(setCertificates(ke, "", ""), AVEN_E_KEY_MISSING);
    EXPECT_EQ(setKeys(ke, "no*base64", ""), AVEN_E_BASE64_CHARACTER);
    EXPECT_EQ(setKeys(ke, "*", ""), AVEN_E_BASE64_CHARACTER);
    EXPECT_EQ(setKeys(ke, "", "*"), AVEN_E_BASE64_CHARACTER);
    EXPECT_EQ(setKeys(ke, privateText("sm2"), toBase64("nonsense")), AVEN_E_KEY_TEXT);
    EXPECT_EQ(setCertificates(ke, privateText("sm2"), ""), AVEN_E_KEY_ROLE);
    EXPECT_EQ(setCertificates(ke, publicText("sm2"), ""), AVEN_E_KEY_ROLE);
    const std::string cut = support::derOf(support::certificatePem("sm2"));
    EXPECT_EQ(setCertificates(ke, toBase64(cut.substr(0, cut.size() - 1)), ""), AVEN_E_KEY_TEXT);
    EXPECT_EQ(setCertificates(ke, toBase64(cut + "x"), ""), AVEN_E_KEY_TRAILING);
    EXPECT_EQ(engine.aven_ke_set_public_key(ke, nullptr, 1, nullptr, 0, nullptr),
              AVEN_E_NULL_POINTER);
    EXPECT_EQ(engine.aven_ke_set_certificate(ke, nullptr, 0, nullptr, 1, nullptr),
              AVEN_E_NULL_POINTER);
}

TEST_F(ClientIdentity, SessionsDoNotKeepCertificatesWhole)
{
    const CertificatePtr certificate = rootOfSize(worldOf(KeyKind::Sm2).root, 48000, 1);
    const std::string text = toBase64(toDer(certificate.get()));
    const auto add = [&](int sessions) {
        for (int i = 0; i < sessions; ++i)
            EXPECT_EQ(setCertificates(newSession(), text, text), 0);
        return support::Held::now().allocated;
    };
    const size_t before = add(10);
    EXPECT_LT(add(100), before + 100 * 16384);
}

TEST_F(ClientIdentity, CostlyPasswordsAreRefused)
{
    for (const char* p : {"8", "9"}) {
        const std::string key = openssl().make(
            std::string("pkcs8 -topk8 -scrypt -scrypt_N 16384 -scrypt_r 8 -passout pass:word ") +
                "-scrypt_p " + p + " -in " + keyFile("sm2") + " -out out",
            "out");
        EXPECT_EQ(setKeys(newSession(), toBase64(key), "", "word"),
                  *p == '8' ? 0 : AVEN_E_KEY_COST);
    }
}

TEST_F(ClientIdentity, PasswordOpensEncryptedKeys)
{
    const std::string encrypted = toBase64(
        openssl().make("pkcs8 -topk8 -in " + keyFile("sm2") + " -out sealed.key -passout pass:open",
                       "sealed.key"));
    void* ke = newSession();
    EXPECT_EQ(setKeys(ke, encrypted, ""), AVEN_E_PASSWORD_MISSING);
    EXPECT_EQ(setKeys(ke, encrypted, "", "shut"), AVEN_E_PASSWORD_WRONG);
    EXPECT_EQ(setKeys(ke, encrypted, "", "open"), 0);
    EXPECT_EQ(setCertificates(ke, certificateText("sm2"), ""), 0);
}

}  // namespace
