// What both sides of the key exchange compute alike: what the server signs, and the key
// schedule from the pre-master secret down to the channel's keys. KEY_EXCHANGE.md has the
// whole exchange. Nothing here needs the engine; the peer (devkit/peer) uses it too.
#ifndef CORVANE_ENGINE_KEY_EXCHANGE_KE_PROTOCOL_H
#define CORVANE_ENGINE_KEY_EXCHANGE_KE_PROTOCOL_H

#include <openssl/evp.h>

#include <vector>

#include "engine/secret_bytes.h"

constexpr size_t KE_RANDOM = 32;
constexpr size_t KE_SECRET = 48;  // the pre-master and the master secret
constexpr size_t KE_NONCE = 12;
constexpr size_t KE_TAG = 16;
constexpr size_t KE_OVERHEAD = KE_NONCE + KE_TAG;  // what a channel message adds
constexpr size_t KE_HASH = 32;                     // of both suites
constexpr size_t KE_BLOCK = 16;                    // SM4's, and its keys' length
constexpr size_t KE_CERTIFICATE_MAX = 0xFFFFFF;

// The pre-master secret's first two bytes: TLCP 1.1 (GB/T 38636-2020).
constexpr unsigned char KE_VERSION[] = {1, 1};

// GB/T 35276's ID of a signer who has no other.
constexpr char SM2_DEFAULT_ID[] = "1234567812345678";
constexpr size_t SM2_DEFAULT_ID_SIZE = sizeof SM2_DEFAULT_ID - 1;

// The suites' hashes, for signature, PRF and HMAC, by number and by libcrypto's name.
constexpr int keHash(bool isSm2)
{
    return isSm2 ? AVEN_HASH_SM3 : AVEN_HASH_SHA256;
}
constexpr const char* keHashName(int hash)
{
    return hash == AVEN_HASH_SM3 ? "SM3" : "SHA2-256";
}

struct KeRandoms {
    Bytes client;
    Bytes server;
};

// client random || server random || certificate's length in 3 bytes || certificate.
std::vector<unsigned char> keSignedContent(const KeRandoms& randoms, Bytes encryptionCertificate);

// The PRF of TLS 1.2 (RFC 5246, section 5) and of TLCP, on the HMAC's hash (mac.h):
// P_hash(secret, label || first || second).
SecretBytes kePrf(const EVP_MAC_CTX* preparedHmac, Bytes secret, const char* label, Bytes first,
                  Bytes second, size_t size);

// The keys of one session, in the order in which they come out of the PRF.
class ChannelKeys {
public:
    static constexpr size_t SIZE = KE_HASH + 3 * KE_BLOCK;

    // `preparedHmac` is of the hash with that number.
    ChannelKeys(int hash, const EVP_MAC_CTX* preparedHmac, Bytes preMaster,
                const KeRandoms& randoms);

    // From keys that an earlier process derived. `block` has SIZE bytes.
    ChannelKeys(int hash, SecretBytes block) : m_hash(hash), m_block(std::move(block)) {}

    int hash() const { return m_hash; }
    Bytes block() const { return view(m_block); }

    Bytes hmac() const { return {m_block.data(), KE_HASH}; }
    Bytes cmac() const { return {m_block.data() + KE_HASH, KE_BLOCK}; }
    Bytes clientWrite() const { return {m_block.data() + KE_HASH + KE_BLOCK, KE_BLOCK}; }
    Bytes serverWrite() const { return {m_block.data() + KE_HASH + 2 * KE_BLOCK, KE_BLOCK}; }

private:
    int m_hash;
    SecretBytes m_block;
};

// The additional data of all messages in one direction.
Bytes keClientLabel();
Bytes keServerLabel();

#endif
