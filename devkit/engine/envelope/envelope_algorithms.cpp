#include "envelope_algorithms.h"

#include <openssl/objects.h>
#include <openssl/rsa.h>

#include "engine/asn1_form.h"

namespace {

// The registries' identifiers: GB/T 33560 for SM4, NIST for AES, RFC 5794 for ARIA,
// NTT for CAMELLIA, RFC 3370 for 3DES. Where a combination has several, the first is
// written.
const ContentCipher contentCiphers[] = {
    {AVEN_CIPHER_SM4, AVEN_MODE_ECB, "1.2.156.10197.1.104.1"},
    {AVEN_CIPHER_SM4, AVEN_MODE_CBC, "1.2.156.10197.1.104.2"},
    // GM/T 0006 has SM4 without a mode alone. Makers who go by it mean CBC.
    {AVEN_CIPHER_SM4, AVEN_MODE_CBC, "1.2.156.10197.1.104"},
    {AVEN_CIPHER_SM4, AVEN_MODE_OFB, "1.2.156.10197.1.104.3"},
    {AVEN_CIPHER_SM4, AVEN_MODE_CFB, "1.2.156.10197.1.104.4"},
    {AVEN_CIPHER_SM4, AVEN_MODE_CTR, "1.2.156.10197.1.104.7"},
    {AVEN_CIPHER_SM4, AVEN_MODE_GCM, "1.2.156.10197.1.104.8"},
    {AVEN_CIPHER_AES_128, AVEN_MODE_ECB, "2.16.840.1.101.3.4.1.1"},
    {AVEN_CIPHER_AES_128, AVEN_MODE_CBC, "2.16.840.1.101.3.4.1.2"},
    {AVEN_CIPHER_AES_128, AVEN_MODE_OFB, "2.16.840.1.101.3.4.1.3"},
    {AVEN_CIPHER_AES_128, AVEN_MODE_CFB, "2.16.840.1.101.3.4.1.4"},
    {AVEN_CIPHER_AES_128, AVEN_MODE_GCM, "2.16.840.1.101.3.4.1.6"},
    {AVEN_CIPHER_AES_192, AVEN_MODE_ECB, "2.16.840.1.101.3.4.1.21"},
    {AVEN_CIPHER_AES_192, AVEN_MODE_CBC, "2.16.840.1.101.3.4.1.22"},
    {AVEN_CIPHER_AES_192, AVEN_MODE_OFB, "2.16.840.1.101.3.4.1.23"},
    {AVEN_CIPHER_AES_192, AVEN_MODE_CFB, "2.16.840.1.101.3.4.1.24"},
    {AVEN_CIPHER_AES_192, AVEN_MODE_GCM, "2.16.840.1.101.3.4.1.26"},
    {AVEN_CIPHER_AES_256, AVEN_MODE_ECB, "2.16.840.1.101.3.4.1.41"},
    {AVEN_CIPHER_AES_256, AVEN_MODE_CBC, "2.16.840.1.101.3.4.1.42"},
    {AVEN_CIPHER_AES_256, AVEN_MODE_OFB, "2.16.840.1.101.3.4.1.43"},
    {AVEN_CIPHER_AES_256, AVEN_MODE_CFB, "2.16.840.1.101.3.4.1.44"},
    {AVEN_CIPHER_AES_256, AVEN_MODE_GCM, "2.16.840.1.101.3.4.1.46"},
    {AVEN_CIPHER_ARIA_256, AVEN_MODE_ECB, "1.2.410.200046.1.1.11"},
    {AVEN_CIPHER_ARIA_256, AVEN_MODE_CBC, "1.2.410.200046.1.1.12"},
    {AVEN_CIPHER_ARIA_256, AVEN_MODE_CFB, "1.2.410.200046.1.1.13"},
    {AVEN_CIPHER_ARIA_256, AVEN_MODE_OFB, "1.2.410.200046.1.1.14"},
    {AVEN_CIPHER_ARIA_256, AVEN_MODE_CTR, "1.2.410.200046.1.1.15"},
    {AVEN_CIPHER_ARIA_256, AVEN_MODE_GCM, "1.2.410.200046.1.1.36"},
    {AVEN_CIPHER_CAMELLIA_256, AVEN_MODE_CBC, "1.2.392.200011.61.1.1.1.4"},
    {AVEN_CIPHER_CAMELLIA_256, AVEN_MODE_ECB, "0.3.4401.5.3.1.9.41"},
    {AVEN_CIPHER_CAMELLIA_256, AVEN_MODE_OFB, "0.3.4401.5.3.1.9.43"},
    {AVEN_CIPHER_CAMELLIA_256, AVEN_MODE_CFB, "0.3.4401.5.3.1.9.44"},
    {AVEN_CIPHER_CAMELLIA_256, AVEN_MODE_GCM, "0.3.4401.5.3.1.9.46"},
    {AVEN_CIPHER_CAMELLIA_256, AVEN_MODE_CTR, "0.3.4401.5.3.1.9.49"},
    {AVEN_CIPHER_3DES, AVEN_MODE_CBC, "1.2.840.113549.3.7"},
};

const char* const SM2_ENCRYPTION = "1.2.156.10197.1.301.3";  // GM/T 0006

// RFC 5084. An absent tag length means 12.
struct GcmForm {
    ASN1_OCTET_STRING* nonce;
    ASN1_INTEGER* tagLength;  // may be null
};
// clang-format off
ASN1_SEQUENCE(GcmForm) = {
    ASN1_SIMPLE(GcmForm, nonce, ASN1_OCTET_STRING),
    ASN1_OPT(GcmForm, tagLength, ASN1_INTEGER)
} static_ASN1_SEQUENCE_END(GcmForm)

using GcmParameters = Asn1<GcmForm, GcmForm_it>;
// clang-format on
using OaepParameters = Asn1<RSA_OAEP_PARAMS, RSA_OAEP_PARAMS_it>;
using Algorithm = Asn1<X509_ALGOR, X509_ALGOR_it>;
using StringOwner = Owned<ASN1_STRING_free, ASN1_STRING>;

// An identifier's parameters.
struct Parameters {
    int type;  // V_ASN1_UNDEF if there are none
    const ASN1_STRING* value;
};

Parameters parametersOf(const X509_ALGOR* algorithm)
{
    int type = V_ASN1_UNDEF;
    const void* value = nullptr;
    X509_ALGOR_get0(nullptr, &type, &value, algorithm);
    return {type, static_cast<const ASN1_STRING*>(value)};
}

const ASN1_OBJECT* identifierOf(const X509_ALGOR* algorithm)
{
    const ASN1_OBJECT* object = nullptr;
    X509_ALGOR_get0(&object, nullptr, nullptr, algorithm);
    return object;
}

// Takes over `object`.
void set(X509_ALGOR* out, ASN1_OBJECT* object, int type, StringOwner value)
{
    require(X509_ALGOR_set0(out, object, type, value.get()) == 1, AVEN_E_NO_MEMORY);
    (void)value.release();
}

StringOwner stringOf(int type, Bytes content)
{
    StringOwner string(ASN1_STRING_type_new(type));
    require(string != nullptr, AVEN_E_NO_MEMORY);
    setContent(string.get(), content);
    return string;
}

StringOwner sequenceOf(const std::vector<unsigned char>& der)
{
    return stringOf(V_ASN1_SEQUENCE, {der.data(), der.size()});
}

// The hash in OAEP's parameters; an absent one means SHA-1.
std::string oaepHash(const X509_ALGOR* algorithm)
{
    if (algorithm == nullptr)
        return "SHA1";
    const int hash = OBJ_obj2nid(identifierOf(algorithm));
    switch (hash) {
        case NID_sha1:
        case NID_sha224:
        case NID_sha256:
        case NID_sha384:
        case NID_sha512:
            return OBJ_nid2sn(hash);
    }
    throw Failure{AVEN_E_ENVELOPE_UNKNOWN};
}

// MGF1's hash.
std::string oaepMaskHash(const X509_ALGOR* algorithm)
{
    if (algorithm == nullptr)
        return "SHA1";
    require(OBJ_obj2nid(identifierOf(algorithm)) == NID_mgf1, AVEN_E_ENVELOPE_UNKNOWN);
    const Parameters parameters = parametersOf(algorithm);
    require(parameters.type == V_ASN1_SEQUENCE, AVEN_E_ENVELOPE_TEXT);
    const Algorithm::Owner hash =
        Algorithm::read(contentOf(parameters.value), AVEN_E_ENVELOPE_TEXT, AVEN_E_ENVELOPE_TEXT);
    return oaepHash(hash.get());
}

RsaPadding readOaep(const X509_ALGOR* algorithm)
{
    const Parameters parameters = parametersOf(algorithm);
    require(parameters.type == V_ASN1_SEQUENCE, AVEN_E_ENVELOPE_TEXT);
    const OaepParameters::Owner oaep = OaepParameters::read(
        contentOf(parameters.value), AVEN_E_ENVELOPE_TEXT, AVEN_E_ENVELOPE_TEXT);
    if (oaep->pSourceFunc != nullptr) {
        const Parameters label = parametersOf(oaep->pSourceFunc);
        require(OBJ_obj2nid(identifierOf(oaep->pSourceFunc)) == NID_pSpecified &&
                    label.type == V_ASN1_OCTET_STRING && contentOf(label.value).size == 0,
                AVEN_E_ENVELOPE_UNKNOWN);
    }
    return {AVEN_RSA_OAEP, oaepHash(oaep->hashFunc), oaepMaskHash(oaep->maskGenFunc)};
}

// SM2 encryption goes by its own identifier, by the curve's, which stands for all of SM2 in
// GM/T 0006, or by the one in the recipient's certificate.
bool isSm2(const X509_ALGOR* algorithm)
{
    const ASN1_OBJECT* identifier = nullptr;
    int type = V_ASN1_UNDEF;
    const void* value = nullptr;
    X509_ALGOR_get0(&identifier, &type, &value, algorithm);
    switch (OBJ_obj2nid(identifier)) {
        case NID_sm2:
            return true;
        case NID_X9_62_id_ecPublicKey:
            return type == V_ASN1_OBJECT &&
                   OBJ_obj2nid(static_cast<const ASN1_OBJECT*>(value)) == NID_sm2;
    }
    return oidOf(identifier) == SM2_ENCRYPTION;
}

Algorithm::Owner sha256Algorithm()
{
    Algorithm::Owner algorithm = Algorithm::make();
    set(algorithm.get(), OBJ_nid2obj(NID_sha256), V_ASN1_NULL, nullptr);
    return algorithm;
}

void writeOaep(X509_ALGOR* out)
{
    const OaepParameters::Owner oaep = OaepParameters::make();
    const Algorithm::Owner hash = sha256Algorithm();
    oaep->hashFunc = sha256Algorithm().release();
    oaep->maskGenFunc = Algorithm::make().release();
    set(oaep->maskGenFunc, OBJ_nid2obj(NID_mgf1), V_ASN1_SEQUENCE,
        sequenceOf(Algorithm::encode(*hash)));
    set(out, OBJ_nid2obj(NID_rsaesOaep), V_ASN1_SEQUENCE,
        sequenceOf(OaepParameters::encode(*oaep)));
}

}  // namespace

