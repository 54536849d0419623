#include "sm2.h"

#include <cstring>

#include "engine/asn1_form.h"

namespace {

constexpr size_t COORDINATE = 32;
constexpr size_t POINT = 1 + 2 * COORDINATE;
constexpr size_t DIGEST = 32;
constexpr unsigned char UNCOMPRESSED = 4;
constexpr unsigned char SEQUENCE = V_ASN1_SEQUENCE | V_ASN1_CONSTRUCTED;

// The ASN.1 form (GM/T 0009). What comes third and fourth depends on the order.
struct Sm2CipherForm {
    BIGNUM* x;
    BIGNUM* y;
    ASN1_OCTET_STRING* third;
    ASN1_OCTET_STRING* fourth;
};
// clang-format off
ASN1_SEQUENCE(Sm2CipherForm) = {
    ASN1_SIMPLE(Sm2CipherForm, x, BIGNUM),
    ASN1_SIMPLE(Sm2CipherForm, y, BIGNUM),
    ASN1_SIMPLE(Sm2CipherForm, third, ASN1_OCTET_STRING),
    ASN1_SIMPLE(Sm2CipherForm, fourth, ASN1_OCTET_STRING)
} static_ASN1_SEQUENCE_END(Sm2CipherForm)

using Sm2Cipher = Asn1<Sm2CipherForm, Sm2CipherForm_it>;
// clang-format on

// A ciphertext in its parts. The bytes of C3 and C2 belong to someone else.
struct Parts {
    unsigned char x[COORDINATE];  // of C1
    unsigned char y[COORDINATE];
    Bytes digest;  // C3
    Bytes data;    // C2
};

std::vector<unsigned char> encoded(const Parts& parts, Sm2Form form)
{
    const Bytes first = form.digestFirst ? parts.digest : parts.data;
    const Bytes second = form.digestFirst ? parts.data : parts.digest;
    if (form.asn1) {
        const Sm2Cipher::Owner cipher = Sm2Cipher::make();
        require(BN_bin2bn(parts.x, COORDINATE, cipher->x) != nullptr &&
                    BN_bin2bn(parts.y, COORDINATE, cipher->y) != nullptr,
                AVEN_E_NO_MEMORY);
        setContent(cipher->third, first);
        setContent(cipher->fourth, second);
        return Sm2Cipher::encode(*cipher);
    }

    std::vector<unsigned char> raw;
    raw.reserve(POINT + first.size + second.size);
    raw.push_back(UNCOMPRESSED);
    raw.insert(raw.end(), parts.x, parts.x + COORDINATE);
    raw.insert(raw.end(), parts.y, parts.y + COORDINATE);
    raw.insert(raw.end(), first.data, first.data + first.size);
    raw.insert(raw.end(), second.data, second.data + second.size);
    return raw;
}

// A ciphertext that can be read in either order of C3 and C2.
class Ciphertext {
public:
    Ciphertext(Bytes in, bool asn1)
    {
        if (asn1) {
            m_form = Sm2Cipher::read(in, AVEN_E_DECRYPTION, AVEN_E_DECRYPTION);
            // -1 if they are longer.
            require(BN_bn2binpad(m_form->x, m_parts.x, COORDINATE) > 0 &&
                        BN_bn2binpad(m_form->y, m_parts.y, COORDINATE) > 0,
                    AVEN_E_DECRYPTION);
            return;
        }
        require(in.size > POINT + DIGEST, AVEN_E_DECRYPTION);
        memcpy(m_parts.x, in.data + 1, COORDINATE);
        memcpy(m_parts.y, in.data + 1 + COORDINATE, COORDINATE);
        m_rawTail = {in.data + POINT, in.size - POINT};
    }

    // Whether the lengths allow it.
    bool readAs(bool digestFirst)
    {
        if (m_form != nullptr) {
            m_parts.digest = contentOf(digestFirst ? m_form->third : m_form->fourth);
            m_parts.data = contentOf(digestFirst ? m_form->fourth : m_form->third);
            return m_parts.digest.size == DIGEST && m_parts.data.size > 0;
        }
        const size_t size = m_rawTail.size - DIGEST;
        m_parts.digest = {m_rawTail.data + (digestFirst ? 0 : size), DIGEST};
        m_parts.data = {m_rawTail.data + (digestFirst ? DIGEST : 0), size};
        return true;
    }

