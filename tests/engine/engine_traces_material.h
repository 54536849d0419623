// A private key in all the forms that the engine reads, made in a child process.
#ifndef CORVANE_TESTS_ENGINE_TRACES_MATERIAL_H
#define CORVANE_TESTS_ENGINE_TRACES_MATERIAL_H

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include "engine_traces.h"
#include "peer/certificates.h"

namespace support {

// A private key as a text, with a password if that is encrypted.
struct KeyText {
    char name[40];
    Held text;
    bool isEncrypted;
};

// A key, made in a child process.
struct Material {
    Held password;
    Held widePassword;  // in UTF-16, as PBES1 takes it
    Held keys[2];       // that are derived from the password
    Held numbers[6];    // the private ones, high byte first
    Held reversed[6];
    int numberCount = 0;
    KeyText texts[13];
    int textCount = 0;
    Held damagedSealed[4];  // encrypted ones, with wrong padding at the end
    int damagedSealedCount = 0;
    Held damaged;      // PKCS#8, with private numbers that do not fit
    Held cut;          // the older form, ending wrongly behind the private numbers
    Held publicKey;    // PEM
    Held certificate;  // PEM
    Held otherKey;     // a private key's PEM
};

class MaterialMaker {
public:
    MaterialMaker(Vault& vault, Material& material, KeyKind kind)
        : m_vault(vault), m_material(material), m_kind(kind)
    {
    }

    void make()
    {
        const Credential credential = makeRoot(rootPlan(), m_kind);
        m_key = credential.key.get();
        m_material.certificate = m_vault.hold(toPem(credential.certificate.get()));
        m_material.publicKey = written([&](BIO* bio) { PEM_write_bio_PUBKEY(bio, m_key); });
        const KeyPtr other = makeKey(m_kind);
        m_material.otherKey = written([&](BIO* bio) {
            PEM_write_bio_PrivateKey(bio, other.get(), nullptr, nullptr, 0, nullptr, nullptr);
        });
        addNumbers();
        addPlain();
        addEncrypted();
        damage();
    }

private:
    template <class Write>
    Held written(Write write)
    {
        BIO* bio = BIO_new(BIO_s_mem());
        write(bio);
        char* bytes = nullptr;
        const long size = BIO_get_mem_data(bio, &bytes);
        const Held held = m_vault.hold({bytes, static_cast<size_t>(size)});
        BIO_free(bio);
        return held;
    }

    void addNumber(const char* name)
    {
        BIGNUM* number = nullptr;
        if (EVP_PKEY_get_bn_param(m_key, name, &number) != 1)
            throw std::runtime_error(name);
        const Held big = m_vault.room(static_cast<size_t>(BN_num_bytes(number)));
        BN_bn2bin(number, big.data);
        const Held little = m_vault.hold(big.view());
        std::reverse(little.data, little.data + little.size);
        m_material.numbers[m_material.numberCount] = big;
        m_material.reversed[m_material.numberCount++] = little;
        BN_free(number);
    }

    void addNumbers()
    {
        if (m_kind == KeyKind::Sm2)
            return addNumber(OSSL_PKEY_PARAM_PRIV_KEY);
        for (const char* name : {OSSL_PKEY_PARAM_RSA_D, OSSL_PKEY_PARAM_RSA_FACTOR1,
                                 OSSL_PKEY_PARAM_RSA_FACTOR2, OSSL_PKEY_PARAM_RSA_EXPONENT1,
                                 OSSL_PKEY_PARAM_RSA_EXPONENT2, OSSL_PKEY_PARAM_RSA_COEFFICIENT1})
            addNumber(name);
    }

    void add(const std::string& name, Held text, bool isEncrypted)
    {
        KeyText& place = m_material.texts[m_material.textCount++];
        snprintf(place.name, sizeof place.name, "%s", name.c_str());
        place.text = text;
        place.isEncrypted = isEncrypted;
    }

    Held base64(Held bytes)
    {
        const Held text = m_vault.room((bytes.size + 2) / 3 * 4 + 1);
        EVP_EncodeBlock(text.data, bytes.data, static_cast<int>(bytes.size));
        return text.first(text.size - 1);
    }

    void addPlain()
    {
        const Held pem = written([&](BIO* bio) {
            PEM_write_bio_PrivateKey(bio, m_key, nullptr, nullptr, 0, nullptr, nullptr);
        });
        add("PKCS#8, PEM", pem, false);
        add("PKCS#8, Base64 of PEM", base64(pem), false);
        m_der = written([&](BIO* bio) {
            i2d_PKCS8PrivateKey_bio(bio, m_key, nullptr, nullptr, 0, nullptr, nullptr);
        });
        add("PKCS#8, Base64 of DER", base64(m_der), false);
        m_old = written([&](BIO* bio) { i2d_PrivateKey_bio(bio, m_key); });
        add("older form, Base64 of DER", base64(m_old), false);
        add("older form, PEM", written([&](BIO* bio) {
                PEM_write_bio_PrivateKey_traditional(bio, m_key, nullptr, nullptr, 0, nullptr,
                                                     nullptr);
            }),
            false);
    }

