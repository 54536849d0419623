// The development engine's envelopes: every cipher and mode, the openssl command in both
// directions, envelopes of GM/T 0010 taken apart and put together with it, and what is
// refused.
#include <thread>

#include "support/held.h"
#include "support/openssl_tool.h"

namespace {

using support::certificateFile;
using support::certificatePem;
using support::derOf;
using support::Exact;
using support::Fenced;
using support::fromHex;
using support::keyFile;
using support::openssl;
using support::pattern;
using support::privatePem;
using support::toBase64;
using support::toHex;

struct Result {
    int code;
    uint32_t len;
    std::string out;
};

class Envelope : public support::KeyedEngineTest {
protected:
    Result seal(void* certificate, int alg, int mode, const std::string& data, size_t capacity)
    {
        const EnvelopeParams params = {alg, mode, nullptr, certificate};
        const Exact in(data);
        Fenced out(capacity);
        const int code =
            engine.aven_crypto_pkcs7_encrypt(&params, in.data(), in.size(), out.data(), &out.len);
        EXPECT_TRUE(out.fenceIntact());
        if (code != 0) {
            EXPECT_TRUE(out.untouched());
        }
        return {code, out.len, code == 0 ? out.text() : ""};
    }

    Result open(void* key, int alg, int mode, const std::string& envelope, size_t capacity)
    {
        const EnvelopeParams params = {alg, mode, key, nullptr};
        const Exact in(envelope);
        Fenced out(capacity);
        const int code =
            engine.aven_crypto_pkcs7_decrypt(&params, in.data(), in.size(), out.data(), &out.len);
        EXPECT_TRUE(out.fenceIntact());
        if (code != 0) {
            EXPECT_TRUE(out.wiped());
        }
        return {code, out.len, code == 0 ? out.text() : ""};
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

// An envelope put together with the openssl command alone.
std::string gmEnvelope(const std::string& sealedKey, const std::string& iv,
                       const std::string& content, const std::string& transport,
                       const std::string& cipher)
{
    openssl().write(
        "conf",
        "asn1=SEQUENCE:outer\n"
        "[outer]\ntype=OID:1.2.156.10197.6.1.4.2.3\nenvelope=EXPLICIT:0,SEQUENCE:env\n"
        "[env]\nversion=INTEGER:1\nrecipients=SET:recipients\ncontent=SEQUENCE:content\n"
        "[recipients]\none=SEQUENCE:recipient\n"
        "[recipient]\nversion=INTEGER:1\nname=SEQUENCE:name\nalg=SEQUENCE:alg\n"
        "key=FORMAT:HEX,OCTETSTRING:" +
            toHex(sealedKey) +
            "\n"
            "[name]\nissuer=SEQUENCE:nothing\nserial=INTEGER:5\n"
            "[nothing]\n"
            "[alg]\noid=OID:" +
            transport +
            "\nparameters=NULL\n"
            "[content]\ntype=OID:1.2.156.10197.6.1.4.2.1\nalg=SEQUENCE:cipher\n"
            "bytes=IMPLICIT:0," +
            std::string(content.empty() ? "" : "FORMAT:HEX,") + "OCTETSTRING:" + toHex(content) +
            "\n"
            "[cipher]\noid=OID:" +
            cipher + "\niv=FORMAT:HEX,OCTETSTRING:" + toHex(iv) + "\n");
    return openssl().make("asn1parse -genconf conf -noout -out envelope", "envelope");
}

TEST_F(Envelope, ToAnSm2KeyOfOtherMakersOpens)
{
    const std::string text = pattern(100, 6), contentKey = pattern(16, 7), iv = pattern(16, 8);
    openssl().write("text", text);
    openssl().write("key", contentKey);
    const std::string content = openssl().make(
        "enc -sm4-cbc -K " + toHex(contentKey) + " -iv " + toHex(iv) + " -in text -out content",
        "content");
    const std::string sealedKey = openssl().make(
        "pkeyutl -encrypt -inkey " + keyFile("sm2") + " -in key -out sealed", "sealed");
    const std::string sm2 = "1.2.156.10197.1.301.3", sm4 = "1.2.156.10197.1.104.2";

    void* key = privateKey("sm2");
    const std::string envelope = gmEnvelope(sealedKey, iv, content, sm2, sm4);
    expectOpens(key, 1, AVEN_MODE_CBC, envelope, text);

    const std::string unknown = gmEnvelope(sealedKey, iv, content, sm2, "1.2.3.4");
    EXPECT_EQ(open(key, 1, AVEN_MODE_CBC, unknown).code, AVEN_E_ENVELOPE_UNKNOWN);
    const std::string transport = gmEnvelope(sealedKey, iv, content, "1.2.3.4", sm4);
    EXPECT_EQ(open(key, 1, AVEN_MODE_CBC, transport).code, AVEN_E_ENVELOPE_UNKNOWN);
    const std::string shortIv = gmEnvelope(sealedKey, iv.substr(1), content, sm2, sm4);
    EXPECT_EQ(open(key, 1, AVEN_MODE_CBC, shortIv).code, AVEN_E_ENVELOPE_TEXT);
    const std::string cut = gmEnvelope(sealedKey, iv, content.substr(1), sm2, sm4);
    EXPECT_EQ(open(key, 1, AVEN_MODE_CBC, cut).code, AVEN_E_ENVELOPE_TEXT);
    const std::string empty = gmEnvelope(sealedKey, iv, "", sm2, sm4);
    EXPECT_EQ(open(key, 1, AVEN_MODE_CBC, empty).code, AVEN_E_ENVELOPE_TEXT);
    // A content key of another size, and a damaged one.
    openssl().write("key", contentKey.substr(1));
    const std::string shortKey = gmEnvelope(
        openssl().make("pkeyutl -encrypt -inkey " + keyFile("sm2") + " -in key -out sealed",
                       "sealed"),
        iv, content, sm2, sm4);
    EXPECT_EQ(open(key, 1, AVEN_MODE_CBC, shortKey).code, AVEN_E_ENVELOPE_OPEN);
    std::string damaged = sealedKey;
    damaged.back() = static_cast<char>(damaged.back() ^ 1);
    EXPECT_EQ(open(key, 1, AVEN_MODE_CBC, gmEnvelope(damaged, iv, content, sm2, sm4)).code,
              AVEN_E_ENVELOPE_OPEN);
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
    unsigned char byte = 0;
    for (auto function : {engine.aven_crypto_pkcs7_encrypt, engine.aven_crypto_pkcs7_decrypt}) {
        uint32_t len = 1;
        EXPECT_EQ(function(nullptr, &byte, 1, &byte, &len), AVEN_E_NULL_POINTER);
        EXPECT_EQ(len, 0U);
        EXPECT_EQ(function(&params, nullptr, 1, &byte, &len), AVEN_E_NULL_POINTER);
        EXPECT_EQ(function(&params, &byte, 1, &byte, nullptr), AVEN_E_NULL_POINTER);
    }
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
