// Envelopes for a certificate's holder: CMS (RFC 5652, RFC 5083) to RSA keys, and the
// same structures under the identifiers of GM/T 0010 to SM2 keys.
//
// They are written here rather than with libcrypto's CMS, which does not know the second
// kind, and which does not say what is wrong with an envelope that it refuses.

#include <openssl/x509.h>

#include "engine/asn1_form.h"
#include "engine/exported_call.h"
#include "engine/exports.h"
#include "engine/keys/keys.h"
#include "engine/keys/rsa.h"
#include "engine/keys/sm2.h"
#include "engine/symmetric/gcm.h"
#include "engine/symmetric/symmetric.h"
#include "envelope_algorithms.h"

namespace {

const char* const CMS_ENVELOPED = "1.2.840.113549.1.7.3";
const char* const CMS_AUTH_ENVELOPED = "1.2.840.113549.1.9.16.1.23";
const char* const CMS_DATA = "1.2.840.113549.1.7.1";
const char* const GM_ENVELOPED = "1.2.156.10197.6.1.4.2.3";
const char* const GM_DATA = "1.2.156.10197.6.1.4.2.1";
// PKCS#7's and GM/T 0010's envelopes with signatures over the content.
const char* const CMS_SIGNED_ENVELOPED = "1.2.840.113549.1.7.4";
const char* const GM_SIGNED_ENVELOPED = "1.2.156.10197.6.1.4.2.4";

// ---- The ASN.1. Parts that are only read over are of any type.

// clang-format off
struct IssuerAndSerialForm {
    X509_NAME* issuer;
    ASN1_INTEGER* serial;
};
ASN1_SEQUENCE(IssuerAndSerialForm) = {
    ASN1_SIMPLE(IssuerAndSerialForm, issuer, X509_NAME),
    ASN1_SIMPLE(IssuerAndSerialForm, serial, ASN1_INTEGER)
} static_ASN1_SEQUENCE_END(IssuerAndSerialForm)

struct RecipientNameForm {
    int type;  // which of the two, from 0; -1 for none
    union {
        ASN1_STRING* issuerAndSerial;  // DER
        ASN1_OCTET_STRING* keyIdentifier;
    } value;
};
constexpr int ISSUER_AND_SERIAL = 0;
ASN1_CHOICE(RecipientNameForm) = {
    ASN1_SIMPLE(RecipientNameForm, value.issuerAndSerial, ASN1_SEQUENCE),
    ASN1_IMP(RecipientNameForm, value.keyIdentifier, ASN1_OCTET_STRING, 0)
} static_ASN1_CHOICE_END(RecipientNameForm)

// Of the five kinds of recipients the one to whose key the content key is encrypted.
struct RecipientForm {
    ASN1_INTEGER* version;
    RecipientNameForm* name;  // written as issuer and serial number
    X509_ALGOR* algorithm;
    ASN1_OCTET_STRING* key;
};
ASN1_SEQUENCE(RecipientForm) = {
    ASN1_SIMPLE(RecipientForm, version, ASN1_INTEGER),
    ASN1_SIMPLE(RecipientForm, name, RecipientNameForm),
    ASN1_SIMPLE(RecipientForm, algorithm, X509_ALGOR),
    ASN1_SIMPLE(RecipientForm, key, ASN1_OCTET_STRING)
} static_ASN1_SEQUENCE_END(RecipientForm)

struct EncryptedContentForm {
    ASN1_OBJECT* type;
    X509_ALGOR* algorithm;
    ASN1_OCTET_STRING* content;  // may be null
};
ASN1_SEQUENCE(EncryptedContentForm) = {
    ASN1_SIMPLE(EncryptedContentForm, type, ASN1_OBJECT),
    ASN1_SIMPLE(EncryptedContentForm, algorithm, X509_ALGOR),
    ASN1_IMP_OPT(EncryptedContentForm, content, ASN1_OCTET_STRING, 0)
} static_ASN1_SEQUENCE_END(EncryptedContentForm)

// EnvelopedData, and AuthEnvelopedData, which has the tag.
struct EnvelopeForm {
    ASN1_INTEGER* version;
    STACK_OF(ASN1_TYPE)* originator;  // may be null, as may all that follow the content
    STACK_OF(ASN1_TYPE)* recipients;
    EncryptedContentForm* content;
    STACK_OF(X509_ATTRIBUTE)* attributes;
    ASN1_OCTET_STRING* tag;
    STACK_OF(X509_ATTRIBUTE)* openAttributes;
};
ASN1_SEQUENCE(EnvelopeForm) = {
    ASN1_SIMPLE(EnvelopeForm, version, ASN1_INTEGER),
    ASN1_IMP_SEQUENCE_OF_OPT(EnvelopeForm, originator, ASN1_ANY, 0),
    ASN1_SET_OF(EnvelopeForm, recipients, ASN1_ANY),
    ASN1_SIMPLE(EnvelopeForm, content, EncryptedContentForm),
    ASN1_IMP_SET_OF_OPT(EnvelopeForm, attributes, X509_ATTRIBUTE, 1),
    ASN1_OPT(EnvelopeForm, tag, ASN1_OCTET_STRING),
    ASN1_IMP_SET_OF_OPT(EnvelopeForm, openAttributes, X509_ATTRIBUTE, 2)
} static_ASN1_SEQUENCE_END(EnvelopeForm)

struct OuterForm {
    ASN1_OBJECT* type;
    EnvelopeForm* envelope;
};
ASN1_SEQUENCE(OuterForm) = {
    ASN1_SIMPLE(OuterForm, type, ASN1_OBJECT),
    ASN1_EXP(OuterForm, envelope, EnvelopeForm, 0)
} static_ASN1_SEQUENCE_END(OuterForm)

using IssuerAndSerial = Asn1<IssuerAndSerialForm, IssuerAndSerialForm_it>;
using Recipient = Asn1<RecipientForm, RecipientForm_it>;
using Outer = Asn1<OuterForm, OuterForm_it>;
// clang-format on

// ---- Both directions.

// What the caller names.
const ContentCipher& namedCipher(const EnvelopeParams& params)
{
    cipherInfo(params.alg);  // throws if there is no such number
    require(params.mode >= AVEN_MODE_ECB && params.mode <= AVEN_MODE_GCM, AVEN_E_MODE_NUMBER);
    const ContentCipher* cipher = contentCipher(params.alg, params.mode);
    require(cipher != nullptr, AVEN_E_ENVELOPE_ALGORITHM);
    return *cipher;
}

CipherSetup setupOf(const ContentCipher& cipher, Bytes key, Bytes iv)
{
    // Other modes than ECB and CBC take no notice of the padding.
    const CipherSetup setup = {cipher.cipher, cipher.mode, AVEN_PADDING_PKCS7,
                               key,           iv,          input(nullptr, 0)};
    checkSetup(setup);
    return setup;
}

// ---- Sealing.

std::vector<unsigned char> sealContentKey(const Engine& engine, const Key& key, Bytes contentKey)
{
    return key.kind == AVEN_KEY_RSA ? rsaEncrypt(engine, key, {AVEN_RSA_OAEP}, contentKey)
                                    : sm2Encrypt(engine, key, SM2_STANDARD_FORM, contentKey);
}

void setNumber(ASN1_INTEGER* integer, long value)
{
    require(ASN1_INTEGER_set(integer, value) == 1, AVEN_E_NO_MEMORY);
}

void setObject(ASN1_OBJECT*& object, const char* oid)
{
    ASN1_OBJECT* made = objectOf(oid);
    ASN1_OBJECT_free(object);
    object = made;
}

using StringOwner = Owned<ASN1_STRING_free, ASN1_STRING>;

StringOwner sequenceOf(const std::vector<unsigned char>& der)
{
    StringOwner sequence(ASN1_STRING_type_new(V_ASN1_SEQUENCE));
    require(sequence != nullptr, AVEN_E_NO_MEMORY);
    setContent(sequence.get(), {der.data(), der.size()});
    return sequence;
}

// A sequence's DER as a value of any type. The caller owns it.
ASN1_TYPE* packed(const std::vector<unsigned char>& der)
{
    Owned<ASN1_TYPE_free, ASN1_TYPE> value(ASN1_TYPE_new());
    require(value != nullptr, AVEN_E_NO_MEMORY);
    ASN1_TYPE_set(value.get(), V_ASN1_SEQUENCE, sequenceOf(der).release());
    return value.release();
}

void writeRecipient(const Engine& engine, const Certificate& certificate, Bytes contentKey,
                    long version, EnvelopeForm& out)
{
    const IssuerAndSerial::Owner name = IssuerAndSerial::make();
    const ASN1_INTEGER* serial = X509_get0_serialNumber(certificate.x509.get());
    require(X509_NAME_set(&name->issuer, X509_get_issuer_name(certificate.x509.get())) == 1 &&
                ASN1_STRING_copy(name->serial, serial) == 1,
            AVEN_E_NO_MEMORY);

    const Recipient::Owner recipient = Recipient::make();
    setNumber(recipient->version, version);
    recipient->name->value.issuerAndSerial = sequenceOf(IssuerAndSerial::encode(*name)).release();
    recipient->name->type = ISSUER_AND_SERIAL;
    writeTransport(certificate.key.kind, recipient->algorithm);
    const std::vector<unsigned char> sealed = sealContentKey(engine, certificate.key, contentKey);
    setContent(recipient->key, {sealed.data(), sealed.size()});

    ASN1_TYPE* entry = packed(Recipient::encode(*recipient));
    if (sk_ASN1_TYPE_push(out.recipients, entry) == 0) {
        ASN1_TYPE_free(entry);
        throw Failure{AVEN_E_NO_MEMORY};
    }
}

// An octet string of `size` bytes that are still to be written.
unsigned char* makeRoom(ASN1_OCTET_STRING*& string, size_t size)
{
    if (string == nullptr)
        string = ASN1_OCTET_STRING_new();
    require(string != nullptr, AVEN_E_NO_MEMORY);
    require(size <= INT32_MAX, AVEN_E_INPUT_TOO_LONG);
    require(ASN1_STRING_set(string, nullptr, static_cast<int>(size)) == 1, AVEN_E_NO_MEMORY);
    return string->data;
}

Outer::Owner seal(const Engine& engine, const ContentCipher& cipher, const Certificate& certificate,
                  Bytes in)
{
    const bool isSm2 = certificate.key.kind == AVEN_KEY_SM2;
    const bool hasTag = cipher.mode == AVEN_MODE_GCM;
    // GM/T 0010 has SM4 alone, and no envelope with a tag.
    require(!isSm2 || (cipher.cipher == AVEN_CIPHER_SM4 && !hasTag), AVEN_E_ENVELOPE_ALGORITHM);
    const long version = isSm2 ? 1 : 0;

    SecretBytes key(cipherInfo(cipher.cipher).keyLength);
    engine.random(key.data(), key.size());
    std::vector<unsigned char> iv(ivLength(cipher));
    engine.random(iv.data(), iv.size());
    const CipherSetup setup =
        setupOf(cipher, view(key), input(iv.data(), static_cast<uint32_t>(iv.size())));

    Outer::Owner outer = Outer::make();
    EnvelopeForm& envelope = *outer->envelope;
    setObject(outer->type, isSm2 ? GM_ENVELOPED : hasTag ? CMS_AUTH_ENVELOPED : CMS_ENVELOPED);
    setNumber(envelope.version, version);
    writeRecipient(engine, certificate, view(key), version, envelope);

    setObject(envelope.content->type, isSm2 ? GM_DATA : CMS_DATA);
    writeContentAlgorithm(cipher, setup.iv, envelope.content->algorithm);
    unsigned char* content = makeRoom(envelope.content->content, encryptedLength(setup, in.size));
    if (hasTag)
        gcmSeal(engine, setup, in, content, makeRoom(envelope.tag, ENVELOPE_TAG), ENVELOPE_TAG);
    else
        encrypt(engine, setup, in, content);
    return outer;
}

// ---- Opening.

// Whether the recipient's content key opens and has the right size for the cipher; then
// it is in `contentKey`.
bool openContentKey(const Engine& engine, const Key& key, const RecipientForm& recipient,
                    const Transport& transport, SecretBytes& contentKey)
{
    const Bytes sealed = contentOf(recipient.key);
    // The other paddings open nothing but what was sealed so: how they fail tells nobody anything.
    if (key.kind == AVEN_KEY_RSA && transport.rsaPadding.number == AVEN_RSA_PKCS1)
        return rsaDecryptSecret(engine, key, sealed, contentKey);
    SecretBytes opened;
    try {
        opened = key.kind == AVEN_KEY_RSA ? rsaDecrypt(engine, key, transport.rsaPadding, sealed)
                                          : sm2DecryptAnyForm(engine, key, sealed);
    } catch (const Failure& failure) {
        if (failure.code != AVEN_E_DECRYPTION)
            throw;
        return false;
    }
    if (opened.size() != contentKey.size())
        return false;
    contentKey.swap(opened);
    return true;
}

// Finds the recipient that the key opens. If there is none, `contentKey` is left at the
// random value that the caller has put there.
bool findContentKey(const Engine& engine, const Key& key, const EnvelopeForm& envelope,
                    SecretBytes& contentKey)
{
    const int count = sk_ASN1_TYPE_num(envelope.recipients);
    require(count <= AVEN_ENVELOPE_RECIPIENTS_MAX, AVEN_E_ENVELOPE_RECIPIENTS);
    bool ofThisKind = false;
    bool ofUnknownKind = false;

    for (int i = 0; i < count; ++i) {
        const ASN1_TYPE* entry = sk_ASN1_TYPE_value(envelope.recipients, i);
        if (ASN1_TYPE_get(entry) != V_ASN1_SEQUENCE) {
            ofUnknownKind = true;
            continue;
        }
        const Recipient::Owner recipient = Recipient::read(
            contentOf(entry->value.sequence), AVEN_E_ENVELOPE_TEXT, AVEN_E_ENVELOPE_TEXT);
        const Transport transport = readTransport(recipient->algorithm);
        ofUnknownKind = ofUnknownKind || transport.keyKind == 0;
        if (transport.keyKind != key.kind)
            continue;
        ofThisKind = true;
        if (openContentKey(engine, key, *recipient, transport, contentKey))
            return true;
    }
    require(ofThisKind || !ofUnknownKind, AVEN_E_ENVELOPE_UNKNOWN);
    require(ofThisKind, AVEN_E_ENVELOPE_RECIPIENT);
    return false;
}

// Whether encryption with padding can have given so many bytes.
bool isPossibleSize(const ContentCipher& cipher, size_t size)
{
    const bool isPadded = cipher.mode == AVEN_MODE_ECB || cipher.mode == AVEN_MODE_CBC;
    return !isPadded || (size > 0 && size % cipherInfo(cipher.cipher).block == 0);
}

// Checks that the parts are there which an envelope of that type and mode has, and none
// that this engine would have to heed.
void checkParts(const OuterForm& outer, const ContentAlgorithm& algorithm)
{
    const EnvelopeForm& envelope = *outer.envelope;
    const std::string type = oidOf(outer.type);
    const std::string contentType = oidOf(envelope.content->type);
    const bool hasTag = type == CMS_AUTH_ENVELOPED;

    // Some makers take one type from GM/T 0010 and the other from PKCS#7.
    require(hasTag || type == GM_ENVELOPED || type == CMS_ENVELOPED, AVEN_E_ENVELOPE_UNKNOWN);
    require(contentType == GM_DATA || contentType == CMS_DATA, AVEN_E_ENVELOPE_UNKNOWN);
    require(envelope.content->content != nullptr, AVEN_E_ENVELOPE_UNKNOWN);
    require(isPossibleSize(*algorithm.cipher, contentOf(envelope.content->content).size),
            AVEN_E_ENVELOPE_TEXT);
    require(hasTag == (algorithm.cipher->mode == AVEN_MODE_GCM), AVEN_E_ENVELOPE_TEXT);
    require(hasTag == (envelope.tag != nullptr), AVEN_E_ENVELOPE_TEXT);
    require(hasTag || envelope.openAttributes == nullptr, AVEN_E_ENVELOPE_TEXT);
    if (hasTag) {
        require(contentOf(envelope.tag).size == algorithm.tagLength, AVEN_E_ENVELOPE_TEXT);
        // They would be authenticated along with the content.
        require(envelope.attributes == nullptr, AVEN_E_ENVELOPE_UNKNOWN);
    }
}

// Decrypts the content into `out`, which has room for as many bytes as it has. Padding
// and tag fail alike.
size_t openContent(const Engine& engine, const CipherSetup& setup, const EnvelopeForm& envelope,
                   unsigned char* out)
{
    const Bytes content = contentOf(envelope.content->content);
    try {
        if (setup.mode != AVEN_MODE_GCM)
            return decrypt(engine, setup, content, out);
        gcmOpen(engine, setup, content, contentOf(envelope.tag), out);
        return content.size;
    } catch (const Failure& failure) {
        if (failure.code == AVEN_E_BAD_PADDING || failure.code == AVEN_E_TAG_MISMATCH)
            throw Failure{AVEN_E_ENVELOPE_OPEN};
        throw;
    }
}

// Their structure is another, so that they would pass for damaged.
bool isSignedEnvelope(Bytes in)
{
    const unsigned char* p = in.data;
    long length = 0;
    int tag = 0;
    int tagClass = 0;
    if (in.size > INT32_MAX)
        return false;
    // 0x80 marks an error.
    const int header = ASN1_get_object(&p, &length, &tag, &tagClass, static_cast<long>(in.size));
    if ((header & 0x80) != 0 || tag != V_ASN1_SEQUENCE || tagClass != V_ASN1_UNIVERSAL)
        return false;
    const Owned<ASN1_OBJECT_free, ASN1_OBJECT> type(
        d2i_ASN1_OBJECT(nullptr, &p, static_cast<long>(in.data + in.size - p)));
    if (type == nullptr)
        return false;
    const std::string oid = oidOf(type.get());
    return oid == CMS_SIGNED_ENVELOPED || oid == GM_SIGNED_ENVELOPED;
}

void open(const Engine& engine, const ContentCipher& named, const Key& key, Bytes in,
          Output& output)
{
    require(!isSignedEnvelope(in), AVEN_E_ENVELOPE_SIGNED);
    const Outer::Owner outer = Outer::read(in, AVEN_E_ENVELOPE_TEXT, AVEN_E_ENVELOPE_TRAILING);
    const EnvelopeForm& envelope = *outer->envelope;
    const ContentAlgorithm algorithm = readContentAlgorithm(envelope.content->algorithm);
    checkParts(*outer, algorithm);
    require(algorithm.cipher == &named, AVEN_E_ENVELOPE_DIFFERS);

    const size_t size = contentOf(envelope.content->content).size;
    unsigned char* to = output.room(size);
    WipeUnlessKept wipe(to, size);

    // Without the content key, work goes on with a random one, so that the time taken
    // does not tell what went wrong.
    SecretBytes contentKey(cipherInfo(named.cipher).keyLength);
    engine.random(contentKey.data(), contentKey.size());
    const bool found = findContentKey(engine, key, envelope, contentKey);
    const CipherSetup setup =
        setupOf(named, view(contentKey),
                input(algorithm.iv.data(), static_cast<uint32_t>(algorithm.iv.size())));
    const size_t written = openContent(engine, setup, envelope, to);
    require(found, AVEN_E_ENVELOPE_OPEN);
    wipe.keep();
    output.setLength(written);
}

}  // namespace

