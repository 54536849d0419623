// The development engine's key exchange against the peer and the openssl command: whole
// exchanges, every fault of a server, order, handles, and the channel.
#include <openssl/x509v3.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <thread>

#include "engine/mac.h"
#include "peer/ke_server.h"
#include "support/held.h"
#include "support/openssl_tool.h"

namespace {

using support::Exact;
using support::Fenced;
using support::keyFile;
using support::openssl;
using support::pattern;
using support::TemporaryFolder;
using support::toBase64;
using support::toHex;

const KeyKind kinds[] = {KeyKind::Sm2, KeyKind::Rsa};

const char* nameOf(KeyKind kind)
{
    return kind == KeyKind::Sm2 ? "SM2" : "RSA";
}

std::string stringOf(Bytes bytes)
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

const World& worldOf(KeyKind kind)
{
    static const World sm2(KeyKind::Sm2);
    static const World rsa(KeyKind::Rsa);
    return kind == KeyKind::Sm2 ? sm2 : rsa;
}

struct Result {
    int code;
    std::string out;
    uint32_t len;
};

using ChannelFunction = int (*)(void*, const unsigned char*, uint32_t, unsigned char*, uint32_t*);

// A session that has come all the way, and the peer's keys.
struct Channel {
    void* ke;
    ChannelKeys keys;
};

class KeyExchange : public support::EngineTest {
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
        return resultOf(engine.aven_ke_client_hello(ke, out.data(), &out.len), out);
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
            out);
    }

    Result call(ChannelFunction function, void* ke, const std::string& data, size_t capacity)
    {
        const Exact in(data);
        Fenced out(capacity);
        return resultOf(function(ke, in.data(), in.size(), out.data(), &out.len), out);
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

private:
    static Result resultOf(int code, const Fenced& out)
    {
        EXPECT_TRUE(out.fenceIntact());
        EXPECT_TRUE(code == 0 || out.wiped());
        return {code, code == 0 ? out.text() : "", out.len};
    }
};

// ---- Whole exchanges.

TEST_F(KeyExchange, BothSidesHaveTheSameKeys)
{
    for (KeyKind kind : kinds) {
        SCOPED_TRACE(nameOf(kind));
        const Channel channel = connect(worldOf(kind));
        for (size_t size : {0u, 1u, 15u, 16u, 17u, 1000u, 70000u}) {
            SCOPED_TRACE(size);
            const std::string text = pattern(size);
            const Result sealed = encrypt(channel.ke, text);
            ASSERT_EQ(sealed.code, 0);
            EXPECT_EQ(sealed.len, size + 28);
            EXPECT_EQ(openMessage(channel.keys, sealed.out), text);

            const Result opened = decrypt(channel.ke, sealMessage(channel.keys, text));
            ASSERT_EQ(opened.code, 0);
            EXPECT_EQ(opened.out, text);
            EXPECT_EQ(toHex(hmac(channel.ke, text).out), toHex(channelHmac(channel.keys, text)));
            EXPECT_EQ(toHex(cmac(channel.ke, text).out), toHex(channelCmac(channel.keys, text)));
        }
    }
}

TEST_F(KeyExchange, SessionsAndMessagesAreAllDifferent)
{
    const World& world = worldOf(KeyKind::Sm2);
    const Channel one = connect(world), other = connect(world);
    EXPECT_NE(stringOf(one.keys.block()), stringOf(other.keys.block()));
    EXPECT_EQ(decrypt(other.ke, sealMessage(one.keys, "text")).code, AVEN_E_TAG_MISMATCH);
    EXPECT_NE(hmac(one.ke, "text").out, hmac(other.ke, "text").out);

    // The six keys and MACs share nothing either.
    const std::string block = stringOf(one.keys.block());
    std::set<std::string> keys;
    for (size_t at = 0; at < block.size(); at += KE_BLOCK)
        keys.insert(block.substr(at, KE_BLOCK));
    EXPECT_EQ(keys.size(), block.size() / KE_BLOCK);

    std::set<std::string> nonces;
    for (int i = 0; i < 100; ++i)
        nonces.insert(encrypt(one.ke, "text").out.substr(0, KE_NONCE));
    EXPECT_EQ(nonces.size(), 100u);
}

