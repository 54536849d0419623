// The server that the development engine accepts: the openssl command agrees with it, and each
// of its faults is refused.
#include <filesystem>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "engine/mac.h"
#include "support/key_exchange_session.h"

namespace {

using support::KeyExchange;
using support::kinds;
using support::nameOf;
using support::openssl;
using support::pattern;
using support::Result;
using support::stringOf;
using support::TemporaryFolder;
using support::toHex;
using support::World;
using support::worldOf;

// ---- The openssl command as the server.

std::string tlsPrf(const std::string& hash, const std::string& secret, const std::string& seed,
                   size_t size)
{
    return openssl().make("kdf -keylen " + std::to_string(size) + " -kdfopt digest:" + hash +
                              " -kdfopt hexsecret:" + toHex(secret) +
                              " -kdfopt hexseed:" + toHex(seed) + " -binary -out prf TLS1-PRF",
                          "prf");
}

TEST_F(KeyExchange, PrfIsThatOfOpenssl)
{
    const std::unique_ptr<EVP_MAC, decltype(&EVP_MAC_free)> kind(
        EVP_MAC_fetch(nullptr, "HMAC", nullptr), EVP_MAC_free);
    const std::string secret = pattern(48), first = pattern(32, 2), second = pattern(32, 3);
    const auto view = [](const std::string& bytes) {
        return Bytes{reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()};
    };
    for (const char* hash : {"SM3", "SHA256"}) {
        const MacContext prepared = prepareHmac(kind.get(), hash);
        for (size_t size : {1u, 31u, 32u, 33u, 48u, 64u, 80u, 100u}) {
            SCOPED_TRACE(std::string(hash) + " " + std::to_string(size));
            const SecretBytes out =
                kePrf(prepared.get(), view(secret), "a label", view(first), view(second), size);
            EXPECT_EQ(toHex(std::string(out.begin(), out.end())),
                      toHex(tlsPrf(hash, secret, "a label" + first + second, size)));
        }
    }
}

TEST_F(KeyExchange, SignedContentHasTheCertificatesLengthInThreeBytes)
{
    const auto view = [](const std::string& bytes) {
        return Bytes{reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()};
    };
    const std::string client = pattern(32, 2), server = pattern(32, 3);
    const KeRandoms randoms = {view(client), view(server)};
    const auto contentWith = [&](size_t size, const std::string& length) {
        const std::string certificate(size, 'c');
        const std::vector<unsigned char> content = keSignedContent(randoms, view(certificate));
        EXPECT_TRUE(std::string(content.begin(), content.end()) ==
                    client + server + length + certificate);
    };
    contentWith(0x12345, "\x01\x23\x45");
    contentWith(0xFFFFFF, "\xFF\xFF\xFF");
    try {
        contentWith(0x1000000, "");
        ADD_FAILURE() << "is taken";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.code, AVEN_E_INPUT_TOO_LONG);
    }
}

// Whether the answer's signature is over both random texts and the encryption certificate,
// which are put together here.
void expectSignature(KeyKind kind, const std::string& file, const std::string& client,
                     const ServerAnswer& answer)
{
    const size_t size = answer.encryptionCertificate.size();
    std::string content = client + answer.random;
    content += static_cast<char>(size >> 16);
    content += static_cast<char>(size >> 8);
    content += static_cast<char>(size);
    content += answer.encryptionCertificate;
    openssl().write("content", content);
    openssl().write("signature", answer.signature);
    openssl().run("x509 -in " + file + " -pubkey -noout -out sign.pub");
    openssl().run(kind == KeyKind::Sm2
                      ? "pkeyutl -verify -pubin -inkey sign.pub -in content -sigfile "
                        "signature -rawin -digest sm3 -pkeyopt distid:1234567812345678 >verdict"
                      : "dgst -sha256 -verify sign.pub -signature signature content >verdict");
}

// The secret in the client's message.
std::string openedSecret(KeyKind kind, const std::string& file, const std::string& message)
{
    openssl().write("message", message);
    return openssl().make("pkeyutl -decrypt -inkey " + file + " -in message -out secret" +
                              (kind == KeyKind::Sm2 ? "" : " -pkeyopt rsa_padding_mode:pkcs1"),
                          "secret");
}

