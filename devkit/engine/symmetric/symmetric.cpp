#include "symmetric.h"

#include <algorithm>

#include "engine/exported_call.h"
#include "engine/exports.h"
#include "gcm.h"

namespace {

bool isBlockMode(const CipherSetup& setup)
{
    return setup.mode == AVEN_MODE_ECB || setup.mode == AVEN_MODE_CBC;
}

bool isPadded(const CipherSetup& setup)
{
    return isBlockMode(setup) && setup.padding == AVEN_PADDING_PKCS7;
}

// `padded`: libcrypto pads.
CipherContext start(const Engine& engine, const CipherSetup& setup, bool encrypting, bool padded)
{
    const EVP_CIPHER* cipher = engine.cipher(setup.cipher, setup.mode);
    CipherContext context(EVP_CIPHER_CTX_new());
    require(context != nullptr, AVEN_E_NO_MEMORY);
    require(EVP_CipherInit_ex2(context.get(), cipher, setup.key.data, setup.iv.data,
                               encrypting ? 1 : 0, nullptr) == 1 &&
                EVP_CIPHER_CTX_set_padding(context.get(), padded ? 1 : 0) == 1,
            AVEN_E_INTERNAL);
    return context;
}

// All ones if a < b, else 0. Both are below 2^31.
uint32_t ifLess(uint32_t a, uint32_t b)
{
    return 0 - ((a - b) >> 31);
}

// Puts the text of a decrypted text's last block into `out` and its size into `size`, unless the
// block's PKCS#7 padding is wrong. libcrypto's own check stops at the first wrong byte; this one
// takes the same time whatever the bytes are, until it has its answer.
bool unpad(const unsigned char* last, size_t blockSize, unsigned char* out, size_t& size)
{
    const uint32_t block = static_cast<uint32_t>(blockSize);
    const uint32_t count = last[block - 1];
    uint32_t wrong = ifLess(count, 1) | ifLess(block, count);
    for (uint32_t i = 0; i < block; ++i)
        wrong |= ifLess(i, count) & (last[block - 1 - i] ^ count);
    if (wrong != 0)
        return false;

    // What is behind the text stays the caller's.
    const uint32_t text = block - count;
    for (uint32_t i = 0; i < block; ++i) {
        const uint32_t isText = ifLess(i, text);
        out[i] = static_cast<unsigned char>((last[i] & isText) | (out[i] & ~isText));
    }
    size = text;
    return true;
}

CipherSetup setupOf(const SymmCipherParams& params)
{
    return {params.alg,
            params.mode,
            params.padding,
            input(params.key, params.key_len),
            input(params.iv, params.iv_len),
            input(params.aad, params.aad_len)};
}

// A tag goes with GCM, and with GCM alone.
void checkTag(const CipherSetup& setup, const unsigned char* tag, size_t length)
{
    if (setup.mode != AVEN_MODE_GCM) {
        require(length == 0, AVEN_E_NOT_AUTHENTICATED);
        return;
    }
    require(length >= AVEN_GCM_TAG_MIN && length <= AVEN_GCM_TAG_MAX, AVEN_E_TAG_LENGTH);
    require(tag != nullptr, AVEN_E_NULL_POINTER);
}

}  // namespace

void checkSetup(const CipherSetup& setup)
{
    const CipherInfo& info = cipherInfo(setup.cipher);
    require(setup.mode >= AVEN_MODE_ECB && setup.mode <= AVEN_MODE_GCM, AVEN_E_MODE_NUMBER);
    require(setup.padding == AVEN_PADDING_NONE || setup.padding == AVEN_PADDING_PKCS7,
            AVEN_E_PADDING_NUMBER);

    const bool needsWideBlock = setup.mode == AVEN_MODE_CTR || setup.mode == AVEN_MODE_GCM;
    require(info.block == 16 || !needsWideBlock, AVEN_E_COMBINATION);
    require(setup.key.size == info.keyLength, AVEN_E_KEY_LENGTH);

    switch (setup.mode) {
        case AVEN_MODE_ECB:
            require(setup.iv.size == 0, AVEN_E_IV_LENGTH);
            break;
        case AVEN_MODE_GCM:
            require(setup.iv.size >= 1 && setup.iv.size <= AVEN_GCM_IV_MAX, AVEN_E_IV_LENGTH);
            break;
        default:
            require(setup.iv.size == info.block, AVEN_E_IV_LENGTH);
    }
    require(setup.mode == AVEN_MODE_GCM || setup.aad.size == 0, AVEN_E_NOT_AUTHENTICATED);
}

size_t encryptedLength(const CipherSetup& setup, size_t size)
{
    const size_t block = cipherInfo(setup.cipher).block;
    if (isPadded(setup))
        return size - size % block + block;
    require(!isBlockMode(setup) || size % block == 0, AVEN_E_DATA_LENGTH);
    return size;
}

