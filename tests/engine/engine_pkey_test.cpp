// The development engine's public-key functions: the standard's example, the openssl
// command in both directions, every form, and what is refused.
#include <future>
#include <thread>

#include "support/allocation_fault.h"
#include "support/held.h"
#include "support/openssl_tool.h"

namespace {

using support::certificatePem;
using support::Exact;
using support::Fenced;
using support::fromHex;
using support::keyFile;
using support::openssl;
using support::pattern;
using support::publicPem;
using support::Result;
using support::resultOf;
using support::toBase64;
using support::toHex;

// How the key is used; the pair comes with each call.
struct How {
    int rsaPadding = AVEN_RSA_OAEP;
    int noAsn1 = 0;
    int noC1c3c2 = 0;
};

const How sm2Forms[] = {{0, 0, 0}, {0, 0, 1}, {0, 1, 0}, {0, 1, 1}};

class PublicKey : public support::KeyedEngineTest {
protected:
    Result encrypt(void* key, const How& how, const std::string& data, size_t capacity)
    {
        const PkeyCipherParams params = {key, how.rsaPadding, how.noAsn1, how.noC1c3c2};
        const Exact in(data);
        Fenced out(capacity);
        const int code =
            engine.aven_crypto_public_encrypt(&params, in.data(), in.size(), out.data(), &out.len);
        return resultOf(code, out);
    }

    Result decrypt(void* key, const How& how, const std::string& data, size_t capacity)
    {
        const PkeyCipherParams params = {key, how.rsaPadding, how.noAsn1, how.noC1c3c2};
        const Exact in(data);
        Fenced out(capacity);
        const int code =
            engine.aven_crypto_private_decrypt(&params, in.data(), in.size(), out.data(), &out.len);
        return resultOf(code, out);
    }

    // With the capacities that the plug-in offers at the least.
    Result encrypt(void* key, const How& how, const std::string& data)
    {
        return encrypt(key, how, data, data.size() + 528);
    }
    Result decrypt(void* key, const How& how, const std::string& data)
    {
        return decrypt(key, how, data, data.size() + 16);
    }