class OpensslServer : public KeyExchange {
protected:
    // The session's MACs and ciphertext are those that the keys give.
    void expectChannel(void* ke, const std::string& hash, const std::string& keys)
    {
        const std::string text = pattern(1234);
        openssl().write("text", text);
        EXPECT_EQ(toHex(hmac(ke, text).out),
                  toHex(openssl().make("mac -digest " + hash +
                                           " -macopt hexkey:" + toHex(keys.substr(0, 32)) +
                                           " -binary -in text -out mac HMAC",
                                       "mac")));
        EXPECT_EQ(
            toHex(cmac(ke, text).out),
            toHex(openssl().make("mac -cipher SM4-CBC -macopt hexkey:" +
                                     toHex(keys.substr(32, 16)) + " -binary -in text -out mac CMAC",
                                 "mac")));

        // The ciphertext by GCM's counter, which starts at 2 for the text.
        const std::string sealed = encrypt(ke, text).out;
        openssl().write("sealed", sealed.substr(12, text.size()));
        EXPECT_EQ(openssl().make("enc -d -sm4-ctr -K " + toHex(keys.substr(48, 16)) + " -iv " +
                                     toHex(sealed.substr(0, 12)) + "00000002 -in sealed -out text",
                                 "text"),
                  text);
    }
};

TEST_F(OpensslServer, DerivesTheSameKeys)
{
    std::set<std::string> secrets;
    for (KeyKind kind : kinds) {
        SCOPED_TRACE(nameOf(kind));
        const std::string hash = kind == KeyKind::Sm2 ? "SM3" : "SHA256";
        const TemporaryFolder directory;
        const World& world = worldOf(kind);
        writeCredentials(directory.path("server"), world.root, world.server);
        void* ke = newSession(world.rootFile);
        const std::string client = hello(ke).out;
        const ServerAnswer answer = answerHello(world.server, client);
        expectSignature(kind, directory.path("server/sign.crt"), client, answer);

        const Result message = exchange(ke, answer);
        ASSERT_EQ(message.code, 0);
        EXPECT_LE(message.len, 256u);
        const std::string secret =
            openedSecret(kind, directory.path("server/enc.key"), message.out);
        EXPECT_EQ(secret.size(), 48u);
        EXPECT_EQ(secret.substr(0, 2), std::string("\x01\x01"));
        EXPECT_TRUE(secrets.insert(secret).second);  // never the same

        const std::string master =
            tlsPrf(hash, secret, "master secret" + client + answer.random, 48);
        const std::string keys = tlsPrf(hash, master, "key expansion" + answer.random + client, 80);
        const ChannelKeys peerKeys =
            acceptKeyExchange(world.server, client, answer.random, message.out);
        EXPECT_EQ(toHex(stringOf(peerKeys.block())), toHex(keys));
        expectChannel(ke, hash, keys);
    }
}

// ---- What is wrong with a server.

struct CertificateFault {
    const char* what;
    void (*change)(CertificatePlan& signing, CertificatePlan& encryption);
    int code;
};

const CertificateFault certificateFaults[] = {
    {"nothing", [](CertificatePlan&, CertificatePlan&) {}, 0},
    {"signing expired", [](CertificatePlan& s, CertificatePlan&) { s.notAfter = -60; },
     AVEN_E_KE_EXPIRED},
    {"encryption expired", [](CertificatePlan&, CertificatePlan& e) { e.notAfter = -60; },
     AVEN_E_KE_EXPIRED},
    {"signing not yet valid", [](CertificatePlan& s, CertificatePlan&) { s.notBefore = 3600; },
     AVEN_E_KE_NOT_YET_VALID},
    {"encryption not yet valid", [](CertificatePlan&, CertificatePlan& e) { e.notBefore = 3600; },
     AVEN_E_KE_NOT_YET_VALID},
    {"signing without usage", [](CertificatePlan& s, CertificatePlan&) { s.usage = ""; },
     AVEN_E_KE_USAGE},
    {"encryption without usage", [](CertificatePlan&, CertificatePlan& e) { e.usage = ""; },
     AVEN_E_KE_USAGE},
    {"uses swapped", [](CertificatePlan& s, CertificatePlan& e) { s.usage.swap(e.usage); },
     AVEN_E_KE_USAGE},
    {"signing for agreement",
     [](CertificatePlan& s, CertificatePlan&) { s.usage = "keyAgreement"; }, AVEN_E_KE_USAGE},
    {"key encipherment alone",
     [](CertificatePlan&, CertificatePlan& e) { e.usage = "keyEncipherment"; }, 0},
    {"data encipherment alone",
     [](CertificatePlan&, CertificatePlan& e) { e.usage = "dataEncipherment"; }, 0},
};

