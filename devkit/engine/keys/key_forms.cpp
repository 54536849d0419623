#include "key_forms.h"

#include <openssl/asn1.h>

#include <string_view>

#include "engine/base64_codec.h"

namespace {

constexpr std::string_view BEGIN = "-----BEGIN ";
constexpr std::string_view DASHES = "-----";
constexpr unsigned char SEQUENCE = V_ASN1_SEQUENCE | V_ASN1_CONSTRUCTED;

std::string_view textOf(Bytes bytes)
{
    return {reinterpret_cast<const char*>(bytes.data), bytes.size};
}

Bytes bytesOf(std::string_view text)
{
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

SecretBytes decodeBase64(Bytes text)
{
    SecretBytes out(base64Decode(text, nullptr));
    base64Decode(text, out.data());
    return out;
}

// The header of a DER value at the start of `data`.
struct DerHeader {
    unsigned char identifier;  // of the tags 0 to 30
    size_t headerSize;
    size_t contentSize;
};

DerHeader derHeader(Bytes data)
{
    const unsigned char* p = data.data;
    long length = 0;
    int tag = 0;
    int tagClass = 0;
    // 0x80 marks an error, as with a value that is longer than the data; 1 marks
    // indefinite length, which DER does not have.
    require(data.size > 0 && data.size <= INT32_MAX, AVEN_E_KEY_TEXT);
    const int result = ASN1_get_object(&p, &length, &tag, &tagClass, static_cast<long>(data.size));
    require((result & 0x81) == 0 && length >= 0, AVEN_E_KEY_TEXT);
    return {data.data[0], static_cast<size_t>(p - data.data), static_cast<size_t>(length)};
}

KeyForm formOf(Bytes der)
{
    const DerHeader outer = derHeader(der);
    require(outer.identifier == SEQUENCE, AVEN_E_KEY_TEXT);
    require(outer.headerSize + outer.contentSize == der.size, AVEN_E_KEY_TRAILING);

    Bytes rest = {der.data + outer.headerSize, outer.contentSize};
    const DerHeader first = derHeader(rest);
    const size_t firstSize = first.headerSize + first.contentSize;
    rest = {rest.data + firstSize, rest.size - firstSize};
    const DerHeader second = derHeader(rest);

    switch (first.identifier << 8 | second.identifier) {
        case V_ASN1_INTEGER << 8 | SEQUENCE:
            return KeyForm::Pkcs8;
        case V_ASN1_INTEGER << 8 | V_ASN1_OCTET_STRING:
            return KeyForm::Sec1;
        case V_ASN1_INTEGER << 8 | V_ASN1_INTEGER:
            return KeyForm::Pkcs1;
        case SEQUENCE << 8 | V_ASN1_OCTET_STRING:
            return KeyForm::EncryptedPkcs8;
        case SEQUENCE << 8 | V_ASN1_BIT_STRING:
            return KeyForm::PublicKey;
        case SEQUENCE << 8 | SEQUENCE:
            return KeyForm::Certificate;
    }
    throw Failure{AVEN_E_KEY_TEXT};
}

// RFC 7468, and "SM2" where libcrypto writes it for "EC".
bool labelFits(std::string_view label, KeyForm form)
{
    switch (form) {
        case KeyForm::Pkcs8:
            return label == "PRIVATE KEY";
        case KeyForm::EncryptedPkcs8:
            return label == "ENCRYPTED PRIVATE KEY";
        case KeyForm::Sec1:
            return label == "EC PRIVATE KEY" || label == "SM2 PRIVATE KEY";
        case KeyForm::Pkcs1:
            return label == "RSA PRIVATE KEY";
        case KeyForm::PublicKey:
            return label == "PUBLIC KEY";
        case KeyForm::Certificate:
            return label == "CERTIFICATE";
    }
    return false;
}

bool isCurveLabel(std::string_view label)
{
    return label == "EC PARAMETERS" || label == "SM2 PARAMETERS";
}

// One PEM block (RFC 7468). Text before it is skipped.
struct PemBlock {
    std::string_view label;
    std::string_view body;
    std::string_view behind;
};

PemBlock nextPemBlock(std::string_view text)
{
    constexpr size_t npos = std::string_view::npos;
    const size_t begin = text.find(BEGIN);
    require(begin != npos, AVEN_E_KEY_TEXT);
    text.remove_prefix(begin + BEGIN.size());

    const size_t labelEnd = text.find(DASHES);
    require(labelEnd != npos, AVEN_E_KEY_TEXT);
    const std::string_view label = text.substr(0, labelEnd);
    text.remove_prefix(labelEnd + DASHES.size());

    const size_t bodyEnd = text.find(DASHES);
    require(bodyEnd != npos, AVEN_E_KEY_TEXT);
    const std::string_view body = text.substr(0, bodyEnd);
    text.remove_prefix(bodyEnd + DASHES.size());

    const std::string_view endWord = "END ";
    require(text.substr(0, endWord.size()) == endWord, AVEN_E_KEY_TEXT);
    text.remove_prefix(endWord.size());
    require(text.substr(0, label.size()) == label, AVEN_E_KEY_TEXT);
    text.remove_prefix(label.size());
    require(text.substr(0, DASHES.size()) == DASHES, AVEN_E_KEY_TEXT);
    text.remove_prefix(DASHES.size());
    return {label, body, text};
}

KeyBlock unwrapPem(std::string_view text)
{
    PemBlock block = nextPemBlock(text);
    if (isCurveLabel(block.label))  // some tools write the curve before the key
        block = nextPemBlock(block.behind);
    require(block.behind.find_first_not_of(" \t\r\n") == std::string_view::npos,
            AVEN_E_KEY_TRAILING);

    // A header in the block says that it is encrypted the way that was usual before
    // PKCS#8, with a key from one round of MD5.
    const bool hasHeader = block.body.find(':') != std::string_view::npos;
    require(!hasHeader, AVEN_E_KEY_ENCRYPTION);

    const SecretBytes der = decodeBase64(bytesOf(block.body));
    KeyBlock key = unwrapKeyDer(view(der));
    require(labelFits(block.label, key.form), AVEN_E_KEY_TEXT);
    return key;
}

}  // namespace

KeyBlock unwrapKeyDer(Bytes der)
{
    require(der.size <= AVEN_KEY_TEXT_MAX, AVEN_E_INPUT_TOO_LONG);
    return {formOf(der), SecretBytes(der.data, der.data + der.size)};
}

KeyBlock unwrapKeyText(Bytes text)
{
    require(text.size <= AVEN_KEY_TEXT_MAX, AVEN_E_INPUT_TOO_LONG);
    if (textOf(text).find(BEGIN) != std::string_view::npos)
        return unwrapPem(textOf(text));

    const SecretBytes inner = decodeBase64(text);
    require(!inner.empty(), AVEN_E_KEY_TEXT);
    return inner[0] == SEQUENCE ? unwrapKeyDer(view(inner)) : unwrapPem(textOf(view(inner)));
}
