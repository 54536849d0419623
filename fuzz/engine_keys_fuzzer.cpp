// Key texts: what is read can be used, is of one type, and reads the same when its PEM comes
// in Base64. Input: a byte each for the role, the password and the form, then the text, or
// with form 1 the DER.

#include <dlfcn.h>
#include <openssl/x509.h>

#include "engine_fuzz.h"
#include "oracles.h"

using fuzz::Exact;
using fuzz::KeyPair;
using fuzz::Outcome;

// ---- Passwords may be made as slow to try as the key's maker likes: no more than that here.

namespace {

template <class Parameters>
struct Parsed {
    Parameters* value;
    void (*free)(Parameters*);
    ~Parsed() { free(value); }
};

template <class Parameters>
Parameters* parse(const X509_ALGOR* algorithm,
                  Parameters* (*read)(Parameters**, const unsigned char**, long))
{
    int type = 0;
    const void* value = nullptr;
    X509_ALGOR_get0(nullptr, &type, &value, algorithm);
    if (type != V_ASN1_SEQUENCE)
        return nullptr;
    const auto* sequence = static_cast<const ASN1_STRING*>(value);
    const unsigned char* p = ASN1_STRING_get0_data(sequence);
    return read(nullptr, &p, ASN1_STRING_length(sequence));
}

bool isSmall(const ASN1_INTEGER* number, int64_t limit)
{
    int64_t value = 0;
    return number == nullptr || (ASN1_INTEGER_get_int64(&value, number) == 1 && value <= limit);
}

bool isCheap(const X509_ALGOR* algorithm)
{
    constexpr int64_t iterations = 20000;
    const Parsed<PBE2PARAM> two = {parse(algorithm, d2i_PBE2PARAM), PBE2PARAM_free};
    if (two.value == nullptr) {
        const Parsed<PBEPARAM> one = {parse(algorithm, d2i_PBEPARAM), PBEPARAM_free};
        return one.value == nullptr || isSmall(one.value->iter, iterations);
    }
    const Parsed<PBKDF2PARAM> hashes = {parse(two.value->keyfunc, d2i_PBKDF2PARAM),
                                        PBKDF2PARAM_free};
    if (hashes.value != nullptr)
        return isSmall(hashes.value->iter, iterations);
    const Parsed<SCRYPT_PARAMS> memory = {parse(two.value->keyfunc, d2i_SCRYPT_PARAMS),
                                          SCRYPT_PARAMS_free};
    return memory.value == nullptr ||
           (isSmall(memory.value->costParameter, 1024) && isSmall(memory.value->blockSize, 8) &&
            isSmall(memory.value->parallelizationParameter, 2));
}

}  // namespace

// Stands before libcrypto's.
PKCS8_PRIV_KEY_INFO* PKCS8_decrypt_ex(const X509_SIG* sealed, const char* password, int length,
                                      OSSL_LIB_CTX* library, const char* properties)
{
    const X509_ALGOR* algorithm = nullptr;
    X509_SIG_get0(sealed, &algorithm, nullptr);
    static const auto real =
        reinterpret_cast<decltype(&PKCS8_decrypt_ex)>(dlsym(RTLD_NEXT, "PKCS8_decrypt_ex"));
    return isCheap(algorithm) ? real(sealed, password, length, library, properties) : nullptr;
}

namespace {

enum Role { PRIVATE, PUBLIC };

constexpr char PASSWORD[] = "fuzzing";

int read(Role role, int type, const std::string& text, const char* password, void** keypair)
{
    return role == PRIVATE ? fuzz::readPrivateKey(type, text, password, keypair)
                           : fuzz::readPublicKey(type, text, keypair);
}

// The code for the text as a key of a type.
int codeFor(Role role, int type, const std::string& text, const char* password)
{
    KeyPair keypair;
    return read(role, type, text, password, &keypair.value);
}

void checkUse(Role role, void* keypair)
{
    PkeyCipherParams params = {};
    params.keypair = keypair;
    const auto use = [&](decltype(aven_crypto_public_encrypt)* function, std::string bytes) {
        Exact in(bytes);
        return fuzz::withRoom(600, [&](unsigned char* out, uint32_t* length) {
            return function(&params, in.data(), in.size32(), out, length);
        });
    };
    const Outcome sealed = use(aven_crypto_public_encrypt, "text");
    HOLDS(isSuccess(sealed));
    const Outcome opened = use(aven_crypto_private_decrypt, sealed.bytes);
    HOLDS(role == PRIVATE ? opened.bytes == "text" : opened.code == AVEN_E_KEY_NOT_PRIVATE);
}

// What libcrypto reads as a private key too, and that the halves of it belong together.
void checkHalves(const std::string& der)
{
    const unsigned char* p = fuzz::bytesOf(der);
    const Parsed<EVP_PKEY> key = {d2i_AutoPrivateKey(nullptr, &p, static_cast<long>(der.size())),
                                  EVP_PKEY_free};
    const Parsed<EVP_PKEY_CTX> context = {
        key.value == nullptr ? nullptr : EVP_PKEY_CTX_new_from_pkey(nullptr, key.value, nullptr),
        EVP_PKEY_CTX_free};
    HOLDS(key.value == nullptr || EVP_PKEY_pairwise_check(context.value) == 1);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::startEngine();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    const Role role = input.pick(2) == 0 ? PRIVATE : PUBLIC;
    const char* const passwords[] = {nullptr, PASSWORD, "other"};
    const char* const password = passwords[input.pick(3)];
    const bool isDer = input.pick(2) == 1;
    const std::string bytes = input.rest();
    const std::string text = isDer ? fuzz::toBase64(bytes) : bytes;

    KeyPair keypair;
    const int code = read(role, AVEN_KEY_ANY, text, password, &keypair.value);
    if (fuzz::isPem(text))
        HOLDS(codeFor(role, AVEN_KEY_ANY, fuzz::toBase64(text), password) == code);
    if (code != AVEN_OK)
        return 0;

    checkUse(role, keypair.value);
    if (isDer && role == PRIVATE)
        checkHalves(bytes);
    const int sm2 = codeFor(role, AVEN_KEY_SM2, text, password);
    const int rsa = codeFor(role, AVEN_KEY_RSA, text, password);
    HOLDS((sm2 == AVEN_OK && rsa == AVEN_E_KEY_KIND) || (sm2 == AVEN_E_KEY_KIND && rsa == AVEN_OK));
    HOLDS(codeFor(role, 2, text, password) == AVEN_E_KEY_TYPE);
    const int otherRole = codeFor(role == PRIVATE ? PUBLIC : PRIVATE, AVEN_KEY_ANY, text, password);
    HOLDS(otherRole == AVEN_E_KEY_ROLE);
    return 0;
}
