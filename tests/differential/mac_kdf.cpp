// HMAC, CMAC and key derivation.

#include <algorithm>

#include "differential/algorithm.h"
#include "differential/botan_side.h"
#include "differential/engine_side.h"

namespace differential {

namespace {

using support::Cipher;

size_t blockOfHash(int hash)
{
    return hash == AVEN_HASH_SHA384 || hash == AVEN_HASH_SHA512 ? 128 : 64;
}

// Keys are hashed if they are longer than the hash's block. The engine wants one byte at least,
// Botan takes 4096 at most.
void compareHmac(Trial& trial, int hash)
{
    const size_t block = blockOfHash(hash);
    const std::string key =
        trial.bytes(trial.oneIn(8) ? 1 + trial.below(4096) : block - 2 + trial.below(4));
    const std::string data = trial.bytes(trial.size(block));
    trial.expectSame("HMAC", engine::hmac(hash, key, data), botan::hmac(hash, key, data));
    const std::string shortKey = trial.bytes(1 + trial.below(block));
    trial.expectSame("HMAC", engine::hmac(hash, shortKey, data), botan::hmac(hash, shortKey, data));
}

void compareCmac(Trial& trial, const Cipher& cipher)
{
    const std::string key = trial.bytes(cipher.keyLength);
    const std::string data = trial.bytes(trial.size(cipher.block));
    trial.expectSame("CMAC", engine::cmac(cipher.number, key, data),
                     botan::cmac(cipher.number, key, data));
    if (trial.oneIn(4)) {
        // Botan's 3DES takes two keys, too.
        const std::string wrong = trial.bytes(cipher.keyLength - 3 + trial.below(3));
        trial.expectSameVerdict("length of the key", wrong,
                                engine::cmac(cipher.number, wrong, data),
                                botan::cmac(cipher.number, wrong, data));
    }
}

void compareKdf(Trial& trial, int hash)
{
    const std::string secret = trial.bytes(std::max<size_t>(1, trial.size(blockOfHash(hash))));
    const size_t size =
        std::max<size_t>(1, trial.size(botan::hash(botan::hashName(hash), "").size()));
    trial.expectSame("key derivation", engine::kdf(hash, secret, size),
                     botan::kdf(hash, secret, size));
}

}  // namespace

void addMacKdf(Algorithms& all)
{
    for (int hash = AVEN_HASH_SM3; hash <= AVEN_HASH_SHA512; ++hash)
        all.push_back({"HMAC-" + botan::hashName(hash), 40,
                       [hash](Trial& trial) { compareHmac(trial, hash); }});
    for (const Cipher& cipher : support::ciphers)
        all.push_back({std::string("CMAC-") + cipher.name, 40,
                       [&cipher](Trial& trial) { compareCmac(trial, cipher); }});
    for (int hash = AVEN_HASH_DEFAULT; hash <= AVEN_HASH_SHA512; ++hash)
        all.push_back({hash == AVEN_HASH_DEFAULT ? "X9.63 KDF, default"
                                                 : "X9.63 KDF-" + botan::hashName(hash),
                       20, [hash](Trial& trial) { compareKdf(trial, hash); }});
}

}  // namespace differential
