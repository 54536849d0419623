// Keys and certificates, read from text into libcrypto objects that live in the
// engine's library context.
//
// A text is PEM, Base64 of PEM or Base64 of DER; see engine_numbers.h for the forms.
// All functions throw the AVEN_E_ code of what is wrong. Keys are constant once read:
// any number of threads may use one at once.
#ifndef CORVANE_ENGINE_KEYS_KEYS_H
#define CORVANE_ENGINE_KEYS_KEYS_H

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <utility>

#include "engine/buffers.h"
#include "engine/engine.h"
#include "engine/handle_table.h"
#include "engine/secret_bytes.h"

using PKey = Owned<EVP_PKEY_free, EVP_PKEY>;
using X509Certificate = Owned<X509_free, X509>;

using PKeyContext = Owned<EVP_PKEY_CTX_free, EVP_PKEY_CTX>;

struct Key {
    int kind;  // AVEN_KEY_SM2 or AVEN_KEY_RSA
    PKey pkey;
};

struct KeyPair : HandleObject {
    KeyPair(Key fullKey, bool hasPrivate) : key(std::move(fullKey)), isPrivate(hasPrivate) {}

    const Key key;
    const bool isPrivate;  // else it is the public half alone
};

struct Certificate : HandleObject {
    Certificate(X509Certificate parsed, Key holder)
        : x509(std::move(parsed)), key(std::move(holder))
    {
    }

    const X509Certificate x509;
    const Key key;  // the holder's public key
};

// A private key, which has its public half with it. The password, which may be null, is
// for encrypted keys only.
Key readPrivateKey(const Engine& engine, Bytes text, const char* password);

// A public key, or the one in a certificate.
Key readPublicKey(const Engine& engine, Bytes text);

std::shared_ptr<Certificate> readCertificate(const Engine& engine, Bytes text);

// A certificate as DER, as it travels in protocols.
std::shared_ptr<Certificate> certificateOfDer(const Engine& engine, Bytes der);

// For one operation with the key.
PKeyContext contextFor(const Engine& engine, const Key& key);

// Whether both are the same key; private halves do not matter.
bool samePublicKey(const Key& a, const Key& b);

// What a handle stands for. Throw AVEN_E_NULL_POINTER and AVEN_E_HANDLE.
std::shared_ptr<const KeyPair> keyPairOf(const Engine& engine, const void* handle);
std::shared_ptr<const Certificate> certificateOf(const Engine& engine, const void* handle);

// Stands where a function draws randomness inside libcrypto, as every use of a private
// key does: gives the thread's generators back at the end of the scope (see
// Engine::random), and wipes the stack as far down as such a use goes.
class LibraryRandomness {
public:
    explicit LibraryRandomness(const Engine& engine) : m_library(engine.library()) {}
    ~LibraryRandomness()
    {
        OPENSSL_thread_stop_ex(m_library);
        wipeStack<STACK_OF_KEY_USE>();
    }
    LibraryRandomness(const LibraryRandomness&) = delete;
    LibraryRandomness& operator=(const LibraryRandomness&) = delete;

private:
    OSSL_LIB_CTX* m_library;
};

#endif
