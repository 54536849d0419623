#include "encrypted_key.h"

#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pkcs12.h>

#include <algorithm>

#include "engine/asn1_form.h"
#include "engine/engine_numbers.h"
#include "engine/secret_bytes.h"

namespace {

using Pbes1 = Asn1<PBEPARAM, PBEPARAM_it>;
using Pbes2 = Asn1<PBE2PARAM, PBE2PARAM_it>;
using Pbkdf2 = Asn1<PBKDF2PARAM, PBKDF2PARAM_it>;
using Scrypt = Asn1<SCRYPT_PARAMS, SCRYPT_PARAMS_it>;

int identifierOf(const X509_ALGOR* algorithm)
{
    const ASN1_OBJECT* object = nullptr;
    X509_ALGOR_get0(&object, nullptr, nullptr, algorithm);
    return OBJ_obj2nid(object);
}

// An algorithm's parameters, which are a sequence.
template <class Form>
typename Form::Owner parametersOf(const X509_ALGOR* algorithm)
{
    int type = V_ASN1_UNDEF;
    const void* value = nullptr;
    X509_ALGOR_get0(nullptr, &type, &value, algorithm);
    require(type == V_ASN1_SEQUENCE, AVEN_E_KEY_TEXT);
    return Form::read(contentOf(static_cast<const ASN1_STRING*>(value)), AVEN_E_KEY_TEXT,
                      AVEN_E_KEY_TEXT);
}

using Cipher = Owned<EVP_CIPHER_free, EVP_CIPHER>;
using CipherContext = Owned<EVP_CIPHER_CTX_free, EVP_CIPHER_CTX>;

// The cipher of a password-based encryption, null if the context lacks it. libcrypto would look
// for a missing one in the process's default context, and thereby set that up.
Cipher cipherOf(const Engine& engine, const X509_ALGOR* encryption)
{
    int cipher = NID_undef;
    if (identifierOf(encryption) == NID_pbes2)
        cipher = identifierOf(parametersOf<Pbes2>(encryption)->encryption);
    else
        EVP_PBE_find(EVP_PBE_TYPE_OUTER, identifierOf(encryption), &cipher, nullptr, nullptr);
    if (cipher <= NID_undef)
        return nullptr;
    return Cipher(EVP_CIPHER_fetch(engine.library(), OBJ_nid2sn(cipher), nullptr));
}

// ---- What it costs to try a password.

// A count is 1 or more. One of more than 64 bits is as good as the largest.
uint64_t countOf(const ASN1_INTEGER* integer)
{
    require(ASN1_STRING_type(integer) == V_ASN1_INTEGER, AVEN_E_KEY_TEXT);  // not negative
    uint64_t count = 0;
    if (ASN1_INTEGER_get_uint64(&count, integer) != 1)
        return UINT64_MAX;
    require(count > 0, AVEN_E_KEY_TEXT);
    return count;
}

void checkIterations(const ASN1_INTEGER* iterations)
{
    require(countOf(iterations) <= AVEN_KEY_ITERATIONS_MAX, AVEN_E_KEY_COST);
}

// RFC 7914. Each of the three is bounded first, so that no product overflows.
void checkScrypt(const SCRYPT_PARAMS& parameters)
{
    const uint64_t n = countOf(parameters.costParameter);
    const uint64_t r = countOf(parameters.blockSize);
    const uint64_t p = countOf(parameters.parallelizationParameter);
    constexpr uint64_t limit = AVEN_KEY_SCRYPT_MAX;
    require(n <= limit && r <= limit && p <= limit, AVEN_E_KEY_COST);
    require(n * r * p <= limit, AVEN_E_KEY_COST);
    require(128 * r * (n + p + 2) <= AVEN_KEY_SCRYPT_MEMORY_MAX, AVEN_E_KEY_COST);
}

void checkCost(const X509_ALGOR* encryption)
{
    if (identifierOf(encryption) != NID_pbes2) {
        checkIterations(parametersOf<Pbes1>(encryption)->iter);
        return;
    }
    const Pbes2::Owner pbes2 = parametersOf<Pbes2>(encryption);
    const int derivation = identifierOf(pbes2->keyfunc);
    if (derivation == NID_id_pbkdf2)
        checkIterations(parametersOf<Pbkdf2>(pbes2->keyfunc)->iter);
    else if (derivation == NID_id_scrypt)
        checkScrypt(*parametersOf<Scrypt>(pbes2->keyfunc));
    else
        throw Failure{AVEN_E_KEY_ENCRYPTION};
}

// ---- PBES1 with 3DES, whose keys come from PKCS#12's derivation. libcrypto's own leaves the
// password in freed memory.

bool isPkcs12(const X509_ALGOR* encryption)
{
    const int scheme = identifierOf(encryption);
    return scheme == NID_pbe_WithSHA1And3_Key_TripleDES_CBC ||
           scheme == NID_pbe_WithSHA1And2_Key_TripleDES_CBC;
}

constexpr size_t SHA1_BLOCK = 64;
constexpr size_t SHA1_SIZE = 20;

// In UTF-16, high byte first, with two zeros at its end.
SecretBytes widePassword(const char* password)
{
    int size = 0;
    unsigned char* wide = OPENSSL_utf82uni(password, -1, nullptr, &size);
    require(wide != nullptr, AVEN_E_NO_MEMORY);
    const struct Wipe {
        unsigned char* bytes;
        size_t size;
        ~Wipe() { OPENSSL_clear_free(bytes, size); }
    } owner = {wide, static_cast<size_t>(size)};
    return SecretBytes(wide, wide + size);
}

// Appends the bytes over and over, up to whole blocks.
void appendBlocks(SecretBytes& to, Bytes bytes)
{
    const size_t size = (bytes.size + SHA1_BLOCK - 1) / SHA1_BLOCK * SHA1_BLOCK;
    for (size_t i = 0; i < size; ++i)
        to.push_back(bytes.data[i % bytes.size]);
}

// Adds the sum, repeated up to a block, and 1 to each block from the second on.
void addToBlocks(SecretBytes& blocks, const unsigned char* sum)
{
    for (size_t begin = SHA1_BLOCK; begin < blocks.size(); begin += SHA1_BLOCK) {
        unsigned int carry = 1;
        for (size_t i = SHA1_BLOCK; i-- > 0; carry >>= 8) {
            carry += blocks[begin + i] + unsigned{sum[i % SHA1_SIZE]};
            blocks[begin + i] = static_cast<unsigned char>(carry);
        }
    }
}

// RFC 7292, appendix B.2. `purpose` is 1 for a key, 2 for an IV.
SecretBytes derivePkcs12(const EVP_MD* sha1, unsigned char purpose, Bytes password,
                         const PBEPARAM& parameters, int size)
{
    const Owned<EVP_MD_CTX_free, EVP_MD_CTX> context(EVP_MD_CTX_new());
    require(context != nullptr, AVEN_E_NO_MEMORY);
    const uint64_t rounds = countOf(parameters.iter);
    SecretBytes blocks(SHA1_BLOCK, purpose);
    appendBlocks(blocks, contentOf(parameters.salt));
    appendBlocks(blocks, password);

    SecretBytes out(static_cast<size_t>(size));
    SecretBytes sum(SHA1_SIZE);
    for (size_t at = 0; at < out.size(); at += SHA1_SIZE) {
        Bytes in = view(blocks);
        for (uint64_t round = 0; round < rounds; ++round, in = view(sum))
            require(EVP_DigestInit_ex2(context.get(), sha1, nullptr) == 1 &&
                        EVP_DigestUpdate(context.get(), in.data, in.size) == 1 &&
                        EVP_DigestFinal_ex(context.get(), sum.data(), nullptr) == 1,
                    AVEN_E_INTERNAL);
        std::copy_n(sum.begin(), std::min(SHA1_SIZE, out.size() - at), out.data() + at);
        addToBlocks(blocks, sum.data());
    }
    return out;
}

bool startPkcs12(const Engine& engine, const X509_ALGOR* encryption, const EVP_CIPHER* cipher,
                 const char* password, EVP_CIPHER_CTX* context)
{
    const Owned<EVP_MD_free, EVP_MD> sha1(EVP_MD_fetch(engine.library(), "SHA1", nullptr));
    require(sha1 != nullptr, AVEN_E_NO_MEMORY);
    const Pbes1::Owner parameters = parametersOf<Pbes1>(encryption);
    const SecretBytes wide = widePassword(password);
    const SecretBytes key = derivePkcs12(sha1.get(), PKCS12_KEY_ID, view(wide), *parameters,
                                         EVP_CIPHER_get_key_length(cipher));
    const SecretBytes iv = derivePkcs12(sha1.get(), PKCS12_IV_ID, view(wide), *parameters,
                                        EVP_CIPHER_get_iv_length(cipher));
    return EVP_CipherInit_ex2(context, cipher, key.data(), iv.data(), 0, nullptr) == 1;
}

// ---- Trying the password.

// Decrypts what is sealed. Wrong padding is what a wrong password leaves, most of the time.
SecretBytes decrypted(const Engine& engine, const X509_ALGOR* encryption, const EVP_CIPHER* cipher,
                      Bytes sealed, const char* password)
{
    const CipherContext context(EVP_CIPHER_CTX_new());
    require(context != nullptr, AVEN_E_NO_MEMORY);
    const bool started =
        isPkcs12(encryption)
            ? startPkcs12(engine, encryption, cipher, password, context.get())
            : EVP_PBE_CipherInit_ex(encryption->algorithm, password, -1, encryption->parameter,
                                    context.get(), 0, engine.library(), nullptr) == 1;
    require(started, AVEN_E_KEY_ENCRYPTION);

    SecretBytes out(sealed.size + EVP_MAX_BLOCK_LENGTH);
    int size = 0;
    int last = 0;
    require(EVP_CipherUpdate(context.get(), out.data(), &size, sealed.data,
                             static_cast<int>(sealed.size)) == 1 &&
                EVP_CipherFinal_ex(context.get(), out.data() + size, &last) == 1,
            AVEN_E_PASSWORD_WRONG);
    out.resize(static_cast<size_t>(size) + static_cast<size_t>(last));
    return out;
}

}  // namespace

PrivateKeyInfo decryptPkcs8(const Engine& engine, Bytes der, const char* password)
{
    const unsigned char* p = der.data;
    const Owned<X509_SIG_free, X509_SIG> sealed(
        d2i_X509_SIG(nullptr, &p, static_cast<long>(der.size)));
    require(sealed != nullptr, AVEN_E_KEY_TEXT);
    const X509_ALGOR* encryption = nullptr;
    const ASN1_OCTET_STRING* content = nullptr;
    X509_SIG_get0(sealed.get(), &encryption, &content);
    const Cipher cipher = cipherOf(engine, encryption);
    require(cipher != nullptr, AVEN_E_KEY_ENCRYPTION);
    checkCost(encryption);
    require(password != nullptr, AVEN_E_PASSWORD_MISSING);

    // libcrypto's own decryption would not wipe what comes out of a damaged key.
    const SecretBytes opened =
        decrypted(engine, encryption, cipher.get(), contentOf(content), password);
    const unsigned char* inner = opened.data();
    PrivateKeyInfo info(d2i_PKCS8_PRIV_KEY_INFO(nullptr, &inner, static_cast<long>(opened.size())));
    require(info != nullptr, AVEN_E_PASSWORD_WRONG);
    return info;
}
