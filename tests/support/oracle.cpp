#include "support/oracle.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <vector>

#include "engine/engine_numbers.h"
#include "support/oracle_parts.h"

namespace support::oracle {

namespace {

using CipherContext = Owned<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>;
using MacContext = Owned<EVP_MAC_CTX, EVP_MAC_CTX_free>;

// ---- Algorithms by number. They are fetched once: by name for each use would take libcrypto
// longer than the use.

struct CipherFamily {
    const char* name;
    size_t keySize;
    size_t blockSize;
};

constexpr int CIPHERS = 7;
constexpr int MODES = 5;  // without GCM
constexpr int HASHES = 6;

const CipherFamily FAMILIES[CIPHERS] = {
    {"SM4", 16, 16},      {"AES-128", 16, 16},      {"AES-192", 24, 16}, {"AES-256", 32, 16},
    {"ARIA-256", 32, 16}, {"CAMELLIA-256", 32, 16}, {"DES-EDE3", 24, 8},
};
const char* const MODE_NAMES[] = {"ECB", "CBC", "CFB", "OFB", "CTR", "GCM"};
const char* const HASH_NAMES[HASHES] = {"SM3",      "SHA1",     "SHA2-224",
                                        "SHA2-256", "SHA2-384", "SHA2-512"};

constexpr size_t BLOCK = 16;

const CipherFamily& familyOf(int cipher)
{
    require(cipher >= 1 && cipher <= CIPHERS, "no such cipher");
    return FAMILIES[cipher - 1];
}

}  // namespace

std::string cipherName(int cipher, int mode)
{
    return std::string(familyOf(cipher).name) + "-" + MODE_NAMES[mode - 1];
}

namespace {

// Has a key already, since libcrypto copies no CMAC without one.
MacContext preparedMac(const char* kind, const char* parameter, std::string algorithm,
                       size_t keySize)
{
    const Owned<EVP_MAC, EVP_MAC_free> mac(EVP_MAC_fetch(nullptr, kind, nullptr));
    MacContext context(EVP_MAC_CTX_new(mac.get()));
    const OSSL_PARAM parameters[] = {
        OSSL_PARAM_construct_utf8_string(parameter, algorithm.data(), algorithm.size()),
        OSSL_PARAM_construct_end(),
    };
    const std::string key(keySize, '\0');
    require(context != nullptr &&
                EVP_MAC_init(context.get(), bytesOf(key), key.size(), parameters) == 1,
            "no such MAC");
    return context;
}

struct Algorithms {
    std::array<std::array<Owned<EVP_CIPHER, EVP_CIPHER_free>, MODES>, CIPHERS> ciphers;
    std::array<Owned<EVP_MD, EVP_MD_free>, HASHES> hashes;
    std::array<MacContext, HASHES> hmacs;  // to be copied
    std::array<MacContext, CIPHERS> cmacs;

