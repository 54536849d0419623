#include "known_answers.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/codec.h"
#include "host/catalogue/catalogue.h"
#include "host/output.h"
#include "key_exchange_answers.h"
#include "samples.h"

namespace {

std::string fromHexText(std::string_view digits)
{
    return fromHex(digits).value();
}

std::string base64OfHex(std::string_view digits)
{
    return toUrlBase64(fromHexText(digits));
}

// What to say of an answer that may be the known one. `consistent` tells whether it makes
// sense otherwise, and is asked only if it is another one.
Verdict judge(Client& client, bool known, const std::string& source,
              const std::function<bool()>& consistent)
{
    if (known)
        return fine("the answer of " + source);
    if (!consistent())
        return {Status::Fail, "the answer is not that of " + source + ", nor does it come back",
                "the engine computes wrongly: replace it"};
    if (client.hasDevelopmentEngine())
        return {Status::Fail, "the answer is not that of " + source,
                "the development engine computes wrongly: build it again"};
    return {Status::Note, "not the answer of " + source + ", but a consistent one",
            "this engine may give its numbers another meaning: see its documentation"};
}

// ---- Engine and Base64.

Verdict version(Client& client)
{
    const std::string text = client.bytes("QZaVen_GetVersion", {});
    return text.empty() ? Verdict{Status::Note, "the engine has no version text"} : fine(text);
}

Verdict errorText(Client& client)
{
    const auto text = client.tryBytes("QZaVen_strerror", {{"strErr", "-20001"}});
    if (!text)
        return {Status::Note, "the engine has no text for -20001",
                "corvane-host explain has one for the plug-in's codes"};
    return fine("-20001 is \"" + *text + "\"");
}

// RFC 4648, section 10, and both characters in which its alphabets differ.
const std::string plain = "foobar\xFB\xFF\xBF";
constexpr const char* encoded = "Zm9vYmFy-_-_";

Verdict base64Encode(Client& client)
{
    const Outcome outcome = client.get("QZaven_crypto_base64_encode", {{"strIn", plain}});
    if (*findValue(outcome.results, "Data") == encoded)
        return fine("the answer of RFC 4648");
    return {Status::Fail, "the text is not that of RFC 4648", "the engine is broken: replace it"};
}

Verdict base64Decode(Client& client)
{
    if (client.bytes("QZaven_crypto_base64_Decode", {{"strIn", encoded}}) == plain)
        return fine("the answer of RFC 4648");
    return {Status::Fail, "the bytes are not those of RFC 4648",
            "the engine is broken: replace it"};
}

// ---- Public key and envelope.

Verdict publicEncrypt(Client& client)
{
    const std::string sealed =
        client.bytes("QZaven_crypto_public_encrypt", {{"strKeyPairType", "1"},
                                                      {"strpk", samples::sm2PublicKey},
                                                      {"strdata", toUrlBase64(samples::message)}});
    const std::string opened =
        client.bytes("QZaven_crypto_private_decrypt", {{"strKeyPairType", "1"},
                                                       {"strsk", samples::sm2PrivateKey},
                                                       {"strdata", toUrlBase64(sealed)}});
    if (opened != samples::message)
        return {Status::Fail, "does not decrypt to what was encrypted", "replace the engine"};
    return fine("SM2: decrypts to what was encrypted");
}

Verdict privateDecrypt(Client& client)
{
    const auto opened =
        client.tryBytes("QZaven_crypto_private_decrypt", {{"strKeyPairType", "1"},
                                                          {"strsk", samples::sm2PrivateKey},
                                                          {"strdata", samples::sm2Ciphertext}});
    return judge(client, opened == samples::message, "openssl, SM2",
                 [&] { return publicEncrypt(client).status == Status::Ok; });
}

const Pairs aes256Cbc = {{"strCipherAlg", "4"}, {"strMode", "2"}};

Pairs joined(Pairs pairs, const Pairs& more)
{
    pairs.insert(pairs.end(), more.begin(), more.end());
    return pairs;
}

std::optional<std::string> openEnvelope(Client& client, const std::string& envelope)
{
    return client.tryBytes(
        "QZaven_crypto_envelope_decrypt",
        joined(
            {{"strEncdata", envelope}, {"strKeyPairType", "3"}, {"strsk", samples::rsaPrivateKey}},
            aes256Cbc));
}

Verdict envelopeEncrypt(Client& client)
{
    const std::string sealed = client.bytes(
        "QZaven_crypto_envelope_encrypt",
        joined({{"strdata", samples::message}, {"strpk", samples::rsaCertificate}}, aes256Cbc));
    if (openEnvelope(client, toUrlBase64(sealed)) != samples::message)
        return {Status::Fail, "does not open to what was sealed", "replace the engine"};
    return fine("RSA: opens to what was sealed");
}

Verdict envelopeDecrypt(Client& client)
{
    return judge(client, openEnvelope(client, samples::rsaEnvelope) == samples::message,
                 "openssl, CMS", [&] { return envelopeEncrypt(client).status == Status::Ok; });
}

// ---- Symmetric ciphers.

// SM4-GCM of RFC 8998, appendix A.1.
const Pairs sm4Gcm = {
    {"strCipherAlg", "1"},
    {"strMode", "6"},
    {"strKey", base64OfHex("0123456789abcdeffedcba9876543210")},
    {"strIV", base64OfHex("00001234567800000000abcd")},
    {"straad", base64OfHex("feedfacedeadbeeffeedfacedeadbeefabaddad2")},
};
const std::string gcmPlain = fromHexText(
    "aaaaaaaaaaaaaaaabbbbbbbbbbbbbbbbccccccccccccccccdddddddddddddddd"
    "eeeeeeeeeeeeeeeeffffffffffffffffeeeeeeeeeeeeeeeeaaaaaaaaaaaaaaaa");
const std::string gcmCipher = fromHexText(
    "17f399f08c67d5ee19d0dc9969c4bb7d5fd46fd3756489069157b282bb200735"
    "d82710ca5c22f0ccfa7cbf93d496ac15a56834cbcf98c397b4024a2691233b8d");
const std::string gcmTag = fromHexText("83de3541e4c2b58177e065a9bf7b62ec");

struct Sealed {
    std::string bytes;
    std::string tag;
};

Sealed sealGcm(Client& client)
{
    const std::string name = "QZaven_crypto_encrypt";
    const Outcome outcome = client.get(name, joined(sm4Gcm, {{"strdata", toUrlBase64(gcmPlain)}}));
    return {Client::bytesOf(name, outcome, "Data"), Client::bytesOf(name, outcome, "gcmOutTag")};
}

std::optional<std::string> openGcm(Client& client, const Sealed& sealed)
{
    return client.tryBytes("QZaven_crypto_decrypt",
                           joined(sm4Gcm, {{"strtag", toUrlBase64(sealed.tag)},
                                           {"strdata", toUrlBase64(sealed.bytes)}}));
}

Verdict encrypt(Client& client)
{
    const Sealed sealed = sealGcm(client);
    return judge(client, sealed.bytes == gcmCipher && sealed.tag == gcmTag, "RFC 8998, SM4-GCM",
                 [&] { return openGcm(client, sealed) == gcmPlain; });
}

Verdict decrypt(Client& client)
{
    Sealed sealed = {gcmCipher, gcmTag};
    const bool known = openGcm(client, sealed) == gcmPlain;
    if (!known)
        sealed = sealGcm(client);
    Sealed damaged = sealed;
    damaged.bytes.at(0) ^= 1;
    if (openGcm(client, damaged))
        return {Status::Fail, "opens what was changed", "do not use this engine's GCM"};
    return judge(client, known, "RFC 8998, SM4-GCM",
                 [&] { return openGcm(client, sealed) == gcmPlain; });
}

Verdict generateKey(Client& client)
{
    const Pairs sm4 = {{"strCipherAlg", "1"}};
    const std::string key = client.bytes("QZaven_crypto_gen_symmkey", sm4);
    if (key.empty() || key == client.bytes("QZaven_crypto_gen_symmkey", sm4))
        return {Status::Fail, "two keys are the same",
                "the engine's random numbers are none: replace it"};
    if (key.size() == 16)
        return fine("16 bytes, others each time");
    return judge(client, false, "SM4, 16 bytes", [] { return true; });
}

// In white-box SM4 and with the samples: CBC with PKCS#7.
const Pairs whiteBox = {
    {"strKey", base64OfHex("0123456789abcdeffedcba9876543210")},
    {"strIV", base64OfHex("000102030405060708090a0b0c0d0e0f")},
};

std::string whiteBoxSeal(Client& client)
{
    return client.bytes("QZaven_wbsm4_encrypt",
                        joined(whiteBox, {{"strdata", toUrlBase64(samples::message)}}));
}

std::optional<std::string> whiteBoxOpen(Client& client, const std::string& sealed)
{
    return client.tryBytes("QZaven_wbsm4_decrypt",
                           joined(whiteBox, {{"strdata", toUrlBase64(sealed)}}));
}

Verdict whiteBoxEncrypt(Client& client)
{
    const std::string sealed = whiteBoxSeal(client);
    return judge(client, sealed == fromHexText(samples::sm4Ciphertext), "openssl, SM4-CBC",
                 [&] { return whiteBoxOpen(client, sealed) == samples::message; });
}

Verdict whiteBoxDecrypt(Client& client)
{
    const auto opened = whiteBoxOpen(client, fromHexText(samples::sm4Ciphertext));
    return judge(client, opened == samples::message, "openssl, SM4-CBC",
                 [&] { return whiteBoxOpen(client, whiteBoxSeal(client)) == samples::message; });
}

// ---- What has no inverse: the same again must come out.

Test sampleTest(const RequestInfo& request)
{
    return [&request](Client& client) {
        const auto answer = [&] {
            return *findValue(client.get(request.name, request.sample->parameters).results, "Data");
        };
        const std::string first = answer();
        return judge(client, first == request.sample->data, request.sample->source,
                     [&] { return !first.empty() && first == answer(); });
    };
}

// ---- All of them.

struct KnownAnswer {
    std::string request;
    Test test;
};

const KnownAnswer knownAnswers[] = {
    {"QZaVen_GetVersion", version},
    {"QZaVen_strerror", errorText},
    {"QZaven_crypto_base64_encode", base64Encode},
    {"QZaven_crypto_base64_Decode", base64Decode},
    {"QZaven_ke_new", keNew},
    {"QZaven_ke_free", keFree},
    {"QZaven_ke_set_public_key", keSetKeys},
    {"QZaven_ke_set_certificate", keSetCertificates},
    {"QZaven_ke_set_root_certificate", keSetRoots},
    {"QZaven_ke_client_hello", keHello},
    {"QZaven_ke_client_key_exchange", keExchange},
    {"QZaven_ke_encrypt", keChannel("QZaven_ke_encrypt")},
    {"QZaven_ke_decrypt", keChannel("QZaven_ke_decrypt")},
    {"QZaven_ke_hmac", keChannel("QZaven_ke_hmac")},
    {"QZaven_ke_cmac", keChannel("QZaven_ke_cmac")},
    {"QZaven_crypto_public_encrypt", publicEncrypt},
    {"QZaven_crypto_private_decrypt", privateDecrypt},
    {"QZaven_crypto_encrypt", encrypt},
    {"QZaven_crypto_decrypt", decrypt},
    {"QZaven_crypto_gen_symmkey", generateKey},
    {"QZaven_crypto_envelope_encrypt", envelopeEncrypt},
    {"QZaven_crypto_envelope_decrypt", envelopeDecrypt},
    {"QZaven_wbsm4_encrypt", whiteBoxEncrypt},
    {"QZaven_wbsm4_decrypt", whiteBoxDecrypt},
};

Verdict run(const KnownAnswer& known, Client& client)
{
    try {
        return known.test(client);
    } catch (const Refused& refused) {
        const std::string where =
            refused.request == known.request ? "refused" : refused.request + " refuses";
        return {Status::Fail, where + " with " + refused.code + ": " + refused.text,
                refused.code == "-20215"
                    ? "take an engine that has the function"
                    : "corvane-host explain " + refused.code +
                          "; this engine may give its numbers another meaning"};
    } catch (const UsageError& e) {
        return {Status::Fail, e.what(), "replace the engine"};
    }
}

// Null if there is none.
Test testOf(const RequestInfo& request)
{
    for (const KnownAnswer& known : knownAnswers)
        if (known.request == request.name)
            return known.test;
    return request.sample ? sampleTest(request) : nullptr;
}

Check requestCheck(Subject& subject, const RequestInfo& request)
{
    return {request.name, [&subject, &request](const Tell& tell) {
                const Test test = testOf(request);
                if (!test)
                    return tell({request.name, Status::Fail, "there is no test", "write one"});
                Client client(subject.session());
                const Verdict verdict = run({request.name, test}, client);
                tell({request.name, verdict.status, verdict.detail, verdict.hint});
            }};
}

}  // namespace

std::vector<Check> requestChecks(Subject& subject)
{
    std::vector<Check> checks;
    for (const RequestInfo& request : catalogue())
        checks.push_back(requestCheck(subject, request));
    return checks;
}
