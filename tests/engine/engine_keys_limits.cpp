// What a key of the development engine may cost: the work behind a password, the length of a
// text, the size of RSA's numbers.
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <string>

#include "support/der.h"
#include "support/key_reading.h"

namespace {

using support::certificatePem;
using support::derOf;
using support::Keys;
using support::oid;
using support::pattern;
using support::privatePem;
using support::publicPem;
using support::tlv;
using support::toBase64;

// ---- What a password may cost.

// An encrypted key with a hundred bytes that are none.
std::string encryptedKey(X509_ALGOR* encryption)
{
    X509_SIG* sealed = X509_SIG_new();
    X509_ALGOR* algorithm = nullptr;
    ASN1_OCTET_STRING* content = nullptr;
    X509_SIG_getm(sealed, &algorithm, &content);
    X509_ALGOR_copy(algorithm, encryption);
    const std::string bytes = pattern(96);
    ASN1_OCTET_STRING_set(content, reinterpret_cast<const unsigned char*>(bytes.data()), 96);
    unsigned char* der = nullptr;
    const int size = i2d_X509_SIG(sealed, &der);
    const std::string text =
        toBase64(std::string(reinterpret_cast<char*>(der), static_cast<size_t>(size)));
    OPENSSL_free(der);
    X509_SIG_free(sealed);
    X509_ALGOR_free(encryption);
    return text;
}

// Replaces an algorithm's parameters by those in `form`.
template <class Form>
void setParameters(X509_ALGOR* algorithm, const Form* form, const ASN1_ITEM* item)
{
    ASN1_TYPE* packed = ASN1_TYPE_pack_sequence(item, const_cast<Form*>(form), nullptr);
    ASN1_TYPE_free(algorithm->parameter);
    algorithm->parameter = packed;
}

template <class Form>
Form* parametersOf(const X509_ALGOR* algorithm, const ASN1_ITEM* item)
{
    return static_cast<Form*>(ASN1_TYPE_unpack_sequence(item, algorithm->parameter));
}

void setDecimal(ASN1_INTEGER* integer, const std::string& decimal)
{
    BIGNUM* number = nullptr;
    BN_dec2bn(&number, decimal.c_str());
    BN_to_ASN1_INTEGER(number, integer);
    BN_free(number);
}

// `change` gets the key derivation's parameters.
template <class Form, class Change>
std::string pbes2Key(X509_ALGOR* encryption, const ASN1_ITEM* item, Change change)
{
    auto* scheme = parametersOf<PBE2PARAM>(encryption, ASN1_ITEM_rptr(PBE2PARAM));
    auto* form = parametersOf<Form>(scheme->keyfunc, item);
    change(*form);
    setParameters(scheme->keyfunc, form, item);
    setParameters(encryption, scheme, ASN1_ITEM_rptr(PBE2PARAM));
    ASN1_item_free(reinterpret_cast<ASN1_VALUE*>(form), item);
    PBE2PARAM_free(scheme);
    return encryptedKey(encryption);
}

unsigned char salt[] = "12345678";

X509_ALGOR* pbkdf2Algorithm()
{
    return PKCS5_pbe2_set_iv(EVP_aes_256_cbc(), 1, salt, 8, nullptr, NID_hmacWithSHA256);
}

std::string pbkdf2Key(const std::string& iterations)
{
    return pbes2Key<PBKDF2PARAM>(pbkdf2Algorithm(), ASN1_ITEM_rptr(PBKDF2PARAM),
                                 [&](PBKDF2PARAM& form) { setDecimal(form.iter, iterations); });
}

std::string pbes1Key(const std::string& iterations)
{
    X509_ALGOR* encryption = PKCS5_pbe_set(NID_pbe_WithSHA1And3_Key_TripleDES_CBC, 1, salt, 8);
    auto* form = parametersOf<PBEPARAM>(encryption, ASN1_ITEM_rptr(PBEPARAM));
    setDecimal(form->iter, iterations);
    setParameters(encryption, form, ASN1_ITEM_rptr(PBEPARAM));
    PBEPARAM_free(form);
    return encryptedKey(encryption);
}

struct Scrypt {
    std::string n, r, p;
};

std::string scryptKey(const Scrypt& cost)
{
    return pbes2Key<SCRYPT_PARAMS>(
        PKCS5_pbe2_set_scrypt(EVP_aes_256_cbc(), salt, 8, nullptr, 2, 1, 1),
        ASN1_ITEM_rptr(SCRYPT_PARAMS), [&](SCRYPT_PARAMS& form) {
            setDecimal(form.costParameter, cost.n);
            setDecimal(form.blockSize, cost.r);
            setDecimal(form.parallelizationParameter, cost.p);
        });
}

TEST_F(Keys, IterationsAreLimited)
{
    const std::string limit = std::to_string(AVEN_KEY_ITERATIONS_MAX);
    const std::string beyond[] = {std::to_string(AVEN_KEY_ITERATIONS_MAX + 1),
                                  "2147483647",
                                  "2147483648",
                                  "4294967297",  // 1 in 32 bits
                                  "9223372036854775807",
                                  "18446744073709551617",
                                  "1" + std::string(1000, '0')};
    for (const auto make : {pbkdf2Key, pbes1Key}) {
        EXPECT_EQ(readPrivate(make("1"), "word"), AVEN_E_PASSWORD_WRONG);
        // Whether it may be tried is known without trying.
        EXPECT_EQ(readPrivate(make(limit)), AVEN_E_PASSWORD_MISSING);
        for (const std::string& iterations : beyond) {
            EXPECT_EQ(readPrivate(make(iterations)), AVEN_E_KEY_COST) << iterations;
            EXPECT_EQ(readPrivate(make(iterations), "word"), AVEN_E_KEY_COST) << iterations;
        }
        for (const char* iterations : {"0", "-1", "-2147483648"})
            EXPECT_EQ(readPrivate(make(iterations), "word"), AVEN_E_KEY_TEXT) << iterations;
    }
}

TEST_F(Keys, ScryptIsLimitedInTimeAndMemory)
{
    EXPECT_EQ(readPrivate(scryptKey({"2", "1", "1"}), "word"), AVEN_E_PASSWORD_WRONG);
    // The most memory that libcrypto takes, too.
    EXPECT_EQ(readPrivate(scryptKey({"16", "13797", "1"}), "word"), AVEN_E_PASSWORD_WRONG);
    const Scrypt within[] = {
        {"16384", "8", "1"},   // what openssl takes
        {"16384", "8", "8"},   // the most time
        {"32768", "1", "32"},  // the same in another way
        {"2", "8", "32764"},   // the most memory
        {"65536", "1", "1"},
    };
    for (const Scrypt& cost : within) {
        EXPECT_EQ(readPrivate(scryptKey(cost)), AVEN_E_PASSWORD_MISSING)
            << cost.n << " " << cost.r << " " << cost.p;
    }
    const std::string huge = "1" + std::string(30, '0');
    const Scrypt beyond[] = {
        {"16384", "8", "9"},
        {"32768", "1", "33"},
        {"16384", "1", "131072"},  // most of an hour
        {"32768", "8", "1"},       // 32 MiB and a little
        {"2", "8", "32765"},
        {"16", "13798", "1"},
        {"4", "65536", "1"},
        {"2", "1", "1048576"},
        {"1048576", "1", "1"},
        {"4294967296", "4294967296", "1"},
        {"9223372036854775808", "2", "1"},
        {huge, "1", "1"},
        {"2", huge, "1"},
        {"2", "1", huge},
    };
    for (const Scrypt& cost : beyond) {
        EXPECT_EQ(readPrivate(scryptKey(cost), "word"), AVEN_E_KEY_COST)
            << cost.n << " " << cost.r << " " << cost.p;
    }
    for (const Scrypt& cost : {Scrypt{"0", "1", "1"}, {"2", "0", "1"}, {"2", "1", "-1"}})
        EXPECT_EQ(readPrivate(scryptKey(cost), "word"), AVEN_E_KEY_TEXT);
    EXPECT_EQ(readPrivate(scryptKey({"3", "1", "1"}), "word"), AVEN_E_KEY_ENCRYPTION);
}

TEST_F(Keys, DerivedKeysAreAsLongAsTheCiphers)
{
    for (const char* length : {"31", "33", "1073741824", "4294967328", "-1"}) {
        const std::string key = pbes2Key<PBKDF2PARAM>(
            pbkdf2Algorithm(), ASN1_ITEM_rptr(PBKDF2PARAM), [&](PBKDF2PARAM& form) {
                form.keylength = ASN1_INTEGER_new();
                setDecimal(form.keylength, length);
            });
        EXPECT_EQ(readPrivate(key, "word"), AVEN_E_KEY_ENCRYPTION) << length;
    }
}

// ---- What is sealed, and how.

// EncryptedPrivateKeyInfo of any algorithm.
std::string sealedBy(const std::string& algorithm, const std::string& sealed)
{
    return toBase64(tlv(0x30, tlv(0x30, algorithm) + tlv(0x04, sealed)));
}

const std::string AES_256_CBC = tlv(0x30, oid("2.16.840.1.101.3.4.1.42") + tlv(0x04, pattern(16)));

TEST_F(Keys, ParametersOfAnEncryptionAreASequence)
{
    const std::string sealed = pattern(96);
    const std::string pbes1 = oid("1.2.840.113549.1.12.1.3"), pbes2 = oid("1.2.840.113549.1.5.13");
    const std::string parameters = tlv(0x04, "12345678") + tlv(0x02, "\1");
    EXPECT_EQ(readPrivate(sealedBy(pbes1 + tlv(0x30, parameters), sealed)),
              AVEN_E_PASSWORD_MISSING);
    for (const std::string& wrong :
         {std::string(), tlv(0x05, ""), tlv(0x30, ""), tlv(0x04, tlv(0x30, parameters))}) {
        EXPECT_EQ(readPrivate(sealedBy(pbes1 + wrong, sealed)), AVEN_E_KEY_TEXT);
        EXPECT_EQ(readPrivate(sealedBy(pbes2 + wrong, sealed)), AVEN_E_KEY_TEXT);
    }
}

TEST_F(Keys, AnUnknownDerivationIsRefused)
{
    const std::string derivation = tlv(0x30, oid("1.2.3.4") + tlv(0x30, ""));
    const std::string text =
        sealedBy(oid("1.2.840.113549.1.5.13") + tlv(0x30, derivation + AES_256_CBC), pattern(96));
    EXPECT_EQ(readPrivate(text), AVEN_E_KEY_ENCRYPTION);
    EXPECT_EQ(readPrivate(text, "word"), AVEN_E_KEY_ENCRYPTION);
}

// Bytes of any kind, padded or not, under PBES2 and the password "word".
std::string sealedBytes(const std::string& bytes, bool isPadded)
{
    unsigned char key[32];
    PKCS5_PBKDF2_HMAC("word", 4, salt, 8, 1, EVP_sha256(), sizeof key, key);
    const std::string iv = pattern(16);
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(context, EVP_aes_256_cbc(), nullptr, key,
                       reinterpret_cast<const unsigned char*>(iv.data()));
    EVP_CIPHER_CTX_set_padding(context, isPadded ? 1 : 0);
    std::string sealed(bytes.size() + 16, '\0');
    int size = 0, last = 0;
    auto* out = reinterpret_cast<unsigned char*>(sealed.data());
    EVP_EncryptUpdate(context, out, &size, reinterpret_cast<const unsigned char*>(bytes.data()),
                      static_cast<int>(bytes.size()));
    EXPECT_EQ(EVP_EncryptFinal_ex(context, out + size, &last), 1);
    EVP_CIPHER_CTX_free(context);
    sealed.resize(static_cast<size_t>(size + last));

    const std::string hash = tlv(0x30, oid("1.2.840.113549.2.9") + tlv(0x05, ""));
    const std::string derivation =
        tlv(0x30, oid("1.2.840.113549.1.5.12") +
                      tlv(0x30, tlv(0x04, std::string(salt, salt + 8)) + tlv(0x02, "\1") + hash));
    return sealedBy(oid("1.2.840.113549.1.5.13") + tlv(0x30, derivation + AES_256_CBC), sealed);
}

TEST_F(Keys, WhatIsSealedIsAWholeKeyWithRightPadding)
{
    const std::string der = derOf(privatePem("sm2"));
    EXPECT_EQ(readPrivate(sealedBytes(der, true), "word"), 0);
    for (size_t missing : {size_t{1}, size_t{10}, size_t{64}}) {
        EXPECT_EQ(readPrivate(sealedBytes(der.substr(0, der.size() - missing), true), "word"),
                  AVEN_E_PASSWORD_WRONG)
            << missing;
    }
    // A block behind the key that is no padding.
    const std::string whole = der + std::string(32 - der.size() % 16, '\0');
    EXPECT_EQ(readPrivate(sealedBytes(whole, false), "word"), AVEN_E_PASSWORD_WRONG);
}

// RFC 7292, appendix B.2, repeats both up to whole blocks of 64 bytes; the password is in UTF-16
// and ends with two zeros.
TEST_F(Keys, Pbes1TakesPasswordsAndSaltsOfAnyLength)
{
    const std::string der = derOf(privatePem("sm2"));
    const auto* at = reinterpret_cast<const unsigned char*>(der.data());
    PKCS8_PRIV_KEY_INFO* info =
        d2i_PKCS8_PRIV_KEY_INFO(nullptr, &at, static_cast<long>(der.size()));
    std::string anySalt = pattern(129);
    for (int scheme :
         {NID_pbe_WithSHA1And3_Key_TripleDES_CBC, NID_pbe_WithSHA1And2_Key_TripleDES_CBC}) {
        const auto expectRead = [&](const std::string& password, size_t saltSize) {
            X509_ALGOR* algorithm =
                PKCS5_pbe_set(scheme, 2, reinterpret_cast<unsigned char*>(anySalt.data()),
                              static_cast<int>(saltSize));
            X509_SIG* sealed = PKCS8_set0_pbe(password.c_str(), static_cast<int>(password.size()),
                                              info, algorithm);
            ASSERT_NE(sealed, nullptr);
            unsigned char* out = nullptr;
            const int size = i2d_X509_SIG(sealed, &out);
            const std::string text(reinterpret_cast<char*>(out), static_cast<size_t>(size));
            OPENSSL_free(out);
            X509_SIG_free(sealed);
            EXPECT_EQ(readPrivate(toBase64(text), password.c_str()), 0)
                << password << ", salt of " << saltSize;
        };
        for (size_t size : {1, 7, 30, 31, 32, 62, 63, 64})
            expectRead(std::string(size, 'p'), 8);
        expectRead("p\u00E4\u00DF \u5BC6\u7801", 8);
        for (size_t size : {1, 20, 63, 64, 65, 128, 129})
            expectRead("word", size);
    }
    PKCS8_PRIV_KEY_INFO_free(info);
}

TEST_F(Keys, TextsAreLimitedInLength)
{
    const std::string privateText = privatePem("sm2"), publicText = publicPem("sm2"),
                      certificate = certificatePem("sm2");
    // PEM may have text before it.
    const auto before = [](const std::string& pem, size_t size) {
        return std::string(size - pem.size(), 'x') + pem;
    };
    EXPECT_EQ(readPrivate(before(privateText, AVEN_KEY_TEXT_MAX)), 0);
    EXPECT_EQ(readPublic(before(publicText, AVEN_KEY_TEXT_MAX)), 0);
    EXPECT_EQ(readPublic(before(certificate, AVEN_KEY_TEXT_MAX)), 0);
    EXPECT_EQ(readCertificate(before(certificate, AVEN_KEY_TEXT_MAX)), 0);
    EXPECT_EQ(readPrivate(before(privateText, AVEN_KEY_TEXT_MAX + 1)), AVEN_E_INPUT_TOO_LONG);
    EXPECT_EQ(readPublic(before(publicText, AVEN_KEY_TEXT_MAX + 1)), AVEN_E_INPUT_TOO_LONG);
    EXPECT_EQ(readPublic(before(certificate, AVEN_KEY_TEXT_MAX + 1)), AVEN_E_INPUT_TOO_LONG);
    EXPECT_EQ(readCertificate(before(certificate, AVEN_KEY_TEXT_MAX + 1)), AVEN_E_INPUT_TOO_LONG);
    EXPECT_EQ(readCertificate(std::string(10 << 20, 'A')), AVEN_E_INPUT_TOO_LONG);
}

// An RSA key whose numbers have all bits set.
std::string rsaPublic(size_t modulusBits, size_t exponentBits)
{
    const auto number = [](size_t bits) {
        return tlv(0x02,
                   std::string(bits % 8 == 0 ? 1 : 0, '\0') +
                       std::string(bits % 8 == 0 ? 0 : 1, static_cast<char>((1 << bits % 8) - 1)) +
                       std::string(bits / 8, '\xFF'));
    };
    const std::string key = tlv(0x30, number(modulusBits) + number(exponentBits));
    return toBase64(tlv(0x30, tlv(0x30, oid("1.2.840.113549.1.1.1") + tlv(0x05, "")) +
                                  tlv(0x03, std::string(1, '\0') + key)));
}

TEST_F(Keys, RsaNumbersAreLimitedInSize)
{
    EXPECT_EQ(readPublic(rsaPublic(4096, 64)), 0);
    EXPECT_EQ(readPublic(rsaPublic(2048, 64)), 0);
    EXPECT_EQ(readPublic(rsaPublic(2048, 2)), 0);
    for (size_t bits : {1u, 65u, 2048u, 16384u})
        EXPECT_EQ(readPublic(rsaPublic(2048, bits)), AVEN_E_KEY_INVALID) << bits;
    for (size_t bits : {4097u, 16384u, 16385u, 100000u})
        EXPECT_EQ(readPublic(rsaPublic(bits, 17)), AVEN_E_RSA_SIZE) << bits;
}

}  // namespace