ASN1_OBJECT* objectOf(const char* oid)
{
    ASN1_OBJECT* object = OBJ_txt2obj(oid, 1);
    require(object != nullptr, AVEN_E_NO_MEMORY);
    return object;
}

std::string oidOf(const ASN1_OBJECT* object)
{
    char text[128] = "";  // more than any identifier used here
    OBJ_obj2txt(text, sizeof text, object, 1);
    return text;
}

const ContentCipher* contentCipher(int cipher, int mode)
{
    for (const ContentCipher& one : contentCiphers) {
        if (one.cipher == cipher && one.mode == mode)
            return &one;
    }
    return nullptr;
}

size_t ivLength(const ContentCipher& cipher)
{
    switch (cipher.mode) {
        case AVEN_MODE_ECB:
            return 0;
        case AVEN_MODE_GCM:
            return ENVELOPE_NONCE;
    }
    return cipherInfo(cipher.cipher).block;
}

void writeContentAlgorithm(const ContentCipher& cipher, Bytes iv, X509_ALGOR* out)
{
    if (cipher.mode != AVEN_MODE_GCM) {
        // Empty in ECB, as libcrypto has it.
        set(out, objectOf(cipher.oid), V_ASN1_OCTET_STRING, stringOf(V_ASN1_OCTET_STRING, iv));
        return;
    }
    const GcmParameters::Owner gcm = GcmParameters::make();
    setContent(gcm->nonce, iv);
    gcm->tagLength = ASN1_INTEGER_new();
    require(gcm->tagLength != nullptr && ASN1_INTEGER_set(gcm->tagLength, ENVELOPE_TAG) == 1,
            AVEN_E_NO_MEMORY);
    set(out, objectOf(cipher.oid), V_ASN1_SEQUENCE, sequenceOf(GcmParameters::encode(*gcm)));
}

