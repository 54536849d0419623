// The development engine's envelopes: every cipher and mode, the openssl command in both
// directions, envelopes of GM/T 0010 taken apart and put together with it, and what is
// refused.
#include <openssl/asn1.h>

#include <set>
#include <thread>

#include "support/der.h"
#include "support/held.h"
#include "support/openssl_tool.h"

namespace {

using support::certificateFile;
using support::certificatePem;
using support::derOf;
using support::endless;
using support::Exact;
using support::Fenced;
using support::fromHex;
using support::keyFile;
using support::oid;
using support::openssl;
using support::pattern;
using support::privatePem;
using support::Result;
using support::resultOf;
using support::tlv;
using support::toBase64;
using support::toHex;

class Envelope : public support::KeyedEngineTest {
protected:
    Result seal(void* certificate, int alg, int mode, const std::string& data, size_t capacity)
    {
        const EnvelopeParams params = {alg, mode, nullptr, certificate};
        const Exact in(data);
        Fenced out(capacity);
        const int code =
            engine.aven_crypto_pkcs7_encrypt(&params, in.data(), in.size(), out.data(), &out.len);
        return resultOf(code, out);
    }

    Result open(void* key, int alg, int mode, const std::string& envelope, size_t capacity)
    {
        const EnvelopeParams params = {alg, mode, key, nullptr};
        const Exact in(envelope);
        Fenced out(capacity);
        const int code =
            engine.aven_crypto_pkcs7_decrypt(&params, in.data(), in.size(), out.data(), &out.len);
        return resultOf(code, out, &Fenced::wiped);
    }

    // With the capacities that the plug-in offers.
    Result seal(void* certificate, int alg, int mode, const std::string& data)
    {
        return seal(certificate, alg, mode, data, data.size() + 3072);
    }
    Result open(void* key, int alg, int mode, const std::string& envelope)
    {
        return open(key, alg, mode, envelope, envelope.size() + 64);
    }

