#include "keys.h"

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/param_build.h>

#include "encrypted_key.h"
#include "engine/asn1_form.h"
#include "engine/exported_call.h"
#include "engine/exports.h"
#include "engine/secret_bytes.h"
#include "key_forms.h"

namespace {

// ---- The ASN.1 of keys that libcrypto has no type of its own for. CBIGNUM numbers are
// wiped when freed.

// clang-format off
struct RsaPrivateForm {
    ASN1_INTEGER* version;
    BIGNUM* n;
    BIGNUM* e;
    BIGNUM* d;
    BIGNUM* p;
    BIGNUM* q;
    BIGNUM* dp;
    BIGNUM* dq;
    BIGNUM* qInverse;
};
ASN1_SEQUENCE(RsaPrivateForm) = {
    ASN1_SIMPLE(RsaPrivateForm, version, ASN1_INTEGER),
    ASN1_SIMPLE(RsaPrivateForm, n, BIGNUM),
    ASN1_SIMPLE(RsaPrivateForm, e, BIGNUM),
    ASN1_SIMPLE(RsaPrivateForm, d, CBIGNUM),
    ASN1_SIMPLE(RsaPrivateForm, p, CBIGNUM),
    ASN1_SIMPLE(RsaPrivateForm, q, CBIGNUM),
    ASN1_SIMPLE(RsaPrivateForm, dp, CBIGNUM),
    ASN1_SIMPLE(RsaPrivateForm, dq, CBIGNUM),
    ASN1_SIMPLE(RsaPrivateForm, qInverse, CBIGNUM)
} static_ASN1_SEQUENCE_END(RsaPrivateForm)

struct RsaPublicForm {
    BIGNUM* n;
    BIGNUM* e;
};
ASN1_SEQUENCE(RsaPublicForm) = {
    ASN1_SIMPLE(RsaPublicForm, n, BIGNUM),
    ASN1_SIMPLE(RsaPublicForm, e, BIGNUM)
} static_ASN1_SEQUENCE_END(RsaPublicForm)

struct EcPrivateForm {
    ASN1_INTEGER* version;
    ASN1_OCTET_STRING* scalar;
    ASN1_TYPE* curve;        // may be null
    ASN1_BIT_STRING* point;  // may be null
};
// Wipes the scalar before it is freed, also where reading has failed behind it.
int beforeEcPrivateFormEnds(int operation, ASN1_VALUE** form, const ASN1_ITEM*, void*)
{
    if (operation == ASN1_OP_FREE_PRE) {
        ASN1_OCTET_STRING* scalar = reinterpret_cast<EcPrivateForm*>(*form)->scalar;
        if (scalar != nullptr)
            OPENSSL_cleanse(scalar->data, static_cast<size_t>(scalar->length));
    }
    return 1;
}
ASN1_SEQUENCE_cb(EcPrivateForm, beforeEcPrivateFormEnds) = {
    ASN1_SIMPLE(EcPrivateForm, version, ASN1_INTEGER),
    ASN1_SIMPLE(EcPrivateForm, scalar, ASN1_OCTET_STRING),
    ASN1_EXP_OPT(EcPrivateForm, curve, ASN1_ANY, 0),
    ASN1_EXP_OPT(EcPrivateForm, point, ASN1_BIT_STRING, 1)
} static_ASN1_SEQUENCE_END_cb(EcPrivateForm, EcPrivateForm)

struct PublicKeyForm {
    X509_ALGOR* algorithm;
    ASN1_BIT_STRING* key;
};
ASN1_SEQUENCE(PublicKeyForm) = {
    ASN1_SIMPLE(PublicKeyForm, algorithm, X509_ALGOR),
    ASN1_SIMPLE(PublicKeyForm, key, ASN1_BIT_STRING)
} static_ASN1_SEQUENCE_END(PublicKeyForm)

using RsaPrivate = Asn1<RsaPrivateForm, RsaPrivateForm_it>;
using RsaPublic = Asn1<RsaPublicForm, RsaPublicForm_it>;
using EcPrivate = Asn1<EcPrivateForm, EcPrivateForm_it>;
using PublicKey = Asn1<PublicKeyForm, PublicKeyForm_it>;
// clang-format on

using Number = Owned<BN_clear_free, BIGNUM>;
using Numbers = Owned<BN_CTX_free, BN_CTX>;
using Point = Owned<EC_POINT_free, EC_POINT>;

// ---- From numbers to libcrypto's keys.

class KeyMaker {
public:
    KeyMaker() : m_params(OSSL_PARAM_BLD_new()) { require(m_params != nullptr, AVEN_E_NO_MEMORY); }

