// The texts in which keys and certificates come, down to the DER inside.
#ifndef CORVANE_ENGINE_KEYS_KEY_FORMS_H
#define CORVANE_ENGINE_KEYS_KEY_FORMS_H

#include "engine/secret_bytes.h"

enum class KeyForm {
    Pkcs8,           // PrivateKeyInfo, RFC 5208
    EncryptedPkcs8,  // EncryptedPrivateKeyInfo, RFC 5208
    Sec1,            // ECPrivateKey, RFC 5915
    Pkcs1,           // RSAPrivateKey, RFC 8017
    PublicKey,       // SubjectPublicKeyInfo, RFC 5280
    Certificate      // RFC 5280
};

struct KeyBlock {
    KeyForm form;
    SecretBytes der;  // one DER value, whole, with nothing behind it
};

// Unwraps PEM, Base64 of PEM or Base64 of DER. What is inside the DER's outermost
// value is looked at no further than needed to tell the forms apart. Throws
// AVEN_E_INPUT_TOO_LONG beyond AVEN_KEY_TEXT_MAX, and the codes of keys and Base64.
KeyBlock unwrapKeyText(Bytes text);

// The same for DER as it is.
KeyBlock unwrapKeyDer(Bytes der);

#endif
