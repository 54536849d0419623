#include "root_table.h"

#include "engine_numbers.h"
#include "errors.h"

TrustedRoots RootTable::find(const Digest& digest) const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = stores_.find(digest);
    return found == stores_.end() ? nullptr : found->second.lock();
}

TrustedRoots RootTable::add(const Digest& digest, X509_STORE* store, size_t bytes)
{
    std::unique_ptr<X509_STORE, decltype(&X509_STORE_free)> owner(store, X509_STORE_free);
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        require(bytes <= AVEN_KE_ROOT_BYTES_OF_ALL_MAX - bytes_, AVEN_E_KE_ROOTS_MEMORY);
        bytes_ += bytes;
    }
    // Runs its deleter if it cannot be made. Must not end while the mutex is held.
    TrustedRoots roots(owner.release(), [this, digest, bytes](X509_STORE* ended) {
        X509_STORE_free(ended);
        release(digest, bytes);
    });

    const std::lock_guard<std::mutex> lock(mutex_);
    std::weak_ptr<X509_STORE>& place = stores_[digest];
    if (TrustedRoots others = place.lock())
        return others;
    place = roots;
    return roots;
}

void RootTable::release(const Digest& digest, size_t bytes)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    bytes_ -= bytes;
    const auto found = stores_.find(digest);
    // Another thread may have added the same again.
    if (found != stores_.end() && found->second.expired())
        stores_.erase(found);
}
