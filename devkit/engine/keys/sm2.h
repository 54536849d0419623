// SM2 public-key encryption (GB/T 32918.4) with SM3, in the four forms of its ciphertext.
#ifndef CORVANE_ENGINE_KEYS_SM2_H
#define CORVANE_ENGINE_KEYS_SM2_H

#include <vector>

#include "engine/secret_bytes.h"
#include "keys.h"

struct Sm2Form {
    bool asn1;         // else raw, see engine_numbers.h
    bool digestFirst;  // C1C3C2, else C1C2C3
};

// The form that libcrypto and other formats on top of SM2 use.
constexpr Sm2Form SM2_STANDARD_FORM = {true, true};

// Throws AVEN_E_INPUT_EMPTY: the standard knows no encryption of nothing.
std::vector<unsigned char> sm2Encrypt(const Engine& engine, const Key& key, Sm2Form form, Bytes in);

// Throws AVEN_E_SM2_FORM_DIFFERS for a ciphertext of another form, and AVEN_E_DECRYPTION
// for all else that is wrong with it.
SecretBytes sm2Decrypt(const Engine& engine, const Key& key, Sm2Form form, Bytes in);

// The same for a ciphertext in any of the forms. Throws AVEN_E_DECRYPTION alone.
SecretBytes sm2DecryptAnyForm(const Engine& engine, const Key& key, Bytes in);

#endif
