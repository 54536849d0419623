#include "rsa.h"

#include <openssl/rsa.h>

namespace {

void setPadding(EVP_PKEY_CTX* context, const RsaPadding& padding)
{
    if (padding.number == AVEN_RSA_PKCS1) {
        require(EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PADDING) == 1, AVEN_E_INTERNAL);
        return;
    }
    require(EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_OAEP_PADDING) == 1 &&
                EVP_PKEY_CTX_set_rsa_oaep_md_name(context, padding.hash.c_str(), nullptr) == 1 &&
                EVP_PKEY_CTX_set_rsa_mgf1_md_name(context, padding.maskHash.c_str(), nullptr) == 1,
            AVEN_E_INTERNAL);
}

// What the padding takes, at the least.
size_t paddingSize(const RsaPadding& padding)
{
    if (padding.number == AVEN_RSA_PKCS1)
        return 11;
    const size_t digest = hashInfo(AVEN_HASH_SHA256).size;
    return 2 * digest + 2;
}

}  // namespace

std::vector<unsigned char> rsaEncrypt(const Engine& engine, const Key& key,
                                      const RsaPadding& padding, Bytes in)
{
    const LibraryRandomness randomness(engine);
    const PKeyContext context = contextFor(engine, key);
    std::vector<unsigned char> out(static_cast<size_t>(EVP_PKEY_get_size(key.pkey.get())));
    require(in.size + paddingSize(padding) <= out.size(), AVEN_E_INPUT_TOO_LONG);

    require(EVP_PKEY_encrypt_init(context.get()) == 1, AVEN_E_INTERNAL);
    setPadding(context.get(), padding);
    size_t size = out.size();
    require(EVP_PKEY_encrypt(context.get(), out.data(), &size, in.data, in.size) == 1 &&
                size == out.size(),
            AVEN_E_INTERNAL);
    return out;
}

// libcrypto 3.0 removes the padding in constant time but does tell whether it was right:
// with PKCS#1 v1.5 a caller who passes this answer on to strangers gives them an oracle.
SecretBytes rsaDecrypt(const Engine& engine, const Key& key, const RsaPadding& padding, Bytes in)
{
    const LibraryRandomness randomness(engine);
    const PKeyContext context = contextFor(engine, key);
    SecretBytes out(static_cast<size_t>(EVP_PKEY_get_size(key.pkey.get())));
    require(in.size == out.size(), AVEN_E_DECRYPTION);

    require(EVP_PKEY_decrypt_init(context.get()) == 1, AVEN_E_INTERNAL);
    setPadding(context.get(), padding);
    size_t size = out.size();
    require(EVP_PKEY_decrypt(context.get(), out.data(), &size, in.data, in.size) == 1,
            AVEN_E_DECRYPTION);
    out.resize(size);
    return out;
}

bool rsaDecryptSecret(const Engine& engine, const Key& key, Bytes in, SecretBytes& secret)
{
    const LibraryRandomness randomness(engine);
    const PKeyContext context = contextFor(engine, key);
    SecretBytes out(static_cast<size_t>(EVP_PKEY_get_size(key.pkey.get())));
    if (in.size != out.size())
        return false;
    require(secret.size() <= out.size(), AVEN_E_INTERNAL);

    require(EVP_PKEY_decrypt_init(context.get()) == 1, AVEN_E_INTERNAL);
    setPadding(context.get(), {AVEN_RSA_PKCS1});
    size_t size = out.size();
    const int result = EVP_PKEY_decrypt(context.get(), out.data(), &size, in.data, in.size);
    const unsigned right =
        static_cast<unsigned>(result == 1) & static_cast<unsigned>(size == secret.size());
    const unsigned mask = 0 - right;
    for (size_t i = 0; i < secret.size(); ++i)
        secret[i] = static_cast<unsigned char>((out[i] & mask) | (secret[i] & ~mask));
    return right != 0;
}
