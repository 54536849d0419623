#include "gcm.h"

#include <openssl/modes.h>

#include <algorithm>
#include <cstring>

namespace {

// libcrypto's own GCM, for the ciphers for which it has one.
CipherContext startNative(const EVP_CIPHER* cipher, const CipherSetup& setup, bool encrypting)
{
    CipherContext context(EVP_CIPHER_CTX_new());
    require(context != nullptr, AVEN_E_NO_MEMORY);
    const int direction = encrypting ? 1 : 0;
    const int ivLength = static_cast<int>(setup.iv.size);
    // The length must be known before the IV is passed.
    require(
        EVP_CipherInit_ex2(context.get(), cipher, nullptr, nullptr, direction, nullptr) == 1 &&
            EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_IVLEN, ivLength, nullptr) == 1 &&
            EVP_CipherInit_ex2(context.get(), nullptr, setup.key.data, setup.iv.data, direction,
                               nullptr) == 1,
        AVEN_E_INTERNAL);
    update(context.get(), setup.aad, nullptr);
    return context;
}

void sealNative(const EVP_CIPHER* cipher, const CipherSetup& setup, Bytes in, unsigned char* out,
                unsigned char* tag, size_t tagLength)
{
    const CipherContext context = startNative(cipher, setup, true);
    const size_t written = update(context.get(), in, out);
    int last = 0;
    require(EVP_CipherFinal_ex(context.get(), out + written, &last) == 1 &&
                EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG,
                                    static_cast<int>(tagLength), tag) == 1,
            AVEN_E_INTERNAL);
}

bool openNative(const EVP_CIPHER* cipher, const CipherSetup& setup, Bytes in, Bytes tag,
                unsigned char* out)
{
    const CipherContext context = startNative(cipher, setup, false);
    const size_t written = update(context.get(), in, out);

    unsigned char expected[AVEN_GCM_TAG_MAX];  // libcrypto wants it writable
    memcpy(expected, tag.data, tag.size);
    require(EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(tag.size),
                                expected) == 1,
            AVEN_E_INTERNAL);
    int last = 0;
    return EVP_CipherFinal_ex(context.get(), out + written, &last) == 1;
}

// GCM over a plain block cipher, with libcrypto's GHASH and counter handling.
class BlockGcm {
public:
    BlockGcm(const EVP_CIPHER* ecb, const CipherSetup& setup) : m_blocks{start(ecb, setup.key)}
    {
        m_gcm.reset(CRYPTO_gcm128_new(&m_blocks, encryptBlock));
        require(m_gcm != nullptr, AVEN_E_NO_MEMORY);
        CRYPTO_gcm128_setiv(m_gcm.get(), setup.iv.data, setup.iv.size);
        require(CRYPTO_gcm128_aad(m_gcm.get(), setup.aad.data, setup.aad.size) == 0,
                AVEN_E_INPUT_TOO_LONG);
    }
    BlockGcm(const BlockGcm&) = delete;
    BlockGcm& operator=(const BlockGcm&) = delete;

    void seal(Bytes in, unsigned char* out, unsigned char* tag, size_t tagLength)
    {
        require(
            CRYPTO_gcm128_encrypt_ctr32(m_gcm.get(), in.data, out, in.size, encryptCounters) == 0,
            AVEN_E_INPUT_TOO_LONG);
        CRYPTO_gcm128_tag(m_gcm.get(), tag, tagLength);
        require(!m_blocks.failed, AVEN_E_INTERNAL);
    }

    bool open(Bytes in, Bytes tag, unsigned char* out)
    {
        require(
            CRYPTO_gcm128_decrypt_ctr32(m_gcm.get(), in.data, out, in.size, encryptCounters) == 0,
            AVEN_E_INPUT_TOO_LONG);
        const bool good = CRYPTO_gcm128_finish(m_gcm.get(), tag.data, tag.size) == 0;
        require(!m_blocks.failed, AVEN_E_INTERNAL);
        return good;
    }

private:
    // What the call-backs work with. They return nothing, so a failure is noted here.
    struct Blocks {
        CipherContext ecb;
        mutable bool failed = false;

        void encrypt(const unsigned char* in, unsigned char* out, size_t size) const
        {
            int written = 0;
            if (EVP_EncryptUpdate(ecb.get(), out, &written, in, static_cast<int>(size)) != 1)
                failed = true;
        }
    };

    static CipherContext start(const EVP_CIPHER* ecb, Bytes key)
    {
        CipherContext context(EVP_CIPHER_CTX_new());
        require(context != nullptr, AVEN_E_NO_MEMORY);
        require(EVP_EncryptInit_ex2(context.get(), ecb, key.data, nullptr, nullptr) == 1 &&
                    EVP_CIPHER_CTX_set_padding(context.get(), 0) == 1,
                AVEN_E_INTERNAL);
        return context;
    }

    static void encryptBlock(const unsigned char in[16], unsigned char out[16], const void* key)
    {
        static_cast<const Blocks*>(key)->encrypt(in, out, 16);
    }

    // Encrypts `count` blocks in counter mode, counting in the last 32 bits from `ivec`.
    // Many counters go through the cipher at once: a call per block costs more than the
    // block.
    static void encryptCounters(const unsigned char* in, unsigned char* out, size_t count,
                                const void* key, const unsigned char ivec[16])
    {
        constexpr size_t batch = 64;
        unsigned char stream[batch * 16];
        uint32_t counter = uint32_t{ivec[12]} << 24 | uint32_t{ivec[13]} << 16 |
                           uint32_t{ivec[14]} << 8 | ivec[15];

        while (count > 0) {
            const size_t some = std::min(count, batch);
            for (size_t i = 0; i < some; ++i, ++counter) {
                unsigned char* block = stream + i * 16;
                memcpy(block, ivec, 12);
                block[12] = static_cast<unsigned char>(counter >> 24);
                block[13] = static_cast<unsigned char>(counter >> 16);
                block[14] = static_cast<unsigned char>(counter >> 8);
                block[15] = static_cast<unsigned char>(counter);
            }
            static_cast<const Blocks*>(key)->encrypt(stream, stream, some * 16);
            for (size_t i = 0; i < some * 16; ++i)
                out[i] = static_cast<unsigned char>(in[i] ^ stream[i]);
            in += some * 16;
            out += some * 16;
            count -= some;
        }
        OPENSSL_cleanse(stream, sizeof stream);
    }

    Blocks m_blocks;
    Owned<CRYPTO_gcm128_release, GCM128_CONTEXT> m_gcm;  // wipes what it holds
};

}  // namespace

void gcmSeal(const Engine& engine, const CipherSetup& setup, Bytes in, unsigned char* out,
             unsigned char* tag, size_t tagLength)
{
    const EVP_CIPHER* native = engine.cipher(setup.cipher, AVEN_MODE_GCM);
    if (native != nullptr)
        sealNative(native, setup, in, out, tag, tagLength);
    else
        BlockGcm(engine.cipher(setup.cipher, AVEN_MODE_ECB), setup).seal(in, out, tag, tagLength);
}

void gcmOpen(const Engine& engine, const CipherSetup& setup, Bytes in, Bytes tag,
             unsigned char* out)
{
    const EVP_CIPHER* native = engine.cipher(setup.cipher, AVEN_MODE_GCM);
    WipeUnlessKept wipe(out, in.size);
    const bool good =
        native != nullptr
            ? openNative(native, setup, in, tag, out)
            : BlockGcm(engine.cipher(setup.cipher, AVEN_MODE_ECB), setup).open(in, tag, out);
    require(good, AVEN_E_TAG_MISMATCH);
    wipe.keep();
}
