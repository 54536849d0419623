#include "encrypted_key.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pkcs12.h>

#include "engine/asn1_form.h"
#include "engine/engine_numbers.h"

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

// Whether the context has the cipher of a password-based encryption. libcrypto would look
// for a missing one in the process's default context, and thereby set that up.
bool hasCipherOf(const Engine& engine, const X509_ALGOR* encryption)
{
    int cipher = NID_undef;
    if (identifierOf(encryption) == NID_pbes2)
        cipher = identifierOf(parametersOf<Pbes2>(encryption)->encryption);
    else
        EVP_PBE_find(EVP_PBE_TYPE_OUTER, identifierOf(encryption), &cipher, nullptr, nullptr);
    if (cipher <= NID_undef)
        return false;
    return Owned<EVP_CIPHER_free, EVP_CIPHER>(
               EVP_CIPHER_fetch(engine.library(), OBJ_nid2sn(cipher), nullptr)) != nullptr;
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

}  // namespace

PrivateKeyInfo decryptPkcs8(const Engine& engine, Bytes der, const char* password)
{
    const unsigned char* p = der.data;
    const Owned<X509_SIG_free, X509_SIG> sealed(
        d2i_X509_SIG(nullptr, &p, static_cast<long>(der.size)));
    require(sealed != nullptr, AVEN_E_KEY_TEXT);
    const X509_ALGOR* encryption = nullptr;
    X509_SIG_get0(sealed.get(), &encryption, nullptr);
    require(hasCipherOf(engine, encryption), AVEN_E_KEY_ENCRYPTION);
    checkCost(encryption);
    require(password != nullptr, AVEN_E_PASSWORD_MISSING);

    PrivateKeyInfo info(PKCS8_decrypt_ex(sealed.get(), password, -1, engine.library(), nullptr));
    if (info == nullptr) {
        // Wrong padding and wrong content behind it look alike here.
        const bool deciphered = ERR_GET_LIB(ERR_peek_last_error()) == ERR_LIB_PKCS12;
        throw Failure{deciphered ? AVEN_E_PASSWORD_WRONG : AVEN_E_KEY_ENCRYPTION};
    }
    return info;
}