int aven_crypto_pkcs7_encrypt(const void* params, const unsigned char* in, uint32_t in_len,
                              unsigned char* out, uint32_t* out_len)
{
    return answer(
        "aven_crypto_pkcs7_encrypt", out, out_len, [&](const Engine& engine, Output& output) {
            const EnvelopeParams& p = parameterBlock<EnvelopeParams>(params);
            const Bytes data = input(in, in_len);
            const std::shared_ptr<const Certificate> certificate =
                certificateOf(engine, p.certificate);

            const Outer::Owner envelope = seal(engine, namedCipher(p), *certificate, data);
            const size_t size = Outer::sizeOf(*envelope);
            Outer::writeTo(*envelope, output.room(size));
            output.setLength(size);
        });
}

int aven_crypto_pkcs7_decrypt(const void* params, const unsigned char* in, uint32_t in_len,
                              unsigned char* out, uint32_t* out_len)
{
    return answer("aven_crypto_pkcs7_decrypt", out, out_len,
                  [&](const Engine& engine, Output& output) {
                      const EnvelopeParams& p = parameterBlock<EnvelopeParams>(params);
                      const Bytes data = input(in, in_len);
                      const std::shared_ptr<const KeyPair> keyPair = keyPairOf(engine, p.keypair);
                      require(keyPair->isPrivate, AVEN_E_KEY_NOT_PRIVATE);

                      open(engine, namedCipher(p), keyPair->key, data, output);
                  });
}
