// The requests with key pairs and certificates: public keys and envelopes.
#include "support/traffic_work.h"

namespace support {

namespace {

// Which of them envelopes to a kind of key have.
bool isEnvelope(KeyKind kind, int cipher, int mode)
{
    if (kind == KeyKind::Sm2)
        return cipher == AVEN_CIPHER_SM4 && mode != AVEN_MODE_GCM;
    if (cipher == AVEN_CIPHER_3DES)
        return mode == AVEN_MODE_CBC;
    const bool isAes = cipher >= AVEN_CIPHER_AES_128 && cipher <= AVEN_CIPHER_AES_256;
    return !isAes || mode != AVEN_MODE_CTR;
}

constexpr size_t ENVELOPE_LIMIT = size_t{1} << 18;  // escaped, it may be five times that

}  // namespace

// ---- Public keys

oracle::PublicKeyForm TrafficClient::Work::publicKeyForm(Parameters& parameters)
{
    oracle::PublicKeyForm form = {oneIn(2), oneIn(2), oneIn(2)};
    const auto flag = [&](const char* name, bool isZero) {
        if (!isZero || oneIn(2))  // 0 is the default
            parameters.emplace_back(name, isZero ? "0" : "1");
    };
    flag("strRsaPaddingE", form.oaep);
    flag("strnoAsn1", form.asn1);
    flag("strnoc1c3c2", form.c1c3c2);
    return form;
}

// The most that a key of 2048 bits takes, and what a margin of 129 bytes must suffice for.
std::string TrafficClient::Work::publicKeyData(const TrafficKeys& keys, bool oaep)
{
    return somePayload(keys.kind == KeyKind::Sm2 ? size_t{1} << 17 : oaep ? 256 - 66 : 256 - 11);
}

void TrafficClient::Work::publicEncrypt()
{
    const char* const name = "QZaven_crypto_public_encrypt";
    const TrafficKeys& keys = this->keys();
    Parameters parameters = {{"strpk", oneIn(2) ? keys.publicText : keys.certificateText}};
    if (oneIn(2))
        parameters.emplace_back("strKeyPairType", keys.type);
    const oracle::PublicKeyForm form = publicKeyForm(parameters);
    const std::string data = publicKeyData(keys, form.oaep);
    parameters.emplace_back("strdata", toUrlBase64(data));
    if (isToErr())
        return err(name, parameters,
                   {{"strpk", "", MISSING},
                    {"strdata", "", MISSING},
                    {"strKeyPairType", "2", INVALID},
                    {"strnoAsn1", "2", INVALID},
                    {"strKeyPairType", keys.kind == KeyKind::Sm2 ? "3" : "1", AVEN_E_KEY_KIND},
                    {"strpk", toUrlBase64("no key"), AVEN_E_KEY_TEXT},
                    {"strpk", keys.privateText, AVEN_E_KEY_ROLE}});
    expect(oracle::privateDecrypt(keys.own.key.get(), form, bytesOf(name, parameters)) == data,
           "another text is encrypted");
}

void TrafficClient::Work::privateDecrypt()
{
    const char* const name = "QZaven_crypto_private_decrypt";
    const TrafficKeys& keys = this->keys();
    const bool isLocked = oneIn(4);
    Parameters parameters = {{"strsk", isLocked ? keys.lockedText : keys.privateText}};
    if (isLocked || oneIn(4))
        parameters.emplace_back("strPassword", TrafficKeys::PASSWORD);
    if (oneIn(2))
        parameters.emplace_back("strKeyPairType", keys.type);
    const oracle::PublicKeyForm form = publicKeyForm(parameters);
    const std::string data = publicKeyData(keys, form.oaep);
    const std::string encrypted = oracle::publicEncrypt(keys.own.key.get(), form, data);
    parameters.emplace_back("strdata", toUrlBase64(encrypted));
    if (isToErr()) {
        Mistakes mistakes = {{"strsk", "", MISSING},
                             {"strdata", "", MISSING},
                             {"strRsaPaddingE", "x", INVALID},
                             {"strsk", keys.publicText, AVEN_E_KEY_ROLE}};
        if (isLocked) {
            mistakes.push_back({"strPassword", "", AVEN_E_PASSWORD_MISSING});
            mistakes.push_back({"strPassword", "another", AVEN_E_PASSWORD_WRONG});
        }
        if (keys.kind == KeyKind::Sm2 || form.oaep)  // PKCS#1 v1.5 may not notice
            mistakes.push_back({"strdata", toUrlBase64(damaged(encrypted)), AVEN_E_DECRYPTION});
        return err(name, parameters, mistakes);
    }
    askFor(name, parameters, data);
}

// ---- Envelopes

void TrafficClient::Work::envelopeEncrypt()
{
    const char* const name = "QZaven_crypto_envelope_encrypt";
    const TrafficKeys& keys = this->keys();
    const int cipher = from(1, 7), mode = from(1, 6);
    const std::string data = somePayload(ENVELOPE_LIMIT);
    Parameters parameters = {{"strCipherAlg", number(cipher)}, {"strMode", number(mode)}};
    Parameters back = parameters;
    parameters.emplace_back("strpk", keys.certificateText);
    parameters.emplace_back("strdata", data);
    if (!isEnvelope(keys.kind, cipher, mode))
        return ask(name, parameters,
                   {{"Data", ""}, {"errorCode", number(AVEN_E_ENVELOPE_ALGORITHM)}});
    if (isToErr())
        return err(name, parameters,
                   {{"strdata", "", MISSING},
                    {"strpk", "", MISSING},
                    {"strCipherAlg", "", MISSING},
                    {"strMode", "", MISSING},
                    {"strCipherAlg", "8", INVALID},
                    {"strMode", "0", INVALID},
                    {"strpk", toUrlBase64("no certificate"), AVEN_E_KEY_TEXT},
                    {"strpk", keys.publicText, AVEN_E_KEY_ROLE}});
    const std::string envelope = bytesOf(name, parameters);
    if (keys.kind == KeyKind::Rsa && oracle::knowsEnvelope(cipher, mode)) {
        expect(oracle::openEnvelope(keys.own.key.get(), envelope) == data,
               "another text is in the envelope");
        return;
    }
    back.emplace_back("strKeyPairType", keys.type);
    back.emplace_back("strsk", keys.privateText);
    back.emplace_back("strEncdata", toUrlBase64(envelope));
    ask("QZaven_crypto_envelope_decrypt", back,
        {{"Data", oracle::escapedTwice(data)}, {"errorCode", "0"}});
}

void TrafficClient::Work::envelopeDecrypt()
{
    const char* const name = "QZaven_crypto_envelope_decrypt";
    const TrafficKeys& keys = m_setting.rsa;
    int cipher = 0, mode = 0;
    do {
        cipher = from(1, 7);
        mode = from(1, 6);
    } while (!isEnvelope(keys.kind, cipher, mode) || !oracle::knowsEnvelope(cipher, mode));
    const std::string data = somePayload(ENVELOPE_LIMIT);
    const std::string envelope =
        oracle::sealEnvelope(keys.own.certificate.get(), cipher, mode, oneIn(2), data);
    const Parameters parameters = {{"strKeyPairType", keys.type},
                                   {"strsk", keys.privateText},
                                   {"strCipherAlg", number(cipher)},
                                   {"strMode", number(mode)},
                                   {"strEncdata", toUrlBase64(envelope)}};
    const int another = cipher % 7 + 1;
    if (isToErr())
        return err(name, parameters,
                   {{"strKeyPairType", "", MISSING},
                    {"strsk", "", MISSING},
                    {"strEncdata", "", MISSING},
                    {"strKeyPairType", "0", INVALID},
                    {"strCipherAlg", "8", INVALID},
                    {"strMode", "0", INVALID},
                    {"strKeyPairType", m_setting.sm2.type, AVEN_E_KEY_KIND},
                    {"strsk", keys.publicText, AVEN_E_KEY_ROLE},
                    {"strCipherAlg", number(another),
                     isEnvelope(keys.kind, another, mode) ? AVEN_E_ENVELOPE_DIFFERS
                                                          : AVEN_E_ENVELOPE_ALGORITHM},
                    {"strEncdata", toUrlBase64(envelope + "!"), AVEN_E_ENVELOPE_TRAILING},
                    {"strEncdata", toUrlBase64(envelope.substr(0, envelope.size() - 1)),
                     AVEN_E_ENVELOPE_TEXT}});
    ask(name, parameters, {{"Data", oracle::escapedTwice(data)}, {"errorCode", "0"}});
}

}  // namespace support