    // The values are used by make and must live until then.
    void add(const char* name, const BIGNUM* number)
    {
        require(OSSL_PARAM_BLD_push_BN(m_params.get(), name, number) == 1, AVEN_E_NO_MEMORY);
    }
    void add(const char* name, const char* text)
    {
        require(OSSL_PARAM_BLD_push_utf8_string(m_params.get(), name, text, 0) == 1,
                AVEN_E_NO_MEMORY);
    }
    void add(const char* name, Bytes bytes)
    {
        require(OSSL_PARAM_BLD_push_octet_string(m_params.get(), name, bytes.data, bytes.size) == 1,
                AVEN_E_NO_MEMORY);
    }

    PKey make(const Engine& engine, const char* algorithm, int selection)
    {
        const Owned<OSSL_PARAM_free, OSSL_PARAM> params(OSSL_PARAM_BLD_to_param(m_params.get()));
        const PKeyContext context(EVP_PKEY_CTX_new_from_name(engine.library(), algorithm, nullptr));
        require(params != nullptr && context != nullptr, AVEN_E_NO_MEMORY);

        EVP_PKEY* key = nullptr;
        require(EVP_PKEY_fromdata_init(context.get()) == 1, AVEN_E_INTERNAL);
        require(EVP_PKEY_fromdata(context.get(), &key, selection, params.get()) == 1,
                AVEN_E_KEY_INVALID);
        return PKey(key);
    }

private:
    Owned<OSSL_PARAM_BLD_free, OSSL_PARAM_BLD> m_params;
};

void checkRsaPublic(const BIGNUM* n, const BIGNUM* e)
{
    const int bits = BN_num_bits(n);
    require(bits >= AVEN_RSA_BITS_MIN && bits <= AVEN_RSA_BITS_MAX, AVEN_E_RSA_SIZE);
    const int exponentBits = BN_num_bits(e);
    require(BN_is_odd(n) == 1 && BN_is_odd(e) == 1, AVEN_E_KEY_INVALID);
    require(exponentBits >= 2 && exponentBits <= 64, AVEN_E_KEY_INVALID);
}

// Whether d undoes e modulo `prime` - 1, and `exponent` is d modulo that.
bool fitsPrime(const BIGNUM* prime, const BIGNUM* exponent, const RsaPrivateForm& form,
               BN_CTX* numbers)
{
    const Number modulus(BN_dup(prime));
    const Number result(BN_secure_new());
    require(modulus != nullptr && result != nullptr, AVEN_E_NO_MEMORY);
    return BN_sub_word(modulus.get(), 1) == 1 && !BN_is_zero(modulus.get()) &&
           BN_mod_mul(result.get(), form.d, form.e, modulus.get(), numbers) == 1 &&
           BN_is_one(result.get()) && BN_nnmod(result.get(), form.d, modulus.get(), numbers) == 1 &&
           BN_cmp(result.get(), exponent) == 0;
}

// Testing the factors for primality would take longer than all uses of the key.
void checkRsaPrivate(const Engine& engine, const RsaPrivateForm& form)
{
    for (const BIGNUM* number : {form.d, form.p, form.q, form.dp, form.dq, form.qInverse})
        require(BN_num_bits(number) <= BN_num_bits(form.n), AVEN_E_KEY_INVALID);

    const Numbers numbers(BN_CTX_secure_new_ex(engine.library()));
    const Number product(BN_secure_new());
    require(numbers != nullptr && product != nullptr, AVEN_E_NO_MEMORY);
    require(BN_mul(product.get(), form.p, form.q, numbers.get()) == 1, AVEN_E_INTERNAL);
    require(BN_cmp(product.get(), form.n) == 0 && fitsPrime(form.p, form.dp, form, numbers.get()) &&
                fitsPrime(form.q, form.dq, form, numbers.get()) &&
                BN_cmp(form.qInverse, form.p) < 0 &&
                BN_mod_mul(product.get(), form.q, form.qInverse, form.p, numbers.get()) == 1 &&
                BN_is_one(product.get()),
            AVEN_E_KEY_INVALID);
}

Key rsaPublicKey(const Engine& engine, const BIGNUM* n, const BIGNUM* e)
{
    checkRsaPublic(n, e);
    KeyMaker maker;
    maker.add(OSSL_PKEY_PARAM_RSA_N, n);
    maker.add(OSSL_PKEY_PARAM_RSA_E, e);
    return {AVEN_KEY_RSA, maker.make(engine, "RSA", EVP_PKEY_PUBLIC_KEY)};
}

Key rsaPrivateKey(const Engine& engine, Bytes der)
{
    const RsaPrivate::Owner form = RsaPrivate::read(der, AVEN_E_KEY_TEXT, AVEN_E_KEY_TEXT);
    // Version 1 has more than two factors.
    require(ASN1_INTEGER_get(form->version) == 0, AVEN_E_KEY_ALGORITHM);
    checkRsaPublic(form->n, form->e);
    checkRsaPrivate(engine, *form);

    KeyMaker maker;
    maker.add(OSSL_PKEY_PARAM_RSA_N, form->n);
    maker.add(OSSL_PKEY_PARAM_RSA_E, form->e);
    maker.add(OSSL_PKEY_PARAM_RSA_D, form->d);
    maker.add(OSSL_PKEY_PARAM_RSA_FACTOR1, form->p);
    maker.add(OSSL_PKEY_PARAM_RSA_FACTOR2, form->q);
    maker.add(OSSL_PKEY_PARAM_RSA_EXPONENT1, form->dp);
    maker.add(OSSL_PKEY_PARAM_RSA_EXPONENT2, form->dq);
    maker.add(OSSL_PKEY_PARAM_RSA_COEFFICIENT1, form->qInverse);
    return {AVEN_KEY_RSA, maker.make(engine, "RSA", EVP_PKEY_KEYPAIR)};
}

// The point that `encoded` stands for, which is on the curve and not at infinity.
Point decodePoint(const EC_GROUP* curve, Bytes encoded, BN_CTX* numbers)
{
    Point point(EC_POINT_new(curve));
    require(point != nullptr, AVEN_E_NO_MEMORY);
    require(EC_POINT_oct2point(curve, point.get(), encoded.data, encoded.size, numbers) == 1 &&
                EC_POINT_is_at_infinity(curve, point.get()) == 0,
            AVEN_E_KEY_INVALID);
    return point;
}

Key sm2Key(const Engine& engine, const EC_POINT* point, const BIGNUM* scalar, BN_CTX* numbers)
{
    unsigned char encoded[65];
    require(EC_POINT_point2oct(engine.sm2Curve(), point, POINT_CONVERSION_UNCOMPRESSED, encoded,
                               sizeof encoded, numbers) == sizeof encoded,
            AVEN_E_INTERNAL);
    KeyMaker maker;
    maker.add(OSSL_PKEY_PARAM_GROUP_NAME, "SM2");
    maker.add(OSSL_PKEY_PARAM_PUB_KEY, Bytes{encoded, sizeof encoded});
    if (scalar != nullptr)
        maker.add(OSSL_PKEY_PARAM_PRIV_KEY, scalar);
    const int selection = scalar == nullptr ? EVP_PKEY_PUBLIC_KEY : EVP_PKEY_KEYPAIR;
    return {AVEN_KEY_SM2, maker.make(engine, "SM2", selection)};
}

Key sm2PublicKey(const Engine& engine, Bytes encodedPoint)
{
    const Numbers numbers(BN_CTX_new_ex(engine.library()));
    require(numbers != nullptr, AVEN_E_NO_MEMORY);
    const Point point = decodePoint(engine.sm2Curve(), encodedPoint, numbers.get());
    return sm2Key(engine, point.get(), nullptr, numbers.get());
}

// The public point is computed from the scalar; one in the text must be the same.
Key sm2PrivateKey(const Engine& engine, const EcPrivateForm& form)
{
    const Numbers numbers(BN_CTX_secure_new_ex(engine.library()));
    const Number scalar(BN_secure_new());
    const Number limit(BN_new());
    require(numbers != nullptr && scalar != nullptr && limit != nullptr, AVEN_E_NO_MEMORY);
    const EC_GROUP* curve = engine.sm2Curve();

    // GB/T 32918.1: 1 to order - 2.
    const Bytes encoded = contentOf(form.scalar);
    require(encoded.size <= 32, AVEN_E_KEY_INVALID);
    require(BN_bin2bn(encoded.data, static_cast<int>(encoded.size), scalar.get()) != nullptr &&
                BN_copy(limit.get(), EC_GROUP_get0_order(curve)) != nullptr &&
                BN_sub_word(limit.get(), 1) == 1,
            AVEN_E_NO_MEMORY);
    require(!BN_is_zero(scalar.get()) && BN_cmp(scalar.get(), limit.get()) < 0, AVEN_E_KEY_INVALID);

    const Point point(EC_POINT_new(curve));
    require(point != nullptr, AVEN_E_NO_MEMORY);
    require(EC_POINT_mul(curve, point.get(), scalar.get(), nullptr, nullptr, numbers.get()) == 1,
            AVEN_E_INTERNAL);
    if (form.point != nullptr) {
        const Point given = decodePoint(curve, contentOf(form.point), numbers.get());
        require(EC_POINT_cmp(curve, point.get(), given.get(), numbers.get()) == 0,
                AVEN_E_KEY_INVALID);
    }
    return sm2Key(engine, point.get(), scalar.get(), numbers.get());
}

// ---- From DER to numbers.

// Which kind of key an algorithm identifier announces.
int kindOf(const X509_ALGOR* algorithm)
{
    const ASN1_OBJECT* object = nullptr;
    int type = V_ASN1_UNDEF;
    const void* value = nullptr;
    X509_ALGOR_get0(&object, &type, &value, algorithm);

    switch (OBJ_obj2nid(object)) {
        case NID_rsaEncryption:
            return AVEN_KEY_RSA;
        case NID_X9_62_id_ecPublicKey:
            require(type == V_ASN1_OBJECT, AVEN_E_KEY_ALGORITHM);
            require(OBJ_obj2nid(static_cast<const ASN1_OBJECT*>(value)) == NID_sm2,
                    AVEN_E_KEY_ALGORITHM);
            return AVEN_KEY_SM2;
    }
    throw Failure{AVEN_E_KEY_ALGORITHM};
}

// SEC 1, on its own or inside PKCS#8, which then names the curve.
Key ecPrivateKey(const Engine& engine, Bytes der, bool curveIsKnown)
{
    const EcPrivate::Owner form = EcPrivate::read(der, AVEN_E_KEY_TEXT, AVEN_E_KEY_TEXT);
    require(ASN1_INTEGER_get(form->version) == 1, AVEN_E_KEY_TEXT);

    const ASN1_TYPE* curve = form->curve;
    require(curve != nullptr || curveIsKnown, AVEN_E_KEY_ALGORITHM);
    require(curve == nullptr || (ASN1_TYPE_get(curve) == V_ASN1_OBJECT &&
                                 OBJ_obj2nid(curve->value.object) == NID_sm2),
            AVEN_E_KEY_ALGORITHM);
    return sm2PrivateKey(engine, *form);
}

Key pkcs8PrivateKey(const Engine& engine, const PKCS8_PRIV_KEY_INFO* info)
{
    const unsigned char* der = nullptr;
    int size = 0;
    const X509_ALGOR* algorithm = nullptr;
    require(PKCS8_pkey_get0(nullptr, &der, &size, &algorithm, info) == 1, AVEN_E_KEY_TEXT);
    const Bytes inner = {der, static_cast<size_t>(size)};
    return kindOf(algorithm) == AVEN_KEY_RSA ? rsaPrivateKey(engine, inner)
                                             : ecPrivateKey(engine, inner, true);
}

PrivateKeyInfo readPkcs8(Bytes der)
{
    const unsigned char* p = der.data;
    PrivateKeyInfo info(d2i_PKCS8_PRIV_KEY_INFO(nullptr, &p, static_cast<long>(der.size)));
    require(info != nullptr, AVEN_E_KEY_TEXT);
    return info;
}

Key publicKeyOf(const Engine& engine, const X509_ALGOR* algorithm, Bytes key)
{
    if (kindOf(algorithm) == AVEN_KEY_SM2)
        return sm2PublicKey(engine, key);
    const RsaPublic::Owner form = RsaPublic::read(key, AVEN_E_KEY_TEXT, AVEN_E_KEY_TEXT);
    return rsaPublicKey(engine, form->n, form->e);
}

X509Certificate parseCertificate(const Engine& engine, const KeyBlock& block)
{
    require(block.form == KeyForm::Certificate, AVEN_E_KEY_ROLE);
    X509* made = X509_new_ex(engine.library(), nullptr);
    require(made != nullptr, AVEN_E_NO_MEMORY);
    const unsigned char* p = block.der.data();
    // Frees what it was given if it fails.
    X509Certificate x509(d2i_X509(&made, &p, static_cast<long>(block.der.size())));
    require(x509 != nullptr, AVEN_E_KEY_TEXT);
    return x509;
}

Key holderKey(const Engine& engine, const X509* x509)
{
    const unsigned char* key = nullptr;
    int size = 0;
    X509_ALGOR* algorithm = nullptr;
    require(
        X509_PUBKEY_get0_param(nullptr, &key, &size, &algorithm, X509_get_X509_PUBKEY(x509)) == 1,
        AVEN_E_KEY_TEXT);
    return publicKeyOf(engine, algorithm, {key, static_cast<size_t>(size)});
}

std::shared_ptr<Certificate> makeCertificate(const Engine& engine, const KeyBlock& block)
{
    X509Certificate x509 = parseCertificate(engine, block);
    Key holder = holderKey(engine, x509.get());
    return std::make_shared<Certificate>(std::move(x509), std::move(holder));
}

template <class Object>
std::shared_ptr<const Object> found(const Engine& engine, const void* handle)
{
    require(handle != nullptr, AVEN_E_NULL_POINTER);
    std::shared_ptr<const Object> object = engine.handles().find<const Object>(handle);
    require(object != nullptr, AVEN_E_HANDLE);
    return object;
}

// Null is freed without a word, also when the engine is not running.
template <class Object>
int freeHandle(const char* function, const void* handle)
{
    if (handle == nullptr)
        return guarded(function, nullptr, [] {});
    return answer(function, [handle](const Engine& engine) {
        require(engine.handles().remove<Object>(handle) != nullptr, AVEN_E_HANDLE);
    });
}

}  // namespace