    void expectOpens(void* key, int alg, int mode, const std::string& envelope,
                     const std::string& text)
    {
        const Result result = open(key, alg, mode, envelope);
        EXPECT_EQ(result.code, 0);
        EXPECT_TRUE(result.out == text);
    }
};

// Which combinations there are, and whether the openssl command knows them in CMS.
struct Combination {
    int alg;
    int mode;
    const char* openssl;  // its name there, or null
};

const Combination combinations[] = {
    {1, 1, "sm4-ecb"},          {1, 2, "sm4-cbc"},          {1, 3, "sm4-cfb"},
    {1, 4, "sm4-ofb"},          {1, 5, "sm4-ctr"},          {1, 6, nullptr},
    {2, 1, "aes-128-ecb"},      {2, 2, "aes-128-cbc"},      {2, 3, "aes-128-cfb"},
    {2, 4, "aes-128-ofb"},      {2, 6, "aes-128-gcm"},      {3, 1, "aes-192-ecb"},
    {3, 2, "aes-192-cbc"},      {3, 3, "aes-192-cfb"},      {3, 4, "aes-192-ofb"},
    {3, 6, "aes-192-gcm"},      {4, 1, "aes-256-ecb"},      {4, 2, "aes-256-cbc"},
    {4, 3, "aes-256-cfb"},      {4, 4, "aes-256-ofb"},      {4, 6, "aes-256-gcm"},
    {5, 1, "aria-256-ecb"},     {5, 2, "aria-256-cbc"},     {5, 3, "aria-256-cfb"},
    {5, 4, "aria-256-ofb"},     {5, 5, "aria-256-ctr"},     {5, 6, "aria-256-gcm"},
    {6, 1, "camellia-256-ecb"}, {6, 2, "camellia-256-cbc"}, {6, 3, "camellia-256-cfb"},
    {6, 4, "camellia-256-ofb"}, {6, 5, "camellia-256-ctr"}, {6, 6, nullptr},
    {7, 2, "des-ede3-cbc"},
};

bool isPossible(int alg, int mode)
{
    return std::any_of(std::begin(combinations), std::end(combinations),
                       [&](const Combination& c) { return c.alg == alg && c.mode == mode; });
}

bool isPossibleForSm2(int alg, int mode)
{
    return alg == AVEN_CIPHER_SM4 && mode != AVEN_MODE_GCM;
}

// ---- Both directions within the engine.

TEST_F(Envelope, OpensInEveryPossibleCombination)
{
    for (const char* name : {"rsa2048", "rsa4096", "sm2"}) {
        void* holder = certificate(name);
        void* key = privateKey(name);
        for (int alg = 1; alg <= 7; ++alg) {
            for (int mode = 1; mode <= 6; ++mode) {
                SCOPED_TRACE(std::string(name) + " " + std::to_string(alg) + "," +
                             std::to_string(mode));
                const bool possible = std::string(name) == "sm2" ? isPossibleForSm2(alg, mode)
                                                                 : isPossible(alg, mode);
                for (size_t size : std::initializer_list<size_t>{0, 1, 7, 8, 15, 16, 17, 1000}) {
                    const std::string text = pattern(size);
                    const Result sealed = seal(holder, alg, mode, text);
                    ASSERT_EQ(sealed.code, possible ? 0 : AVEN_E_ENVELOPE_ALGORITHM);
                    if (possible)
                        expectOpens(key, alg, mode, sealed.out, text);
                }
            }
        }
    }
}

TEST_F(Envelope, LongContentOpens)
{
    const std::string text = pattern(3000001);
    for (const char* name : {"rsa2048", "sm2"}) {
        for (int mode : {AVEN_MODE_CBC, AVEN_MODE_OFB}) {
            const Result sealed = seal(certificate(name), AVEN_CIPHER_SM4, mode, text);
            ASSERT_EQ(sealed.code, 0);
            expectOpens(privateKey(name), AVEN_CIPHER_SM4, mode, sealed.out, text);
        }
    }
}

TEST_F(Envelope, IsDifferentEachTime)
{
    for (const char* name : {"rsa2048", "sm2"}) {
        void* holder = certificate(name);
        const std::string a = seal(holder, 1, AVEN_MODE_ECB, pattern(64)).out;
        const std::string b = seal(holder, 1, AVEN_MODE_ECB, pattern(64)).out;
        EXPECT_NE(a.substr(a.size() - 64), b.substr(b.size() - 64)) << name;  // another key
    }
}

TEST_F(Envelope, HasAnIvOfItsOwn)
{
    for (const int mode : std::initializer_list<int>{AVEN_MODE_CBC, AVEN_MODE_GCM}) {
        std::set<std::string> ivs;
        for (int i = 0; i < 2; ++i) {
            // In front of the content's algorithm's end: in CBC the content, in GCM the tag's
            // length, the content and the tag follow.
            const size_t ivSize = mode == AVEN_MODE_CBC ? 16 : 12;
            const size_t behind = mode == AVEN_MODE_CBC ? 2 + 16 : 3 + 2 + 5 + 2 + 16;
            const std::string sealed =
                seal(certificate("rsa2048"), AVEN_CIPHER_AES_128, mode, "hello").out;
            const size_t at = sealed.size() - behind - ivSize;
            EXPECT_EQ(toHex(sealed.substr(at - 2, 2)), mode == AVEN_MODE_CBC ? "0410" : "040c");
            ivs.insert(sealed.substr(at, ivSize));
        }
        EXPECT_EQ(ivs.size(), 2u);
    }
}

// RFC 5652, 6.1 and 6.2.1; RFC 5083, 2.1.
TEST_F(Envelope, VersionsAreZeroUnderRsa)
{
    for (const int mode : std::initializer_list<int>{AVEN_MODE_CBC, AVEN_MODE_GCM}) {
        openssl().write("envelope",
                        seal(certificate("rsa2048"), AVEN_CIPHER_AES_128, mode, "hello").out);
        const std::string parsed =
            openssl().make("asn1parse -inform DER -in envelope > parsed", "parsed");
        for (const char* depth : {":d=3 ", ":d=5 "}) {
            const size_t at = parsed.find(depth);  // the first part of each
            ASSERT_NE(at, std::string::npos) << parsed;
            const std::string line = parsed.substr(at, parsed.find('\n', at) + 1 - at);
            EXPECT_NE(line.find("prim: INTEGER           :00\n"), std::string::npos) << line;
        }
    }
}

// ---- CMS against the openssl command.

TEST_F(Envelope, OfTheEngineOpensWithOpenssl)
{
    for (const char* name : {"rsa2048", "rsa4096"}) {
        void* holder = certificate(name);
        for (const Combination& c : combinations) {
            if (c.openssl == nullptr)
                continue;
            for (size_t size : std::initializer_list<size_t>{1, 16, 5000}) {
                SCOPED_TRACE(std::string(c.openssl) + " " + std::to_string(size));
                const std::string text = pattern(size);
                openssl().write("envelope", seal(holder, c.alg, c.mode, text).out);
                const std::string decrypt =
                    "cms -decrypt -binary -inform DER -in envelope "
                    "-out text -inkey " +
                    keyFile(name);
                EXPECT_EQ(openssl().make(decrypt, "text"), text);
                if (size == 1) {  // the recipient is named as the certificate says
                    EXPECT_EQ(openssl().make(decrypt + " -recip " + certificateFile(name), "text"),
                              text);
                }
            }
        }
    }
}

TEST_F(Envelope, OfOpensslOpensWithTheEngine)
{
    const std::string text = pattern(5000, 4);
    openssl().write("text", text);
    for (const char* name : {"rsa2048", "rsa4096"}) {
        void* key = privateKey(name);
        const std::string to = certificateFile(name);
        for (const Combination& c : combinations) {
            if (c.openssl == nullptr)
                continue;
            SCOPED_TRACE(c.openssl);
            const std::string envelope =
                openssl().make("cms -encrypt -binary -in text -outform DER -out envelope -" +
                                   std::string(c.openssl) + " " + to,
                               "envelope");
            expectOpens(key, c.alg, c.mode, envelope, text);
        }
    }
}

TEST_F(Envelope, OfOpensslOpensHoweverTheKeyTravels)
{
    const std::string text = pattern(100, 4);
    openssl().write("text", text);
    void* key = privateKey("rsa2048");
    const std::string recipient = "-recip " + certificateFile("rsa2048");
    const std::string oaep = recipient + " -keyopt rsa_padding_mode:oaep";
    const std::string ways[] = {
        recipient,
        recipient + " -keyid",
        oaep,
        oaep + " -keyopt rsa_oaep_md:sha256",
        oaep + " -keyopt rsa_oaep_md:sha256 -keyopt rsa_mgf1_md:sha1",
        oaep + " -keyopt rsa_oaep_md:sha384 -keyopt rsa_mgf1_md:sha512",
        oaep + " -keyopt rsa_oaep_md:sha1 -keyopt rsa_mgf1_md:sha256",
        "-stream " + recipient,
        "-stream -recip " + certificateFile("rsa4096") + " " + recipient,
        recipient + " -recip " + certificateFile("rsa2048-other"),
        "-recip " + certificateFile("rsa2048-other") + " " + recipient,
        recipient + " -pwri_password word",
    };
    for (const std::string& way : ways) {
        SCOPED_TRACE(way);
        const std::string envelope = openssl().make(
            "cms -encrypt -binary -aes256 -in text -outform DER -out envelope " + way, "envelope");
        expectOpens(key, AVEN_CIPHER_AES_256, AVEN_MODE_CBC, envelope, text);
    }

    const std::string labelled =
        openssl().make("cms -encrypt -binary -aes256 -in text -outform DER -out envelope " + oaep +
                           " -keyopt rsa_oaep_label:616263",
                       "envelope");
    EXPECT_EQ(open(key, AVEN_CIPHER_AES_256, AVEN_MODE_CBC, labelled).code,
              AVEN_E_ENVELOPE_UNKNOWN);
}

// ---- GM/T 0010.

// The value of the first hexadecimal dump behind `marker` in asn1parse's output.
std::string dumpBehind(const std::string& parsed, const std::string& marker)
{
    const size_t start = parsed.find("[HEX DUMP]:", parsed.find(marker)) + 11;
    return fromHex(parsed.substr(start, parsed.find('\n', start) - start));
}

const char* const sm4Modes[] = {"", "ecb", "cbc", "cfb", "ofb", "ctr"};

TEST_F(Envelope, ToAnSm2KeyHoldsWhatTheStandardSays)
{
    for (int mode = AVEN_MODE_ECB; mode <= AVEN_MODE_CTR; ++mode) {
        SCOPED_TRACE(mode);
        const std::string text = pattern(100, 5);
        openssl().write("envelope", seal(certificate("sm2"), 1, mode, text).out);
        const std::string parsed =
            openssl().make("asn1parse -inform DER -in envelope > parsed", "parsed");

        // Types, algorithms and the certificate's issuer, in order.
        const std::string serial = openssl().make(
            "x509 -noout -serial -in " + certificateFile("sm2") + " > serial", "serial");
        const std::string modeName = std::string("sm4-") + sm4Modes[mode];
        const std::string expected[] = {
            "1.2.156.10197.6.1.4.2.3",
            ":01",
            ":01",
            ":Corvane tests",
            serial.substr(7, serial.size() - 8),
            "1.2.156.10197.1.301.3",
            "OCTET STRING",
            "1.2.156.10197.6.1.4.2.1",
            modeName,
            "cont [ 0 ]",
        };
        size_t at = 0;
        for (const std::string& part : expected) {
            at = parsed.find(part, at);
            ASSERT_NE(at, std::string::npos) << part << "\n" << parsed;
            ++at;
        }

        // The content key and the content open without the engine.
        openssl().write("sealed", dumpBehind(parsed, "301.3"));
        const std::string key = openssl().make(
            "pkeyutl -decrypt -inkey " + keyFile("sm2") + " -in sealed -out key", "key");
        ASSERT_EQ(key.size(), 16U);
        const std::string envelope = openssl().read("envelope");
        const size_t size = mode <= AVEN_MODE_CBC ? 112 : 100;
        openssl().write("content", envelope.substr(envelope.size() - size));
        const std::string iv =
            mode == AVEN_MODE_ECB ? "" : " -iv " + toHex(dumpBehind(parsed, ":" + modeName));
        EXPECT_EQ(openssl().make(std::string("enc -d -sm4-") + sm4Modes[mode] + " -K " +
                                     toHex(key) + iv + " -in content -out text",
                                 "text"),
                  text);
    }
}

// ---- Envelopes of other makers, put together piece by piece.

constexpr int INTEGER = 0x02, OCTETS = 0x04, UTF8 = 0x0C, SEQUENCE = 0x30, SET = 0x31;
constexpr int CONSTRUCTED = 0x20, CONTEXT_0 = 0x80;

std::string number(int value)
{
    return tlv(INTEGER, std::string(1, static_cast<char>(value)));
}

const std::string NOTHING = tlv(0x05, "");

// A type, and a set of one value.
const std::string ATTRIBUTE = tlv(SEQUENCE, oid("1.2.3.4") + tlv(SET, NOTHING));

const char* const GM_ENVELOPED = "1.2.156.10197.6.1.4.2.3";
const char* const GM_DATA = "1.2.156.10197.6.1.4.2.1";
const char* const CMS_ENVELOPED = "1.2.840.113549.1.7.3";
const char* const CMS_DATA = "1.2.840.113549.1.7.1";
const char* const SM2_ENCRYPTION = "1.2.156.10197.1.301.3";
const char* const SM2_CURVE = "1.2.156.10197.1.301";
const char* const SM4 = "1.2.156.10197.1.104";
const char* const SM4_CBC = "1.2.156.10197.1.104.2";

// The algorithm's parameters are DER, or empty if there are none.
struct RecipientParts {
    std::string sealedKey;
    std::string transport = SM2_ENCRYPTION;
    std::string parameters = NOTHING;
    int version = 1;
    std::string name = tlv(SEQUENCE, tlv(SEQUENCE, "") + number(5));