TEST_F(KeyExchange, ServerCertificatesMayBePem)
{
    for (KeyKind kind : kinds) {
        const World& world = worldOf(kind);
        void* ke = newSession(world.rootFile);
        const std::string greeting = hello(ke).out;
        ServerAnswer answer = answerHello(world.server, greeting);
        answer.signingCertificate = toPem(world.server.signing.certificate.get());
        answer.encryptionCertificate = toPem(world.server.encryption.certificate.get());
        const Result message = exchange(ke, answer);
        ASSERT_EQ(message.code, 0);
        const ChannelKeys keys =
            acceptKeyExchange(world.server, greeting, answer.random, message.out);
        EXPECT_EQ(openMessage(keys, encrypt(ke, "text").out), "text");
    }
}

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

TEST_F(KeyExchange, OpensslDerivesTheSameKeys)
{
    for (KeyKind kind : kinds) {
        SCOPED_TRACE(nameOf(kind));
        const bool isSm2 = kind == KeyKind::Sm2;
        const std::string hash = isSm2 ? "SM3" : "SHA256";
        const TemporaryFolder directory;
        const World& world = worldOf(kind);
        writeCredentials(directory.path("server"), world.root, world.server);
        void* ke = newSession(world.rootFile);
        const std::string client = hello(ke).out;
        const ServerAnswer answer = answerHello(world.server, client);

        // What was signed, put together here.
        const size_t size = answer.encryptionCertificate.size();
        std::string content = client + answer.random;
        content += static_cast<char>(size >> 16);
        content += static_cast<char>(size >> 8);
        content += static_cast<char>(size);
        content += answer.encryptionCertificate;
        openssl().write("content", content);
        openssl().write("signature", answer.signature);
        openssl().run("x509 -in " + directory.path("server/sign.crt") +
                      " -pubkey -noout -out sign.pub");
        openssl().run(isSm2
                          ? "pkeyutl -verify -pubin -inkey sign.pub -in content -sigfile "
                            "signature -rawin -digest sm3 -pkeyopt distid:1234567812345678 >verdict"
                          : "dgst -sha256 -verify sign.pub -signature signature content >verdict");

        const Result message = exchange(ke, answer);
        ASSERT_EQ(message.code, 0);
        EXPECT_LE(message.len, 256u);
        openssl().write("message", message.out);
        const std::string secret = openssl().make(
            "pkeyutl -decrypt -inkey " + directory.path("server/enc.key") + " -in message -out " +
                "secret" + (isSm2 ? "" : " -pkeyopt rsa_padding_mode:pkcs1"),
            "secret");
        EXPECT_EQ(secret.size(), 48u);
        EXPECT_EQ(secret.substr(0, 2), std::string("\x01\x01"));

        const std::string master =
            tlsPrf(hash, secret, "master secret" + client + answer.random, 48);
        const std::string keys = tlsPrf(hash, master, "key expansion" + answer.random + client, 80);
        const ChannelKeys peerKeys =
            acceptKeyExchange(world.server, client, answer.random, message.out);
        EXPECT_EQ(toHex(stringOf(peerKeys.block())), toHex(keys));

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
TEST_F(KeyExchange, AnswersWithAFaultAreRefusedAndMayBeRepeated)
{
    for (KeyKind kind : kinds) {
        SCOPED_TRACE(nameOf(kind));
        const World& world = worldOf(kind);
        const ServerCredentials& server = world.server;
        void* ke = newSession(world.rootFile);
        const std::string greeting = hello(ke).out;
        const ServerAnswer good = answerHello(server, greeting);
        const auto codeFor = [&](auto change) {
            ServerAnswer bad = good;
            change(bad);
            const int code = exchange(ke, bad).code;
            EXPECT_EQ(encrypt(ke, "text").code, AVEN_E_KE_TOO_EARLY);
            return code;
        };
        const auto signedWith = [&](const Credential& key, const std::string& client,
                                    const std::string& random, const std::string& certificate) {
            return codeFor([&](ServerAnswer& answer) {
                answer.signature = signExchange(key, client, random, certificate);
            });
        };

        const std::string& certificate = good.encryptionCertificate;
        EXPECT_EQ(signedWith(server.signing, pattern(32), good.random, certificate),
                  AVEN_E_KE_SIGNATURE);
        EXPECT_EQ(signedWith(server.signing, greeting, pattern(32), certificate),
                  AVEN_E_KE_SIGNATURE);
        EXPECT_EQ(signedWith(server.signing, good.random, greeting, certificate),
                  AVEN_E_KE_SIGNATURE);
        EXPECT_EQ(signedWith(server.signing, greeting, good.random, good.signingCertificate),
                  AVEN_E_KE_SIGNATURE);
        EXPECT_EQ(signedWith(server.encryption, greeting, good.random, certificate),
                  AVEN_E_KE_SIGNATURE);

        // Another certificate of the same server that is as trusted.
        const Credential other = makeCredential(encryptionPlan(), kind, world.root);
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
        EXPECT_EQ(codeFor([](ServerAnswer& answer) { answer.signingCertificate = "nonsense"; }),
                  AVEN_E_KEY_TEXT);
        EXPECT_EQ(codeFor([](ServerAnswer& answer) { answer.signingCertificate.pop_back(); }),
                  AVEN_E_KEY_TEXT);
        EXPECT_EQ(codeFor([](ServerAnswer& answer) { answer.encryptionCertificate += '\0'; }),
                  AVEN_E_KEY_TRAILING);
        EXPECT_EQ(codeFor([](ServerAnswer& answer) { answer.signingCertificate.back() ^= 1; }),
                  AVEN_E_KE_CERTIFICATE_FORGED);
        EXPECT_EQ(codeFor([](ServerAnswer& answer) { answer.encryptionCertificate.back() ^= 1; }),
                  AVEN_E_KE_CERTIFICATE_FORGED);

        const Result message = exchange(ke, good);
        EXPECT_EQ(message.code, 0);
        const ChannelKeys keys = acceptKeyExchange(server, greeting, good.random, message.out);
        EXPECT_EQ(openMessage(keys, encrypt(ke, "text").out), "text");
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

// ---- Trusted roots.

class TrustedRoots : public KeyExchange {
protected:
    int set(const char* file, const char* directory)
    {
        void* ke = newSession();
        const int code = engine.aven_ke_set_root_certificate(ke, file, directory);
        EXPECT_EQ(engine.aven_ke_free(ke), 0);
        return code;
    }

    // Whether the server is trusted with these roots.
    void expectTrusted(const char* file, const char* directory, const ServerCredentials& server)
    {
        void* ke = newSession();
        ASSERT_EQ(engine.aven_ke_set_root_certificate(ke, file, directory), 0);
        EXPECT_EQ(exchange(ke, answerHello(server, hello(ke).out)).code, 0);
        EXPECT_EQ(engine.aven_ke_free(ke), 0);
    }

    const World& world = worldOf(KeyKind::Sm2);
    const TemporaryFolder folder;
};

TEST_F(TrustedRoots, FileHoldsAnyNumberInPemOrOneInDer)
{
    X509* root = world.root.certificate.get();
    const std::string other =
        toPem(worldOf(KeyKind::Rsa).root.certificate.get()) + support::privatePem("sm2");
    const std::string several = folder.write("several", "text\n" + other + toPem(root));
    expectTrusted(several.c_str(), nullptr, world.server);
    expectTrusted(several.c_str(), nullptr, worldOf(KeyKind::Rsa).server);
    expectTrusted(folder.write("der", toDer(root)).c_str(), nullptr, world.server);
}

TEST_F(TrustedRoots, DirectoryNeedsNoIndexAndMayHaveOne)
{
    std::filesystem::create_directory(folder.path("plain"));
    folder.write("plain/root.crt", toPem(world.root.certificate.get()));
    folder.write("plain/README", "not a certificate\n");
    folder.write("plain/empty", "");
    std::filesystem::create_directory(folder.path("plain/folder"));
    std::filesystem::create_symlink("nowhere", folder.path("plain/dangling"));
    expectTrusted(nullptr, folder.path("plain").c_str(), world.server);
    expectTrusted(worldOf(KeyKind::Rsa).rootFile.c_str(), folder.path("plain").c_str(),
                  world.server);
    openssl().run("rehash " + folder.path("plain"));
    expectTrusted(nullptr, folder.path("plain").c_str(), world.server);
}

TEST_F(TrustedRoots, IntermediateCertificatesMayBeAmongThem)
{
    CertificatePlan plan = rootPlan();
    plan.name = "Issuer";
    const KeyKind kind = KeyKind::Sm2;
    const Credential issuer = makeCredential(plan, kind, world.root);
    const ServerCredentials server = {makeCredential(signingPlan(), kind, issuer),
                                      makeCredential(encryptionPlan(), kind, issuer)};
    const std::string issuerPem = toPem(issuer.certificate.get());
    const std::string both = folder.write("both", issuerPem + toPem(world.root.certificate.get()));
    expectTrusted(both.c_str(), nullptr, server);

    EXPECT_EQ(codeWith(server, world.root), AVEN_E_KE_UNTRUSTED);
    EXPECT_EQ(codeWith(server, issuer), AVEN_E_KE_UNTRUSTED);  // that is no root
}

TEST_F(TrustedRoots, WhatCannotBeReadHasItsCode)
{
    const std::string pem = toPem(world.root.certificate.get());
    const auto file = [&](const std::string& content) {
        return set(folder.write("file", content).c_str(), nullptr);
    };
    EXPECT_EQ(set(nullptr, nullptr), AVEN_E_KE_ROOTS_NONE);
    EXPECT_EQ(set(folder.path("missing").c_str(), nullptr), AVEN_E_KE_ROOTS_OPEN);
    EXPECT_EQ(set("", nullptr), AVEN_E_KE_ROOTS_OPEN);
    EXPECT_EQ(set(folder.path().c_str(), nullptr), AVEN_E_KE_ROOTS_OPEN);
    EXPECT_EQ(set("/dev/zero", nullptr), AVEN_E_KE_ROOTS_OPEN);
    EXPECT_EQ(set(world.rootFile.c_str(), folder.path("missing").c_str()), AVEN_E_KE_ROOTS_OPEN);
    EXPECT_EQ(set(nullptr, world.rootFile.c_str()), AVEN_E_KE_ROOTS_OPEN);
    EXPECT_EQ(set(nullptr, folder.path().c_str()), AVEN_E_KE_ROOTS_NONE);
    EXPECT_EQ(file(""), AVEN_E_KE_ROOTS_NONE);
    EXPECT_EQ(file("text"), AVEN_E_KE_ROOTS_NONE);
    EXPECT_EQ(file(support::privatePem("sm2")), AVEN_E_KE_ROOTS_NONE);
    EXPECT_EQ(file(pem.substr(0, pem.size() / 2)), AVEN_E_KEY_TEXT);
    EXPECT_EQ(file(pem + "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"),
              AVEN_E_KEY_TEXT);
    const std::string der = toDer(world.root.certificate.get());
    EXPECT_EQ(file(der + "x"), AVEN_E_KEY_TEXT);
    EXPECT_EQ(file(der.substr(0, der.size() - 1)), AVEN_E_KEY_TEXT);
    EXPECT_EQ(file(std::string((16 << 20) + 1, 'x')), AVEN_E_INPUT_TOO_LONG);
    if (geteuid() != 0) {
        folder.write("secret", pem);
        std::filesystem::permissions(folder.path("secret"), std::filesystem::perms::none);
        EXPECT_EQ(set(folder.path("secret").c_str(), nullptr), AVEN_E_KE_ROOTS_OPEN);
    }
}

std::string repeated(const std::string& text, int count)
{
    std::string all;
    for (int i = 0; i < count; ++i)
        all += text;
    return all;
}

// The root with another number and a comment that makes its DER so long.
CertificatePtr rootOfSize(const Credential& root, size_t size, int serial)
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

TEST_F(TrustedRoots, AreLimitedInNumber)
{
    const std::string pem = toPem(world.root.certificate.get());
    const std::string most = folder.write("most", repeated(pem, AVEN_KE_ROOTS_MAX));
    expectTrusted(most.c_str(), nullptr, world.server);
    const std::string more = folder.write("more", repeated(pem, AVEN_KE_ROOTS_MAX + 1));
    EXPECT_EQ(set(more.c_str(), nullptr), AVEN_E_KE_ROOTS_TOO_MANY);
    const std::string many = folder.write("many", repeated(pem, 20000));
    EXPECT_EQ(set(many.c_str(), nullptr), AVEN_E_KE_ROOTS_TOO_MANY);

    // Those of file and directory are added.
    std::filesystem::create_directory(folder.path("some"));
    for (int i = 0; i < 10; ++i)
        folder.write("some/" + std::to_string(i), repeated(pem, AVEN_KE_ROOTS_MAX / 10));
    const std::string directory = folder.path("some");
    expectTrusted(nullptr, directory.c_str(), world.server);
    EXPECT_EQ(set(world.rootFile.c_str(), directory.c_str()), AVEN_E_KE_ROOTS_TOO_MANY);
    folder.write("some/one", pem);
    EXPECT_EQ(set(nullptr, directory.c_str()), AVEN_E_KE_ROOTS_TOO_MANY);
}

TEST_F(TrustedRoots, AreLimitedInBytes)
{
    const auto file = [&](const std::string& content) {
        return set(folder.write("file", content).c_str(), nullptr);
    };
    const auto der = [&](size_t size) { return toDer(rootOfSize(world.root, size, 1).get()); };
    EXPECT_EQ(file(der(AVEN_KE_ROOT_BYTES_MAX)), 0);
    EXPECT_EQ(file(der(AVEN_KE_ROOT_BYTES_MAX + 1)), AVEN_E_KE_ROOTS_TOO_MANY);

    const std::string pem = toPem(world.root.certificate.get());
    const size_t size = AVEN_KE_ROOT_BYTES_MAX - toDer(world.root.certificate.get()).size();
    EXPECT_EQ(file(pem + toPem(rootOfSize(world.root, size, 1).get())), 0);
    EXPECT_EQ(file(pem + toPem(rootOfSize(world.root, size + 1, 1).get())),
              AVEN_E_KE_ROOTS_TOO_MANY);
}

TEST_F(TrustedRoots, FilesAreLimitedInBytesTogether)
{
    const std::string pem = toPem(world.root.certificate.get());
    std::filesystem::create_directory(folder.path("some"));
    const std::string directory = folder.path("some");
    folder.write("some/root", pem);
    folder.write("some/text", std::string(AVEN_KE_ROOT_FILE_BYTES_MAX - pem.size(), 'x'));
    expectTrusted(nullptr, directory.c_str(), world.server);
    EXPECT_EQ(set(world.rootFile.c_str(), directory.c_str()), AVEN_E_INPUT_TOO_LONG);
    folder.write("some/more", "x");
    EXPECT_EQ(set(nullptr, directory.c_str()), AVEN_E_INPUT_TOO_LONG);
}

TEST_F(TrustedRoots, DirectoryIsLimitedInEntries)
{
    std::filesystem::create_directory(folder.path("some"));
    folder.write("some/root", toPem(world.root.certificate.get()));
    for (int i = 1; i < AVEN_KE_ROOT_ENTRIES_MAX; ++i)
        std::filesystem::create_symlink("nowhere", folder.path("some/" + std::to_string(i)));
    expectTrusted(nullptr, folder.path("some").c_str(), world.server);
    std::filesystem::create_directory(folder.path("some/inner"));
    EXPECT_EQ(set(nullptr, folder.path("some").c_str()), AVEN_E_KE_ROOTS_TOO_MANY);
}

TEST_F(TrustedRoots, OfAllSessionsAreLimitedInBytes)
{
    constexpr int most = AVEN_KE_ROOT_BYTES_OF_ALL_MAX / AVEN_KE_ROOT_BYTES_MAX;
    const auto file = [&](int serial) {
        return folder.write(std::to_string(serial),
                            toDer(rootOfSize(world.root, AVEN_KE_ROOT_BYTES_MAX, serial).get()));
    };
    std::vector<void*> sessions;
    for (int i = 0; i < most; ++i)
        sessions.push_back(newSession(file(i)));
    EXPECT_EQ(set(file(most).c_str(), nullptr), AVEN_E_KE_ROOTS_MEMORY);
    EXPECT_EQ(set(world.rootFile.c_str(), nullptr), AVEN_E_KE_ROOTS_MEMORY);

    // Those that another session has cost nothing.
    for (int i = 0; i < 100; ++i)
        sessions.push_back(newSession(folder.path("0")));
    EXPECT_EQ(engine.aven_ke_free(sessions[1]), 0);
    EXPECT_EQ(set(file(most).c_str(), nullptr), 0);
    EXPECT_EQ(engine.aven_ke_free(sessions[0]), 0);  // others have the same
    void* more = newSession(file(most));
    EXPECT_EQ(set(world.rootFile.c_str(), nullptr), AVEN_E_KE_ROOTS_MEMORY);

    // A session's new roots replace the old ones, which count until then.
    EXPECT_EQ(engine.aven_ke_free(more), 0);
    more = newSession(file(most));
    EXPECT_EQ(engine.aven_ke_set_root_certificate(more, world.rootFile.c_str(), nullptr),
              AVEN_E_KE_ROOTS_MEMORY);
    EXPECT_EQ(engine.aven_ke_free(sessions[2]), 0);
    EXPECT_EQ(engine.aven_ke_set_root_certificate(more, world.rootFile.c_str(), nullptr), 0);
    EXPECT_EQ(exchange(more, answerHello(world.server, hello(more).out)).code, 0);

    // A restart ends them all.
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
    EXPECT_EQ(engine.aven_global_init(), 0);
    for (int i = 0; i < most; ++i)
        newSession(folder.path(std::to_string(i)));
}

TEST_F(TrustedRoots, AreTheSameOnlyIfEveryCertificateIs)
{
    // Two in one block are not two in two.
    const Credential other = makeRoot(rootPlan(), KeyKind::Sm2);
    X509* root = world.root.certificate.get();
    const std::string both = toPem(root) + toPem(other.certificate.get());
    void* ke = newSession(folder.write("both", both));
    const std::string joined = "-----BEGIN CERTIFICATE-----\n" +
                               toBase64(toDer(root) + toDer(other.certificate.get())) +
                               "\n-----END CERTIFICATE-----\n";
    EXPECT_EQ(set(folder.write("joined", joined).c_str(), nullptr), AVEN_E_KEY_TEXT);
    expectTrusted(folder.path("both").c_str(), nullptr, world.server);
    EXPECT_EQ(exchange(ke, answerHello(world.server, hello(ke).out)).code, 0);

    // Sessions with other roots are not trusted with those of the first.
    EXPECT_EQ(codeWith(world.server, other), AVEN_E_KE_UNTRUSTED);
}

TEST_F(TrustedRoots, ManyThreadsShareThem)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20; ++i)
                expectTrusted(world.rootFile.c_str(), nullptr, world.server);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

TEST_F(TrustedRoots, WayToThemIsLimited)
{
    const KeyKind kind = KeyKind::Sm2;
    Credential issuer = world.root;
    std::string pem = toPem(world.root.certificate.get());
    for (int between = 0; between <= AVEN_KE_CHAIN_MAX + 1; ++between) {
        if (between >= AVEN_KE_CHAIN_MAX) {
            const ServerCredentials server = {makeCredential(signingPlan(), kind, issuer),
                                              makeCredential(encryptionPlan(), kind, issuer)};
            void* ke = newSession(folder.write("chain", pem));
            EXPECT_EQ(exchange(ke, answerHello(server, hello(ke).out)).code,
                      between > AVEN_KE_CHAIN_MAX ? AVEN_E_KE_UNTRUSTED : 0);
        }
        CertificatePlan plan = rootPlan();
        plan.name = "Issuer " + std::to_string(between);
        issuer = makeCredential(plan, kind, issuer);
        pem += toPem(issuer.certificate.get());
    }
}

TEST_F(TrustedRoots, FailedCallKeepsThoseBefore)
{
    void* ke = newSession(world.rootFile);
    EXPECT_EQ(engine.aven_ke_set_root_certificate(ke, "/missing", nullptr), AVEN_E_KE_ROOTS_OPEN);
    EXPECT_EQ(exchange(ke, answerHello(world.server, hello(ke).out)).code, 0);
}

// ---- The client's own keys and certificates.

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

// ---- Order and handles.

TEST_F(KeyExchange, CallsOutOfOrderAreRefused)
{
    const World& world = worldOf(KeyKind::Sm2);
    const auto channelCode = [&](void* ke) {
        const int code = encrypt(ke, "text").code;
        EXPECT_EQ(decrypt(ke, pattern(40)).code, code);
        EXPECT_EQ(hmac(ke, "text").code, code);
        EXPECT_EQ(cmac(ke, "text").code, code);
        uint32_t len = 0;
        EXPECT_EQ(engine.aven_ke_hmac(ke, nullptr, 0, nullptr, &len), code);
        EXPECT_EQ(engine.aven_ke_cmac(ke, nullptr, 0, nullptr, &len), code);
        return code;
    };
    const std::string key = support::publicPem("sm2"), certificate = support::certificatePem("sm2");
    const auto settingsCode = [&](void* ke) {
        const int code = setKeys(ke, key, "");
        EXPECT_EQ(setCertificates(ke, certificate, ""), code);
        EXPECT_EQ(engine.aven_ke_set_root_certificate(ke, world.rootFile.c_str(), nullptr), code);
        return code;
    };

    void* ke = newSession();
    const ServerAnswer early = answerHello(world.server, pattern(32));
    EXPECT_EQ(hello(ke).code, AVEN_E_KE_TOO_EARLY);
    EXPECT_EQ(exchange(ke, early).code, AVEN_E_KE_TOO_EARLY);
    EXPECT_EQ(channelCode(ke), AVEN_E_KE_TOO_EARLY);
    EXPECT_EQ(settingsCode(ke), 0);
    EXPECT_EQ(exchange(ke, early).code, AVEN_E_KE_TOO_EARLY);

    const Result greeting = hello(ke);
    ASSERT_EQ(greeting.code, 0);
    EXPECT_EQ(hello(ke).code, AVEN_E_KE_TOO_LATE);
    EXPECT_EQ(settingsCode(ke), AVEN_E_KE_TOO_LATE);
    EXPECT_EQ(channelCode(ke), AVEN_E_KE_TOO_EARLY);
    EXPECT_EQ(exchange(ke, early).code, AVEN_E_KE_SIGNATURE);

    const ServerAnswer answer = answerHello(world.server, greeting.out);
    EXPECT_EQ(exchange(ke, answer).code, 0);
    EXPECT_EQ(exchange(ke, answer).code, AVEN_E_KE_TOO_LATE);
    EXPECT_EQ(hello(ke).code, AVEN_E_KE_TOO_LATE);
    EXPECT_EQ(settingsCode(ke), AVEN_E_KE_TOO_LATE);
    EXPECT_EQ(hmac(ke, "text").code, 0);
}

TEST_F(KeyExchange, HandlesThatAreNoneAreErrors)
{
    const World& world = worldOf(KeyKind::Sm2);
    const ServerAnswer answer = answerHello(world.server, pattern(32));
    const auto everyCode = [&](void* ke) {
        const int code = hello(ke).code;
        EXPECT_EQ(exchange(ke, answer).code, code);
        EXPECT_EQ(setKeys(ke, support::publicPem("sm2"), ""), code);
        EXPECT_EQ(setCertificates(ke, support::certificatePem("sm2"), ""), code);
        EXPECT_EQ(engine.aven_ke_set_root_certificate(ke, world.rootFile.c_str(), nullptr), code);
        EXPECT_EQ(encrypt(ke, "text").code, code);
        EXPECT_EQ(decrypt(ke, pattern(40)).code, code);
        EXPECT_EQ(hmac(ke, "text").code, code);
        EXPECT_EQ(cmac(ke, "text").code, code);
        EXPECT_EQ(engine.aven_ke_free(ke), code);
        return code;
    };

    EXPECT_EQ(everyCode(nullptr), AVEN_E_NULL_POINTER);
    EXPECT_EQ(everyCode(reinterpret_cast<void*>(1)), AVEN_E_HANDLE);
    EXPECT_EQ(everyCode(reinterpret_cast<void*>(-1)), AVEN_E_HANDLE);
    int local = 0;
    EXPECT_EQ(everyCode(&local), AVEN_E_HANDLE);

    void* freed = connect(world).ke;
    EXPECT_EQ(engine.aven_ke_free(freed), 0);
    EXPECT_EQ(everyCode(freed), AVEN_E_HANDLE);

    void* live = connect(world).ke;
    EXPECT_EQ(everyCode(static_cast<char*>(live) + 1), AVEN_E_HANDLE);
    EXPECT_EQ(hmac(live, "text").code, 0);

    // A handle of another kind, in both directions.
    const Exact text(support::publicPem("sm2"));
    void* keyPair = nullptr;
    ASSERT_EQ(engine.aven_keypair_unmarshal(AVEN_KEY_ANY, nullptr, 0, text.data(), text.size(),
                                            nullptr, &keyPair),
              0);
    EXPECT_EQ(everyCode(keyPair), AVEN_E_HANDLE);
    EXPECT_EQ(engine.aven_keypair_free(live), AVEN_E_HANDLE);
    EXPECT_EQ(engine.aven_keypair_free(keyPair), 0);
    EXPECT_EQ(hmac(live, "text").code, 0);
    EXPECT_EQ(engine.aven_ke_new(nullptr), AVEN_E_NULL_POINTER);
}

TEST_F(KeyExchange, HandlesAreUnguessableAndSurviveDecimalText)
{
    std::set<void*> handles;
    for (int i = 0; i < 200; ++i) {
        void* ke = newSession();
        const long number = reinterpret_cast<long>(ke);
        EXPECT_GT(number, 0);
        EXPECT_EQ(reinterpret_cast<void*>(atol(std::to_string(number).c_str())), ke);
        handles.insert(ke);
    }
    EXPECT_EQ(handles.size(), 200u);
    for (int bit = 0; bit < 63; ++bit) {
        size_t set = 0;
        for (void* ke : handles)
            set += reinterpret_cast<uintptr_t>(ke) >> bit & 1;
        EXPECT_GT(set, 40u) << bit;
        EXPECT_LT(set, 160u) << bit;
    }
}

TEST_F(KeyExchange, LiveSessionsAreLimited)
{
    std::vector<void*> sessions;
    for (int i = 0; i < AVEN_KE_SESSIONS_MAX; ++i)
        sessions.push_back(newSession());
    void* more = &more;
    EXPECT_EQ(engine.aven_ke_new(&more), AVEN_E_KE_SESSIONS);
    EXPECT_EQ(more, nullptr);
    EXPECT_EQ(engine.aven_ke_free(sessions.back()), 0);
    EXPECT_EQ(engine.aven_ke_new(&more), 0);
    void* another = nullptr;
    EXPECT_EQ(engine.aven_ke_new(&another), AVEN_E_KE_SESSIONS);

    // A restart ends them all.
    EXPECT_EQ(engine.aven_global_cleanup(), 0);
    EXPECT_EQ(engine.aven_ke_free(more), AVEN_E_NOT_INITIALISED);
    EXPECT_EQ(engine.aven_global_init(), 0);
    EXPECT_EQ(engine.aven_ke_free(more), AVEN_E_HANDLE);
    for (int i = 0; i < AVEN_KE_SESSIONS_MAX; ++i)
        newSession();
}

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

// ---- Threads.

TEST_F(KeyExchange, EightThreadsWithSessionsOfTheirOwn)
{
    worldOf(KeyKind::Sm2);
    worldOf(KeyKind::Rsa);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([this, t] {
            for (int i = 0; i < 4; ++i) {
                const Channel channel = connect(worldOf(kinds[(t + i) % 2]));
                EXPECT_EQ(openMessage(channel.keys, encrypt(channel.ke, "text").out), "text");
                EXPECT_EQ(decrypt(channel.ke, sealMessage(channel.keys, "text")).out, "text");
                EXPECT_EQ(engine.aven_ke_free(channel.ke), 0);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

// Only one thread can complete a step; all others learn that they are too late.
TEST_F(KeyExchange, EightThreadsInOneExchange)
{
    const World& world = worldOf(KeyKind::Sm2);
    void* ke = newSession(world.rootFile);
    std::atomic<int> greeted{0};
    std::string greeting;
    const auto inEightThreads = [](auto body) {
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; ++t)
            threads.emplace_back(body);
        for (std::thread& thread : threads)
            thread.join();
    };
    inEightThreads([&] {
        const Result result = hello(ke);
        if (result.code == 0 && greeted++ == 0)
            greeting = result.out;
        else
            EXPECT_EQ(result.code, AVEN_E_KE_TOO_LATE);
    });
    EXPECT_EQ(greeted, 1);

    const ServerAnswer answer = answerHello(world.server, greeting);
    std::atomic<int> established{0};
    inEightThreads([&] {
        const int code = exchange(ke, answer).code;
        EXPECT_TRUE(code == 0 || code == AVEN_E_KE_TOO_LATE);
        established += code == 0 ? 1 : 0;
    });
    EXPECT_EQ(established, 1);
}

TEST_F(KeyExchange, SessionMayBeFreedWhileInUse)
{
    const World& world = worldOf(KeyKind::Sm2);
    for (int round = 0; round < 5; ++round) {
        const Channel channel = connect(world);
        const std::string text = pattern(2000), message = sealMessage(channel.keys, text);
        std::atomic<int> used{0}, freed{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; ++t) {
            threads.emplace_back([&, t] {
                for (;;) {
                    const Result result =
                        t % 2 == 0 ? decrypt(channel.ke, message) : hmac(channel.ke, text);
                    if (result.code != 0) {
                        EXPECT_EQ(result.code, AVEN_E_HANDLE);
                        return;
                    }
                    if (++used >= 40 && t < 2 && engine.aven_ke_free(channel.ke) == 0)
                        ++freed;
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(freed, 1);
    }
}

}  // namespace
