// The oracle's part for key pairs and certificates: public keys and envelopes.
#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <cstring>

#include "engine/engine_numbers.h"
#include "support/oracle.h"
#include "support/oracle_parts.h"

namespace support::oracle {

namespace {

using KeyContext = Owned<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;
using Bio = Owned<BIO, BIO_free_all>;
using Cms = Owned<CMS_ContentInfo, CMS_ContentInfo_free>;
using Integer = Owned<ASN1_INTEGER, ASN1_INTEGER_free>;
using OctetString = Owned<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free>;

// ---- SM2 ciphertexts

constexpr size_t COORDINATE = 32;
constexpr size_t DIGEST = 32;

struct Sm2Parts {
    std::string x, y;  // C1
    std::string digest, data;
};

class DerReader {
public:
    explicit DerReader(const std::string& bytes) : m_at(bytesOf(bytes)), m_end(m_at + bytes.size())
    {
        long size = 0;
        int tag = 0, kind = 0;
        const int flags = ASN1_get_object(&m_at, &size, &tag, &kind, m_end - m_at);
        require((flags & 0x80) == 0 && tag == V_ASN1_SEQUENCE && m_at + size == m_end,
                "no sequence");
    }

    std::string coordinate()
    {
        const Integer integer(d2i_ASN1_INTEGER(nullptr, &m_at, m_end - m_at));
        require(integer != nullptr, "no integer");
        const Owned<BIGNUM, BN_free> number(ASN1_INTEGER_to_BN(integer.get(), nullptr));
        std::string bytes(COORDINATE, '\0');
        require(number != nullptr && BN_bn2binpad(number.get(), bytesOf(bytes), COORDINATE) > 0,
                "no coordinate");
        return bytes;
    }

    std::string octets()
    {
        const OctetString octets(d2i_ASN1_OCTET_STRING(nullptr, &m_at, m_end - m_at));
        require(octets != nullptr, "no octet string");
        return std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(octets.get())),
                           static_cast<size_t>(ASN1_STRING_length(octets.get())));
    }

    bool isAtEnd() const { return m_at == m_end; }

private:
    const unsigned char* m_at;
    const unsigned char* m_end;
};

// What an i2d function writes.
template <class Object, class Write>
std::string der(const Object* object, Write write)
{
    const int size = write(object, nullptr);
    require(object != nullptr && size > 0, "no DER");
    std::string bytes(static_cast<size_t>(size), '\0');
    unsigned char* at = bytesOf(bytes);
    write(object, &at);
    return bytes;
}

std::string integerDer(const std::string& coordinate)
{
    const Owned<BIGNUM, BN_free> number(
        BN_bin2bn(bytesOf(coordinate), sizeOf(coordinate), nullptr));
    const Integer integer(BN_to_ASN1_INTEGER(number.get(), nullptr));
    return der(integer.get(), i2d_ASN1_INTEGER);
}

std::string octetsDer(const std::string& bytes)
{
    const OctetString octets(ASN1_OCTET_STRING_new());
    require(octets != nullptr &&
                ASN1_OCTET_STRING_set(octets.get(), bytesOf(bytes), sizeOf(bytes)) == 1,
            "no octet string");
    return der(octets.get(), i2d_ASN1_OCTET_STRING);
}

std::string sequence(const std::string& content)
{
    const int size = ASN1_object_size(1, sizeOf(content), V_ASN1_SEQUENCE);
    std::string bytes(static_cast<size_t>(size) - content.size(), '\0');
    unsigned char* at = bytesOf(bytes);
    ASN1_put_object(&at, 1, sizeOf(content), V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL);
    return bytes + content;
}

Sm2Parts readSm2(const std::string& encrypted, const PublicKeyForm& form)
{
    Sm2Parts parts;
    std::string& first = form.c1c3c2 ? parts.digest : parts.data;
    std::string& second = form.c1c3c2 ? parts.data : parts.digest;
    if (form.asn1) {
        DerReader reader(encrypted);
        parts.x = reader.coordinate();
        parts.y = reader.coordinate();
        first = reader.octets();
        second = reader.octets();
        require(reader.isAtEnd(), "more in the sequence");
        return parts;
    }
    const size_t head = 1 + 2 * COORDINATE;
    require(encrypted.size() >= head + DIGEST && encrypted[0] == 4, "no raw ciphertext");
    parts.x = encrypted.substr(1, COORDINATE);
    parts.y = encrypted.substr(1 + COORDINATE, COORDINATE);
    first = encrypted.substr(head, form.c1c3c2 ? DIGEST : encrypted.size() - head - DIGEST);
    second = encrypted.substr(head + first.size());
    return parts;
}

std::string writeSm2(const Sm2Parts& parts, const PublicKeyForm& form)
{
    const std::string& first = form.c1c3c2 ? parts.digest : parts.data;
    const std::string& second = form.c1c3c2 ? parts.data : parts.digest;
    if (form.asn1)
        return sequence(integerDer(parts.x) + integerDer(parts.y) + octetsDer(first) +
                        octetsDer(second));
    return '\4' + parts.x + parts.y + first + second;
}

constexpr PublicKeyForm LIBCRYPTO_FORM = {true, true, true};