    std::string der() const
    {
        return tlv(SEQUENCE, number(version) + name + tlv(SEQUENCE, oid(transport) + parameters) +
                                 tlv(OCTETS, sealedKey));
    }
};

struct EnvelopeParts {
    std::string recipients;  // one behind the other
    std::string parameters;
    std::string content;
    std::string cipher = SM4_CBC;
    std::string type = GM_ENVELOPED;
    std::string contentType = GM_DATA;
    int version = 1;

    // What may stand before the recipients and behind the content.
    std::string before;
    std::string behind;

    std::string contentDer() const
    {
        return tlv(SEQUENCE, oid(contentType) + tlv(SEQUENCE, oid(cipher) + parameters) +
                                 tlv(CONTEXT_0, content));
    }
    std::string der() const
    {
        const std::string inner =
            tlv(SEQUENCE, number(version) + before + tlv(SET, recipients) + contentDer() + behind);
        return tlv(SEQUENCE, oid(type) + tlv(CONTEXT_0 | CONSTRUCTED, inner));
    }
};

// A text as the openssl command seals it, SM4-CBC under SM2, for envelopes in GM/T 0010.
class OtherMakersEnvelope : public Envelope {
protected:
    OtherMakersEnvelope()
    {
        openssl().write("text", text);
        recipient.sealedKey = sealed(contentKey);
        parts.recipients = recipient.der();
        parts.parameters = tlv(OCTETS, iv);
        parts.content = encrypted("cbc");
    }

    static std::string sealed(const std::string& key)
    {
        openssl().write("key", key);
        return openssl().make("pkeyutl -encrypt -inkey " + keyFile("sm2") + " -in key -out sealed",
                              "sealed");
    }

    std::string encrypted(const std::string& mode) const
    {
        return openssl().make("enc -sm4-" + mode + " -K " + toHex(contentKey) +
                                  (mode == "ecb" ? "" : " -iv " + toHex(iv)) +
                                  " -in text -out content",
                              "content");
    }

    // With the recipient as it is now.
    std::string envelope()
    {
        parts.recipients = recipient.der();
        return parts.der();
    }

    int code(const std::string& der, int mode = AVEN_MODE_CBC)
    {
        return open(privateKey("sm2"), AVEN_CIPHER_SM4, mode, der).code;
    }
    void expectRead(const std::string& der, int mode = AVEN_MODE_CBC)
    {
        expectOpens(privateKey("sm2"), AVEN_CIPHER_SM4, mode, der, text);
    }

    const std::string text = pattern(100, 6);
    const std::string contentKey = pattern(16, 7);
    const std::string iv = pattern(16, 8);
    RecipientParts recipient;
    EnvelopeParts parts;
};

TEST_F(OtherMakersEnvelope, Opens)
{
    expectRead(envelope());
}

TEST_F(OtherMakersEnvelope, UnknownAlgorithmsAndWrongSizesAreRefused)
{
    parts.cipher = "1.2.3.4";
    EXPECT_EQ(code(envelope()), AVEN_E_ENVELOPE_UNKNOWN);
    parts.cipher = SM4_CBC;
    recipient.transport = "1.2.3.4";
    EXPECT_EQ(code(envelope()), AVEN_E_ENVELOPE_UNKNOWN);
    recipient.transport = SM2_ENCRYPTION;

    const std::string whole = parts.content;
    for (const std::string& content : {whole.substr(1), std::string()}) {
        parts.content = content;
        EXPECT_EQ(code(envelope()), AVEN_E_ENVELOPE_TEXT);
    }
    parts.content = whole;
    recipient.sealedKey.back() = static_cast<char>(recipient.sealedKey.back() ^ 1);
    EXPECT_EQ(code(envelope()), AVEN_E_ENVELOPE_OPEN);
    recipient.sealedKey = sealed(contentKey.substr(1));
    EXPECT_EQ(code(envelope()), AVEN_E_ENVELOPE_OPEN);
    parts.cipher = "1.2.156.10197.1.104.3";  // OFB, where any key gives some text
    EXPECT_EQ(code(envelope(), AVEN_MODE_OFB), AVEN_E_ENVELOPE_OPEN);
}

TEST_F(OtherMakersEnvelope, ContentMustBeInside)
{
    const std::string algorithm = tlv(SEQUENCE, oid(SM4_CBC) + parts.parameters);
    const std::string inner = tlv(
        SEQUENCE, number(1) + tlv(SET, recipient.der()) + tlv(SEQUENCE, oid(GM_DATA) + algorithm));
    EXPECT_EQ(code(tlv(SEQUENCE, oid(GM_ENVELOPED) + tlv(CONTEXT_0 | CONSTRUCTED, inner))),
              AVEN_E_ENVELOPE_UNKNOWN);
}

// RFC 5652, 6.1: who made it before the recipients, and attributes behind the content, which
// nothing protects.
TEST_F(OtherMakersEnvelope, OriginatorAndAttributesAreReadOver)
{
    parts.before = tlv(CONTEXT_0 | CONSTRUCTED, tlv(0xA0, tlv(SEQUENCE, "")));
    expectRead(envelope());
    parts.behind = tlv(0xA1, ATTRIBUTE);
    expectRead(envelope());
    parts.before.clear();
    expectRead(envelope());
    // What only envelopes with a tag have.
    for (const std::string& behind :
         {tlv(0xA2, ATTRIBUTE), tlv(OCTETS, pattern(16)), tlv(0xA1, ATTRIBUTE) + tlv(OCTETS, ""),
          tlv(0xA3, ATTRIBUTE)}) {
        parts.behind = behind;
        EXPECT_EQ(code(envelope()), AVEN_E_ENVELOPE_TEXT) << toHex(behind);
    }
    parts.behind.clear();
    parts.before = tlv(0xA1, tlv(0xA0, tlv(SEQUENCE, "")));
    EXPECT_EQ(code(envelope()), AVEN_E_ENVELOPE_TEXT);
}

// RFC 5083, 2.1.
class TaggedEnvelope : public OtherMakersEnvelope {
protected:
    TaggedEnvelope()
    {
        parts.type = "1.2.840.113549.1.9.16.1.23";
        parts.cipher = "1.2.156.10197.1.104.8";
        parts.parameters = tlv(SEQUENCE, tlv(OCTETS, nonce) + number(16));
    }

