// What keys in all their forms, public-key encryption and envelopes leave in memory.
#include <openssl/rsa.h>

#include "engine_traces_material.h"

namespace {

using namespace support;

using Context = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;

// Ready to decrypt.
Context contextOf(Held privatePem)
{
    BIO* bio = BIO_new_mem_buf(privatePem.data, static_cast<int>(privatePem.size));
    EVP_PKEY* key = PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr);
    Context context(EVP_PKEY_CTX_new(key, nullptr), EVP_PKEY_CTX_free);
    EVP_PKEY_decrypt_init(context.get());
    return context;
}

std::string paddedBlock(Held privatePem, Held sealed)
{
    const Context context = contextOf(privatePem);
    EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_NO_PADDING);
    std::string out(sealed.size, '\0');
    size_t size = out.size();
    EVP_PKEY_decrypt(context.get(), reinterpret_cast<unsigned char*>(out.data()), &size,
                     sealed.data, sealed.size);
    return out;
}

// Finds the encrypted text in the ciphertext: it is at its end, or before the 32 bytes of the
// digest and what introduces them in ASN.1.
std::string keyStream(Held sealed, Held text, bool digestLast, bool asn1)
{
    const uint32_t behind = !digestLast ? 0 : asn1 ? 34 : 32;
    const unsigned char* at = sealed.data + sealed.size - behind - text.size;
    std::string stream(text.size, '\0');
    for (uint32_t i = 0; i < text.size; ++i)
        stream[i] = static_cast<char>(at[i] ^ text.data[i]);
    return stream;
}

class KeyTraces : public MaterialTraces {
protected:
    // The code of reading a private key, which is freed at once if it can be read.
    int read(Held text, const unsigned char* password, Held publicText = {},
             int type = AVEN_KEY_ANY)
    {
        return code([&] {
            void* handle = nullptr;
            const int result = engine.aven_keypair_unmarshal(
                type, text.data, text.size, publicText.data, publicText.size,
                reinterpret_cast<const char*>(password), &handle);
            EXPECT_EQ(engine.aven_keypair_free(handle), 0);
            return result;
        });
    }

    void* readKey(Held text)
    {
        void* handle = nullptr;
        EXPECT_EQ(code([&] {
                      return engine.aven_keypair_unmarshal(AVEN_KEY_ANY, text.data, text.size,
                                                           nullptr, 0, nullptr, &handle);
                  }),
                  0);
        return handle;
    }

    void free(void* handle)
    {
        EXPECT_EQ(code([&] { return engine.aven_keypair_free(handle); }), 0);
    }

    void expectNoKey()
    {
        markMaterial();
        expectNoTraces();
    }

    int publicEncrypt(const PkeyCipherParams& params, Held in, Held& out)
    {
        return code([&] {
            return engine.aven_crypto_public_encrypt(&params, in.data, in.size, out.data,
                                                     &out.size);
        });
    }

    int privateDecrypt(const PkeyCipherParams& params, Held in, Held& out)
    {
        return code([&] {
            return engine.aven_crypto_private_decrypt(&params, in.data, in.size, out.data,
                                                      &out.size);
        });
    }

    // What a ciphertext gives away of its text with no key at all: RSA's padded block, SM2's key
    // stream.
    void markInside(const PkeyCipherParams& params, Held sealed, Held text)
    {
        Held& inside = vault.make<Held>();
        inChild([&] {
            inside = vault.hold(
                GetParam() == KeyKind::Rsa
                    ? paddedBlock(material.texts[0].text, sealed)
                    : keyStream(sealed, text, params.no_c1c3c2 == 1, params.no_asn1 == 0));
        });
        mark("inside", inside);
    }
};

