// The client's side of the key exchange, and the channel under its keys. KEY_EXCHANGE.md
// describes messages and rules.

#include <array>
#include <atomic>
#include <cstring>
#include <mutex>

#include "engine/exported_call.h"
#include "engine/exports.h"
#include "engine/keys/key_forms.h"
#include "engine/keys/rsa.h"
#include "engine/keys/sm2.h"
#include "engine/mac.h"
#include "engine/symmetric/gcm.h"
#include "ke_certificates.h"
#include "ke_protocol.h"

namespace {

// ---- Sessions.

// Counts the sessions that are alive, those that are freed but still in use with them.
class SessionCount {
public:
    SessionCount()
    {
        if (m_count.fetch_add(1) < AVEN_KE_SESSIONS_MAX)
            return;
        m_count.fetch_sub(1);
        throw Failure{AVEN_E_KE_SESSIONS};
    }
    ~SessionCount() { m_count.fetch_sub(1); }
    SessionCount(const SessionCount&) = delete;
    SessionCount& operator=(const SessionCount&) = delete;

private:
    static inline std::atomic<int> m_count{0};
};

enum class Stage {
    Settings,    // keys, certificates and roots may be set
    Greeted,     // the hello is out, and the settings are fixed
    Established  // there are keys
};

// What the client has of its own, for one of the two uses.
struct ClientIdentity {
    std::shared_ptr<const Key> key;
    std::shared_ptr<const Key> certified;  // all that is needed of a certificate

    void check() const
    {
        if (key != nullptr && certified != nullptr)
            require(samePublicKey(*key, *certified), AVEN_E_KEY_MISMATCH);
    }
};

// A call that fails leaves the session as it was. All members but the count are guarded
// by the mutex; what the pointers point to is constant.
struct Session : HandleObject {
    const SessionCount counted;
    std::mutex mutex;
    Stage stage = Stage::Settings;
    ClientIdentity signing;
    ClientIdentity encryption;
    TrustedRoots roots;
    std::array<unsigned char, KE_RANDOM> clientRandom = {};
    std::shared_ptr<const ChannelKeys> keys;

