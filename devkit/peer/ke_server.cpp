#include "ke_server.h"

#include <openssl/modes.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include "engine/mac.h"

namespace {

unsigned char* data(std::string& bytes)
{
    return reinterpret_cast<unsigned char*>(bytes.data());
}

Bytes viewOf(const std::string& bytes)
{
    return {reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()};
}

int hashOf(KeyKind kind)
{
    return keHash(kind == KeyKind::Sm2);
}

std::string randomBytes(size_t size)
{
    std::string bytes(size, '\0');
    must(RAND_bytes(data(bytes), static_cast<int>(size)) == 1, "draw randomness");
    return bytes;
}

std::unique_ptr<EVP_MAC, decltype(&EVP_MAC_free)> fetchMac(const char* name)
{
    std::unique_ptr<EVP_MAC, decltype(&EVP_MAC_free)> kind(EVP_MAC_fetch(nullptr, name, nullptr),
                                                           EVP_MAC_free);
    must(kind != nullptr, "find its MACs");
    return kind;
}

MacContext hmacOf(int hash)
{
    return prepareHmac(fetchMac("HMAC").get(), keHashName(hash));
}

void requireRandom(const std::string& random, const char* whose)
{
    if (random.size() != KE_RANDOM)
        throw PeerError(std::string(whose) + " has " + std::to_string(random.size()) +
                        " bytes instead of " + std::to_string(KE_RANDOM));
}

SecretBytes decryptPreMaster(const Credential& encryption, const std::string& message)
{
    EVP_PKEY* key = encryption.key.get();
    const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
        EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr), EVP_PKEY_CTX_free);
    must(context != nullptr && EVP_PKEY_decrypt_init(context.get()) == 1, "start decryption");
    if (kindOf(key) == KeyKind::Rsa)
        must(EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) == 1, "set a padding");

    const Bytes in = viewOf(message);
    SecretBytes secret(message.size() + static_cast<size_t>(EVP_PKEY_get_size(key)));
    size_t size = secret.size();
    if (EVP_PKEY_decrypt(context.get(), secret.data(), &size, in.data, in.size) != 1)
        throw PeerError(
            "the key-exchange message does not decrypt: it is damaged, or for "
            "another encryption certificate");
    secret.resize(size);
    if (size != KE_SECRET)
        throw PeerError("the pre-master secret has the wrong length");
    if (secret[0] != KE_VERSION[0] || secret[1] != KE_VERSION[1])
        throw PeerError("the pre-master secret has another version");
    return secret;
}

// ---- SM4-GCM, which libcrypto 3.0 lacks, from its SM4 and its GCM.

class Sm4Gcm {
public:
    Sm4Gcm(Bytes key, Bytes nonce, Bytes label)
        : m_sm4(start(key)),
          m_gcm(CRYPTO_gcm128_new(m_sm4.get(), encryptBlock), CRYPTO_gcm128_release)
    {
        must(m_gcm != nullptr, "allocate");
        CRYPTO_gcm128_setiv(m_gcm.get(), nonce.data, nonce.size);
        must(CRYPTO_gcm128_aad(m_gcm.get(), label.data, label.size) == 0, "take a label");
    }

    void encrypt(Bytes in, unsigned char* out, unsigned char* tag)
    {
        must(CRYPTO_gcm128_encrypt(m_gcm.get(), in.data, out, in.size) == 0, "encrypt");
        CRYPTO_gcm128_tag(m_gcm.get(), tag, KE_TAG);
    }

    bool decrypt(Bytes in, const unsigned char* tag, unsigned char* out)
    {
        must(CRYPTO_gcm128_decrypt(m_gcm.get(), in.data, out, in.size) == 0, "decrypt");
        return CRYPTO_gcm128_finish(m_gcm.get(), tag, KE_TAG) == 0;
    }

private:
    using Sm4 = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

    static Sm4 start(Bytes key)
    {
        Sm4 sm4(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
        must(sm4 != nullptr &&
                 EVP_EncryptInit_ex2(sm4.get(), EVP_sm4_ecb(), key.data, nullptr, nullptr) == 1,
             "start SM4");
        return sm4;
    }

    static void encryptBlock(const unsigned char in[16], unsigned char out[16], const void* key)
    {
        int size = 0;
        EVP_EncryptUpdate(static_cast<EVP_CIPHER_CTX*>(const_cast<void*>(key)), out, &size, in, 16);
    }

    Sm4 m_sm4;
    std::unique_ptr<GCM128_CONTEXT, decltype(&CRYPTO_gcm128_release)> m_gcm;
};

Sm4Gcm startGcm(const ChannelKeys& keys, Bytes nonce, Direction direction)
{
    const bool toServer = direction == Direction::ToServer;
    return Sm4Gcm(toServer ? keys.clientWrite() : keys.serverWrite(), nonce,
                  toServer ? keClientLabel() : keServerLabel());
}

}  // namespace

