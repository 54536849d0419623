// The right answers to requests, computed with libcrypto and without the plug-in's or the
// engine's code. Numbers are the engine's (engine_numbers.h).
//
// For any number of threads at once. All functions throw a std::runtime_error for input that
// they cannot take, as an answer that is wrong may be.
#ifndef CORVANE_TESTS_ORACLE_H
#define CORVANE_TESTS_ORACLE_H

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <string>

namespace support::oracle {

// ---- Text forms

// Percent-escapes within percent-escapes.
std::string escapedTwice(const std::string& bytes);

// ---- Ciphers

struct CipherSetup {
    int cipher = 0;
    int mode = 0;
    bool padded = false;
    std::string key;
    std::string iv;   // empty in ECB
    std::string aad;  // GCM's
};

// In bytes.
size_t keySize(int cipher);
size_t blockSize(int cipher);

// In any mode but GCM.
std::string encrypt(const CipherSetup& setup, const std::string& data);

struct Sealed {
    std::string data;
    std::string tag;
};
Sealed sealGcm(const CipherSetup& setup, const std::string& data, size_t tagSize);

// ---- MACs and key derivation

std::string hmac(int hash, const std::string& key, const std::string& data);
std::string cmac(int cipher, const std::string& key, const std::string& data);
std::string kdf(int hash, const std::string& data, size_t length);

// ---- Public keys, SM2 or RSA

// The private key in PKCS#8; encrypted if there is a password.
std::string privatePem(EVP_PKEY* key, const char* password = nullptr);
std::string publicPem(EVP_PKEY* key);

struct PublicKeyForm {
    bool oaep;    // RSA; else PKCS#1 v1.5
    bool asn1;    // SM2; else raw
    bool c1c3c2;  // SM2; else C1C2C3
};

std::string publicEncrypt(EVP_PKEY* key, const PublicKeyForm& form, const std::string& data);
std::string privateDecrypt(EVP_PKEY* key, const PublicKeyForm& form, const std::string& encrypted);

// ---- Envelopes to RSA keys (CMS)

// Whether libcrypto has them with this cipher and mode, of those that the engine has.
bool knowsEnvelope(int cipher, int mode);

// `oaep` decides how the content key travels; else it is PKCS#1 v1.5.
std::string sealEnvelope(X509* certificate, int cipher, int mode, bool oaep,
                         const std::string& data);
std::string openEnvelope(EVP_PKEY* key, const std::string& envelope);

}  // namespace support::oracle

#endif