    void requireStage(Stage wanted) const
    {
        require(stage >= wanted, AVEN_E_KE_TOO_EARLY);
        require(stage <= wanted, AVEN_E_KE_TOO_LATE);
    }
};

std::shared_ptr<Session> sessionOf(const Engine& engine, const void* handle)
{
    require(handle != nullptr, AVEN_E_NULL_POINTER);
    std::shared_ptr<Session> session = engine.handles().find<Session>(handle);
    require(session != nullptr, AVEN_E_HANDLE);
    return session;
}

std::shared_ptr<const ChannelKeys> channelOf(const Engine& engine, const void* handle)
{
    const std::shared_ptr<Session> session = sessionOf(engine, handle);
    const std::lock_guard<std::mutex> lock(session->mutex);
    session->requireStage(Stage::Established);
    return session->keys;
}

// ---- The client's own keys and certificates.

// Either half of a key: a private one where the text is of a private key.
std::shared_ptr<const Key> readEitherKey(const Engine& engine, Bytes text, const char* password)
{
    const KeyForm form = unwrapKeyText(text).form;
    const bool isPublic = form == KeyForm::PublicKey || form == KeyForm::Certificate;
    return std::make_shared<const Key>(isPublic ? readPublicKey(engine, text)
                                                : readPrivateKey(engine, text, password));
}

std::shared_ptr<const Key> readCertifiedKey(const Engine& engine, Bytes text)
{
    require(unwrapKeyText(text).form == KeyForm::Certificate, AVEN_E_KEY_ROLE);
    return std::make_shared<const Key>(readPublicKey(engine, text));
}

// Changes both identities or none. `change` gets an identity and the text for it.
template <class Change>
void setIdentities(Session& session, Bytes signingText, Bytes encryptionText, Change change)
{
    require(signingText.size > 0 || encryptionText.size > 0, AVEN_E_KEY_MISSING);
    const std::lock_guard<std::mutex> lock(session.mutex);
    session.requireStage(Stage::Settings);

    ClientIdentity signing = session.signing;
    ClientIdentity encryption = session.encryption;
    if (signingText.size > 0)
        change(signing, signingText);
    if (encryptionText.size > 0)
        change(encryption, encryptionText);
    signing.check();
    encryption.check();
    session.signing = signing;
    session.encryption = encryption;
}

// ---- The exchange.

struct Server {
    std::shared_ptr<Certificate> signing;
    std::shared_ptr<Certificate> encryption;
};

// The server's certificates, trusted.
Server readServer(const Engine& engine, const TrustedRoots& roots, Bytes signing, Bytes encryption)
{
    Server server = {readServerCertificate(engine, signing),
                     readServerCertificate(engine, encryption)};
    require(server.signing->key.kind == server.encryption->key.kind, AVEN_E_KE_KINDS);
    checkServerCertificate(engine, roots, *server.signing, ServerRole::Signing);
    checkServerCertificate(engine, roots, *server.encryption, ServerRole::Encryption);
    return server;
}

std::vector<unsigned char> derOf(const Certificate& certificate)
{
    unsigned char* der = nullptr;
    const int size = i2d_X509(certificate.x509.get(), &der);
    require(size > 0, AVEN_E_NO_MEMORY);
    const struct Free {
        unsigned char* bytes;
        ~Free() { OPENSSL_free(bytes); }
    } owner = {der};
    return {der, der + size};
}

SecretBytes makePreMaster(const Engine& engine)
{
    SecretBytes secret(KE_SECRET);
    engine.random(secret.data(), secret.size());
    memcpy(secret.data(), KE_VERSION, sizeof KE_VERSION);
    return secret;
}

std::vector<unsigned char> sealPreMaster(const Engine& engine, const Key& recipient, Bytes secret)
{
    if (recipient.kind == AVEN_KEY_SM2)
        return sm2Encrypt(engine, recipient, SM2_STANDARD_FORM, secret);
    require(EVP_PKEY_get_size(recipient.pkey.get()) <= AVEN_KE_MESSAGE_MAX, AVEN_E_KE_RSA_SIZE);
    return rsaEncrypt(engine, recipient, {AVEN_RSA_PKCS1}, secret);
}

void put(Output& output, const std::vector<unsigned char>& bytes)
{
    memcpy(output.room(bytes.size()), bytes.data(), bytes.size());
    output.setLength(bytes.size());
}

// ---- The channel.

CipherSetup messageSetup(Bytes key, Bytes nonce, Bytes label)
{
    return {AVEN_CIPHER_SM4, AVEN_MODE_GCM, AVEN_PADDING_NONE, key, nonce, label};
}

// nonce || ciphertext || tag. `out` has room for data.size + KE_OVERHEAD bytes and may be
// where the data lies.
void sealMessage(const Engine& engine, const ChannelKeys& keys, Bytes data, unsigned char* out)
{
    unsigned char* text = out + KE_NONCE;
    WipeUnlessKept wipe(text, data.size);
    memmove(text, data.data, data.size);
    engine.random(out, KE_NONCE);
    gcmSeal(engine, messageSetup(keys.clientWrite(), {out, KE_NONCE}, keClientLabel()),
            {text, data.size}, text, text + data.size, KE_TAG);
    wipe.keep();
}

// `out` has room for message.size - KE_OVERHEAD bytes and may be where the message lies.
void openMessage(const Engine& engine, const ChannelKeys& keys, Bytes message, unsigned char* out)
{
    const size_t size = message.size - KE_OVERHEAD;
    unsigned char nonce[KE_NONCE];
    unsigned char tag[KE_TAG];
    memcpy(nonce, message.data, KE_NONCE);
    memcpy(tag, message.data + KE_NONCE + size, KE_TAG);
    memmove(out, message.data + KE_NONCE, size);
    gcmOpen(engine, messageSetup(keys.serverWrite(), {nonce, KE_NONCE}, keServerLabel()),
            {out, size}, {tag, KE_TAG}, out);
}

// ---- The MACs.

struct MacChoice {
    const EVP_MAC_CTX* prepared;
    Bytes key;
    size_t size;
};

// `choose(engine, keys)` returns a MacChoice.
template <class Choose>
int serveMac(const char* function, const void* ke, const unsigned char* in, uint32_t in_len,
             unsigned char* out, uint32_t* out_len, Choose choose)
{
    return answer(function, out, out_len, [&](const Engine& engine, Output& output) {
        const Bytes data = input(in, in_len);
        const std::shared_ptr<const ChannelKeys> keys = channelOf(engine, ke);
        const MacChoice choice = choose(engine, *keys);
        if (!output.isQuery())
            mac(choice.prepared, choice.key, data, output.room(choice.size), choice.size);
        output.setLength(choice.size);
    });
}

}  // namespace

