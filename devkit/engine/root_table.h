// The trusted roots that key-exchange sessions hold: the same ones are in memory once, and all
// of them together are bounded.
#ifndef CORVANE_ENGINE_ROOT_TABLE_H
#define CORVANE_ENGINE_ROOT_TABLE_H

#include <openssl/x509_vfy.h>

#include <array>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>

// Constant once in the table, and locked by itself. Must not outlive the table.
using TrustedRoots = std::shared_ptr<X509_STORE>;

class RootTable {
public:
    using Digest = std::array<unsigned char, 32>;  // SHA-256 of all that is in a store

    // Null if no session has such roots.
    TrustedRoots find(const Digest& digest) const;

    // Takes over the store, whose certificates have `bytes` of DER. Returns what another thread
    // has added meanwhile, if any. Throws AVEN_E_KE_ROOTS_MEMORY.
    TrustedRoots add(const Digest& digest, X509_STORE* store, size_t bytes);

private:
    void release(const Digest& digest, size_t bytes);

    mutable std::mutex m_mutex;
    std::map<Digest, std::weak_ptr<X509_STORE>> m_stores;
    size_t m_bytes = 0;  // of all stores that are alive
};

#endif
