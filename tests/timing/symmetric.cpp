// Symmetric decryption: tags, and PKCS#7's padding. That a padding is wrong has a code of its own,
// which hosts go by; so what is compared are ways in which it can be wrong, and to be right.

#include "peer/ke_server.h"
#include "support/files.h"
#include "timing/toolbox.h"

namespace timing {

namespace {

constexpr size_t TEXT = 64;

struct Cipher {
    const char* name;
    int number;
    int mode;
    size_t keySize;
    size_t ivSize;
};

// A key and an IV for it.
struct Keyed {
    Cipher cipher;
    std::string key;
    std::string iv;

    Keyed(const Cipher& which, Random& random)
        : cipher(which),
          key(randomBytes(which.keySize, random)),
          iv(randomBytes(which.ivSize, random))
    {
    }

    SymmCipherParams params(int padding) const
    {
        return {cipher.number, cipher.mode, padding, bytes(key), size32(key),
                bytes(iv),     size32(iv),  nullptr, 0};
    }

    // Without padding; the tag behind it in GCM.
    std::string encrypt(const std::string& text) const
    {
        const size_t tag = cipher.mode == AVEN_MODE_GCM ? AVEN_GCM_TAG_MAX : 0;
        std::string out(text.size() + tag, '\0');
        uint32_t size = size32(text);
        const SymmCipherParams block = params(AVEN_PADDING_NONE);
        must(engine().aven_crypto_encrypt(&block, bytes(text), size32(text), bytes(out), &size,
                                          static_cast<int>(tag), bytes(out) + text.size()) == 0,
             "cannot encrypt");
        return out;
    }
};

// ---- Tags.

void addTag(std::vector<Comparison>& all, const Cipher& cipher, Random& random)
{
    const Keyed keyed(cipher, random);
    const std::string sealed = keyed.encrypt(randomBytes(TEXT, random));
    const auto wrongTags = std::make_shared<Inputs>([&](unsigned kind) {
        std::string tag = sealed.substr(TEXT);
        damage(tag, kind == 0 ? 0 : tag.size() - 1, random);
        return tag;
    });
    all.push_back(compare(std::string(cipher.name) + " tag", "first byte wrong or last",
                          AVEN_E_TAG_MISMATCH, wrongTags, [keyed, sealed](const Inputs& tag) {
                              unsigned char out[TEXT];
                              uint32_t size = sizeof out;
                              const SymmCipherParams block = keyed.params(AVEN_PADDING_NONE);
                              return engine().aven_crypto_decrypt(
                                  &block, bytes(sealed), TEXT, tag.data(), tag.size(), out, &size);
                          }));
}

// A session whose exchange is done, and the peer's keys.
struct Channel {
    void* session = nullptr;
    ChannelKeys keys;
};

Channel makeChannel()
{
    const support::TemporaryFolder folder;
    const Credential root = makeRoot(rootPlan(), KeyKind::Sm2);
    const ServerCredentials server = {makeCredential(signingPlan(), KeyKind::Sm2, root),
                                      makeCredential(encryptionPlan(), KeyKind::Sm2, root)};
    const std::string rootFile = folder.write("root.crt", toPem(root.certificate.get()));

    void* session = nullptr;
    std::string hello(KE_RANDOM, '\0');
    uint32_t helloSize = size32(hello);
    must(engine().aven_ke_new(&session) == 0 &&
             engine().aven_ke_set_root_certificate(session, rootFile.c_str(), nullptr) == 0 &&
             engine().aven_ke_client_hello(session, bytes(hello), &helloSize) == 0,
         "no session");
    const ServerAnswer answer = answerHello(server, hello);
    std::string message(AVEN_KE_MESSAGE_MAX, '\0');
    uint32_t size = size32(message);
    must(engine().aven_ke_client_key_exchange(
             session, bytes(answer.random), size32(answer.random), bytes(answer.signingCertificate),
             size32(answer.signingCertificate), bytes(answer.encryptionCertificate),
             size32(answer.encryptionCertificate), bytes(answer.signature),
             size32(answer.signature), bytes(message), &size) == 0,
         "no key exchange");
    message.resize(size);
    return {session, acceptKeyExchange(server, hello, answer.random, message)};
}

void addChannel(std::vector<Comparison>& all, Random& random)
{
    const Channel channel = makeChannel();
    const auto forged = std::make_shared<Inputs>([&](unsigned kind) {
        std::string message = sealMessage(channel.keys, randomBytes(TEXT, random));
        damage(message, kind == 0 ? message.size() - KE_TAG : message.size() - 1, random);
        return message;
    });
    all.push_back(compare(
        "message of the channel, tag", "first byte wrong or last", AVEN_E_TAG_MISMATCH, forged,
        [session = channel.session](const Inputs& message) {
            unsigned char out[TEXT];
            uint32_t size = sizeof out;
            return engine().aven_ke_decrypt(session, message.data(), message.size(), out, &size);
        }));
}

// ---- Padding.

// The text's last bytes: `count` of the value `value`.
void pad(std::string& text, size_t count, size_t value)
{
    text.replace(text.size() - count, count, count, static_cast<char>(value));
}

using Pad = std::function<void(std::string& text, unsigned kind)>;

void addPadding(std::vector<Comparison>& all, const Cipher& cipher, const char* kinds, int expected,
                const Pad& padText, Random& random)
{
    const Keyed keyed(cipher, random);
    const auto padded = std::make_shared<Inputs>([&](unsigned kind) {
        std::string text = randomBytes(TEXT, random);
        padText(text, kind);
        return keyed.encrypt(text);
    });
    all.push_back(compare(std::string(cipher.name) + " padding", kinds, expected, padded,
                          [keyed](const Inputs& in) {
                              unsigned char out[TEXT];
                              uint32_t size = sizeof out;
                              const SymmCipherParams block = keyed.params(AVEN_PADDING_PKCS7);
                              return engine().aven_crypto_decrypt(&block, in.data(), in.size(),
                                                                  nullptr, 0, out, &size);
                          }));
}

void addPaddings(std::vector<Comparison>& all, const Cipher& cipher, size_t block, Random& random)
{
    // The first and the last but one of a whole block of padding; the last one is the count.
    addPadding(
        all, cipher, "first byte wrong or last", AVEN_E_BAD_PADDING,
        [&](std::string& text, unsigned kind) {
            pad(text, block, block);
            damage(text, kind == 0 ? text.size() - block : text.size() - 2, random);
        },
        random);
    addPadding(
        all, cipher, "count too large or byte wrong", AVEN_E_BAD_PADDING,
        [&](std::string& text, unsigned kind) {
            pad(text, block, block);
            if (kind == 0)
                text.back() = randomByte(random, static_cast<unsigned>(block) + 1);
            else
                damage(text, text.size() - block, random);
        },
        random);
    addPadding(
        all, cipher, "count 0 or byte wrong", AVEN_E_BAD_PADDING,
        [&](std::string& text, unsigned kind) {
            pad(text, block, block);
            if (kind == 0)
                text.back() = 0;
            else
                damage(text, text.size() - 2, random);
        },
        random);
    addPadding(
        all, cipher, "right, 1 byte or a block", 0,
        [&](std::string& text, unsigned kind) {
            const size_t count = kind == 0 ? 1 : block;
            pad(text, count, count);
        },
        random);
}

}  // namespace

void addSymmetric(std::vector<Comparison>& all, Random& random)
{
    addTag(all, {"AES-256-GCM", AVEN_CIPHER_AES_256, AVEN_MODE_GCM, 32, 12}, random);
    addTag(all, {"SM4-GCM", AVEN_CIPHER_SM4, AVEN_MODE_GCM, 16, 12}, random);
    addChannel(all, random);
    addPaddings(all, {"AES-256-CBC", AVEN_CIPHER_AES_256, AVEN_MODE_CBC, 32, 16}, 16, random);
    addPaddings(all, {"3DES-CBC", AVEN_CIPHER_3DES, AVEN_MODE_CBC, 24, 8}, 8, random);
}

}  // namespace timing
