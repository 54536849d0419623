// Symmetric ciphers in all six modes, for the exported functions and for those that
// encrypt on the way to something else.
#ifndef CORVANE_ENGINE_SYMMETRIC_SYMMETRIC_H
#define CORVANE_ENGINE_SYMMETRIC_SYMMETRIC_H

#include "engine/buffers.h"
#include "engine/engine.h"

struct CipherSetup {
    int cipher;
    int mode;
    int padding;
    Bytes key;
    Bytes iv;
    Bytes aad;
};

using CipherContext = Owned<EVP_CIPHER_CTX_free, EVP_CIPHER_CTX>;

// Throws the code of whatever is wrong with the numbers and lengths. The functions
// below and gcm.h take checked setups only.
void checkSetup(const CipherSetup& setup);

// How many bytes the encryption of `size` bytes gives. Throws AVEN_E_DATA_LENGTH.
size_t encryptedLength(const CipherSetup& setup, size_t size);

// Modes other than GCM. `out` has room for encryptedLength bytes.
size_t encrypt(const Engine& engine, const CipherSetup& setup, Bytes in, unsigned char* out);

// Modes other than GCM. `out` has room for in.size bytes, also where the result is
// shorter, and is wiped on failure. Returns the result's length. Throws
// AVEN_E_DATA_LENGTH and AVEN_E_BAD_PADDING.
size_t decrypt(const Engine& engine, const CipherSetup& setup, Bytes in, unsigned char* out);

// Passes all of `in` through a started context; a null `out` is for additional data.
// Returns the number of bytes written.
size_t update(EVP_CIPHER_CTX* context, Bytes in, unsigned char* out);

#endif