    Algorithms()
    {
        for (int cipher = 1; cipher <= CIPHERS; ++cipher) {
            const auto row = static_cast<size_t>(cipher - 1);
            for (int mode = 1; mode <= MODES; ++mode)
                ciphers[row][static_cast<size_t>(mode - 1)].reset(
                    EVP_CIPHER_fetch(nullptr, cipherName(cipher, mode).c_str(), nullptr));
            cmacs[row] = preparedMac("CMAC", OSSL_MAC_PARAM_CIPHER,
                                     cipherName(cipher, AVEN_MODE_CBC), keySize(cipher));
        }
        for (size_t hash = 0; hash < HASHES; ++hash) {
            hashes[hash].reset(EVP_MD_fetch(nullptr, HASH_NAMES[hash], nullptr));
            hmacs[hash] = preparedMac("HMAC", OSSL_MAC_PARAM_DIGEST, HASH_NAMES[hash], BLOCK);
        }
    }
};

const Algorithms& algorithms()
{
    static const Algorithms all;
    return all;
}

size_t hashIndex(int hash)
{
    require(hash >= AVEN_HASH_DEFAULT && hash <= HASHES, "no such hash");
    return static_cast<size_t>(hash == AVEN_HASH_DEFAULT ? AVEN_HASH_SM3 : hash) - 1;
}

std::string mac(const MacContext& prepared, const std::string& key, const std::string& data)
{
    const MacContext context(EVP_MAC_CTX_dup(prepared.get()));
    unsigned char out[EVP_MAX_MD_SIZE];
    size_t size = 0;
    require(context != nullptr &&
                EVP_MAC_init(context.get(), bytesOf(key), key.size(), nullptr) == 1 &&
                EVP_MAC_update(context.get(), bytesOf(data), data.size()) == 1 &&
                EVP_MAC_final(context.get(), out, &size, sizeof out) == 1,
            "no MAC");
    return std::string(reinterpret_cast<char*>(out), size);
}

// ---- GCM as SP 800-38D writes it, over a cipher's single blocks

// Bits from the highest of the first byte on.
struct Block {
    uint64_t high = 0;
    uint64_t low = 0;
};

uint64_t wordAt(const std::string& bytes, size_t at)
{
    uint64_t word = 0;
    for (size_t i = 0; i < 8; ++i) {
        const size_t place = at + i;
        word = word << 8 | (place < bytes.size() ? bytesOf(bytes)[place] : 0u);
    }
    return word;
}

// Behind the text's end are zeros.
Block blockAt(const std::string& bytes, size_t at)
{
    return {wordAt(bytes, at), wordAt(bytes, at + 8)};
}

void append(std::string& bytes, uint64_t word, int size)
{
    for (int shift = 8 * (size - 1); shift >= 0; shift -= 8)
        bytes += static_cast<char>(word >> shift & 0xFF);
}

Block product(Block x, Block y)
{
    Block z;
    for (int bit = 0; bit < 128; ++bit) {
        const uint64_t word = bit < 64 ? x.high : x.low;
        const uint64_t taken = 0 - (word >> (63 - bit % 64) & 1);
        z.high ^= y.high & taken;
        z.low ^= y.low & taken;
        const uint64_t carry = 0 - (y.low & 1);
        y.low = y.low >> 1 | y.high << 63;
        y.high = y.high >> 1 ^ (carry & 0xE100000000000000);
    }
    return z;
}

class Ghash {
public:
    explicit Ghash(Block key) : m_key(key) {}