int aven_ke_new(void** ke)
{
    return answer("aven_ke_new", ke, [](const Engine&) { return std::make_shared<Session>(); });
}

// Unlike the other two free functions, not without a word for null: a request whose handle
// is no number arrives as null.
int aven_ke_free(void* ke)
{
    return answer("aven_ke_free", [&](const Engine& engine) {
        require(ke != nullptr, AVEN_E_NULL_POINTER);
        require(engine.handles().remove<Session>(ke) != nullptr, AVEN_E_HANDLE);
    });
}

int aven_ke_set_public_key(void* ke, const unsigned char* sig_key, uint32_t sig_key_len,
                           const unsigned char* enc_key, uint32_t enc_key_len, const char* password)
{
    return answer("aven_ke_set_public_key", [&](const Engine& engine) {
        const std::shared_ptr<Session> session = sessionOf(engine, ke);
        setIdentities(*session, input(sig_key, sig_key_len), input(enc_key, enc_key_len),
                      [&](ClientIdentity& identity, Bytes text) {
                          identity.key = readEitherKey(engine, text, password);
                      });
    });
}

int aven_ke_set_certificate(void* ke, const unsigned char* sig_cert, uint32_t sig_cert_len,
                            const unsigned char* enc_cert, uint32_t enc_cert_len, const char*)
{
    return answer("aven_ke_set_certificate", [&](const Engine& engine) {
        const std::shared_ptr<Session> session = sessionOf(engine, ke);
        setIdentities(*session, input(sig_cert, sig_cert_len), input(enc_cert, enc_cert_len),
                      [&](ClientIdentity& identity, Bytes text) {
                          identity.certified = readCertifiedKey(engine, text);
                      });
    });
}

int aven_ke_set_root_certificate(void* ke, const char* ca_file, const char* ca_path)
{
    return answer("aven_ke_set_root_certificate", [&](const Engine& engine) {
        const std::shared_ptr<Session> session = sessionOf(engine, ke);
        const std::lock_guard<std::mutex> lock(session->mutex);
        session->requireStage(Stage::Settings);
        session->roots = readTrustedRoots(engine, ca_file, ca_path);
    });
}

int aven_ke_client_hello(void* ke, unsigned char* out, uint32_t* out_len)
{
    return answer("aven_ke_client_hello", out, out_len, [&](const Engine& engine, Output& output) {
        const std::shared_ptr<Session> session = sessionOf(engine, ke);
        const std::lock_guard<std::mutex> lock(session->mutex);
        session->requireStage(Stage::Settings);
        require(session->roots != nullptr, AVEN_E_KE_TOO_EARLY);

        unsigned char* hello = output.room(KE_RANDOM);
        engine.random(session->clientRandom.data(), KE_RANDOM);
        memcpy(hello, session->clientRandom.data(), KE_RANDOM);
        output.setLength(KE_RANDOM);
        session->stage = Stage::Greeted;
    });
}

