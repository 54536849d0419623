#include "root_table.h"

#include "engine_numbers.h"
#include "errors.h"

TrustedRoots RootTable::find(const Digest& digest) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_stores.find(digest);
    return found == m_stores.end() ? nullptr : found->second.lock();
}

TrustedRoots RootTable::add(const Digest& digest, X509_STORE* store, size_t bytes)
{
    std::unique_ptr<X509_STORE, decltype(&X509_STORE_free)> owner(store, X509_STORE_free);
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        require(bytes <= AVEN_KE_ROOT_BYTES_OF_ALL_MAX - m_bytes, AVEN_E_KE_ROOTS_MEMORY);
        m_bytes += bytes;
    }
    // Runs its deleter if it cannot be made. Must not end while the mutex is held.
    TrustedRoots roots(owner.release(), [this, digest, bytes](X509_STORE* ended) {
        X509_STORE_free(ended);
        release(digest, bytes);
    });

    const std::lock_guard<std::mutex> lock(m_mutex);
    std::weak_ptr<X509_STORE>& place = m_stores[digest];
    if (TrustedRoots others = place.lock())
        return others;
    place = roots;
    return roots;
}

void RootTable::release(const Digest& digest, size_t bytes)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_bytes -= bytes;
    const auto found = m_stores.find(digest);
    // Another thread may have added the same again.
    if (found != m_stores.end() && found->second.expired())
        m_stores.erase(found);
}
