// The client's side of the key exchange, and the channel: Botan is the server. Its certificates are
// libcrypto's.

#include <botan/data_src.h>
#include <botan/ecdsa.h>
#include <botan/kdf.h>
#include <botan/pkcs8.h>
#include <botan/system_rng.h>

#include "differential/algorithm.h"
#include "differential/prepared_keys.h"
#include "peer/ke_server.h"
#include "support/files.h"

namespace differential {

namespace {

using support::Exact;
using support::Fenced;
using support::Job;

// What a suite takes from Botan.
struct Suite {
    const char* name;
    KeyKind kind;
    const char* signature;
    Botan::Signature_Format format;
    const char* encryption;
    int hash;
};
constexpr Suite suites[] = {
    {"SM2", KeyKind::Sm2, "1234567812345678,SM3", Botan::DER_SEQUENCE, "SM3", AVEN_HASH_SM3},
    {"RSA", KeyKind::Rsa, "EMSA3(SHA-256)", Botan::IEEE_1363, "PKCS1v15", AVEN_HASH_SHA256},
};

// For files of the servers, which are kept beyond the program's end.
const support::TemporaryFolder& folder()
{
    static const support::TemporaryFolder temporary;
    return temporary;
}

// The server, with its certificates' keys.
class Server {
public:
    explicit Server(const Suite& suite) : m_suite(suite), m_path(folder().path(suite.name))
    {
        const Credential root = makeRoot(rootPlan(), suite.kind);
        const ServerCredentials server = {makeCredential(signingPlan(), suite.kind, root),
                                          makeCredential(encryptionPlan(), suite.kind, root)};
        signingCertificate = toDer(server.signing.certificate.get());
        encryptionCertificate = toDer(server.encryption.certificate.get());
        writeCredentials(m_path, root, server);
        rootFile = m_path + "/root.crt";
        m_signing = readKey("/sign.key");
        m_encryption = readKey("/enc.key");
    }

    std::string sign(const std::string& content, Trial& trial) const
    {
        botan::Chance chance(trial);
        Botan::PK_Signer signer(*m_signing, chance, m_suite.signature, m_suite.format);
        return botan::textOf(signer.sign_message(botan::bytesOf(content), content.size(), chance));
    }

    Answer verify(const std::string& content, const std::string& signature) const
    {
        return botan::answerOf([&]() -> Answer {
            Botan::PK_Verifier verifier(*m_signing, m_suite.signature, m_suite.format);
            return verifier.verify_message(botan::bytesOf(content), content.size(),
                                           botan::bytesOf(signature), signature.size())
                       ? Answer("right")
                       : std::nullopt;
        });
    }

    Answer decrypt(const std::string& message) const
    {
        const Botan::PK_Decryptor_EME decryptor(*m_encryption, Botan::system_rng(),
                                                m_suite.encryption);
        return botan::decrypt(decryptor, message);
    }

    std::string signingCertificate, encryptionCertificate;  // DER
    std::string rootFile;

private:
    // libcrypto writes keys of SM2 in the form of ECDSA's.
    std::unique_ptr<Botan::Private_Key> readKey(const char* name) const
    {
        Botan::DataSource_Stream file(m_path + name);
        std::unique_ptr<Botan::Private_Key> key = Botan::PKCS8::load_key(file);
        if (const auto* ec = dynamic_cast<Botan::EC_PrivateKey*>(key.get()))
            return std::make_unique<Botan::SM2_PrivateKey>(Botan::system_rng(), sm2Curve(),
                                                           ec->private_value());
        return key;
    }

