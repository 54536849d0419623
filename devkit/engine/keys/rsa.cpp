#include "rsa.h"

#include <openssl/rsa.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace {

using Hash = Owned<EVP_MD_free, EVP_MD>;
using HashContext = Owned<EVP_MD_CTX_free, EVP_MD_CTX>;

Hash hashOf(const Engine& engine, const std::string& name)
{
    Hash hash(EVP_MD_fetch(engine.library(), name.c_str(), nullptr));
    require(hash != nullptr, AVEN_E_INTERNAL);
    return hash;
}

size_t sizeOf(const Hash& hash)
{
    return static_cast<size_t>(EVP_MD_get_size(hash.get()));
}

// 1 or 0, in the same time.
size_t isZeroByte(size_t byte)
{
    return (byte + 0xFF) >> 8 ^ 1;
}

// OAEP (RFC 8017, 7.1) without a label. libcrypto's own leaves the padded block in freed memory,
// from which anybody can take the text.
class Oaep {
public:
    Oaep(const Engine& engine, const RsaPadding& padding)
        : m_hash(hashOf(engine, padding.hash)),
          m_maskHash(hashOf(engine, padding.maskHash)),
          m_context(EVP_MD_CTX_new()),
          m_size(sizeOf(m_hash))
    {
        require(m_context != nullptr, AVEN_E_NO_MEMORY);
        require(EVP_Digest("", 0, m_noLabel, nullptr, m_hash.get(), nullptr) == 1, AVEN_E_INTERNAL);
    }

    // The block has room, and is all zero.
    void pad(const Engine& engine, Bytes text, SecretBytes& block) const
    {
        unsigned char* const seed = block.data() + 1;
        unsigned char* const data = seed + m_size;
        const size_t dataSize = block.size() - 1 - m_size;

        engine.random(seed, m_size);
        memcpy(data, m_noLabel, m_size);
        data[dataSize - text.size - 1] = 1;
        memcpy(data + dataSize - text.size, text.data, text.size);
        mask({seed, m_size}, data, dataSize);
        mask({data, dataSize}, seed, m_size);
    }

    // Returns where the text begins in the block, which ends with it. What is wrong, and where,
    // makes no difference in time.
    size_t unpad(SecretBytes& block) const
    {
        static_assert(AVEN_RSA_BITS_MIN / 8 >= 2 * EVP_MAX_MD_SIZE + 2, "a block has the room");
        unsigned char* const seed = block.data() + 1;
        unsigned char* const data = seed + m_size;
        const size_t dataSize = block.size() - 1 - m_size;
        mask({data, dataSize}, seed, m_size);
        mask({seed, m_size}, data, dataSize);

        unsigned int wrong = block[0];
        for (size_t i = 0; i < m_size; ++i)
            wrong |= data[i] ^ unsigned { m_noLabel[i] };
        // Behind the hash: zeros, a one, the text. `before` is all ones until the one has come.
        size_t before = SIZE_MAX;
        size_t text = 0;
        for (size_t i = m_size; i < dataSize; ++i) {
            const size_t isZero = isZeroByte(data[i]);
            const size_t isOne = isZeroByte(data[i] ^ 1U);
            text |= before & (0 - isOne) & (i + 1);
            wrong |= static_cast<unsigned int>(before & ((isZero | isOne) ^ 1));
            before &= 0 - (isOne ^ 1);
        }
        wrong |= static_cast<unsigned int>(before & 1);
        require(wrong == 0, AVEN_E_DECRYPTION);
        return 1 + m_size + text;
    }

private:
    // MGF1: hash(seed || 32-bit counter from 0), xored onto the bytes.
    void mask(Bytes seed, unsigned char* bytes, size_t size) const
    {
        unsigned char block[EVP_MAX_MD_SIZE];
        const WipeUnlessKept wipe(block, sizeof block);
        const size_t blockSize = sizeOf(m_maskHash);
        for (uint32_t counter = 0; size > 0; ++counter) {
            const unsigned char number[] = {static_cast<unsigned char>(counter >> 24),
                                            static_cast<unsigned char>(counter >> 16),
                                            static_cast<unsigned char>(counter >> 8),
                                            static_cast<unsigned char>(counter)};
            require(EVP_DigestInit_ex2(m_context.get(), m_maskHash.get(), nullptr) == 1 &&
                        EVP_DigestUpdate(m_context.get(), seed.data, seed.size) == 1 &&
                        EVP_DigestUpdate(m_context.get(), number, sizeof number) == 1 &&
                        EVP_DigestFinal_ex(m_context.get(), block, nullptr) == 1,
                    AVEN_E_INTERNAL);
            const size_t part = std::min(size, blockSize);
            for (size_t i = 0; i < part; ++i)
                bytes[i] ^= block[i];
            bytes += part;
            size -= part;
        }
    }