    // Also damaged: the bit that makes the number of the padding bytes too large.
    void addSealed(const std::string& name, X509_ALGOR* algorithm, uint32_t block)
    {
        PKCS8_PRIV_KEY_INFO* info = EVP_PKEY2PKCS8(m_key);
        X509_SIG* sig =
            PKCS8_set0_pbe(reinterpret_cast<char*>(m_material.password.data), 32, info, algorithm);
        if (sig == nullptr)
            throw std::runtime_error("cannot encrypt a key");
        const Held pem = written([&](BIO* bio) { PEM_write_bio_PKCS8(bio, sig); });
        add(name + ", PEM", pem, true);
        add(name + ", Base64 of PEM", base64(pem), true);
        const Held der = written([&](BIO* bio) { i2d_PKCS8_bio(bio, sig); });
        der.data[der.size - 1 - block] ^= 0x80;
        m_material.damagedSealed[m_material.damagedSealedCount++] = base64(der);
    }

    void deriveKeys()
    {
        m_salt = m_vault.random(SALT);
        const char* password = reinterpret_cast<const char*>(m_material.password.data);
        for (Held& key : m_material.keys)
            key = m_vault.room(32);
        PKCS5_PBKDF2_HMAC(password, 32, m_salt.data, SALT, ROUNDS, EVP_sha256(), 32,
                          m_material.keys[0].data);
        EVP_PBE_scrypt(password, 32, m_salt.data, SALT, 1024, 8, 1, 0, m_material.keys[1].data, 32);
    }

    void addEncrypted()
    {
        m_material.password = m_vault.room(33);
        for (unsigned i = 0; i < 32; ++i) {
            unsigned char byte = *m_vault.random(1).data;
            m_material.password.data[i] = static_cast<unsigned char>('!' + byte % 90);
        }
        m_material.widePassword = m_vault.room(64);
        for (unsigned i = 0; i < 32; ++i)
            m_material.widePassword.data[2 * i + 1] = m_material.password.data[i];
        deriveKeys();
        addSealed("PBKDF2 and AES-256",
                  PKCS5_pbe2_set_iv(EVP_aes_256_cbc(), ROUNDS, m_salt.data, SALT, nullptr,
                                    NID_hmacWithSHA256),
                  16);
        addSealed(
            "PBKDF2 with SHA-1 and 3DES",
            PKCS5_pbe2_set_iv(EVP_des_ede3_cbc(), ROUNDS, nullptr, 0, nullptr, NID_hmacWithSHA1),
            8);
        addSealed("scrypt and AES-256",
                  PKCS5_pbe2_set_scrypt(EVP_aes_256_cbc(), m_salt.data, SALT, nullptr, 1024, 8, 1),
                  16);
        addSealed("PBES1 with SHA-1 and 3DES",
                  PKCS5_pbe_set(NID_pbe_WithSHA1And3_Key_TripleDES_CBC, ROUNDS, nullptr, 0), 8);
    }

    // The last number, which ends the RSA key; the SM2 key's first byte, which makes it too large.
    void damage()
    {
        const Held copy = m_vault.hold(m_der.view());
        const Held number =
            m_material.numbers[m_kind == KeyKind::Sm2 ? 0 : m_material.numberCount - 1];
        unsigned char* at =
            static_cast<unsigned char*>(memmem(copy.data, copy.size, number.data, number.size));
        if (m_kind == KeyKind::Sm2)
            memset(at, 0xff, 8);
        else
            at[number.size - 1] ^= 2;
        m_material.damaged = base64(copy);

        // RSA's last number becomes another type, as does what is behind the SM2 key.
        const Held old = m_vault.hold(m_old.view());
        at = static_cast<unsigned char*>(memmem(old.data, old.size, number.data, number.size));
        while (m_kind == KeyKind::Rsa && *at != V_ASN1_INTEGER)
            --at;
        *(m_kind == KeyKind::Sm2 ? at + number.size : at) = V_ASN1_PRINTABLESTRING;
        m_material.cut = base64(old);
    }

    static constexpr int ROUNDS = 2048;
    static constexpr int SALT = 16;

    Vault& m_vault;
    Material& m_material;
    const KeyKind m_kind;
    EVP_PKEY* m_key = nullptr;
    Held m_der;
    Held m_old;
    Held m_salt;
};

// Tests with a key of either kind.
class MaterialTraces : public EngineTraces, public testing::WithParamInterface<KeyKind> {
protected:
    void SetUp() override
    {
        EngineTraces::SetUp();
        inChild([&] { MaterialMaker(vault, material, GetParam()).make(); });
    }

    void markMaterial()
    {
        for (int i = 0; i < material.numberCount; ++i) {
            mark("number " + std::to_string(i), material.numbers[i]);
            mark("number " + std::to_string(i) + ", low byte first", material.reversed[i]);
        }
        marks.addText("password", material.password.view().substr(0, 32));
        marks.addText("password in UTF-16", material.widePassword.view());
        for (const Held& key : material.keys)
            mark("key from the password", key);
    }

    Material& material = vault.make<Material>();
};

inline std::string nameOfKind(const testing::TestParamInfo<KeyKind>& info)
{
    return info.param == KeyKind::Sm2 ? "Sm2" : "Rsa";
}

}  // namespace support

#endif