    const Suite& m_suite;
    std::string m_path;
    std::unique_ptr<Botan::Private_Key> m_signing, m_encryption;
};

// A session of the engine's client.
class Client {
public:
    explicit Client(const std::string& rootFile)
    {
        must(library().aven_ke_new(&m_ke) == 0, "no session");
        must(library().aven_ke_set_root_certificate(m_ke, rootFile.c_str(), nullptr) == 0,
             "the root is not read");
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() { library().aven_ke_free(m_ke); }

    std::string hello()
    {
        Fenced out(KE_RANDOM);
        const Answer hello =
            engine::answerOf(library().aven_ke_client_hello(m_ke, out.data(), &out.len), out);
        return hello ? *hello : throw std::runtime_error("no hello");
    }

    // The key-exchange message.
    Answer exchange(const Server& server, const std::string& random, const std::string& signature)
    {
        const Exact rnd(random), sign(server.signingCertificate), enc(server.encryptionCertificate),
            sig(signature);
        Fenced out(AVEN_KE_MESSAGE_MAX);
        return engine::answerOf(
            library().aven_ke_client_key_exchange(m_ke, rnd.data(), rnd.size(), sign.data(),
                                                  sign.size(), enc.data(), enc.size(), sig.data(),
                                                  sig.size(), out.data(), &out.len),
            out);
    }

    Answer encrypt(const std::string& text)
    {
        return call(library().aven_ke_encrypt, text, text.size() + 64);
    }
    Answer decrypt(const std::string& message)
    {
        return call(library().aven_ke_decrypt, message, message.size() + 64);
    }
    Answer hmac(const std::string& data) { return call(library().aven_ke_hmac, data, KE_HASH); }
    Answer cmac(const std::string& data) { return call(library().aven_ke_cmac, data, KE_BLOCK); }

private:
    static const support::DevkitEngine& library() { return engine::library(); }

    template <class Function>
    Answer call(Function function, const std::string& data, size_t capacity)
    {
        const Exact in(data);
        Fenced out(capacity);
        return engine::answerOf(function(m_ke, in.data(), in.size(), out.data(), &out.len), out);
    }

    void* m_ke = nullptr;
};

// ---- What KEY_EXCHANGE.md says, with Botan

std::string signedContent(const std::string& hello, const std::string& random,
                          const std::string& certificate)
{
    const size_t size = certificate.size();
    return hello + random + static_cast<char>(size >> 16) + static_cast<char>(size >> 8) +
           static_cast<char>(size) + certificate;
}

std::string prf(int hash, const std::string& secret, const std::string& label,
                const std::string& seed, size_t size)
{
    const auto prf = Botan::KDF::create_or_throw("TLS-12-PRF(" + botan::hashName(hash) + ")");
    return botan::textOf(prf->derive_key(size, botan::bytesOf(secret), secret.size(), seed, label));
}

struct Keys {
    std::string hmac, cmac, clientWrite, serverWrite;
};

Keys keysOf(int hash, const std::string& preMaster, const std::string& hello,
            const std::string& random)
{
    const std::string master = prf(hash, preMaster, "master secret", hello + random, 48);
    const std::string block = prf(hash, master, "key expansion", random + hello, 80);
    return {block.substr(0, 32), block.substr(32, 16), block.substr(48, 16), block.substr(64, 16)};
}

Job channelJob(const std::string& key, const std::string& nonce, const char* label)
{
    return {AVEN_CIPHER_SM4, AVEN_MODE_GCM, 0, key, nonce, label};
}

// ---- The comparison

// Signatures that are refused leave the session as it was.
void compareSignatures(Trial& trial, const Server& server, Client& client, const std::string& hello,
                       const std::string& random)
{
    const std::string content = signedContent(hello, random, server.encryptionCertificate);
    const std::string right = server.sign(content, trial);
    const auto compare = [&](const char* what, const std::string& signature) {
        const bool accepted = client.exchange(server, random, signature).has_value();
        trial.expectSameVerdict(what, signature, accepted ? Answer("right") : std::nullopt,
                                server.verify(content, signature));
    };
    for (size_t bit : trial.bits(8 * right.size()))
        compare("a bit of the signature", flipped(right, bit));
    compare("a signature that is cut", right.substr(0, trial.below(right.size())));
    compare("a signature with more behind it", right + trial.bytes(1 + trial.below(8)));
    compare("a signature of something else",
            server.sign(flipped(content, trial.below(8 * content.size())), trial));
}

void compareChannel(Trial& trial, const Keys& keys, int hash, Client& client)
{
    const std::string text = trial.bytes(trial.size(KE_BLOCK));
    const Answer fromClient = client.encrypt(text);
    must(fromClient && fromClient->size() >= KE_OVERHEAD, "the client does not encrypt");
    trial.expectSame("message to the server", text,
                     botan::decrypt(channelJob(keys.clientWrite, fromClient->substr(0, KE_NONCE),
                                               "client write"),
                                    fromClient->substr(KE_NONCE), KE_TAG));

    const std::string nonce = trial.bytes(KE_NONCE);
    const Job job = channelJob(keys.serverWrite, nonce, "server write");
    trial.expectSame("message to the client",
                     client.decrypt(nonce + botan::encrypted(job, text, KE_TAG)), text);
    const std::string sealed = botan::encrypted(job, trial.bytes(trial.below(32)), KE_TAG);
    for (size_t bit : trial.bits(8 * sealed.size())) {
        const std::string message = flipped(sealed, bit);
        trial.expectSameVerdict("a bit of a message", nonce + message,
                                client.decrypt(nonce + message),
                                botan::decrypt(job, message, KE_TAG));
    }

    trial.expectSame("HMAC", client.hmac(text), botan::hmac(hash, keys.hmac, text));
    trial.expectSame("CMAC", client.cmac(text), botan::cmac(AVEN_CIPHER_SM4, keys.cmac, text));
}

void compare(Trial& trial, const Suite& suite, const Server& server)
{
    Client client(server.rootFile);
    const std::string hello = client.hello(), random = trial.bytes(KE_RANDOM);
    compareSignatures(trial, server, client, hello, random);

    const std::string content = signedContent(hello, random, server.encryptionCertificate);
    const Answer message = client.exchange(server, random, server.sign(content, trial));
    must(message.has_value(), "the client refuses the server");
    const Answer preMaster = server.decrypt(*message);
    must(preMaster && preMaster->size() == 48, "the message has no pre-master secret");
    compareChannel(trial, keysOf(suite.hash, *preMaster, hello, random), suite.hash, client);
}

}  // namespace

void addKeyExchange(Algorithms& all)
{
    for (const Suite& suite : suites)
        all.push_back({std::string("key exchange, ") + suite.name, 4, [&suite](Trial& trial) {
                           const Server& server = kept<Server>(
                               suite.kind, [&suite] { return std::make_unique<Server>(suite); });
                           compare(trial, suite, server);
                       }});
}

}  // namespace differential