    void take(Block block)
    {
        m_sum.high ^= block.high;
        m_sum.low ^= block.low;
        m_sum = product(m_sum, m_key);
    }
    void take(const std::string& bytes)
    {
        for (size_t at = 0; at < bytes.size(); at += BLOCK)
            take(blockAt(bytes, at));
    }
    std::string sum() const
    {
        std::string bytes;
        append(bytes, m_sum.high, 8);
        append(bytes, m_sum.low, 8);
        return bytes;
    }

private:
    Block m_key;
    Block m_sum;
};

// `data` under the blocks that encrypt the counters from `first` on.
std::string countered(CipherSetup ecb, const std::string& prefix, uint32_t first,
                      const std::string& data)
{
    const size_t blocks = (data.size() + BLOCK - 1) / BLOCK;
    std::string counters;
    counters.reserve(blocks * BLOCK);
    for (size_t i = 0; i < blocks; ++i) {
        counters += prefix;
        append(counters, first + static_cast<uint32_t>(i), 4);
    }
    std::string out = encrypt(ecb, counters);
    out.resize(data.size());
    for (size_t i = 0; i < data.size(); ++i)
        out[i] = static_cast<char>(out[i] ^ data[i]);
    return out;
}

}  // namespace

// ---- Text forms

std::string escapedTwice(const std::string& bytes)
{
    constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    for (const char character : bytes) {
        const auto c = static_cast<unsigned char>(character);
        const bool isLetter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
        if (isLetter || (c >= '0' && c <= '9') || (c != 0 && strchr("-_.~!*'()", c) != nullptr)) {
            text += character;
        } else {
            text += "%25";
            text += digits[c >> 4];
            text += digits[c & 15];
        }
    }
    return text;
}

// ---- Ciphers

size_t keySize(int cipher)
{
    return familyOf(cipher).keySize;
}

size_t blockSize(int cipher)
{
    return familyOf(cipher).blockSize;
}

std::string encrypt(const CipherSetup& setup, const std::string& data)
{
    require(setup.key.size() == keySize(setup.cipher) && setup.mode >= 1 && setup.mode <= MODES,
            "no such cipher");
    const EVP_CIPHER* cipher =
        algorithms()
            .ciphers[static_cast<size_t>(setup.cipher - 1)][static_cast<size_t>(setup.mode - 1)]
            .get();
    const CipherContext context(EVP_CIPHER_CTX_new());
    require(context != nullptr && cipher != nullptr &&
                EVP_EncryptInit_ex2(context.get(), cipher, bytesOf(setup.key),
                                    setup.iv.empty() ? nullptr : bytesOf(setup.iv), nullptr) == 1 &&
                EVP_CIPHER_CTX_set_padding(context.get(), setup.padded ? 1 : 0) == 1,
            "no cipher");
    std::string out(data.size() + EVP_MAX_BLOCK_LENGTH, '\0');
    int size = 0, last = 0;
    require(
        EVP_EncryptUpdate(context.get(), bytesOf(out), &size, bytesOf(data), sizeOf(data)) == 1 &&
            EVP_EncryptFinal_ex(context.get(), bytesOf(out) + size, &last) == 1,
        "it does not encrypt");
    out.resize(static_cast<size_t>(size + last));
    return out;
}

Sealed sealGcm(const CipherSetup& setup, const std::string& data, size_t tagSize)
{
    const CipherSetup ecb = {setup.cipher, AVEN_MODE_ECB, false, setup.key, "", ""};
    const Block key = blockAt(encrypt(ecb, std::string(BLOCK, '\0')), 0);

    std::string start = setup.iv + std::string("\0\0\0\1", 4);
    if (setup.iv.size() != 12) {
        Ghash hash(key);
        hash.take(setup.iv);
        hash.take(Block{0, uint64_t{setup.iv.size()} * 8});
        start = hash.sum();
    }
    const std::string prefix = start.substr(0, 12);
    const auto counter = static_cast<uint32_t>(wordAt(start, 8));

    Sealed sealed;
    sealed.data = countered(ecb, prefix, counter + 1, data);
    Ghash hash(key);
    hash.take(setup.aad);
    hash.take(sealed.data);
    hash.take(Block{uint64_t{setup.aad.size()} * 8, uint64_t{data.size()} * 8});
    sealed.tag = countered(ecb, prefix, counter, hash.sum()).substr(0, tagSize);
    return sealed;
}

// ---- MACs and key derivation

std::string hmac(int hash, const std::string& key, const std::string& data)
{
    return mac(algorithms().hmacs[hashIndex(hash)], key, data);
}

std::string cmac(int cipher, const std::string& key, const std::string& data)
{
    require(key.size() == keySize(cipher), "a key of another length");
    return mac(algorithms().cmacs[static_cast<size_t>(cipher - 1)], key, data);
}

std::string kdf(int hash, const std::string& data, size_t length)
{
    const EVP_MD* md = algorithms().hashes[hashIndex(hash)].get();
    std::string out;
    for (uint32_t counter = 1; out.size() < length; ++counter) {
        std::string in = data;
        append(in, counter, 4);
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned size = 0;
        require(EVP_Digest(in.data(), in.size(), digest, &size, md, nullptr) == 1, "no digest");
        out.append(reinterpret_cast<char*>(digest), size);
    }
    out.resize(length);
    return out;
}

}  // namespace support::oracle
