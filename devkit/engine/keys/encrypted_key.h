// Private keys under a password: EncryptedPrivateKeyInfo (RFC 5208).
#ifndef CORVANE_ENGINE_KEYS_ENCRYPTED_KEY_H
#define CORVANE_ENGINE_KEYS_ENCRYPTED_KEY_H

#include <openssl/x509.h>

#include "engine/buffers.h"
#include "engine/engine.h"

using PrivateKeyInfo = Owned<PKCS8_PRIV_KEY_INFO_free, PKCS8_PRIV_KEY_INFO>;  // wiped when freed

// The password may be null. Before it is tried, its cost is checked against the limits in
// engine_numbers.h. Throws the AVEN_E_ code of what is wrong.
PrivateKeyInfo decryptPkcs8(const Engine& engine, Bytes der, const char* password);

#endif
