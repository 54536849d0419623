// The roots that a session of the development engine trusts: their files and folders, limits,
// and that sessions share them.
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/key_exchange_session.h"

namespace {

using support::KeyExchange;
using support::openssl;
using support::rootOfSize;
using support::TemporaryFolder;
using support::toBase64;
using support::World;
using support::worldOf;

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
    // DER begins with a sequence whose length has more than one byte.
    EXPECT_EQ(file("\x30\x82"), AVEN_E_KE_ROOTS_NONE);
    EXPECT_EQ(file("\x30\x82\x01"), AVEN_E_KEY_TEXT);
    EXPECT_EQ(file("\x30\x81\x80x"), AVEN_E_KEY_TEXT);
    EXPECT_EQ(file("\x30\x80xx"), AVEN_E_KE_ROOTS_NONE);
    EXPECT_EQ(file("x\x82xx"), AVEN_E_KE_ROOTS_NONE);
    // A file that is named must hold some, whatever is in the directory.
    std::filesystem::create_directory(folder.path("some"));
    folder.write("some/root", pem);
    EXPECT_EQ(set(folder.write("file", "text").c_str(), folder.path("some").c_str()),
              AVEN_E_KE_ROOTS_NONE);
    // Shorter than the system says that it is.
    if (const char* pages = "/sys/kernel/uevent_seqnum"; std::filesystem::exists(pages)) {
        EXPECT_EQ(set(pages, nullptr), AVEN_E_KE_ROOTS_OPEN);
    }
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

TEST_F(TrustedRoots, LeaveNothingBehindWhenTheyEnd)
{
    const auto setEach = [&](int first, int end) {
        for (int serial = first; serial < end; ++serial) {
            const std::string der = toDer(rootOfSize(world.root, 2000, serial).get());
            EXPECT_EQ(set(folder.write("root", der).c_str(), nullptr), 0);
        }
        return support::Held::now().allocated;
    };
    const size_t before = setEach(0, 50);
    EXPECT_LT(setEach(50, 550), before + 16384);
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

}  // namespace
