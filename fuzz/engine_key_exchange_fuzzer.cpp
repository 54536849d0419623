// The key exchange against the devkit's own server. An exchange whose values are genuine
// ends in a channel that both sides read; with a value or message that was changed or
// replaced it fails. Roots and the client's own keys may be any bytes. Input: a byte each
// for the server's kind, what is done and to which value; three for a change; then the
// bytes.

#include <sys/mman.h>
#include <unistd.h>

#include "engine_fuzz.h"
#include "peer/ke_server.h"

using fuzz::Damage;
using fuzz::Exact;
using fuzz::Outcome;

namespace {

struct Peer {
    std::string root;  // a path
    ServerCredentials server;
};
Peer peers[2];  // SM2, RSA

// A file without a name, which may be opened by the path as long as the process lives.
class MemoryFile {
public:
    MemoryFile() : m_file(memfd_create("roots", MFD_CLOEXEC)) { HOLDS(m_file >= 0); }

    void write(const std::string& bytes) const
    {
        HOLDS(ftruncate(m_file, 0) == 0);
        HOLDS(pwrite(m_file, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
    }
    std::string path() const { return "/proc/self/fd/" + std::to_string(m_file); }

private:
    int m_file;
};

Peer makePeer(KeyKind kind)
{
    const Credential root = makeRoot(rootPlan(), kind);
    const MemoryFile file;
    file.write(toPem(root.certificate.get()));
    return {
        file.path(),
        {makeCredential(signingPlan(), kind, root), makeCredential(encryptionPlan(), kind, root)}};
}

class Session {
public:
    Session() { HOLDS(aven_ke_new(&m_handle) == AVEN_OK && m_handle != nullptr); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session()
    {
        HOLDS(aven_ke_free(m_handle) == AVEN_OK);
        HOLDS(aven_ke_free(m_handle) == AVEN_E_HANDLE);
    }

    void* handle() const { return m_handle; }

    std::string greet(const std::string& roots) const
    {
        HOLDS(aven_ke_set_root_certificate(m_handle, roots.c_str(), nullptr) == AVEN_OK);
        const Outcome hello = fuzz::withRoom(32, [&](unsigned char* out, uint32_t* length) {
            return aven_ke_client_hello(m_handle, out, length);
        });
        HOLDS(isSuccess(hello) && hello.length == 32);
        return hello.bytes;
    }

    Outcome exchange(const ServerAnswer& answer) const
    {
        Exact random(answer.random);
        Exact signing(answer.signingCertificate);
        Exact encryption(answer.encryptionCertificate);
        Exact signature(answer.signature);
        return fuzz::withRoom(256, [&](unsigned char* out, uint32_t* length) {
            return aven_ke_client_key_exchange(m_handle, random.data(), random.size32(),
                                               signing.data(), signing.size32(), encryption.data(),
                                               encryption.size32(), signature.data(),
                                               signature.size32(), out, length);
        });
    }

    Outcome use(decltype(aven_ke_encrypt)* function, const std::string& bytes, size_t room) const
    {
        Exact in(bytes);
        return fuzz::withRoom(room, [&](unsigned char* out, uint32_t* length) {
            return function(m_handle, in.data(), in.size32(), out, length);
        });
    }

private:
    void* m_handle = nullptr;
};

void checkChannel(const Session& session, const ChannelKeys& keys, const std::string& text,
                  const Damage& damage)
{
    const Outcome sealed = session.use(aven_ke_encrypt, text, text.size() + 28);
    HOLDS(isSuccess(sealed) && openMessage(keys, sealed.bytes) == text);

    const std::string message = sealMessage(keys, text);
    const Outcome opened = session.use(aven_ke_decrypt, message, text.size());
    HOLDS(isSuccess(opened) && opened.bytes == text);
    HOLDS(session.use(aven_ke_decrypt, damage.in(message), text.size()).code ==
          AVEN_E_TAG_MISMATCH);
    HOLDS(session.use(aven_ke_decrypt, sealed.bytes, text.size()).code == AVEN_E_TAG_MISMATCH);
    HOLDS(session.use(aven_ke_decrypt, text, text.size()).code ==
          (text.size() < 28 ? AVEN_E_KE_MESSAGE : AVEN_E_TAG_MISMATCH));

    HOLDS(session.use(aven_ke_hmac, text, 32).bytes == channelHmac(keys, text));
    HOLDS(session.use(aven_ke_cmac, text, 16).bytes == channelCmac(keys, text));
}

void checkExchange(const Peer& peer, const std::string& text, const Damage& damage)
{
    const Session session;
    const std::string hello = session.greet(peer.root);
    const ServerAnswer answer = answerHello(peer.server, hello);
    const Outcome message = session.exchange(answer);
    HOLDS(isSuccess(message));
    const ChannelKeys keys = acceptKeyExchange(peer.server, hello, answer.random, message.bytes);
    checkChannel(session, keys, text, damage);
}

// `change` is given one of the server's four values.
template <class Change>
void checkRefusal(const Peer& peer, unsigned which, Change change)
{
    const Session session;
    const std::string hello = session.greet(peer.root);
    const ServerAnswer genuine = answerHello(peer.server, hello);
    ServerAnswer answer = genuine;
    std::string* const values[] = {&answer.random, &answer.signingCertificate,
                                   &answer.encryptionCertificate, &answer.signature};
    *values[which] = change(*values[which]);
    HOLDS(!isSuccess(session.exchange(answer)));
    HOLDS(isSuccess(session.exchange(genuine)));
}

void readRoots(const std::string& text)
{
    static const MemoryFile file;
    file.write(text);
    const Session session;
    aven_ke_set_root_certificate(session.handle(), file.path().c_str(), nullptr);
}

void setIdentities(const std::string& text, unsigned which)
{
    const Session session;
    Exact in(text);
    const unsigned char* none = nullptr;
    const auto set = [&](auto function) {
        return which % 2 == 0
                   ? function(session.handle(), in.data(), in.size32(), none, 0, nullptr)
                   : function(session.handle(), none, 0, in.data(), in.size32(), nullptr);
    };
    const int key = set(aven_ke_set_public_key);
    const int certificate = set(aven_ke_set_certificate);
    // A certificate is a public key too, and its own.
    HOLDS(certificate != AVEN_OK || key == AVEN_OK);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::startEngine();
    peers[0] = makePeer(KeyKind::Sm2);
    peers[1] = makePeer(KeyKind::Rsa);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    const Peer& peer = peers[input.pick(2)];
    const unsigned what = input.pick(5);
    const unsigned which = input.pick(4);
    const Damage damage(input);
    const std::string text = input.rest();

    switch (what) {
        case 0:
            checkExchange(peer, text, damage);
            break;
        case 1:
            checkRefusal(peer, which, [&](const std::string& value) { return damage.in(value); });
            break;
        case 2:
            checkRefusal(peer, which, [&](const std::string&) { return text; });
            break;
        case 3:
            readRoots(text);
            break;
        default:
            setIdentities(text, which);
    }
    return 0;
}