TEST_P(KeyTraces, NoneRemainInAnyForm)
{
    for (int i = 0; i < material.textCount; ++i) {
        const KeyText& key = material.texts[i];
        SCOPED_TRACE(key.name);
        EXPECT_EQ(read(key.text, material.password.data), 0);
        expectNoKey();
        EXPECT_EQ(read(key.text, material.password.data, material.publicKey), 0);
        expectNoKey();
        const int other = GetParam() == KeyKind::Sm2 ? AVEN_KEY_RSA : AVEN_KEY_SM2;
        EXPECT_EQ(read(key.text, material.password.data, {}, other), AVEN_E_KEY_KIND);
        expectNoKey();
        EXPECT_NE(read(key.text.first(key.text.size - 40), material.password.data), 0);
        expectNoKey();
        if (!key.isEncrypted)
            continue;
        const Held wrong = vault.hold(material.password.view());
        wrong.data[31] ^= 1;
        EXPECT_EQ(read(key.text, nullptr), AVEN_E_PASSWORD_MISSING);
        EXPECT_EQ(read(key.text, wrong.data), AVEN_E_PASSWORD_WRONG);
        expectNoKey();
    }
}

TEST_P(KeyTraces, NoneRemainOfDamagedKeys)
{
    EXPECT_EQ(read(material.damaged, nullptr), AVEN_E_KEY_INVALID);
    EXPECT_EQ(read(material.texts[0].text, nullptr, material.otherKey), AVEN_E_KEY_ROLE);
    expectNoKey();
    EXPECT_EQ(read(material.cut, nullptr), AVEN_E_KEY_TEXT);
    expectNoKey();
}

// All of the key comes out before its padding turns out to be wrong.
TEST_P(KeyTraces, NoneRemainOfDamagedEncryptedKeys)
{
    for (int i = 0; i < material.damagedSealedCount; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(read(material.damagedSealed[i], material.password.data), AVEN_E_PASSWORD_WRONG);
        expectNoKey();
    }
}

TEST_P(KeyTraces, NoneRemainOfPrivateDecryption)
{
    void* key = readKey(material.texts[0].text);
    void* other = readKey(material.otherKey);
    const bool isRsa = GetParam() == KeyKind::Rsa;
    for (int form = 0; form < (isRsa ? 2 : 4); ++form) {
        for (size_t size : {size_t{100}, isRsa ? size_t{190} : size_t{1} << 20}) {
            SCOPED_TRACE(testing::Message() << "form " << form << ", " << size << " bytes");
            PkeyCipherParams params = {key, isRsa ? form : 0, form & 1, form >> 1};
            const Held text = secret("text", size);
            Held sealed = vault.room(size + 400), opened = vault.room(size + 400);
            EXPECT_EQ(publicEncrypt(params, text, sealed), 0);
            EXPECT_EQ(privateDecrypt(params, sealed, opened), 0);
            EXPECT_EQ(opened.view(), text.view());
            markInside(params, sealed, text);
            expectNoTraces();

            mark("text", text);
            EXPECT_EQ(privateDecrypt(params, sealed, opened), 0);
            markInside(params, sealed, text);
            expectNoTraces();

            mark("text", text);
            opened.size = 1;
            EXPECT_EQ(privateDecrypt(params, sealed, opened), AVEN_E_BUFFER_TOO_SMALL);
            opened.size = text.size;
            params.keypair = other;
            EXPECT_EQ(privateDecrypt(params, sealed, opened), AVEN_E_DECRYPTION);
            params.keypair = key;
            sealed.data[sealed.size - 1] ^= 1;
            EXPECT_NE(privateDecrypt(params, sealed, opened), 0);
            sealed.size = 1;
            EXPECT_EQ(publicEncrypt(params, text, sealed), AVEN_E_BUFFER_TOO_SMALL);
            expectNoTraces();
        }
    }
    free(key);
    free(other);
    expectNoKey();
}

// ---- Envelopes.

