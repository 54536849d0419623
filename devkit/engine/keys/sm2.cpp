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
    // clang-format on

    using Sm2Cipher = Asn1<Sm2CipherForm, Sm2CipherForm_it>;

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
            form_ = Sm2Cipher::read(in, AVEN_E_DECRYPTION, AVEN_E_DECRYPTION);
            // -1 if they are longer.
            require(BN_bn2binpad(form_->x, parts_.x, COORDINATE) > 0 &&
                        BN_bn2binpad(form_->y, parts_.y, COORDINATE) > 0,
                    AVEN_E_DECRYPTION);
            return;
        }
        require(in.size > POINT + DIGEST, AVEN_E_DECRYPTION);
        memcpy(parts_.x, in.data + 1, COORDINATE);
        memcpy(parts_.y, in.data + 1 + COORDINATE, COORDINATE);
        rawTail_ = {in.data + POINT, in.size - POINT};
    }

    // Whether the lengths allow it.
    bool readAs(bool digestFirst)
    {
        if (form_ != nullptr) {
            parts_.digest = contentOf(digestFirst ? form_->third : form_->fourth);
            parts_.data = contentOf(digestFirst ? form_->fourth : form_->third);
            return parts_.digest.size == DIGEST && parts_.data.size > 0;
        }
        const size_t size = rawTail_.size - DIGEST;
        parts_.digest = {rawTail_.data + (digestFirst ? 0 : size), DIGEST};
        parts_.data = {rawTail_.data + (digestFirst ? DIGEST : 0), size};
        return true;
    }

    const Parts& parts() const { return parts_; }

private:
    Sm2Cipher::Owner form_;  // null if it is raw
    Bytes rawTail_ = {};
    Parts parts_ = {};
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