size_t update(EVP_CIPHER_CTX* context, Bytes in, unsigned char* out)
{
    constexpr size_t piece = size_t{1} << 30;  // libcrypto counts with int
    size_t written = 0;

    for (size_t done = 0; done < in.size; done += piece) {
        const int n = static_cast<int>(std::min(piece, in.size - done));
        int some = 0;
        unsigned char* to = out == nullptr ? nullptr : out + written;
        require(EVP_CipherUpdate(context, to, &some, in.data + done, n) == 1, AVEN_E_INTERNAL);
        written += static_cast<size_t>(some);
    }
    return written;
}

size_t encrypt(const Engine& engine, const CipherSetup& setup, Bytes in, unsigned char* out)
{
    const CipherContext context = start(engine, setup, true, isPadded(setup));
    const size_t written = update(context.get(), in, out);
    int last = 0;
    require(EVP_CipherFinal_ex(context.get(), out + written, &last) == 1, AVEN_E_INTERNAL);
    return written + static_cast<size_t>(last);
}

size_t decrypt(const Engine& engine, const CipherSetup& setup, Bytes in, unsigned char* out)
{
    if (isBlockMode(setup)) {
        require(in.size % cipherInfo(setup.cipher).block == 0, AVEN_E_DATA_LENGTH);
        require(in.size != 0 || !isPadded(setup), AVEN_E_DATA_LENGTH);
    }

    WipeUnlessKept wipe(out, in.size);
    const CipherContext context = start(engine, setup, false, false);
    const size_t block = isPadded(setup) ? cipherInfo(setup.cipher).block : 0;
    size_t written = update(context.get(), {in.data, in.size - block}, out);
    if (block != 0) {
        unsigned char last[EVP_MAX_BLOCK_LENGTH];
        const WipeUnlessKept wipeLast(last, sizeof last);
        update(context.get(), {in.data + written, block}, last);
        size_t text = 0;
        require(unpad(last, block, out + written, text), AVEN_E_BAD_PADDING);
        written += text;
    }
    wipe.keep();
    return written;
}

int aven_crypto_encrypt(const void* params, const unsigned char* in, uint32_t in_len,
                        unsigned char* out, uint32_t* out_len, int tag_len, unsigned char* tag)
{
    return answer("aven_crypto_encrypt", out, out_len, [&](const Engine& engine, Output& output) {
        const CipherSetup setup = setupOf(parameterBlock<SymmCipherParams>(params));
        const Bytes data = input(in, in_len);
        require(tag_len >= 0, AVEN_E_TAG_LENGTH);
        const size_t tagLength = static_cast<size_t>(tag_len);

        checkSetup(setup);
        checkTag(setup, tag, tagLength);
        const size_t needed = encryptedLength(setup, data.size);
        unsigned char* to = output.room(needed);
        if (setup.mode == AVEN_MODE_GCM)
            gcmSeal(engine, setup, data, to, tag, tagLength);
        else
            encrypt(engine, setup, data, to);
        output.setLength(needed);
    });
}

int aven_crypto_decrypt(const void* params, const unsigned char* in, uint32_t in_len,
                        const unsigned char* tag, uint32_t tag_len, unsigned char* out,
                        uint32_t* out_len)
{
    return answer("aven_crypto_decrypt", out, out_len, [&](const Engine& engine, Output& output) {
        const CipherSetup setup = setupOf(parameterBlock<SymmCipherParams>(params));
        const Bytes data = input(in, in_len);

        checkSetup(setup);
        checkTag(setup, tag, tag_len);
        unsigned char* to = output.room(data.size);
        size_t written = data.size;
        if (setup.mode == AVEN_MODE_GCM)
            gcmOpen(engine, setup, data, {tag, tag_len}, to);
        else
            written = decrypt(engine, setup, data, to);
        output.setLength(written);
    });
}

int aven_crypto_gen_symmkey(int type, unsigned char* out, uint32_t* out_len)
{
    return answer("aven_crypto_gen_symmkey", out, out_len,
                  [&](const Engine& engine, Output& output) {
                      const size_t length = cipherInfo(type).keyLength;
                      unsigned char* key = output.room(length);

                      engine.random(key, length);
                      if (type == AVEN_CIPHER_3DES) {
                          // The lowest bit of each byte makes the byte's parity odd.
                          for (size_t i = 0; i < length; ++i) {
                              const bool odd = __builtin_parity(key[i] >> 1) != 0;
                              key[i] = static_cast<unsigned char>((key[i] & 0xfe) | (odd ? 0 : 1));
                          }
                      }
                      output.setLength(length);
                  });
}
