#include "vault.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>

namespace secrets {

namespace {

constexpr size_t VAULT_SIZE = size_t{256} << 20;  // of addresses; memory only as it is used

char* const vault = static_cast<char*>(mmap(nullptr, VAULT_SIZE, PROT_READ | PROT_WRITE,
                                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
size_t used = 0;

std::string_view encoded(std::string_view bytes, const char* last)
{
    static const char characters[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    const size_t size = (bytes.size() + 2) / 3 * 4;
    char* const text = take(size);
    for (size_t i = 0; i < size; ++i) {
        const size_t first = i * 6 / 8;  // the byte that the character begins in
        const auto at = [&](size_t byte) {
            return byte < bytes.size() ? static_cast<unsigned char>(bytes[byte]) : 0U;
        };
        const unsigned sextet = (at(first) << 8 | at(first + 1)) >> (10 - i * 6 % 8) & 63;
        text[i] = first >= bytes.size() ? '='
                  : sextet < 62         ? characters[sextet]
                                        : last[sextet - 62];
    }
    return {text, size};
}

// Two digits for each byte, with a mark before them.
std::string_view digitsOf(std::string_view bytes, const char* digits, char before)
{
    char* const text = take(bytes.size() * 3);
    for (size_t i = 0; i < bytes.size(); ++i) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        text[3 * i] = before;
        text[3 * i + 1] = digits[byte >> 4];
        text[3 * i + 2] = digits[byte & 15];
    }
    return {text, bytes.size() * 3};
}

}  // namespace

char* take(size_t size)
{
    if (vault == MAP_FAILED || size > VAULT_SIZE - used)
        throw std::runtime_error("the vault is full");
    char* const memory = vault + used;
    used += (size + 16) & ~size_t{15};
    return memory;
}

void clearVault()
{
    support::wipeByHand(vault, used);
    used = 0;
}

support::MemoryRange vaultRange()
{
    const auto begin = reinterpret_cast<uintptr_t>(vault);
    return {begin, begin + VAULT_SIZE};
}

std::string_view kept(std::string_view bytes)
{
    char* const copy = take(bytes.size());
    memcpy(copy, bytes.data(), bytes.size());
    return {copy, bytes.size()};
}

std::string_view kept(int number)
{
    return kept(std::to_string(number));
}

std::string_view randomBytes(size_t size)
{
    static std::mt19937_64 random(seed());
    char* const bytes = take(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(1 + random() % 255);
    return {bytes, size};
}

std::string_view repeated(std::string_view bytes, size_t size)
{
    char* const text = take(size);
    for (size_t i = 0; i < size; i += bytes.size())
        memcpy(text + i, bytes.data(), std::min(bytes.size(), size - i));
    return {text, size};
}

std::string_view base64(std::string_view bytes)
{
    return encoded(bytes, "+/");
}

std::string_view urlBase64(std::string_view bytes)
{
    return encoded(bytes, "-_");
}

std::string_view percentEscaped(std::string_view bytes)
{
    return digitsOf(bytes, "0123456789ABCDEF", '%');
}

std::string_view hexDigits(std::string_view bytes)
{
    return digitsOf(bytes, "0123456789abcdef", ' ');
}

uint64_t seed()
{
    static const uint64_t value = [] {
        const char* const given = getenv("CORVANE_SECRETS_SEED");
        const uint64_t chosen =
            given != nullptr ? strtoull(given, nullptr, 10) : std::random_device()();
        printf("CORVANE_SECRETS_SEED=%llu\n", static_cast<unsigned long long>(chosen));
        return chosen;
    }();
    return value;
}

Secret::Secret(const char* known) : name(known), pattern(randomBytes(PERIOD)) {}

void Secret::addTo(support::Marks& marks) const
{
    const std::string_view twice = repeated(pattern, 2 * PERIOD);
    marks.add(name, twice);
    marks.addText(std::string(name) + " in percent escapes", percentEscaped(twice));
}

}  // namespace secrets
