// The algorithm identifiers in envelopes.
#ifndef CORVANE_ENGINE_ENVELOPE_ENVELOPE_ALGORITHMS_H
#define CORVANE_ENGINE_ENVELOPE_ENVELOPE_ALGORITHMS_H

#include <openssl/x509.h>

#include <string>
#include <vector>

#include "engine/keys/rsa.h"

// Makes an object identifier from its dotted text. The caller owns it.
ASN1_OBJECT* objectOf(const char* oid);
std::string oidOf(const ASN1_OBJECT* object);

// ---- Content encryption.

struct ContentCipher {
    int cipher;
    int mode;
    const char* oid;
};

// Null if the combination has no identifier. There is one object for a combination.
const ContentCipher* contentCipher(int cipher, int mode);

constexpr size_t ENVELOPE_NONCE = 12;  // of GCM, RFC 5084
constexpr size_t ENVELOPE_TAG = 16;

// The IV's length when encrypting.
size_t ivLength(const ContentCipher& cipher);

void writeContentAlgorithm(const ContentCipher& cipher, Bytes iv, X509_ALGOR* out);

struct ContentAlgorithm {
    const ContentCipher* cipher;
    std::vector<unsigned char> iv;
    size_t tagLength;  // 0 unless in GCM
};

// Throws AVEN_E_ENVELOPE_UNKNOWN and AVEN_E_ENVELOPE_TEXT.
ContentAlgorithm readContentAlgorithm(const X509_ALGOR* algorithm);

// ---- Transport of the content key.

// The algorithm that encryption to a key of that kind uses.
void writeTransport(int keyKind, X509_ALGOR* out);

struct Transport {
    int keyKind;  // 0 if it is none that this engine knows
    RsaPadding rsaPadding;
};

// Throws AVEN_E_ENVELOPE_UNKNOWN and AVEN_E_ENVELOPE_TEXT for parameters.
Transport readTransport(const X509_ALGOR* algorithm);

#endif
