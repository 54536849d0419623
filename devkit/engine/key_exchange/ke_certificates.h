// The certificates of a key exchange: the roots that the client trusts, and the check of
// the server's certificates against them.
#ifndef CORVANE_ENGINE_KEY_EXCHANGE_KE_CERTIFICATES_H
#define CORVANE_ENGINE_KEY_EXCHANGE_KE_CERTIFICATES_H

#include "engine/keys/keys.h"

// Reads a file and a directory; either may be null. All certificates in PEM, and a file
// that is one in DER. Intermediate ones may be among them. Sessions with the same roots share
// them. Throws AVEN_E_KE_ROOTS_ codes, AVEN_E_INPUT_TOO_LONG and AVEN_E_KEY_TEXT.
TrustedRoots readTrustedRoots(const Engine& engine, const char* file, const char* directory);

enum class ServerRole { Signing, Encryption };

// A server's certificate as it came, in DER or PEM. Throws as readCertificate does.
std::shared_ptr<Certificate> readServerCertificate(const Engine& engine, Bytes bytes);

// Throws the AVEN_E_KE_ code of what is wrong: the way to a root, validity, key usage. The
// roots are locked by themselves.
void checkServerCertificate(const Engine& engine, const TrustedRoots& roots,
                            const Certificate& certificate, ServerRole role);

// Whether the holder of the certificate signed the content.
bool signatureFits(const Engine& engine, const Certificate& certificate, Bytes content,
                   Bytes signature);

#endif
