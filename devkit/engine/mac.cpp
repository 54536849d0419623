#include "mac.h"

#include <openssl/core_names.h>
#include <openssl/params.h>

namespace {

MacContext prepare(EVP_MAC* kind, const char* parameter, const char* name)
{
    MacContext context(EVP_MAC_CTX_new(kind));
    require(context != nullptr, AVEN_E_NO_MEMORY);
    // libcrypto's parameters take texts as writable.
    const OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(parameter, const_cast<char*>(name), 0),
        OSSL_PARAM_construct_end()};
    // Fails only if libcrypto lacks the algorithm.
    require(EVP_MAC_CTX_set_params(context.get(), params) == 1, AVEN_E_START);
    return context;
}

}  // namespace

MacContext prepareHmac(EVP_MAC* kind, const char* hash)
{
    return prepare(kind, OSSL_MAC_PARAM_DIGEST, hash);
}

MacContext prepareCmac(EVP_MAC* kind, const char* cipher, size_t keyLength)
{
    constexpr unsigned char zeros[EVP_MAX_KEY_LENGTH] = {};
    MacContext context = prepare(kind, OSSL_MAC_PARAM_CIPHER, cipher);
    // libcrypto copies no CMAC context without a key.
    require(EVP_MAC_init(context.get(), zeros, keyLength, nullptr) == 1, AVEN_E_INTERNAL);
    return context;
}

void mac(const EVP_MAC_CTX* prepared, Bytes key, Bytes in, unsigned char* out, size_t size)
{
    const MacContext context(EVP_MAC_CTX_dup(prepared));
    require(context != nullptr, AVEN_E_NO_MEMORY);
    size_t written = 0;
    require(EVP_MAC_init(context.get(), key.data, key.size, nullptr) == 1 &&
                EVP_MAC_update(context.get(), in.data, in.size) == 1 &&
                EVP_MAC_final(context.get(), out, &written, size) == 1 && written == size,
            AVEN_E_INTERNAL);
}