ContentAlgorithm readContentAlgorithm(const X509_ALGOR* algorithm)
{
    const std::string oid = oidOf(identifierOf(algorithm));
    const ContentCipher* cipher = nullptr;
    for (const ContentCipher& one : contentCiphers) {
        if (oid == one.oid)
            cipher = contentCipher(one.cipher, one.mode);
    }
    require(cipher != nullptr, AVEN_E_ENVELOPE_UNKNOWN);

    const Parameters parameters = parametersOf(algorithm);
    if (cipher->mode == AVEN_MODE_GCM) {
        require(parameters.type == V_ASN1_SEQUENCE, AVEN_E_ENVELOPE_TEXT);
        const GcmParameters::Owner gcm = GcmParameters::read(
            contentOf(parameters.value), AVEN_E_ENVELOPE_TEXT, AVEN_E_ENVELOPE_TEXT);
        const Bytes nonce = contentOf(gcm->nonce);
        const long tagLength = gcm->tagLength == nullptr ? 12 : ASN1_INTEGER_get(gcm->tagLength);
        require(nonce.size >= 1 && nonce.size <= AVEN_GCM_IV_MAX, AVEN_E_ENVELOPE_UNKNOWN);
        require(tagLength >= 12 && tagLength <= AVEN_GCM_TAG_MAX, AVEN_E_ENVELOPE_UNKNOWN);
        return {cipher, {nonce.data, nonce.data + nonce.size}, static_cast<size_t>(tagLength)};
    }

    const bool absent = parameters.type == V_ASN1_UNDEF || parameters.type == V_ASN1_NULL;
    if (cipher->mode == AVEN_MODE_ECB && absent)
        return {cipher, {}, 0};
    require(parameters.type == V_ASN1_OCTET_STRING, AVEN_E_ENVELOPE_TEXT);
    const Bytes iv = contentOf(parameters.value);
    require(iv.size == ivLength(*cipher), AVEN_E_ENVELOPE_TEXT);
    return {cipher, {iv.data, iv.data + iv.size}, 0};
}

void writeTransport(int keyKind, X509_ALGOR* out)
{
    if (keyKind == AVEN_KEY_RSA)
        writeOaep(out);
    else
        set(out, objectOf(SM2_ENCRYPTION), V_ASN1_UNDEF, nullptr);
}

Transport readTransport(const X509_ALGOR* algorithm)
{
    switch (OBJ_obj2nid(identifierOf(algorithm))) {
        case NID_rsaEncryption:
            return {AVEN_KEY_RSA, {AVEN_RSA_PKCS1}};
        case NID_rsaesOaep:
            return {AVEN_KEY_RSA, readOaep(algorithm)};
    }
    return {isSm2(algorithm) ? AVEN_KEY_SM2 : 0, {AVEN_RSA_OAEP}};
}