int aven_ke_client_key_exchange(void* ke, const unsigned char* srvr_rand, uint32_t srvr_rand_len,
                                const unsigned char* srvr_sig_cert, uint32_t srvr_sig_cert_len,
                                const unsigned char* srvr_enc_cert, uint32_t srvr_enc_cert_len,
                                const unsigned char* srvr_sign, uint32_t srvr_sign_len,
                                unsigned char* out, uint32_t* out_len)
{
    return answer(
        "aven_ke_client_key_exchange", out, out_len, [&](const Engine& engine, Output& output) {
            const Bytes serverRandom = input(srvr_rand, srvr_rand_len);
            const Bytes signingBytes = input(srvr_sig_cert, srvr_sig_cert_len);
            const Bytes encryptionBytes = input(srvr_enc_cert, srvr_enc_cert_len);
            const Bytes signature = input(srvr_sign, srvr_sign_len);
            const std::shared_ptr<Session> session = sessionOf(engine, ke);
            const std::lock_guard<std::mutex> lock(session->mutex);
            session->requireStage(Stage::Greeted);
            require(serverRandom.size == KE_RANDOM, AVEN_E_KE_SERVER_RANDOM);

            const LibraryRandomness randomness(engine);
            const Server server = readServer(engine, session->roots, signingBytes, encryptionBytes);
            const KeRandoms randoms = {{session->clientRandom.data(), KE_RANDOM}, serverRandom};
            const std::vector<unsigned char> der = derOf(*server.encryption);
            const std::vector<unsigned char> content =
                keSignedContent(randoms, {der.data(), der.size()});
            require(
                signatureFits(engine, *server.signing, {content.data(), content.size()}, signature),
                AVEN_E_KE_SIGNATURE);

            const Key& recipient = server.encryption->key;
            const int hash = keHash(recipient.kind == AVEN_KEY_SM2);
            const SecretBytes preMaster = makePreMaster(engine);
            const std::vector<unsigned char> message =
                sealPreMaster(engine, recipient, view(preMaster));
            auto keys = std::make_shared<const ChannelKeys>(hash, engine.preparedHmac(hash),
                                                            view(preMaster), randoms);
            put(output, message);
            session->keys = std::move(keys);
            session->stage = Stage::Established;
        });
}

int aven_ke_encrypt(void* ke, const unsigned char* in, uint32_t in_len, unsigned char* out,
                    uint32_t* out_len)
{
    return answer("aven_ke_encrypt", out, out_len, [&](const Engine& engine, Output& output) {
        const Bytes data = input(in, in_len);
        const std::shared_ptr<const ChannelKeys> keys = channelOf(engine, ke);
        const size_t size = data.size + KE_OVERHEAD;
        require(size <= UINT32_MAX, AVEN_E_INPUT_TOO_LONG);
        sealMessage(engine, *keys, data, output.room(size));
        output.setLength(size);
    });
}

int aven_ke_decrypt(void* ke, const unsigned char* in, uint32_t in_len, unsigned char* out,
                    uint32_t* out_len)
{
    return answer("aven_ke_decrypt", out, out_len, [&](const Engine& engine, Output& output) {
        const Bytes message = input(in, in_len);
        const std::shared_ptr<const ChannelKeys> keys = channelOf(engine, ke);
        require(message.size >= KE_OVERHEAD, AVEN_E_KE_MESSAGE);
        const size_t size = message.size - KE_OVERHEAD;
        openMessage(engine, *keys, message, output.room(size));
        output.setLength(size);
    });
}

int aven_ke_hmac(void* ke, const unsigned char* in, uint32_t in_len, unsigned char* out,
                 uint32_t* out_len)
{
    return serveMac("aven_ke_hmac", ke, in, in_len, out, out_len,
                    [](const Engine& engine, const ChannelKeys& keys) -> MacChoice {
                        return {engine.preparedHmac(keys.hash()), keys.hmac(), KE_HASH};
                    });
}

int aven_ke_cmac(void* ke, const unsigned char* in, uint32_t in_len, unsigned char* out,
                 uint32_t* out_len)
{
    return serveMac("aven_ke_cmac", ke, in, in_len, out, out_len,
                    [](const Engine& engine, const ChannelKeys& keys) -> MacChoice {
                        return {engine.preparedCmac(AVEN_CIPHER_SM4), keys.cmac(), KE_BLOCK};
                    });
}
