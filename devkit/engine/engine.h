// The running engine: what aven_global_init sets up and every other function uses.
//
// Everything lives in a library context of the engine's own, so that neither the
// host's use of OpenSSL nor its configuration file changes anything here, and nothing
// here changes the host's. An Engine is constant once made; any number of threads may
// use it at once.
#ifndef CORVANE_ENGINE_ENGINE_H
#define CORVANE_ENGINE_ENGINE_H

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

#include <cstddef>
#include <memory>

#include "errors.h"
#include "handle_table.h"
#include "mac.h"
#include "root_table.h"

// Owns a libcrypto object: Owned<EVP_MAC_CTX_free, EVP_MAC_CTX>.
template <auto Free>
struct Releaser {
    template <class Object>
    void operator()(Object* object) const
    {
        Free(object);
    }
};
template <auto Free, class Object>
using Owned = std::unique_ptr<Object, Releaser<Free>>;

struct CipherInfo {
    const char* name;  // libcrypto's, before "-CBC" and the like
    size_t keyLength;
    size_t block;
};

struct HashInfo {
    const char* name;
    size_t size;
};

// Throw AVEN_E_CIPHER_NUMBER and AVEN_E_HASH_NUMBER.
const CipherInfo& cipherInfo(int number);
const HashInfo& hashInfo(int number);

class Engine {
public:
    Engine();  // throws AVEN_E_START

    OSSL_LIB_CTX* library() const { return m_library.get(); }

    // Null if libcrypto has no such combination. The numbers must be valid.
    const EVP_CIPHER* cipher(int number, int mode) const;

    EVP_MAC* hmac() const { return m_hmac.get(); }
    EVP_MAC* cmac() const { return m_cmac.get(); }

    // Ready for any key. The number must be valid.
    const EVP_MAC_CTX* preparedHmac(int hash) const { return m_hmacs[hash - 1].get(); }
    const EVP_MAC_CTX* preparedCmac(int cipher) const { return m_cmacs[cipher - 1].get(); }

    const EC_GROUP* sm2Curve() const { return m_sm2Curve.get(); }

    // Fills `out` from the context's primary generator, which is locked and reseeds
    // itself. RAND_bytes_ex would give each calling thread a generator of its own in
    // this context, which libcrypto frees when the thread ends, be it after the
    // context is gone. A call that draws randomness inside libcrypto must therefore be
    // followed by OPENSSL_thread_stop_ex(library()) on the same thread.
    void random(unsigned char* out, size_t size) const;

    // Both are locked by themselves.
    HandleTable& handles() const { return m_handles; }
    RootTable& roots() const { return m_roots; }

private:
    static constexpr int CIPHERS = 7;
    static constexpr int MODES = 6;
    static constexpr int HASHES = 6;

    Owned<OSSL_LIB_CTX_free, OSSL_LIB_CTX> m_library;  // first: all else lives in it
    Owned<OSSL_PROVIDER_unload, OSSL_PROVIDER> m_provider;
    Owned<EVP_CIPHER_free, EVP_CIPHER> m_ciphers[CIPHERS][MODES];
    Owned<EVP_MAC_free, EVP_MAC> m_hmac;
    Owned<EVP_MAC_free, EVP_MAC> m_cmac;
    Owned<EC_GROUP_free, EC_GROUP> m_sm2Curve;
    MacContext m_hmacs[HASHES];
    MacContext m_cmacs[CIPHERS];
    EVP_RAND_CTX* m_primary = nullptr;  // the library context's
    mutable RootTable m_roots;
    mutable HandleTable m_handles{*this};  // last: goes first
};

#endif