    const Parts& parts() const { return m_parts; }

private:
    Sm2Cipher::Owner m_form;  // null if it is raw
    Bytes m_rawTail = {};
    Parts m_parts = {};
};

// Returns whether the ciphertext's digest was right.
bool open(const Engine& engine, const Key& key, const Parts& parts, SecretBytes& out)
{
    const std::vector<unsigned char> in = encoded(parts, SM2_STANDARD_FORM);
    const PKeyContext context = contextFor(engine, key);
    require(EVP_PKEY_decrypt_init(context.get()) == 1, AVEN_E_INTERNAL);
    out.resize(in.size());
    size_t size = out.size();
    if (EVP_PKEY_decrypt(context.get(), out.data(), &size, in.data(), in.size()) != 1)
        return false;
    out.resize(size);
    return true;
}

// Whether a ciphertext says that it is in ASN.1; else it is raw.
bool isAsn1(Bytes in)
{
    require(in.size > 0, AVEN_E_DECRYPTION);
    require(in.data[0] == SEQUENCE || in.data[0] == UNCOMPRESSED, AVEN_E_DECRYPTION);
    return in.data[0] == SEQUENCE;
}

// Returns libcrypto's, in SM2_STANDARD_FORM.
std::vector<unsigned char> seal(const Engine& engine, const Key& key, Bytes in)
{
    const PKeyContext context = contextFor(engine, key);
    size_t size = 0;
    require(EVP_PKEY_encrypt_init(context.get()) == 1 &&
                EVP_PKEY_encrypt(context.get(), nullptr, &size, in.data, in.size) == 1,
            AVEN_E_INTERNAL);
    std::vector<unsigned char> out(size);
    require(EVP_PKEY_encrypt(context.get(), out.data(), &size, in.data, in.size) == 1,
            AVEN_E_INTERNAL);
    out.resize(size);
    return out;
}

}  // namespace

std::vector<unsigned char> sm2Encrypt(const Engine& engine, const Key& key, Sm2Form form, Bytes in)
{
    const LibraryRandomness randomness(engine);
    require(in.size > 0, AVEN_E_INPUT_EMPTY);
    require(in.size <= AVEN_KDF_MAX, AVEN_E_INPUT_TOO_LONG);

    for (;;) {
        const std::vector<unsigned char> sealed = seal(engine, key, in);
        Ciphertext cipher({sealed.data(), sealed.size()}, SM2_STANDARD_FORM.asn1);
        require(cipher.readAs(SM2_STANDARD_FORM.digestFirst), AVEN_E_INTERNAL);
        // The standard wants another try if all of the key stream is zero, as happens
        // with the shortest of texts. libcrypto does not look.
        if (memcmp(cipher.parts().data.data, in.data, in.size) != 0)
            return encoded(cipher.parts(), form);
    }
}

SecretBytes sm2Decrypt(const Engine& engine, const Key& key, Sm2Form form, Bytes in)
{
    const LibraryRandomness randomness(engine);
    require(isAsn1(in) == form.asn1, AVEN_E_SM2_FORM_DIFFERS);

    Ciphertext cipher(in, form.asn1);
    SecretBytes out;
    const bool possible = cipher.readAs(form.digestFirst);
    if (possible && open(engine, key, cipher.parts(), out))
        return out;
    // Only a genuine ciphertext opens in the other order, so that the code for it tells
    // nothing to a forger.
    const bool otherPossible = cipher.readAs(!form.digestFirst);
    const bool otherOpens = otherPossible && open(engine, key, cipher.parts(), out);
    throw Failure{otherOpens || (otherPossible && !possible) ? AVEN_E_SM2_FORM_DIFFERS
                                                             : AVEN_E_DECRYPTION};
}

SecretBytes sm2DecryptAnyForm(const Engine& engine, const Key& key, Bytes in)
{
    const LibraryRandomness randomness(engine);
    Ciphertext cipher(in, isAsn1(in));
    SecretBytes out;
    for (bool digestFirst : {true, false}) {
        if (cipher.readAs(digestFirst) && open(engine, key, cipher.parts(), out))
            return out;
    }
    throw Failure{AVEN_E_DECRYPTION};
}