    // With the tag as long as that.
    void sealText(int tagLength)
    {
        SymmCipherParams params = {};
        params.alg = AVEN_CIPHER_SM4;
        params.mode = AVEN_MODE_GCM;
        params.key = reinterpret_cast<const unsigned char*>(contentKey.data());
        params.key_len = 16;
        params.iv = reinterpret_cast<const unsigned char*>(nonce.data());
        params.iv_len = 12;
        const Exact in(text);
        Fenced out(text.size()), tagOut(16);
        EXPECT_EQ(engine.aven_crypto_encrypt(&params, in.data(), in.size(), out.data(), &out.len,
                                             tagLength, tagOut.data()),
                  0);
        parts.content = out.text();
        tag = tagOut.text().substr(0, static_cast<size_t>(tagLength));
        parts.behind = tlv(OCTETS, tag);
    }

    const std::string nonce = pattern(12, 10);
    std::string tag;
};

TEST_F(TaggedEnvelope, OpensWithATagOfTheLengthThatIsNamed)
{
    sealText(16);
    expectRead(envelope(), AVEN_MODE_GCM);
    parts.behind = tlv(OCTETS, tag.substr(0, 15));
    EXPECT_EQ(code(envelope(), AVEN_MODE_GCM), AVEN_E_ENVELOPE_TEXT);
    for (const std::string& behind : {std::string(), tlv(OCTETS, "")}) {
        parts.behind = behind;
        EXPECT_EQ(code(envelope(), AVEN_MODE_GCM), AVEN_E_ENVELOPE_TEXT);
    }
    for (const std::string& parameters :
         {std::string(), NOTHING, tlv(OCTETS, nonce), tlv(SEQUENCE, "")}) {
        parts.parameters = parameters;
        EXPECT_EQ(code(envelope(), AVEN_MODE_GCM), AVEN_E_ENVELOPE_TEXT) << toHex(parameters);
    }

    sealText(12);
    for (const std::string& length : {number(12), std::string()}) {  // the usual one
        parts.parameters = tlv(SEQUENCE, tlv(OCTETS, nonce) + length);
        expectRead(envelope(), AVEN_MODE_GCM);
    }
}

TEST_F(TaggedEnvelope, AttributesUnderTheTagAreRefused)
{
    sealText(16);
    const std::string own = parts.behind;
    parts.behind = own + tlv(0xA2, ATTRIBUTE);
    expectRead(envelope(), AVEN_MODE_GCM);
    parts.behind = tlv(0xA1, ATTRIBUTE) + own;
    EXPECT_EQ(code(envelope(), AVEN_MODE_GCM), AVEN_E_ENVELOPE_UNKNOWN);
}

TEST_F(TaggedEnvelope, GoesWithGcmAlone)
{
    sealText(16);
    parts.type = GM_ENVELOPED;
    EXPECT_EQ(code(envelope(), AVEN_MODE_GCM), AVEN_E_ENVELOPE_TEXT);
    parts.type = "1.2.840.113549.1.9.16.1.23";
    parts.cipher = SM4_CBC;
    parts.parameters = tlv(OCTETS, iv);
    parts.content = encrypted("cbc");
    EXPECT_EQ(code(envelope()), AVEN_E_ENVELOPE_TEXT);
}

// RFC 8017, A.2.1; an RSA key's envelope.
TEST_F(OtherMakersEnvelope, ParametersOfOaepAreChecked)
{
    openssl().write("key", contentKey);
    recipient.sealedKey = openssl().make("pkeyutl -encrypt -inkey " + keyFile("rsa2048") +
                                             " -in key -out sealed "
                                             "-pkeyopt rsa_padding_mode:oaep",
                                         "sealed");
    recipient.transport = "1.2.840.113549.1.1.7";
    const auto algorithm = [](const char* name, const std::string& parameters) {
        return tlv(SEQUENCE, oid(name) + parameters);
    };
    const char* const sha1 = "1.3.14.3.2.26";
    const char* const md5 = "1.2.840.113549.2.5";
    const char* const mgf1 = "1.2.840.113549.1.1.8";
    const char* const specified = "1.2.840.113549.1.1.9";
    const auto hash = [](const std::string& value) { return tlv(0xA0, value); };
    const auto mask = [](const std::string& value) { return tlv(0xA1, value); };
    const auto label = [](const std::string& value) { return tlv(0xA2, value); };
    const struct {
        std::string parameters;
        int code;
    } rows[] = {
        {tlv(SEQUENCE, ""), 0},  // SHA-1 twice, and no label
        {tlv(SEQUENCE, hash(algorithm(sha1, NOTHING))), 0},
        {tlv(SEQUENCE, mask(algorithm(mgf1, algorithm(sha1, "")))), 0},
        {tlv(SEQUENCE, label(algorithm(specified, tlv(OCTETS, "")))), 0},
        {"", AVEN_E_ENVELOPE_TEXT},
        {NOTHING, AVEN_E_ENVELOPE_TEXT},
        {tlv(OCTETS, ""), AVEN_E_ENVELOPE_TEXT},
        {tlv(SEQUENCE, hash(algorithm(md5, NOTHING))), AVEN_E_ENVELOPE_UNKNOWN},
        {tlv(SEQUENCE, mask(algorithm(mgf1, algorithm(md5, "")))), AVEN_E_ENVELOPE_UNKNOWN},
        {tlv(SEQUENCE, mask(algorithm(sha1, algorithm(sha1, "")))), AVEN_E_ENVELOPE_UNKNOWN},
        {tlv(SEQUENCE, mask(algorithm(mgf1, ""))), AVEN_E_ENVELOPE_TEXT},
        {tlv(SEQUENCE, mask(algorithm(mgf1, NOTHING))), AVEN_E_ENVELOPE_TEXT},
        {tlv(SEQUENCE, label(algorithm(specified, tlv(OCTETS, "abc")))), AVEN_E_ENVELOPE_UNKNOWN},
        {tlv(SEQUENCE, label(algorithm(mgf1, tlv(OCTETS, "")))), AVEN_E_ENVELOPE_UNKNOWN},
        {tlv(SEQUENCE, label(algorithm(specified, tlv(UTF8, "")))), AVEN_E_ENVELOPE_UNKNOWN},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(toHex(row.parameters));
        recipient.parameters = row.parameters;
        const Result opened =
            open(privateKey("rsa2048"), AVEN_CIPHER_SM4, AVEN_MODE_CBC, envelope());
        EXPECT_EQ(opened.code, row.code);
        EXPECT_EQ(opened.out, row.code == 0 ? text : "");
    }
}

TEST_F(OtherMakersEnvelope, KeyEncryptionMayBeNamedByTheCurve)
{
    const std::string ecKey = "1.2.840.10045.2.1";
    const struct {
        std::string transport;
        std::string parameters;
        int code;
    } rows[] = {
        {SM2_ENCRYPTION, "", 0},
        {SM2_ENCRYPTION, NOTHING, 0},
        {SM2_CURVE, "", 0},
        {SM2_CURVE, NOTHING, 0},
        {ecKey, oid(SM2_CURVE), 0},
        {ecKey, oid("1.2.840.10045.3.1.7"), AVEN_E_ENVELOPE_UNKNOWN},  // another curve
        {ecKey, "", AVEN_E_ENVELOPE_UNKNOWN},
        {ecKey, NOTHING, AVEN_E_ENVELOPE_UNKNOWN},
        {ecKey, tlv(OCTETS, oid(SM2_CURVE)), AVEN_E_ENVELOPE_UNKNOWN},
        {"1.2.156.10197.1.301.1", "", AVEN_E_ENVELOPE_UNKNOWN},  // signatures
        {"1.2.156.10197.1.301.2", "", AVEN_E_ENVELOPE_UNKNOWN},  // key exchange
        {"1.2.156.10197.1.302.3", "", AVEN_E_ENVELOPE_UNKNOWN},  // SM9
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.transport + " " + toHex(row.parameters));
        recipient.transport = row.transport;
        recipient.parameters = row.parameters;
        if (row.code == 0) {
            expectRead(envelope());
        } else {
            EXPECT_EQ(code(envelope()), row.code);
        }
    }
}