std::string signExchange(const Credential& signing, const std::string& hello,
                         const std::string& serverRandom, const std::string& certificate)
{
    const std::vector<unsigned char> content =
        keSignedContent({viewOf(hello), viewOf(serverRandom)}, viewOf(certificate));
    EVP_PKEY* key = signing.key.get();
    const KeyKind kind = kindOf(key);
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                          EVP_MD_CTX_free);
    EVP_PKEY_CTX* keyContext = nullptr;
    must(context != nullptr &&
             EVP_DigestSignInit_ex(context.get(), &keyContext, keHashName(hashOf(kind)), nullptr,
                                   nullptr, key, nullptr) == 1,
         "start a signature");
    if (kind == KeyKind::Sm2)
        must(EVP_PKEY_CTX_set1_id(keyContext, SM2_DEFAULT_ID,
                                  static_cast<int>(SM2_DEFAULT_ID_SIZE)) == 1,
             "set the signer's ID");

    std::string signature(static_cast<size_t>(EVP_PKEY_get_size(key)), '\0');
    size_t size = signature.size();
    must(EVP_DigestSign(context.get(), data(signature), &size, content.data(), content.size()) == 1,
         "sign");
    signature.resize(size);
    return signature;
}

ServerAnswer answerHello(const ServerCredentials& server, const std::string& hello)
{
    requireRandom(hello, "the client's hello");
    ServerAnswer answer;
    answer.random = randomBytes(KE_RANDOM);
    answer.signingCertificate = toDer(server.signing.certificate.get());
    answer.encryptionCertificate = toDer(server.encryption.certificate.get());
    answer.signature =
        signExchange(server.signing, hello, answer.random, answer.encryptionCertificate);
    return answer;
}

ChannelKeys acceptKeyExchange(const ServerCredentials& server, const std::string& hello,
                              const std::string& serverRandom, const std::string& message)
{
    requireRandom(hello, "the client's hello");
    requireRandom(serverRandom, "the server's random");
    const SecretBytes preMaster = decryptPreMaster(server.encryption, message);
    const int hash = hashOf(kindOf(server.encryption.key.get()));
    return ChannelKeys(hash, hmacOf(hash).get(), view(preMaster),
                       {viewOf(hello), viewOf(serverRandom)});
}

ChannelKeys restoreKeys(KeyKind kind, const std::string& block)
{
    if (block.size() != ChannelKeys::SIZE)
        throw PeerError("the kept keys have the wrong length");
    return ChannelKeys(hashOf(kind), SecretBytes(block.begin(), block.end()));
}

std::string sealMessage(const ChannelKeys& keys, const std::string& text, Direction direction)
{
    std::string message = randomBytes(KE_NONCE);
    message.resize(text.size() + KE_OVERHEAD);
    unsigned char* out = data(message);
    startGcm(keys, {out, KE_NONCE}, direction)
        .encrypt(viewOf(text), out + KE_NONCE, out + KE_NONCE + text.size());
    return message;
}

std::string openMessage(const ChannelKeys& keys, const std::string& message, Direction direction)
{
    if (message.size() < KE_OVERHEAD)
        throw PeerError("the message is too short");
    const unsigned char* in = viewOf(message).data;
    std::string text(message.size() - KE_OVERHEAD, '\0');
    if (!startGcm(keys, {in, KE_NONCE}, direction)
             .decrypt({in + KE_NONCE, text.size()}, in + KE_NONCE + text.size(), data(text)))
        throw PeerError(
            "the message is forged, damaged, of another session or of the other "
            "direction");
    return text;
}

std::string channelHmac(const ChannelKeys& keys, const std::string& bytes)
{
    std::string out(KE_HASH, '\0');
    mac(hmacOf(keys.hash()).get(), keys.hmac(), viewOf(bytes), data(out), KE_HASH);
    return out;
}

std::string channelCmac(const ChannelKeys& keys, const std::string& bytes)
{
    std::string out(KE_BLOCK, '\0');
    mac(prepareCmac(fetchMac("CMAC").get(), "SM4-CBC", KE_BLOCK).get(), keys.cmac(), viewOf(bytes),
        data(out), KE_BLOCK);
    return out;
}