Key readPrivateKey(const Engine& engine, Bytes text, const char* password)
{
    const LibraryRandomness randomness(engine);
    const KeyBlock block = unwrapKeyText(text);
    const Bytes der = view(block.der);

    switch (block.form) {
        case KeyForm::Pkcs8:
            return pkcs8PrivateKey(engine, readPkcs8(der).get());
        case KeyForm::EncryptedPkcs8:
            return pkcs8PrivateKey(engine, decryptPkcs8(engine, der, password).get());
        case KeyForm::Sec1:
            return ecPrivateKey(engine, der, false);
        case KeyForm::Pkcs1:
            return rsaPrivateKey(engine, der);
        case KeyForm::PublicKey:
        case KeyForm::Certificate:
            break;
    }
    throw Failure{AVEN_E_KEY_ROLE};
}

Key readPublicKey(const Engine& engine, Bytes text)
{
    const KeyBlock block = unwrapKeyText(text);
    if (block.form == KeyForm::PublicKey) {
        const PublicKey::Owner form =
            PublicKey::read(view(block.der), AVEN_E_KEY_TEXT, AVEN_E_KEY_TEXT);
        return publicKeyOf(engine, form->algorithm, contentOf(form->key));
    }
    return holderKey(engine, parseCertificate(engine, block).get());
}