TEST_F(KeyExchange, CertificateFaultsHaveTheirCodes)
{
    for (KeyKind kind : kinds) {
        const Credential& root = worldOf(kind).root;
        // RSA keys take long to make in an emulator.
        const size_t step = kind == KeyKind::Rsa ? support::EVERY_PLACE : 1;
        for (size_t i = 0; i < std::size(certificateFaults); i += step) {
            const CertificateFault& fault = certificateFaults[i];
            SCOPED_TRACE(std::string(nameOf(kind)) + " " + fault.what);
            CertificatePlan signing = signingPlan(), encryption = encryptionPlan();
            fault.change(signing, encryption);
            const ServerCredentials server = {makeCredential(signing, kind, root),
                                              makeCredential(encryption, kind, root)};
            EXPECT_EQ(codeWith(server, root), fault.code);
        }
    }
}

TEST_F(KeyExchange, RootsMustBeTheServersAndMayIssue)
{
    const KeyKind kind = KeyKind::Sm2;
    const World& world = worldOf(kind);
    EXPECT_EQ(codeWith(world.server, makeRoot(rootPlan(), kind)), AVEN_E_KE_UNTRUSTED);
    CertificatePlan stranger = rootPlan();
    stranger.name = "Another root";
    EXPECT_EQ(codeWith(world.server, makeRoot(stranger, kind)), AVEN_E_KE_UNTRUSTED);
    EXPECT_EQ(codeWith(world.server, makeRoot(rootPlan(), KeyKind::Rsa)), AVEN_E_KE_UNTRUSTED);

    const auto codeUnder = [&](const CertificatePlan& plan) {
        const Credential root = makeRoot(plan, kind);
        return codeWith({makeCredential(signingPlan(), kind, root),
                         makeCredential(encryptionPlan(), kind, root)},
                        root);
    };
    EXPECT_EQ(codeUnder(rootPlan()), 0);
    CertificatePlan plan = rootPlan();
    plan.notAfter = -60;
    EXPECT_EQ(codeUnder(plan), AVEN_E_KE_EXPIRED);
    plan = rootPlan();
    plan.isAuthority = false;
    EXPECT_EQ(codeUnder(plan), AVEN_E_KE_UNTRUSTED);

    // A server that certifies itself.
    const Credential alone = makeRoot(signingPlan(), kind);
    EXPECT_EQ(codeWith({alone, world.server.encryption}, world.root), AVEN_E_KE_UNTRUSTED);
}

TEST_F(KeyExchange, IssuersWithShortKeysAreNotTrusted)
{
    const Credential& root = worldOf(KeyKind::Rsa).root;
    CertificatePlan plan = rootPlan();
    plan.name = "Issuer";
    const Credential issuer = makeCredential(plan, KeyKind::Rsa, root, 1024);
    const TemporaryFolder folder;
    const std::string roots =
        folder.write("roots", toPem(root.certificate.get()) + toPem(issuer.certificate.get()));
    for (const Credential& by : {root, issuer}) {
        const ServerCredentials server = {makeCredential(signingPlan(), KeyKind::Sm2, by),
                                          makeCredential(encryptionPlan(), KeyKind::Sm2, by)};
        void* ke = newSession(roots);
        EXPECT_EQ(exchange(ke, answerHello(server, hello(ke).out)).code,
                  by.key == issuer.key ? AVEN_E_KE_UNTRUSTED : 0);
    }
}

TEST_F(KeyExchange, LogSaysWhichCertificateIsWrong)
{
    const KeyKind kind = KeyKind::Sm2;
    const World& world = worldOf(kind);
    const TemporaryFolder folder;
    const auto saidOf = [&](const Credential& signing, const Credential& encryption,
                            const Credential& root) {
        const std::string log = folder.path("log");
        EXPECT_EQ(engine.aven_global_set_logger(log.c_str()), 0);
        EXPECT_NE(codeWith({signing, encryption}, root), 0);
        EXPECT_EQ(engine.aven_global_set_logger(""), 0);
        // Behind the banner, without the time and the engine's name; before the call's code.
        std::istringstream lines(folder.read("log"));
        std::string line;
        std::getline(lines, line);
        std::getline(lines, line);
        std::filesystem::remove(log);
        const std::string name = " SoftModuleaven: ";
        return line.substr(line.find(name) + name.size());
    };
    CertificatePlan plan = signingPlan();
    plan.notAfter = -60;
    EXPECT_EQ(saidOf(makeCredential(plan, kind, world.root), world.server.encryption, world.root),
              "server's signing certificate, 0 up: certificate has expired");
    plan = encryptionPlan();
    plan.usage = "";
    EXPECT_EQ(saidOf(world.server.signing, makeCredential(plan, kind, world.root), world.root),
              "server's encryption certificate: key usage is missing or another");
    plan = rootPlan();
    plan.notAfter = -60;
    const Credential old = makeRoot(plan, kind);
    EXPECT_EQ(saidOf(makeCredential(signingPlan(), kind, old),
                     makeCredential(encryptionPlan(), kind, old), old),
              "server's signing certificate, 1 up: certificate has expired");
}