    void expectOpens(void* key, const How& how, const std::string& sealed, const std::string& text)
    {
        const Result result = decrypt(key, how, sealed);
        EXPECT_EQ(result.code, 0);
        EXPECT_EQ(toHex(result.out), toHex(text));
    }
};

// ---- RSA.

// Of 2064 bits the last byte of a padded block has a mask of its own.
const char* const rsaKeys[] = {"rsa2048", "rsa2064", "rsa3072", "rsa4096"};
const char* const paddingOptions[] = {
    " -pkeyopt rsa_padding_mode:oaep -pkeyopt rsa_oaep_md:sha256 -pkeyopt rsa_mgf1_md:sha256",
    " -pkeyopt rsa_padding_mode:pkcs1"};

size_t modulusSize(const std::string& rsaKey)
{
    return static_cast<size_t>(std::stoi(rsaKey.substr(3))) / 8;
}

size_t longestText(const std::string& rsaKey, int padding)
{
    return modulusSize(rsaKey) - (padding == AVEN_RSA_OAEP ? 66 : 11);
}

TEST_F(PublicKey, RsaOfTheEngineOpensWithOpenssl)
{
    for (const char* name : rsaKeys) {
        void* key = publicKey(name);
        for (int padding : {AVEN_RSA_OAEP, AVEN_RSA_PKCS1}) {
            for (size_t size : {size_t{0}, size_t{1}, size_t{32}, longestText(name, padding)}) {
                SCOPED_TRACE(std::string(name) + " " + std::to_string(size));
                const std::string text = pattern(size);
                const Result sealed = encrypt(key, {padding}, text);
                ASSERT_EQ(sealed.code, 0);
                EXPECT_EQ(sealed.len, modulusSize(name));
                openssl().write("sealed", sealed.out);
                EXPECT_EQ(openssl().make("pkeyutl -decrypt -inkey " + keyFile(name) +
                                             " -in sealed -out text" + paddingOptions[padding],
                                         "text"),
                          text);
            }
        }
    }
}

TEST_F(PublicKey, RsaOfOpensslOpensWithTheEngine)
{
    for (const char* name : rsaKeys) {
        void* key = privateKey(name);
        for (int padding : {AVEN_RSA_OAEP, AVEN_RSA_PKCS1}) {
            for (size_t size : {size_t{1}, size_t{32}, longestText(name, padding)}) {
                SCOPED_TRACE(std::string(name) + " " + std::to_string(size));
                const std::string text = pattern(size, 2);
                openssl().write("text", text);
                const std::string sealed =
                    openssl().make("pkeyutl -encrypt -inkey " + keyFile(name) +
                                       " -in text -out sealed" + paddingOptions[padding],
                                   "sealed");
                expectOpens(key, {padding}, sealed, text);
            }
        }
    }
}

TEST_F(PublicKey, RsaToACertificateOpens)
{
    const Exact text(certificatePem("rsa2048"));
    void* key = nullptr;
    ASSERT_EQ(engine.aven_keypair_unmarshal(3, nullptr, 0, text.data(), text.size(), nullptr, &key),
              0);
    expectOpens(privateKey("rsa2048"), {}, encrypt(key, {}, "hello").out, "hello");
}

TEST_F(PublicKey, RsaIsDifferentEachTime)
{
    void* key = publicKey("rsa2048");
    for (int padding : {AVEN_RSA_OAEP, AVEN_RSA_PKCS1})
        EXPECT_NE(encrypt(key, {padding}, "hello").out, encrypt(key, {padding}, "hello").out);
}

TEST_F(PublicKey, RsaTextBeyondTheModulusIsRefused)
{
    for (const char* name : rsaKeys) {
        void* key = publicKey(name);
        for (int padding : {AVEN_RSA_OAEP, AVEN_RSA_PKCS1}) {
            const size_t limit = longestText(name, padding);
            EXPECT_EQ(encrypt(key, {padding}, pattern(limit)).code, 0);
            for (size_t size : {limit + 1, modulusSize(name), size_t{100000}})
                EXPECT_EQ(encrypt(key, {padding}, pattern(size)).code, AVEN_E_INPUT_TOO_LONG);
        }
    }
}

// PKCS#1 v1.5 has little redundancy: now and then, what is damaged looks good.
void expectRefused(const Result& result, int padding)
{
    if (padding == AVEN_RSA_PKCS1 && result.code == 0) {
        EXPECT_NE(result.out, "hello");
    } else {
        EXPECT_EQ(result.code, AVEN_E_DECRYPTION);
    }
}

TEST_F(PublicKey, EveryRsaFailureHasTheSameCode)
{
    void* key = privateKey("rsa2048");
    void* otherKey = privateKey("rsa2048-other");
    void* largerKey = privateKey("rsa3072");
    for (int padding : {AVEN_RSA_OAEP, AVEN_RSA_PKCS1}) {
        std::string sealed = encrypt(key, {padding}, "hello").out;
        expectRefused(decrypt(key, {1 - padding}, sealed), 1 - padding);
        expectRefused(decrypt(otherKey, {padding}, sealed), padding);
        EXPECT_EQ(decrypt(largerKey, {padding}, sealed).code, AVEN_E_DECRYPTION);
        EXPECT_EQ(decrypt(key, {padding}, sealed + "x").code, AVEN_E_DECRYPTION);
        EXPECT_EQ(decrypt(key, {padding}, std::string(256, '\0')).code, AVEN_E_DECRYPTION);
        EXPECT_EQ(decrypt(key, {padding}, std::string(256, '\xff')).code, AVEN_E_DECRYPTION);
        for (size_t size = 0; size < sealed.size(); size += support::EVERY_PLACE)
            EXPECT_EQ(decrypt(key, {padding}, sealed.substr(0, size)).code, AVEN_E_DECRYPTION);
        for (size_t i = 0; i < sealed.size(); i += support::EVERY_PLACE) {
            const char flip = static_cast<char>(1 << i % 8);
            sealed[i] = static_cast<char>(sealed[i] ^ flip);
            expectRefused(decrypt(key, {padding}, sealed), padding);
            sealed[i] = static_cast<char>(sealed[i] ^ flip);
        }
        expectOpens(key, {padding}, sealed, "hello");
    }
}

// RFC 8017, section 7: one that begins with zero is as long as the others.
TEST_F(PublicKey, RsaWithoutItsLeadingZeroIsRefused)
{
    void* key = privateKey("rsa2048");
    for (int padding : {AVEN_RSA_OAEP, AVEN_RSA_PKCS1}) {
        std::string sealed;
        do
            sealed = encrypt(key, {padding}, "hello").out;
        while (sealed[0] != '\0');
        expectOpens(key, {padding}, sealed, "hello");
        EXPECT_EQ(decrypt(key, {padding}, sealed.substr(1)).code, AVEN_E_DECRYPTION);
    }
}

// ---- SM2.

// GB/T 32918.5, annex: key, text, and ciphertext in its parts.
const char STANDARD_KEY[] =
    "30770201010420"
    "3945208f7b2144b13f36e38ac6d39f95889393692860b51a42fb81ef4df7c5b8"
    "a00a06082a811ccf5501822da14403420004"
    "09f9df311e5421a150dd7d161e4bc5c672179fad1833fc076bb08ff356f35020"
    "ccea490ce26775a52dc6ea718cc1aa600aed05fbf35e084a6632f6072da9ad13";
const char STANDARD_TEXT[] = "encryption standard";
const char C1_X[] = "04ebfc718e8d1798620432268e77feb6415e2ede0e073c0f4f640ecd2e149a73";
const char C1_Y[] = "e858f9d81e5430a57b36daab8f950a3c64e6ee6a63094d99283aff767e124df0";
const char C2[] = "21886ca989ca9c7d58087307ca93092d651efa";
const char C3[] = "59983c18f809e262923c53aec295d30383b54e39d609d160afcb1908d0bd8766";

TEST_F(PublicKey, TheStandardsExampleOpensInEveryForm)
{
    void* key = nullptr;
    ASSERT_EQ(unmarshal(AVEN_KEY_SM2, toBase64(fromHex(STANDARD_KEY)), "", nullptr, &key), 0);
    const std::string x = C1_X, y = C1_Y, c2 = C2, c3 = C3;
    const std::string asn1C1 = "0220" + x + "022100" + y;
    expectOpens(key, sm2Forms[0], fromHex("307c" + asn1C1 + "0420" + c3 + "0413" + c2),
                STANDARD_TEXT);
    expectOpens(key, sm2Forms[1], fromHex("307c" + asn1C1 + "0413" + c2 + "0420" + c3),
                STANDARD_TEXT);
    expectOpens(key, sm2Forms[2], fromHex("04" + x + y + c3 + c2), STANDARD_TEXT);
    expectOpens(key, sm2Forms[3], fromHex("04" + x + y + c2 + c3), STANDARD_TEXT);
}

// The example's key, and the point with x = 1; with the field's prime added, x still has 32 bytes.
// The other parts were computed from the standard's formulas by another program.
TEST_F(PublicKey, ACoordinateBeyondTheFieldsPrimeIsRefused)
{
    void* key = nullptr;
    ASSERT_EQ(unmarshal(AVEN_KEY_SM2, toBase64(fromHex(STANDARD_KEY)), "", nullptr, &key), 0);
    const std::string y = "9f7a091433a81e3f218f405f792355bf2aa98b5ffa95982f03870800065279a3";
    const std::string c3 = "8c001dfb980cd342da2a8e108d15df4894328fbe81c2499c5171a04658e135c0";
    const std::string c2 = "a735477c4a6621b1c1d6281d";
    const std::string one = std::string(63, '0') + "1";
    const std::string beyond = "fffffffeffffffffffffffffffffffffffffffff000000010000000000000000";

    expectOpens(key, sm2Forms[2], fromHex("04" + one + y + c3 + c2), "hello, world");
    EXPECT_EQ(decrypt(key, sm2Forms[2], fromHex("04" + beyond + y + c3 + c2)).code,
              AVEN_E_DECRYPTION);
    const std::string behind = "022100" + y + "0420" + c3 + "040c" + c2;
    expectOpens(key, sm2Forms[0], fromHex("3056" + ("020101" + behind)), "hello, world");
    EXPECT_EQ(decrypt(key, sm2Forms[0], fromHex("3076022100" + beyond + behind)).code,
              AVEN_E_DECRYPTION);
}

// The example's key, and the point with x = 0, which the field's prime must not stand for, nor a
// number that is too long. The other parts were computed as above.
TEST_F(PublicKey, ACoordinateThatWouldBeTakenForZeroIsRefused)
{
    void* key = nullptr;
    ASSERT_EQ(unmarshal(AVEN_KEY_SM2, toBase64(fromHex(STANDARD_KEY)), "", nullptr, &key), 0);
    const std::string zero(64, '0');
    const std::string y = "fd4511e81736a60f07e88a83d6cf5a167fae6d1a9c9330e76e232e00f5cdc154";
    const std::string c3 = "9495a23de8fd0717ee720116a9c56d3a9c4b065790836e1c793ab1bdc63033fd";
    const std::string c2 = "38126ce3e5f0c1fa64f50ea3";
    const std::string prime = "fffffffeffffffffffffffffffffffffffffffff00000000ffffffffffffffff";

    expectOpens(key, sm2Forms[2], fromHex("04" + zero + y + c3 + c2), "hello, world");
    EXPECT_EQ(decrypt(key, sm2Forms[2], fromHex("04" + prime + y + c3 + c2)).code,
              AVEN_E_DECRYPTION);
    const std::string behind = "022100" + y + "0420" + c3 + "040c" + c2;
    expectOpens(key, sm2Forms[0], fromHex("3056020100" + behind), "hello, world");
    EXPECT_EQ(decrypt(key, sm2Forms[0], fromHex("3076022100" + prime + behind)).code,
              AVEN_E_DECRYPTION);
    EXPECT_EQ(decrypt(key, sm2Forms[0], fromHex("3076022101" + zero + behind)).code,
              AVEN_E_DECRYPTION);
}

// With the digest that would be right.
TEST_F(PublicKey, Sm2WithoutAnyTextIsRefused)
{
    void* key = nullptr;
    ASSERT_EQ(unmarshal(AVEN_KEY_SM2, toBase64(fromHex(STANDARD_KEY)), "", nullptr, &key), 0);
    const std::string one = std::string(63, '0') + "1";
    const std::string y = "9f7a091433a81e3f218f405f792355bf2aa98b5ffa95982f03870800065279a3";
    const std::string c3 = "2bbf5f5a232397c6db4115660e5c9990f1eede01c8e24ce5dc5a477367f19e8e";
    EXPECT_EQ(decrypt(key, sm2Forms[2], fromHex("04" + one + y + c3)).code, AVEN_E_DECRYPTION);
    EXPECT_EQ(decrypt(key, sm2Forms[3], fromHex("04" + one + y + c3)).code, AVEN_E_DECRYPTION);
    const std::string c1 = "304a020101022100" + y;
    EXPECT_EQ(decrypt(key, sm2Forms[0], fromHex(c1 + "0420" + c3 + "0400")).code,
              AVEN_E_DECRYPTION);
    EXPECT_EQ(decrypt(key, sm2Forms[1], fromHex(c1 + "0400" + "0420" + c3)).code,
              AVEN_E_DECRYPTION);
}

// What stands behind its end is not looked at, even if it looks like a beginning.
TEST_F(PublicKey, NothingIsNoSm2Ciphertext)
{
    void* key = privateKey("sm2");
    const unsigned char beginnings[] = {0x30, 0x04};
    for (const unsigned char& behind : beginnings) {
        for (const How& how : sm2Forms) {
            const PkeyCipherParams params = {key, how.rsaPadding, how.noAsn1, how.noC1c3c2};
            Fenced out(100);
            EXPECT_EQ(engine.aven_crypto_private_decrypt(&params, &behind, 0, out.data(), &out.len),
                      AVEN_E_DECRYPTION);
        }
    }
}

TEST_F(PublicKey, Sm2OpensInEveryFormAndFits)
{
    void* key = privateKey("sm2");
    for (const How& how : sm2Forms) {
        for (size_t size : std::initializer_list<size_t>{1, 2, 16, 31, 32, 33, 94, 95, 96, 127, 128,
                                                         255, 256, 65535, 65536, 300000}) {
            SCOPED_TRACE(size);
            const std::string text = pattern(size);
            const Result sealed = encrypt(key, how, text, size + 129);  // what type 1 is offered
            ASSERT_EQ(sealed.code, 0);
            if (how.noAsn1 == 1) {
                EXPECT_EQ(sealed.len, size + 97);
            }
            expectOpens(key, how, sealed.out, text);
        }
    }
}

TEST_F(PublicKey, Sm2OfTheEngineOpensWithOpenssl)
{
    void* key = publicKey("sm2");
    for (size_t size : std::initializer_list<size_t>{1, 19, 32, 1000, 100000}) {
        const std::string text = pattern(size);
        openssl().write("sealed", encrypt(key, {}, text).out);
        EXPECT_EQ(
            openssl().make("pkeyutl -decrypt -inkey " + keyFile("sm2") + " -in sealed -out text",
                           "text"),
            text)
            << size;
    }
}

TEST_F(PublicKey, Sm2OfOpensslOpensWithTheEngine)
{
    void* key = privateKey("sm2");
    for (size_t size : std::initializer_list<size_t>{2, 19, 32, 1000, 100000}) {
        const std::string text = pattern(size);
        openssl().write("text", text);
        const std::string sealed = openssl().make(
            "pkeyutl -encrypt -inkey " + keyFile("sm2") + " -in text -out sealed", "sealed");
        expectOpens(key, {}, sealed, text);
    }
}

TEST_F(PublicKey, AnotherSm2FormIsNamedAsTheCause)
{
    void* key = privateKey("sm2");
    for (size_t size :
         std::initializer_list<size_t>{1, 32, 64, 1000}) {  // with 32, C2 and C3 are of one size
        for (const How& made : sm2Forms) {
            const std::string sealed = encrypt(key, made, pattern(size)).out;
            for (const How& named : sm2Forms) {
                const bool same = made.noAsn1 == named.noAsn1 && made.noC1c3c2 == named.noC1c3c2;
                EXPECT_EQ(decrypt(key, named, sealed).code, same ? 0 : AVEN_E_SM2_FORM_DIFFERS);
            }
        }
    }
}

// In ASN.1 the digest is known by its length, also to who has another key.
TEST_F(PublicKey, LengthsAloneMayTellTheForm)
{
    void* other = privateKey("sm2-other");
    for (const How& made : sm2Forms) {
        const std::string sealed = encrypt(publicKey("sm2"), made, "hello, world").out;
        for (const How& named : sm2Forms) {
            const bool isTold = made.noAsn1 != named.noAsn1 ||
                                (made.noAsn1 == 0 && made.noC1c3c2 != named.noC1c3c2);
            EXPECT_EQ(decrypt(other, named, sealed).code,
                      isTold ? AVEN_E_SM2_FORM_DIFFERS : AVEN_E_DECRYPTION);
        }
    }
    // The first byte is enough.
    EXPECT_EQ(decrypt(other, sm2Forms[0], "\x04").code, AVEN_E_SM2_FORM_DIFFERS);
    EXPECT_EQ(decrypt(other, sm2Forms[2], "\x30").code, AVEN_E_SM2_FORM_DIFFERS);
}

TEST_F(PublicKey, ADamagedSm2CiphertextNeverOpens)
{
    void* key = privateKey("sm2");
    for (const How& how : sm2Forms) {
        std::string sealed = encrypt(key, how, "hello, world").out;
        for (size_t size = 0; size < sealed.size(); size += support::EVERY_PLACE) {
            const int code = decrypt(key, how, sealed.substr(0, size)).code;
            EXPECT_EQ(code, AVEN_E_DECRYPTION) << size;
        }
        EXPECT_EQ(decrypt(key, how, sealed + "x").code, AVEN_E_DECRYPTION);
        EXPECT_EQ(decrypt(privateKey("sm2-other"), how, sealed).code, AVEN_E_DECRYPTION);
        for (size_t i = 0; i < sealed.size() * 8; i += support::EVERY_PLACE) {
            char& byte = sealed[i / 8];
            const char flip = static_cast<char>(1 << i % 8);
            byte = static_cast<char>(byte ^ flip);
            const int code = decrypt(key, how, sealed).code;
            EXPECT_EQ(code, AVEN_E_DECRYPTION) << i;
            byte = static_cast<char>(byte ^ flip);
        }
        expectOpens(key, how, sealed, "hello, world");
    }
}

TEST_F(PublicKey, Sm2DoesNotEncryptNothing)
{
    for (const How& how : sm2Forms)
        EXPECT_EQ(encrypt(publicKey("sm2"), how, "").code, AVEN_E_INPUT_EMPTY);
    EXPECT_EQ(decrypt(privateKey("sm2"), {}, "").code, AVEN_E_DECRYPTION);
}

// A key stream of zeros would leave one text in 256 as it is.
TEST_F(PublicKey, AShortTextIsNeverLeftAsItIs)
{
    void* key = publicKey("sm2");
    for (int i = 0; i < 1000; ++i) {
        const Result sealed = encrypt(key, sm2Forms[2], "A");
        ASSERT_EQ(sealed.len, 98U);
        ASSERT_NE(sealed.out[97], 'A');
    }
}

// ---- What is refused, whatever the key.

TEST_F(PublicKey, UnknownNumbersAreRefused)
{
    void* rsa = privateKey("rsa2048");
    void* sm2 = privateKey("sm2");
    for (int number : {-1, 2, 3, INT32_MAX, INT32_MIN}) {
        EXPECT_EQ(encrypt(rsa, {number}, "x").code, AVEN_E_RSA_PADDING);
        EXPECT_EQ(decrypt(rsa, {number}, "x").code, AVEN_E_RSA_PADDING);
        for (const How& how : {How{0, number, 0}, How{0, 0, number}}) {
            EXPECT_EQ(encrypt(sm2, how, "x").code, AVEN_E_SM2_FORM);
            EXPECT_EQ(decrypt(sm2, how, "x").code, AVEN_E_SM2_FORM);
        }
    }
}

TEST_F(PublicKey, APublicKeyDoesNotDecrypt)
{
    for (const char* name : {"sm2", "rsa2048"}) {
        const std::string sealed = encrypt(publicKey(name), {}, "hello").out;
        EXPECT_EQ(decrypt(publicKey(name), {}, sealed).code, AVEN_E_KEY_NOT_PRIVATE);
    }
}

TEST_F(PublicKey, AHandleThatIsNoKeyPairsIsRefused)
{
    void* freed = privateKey("sm2");
    engine.aven_keypair_free(freed);
    int foreign = 0;
    for (void* handle : {freed, static_cast<void*>(&foreign), certificate("sm2")}) {
        EXPECT_EQ(encrypt(handle, {}, "x").code, AVEN_E_HANDLE);
        EXPECT_EQ(decrypt(handle, {}, "x").code, AVEN_E_HANDLE);
    }
    EXPECT_EQ(encrypt(nullptr, {}, "x").code, AVEN_E_NULL_POINTER);
    EXPECT_EQ(decrypt(nullptr, {}, "x").code, AVEN_E_NULL_POINTER);
}

TEST_F(PublicKey, NullPointersAreRefused)
{
    const PkeyCipherParams params = {privateKey("sm2"), 0, 0, 0};
    support::expectNullsRefused(engine.aven_crypto_public_encrypt, params);
    support::expectNullsRefused(engine.aven_crypto_private_decrypt, params);
    unsigned char byte = 0;
    uint32_t len = 500;
    EXPECT_EQ(engine.aven_crypto_public_encrypt(&params, &byte, 1, nullptr, &len),
              AVEN_E_NULL_POINTER);
}

TEST_F(PublicKey, CapacitiesAreHeeded)
{
    for (const char* name : {"sm2", "rsa2048"}) {
        void* key = privateKey(name);
        const How how = {0, 1, 0};  // raw: its length does not vary
        const std::string text = pattern(20);
        const Result whole = encrypt(key, how, text);
        ASSERT_EQ(whole.code, 0);
        EXPECT_EQ(encrypt(key, how, text, whole.len).code, 0);
        for (size_t capacity : {size_t{0}, size_t{1}, size_t{whole.len - 1}}) {
            const Result less = encrypt(key, how, text, capacity);
            EXPECT_EQ(less.code, AVEN_E_BUFFER_TOO_SMALL);
            EXPECT_EQ(less.len, whole.len);
        }
        EXPECT_EQ(decrypt(key, how, whole.out, 20).out, text);
        for (size_t capacity : std::initializer_list<size_t>{0, 1, 19}) {
            const Result less = decrypt(key, how, whole.out, capacity);
            EXPECT_EQ(less.code, AVEN_E_BUFFER_TOO_SMALL);
            EXPECT_EQ(less.len, 20U);
        }
    }
}

// Each allocation fails once. libcrypto can do without some: then what comes out is right. Its RSA
// keys may fail from then on.
TEST_F(PublicKey, WithoutMemoryNothingWrongComesOut)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    for (const char* name : {"sm2", "rsa2048"}) {
        SCOPED_TRACE(name);
        const std::string text = "hello, world";
        const PkeyCipherParams params = {privateKey(name), AVEN_RSA_OAEP, 0, 0};
        const Exact in(text), sealed(encrypt(params.keypair, {}, text).out);
        const auto failEach = [](const auto& call, const auto& expectRight) {
            const doubles::Journal journal = {};
            bool struck = true;
            for (size_t n = 1; struck; ++n) {
                SCOPED_TRACE(n);
                Fenced out(1024);
                int code = 0;
                {
                    const auto fault = support::AllocationFault::nth(journal, n);
                    code = call(out);
                    struck = fault.struck();
                }
                const Result result = resultOf(code, out);
                if (code == 0)
                    expectRight(result.out);
            }
        };
        failEach(
            [&](Fenced& out) {
                return engine.aven_crypto_public_encrypt(&params, in.data(), in.size(), out.data(),
                                                         &out.len);
            },
            [&](const std::string& out) { expectOpens(privateKey(name), {}, out, text); });
        failEach(
            [&](Fenced& out) {
                return engine.aven_crypto_private_decrypt(&params, sealed.data(), sealed.size(),
                                                          out.data(), &out.len);
            },
            [&](const std::string& out) { EXPECT_EQ(out, text); });
    }
}

