#include "sm2.h"

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/params.h>

#include <algorithm>
#include <cstring>

#include "engine/asn1_form.h"
#include "engine/kdf.h"

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

// ---- The arithmetic. libcrypto's own encryption and decryption leave in freed memory what takes a
// ciphertext apart: the shared point and the key stream.

using Number = Owned<BN_clear_free, BIGNUM>;
using Numbers = Owned<BN_CTX_free, BN_CTX>;
using Point = Owned<EC_POINT_clear_free, EC_POINT>;

Number makeNumber()
{
    Number number(BN_secure_new());
    require(number != nullptr, AVEN_E_NO_MEMORY);
    return number;
}

Number numberOf(const unsigned char* bytes)
{
    Number number = makeNumber();
    require(BN_bin2bn(bytes, COORDINATE, number.get()) != nullptr, AVEN_E_NO_MEMORY);
    return number;
}

// For points on the curve, and numbers in which secrets are computed.
class Arithmetic {
public:
    explicit Arithmetic(const Engine& engine)
        : m_curve(engine.sm2Curve()), m_numbers(BN_CTX_secure_new_ex(engine.library()))
    {
        require(m_numbers != nullptr, AVEN_E_NO_MEMORY);
    }

    Point makePoint() const
    {
        Point point(EC_POINT_new(m_curve));
        require(point != nullptr, AVEN_E_NO_MEMORY);
        return point;
    }

    // Null if there is no such point. libcrypto would take a coordinate plus the field's prime for
    // the coordinate; GB/T 32918.1, 4.2.6, refuses what is not below the prime.
    Point pointAt(const Parts& parts) const
    {
        const Number x = numberOf(parts.x), y = numberOf(parts.y);
        const BIGNUM* prime = EC_GROUP_get0_field(m_curve);
        if (BN_cmp(x.get(), prime) >= 0 || BN_cmp(y.get(), prime) >= 0)
            return nullptr;
        Point point = makePoint();
        if (EC_POINT_set_affine_coordinates(m_curve, point.get(), x.get(), y.get(),
                                            m_numbers.get()) != 1)
            return nullptr;
        return point;
    }

    // `factor` times the point, or the base point if that is null. The time does not depend on the
    // factor. Writes 32 bytes each.
    void multiply(const EC_POINT* point, const BIGNUM* factor, unsigned char* x,
                  unsigned char* y) const
    {
        const Point product = makePoint();
        const Number productX = makeNumber(), productY = makeNumber();
        const BIGNUM* ofBase = point == nullptr ? factor : nullptr;
        const BIGNUM* ofPoint = point == nullptr ? nullptr : factor;
        require(
            EC_POINT_mul(m_curve, product.get(), ofBase, point, ofPoint, m_numbers.get()) == 1 &&
                EC_POINT_get_affine_coordinates(m_curve, product.get(), productX.get(),
                                                productY.get(), m_numbers.get()) == 1 &&
                BN_bn2binpad(productX.get(), x, COORDINATE) == COORDINATE &&
                BN_bn2binpad(productY.get(), y, COORDINATE) == COORDINATE,
            AVEN_E_INTERNAL);
    }

    // From 1 to the order - 1.
    Number randomFactor(const Engine& engine) const
    {
        for (;;) {
            SecretBytes bytes(COORDINATE);
            engine.random(bytes.data(), bytes.size());
            Number number = numberOf(bytes.data());
            if (!BN_is_zero(number.get()) && BN_cmp(number.get(), EC_GROUP_get0_order(m_curve)) < 0)
                return number;
        }
    }

private:
    const EC_GROUP* m_curve;
    Numbers m_numbers;
};

Number scalarOf(const Key& key)
{
    SecretBytes bytes(COORDINATE);
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_BN(OSSL_PKEY_PARAM_PRIV_KEY, bytes.data(), bytes.size()),
        OSSL_PARAM_construct_end()};
    Number scalar = makeNumber();
    BIGNUM* place = scalar.get();
    require(
        EVP_PKEY_get_params(key.pkey.get(), params) == 1 && OSSL_PARAM_get_BN(params, &place) == 1,
        AVEN_E_INTERNAL);
    return scalar;
}