// The content key of an envelope: the only octet string in it that the private key opens.
std::string contentKeyOf(Held privatePem, Held envelope)
{
    const unsigned char* const end = envelope.data + envelope.size;
    for (const unsigned char* at = envelope.data; at < end; ++at) {
        const unsigned char* content = at;
        long size = 0;
        int tag = 0, tagClass = 0;
        if (*at != V_ASN1_OCTET_STRING ||
            (ASN1_get_object(&content, &size, &tag, &tagClass, end - at) & 0x80) != 0)
            continue;
        const Context context = contextOf(privatePem);
        if (EVP_PKEY_is_a(EVP_PKEY_CTX_get0_pkey(context.get()), "RSA") != 0) {
            EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_OAEP_PADDING);
            EVP_PKEY_CTX_set_rsa_oaep_md(context.get(), EVP_sha256());
        }
        unsigned char out[1024];
        size_t length = sizeof out;
        if (size < 1000 &&
            EVP_PKEY_decrypt(context.get(), out, &length, content, static_cast<size_t>(size)) == 1)
            return {reinterpret_cast<char*>(out), length};
    }
    throw std::runtime_error("no content key");
}

class EnvelopeTraces : public KeyTraces {
protected:
    int seal(Held in, Held& out)
    {
        return code([&] {
            return engine.aven_crypto_pkcs7_encrypt(&params, in.data, in.size, out.data, &out.size);
        });
    }

    int open(Held in, Held& out)
    {
        return code([&] {
            return engine.aven_crypto_pkcs7_decrypt(&params, in.data, in.size, out.data, &out.size);
        });
    }

    void markContentKey(Held envelope)
    {
        Held& key = vault.make<Held>();
        inChild([&] { key = vault.hold(contentKeyOf(material.texts[0].text, envelope)); });
        mark("content key", key);
    }

    EnvelopeParams params = {};
};

TEST_P(EnvelopeTraces, NoneRemainOfContentAndItsKey)
{
    void* key = readKey(material.texts[0].text);
    void* other = readKey(material.otherKey);
    ASSERT_EQ(
        engine.aven_certificate_unmarshal(material.certificate.data, material.certificate.size,
                                          nullptr, &params.certificate),
        0);
    const bool isRsa = GetParam() == KeyKind::Rsa;
    const int rsaModes[] = {AVEN_MODE_CBC, AVEN_MODE_GCM};
    const int sm2Modes[] = {AVEN_MODE_CBC, AVEN_MODE_CTR};
    for (int mode : isRsa ? rsaModes : sm2Modes) {
        params.alg = isRsa ? AVEN_CIPHER_AES_256 : AVEN_CIPHER_SM4;
        params.mode = mode;
        for (size_t size : {size_t{100}, size_t{1} << 20}) {
            SCOPED_TRACE(testing::Message() << "mode " << mode << ", " << size << " bytes");
            const Held text = secret("text", size);
            Held sealed = vault.room(size + 2000), opened = vault.room(size + 2000);
            EXPECT_EQ(seal(text, sealed), 0);
            markContentKey(sealed);
            expectNoTraces();

            mark("text", text);
            params.keypair = key;
            EXPECT_EQ(open(sealed, opened), 0);
            EXPECT_EQ(opened.view(), text.view());
            markContentKey(sealed);
            expectNoTraces();

            mark("text", text);
            markContentKey(sealed);
            opened.size = 1;
            EXPECT_EQ(open(sealed, opened), AVEN_E_BUFFER_TOO_SMALL);
            opened.size = text.size + 16;
            params.keypair = other;
            EXPECT_EQ(open(sealed, opened), AVEN_E_ENVELOPE_OPEN);
            expectNoTraces();
            params.keypair = key;
            mark("text", text);
            markContentKey(sealed);
            opened.size = text.size + 16;
            sealed.data[sealed.size - 18] ^= 1;
            open(sealed, opened);  // fails, but in CTR and, one time in many, in CBC
            opened.size = text.size + 16;
            sealed.size -= 20;
            EXPECT_EQ(open(sealed, opened), AVEN_E_ENVELOPE_TEXT);
            expectNoTraces();
        }
    }
    EXPECT_EQ(engine.aven_certificate_free(params.certificate), 0);
    free(key);
    free(other);
    expectNoKey();
}

INSTANTIATE_TEST_SUITE_P(Both, KeyTraces, testing::Values(KeyKind::Sm2, KeyKind::Rsa), nameOfKind);
INSTANTIATE_TEST_SUITE_P(Both, EnvelopeTraces, testing::Values(KeyKind::Sm2, KeyKind::Rsa),
                         nameOfKind);

}  // namespace
