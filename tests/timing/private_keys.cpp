// Decryption by private keys. Success has another code than failure, as a caller must know; so
// what is compared are ways to fail. An envelope fails alike whatever became of its content key,
// also where that key's padding was right.

#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include "peer/certificates.h"
#include "timing/toolbox.h"

namespace timing {

namespace {

constexpr size_t MODULUS = 256;
constexpr size_t DIGEST = 32;
constexpr size_t INPUTS = 2048;  // of each kind; they take time to make

std::string contentOf(BIO* bio)
{
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return std::string(data, static_cast<size_t>(size));
}

using Memory = std::unique_ptr<BIO, decltype(&BIO_free)>;

Memory memory()
{
    return Memory(BIO_new(BIO_s_mem()), BIO_free);
}

// A key with its certificate, and the engine's handle of it.
struct Recipient {
    Credential credential;
    void* handle = nullptr;

    explicit Recipient(KeyKind kind)
        : credential(makeCredential(encryptionPlan(), kind, makeRoot(rootPlan(), kind)))
    {
        const Memory pem = memory();
        must(PEM_write_bio_PKCS8PrivateKey(pem.get(), credential.key.get(), nullptr, nullptr, 0,
                                           nullptr, nullptr) == 1,
             "no private key");
        const std::string text = contentOf(pem.get());
        must(engine().aven_keypair_unmarshal(0, bytes(text), size32(text), nullptr, 0, nullptr,
                                             &handle) == 0,
             "no key pair");
    }

    // By the public key alone, which takes a block as long as the modulus.
    std::string raw(const std::string& block) const
    {
        const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
            EVP_PKEY_CTX_new(credential.key.get(), nullptr), EVP_PKEY_CTX_free);
        std::string out(MODULUS, '\0');
        size_t size = out.size();
        must(
            EVP_PKEY_encrypt_init(context.get()) == 1 &&
                EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_NO_PADDING) == 1 &&
                EVP_PKEY_encrypt(context.get(), bytes(out), &size, bytes(block), block.size()) == 1,
            "cannot encrypt");
        return out;
    }
};

// ---- RSA (RFC 8017).

using MakeBlock = std::function<std::string(unsigned kind)>;

void addRsa(std::vector<Comparison>& all, const std::shared_ptr<Recipient>& recipient, int padding,
            const char* kinds, const MakeBlock& make)
{
    const auto sealed =
        std::make_shared<Inputs>([&](unsigned kind) { return recipient->raw(make(kind)); }, INPUTS);
    all.push_back(compare(
        padding == AVEN_RSA_PKCS1 ? "RSA-2048 PKCS#1 v1.5" : "RSA-2048 OAEP", kinds,
        AVEN_E_DECRYPTION, sealed,
        [recipient, padding](const Inputs& in) {
            unsigned char out[MODULUS];
            uint32_t size = sizeof out;
            const PkeyCipherParams params = {recipient->handle, padding, 0, 0};
            return engine().aven_crypto_private_decrypt(&params, in.data(), in.size(), out, &size);
        },
        Cost::PrivateKey));
}

// 00 02, bytes other than 00, 00, the text.
std::string pkcs1Block(const std::string& text, Random& random)
{
    return std::string("\0\2", 2) + randomBytes(MODULUS - 3 - text.size(), random, 1) +
           std::string(1, '\0') + text;
}

void addPkcs1(std::vector<Comparison>& all, const std::shared_ptr<Recipient>& recipient,
              Random& random)
{
    const auto wrongType = [&] {
        std::string block = pkcs1Block(randomBytes(16, random, 1), random);
        damage(block, 1, random);
        return block;
    };
    const auto add = [&](const char* kinds, const std::function<void(std::string&)>& spoil) {
        addRsa(all, recipient, AVEN_RSA_PKCS1, kinds, [&](unsigned kind) {
            if (kind == 0)
                return wrongType();
            std::string block = pkcs1Block(randomBytes(16, random, 1), random);
            spoil(block);
            return block;
        });
    };
    add("type wrong or no end", [&](std::string& block) { damage(block, MODULUS - 17, random); });
    add("type wrong or end too early", [](std::string& block) { block[5] = '\0'; });
    add("type wrong or first byte wrong", [](std::string& block) { block[0] = '\1'; });
}

std::string sha256(const std::string& text)
{
    std::string digest(DIGEST, '\0');
    must(EVP_Digest(text.data(), text.size(), bytes(digest), nullptr, EVP_sha256(), nullptr) == 1,
         "no digest");
    return digest;
}

// XORs the text with MGF1 of the seed.
void mask(std::string& text, const std::string& seed)
{
    std::string stream;
    for (char i = 0; stream.size() < text.size(); ++i)
        stream += sha256(seed + std::string(3, '\0') + i);
    for (size_t i = 0; i < text.size(); ++i)
        text[i] = static_cast<char>(text[i] ^ stream[i]);
}

// The first byte, then the seed and the data block, which is the label's hash, zeros, 01 and the
// text: all with one byte that may be wrong, -1 for none.
std::string oaepBlock(int wrongPlace, char firstByte, Random& random)
{
    const std::string text = randomBytes(16, random);
    std::string data = sha256("");
    data += std::string(MODULUS - 1 - DIGEST - data.size() - 1 - text.size(), '\0');
    data += '\1' + text;
    if (wrongPlace >= 0)
        data[static_cast<size_t>(wrongPlace)] =
            static_cast<char>(data[static_cast<size_t>(wrongPlace)] ^ 2);
    std::string seed = randomBytes(DIGEST, random);
    mask(data, seed);
    mask(seed, data);
    return firstByte + seed + data;
}