// ---- libcrypto's public-key calls

bool isRsa(const EVP_PKEY* key)
{
    return EVP_PKEY_is_a(key, "RSA") == 1;
}

void setOaep(EVP_PKEY_CTX* context)
{
    require(EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_OAEP_PADDING) == 1 &&
                EVP_PKEY_CTX_set_rsa_oaep_md(context, EVP_sha256()) == 1 &&
                EVP_PKEY_CTX_set_rsa_mgf1_md(context, EVP_sha256()) == 1,
            "no OAEP");
}

using StartKeyUse = int (*)(EVP_PKEY_CTX*);
using UseKey = int (*)(EVP_PKEY_CTX*, unsigned char*, size_t*, const unsigned char*, size_t);

std::string used(EVP_PKEY* key, const PublicKeyForm& form, const std::string& in, StartKeyUse start,
                 UseKey use)
{
    const KeyContext context(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    require(context != nullptr && start(context.get()) == 1, "the key has no such use");
    if (isRsa(key) && form.oaep)
        setOaep(context.get());
    else if (isRsa(key))
        require(EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) == 1, "no PKCS#1");
    size_t size = 0;
    require(use(context.get(), nullptr, &size, bytesOf(in), in.size()) == 1, "no size");
    std::string out(size, '\0');
    require(use(context.get(), bytesOf(out), &size, bytesOf(in), in.size()) == 1,
            "the key does not take it");
    out.resize(size);
    return out;
}

// ---- Memory

Bio reading(const std::string& bytes)
{
    Bio bio(BIO_new_mem_buf(bytes.data(), sizeOf(bytes)));
    require(bio != nullptr, "no memory");
    return bio;
}

Bio writing()
{
    Bio bio(BIO_new(BIO_s_mem()));
    require(bio != nullptr, "no memory");
    return bio;
}

std::string textOf(const Bio& bio)
{
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<size_t>(size));
}

}  // namespace

// ---- Public keys

std::string privatePem(EVP_PKEY* key, const char* password)
{
    const Bio bio = writing();
    const int size = password == nullptr ? 0 : static_cast<int>(strlen(password));
    require(PEM_write_bio_PKCS8PrivateKey(bio.get(), key,
                                          password == nullptr ? nullptr : EVP_aes_256_cbc(),
                                          password, size, nullptr, nullptr) == 1,
            "no private key");
    return textOf(bio);
}

std::string publicPem(EVP_PKEY* key)
{
    const Bio bio = writing();
    require(PEM_write_bio_PUBKEY(bio.get(), key) == 1, "no public key");
    return textOf(bio);
}

std::string publicEncrypt(EVP_PKEY* key, const PublicKeyForm& form, const std::string& data)
{
    const std::string out = used(key, form, data, EVP_PKEY_encrypt_init, EVP_PKEY_encrypt);
    return isRsa(key) ? out : writeSm2(readSm2(out, LIBCRYPTO_FORM), form);
}

std::string privateDecrypt(EVP_PKEY* key, const PublicKeyForm& form, const std::string& encrypted)
{
    const std::string in =
        isRsa(key) ? encrypted : writeSm2(readSm2(encrypted, form), LIBCRYPTO_FORM);
    return used(key, form, in, EVP_PKEY_decrypt_init, EVP_PKEY_decrypt);
}

// ---- Envelopes

bool knowsEnvelope(int cipher, int mode)
{
    return mode != AVEN_MODE_GCM ||
           (cipher != AVEN_CIPHER_SM4 && cipher != AVEN_CIPHER_CAMELLIA_256);
}

std::string sealEnvelope(X509* certificate, int cipher, int mode, bool oaep,
                         const std::string& data)
{
    // CMS needs the ciphers that know their object identifiers.
    const EVP_CIPHER* content = EVP_get_cipherbyname(cipherName(cipher, mode).c_str());
    require(content != nullptr, "no such cipher");
    const Cms cms(CMS_encrypt(nullptr, nullptr, content, CMS_BINARY | CMS_PARTIAL));
    require(cms != nullptr, "no envelope");
    CMS_RecipientInfo* recipient =
        CMS_add1_recipient_cert(cms.get(), certificate, CMS_BINARY | CMS_KEY_PARAM);
    require(recipient != nullptr, "no recipient");
    if (oaep)
        setOaep(CMS_RecipientInfo_get0_pkey_ctx(recipient));
    const Bio in = reading(data);
    const Bio out = writing();
    require(CMS_final(cms.get(), in.get(), nullptr, CMS_BINARY) == 1 &&
                i2d_CMS_bio(out.get(), cms.get()) == 1,
            "it does not seal");
    return textOf(out);
}

std::string openEnvelope(EVP_PKEY* key, const std::string& envelope)
{
    const Bio in = reading(envelope);
    const Bio out = writing();
    const Cms cms(d2i_CMS_bio(in.get(), nullptr));
    require(cms != nullptr, "no envelope");
    require(CMS_decrypt(cms.get(), key, nullptr, nullptr, out.get(), CMS_BINARY) == 1,
            "the envelope does not open");
    return textOf(out);
}

}  // namespace support::oracle