TEST_F(OtherMakersEnvelope, RsaKeysAreNoRecipientsUnderTheCurve)
{
    recipient.transport = SM2_CURVE;
    EXPECT_EQ(open(privateKey("rsa2048"), AVEN_CIPHER_SM4, AVEN_MODE_CBC, envelope()).code,
              AVEN_E_ENVELOPE_RECIPIENT);
}

TEST_F(OtherMakersEnvelope, Sm4WithoutAModeIsCbc)
{
    parts.cipher = SM4;
    expectRead(envelope());
    for (int mode : std::initializer_list<int>{1, 3, 4, 5, 6})
        EXPECT_EQ(code(envelope(), mode), AVEN_E_ENVELOPE_DIFFERS) << mode;
}

TEST_F(OtherMakersEnvelope, IvIsAnOctetStringOfOneBlock)
{
    const std::string refused[] = {
        "",
        NOTHING,
        tlv(OCTETS, ""),
        tlv(OCTETS, iv.substr(0, 12)),
        tlv(OCTETS, iv.substr(0, 15)),
        tlv(OCTETS, iv + iv.substr(0, 1)),
        tlv(UTF8, iv),
        tlv(INTEGER, "\x11" + iv.substr(1)),
        tlv(0x03, iv),      // BIT STRING
        tlv(SEQUENCE, iv),  // left as it is
        tlv(SEQUENCE, tlv(OCTETS, iv)),
        tlv(CONTEXT_0, iv),
    };
    for (const char* cipher : {SM4, SM4_CBC}) {
        parts.cipher = cipher;
        for (const std::string& parameters : refused) {
            parts.parameters = parameters;
            EXPECT_EQ(code(envelope()), AVEN_E_ENVELOPE_TEXT) << toHex(parameters);
        }
    }
}

TEST_F(OtherMakersEnvelope, EveryModeOfSm4HasItsIdentifier)
{
    const struct {
        const char* mode;
        const char* cipher;
        int number;
    } rows[] = {{"cbc", "1.2.156.10197.1.104.2", AVEN_MODE_CBC},
                {"ofb", "1.2.156.10197.1.104.3", AVEN_MODE_OFB},
                {"cfb", "1.2.156.10197.1.104.4", AVEN_MODE_CFB},
                {"ctr", "1.2.156.10197.1.104.7", AVEN_MODE_CTR}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.mode);
        parts.cipher = row.cipher;
        parts.content = encrypted(row.mode);
        expectRead(envelope(), row.number);
    }
    parts.cipher = "1.2.156.10197.1.104.1";
    parts.content = encrypted("ecb");
    EXPECT_EQ(code(envelope(), AVEN_MODE_ECB), AVEN_E_ENVELOPE_TEXT);  // with an IV
    for (const std::string& parameters : {std::string(), NOTHING, tlv(OCTETS, "")}) {
        parts.parameters = parameters;
        expectRead(envelope(), AVEN_MODE_ECB);
    }
    // CFB of one bit and of one byte, CCM, XTS: SM4 all the same.
    parts.parameters = tlv(OCTETS, iv);
    for (const char* mode : {".5", ".6", ".9", ".10"}) {
        parts.cipher = std::string(SM4) + mode;
        EXPECT_EQ(code(envelope()), AVEN_E_ENVELOPE_UNKNOWN) << mode;
    }
}

// RFC 5084; nonces are as long as the engine takes them elsewhere. What is found behind them is
// that these envelopes have no tag.
TEST_F(OtherMakersEnvelope, NonceAndTagOfGcmHaveTheirSizes)
{
    constexpr int taken = AVEN_E_ENVELOPE_TEXT;
    const auto codeOf = [this](size_t nonce, const std::string& tag) {
        parts.cipher = "1.2.156.10197.1.104.8";
        parts.parameters = tlv(SEQUENCE, tlv(OCTETS, std::string(nonce, 'n')) + tag);
        return code(envelope(), AVEN_MODE_GCM);
    };
    for (const size_t nonce : {1, 12, 128})
        EXPECT_EQ(codeOf(nonce, number(16)), taken) << nonce;
    for (const size_t nonce : {0, 129})
        EXPECT_EQ(codeOf(nonce, number(16)), AVEN_E_ENVELOPE_UNKNOWN) << nonce;
    for (const int tag : {12, 13, 16})
        EXPECT_EQ(codeOf(12, number(tag)), taken) << tag;
    for (const int tag : {-1, 0, 11, 17})
        EXPECT_EQ(codeOf(12, number(tag)), AVEN_E_ENVELOPE_UNKNOWN) << tag;
    EXPECT_EQ(codeOf(12, ""), taken);
}

TEST_F(OtherMakersEnvelope, RecipientsMayBeNamedBySubjectKeyIdentifier)
{
    recipient.version = 2;
    const std::string identifier = pattern(20, 9);
    const std::string names[] = {
        tlv(CONTEXT_0, identifier),
        // In pieces.
        tlv(CONTEXT_0 | CONSTRUCTED,
            tlv(OCTETS, identifier.substr(0, 7)) + tlv(OCTETS, identifier.substr(7))),
        endless(CONTEXT_0 | CONSTRUCTED, tlv(OCTETS, identifier)),
    };
    for (const std::string& name : names) {
        SCOPED_TRACE(toHex(name));
        recipient.name = name;
        for (const char* transport : {SM2_ENCRYPTION, SM2_CURVE}) {
            recipient.transport = transport;
            expectRead(envelope());
        }
        EXPECT_EQ(open(privateKey("sm2-other"), AVEN_CIPHER_SM4, AVEN_MODE_CBC, envelope()).code,
                  AVEN_E_ENVELOPE_OPEN);
    }
}

TEST_F(OtherMakersEnvelope, RecipientsWithoutANameAreRefused)
{
    const std::string identifier = pattern(20, 9);
    const std::string names[] = {tlv(OCTETS, identifier),
                                 tlv(UTF8, identifier),
                                 number(5),
                                 NOTHING,
                                 tlv(0x81, identifier),
                                 tlv(SET, number(5)),
                                 tlv(0xA1, tlv(OCTETS, identifier))};
    for (const std::string& name : names) {
        recipient.name = name;
        EXPECT_EQ(code(envelope()), AVEN_E_ENVELOPE_TEXT) << toHex(name);
    }
}

// A sealed key as GM/T 0009 has it, with its parts in another form.
std::string rawSealedKey(const std::string& der, bool digestFirst)
{
    const auto* p = reinterpret_cast<const unsigned char*>(der.data());
    STACK_OF(ASN1_TYPE)* values = d2i_ASN1_SEQUENCE_ANY(nullptr, &p, static_cast<long>(der.size()));
    std::string values4[4];
    for (int i = 0; i < 4; ++i) {
        const ASN1_STRING* value = sk_ASN1_TYPE_value(values, i)->value.asn1_string;
        values4[i].assign(reinterpret_cast<const char*>(value->data),
                          static_cast<size_t>(value->length));
    }
    sk_ASN1_TYPE_pop_free(values, ASN1_TYPE_free);
    const std::string x = std::string(32 - values4[0].size(), '\0') + values4[0];
    const std::string y = std::string(32 - values4[1].size(), '\0') + values4[1];
    return "\x04" + x + y + (digestFirst ? values4[2] + values4[3] : values4[3] + values4[2]);
}