void addOaep(std::vector<Comparison>& all, const std::shared_ptr<Recipient>& recipient,
             Random& random)
{
    constexpr int separator = static_cast<int>(MODULUS - 1 - DIGEST - 16 - 1);
    addRsa(all, recipient, AVEN_RSA_OAEP, "label's hash wrong or separator",
           [&](unsigned kind) { return oaepBlock(kind == 0 ? 0 : separator, '\0', random); });
    addRsa(all, recipient, AVEN_RSA_OAEP, "label's hash wrong or first byte", [&](unsigned kind) {
        return kind == 0 ? oaepBlock(0, '\0', random) : oaepBlock(-1, '\1', random);
    });
}

// ---- Envelopes with a content key under PKCS#1 v1.5, as other makers write them.

std::string envelope(const Credential& recipient, const std::string& text)
{
    const Memory in = memory();
    const Memory out = memory();
    BIO_write(in.get(), text.data(), static_cast<int>(text.size()));
    STACK_OF(X509)* certificates = sk_X509_new_null();
    sk_X509_push(certificates, recipient.certificate.get());
    CMS_ContentInfo* made = CMS_encrypt(certificates, in.get(), EVP_aes_128_cbc(), CMS_BINARY);
    sk_X509_free(certificates);
    must(made != nullptr && i2d_CMS_bio(out.get(), made) == 1, "no envelope");
    CMS_ContentInfo_free(made);
    return contentOf(out.get());
}

int openEnvelope(void* keyPair, const unsigned char* in, uint32_t size)
{
    unsigned char out[128];
    uint32_t outSize = sizeof out;
    const EnvelopeParams params = {AVEN_CIPHER_AES_128, AVEN_MODE_CBC, keyPair, nullptr};
    return engine().aven_crypto_pkcs7_decrypt(&params, in, size, out, &outSize);
}

void addEnvelope(std::vector<Comparison>& all, const std::shared_ptr<Recipient>& recipient,
                 const char* kinds, size_t keySize, Random& random)
{
    const std::string der = envelope(recipient->credential, randomBytes(64, random));
    const std::string header("\x04\x82\x01\x00", 4);  // of an octet string of 256 bytes
    const size_t place = der.find(header) + header.size();
    must(place + MODULUS < der.size(), "no content key");
    const auto make = [&](unsigned kind) {
        std::string block = pkcs1Block(randomBytes(keySize, random, 1), random);
        if (kind == 0)
            damage(block, 1, random);
        return std::string(der).replace(place, MODULUS, recipient->raw(block));
    };
    const auto envelopes = std::make_shared<Inputs>(
        [&](unsigned kind) {
            // Of 256 wrong keys, one gives a text whose padding is right, as no tag is there.
            std::string made = make(kind);
            while (openEnvelope(recipient->handle, bytes(made), size32(made)) == 0)
                made = make(kind);
            return made;
        },
        INPUTS);
    all.push_back(compare(
        "envelope, key under PKCS#1 v1.5", kinds, AVEN_E_ENVELOPE_OPEN, envelopes,
        [recipient](const Inputs& in) {
            return openEnvelope(recipient->handle, in.data(), in.size());
        },
        Cost::PrivateKey));
}

// ---- SM2 (GB/T 32918.4), raw: 04, x, y, C3, C2.

void addSm2(std::vector<Comparison>& all, Random& random)
{
    const auto recipient = std::make_shared<Recipient>(KeyKind::Sm2);
    const PkeyCipherParams params = {recipient->handle, 0, 1, 0};
    constexpr size_t digestPlace = 65;
    const auto sealed = std::make_shared<Inputs>(
        [&](unsigned kind) {
            const std::string text = randomBytes(48, random);
            std::string out(text.size() + 256, '\0');
            uint32_t size = size32(out);
            must(engine().aven_crypto_public_encrypt(&params, bytes(text), size32(text), bytes(out),
                                                     &size) == 0,
                 "cannot encrypt");
            out.resize(size);
            damage(out, kind == 0 ? digestPlace : digestPlace + DIGEST - 1, random);
            return out;
        },
        INPUTS);
    all.push_back(compare(
        "SM2 digest", "first byte wrong or last", AVEN_E_DECRYPTION, sealed,
        [recipient, params](const Inputs& in) {
            unsigned char out[256];
            uint32_t size = sizeof out;
            return engine().aven_crypto_private_decrypt(&params, in.data(), in.size(), out, &size);
        },
        Cost::PrivateKey));
}

}  // namespace

void addPrivateKeys(std::vector<Comparison>& all, Random& random)
{
    const auto recipient = std::make_shared<Recipient>(KeyKind::Rsa);
    addPkcs1(all, recipient, random);
    addOaep(all, recipient, random);
    addEnvelope(all, recipient, "key's padding wrong or its size", 24, random);
    addEnvelope(all, recipient, "key's padding wrong or another key", 16, random);
    addSm2(all, random);
}

}  // namespace timing