TEST_F(PublicKey, AnEngineThatIsNotRunningIsReported)
{
    void* key = privateKey("sm2");
    engine.aven_global_cleanup();
    EXPECT_EQ(encrypt(key, {}, "x").code, AVEN_E_NOT_INITIALISED);
    EXPECT_EQ(decrypt(key, {}, "x").code, AVEN_E_NOT_INITIALISED);
}

TEST_F(PublicKey, OneKeyServesManyThreads)
{
    void* const keys[] = {privateKey("sm2"), privateKey("rsa2048")};
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (unsigned i = 0; i < 25; ++i) {
                const std::string text = pattern(40, t * 100 + i);
                for (void* key : keys) {
                    const How how = {static_cast<int>(i % 2), static_cast<int>(i / 2 % 2), 0};
                    expectOpens(key, how, encrypt(key, how, text).out, text);
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

// What libcrypto keeps for a thread that has used a key must not be left to the thread's
// end, which may come after the engine's.
TEST_F(PublicKey, ThreadsMayOutliveTheEngine)
{
    for (const char* name : {"sm2", "rsa2048"}) {
        void* key = privateKey(name);
        std::promise<void> used, stopped;
        std::thread thread([&] {
            expectOpens(key, {}, encrypt(key, {}, "hello").out, "hello");
            used.set_value();
            stopped.get_future().wait();
        });
        used.get_future().wait();
        EXPECT_EQ(engine.aven_global_cleanup(), 0);
        stopped.set_value();
        thread.join();
        EXPECT_EQ(engine.aven_global_init(), 0);
    }
}

}  // namespace