TEST_F(KeyExchange, KindsAndSizesOfKeys)
{
    const World &sm2 = worldOf(KeyKind::Sm2), &rsa = worldOf(KeyKind::Rsa);
    EXPECT_EQ(codeWith({sm2.server.signing, rsa.server.encryption}, sm2.root), AVEN_E_KE_KINDS);
    EXPECT_EQ(codeWith({rsa.server.signing, sm2.server.encryption}, sm2.root), AVEN_E_KE_KINDS);

    const KeyKind kind = KeyKind::Rsa;
    const Credential bigSigning = makeCredential(signingPlan(), kind, rsa.root, 3072);
    EXPECT_EQ(codeWith({bigSigning, rsa.server.encryption}, rsa.root), 0);
    const Credential bigEncryption = makeCredential(encryptionPlan(), kind, rsa.root, 3072);
    EXPECT_EQ(codeWith({rsa.server.signing, bigEncryption}, rsa.root), AVEN_E_KE_RSA_SIZE);
    const Credential small = makeCredential(encryptionPlan(), kind, rsa.root, 1024);
    EXPECT_EQ(codeWith({rsa.server.signing, small}, rsa.root), AVEN_E_RSA_SIZE);
}

// A server's answer with one thing wrong. The session takes the right one afterwards.
class FaultyAnswer : public KeyExchange {
protected:
    void greet(KeyKind kind)
    {
        world = &worldOf(kind);
        ke = newSession(world->rootFile);
        greeting = hello(ke).out;
        good = answerHello(world->server, greeting);
    }

    // What the right answer is refused with after the change.
    template <class Change>
    int codeFor(Change change)
    {
        ServerAnswer bad = good;
        change(bad);
        const int code = exchange(ke, bad).code;
        EXPECT_EQ(encrypt(ke, "text").code, AVEN_E_KE_TOO_EARLY);
        return code;
    }

    // The same with another signature.
    int signedWith(const Credential& key, const std::string& client, const std::string& random,
                   const std::string& certificate)
    {
        return codeFor([&](ServerAnswer& answer) {
            answer.signature = signExchange(key, client, random, certificate);
        });
    }

    void expectGoodTaken()
    {
        const Result message = exchange(ke, good);
        EXPECT_EQ(message.code, 0);
        const ChannelKeys keys =
            acceptKeyExchange(world->server, greeting, good.random, message.out);
        EXPECT_EQ(openMessage(keys, encrypt(ke, "text").out), "text");
    }

    const World* world = nullptr;
    void* ke = nullptr;
    std::string greeting;
    ServerAnswer good;
};

TEST_F(FaultyAnswer, SignatureIsOverBothRandomsAndTheCertificate)
{
    for (KeyKind kind : kinds) {
        SCOPED_TRACE(nameOf(kind));
        greet(kind);
        const std::string& certificate = good.encryptionCertificate;
        EXPECT_EQ(signedWith(world->server.signing, pattern(32), good.random, certificate),
                  AVEN_E_KE_SIGNATURE);
        EXPECT_EQ(signedWith(world->server.signing, greeting, pattern(32), certificate),
                  AVEN_E_KE_SIGNATURE);
        EXPECT_EQ(signedWith(world->server.signing, good.random, greeting, certificate),
                  AVEN_E_KE_SIGNATURE);
        EXPECT_EQ(signedWith(world->server.signing, greeting, good.random, good.signingCertificate),
                  AVEN_E_KE_SIGNATURE);
        EXPECT_EQ(signedWith(world->server.encryption, greeting, good.random, certificate),
                  AVEN_E_KE_SIGNATURE);
        expectGoodTaken();
    }
}