// The point of a public key.
Parts publicPoint(const Key& key)
{
    unsigned char encodedPoint[POINT];
    size_t size = 0;
    require(EVP_PKEY_get_octet_string_param(key.pkey.get(), OSSL_PKEY_PARAM_PUB_KEY, encodedPoint,
                                            sizeof encodedPoint, &size) == 1 &&
                size == POINT,
            AVEN_E_INTERNAL);
    Parts parts = {};
    memcpy(parts.x, encodedPoint + 1, COORDINATE);
    memcpy(parts.y, encodedPoint + 1 + COORDINATE, COORDINATE);
    return parts;
}

// What both sides compute: x || y of a point, from which everything else comes.
using SharedPoint = SecretBytes;

SharedPoint sharedPoint(const Arithmetic& arithmetic, const EC_POINT* point, const BIGNUM* factor)
{
    SharedPoint shared(2 * COORDINATE);
    arithmetic.multiply(point, factor, shared.data(), shared.data() + COORDINATE);
    return shared;
}

// C3: the hash of x || text || y.
void digest(const Engine& engine, const SharedPoint& shared, Bytes text, unsigned char* out)
{
    const Owned<EVP_MD_free, EVP_MD> hash(EVP_MD_fetch(engine.library(), "SM3", nullptr));
    const Owned<EVP_MD_CTX_free, EVP_MD_CTX> context(EVP_MD_CTX_new());
    require(hash != nullptr && context != nullptr, AVEN_E_NO_MEMORY);
    require(EVP_DigestInit_ex2(context.get(), hash.get(), nullptr) == 1 &&
                EVP_DigestUpdate(context.get(), shared.data(), COORDINATE) == 1 &&
                EVP_DigestUpdate(context.get(), text.data, text.size) == 1 &&
                EVP_DigestUpdate(context.get(), shared.data() + COORDINATE, COORDINATE) == 1 &&
                EVP_DigestFinal_ex(context.get(), out, nullptr) == 1,
            AVEN_E_INTERNAL);
}

void xorInto(SecretBytes& stream, Bytes in)
{
    for (size_t i = 0; i < in.size; ++i)
        stream[i] ^= in.data[i];
}

// Returns whether the ciphertext's digest was right; then the text is in `out`.
bool open(const Engine& engine, const Key& key, const Parts& parts, SecretBytes& out)
{
    const Arithmetic arithmetic(engine);
    const Point point = arithmetic.pointAt(parts);
    if (point == nullptr)
        return false;
    const SharedPoint shared = sharedPoint(arithmetic, point.get(), scalarOf(key).get());
    SecretBytes text(parts.data.size);
    deriveKey(engine, "SM3", view(shared), text.data(), text.size());
    xorInto(text, parts.data);

    unsigned char expected[DIGEST];
    const WipeUnlessKept wipe(expected, sizeof expected);
    digest(engine, shared, view(text), expected);
    if (CRYPTO_memcmp(expected, parts.digest.data, DIGEST) != 0)
        return false;
    out.swap(text);
    return true;
}

// Whether a ciphertext says that it is in ASN.1; else it is raw.
bool isAsn1(Bytes in)
{
    require(in.size > 0, AVEN_E_DECRYPTION);
    require(in.data[0] == SEQUENCE || in.data[0] == UNCOMPRESSED, AVEN_E_DECRYPTION);
    return in.data[0] == SEQUENCE;
}

}  // namespace

std::vector<unsigned char> sm2Encrypt(const Engine& engine, const Key& key, Sm2Form form, Bytes in)
{
    const LibraryRandomness randomness(engine);
    require(in.size > 0, AVEN_E_INPUT_EMPTY);
    require(in.size <= AVEN_KDF_MAX, AVEN_E_INPUT_TOO_LONG);

    const Arithmetic arithmetic(engine);
    const Point recipient = arithmetic.pointAt(publicPoint(key));
    require(recipient != nullptr, AVEN_E_INTERNAL);
    SecretBytes data(in.size);
    unsigned char hash[DIGEST];
    for (;;) {
        Parts parts = {{}, {}, {hash, DIGEST}, view(data)};
        const Number factor = arithmetic.randomFactor(engine);
        arithmetic.multiply(nullptr, factor.get(), parts.x, parts.y);
        const SharedPoint shared = sharedPoint(arithmetic, recipient.get(), factor.get());
        deriveKey(engine, "SM3", view(shared), data.data(), data.size());
        // The standard wants another try if all of the key stream is zero, as happens with the
        // shortest of texts.
        if (std::all_of(data.begin(), data.end(), [](unsigned char byte) { return byte == 0; }))
            continue;
        xorInto(data, in);
        digest(engine, shared, in, hash);
        return encoded(parts, form);
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