std::shared_ptr<Certificate> readCertificate(const Engine& engine, Bytes text)
{
    return makeCertificate(engine, unwrapKeyText(text));
}

std::shared_ptr<Certificate> certificateOfDer(const Engine& engine, Bytes der)
{
    return makeCertificate(engine, unwrapKeyDer(der));
}

PKeyContext contextFor(const Engine& engine, const Key& key)
{
    PKeyContext context(EVP_PKEY_CTX_new_from_pkey(engine.library(), key.pkey.get(), nullptr));
    require(context != nullptr, AVEN_E_NO_MEMORY);
    return context;
}

bool samePublicKey(const Key& a, const Key& b)
{
    return a.kind == b.kind && EVP_PKEY_eq(a.pkey.get(), b.pkey.get()) == 1;
}

std::shared_ptr<const KeyPair> keyPairOf(const Engine& engine, const void* handle)
{
    return found<KeyPair>(engine, handle);
}

std::shared_ptr<const Certificate> certificateOf(const Engine& engine, const void* handle)
{
    return found<Certificate>(engine, handle);
}

int aven_keypair_unmarshal(int type, const unsigned char* private_key, uint32_t private_key_len,
                           const unsigned char* public_key, uint32_t public_key_len,
                           const char* password, void** keypair)
{
    return answer("aven_keypair_unmarshal", keypair, [&](const Engine& engine) {
        require(type == AVEN_KEY_ANY || type == AVEN_KEY_SM2 || type == AVEN_KEY_RSA,
                AVEN_E_KEY_TYPE);
        const Bytes privateText = input(private_key, private_key_len);
        const Bytes publicText = input(public_key, public_key_len);
        const bool isPrivate = privateText.size > 0;
        require(isPrivate || publicText.size > 0, AVEN_E_KEY_MISSING);

        Key key = isPrivate ? readPrivateKey(engine, privateText, password)
                            : readPublicKey(engine, publicText);
        require(type == AVEN_KEY_ANY || type == key.kind, AVEN_E_KEY_KIND);
        if (isPrivate && publicText.size > 0)
            require(samePublicKey(key, readPublicKey(engine, publicText)), AVEN_E_KEY_MISMATCH);
        return std::make_shared<KeyPair>(std::move(key), isPrivate);
    });
}

int aven_keypair_free(void* keypair)
{
    return freeHandle<KeyPair>("aven_keypair_free", keypair);
}

int aven_certificate_unmarshal(const unsigned char* cert, uint32_t cert_len, const char*,
                               void** certificate)
{
    return answer("aven_certificate_unmarshal", certificate, [&](const Engine& engine) {
        const Bytes text = input(cert, cert_len);
        require(text.size > 0, AVEN_E_KEY_MISSING);
        return readCertificate(engine, text);
    });
}

int aven_certificate_free(void* certificate)
{
    return freeHandle<Certificate>("aven_certificate_free", certificate);
}
