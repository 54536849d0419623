// Where the tests keep secrets: memory that no scan looks at. Nothing here ever copies a secret to
// the heap or to the stack.
#ifndef CORVANE_TESTS_VAULT_H
#define CORVANE_TESTS_VAULT_H

#include <cstdint>
#include <string_view>

#include "support/memory_scan.h"

namespace secrets {

// Zero-filled memory until clearVault.
char* take(size_t size);
void clearVault();
support::MemoryRange vaultRange();

// All of these are in the vault.
std::string_view kept(std::string_view bytes);
std::string_view kept(int number);
std::string_view randomBytes(size_t size);  // none is zero
std::string_view repeated(std::string_view bytes, size_t size);
std::string_view base64(std::string_view bytes);
std::string_view urlBase64(std::string_view bytes);
std::string_view percentEscaped(std::string_view bytes);  // every byte
std::string_view hexDigits(std::string_view bytes);       // as in a dump

// Of the random bytes: CORVANE_SECRETS_SEED, or another in each run.
uint64_t seed();

// A secret that is looked for wherever the bytes came from its pattern. A pattern is as long as
// any alignment of Base64 repeats, so that long secrets are made of it over and over.
struct Secret {
    static constexpr size_t PERIOD = 48;

    const char* name;
    std::string_view pattern;

    explicit Secret(const char* known);
    std::string_view bytes(size_t size) const { return repeated(pattern, size); }
    void addTo(support::Marks& marks) const;
};

}  // namespace secrets

#endif
