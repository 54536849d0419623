// RSA encryption (RFC 8017).
#ifndef CORVANE_ENGINE_KEYS_RSA_H
#define CORVANE_ENGINE_KEYS_RSA_H

#include <string>
#include <vector>

#include "engine/secret_bytes.h"
#include "keys.h"

struct RsaPadding {
    int number;  // AVEN_RSA_OAEP or AVEN_RSA_PKCS1
    // OAEP's, by libcrypto's names.
    std::string hash = "SHA2-256";
    std::string maskHash = "SHA2-256";
};

// Throws AVEN_E_INPUT_TOO_LONG.
std::vector<unsigned char> rsaEncrypt(const Engine& engine, const Key& key,
                                      const RsaPadding& padding, Bytes in);

// Throws AVEN_E_DECRYPTION whatever is wrong.
SecretBytes rsaDecrypt(const Engine& engine, const Key& key, const RsaPadding& padding, Bytes in);

// Under PKCS#1 v1.5, a secret that must be as long as `secret`. Returns false, and leaves `secret`
// as it is, if anything is wrong with the ciphertext; if that is as long as the modulus, this takes
// the same time as success.
bool rsaDecryptSecret(const Engine& engine, const Key& key, Bytes in, SecretBytes& secret);

#endif