TEST_F(OtherMakersEnvelope, SealedKeyMayBeInAnyForm)
{
    const std::string der = recipient.sealedKey;
    for (bool digestFirst : {true, false}) {
        recipient.sealedKey = rawSealedKey(der, digestFirst);
        expectRead(envelope());
        recipient.sealedKey.back() = static_cast<char>(recipient.sealedKey.back() ^ 1);
        EXPECT_EQ(code(envelope()), AVEN_E_ENVELOPE_OPEN);
    }
    for (const std::string& wrong : {std::string(), std::string("\x04"), std::string(1, '\0'),
                                     std::string(97, '\x04'), rawSealedKey(der, true).substr(1)}) {
        recipient.sealedKey = wrong;
        EXPECT_EQ(code(envelope()), AVEN_E_ENVELOPE_OPEN) << toHex(wrong);
    }
}

TEST_F(OtherMakersEnvelope, TypesMayBeThoseOfEitherFamily)
{
    for (const char* type : {GM_ENVELOPED, CMS_ENVELOPED}) {
        for (const char* contentType : {GM_DATA, CMS_DATA}) {
            SCOPED_TRACE(std::string(type) + " " + contentType);
            parts.type = type;
            parts.contentType = contentType;
            expectRead(envelope());
        }
        parts.contentType = "1.2.156.10197.6.1.4.2.2";  // signed within
        EXPECT_EQ(code(envelope()), AVEN_E_ENVELOPE_UNKNOWN);
    }
}

TEST_F(OtherMakersEnvelope, VersionsDoNotMatter)
{
    for (int version : {0, 1, 2, 3, 4}) {
        parts.version = version;
        recipient.version = version;
        expectRead(envelope());
    }
}

TEST_F(OtherMakersEnvelope, OursIsFoundAmongOthers)
{
    RecipientParts other = recipient;
    other.sealedKey = pattern(120, 3);
    RecipientParts rsa = other;
    rsa.transport = "1.2.840.113549.1.1.1";
    RecipientParts unknown = other;
    unknown.transport = "1.2.3.4";
    const std::string others = other.der() + rsa.der() + unknown.der() + tlv(0xA1, pattern(30)) +
                               tlv(0xA3, "") + rsa.der();
    for (const std::string& recipients : {recipient.der() + others, others + recipient.der(),
                                          rsa.der() + recipient.der() + unknown.der()}) {
        parts.recipients = recipients;
        expectRead(parts.der());
    }
    parts.recipients = rsa.der() + rsa.der();
    EXPECT_EQ(code(parts.der()), AVEN_E_ENVELOPE_RECIPIENT);
    parts.recipients = rsa.der() + unknown.der();
    EXPECT_EQ(code(parts.der()), AVEN_E_ENVELOPE_UNKNOWN);
    parts.recipients = "";
    EXPECT_EQ(code(parts.der()), AVEN_E_ENVELOPE_RECIPIENT);
    // One for such a key, although it does not open, says more than one of an unknown kind.
    parts.recipients = other.der() + unknown.der();
    EXPECT_EQ(code(parts.der()), AVEN_E_ENVELOPE_OPEN);
}

TEST_F(OtherMakersEnvelope, RecipientsAreLimited)
{
    RecipientParts rsa = recipient;
    rsa.transport = "1.2.840.113549.1.1.1";
    const auto among = [&](int count) {
        parts.recipients.clear();
        for (int i = 1; i < count; ++i)
            parts.recipients += rsa.der();
        parts.recipients += recipient.der();
        return parts.der();
    };
    expectRead(among(AVEN_ENVELOPE_RECIPIENTS_MAX));
    EXPECT_EQ(code(among(AVEN_ENVELOPE_RECIPIENTS_MAX + 1)), AVEN_E_ENVELOPE_RECIPIENTS);
    EXPECT_EQ(code(among(10000)), AVEN_E_ENVELOPE_RECIPIENTS);
}

TEST_F(OtherMakersEnvelope, ContentMayComeInPieces)
{
    const std::string content = parts.content;
    const std::string algorithm = tlv(SEQUENCE, oid(SM4) + parts.parameters);
    std::string pieces;
    for (size_t at = 0; at < content.size(); at += 10)
        pieces += tlv(OCTETS, content.substr(at, 10));
    const std::string nested = endless(OCTETS | CONSTRUCTED, tlv(OCTETS, content.substr(0, 50))) +
                               tlv(OCTETS | CONSTRUCTED, tlv(OCTETS, content.substr(50)));

    for (const std::string& bytes : {pieces, nested, tlv(OCTETS, "") + pieces}) {
        for (bool isEndless : {false, true}) {
            const auto wrap = isEndless ? endless : tlv;
            const std::string sealed =
                wrap(SEQUENCE, oid(GM_DATA) + algorithm + wrap(CONTEXT_0 | CONSTRUCTED, bytes));
            const std::string inner =
                wrap(SEQUENCE, number(1) + wrap(SET, recipient.der()) + sealed);
            expectRead(wrap(SEQUENCE, oid(GM_ENVELOPED) + wrap(CONTEXT_0 | CONSTRUCTED, inner)));
        }
    }
}

TEST_F(OtherMakersEnvelope, RecipientMayBeBer)
{
    const std::string key =
        tlv(OCTETS, recipient.sealedKey.substr(0, 9)) + tlv(OCTETS, recipient.sealedKey.substr(9));
    parts.recipients = endless(
        SEQUENCE, number(1) + endless(SEQUENCE, endless(SEQUENCE, "") + number(5)) +
                      endless(SEQUENCE, oid(SM2_CURVE)) + endless(OCTETS | CONSTRUCTED, key));
    expectRead(parts.der());
}