    Hash m_hash;
    Hash m_maskHash;
    HashContext m_context;
    size_t m_size;
    unsigned char m_noLabel[EVP_MAX_MD_SIZE] = {};
};

void setPadding(EVP_PKEY_CTX* context, const RsaPadding& padding)
{
    const int number = padding.number == AVEN_RSA_PKCS1 ? RSA_PKCS1_PADDING : RSA_NO_PADDING;
    require(EVP_PKEY_CTX_set_rsa_padding(context, number) == 1, AVEN_E_INTERNAL);
}

// What the padding takes, at the least.
size_t paddingSize(const RsaPadding& padding)
{
    if (padding.number == AVEN_RSA_PKCS1)
        return 11;
    const size_t digest = hashInfo(AVEN_HASH_SHA256).size;
    return 2 * digest + 2;
}

}  // namespace

std::vector<unsigned char> rsaEncrypt(const Engine& engine, const Key& key,
                                      const RsaPadding& padding, Bytes in)
{
    const LibraryRandomness randomness(engine);
    const PKeyContext context = contextFor(engine, key);
    std::vector<unsigned char> out(static_cast<size_t>(EVP_PKEY_get_size(key.pkey.get())));
    require(in.size + paddingSize(padding) <= out.size(), AVEN_E_INPUT_TOO_LONG);

    require(EVP_PKEY_encrypt_init(context.get()) == 1, AVEN_E_INTERNAL);
    setPadding(context.get(), padding);
    SecretBytes block;
    if (padding.number == AVEN_RSA_OAEP) {
        block.resize(out.size());
        Oaep(engine, padding).pad(engine, in, block);
        in = view(block);
    }
    size_t size = out.size();
    require(EVP_PKEY_encrypt(context.get(), out.data(), &size, in.data, in.size) == 1 &&
                size == out.size(),
            AVEN_E_INTERNAL);
    return out;
}

// libcrypto 3.0 removes the padding in constant time but does tell whether it was right:
// with PKCS#1 v1.5 a caller who passes this answer on to strangers gives them an oracle.
SecretBytes rsaDecrypt(const Engine& engine, const Key& key, const RsaPadding& padding, Bytes in)
{
    const LibraryRandomness randomness(engine);
    const PKeyContext context = contextFor(engine, key);
    SecretBytes out(static_cast<size_t>(EVP_PKEY_get_size(key.pkey.get())));
    require(in.size == out.size(), AVEN_E_DECRYPTION);

    require(EVP_PKEY_decrypt_init(context.get()) == 1, AVEN_E_INTERNAL);
    setPadding(context.get(), padding);
    size_t size = out.size();
    require(EVP_PKEY_decrypt(context.get(), out.data(), &size, in.data, in.size) == 1,
            AVEN_E_DECRYPTION);
    out.resize(size);
    if (padding.number == AVEN_RSA_OAEP)
        out.erase(out.begin(),
                  out.begin() + static_cast<std::ptrdiff_t>(Oaep(engine, padding).unpad(out)));
    return out;
}

bool rsaDecryptSecret(const Engine& engine, const Key& key, Bytes in, SecretBytes& secret)
{
    const LibraryRandomness randomness(engine);
    const PKeyContext context = contextFor(engine, key);
    SecretBytes out(static_cast<size_t>(EVP_PKEY_get_size(key.pkey.get())));
    if (in.size != out.size())
        return false;
    require(secret.size() <= out.size(), AVEN_E_INTERNAL);

    require(EVP_PKEY_decrypt_init(context.get()) == 1, AVEN_E_INTERNAL);
    setPadding(context.get(), {AVEN_RSA_PKCS1});
    size_t size = out.size();
    const int result = EVP_PKEY_decrypt(context.get(), out.data(), &size, in.data, in.size);
    const unsigned right =
        static_cast<unsigned>(result == 1) & static_cast<unsigned>(size == secret.size());
    const unsigned mask = 0 - right;
    for (size_t i = 0; i < secret.size(); ++i)
        secret[i] = static_cast<unsigned char>((out[i] & mask) | (secret[i] & ~mask));
    return right != 0;
}
