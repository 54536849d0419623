#include "differential/botan_side.h"

#include <botan/aead.h>
#include <botan/block_cipher.h>
#include <botan/cipher_mode.h>
#include <botan/hash.h>
#include <botan/kdf.h>
#include <botan/mac.h>

#include <algorithm>

namespace differential::botan {

using support::Job;
using Buffer = Botan::secure_vector<uint8_t>;

namespace {

const support::Cipher& cipherOf(int number)
{
    return support::ciphers[number - 1];
}

bool hasTagSize(size_t size)
{
    return size == 8 || (size >= 12 && size <= 16);
}

// For Cipher_Mode::create.
std::string modeName(const Job& job, size_t tagSize)
{
    const std::string cipher = cipherName(job.alg);
    switch (job.mode) {
        case AVEN_MODE_CBC:
            return cipher + "/CBC/" + (job.padding == AVEN_PADDING_PKCS7 ? "PKCS7" : "NoPadding");
        case AVEN_MODE_CFB:
            return cipher + "/CFB";
        case AVEN_MODE_OFB:
            return "OFB(" + cipher + ")";
        case AVEN_MODE_CTR:
            return "CTR-BE(" + cipher + ")";
        default:
            return cipher + "/GCM(" + std::to_string(tagSize) + ")";
    }
}

// Botan reads a short counter as one with zeros behind it, an empty IV as "as it was", and has
// 3DES with two keys.
void checkLengths(const Job& job)
{
    const support::Cipher& cipher = cipherOf(job.alg);
    if (job.key.size() != cipher.keyLength)
        throw Botan::Invalid_Key_Length(cipherName(job.alg), job.key.size());
    if (job.mode != AVEN_MODE_GCM && job.iv.size() != cipher.block)
        throw Botan::Invalid_IV_Length(cipherName(job.alg), job.iv.size());
}

std::string crypt(const Job& job, const std::string& data, size_t tagSize,
                  Botan::Cipher_Dir direction)
{
    checkLengths(job);
    if (job.mode == AVEN_MODE_CBC && job.padding == AVEN_PADDING_NONE) {
        // Botan calls the one an internal error, and refuses to decrypt nothing.
        if (data.size() % cipherOf(job.alg).block != 0)
            throw Botan::Encoding_Error("not whole blocks");
        if (data.empty())
            return "";
    }
    const auto mode = Botan::Cipher_Mode::create_or_throw(modeName(job, tagSize), direction);
    mode->set_key(bytesOf(job.key), job.key.size());
    if (job.mode == AVEN_MODE_GCM)
        dynamic_cast<Botan::AEAD_Mode&>(*mode).set_associated_data(bytesOf(job.aad),
                                                                   job.aad.size());
    mode->start(bytesOf(job.iv), job.iv.size());
    Buffer buffer(data.begin(), data.end());
    mode->finish(buffer);
    return textOf(buffer);
}

// ---- ECB, which Botan does not call a mode: its bare cipher, and its CBC of a zero IV for the
// last block, with the padding.

Job lastBlock(const Job& job)
{
    Job last = job;
    last.mode = AVEN_MODE_CBC;
    last.iv.assign(cipherOf(job.alg).block, '\0');
    return last;
}

// `whole` bytes at the start go through the bare cipher.
std::string cryptEcb(const Job& job, const std::string& data, size_t whole,
                     Botan::Cipher_Dir direction)
{
    if (!job.iv.empty())
        throw Botan::Invalid_IV_Length("ECB", job.iv.size());
    const std::string last = crypt(lastBlock(job), data.substr(whole), 0, direction);
    const auto cipher = Botan::BlockCipher::create_or_throw(cipherName(job.alg));
    cipher->set_key(bytesOf(job.key), job.key.size());
    Buffer buffer(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(whole));
    if (direction == Botan::ENCRYPTION)
        cipher->encrypt(buffer);
    else
        cipher->decrypt(buffer);
    return textOf(buffer) + last;
}

std::string encryptEcb(const Job& job, const std::string& data)
{
    const size_t whole = data.size() - data.size() % cipherOf(job.alg).block;
    return cryptEcb(job, data, whole, Botan::ENCRYPTION);
}

std::string decryptEcb(const Job& job, const std::string& data)
{
    const size_t block = cipherOf(job.alg).block;
    const size_t behind = data.size() % block == 0 ? block : data.size() % block;
    return cryptEcb(job, data, data.size() - std::min(data.size(), behind), Botan::DECRYPTION);
}

// ---- GCM

std::string seal(const Job& job, const std::string& data, size_t tagSize)
{
    if (tagSize < AVEN_GCM_TAG_MIN || tagSize > AVEN_GCM_TAG_MAX)
        throw Botan::Invalid_Argument("tag");
    // SP 800-38D, 7.1: a shorter tag is the start of the whole one.
    const std::string sealed = crypt(job, data, AVEN_GCM_TAG_MAX, Botan::ENCRYPTION);
    return sealed.substr(0, data.size() + tagSize);
}

std::string open(const Job& job, const std::string& sealed, size_t tagSize)
{
    if (hasTagSize(tagSize))
        return crypt(job, sealed, tagSize, Botan::DECRYPTION);
    // Of other sizes by sealing: of the ciphertext, which gives the text, and of that.
    const size_t size = sealed.size() - tagSize;
    const std::string text = seal(job, sealed.substr(0, size), tagSize).substr(0, size);
    if (seal(job, text, tagSize) != sealed)
        throw Botan::Invalid_Authentication_Tag("GCM");
    return text;
}

std::string mac(const std::string& name, const std::string& key, const std::string& data)
{
    const auto mac = Botan::MessageAuthenticationCode::create_or_throw(name);
    mac->set_key(bytesOf(key), key.size());
    return textOf(mac->process(bytesOf(data), data.size()));
}

}  // namespace

std::string cipherName(int cipher)
{
    static const char* const names[] = {"SM4",      "AES-128",      "AES-192",  "AES-256",
                                        "ARIA-256", "Camellia-256", "TripleDES"};
    return names[cipher - 1];
}

std::string hashName(int hash)
{
    static const char* const names[] = {"SM3",     "SM3",     "SHA-1",  "SHA-224",
                                        "SHA-256", "SHA-384", "SHA-512"};
    return names[hash];
}

Answer encrypt(const Job& job, const std::string& data, size_t tagSize)
{
    return answerOf([&] {
        if (job.mode == AVEN_MODE_GCM)
            return seal(job, data, tagSize);
        return job.mode == AVEN_MODE_ECB ? encryptEcb(job, data)
                                         : crypt(job, data, 0, Botan::ENCRYPTION);
    });
}

Answer decrypt(const Job& job, const std::string& sealed, size_t tagSize)
{
    return answerOf([&] {
        if (job.mode == AVEN_MODE_GCM)
            return open(job, sealed, tagSize);
        return job.mode == AVEN_MODE_ECB ? decryptEcb(job, sealed)
                                         : crypt(job, sealed, 0, Botan::DECRYPTION);
    });
}

std::string encrypted(const Job& job, const std::string& data, size_t tagSize)
{
    const Answer answer = encrypt(job, data, tagSize);
    must(answer.has_value(), "Botan does not encrypt");
    return *answer;
}

std::string encryptBlock(int cipher, const std::string& key, const std::string& block)
{
    const auto bare = Botan::BlockCipher::create_or_throw(cipherName(cipher));
    bare->set_key(bytesOf(key), key.size());
    Buffer buffer(block.begin(), block.end());
    bare->encrypt(buffer);
    return textOf(buffer);
}

Answer hmac(int hash, const std::string& key, const std::string& data)
{
    return answerOf([&] { return mac("HMAC(" + hashName(hash) + ")", key, data); });
}

Answer cmac(int cipher, const std::string& key, const std::string& data)
{
    return answerOf([&] { return mac("CMAC(" + cipherName(cipher) + ")", key, data); });
}

std::string kdf(int hash, const std::string& secret, size_t size)
{
    // ANSI X9.63's derivation is the one that IEEE 1363a calls KDF2.
    const auto kdf = Botan::KDF::create_or_throw("KDF2(" + hashName(hash) + ")");
    return textOf(kdf->derive_key(size, bytesOf(secret), secret.size(), "", ""));
}

std::string hash(const std::string& name, const std::string& data)
{
    return textOf(Botan::HashFunction::create_or_throw(name)->process(data));
}

void Chance::randomize(uint8_t output[], size_t length)
{
    const std::string bytes = m_trial.bytes(length);
    std::copy(bytes.begin(), bytes.end(), output);
}

}  // namespace differential::botan