TEST_F(OtherMakersEnvelope, LengthsThatDoNotEndAreRefused)
{
    const std::string whole = envelope();
    const std::string open0 = std::string(1, '\x30') + std::string("\x80", 1);
    const std::string body = oid(GM_ENVELOPED) + endless(CONTEXT_0 | CONSTRUCTED, "");
    const std::string refused[] = {
        open0 + body,                         // no end
        open0 + body + std::string(1, '\0'),  // half of one
        open0,
        open0 + oid(GM_ENVELOPED) + std::string("\xA0\x80", 2),
        std::string("\x30\x84\xFF\xFF\xFF\xFF", 6) + whole,  // four gigabytes
        std::string("\x30\x84\x7F\xFF\xFF\xFF", 6) + whole,
        std::string("\x30\x88\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 10) + whole,
        std::string("\x30\x89", 2) + std::string(9, '\xFF') + whole,
        std::string("\x04\x80", 2) + whole,  // no constructed value
        std::string("\x30\xFF", 2) + whole,
    };
    for (const std::string& bytes : refused)
        EXPECT_EQ(code(bytes), AVEN_E_ENVELOPE_TEXT) << toHex(bytes.substr(0, 16));
}

TEST_F(OtherMakersEnvelope, DepthIsLimited)
{
    // Pieces within pieces, to a depth that none needs, and one that ends a stack.
    const std::string algorithm = tlv(SEQUENCE, oid(SM4) + parts.parameters);
    for (size_t depth : {100u, 100000u}) {
        std::string deep;
        for (size_t i = 0; i < depth; ++i)
            deep += "\x24\x80";
        deep += tlv(OCTETS, parts.content);
        deep += std::string(2 * depth, '\0');
        const std::string sealed =
            tlv(SEQUENCE, oid(GM_DATA) + algorithm + tlv(CONTEXT_0 | CONSTRUCTED, deep));
        const std::string inner = tlv(SEQUENCE, number(1) + tlv(SET, recipient.der()) + sealed);
        EXPECT_EQ(code(tlv(SEQUENCE, oid(GM_ENVELOPED) + tlv(CONTEXT_0 | CONSTRUCTED, inner))),
                  AVEN_E_ENVELOPE_TEXT);

        // In the places that are read over, it does no harm.
        std::string name;
        for (size_t i = 0; i < depth; ++i)
            name += "\x30\x80";
        recipient.name = name + std::string(2 * depth, '\0');
        recipient.parameters = recipient.name;
        expectRead(envelope());
    }
}

TEST_F(OtherMakersEnvelope, SignedOnesAreRefusedByName)
{
    // GM/T 0010 and PKCS#7: hashes behind the recipients, signers behind the content.
    const std::string hashes = tlv(SET, tlv(SEQUENCE, oid("1.2.156.10197.1.401") + NOTHING));
    const std::string inner = tlv(SEQUENCE, number(1) + tlv(SET, recipient.der()) + hashes +
                                                parts.contentDer() + tlv(SET, ""));
    for (const char* type : {"1.2.156.10197.6.1.4.2.4", "1.2.840.113549.1.7.4"}) {
        const std::string content = oid(type) + tlv(CONTEXT_0 | CONSTRUCTED, inner);
        const std::string endlessContent = oid(type) + endless(CONTEXT_0 | CONSTRUCTED, inner);
        EXPECT_EQ(code(tlv(SEQUENCE, content)), AVEN_E_ENVELOPE_SIGNED);
        EXPECT_EQ(code(endless(SEQUENCE, endlessContent)), AVEN_E_ENVELOPE_SIGNED);
        EXPECT_EQ(code(tlv(SEQUENCE, content).substr(0, 100)), AVEN_E_ENVELOPE_TEXT);
        for (const int tag : {SET, 0xB0})  // no sequence, or of another class
            EXPECT_EQ(code(tlv(tag, content)), AVEN_E_ENVELOPE_TEXT);
    }
    // The other types have no name of their own.
    for (const char* type : {".2", ".5", ".6", ".40"}) {
        const std::string content =
            oid("1.2.156.10197.6.1.4.2" + std::string(type)) + tlv(CONTEXT_0 | CONSTRUCTED, inner);
        EXPECT_EQ(code(tlv(SEQUENCE, content)), AVEN_E_ENVELOPE_TEXT);
    }
}

// ---- What is refused.

TEST_F(Envelope, AWrongKeyIsReportedInEveryMode)
{
    for (const Combination& c : combinations) {
        const std::string envelope = seal(certificate("rsa2048"), c.alg, c.mode, pattern(100)).out;
        EXPECT_EQ(open(privateKey("rsa2048-other"), c.alg, c.mode, envelope).code,
                  AVEN_E_ENVELOPE_OPEN);
        EXPECT_EQ(open(privateKey("rsa4096"), c.alg, c.mode, envelope).code, AVEN_E_ENVELOPE_OPEN);
        EXPECT_EQ(open(privateKey("sm2"), c.alg, c.mode, envelope).code, AVEN_E_ENVELOPE_RECIPIENT);
    }
    for (int mode = AVEN_MODE_ECB; mode <= AVEN_MODE_CTR; ++mode) {
        const std::string envelope = seal(certificate("sm2"), 1, mode, pattern(100)).out;
        EXPECT_EQ(open(privateKey("sm2-other"), 1, mode, envelope).code, AVEN_E_ENVELOPE_OPEN);
        EXPECT_EQ(open(privateKey("rsa2048"), 1, mode, envelope).code, AVEN_E_ENVELOPE_RECIPIENT);
    }
}

TEST_F(Envelope, AWrongKeyIsReportedForPkcs1Too)
{
    openssl().write("text", "hello");
    for (const char* cipher : {"aes-256-cbc", "aes-256-cfb"}) {
        const std::string envelope =
            openssl().make("cms -encrypt -binary -in text -outform DER -out envelope -" +
                               std::string(cipher) + " " + certificateFile("rsa2048"),
                           "envelope");
        const int mode = cipher[9] == 'b' ? AVEN_MODE_CBC : AVEN_MODE_CFB;
        EXPECT_EQ(open(privateKey("rsa2048-other"), AVEN_CIPHER_AES_256, mode, envelope).code,
                  AVEN_E_ENVELOPE_OPEN);
    }
}

TEST_F(Envelope, AnotherCipherOrModeThanTheNamedIsReported)
{
    void* key = privateKey("rsa2048");
    for (const Combination& made :
         {combinations[1], combinations[10], combinations[17], combinations[33]}) {
        const std::string envelope = seal(certificate("rsa2048"), made.alg, made.mode, "hello").out;
        for (const Combination& named : combinations) {
            const bool same = named.alg == made.alg && named.mode == made.mode;
            EXPECT_EQ(open(key, named.alg, named.mode, envelope).code,
                      same ? 0 : AVEN_E_ENVELOPE_DIFFERS);
        }
        EXPECT_EQ(open(key, AVEN_CIPHER_3DES, AVEN_MODE_CTR, envelope).code,
                  AVEN_E_ENVELOPE_ALGORITHM);
    }
}

TEST_F(Envelope, ACutOneIsReportedWhereverItIsCut)
{
    for (const char* name : {"rsa2048", "sm2"}) {
        void* key = privateKey(name);
        const std::string envelope = seal(certificate(name), 1, AVEN_MODE_CBC, "hello").out;
        for (size_t size = 0; size < envelope.size(); size += support::EVERY_PLACE) {
            ASSERT_EQ(open(key, 1, AVEN_MODE_CBC, envelope.substr(0, size)).code,
                      AVEN_E_ENVELOPE_TEXT)
                << size;
        }
        for (const std::string& tail : {std::string(1, '\0'), std::string("x"), envelope}) {
            EXPECT_EQ(open(key, 1, AVEN_MODE_CBC, envelope + tail).code, AVEN_E_ENVELOPE_TRAILING);
        }
    }
}

TEST_F(Envelope, ADamagedOneNeverOpensToAnotherTextInGcm)
{
    void* key = privateKey("rsa2048");
    for (int alg : {AVEN_CIPHER_SM4, AVEN_CIPHER_AES_256}) {
        std::string envelope = seal(certificate("rsa2048"), alg, AVEN_MODE_GCM, "hello").out;
        for (size_t i = 0; i < envelope.size(); i += support::EVERY_PLACE) {
            for (int bit : {static_cast<int>(i % 8), static_cast<int>((i + 3) % 8)}) {
                const char flip = static_cast<char>(1 << bit);
                envelope[i] = static_cast<char>(envelope[i] ^ flip);
                const Result result = open(key, alg, AVEN_MODE_GCM, envelope);
                if (result.code == 0) {  // what names the recipient matters to no one
                    EXPECT_EQ(result.out, "hello") << i;
                    EXPECT_LT(i, 200U);
                }
                envelope[i] = static_cast<char>(envelope[i] ^ flip);
            }
        }
        for (size_t i = envelope.size() - 21; i < envelope.size(); ++i) {
            if (i == envelope.size() - 18 || i == envelope.size() - 17)
                continue;  // the tag's header
            envelope[i] = static_cast<char>(envelope[i] ^ 1);
            EXPECT_EQ(open(key, alg, AVEN_MODE_GCM, envelope).code, AVEN_E_ENVELOPE_OPEN) << i;
            envelope[i] = static_cast<char>(envelope[i] ^ 1);
        }
    }
}

TEST_F(Envelope, ADamagedOneDoesNoHarm)
{
    for (const char* name : {"rsa2048", "sm2"}) {
        void* key = privateKey(name);
        std::string envelope = seal(certificate(name), 1, AVEN_MODE_CBC, "hello").out;
        for (size_t i = 0; i < envelope.size(); i += support::EVERY_PLACE) {
            const char flip = static_cast<char>(1 << i % 8);
            envelope[i] = static_cast<char>(envelope[i] ^ flip);
            open(key, 1, AVEN_MODE_CBC, envelope);
            envelope[i] = static_cast<char>(envelope[i] ^ flip);
        }
        // Wrong padding: all blocks but the last damaged, the content key is right.
        const size_t size = envelope.size();
        envelope[size - 1] = static_cast<char>(envelope[size - 1] ^ 1);
        int refused = 0;
        for (int i = 0; i < 20; ++i) {
            envelope[size - 2] = static_cast<char>(i);
            const int code = open(key, 1, AVEN_MODE_CBC, envelope).code;
            EXPECT_TRUE(code == 0 || code == AVEN_E_ENVELOPE_OPEN) << code;
            refused += code != 0 ? 1 : 0;
        }
        EXPECT_GT(refused, 10);
    }
}

TEST_F(Envelope, WhatIsNoEnvelopeIsRefused)
{
    void* key = privateKey("rsa2048");
    openssl().write("text", "hello");
    const std::string signedData =
        openssl().make("cms -sign -binary -nodetach -in text -outform DER -out out -signer " +
                           certificateFile("rsa2048") + " -inkey " + keyFile("rsa2048"),
                       "out");
    for (const std::string& bytes :
         {std::string(), std::string("hello"), std::string(1000, '\0'), std::string(1000, '0'),
          signedData, derOf(certificatePem("rsa2048"))})
        EXPECT_EQ(open(key, 2, AVEN_MODE_CBC, bytes).code, AVEN_E_ENVELOPE_TEXT);
    // A password's envelope, and one with a content cipher that has no number.
    const std::string word = openssl().make(
        "cms -encrypt -binary -aes128 -in text -outform DER -out out -pwri_password word", "out");
    EXPECT_EQ(open(key, 2, AVEN_MODE_CBC, word).code, AVEN_E_ENVELOPE_UNKNOWN);
    const std::string camellia =
        openssl().make("cms -encrypt -binary -camellia128 -in text -outform DER -out out " +
                           certificateFile("rsa2048"),
                       "out");
    EXPECT_EQ(open(key, 2, AVEN_MODE_CBC, camellia).code, AVEN_E_ENVELOPE_UNKNOWN);
}

TEST_F(Envelope, UnknownNumbersAreRefused)
{
    void* holder = certificate("sm2");
    void* key = privateKey("sm2");
    for (int number : {-1, 0, 8, INT32_MAX, INT32_MIN}) {
        EXPECT_EQ(seal(holder, number, 2, "x").code, AVEN_E_CIPHER_NUMBER);
        EXPECT_EQ(open(key, number, 2, "x").code, AVEN_E_CIPHER_NUMBER);
    }
    for (int number : {-1, 0, 7, INT32_MAX, INT32_MIN}) {
        EXPECT_EQ(seal(holder, 1, number, "x").code, AVEN_E_MODE_NUMBER);
        EXPECT_EQ(open(key, 1, number, "x").code, AVEN_E_MODE_NUMBER);
    }
}

TEST_F(Envelope, HandlesMustBeOfTheRightKind)
{
    void* holder = certificate("sm2");
    void* key = privateKey("sm2");
    const std::string envelope = seal(holder, 1, 2, "x").out;
    EXPECT_EQ(seal(key, 1, 2, "x").code, AVEN_E_HANDLE);
    EXPECT_EQ(seal(this, 1, 2, "x").code, AVEN_E_HANDLE);
    EXPECT_EQ(seal(nullptr, 1, 2, "x").code, AVEN_E_NULL_POINTER);
    EXPECT_EQ(open(holder, 1, 2, envelope).code, AVEN_E_HANDLE);
    EXPECT_EQ(open(this, 1, 2, envelope).code, AVEN_E_HANDLE);
    EXPECT_EQ(open(nullptr, 1, 2, envelope).code, AVEN_E_NULL_POINTER);
    EXPECT_EQ(open(publicKey("sm2"), 1, 2, envelope).code, AVEN_E_KEY_NOT_PRIVATE);
    engine.aven_keypair_free(key);
    EXPECT_EQ(open(key, 1, 2, envelope).code, AVEN_E_HANDLE);
    engine.aven_certificate_free(holder);
    EXPECT_EQ(seal(holder, 1, 2, "x").code, AVEN_E_HANDLE);
}

TEST_F(Envelope, NullPointersAreRefused)
{
    const EnvelopeParams params = {1, 2, privateKey("sm2"), certificate("sm2")};
    support::expectNullsRefused(engine.aven_crypto_pkcs7_encrypt, params);
    support::expectNullsRefused(engine.aven_crypto_pkcs7_decrypt, params);
    unsigned char byte = 0;
    uint32_t len = 4000;
    EXPECT_EQ(engine.aven_crypto_pkcs7_encrypt(&params, &byte, 1, nullptr, &len),
              AVEN_E_NULL_POINTER);
}

TEST_F(Envelope, CapacitiesAreHeeded)
{
    void* holder = certificate("rsa2048");
    void* key = privateKey("rsa2048");
    const std::string text = pattern(100);
    const Result whole = seal(holder, 1, AVEN_MODE_CFB, text);
    EXPECT_EQ(seal(holder, 1, AVEN_MODE_CFB, text, whole.len).code, 0);
    for (size_t capacity : {size_t{0}, size_t{1}, size_t{whole.len - 1}}) {
        const Result less = seal(holder, 1, AVEN_MODE_CFB, text, capacity);
        EXPECT_EQ(less.code, AVEN_E_BUFFER_TOO_SMALL);
        EXPECT_EQ(less.len, whole.len);
    }
    EXPECT_EQ(open(key, 1, AVEN_MODE_CFB, whole.out, 100).out, text);
    for (size_t capacity : std::initializer_list<size_t>{0, 1, 99}) {
        const Result less = open(key, 1, AVEN_MODE_CFB, whole.out, capacity);
        EXPECT_EQ(less.code, AVEN_E_BUFFER_TOO_SMALL);
        EXPECT_EQ(less.len, 100U);
    }
}

TEST_F(Envelope, ManyThreadsShareOneHolder)
{
    struct Pair {
        void* holder;
        void* key;
    };
    const Pair pairs[] = {{certificate("rsa2048"), privateKey("rsa2048")},
                          {certificate("sm2"), privateKey("sm2")}};
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (unsigned i = 0; i < 20; ++i) {
                const std::string text = pattern(200, t * 100 + i);
                for (const Pair& pair : pairs) {
                    const int mode = static_cast<int>(i % 5) + 1;
                    expectOpens(pair.key, 1, mode, seal(pair.holder, 1, mode, text).out, text);
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

}  // namespace
