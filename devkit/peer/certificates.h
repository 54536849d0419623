// The test server's keys and certificates: a root, a signing certificate and an encryption
// certificate, of SM2 or RSA keys.
//
// All functions throw a PeerError.
#ifndef CORVANE_PEER_CERTIFICATES_H
#define CORVANE_PEER_CERTIFICATES_H

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

#include "peer_error.h"

enum class KeyKind { Sm2, Rsa };

using KeyPtr = std::shared_ptr<EVP_PKEY>;
using CertificatePtr = std::shared_ptr<X509>;

struct Credential {
    KeyPtr key;
    CertificatePtr certificate;
};

struct CertificatePlan {
    std::string name;   // the common name
    std::string usage;  // as in openssl's configuration, "critical,digitalSignature"; or empty
    bool isAuthority = false;
    long notBefore = -3600;  // seconds from now
    long notAfter = 30L * 24 * 3600;
};

CertificatePlan rootPlan();
CertificatePlan signingPlan();
CertificatePlan encryptionPlan();

KeyPtr makeKey(KeyKind kind, unsigned rsaBits = 2048);
KeyKind kindOf(const EVP_PKEY* key);

// A new key with its certificate from the issuer.
Credential makeCredential(const CertificatePlan& plan, KeyKind kind, const Credential& issuer,
                          unsigned rsaBits = 2048);
// The same, certified by itself.
Credential makeRoot(const CertificatePlan& plan, KeyKind kind);

// What the server needs in an exchange.
struct ServerCredentials {
    Credential signing;
    Credential encryption;
};

// The directory holds root, sign and enc, each with .crt and .key in PEM; the keys are for
// the owner alone. It is made if it does not exist; existing files are not replaced.
void writeCredentials(const std::string& directory, const Credential& root,
                      const ServerCredentials& server);
ServerCredentials readCredentials(const std::string& directory);

std::string toDer(X509* certificate);
std::string toPem(X509* certificate);

// A file for the owner alone, which is replaced at once or not at all.
void writePrivateFile(const std::string& path, const std::string& content);

#endif