TEST_F(FaultyAnswer, CertificatesOfTheSameServerAreNotExchanged)
{
    for (KeyKind kind : kinds) {
        SCOPED_TRACE(nameOf(kind));
        greet(kind);
        // Another certificate of the same server that is as trusted.
        const Credential other = makeCredential(encryptionPlan(), kind, world->root);
        EXPECT_EQ(codeFor([&](ServerAnswer& answer) {
                      answer.encryptionCertificate = toDer(other.certificate.get());
                  }),
                  AVEN_E_KE_SIGNATURE);
        EXPECT_EQ(codeFor([](ServerAnswer& answer) {
                      answer.signingCertificate.swap(answer.encryptionCertificate);
                  }),
                  AVEN_E_KE_USAGE);
        EXPECT_EQ(codeFor([](ServerAnswer& answer) {
                      answer.encryptionCertificate = answer.signingCertificate;
                  }),
                  AVEN_E_KE_USAGE);
        expectGoodTaken();
    }
}

TEST_F(FaultyAnswer, DamagedPartsAreRefused)
{
    for (KeyKind kind : kinds) {
        SCOPED_TRACE(nameOf(kind));
        greet(kind);
        EXPECT_EQ(codeFor([](ServerAnswer& answer) { answer.random[0] ^= 1; }),
                  AVEN_E_KE_SIGNATURE);

        for (size_t size : {0u, 31u, 33u}) {
            EXPECT_EQ(codeFor([size](ServerAnswer& answer) { answer.random.resize(size); }),
                      AVEN_E_KE_SERVER_RANDOM);
        }
        EXPECT_EQ(codeFor([](ServerAnswer& answer) { answer.signature.clear(); }),
                  AVEN_E_KE_SIGNATURE);
        EXPECT_EQ(codeFor([](ServerAnswer& answer) { answer.signature.pop_back(); }),
                  AVEN_E_KE_SIGNATURE);
        EXPECT_EQ(codeFor([](ServerAnswer& answer) { answer.signature += '\0'; }),
                  AVEN_E_KE_SIGNATURE);
        EXPECT_EQ(codeFor([](ServerAnswer& answer) { answer.signingCertificate.clear(); }),
                  AVEN_E_KEY_MISSING);
        EXPECT_EQ(codeFor([](ServerAnswer& answer) { answer.encryptionCertificate.clear(); }),
                  AVEN_E_KEY_MISSING);
        // What has no PEM block is DER, never Base64.
        for (const std::string& text : {std::string("nonsense"), std::string("no*base64"),
                                        std::string("x"), std::string(AVEN_KEY_TEXT_MAX, 'x')})
            EXPECT_EQ(codeFor([&](ServerAnswer& answer) { answer.signingCertificate = text; }),
                      AVEN_E_KEY_TEXT);
        EXPECT_EQ(codeFor([](ServerAnswer& answer) {
                      answer.signingCertificate.assign(AVEN_KEY_TEXT_MAX + 1, 'x');
                  }),
                  AVEN_E_INPUT_TOO_LONG);
        EXPECT_EQ(codeFor([](ServerAnswer& answer) { answer.signingCertificate.pop_back(); }),
                  AVEN_E_KEY_TEXT);
        EXPECT_EQ(codeFor([](ServerAnswer& answer) { answer.encryptionCertificate += '\0'; }),
                  AVEN_E_KEY_TRAILING);
        EXPECT_EQ(codeFor([](ServerAnswer& answer) { answer.signingCertificate.back() ^= 1; }),
                  AVEN_E_KE_CERTIFICATE_FORGED);
        EXPECT_EQ(codeFor([](ServerAnswer& answer) { answer.encryptionCertificate.back() ^= 1; }),
                  AVEN_E_KE_CERTIFICATE_FORGED);
        expectGoodTaken();
    }
}

TEST_F(KeyExchange, NoByteOfAnAnswerMayChange)
{
    const World& world = worldOf(KeyKind::Sm2);
    void* ke = newSession(world.rootFile);
    const ServerAnswer good = answerHello(world.server, hello(ke).out);
    for (std::string ServerAnswer::*part :
         {&ServerAnswer::random, &ServerAnswer::signingCertificate,
          &ServerAnswer::encryptionCertificate, &ServerAnswer::signature}) {
        for (size_t i = 0; i < (good.*part).size(); i += support::EVERY_PLACE) {
            ServerAnswer bad = good;
            (bad.*part)[i] = static_cast<char>((bad.*part)[i] ^ (1 << (i % 8)));
            ASSERT_NE(exchange(ke, bad).code, 0) << i;
        }
        for (size_t size = 0; size < (good.*part).size(); size += support::EVERY_PLACE) {
            ServerAnswer bad = good;
            (bad.*part).resize(size);
            ASSERT_NE(exchange(ke, bad).code, 0) << size;
        }
    }
    EXPECT_EQ(exchange(ke, good).code, 0);
}

}  // namespace
