// The modes without authentication, and the white-box functions, which have the engine's SM4-CBC
// behind them.

#include <algorithm>

#include "differential/algorithm.h"
#include "differential/botan_side.h"
#include "differential/engine_side.h"

namespace differential {

namespace {

using support::Cipher;
using support::Job;

// What is compared with Botan's encrypt and decrypt.
struct Functions {
    Answer (*encrypt)(const Job& job, const std::string& data);
    Answer (*decrypt)(const Job& job, const std::string& data);
};

constexpr Functions ordinary = {
    [](const Job& job, const std::string& data) { return engine::encrypt(job, data); },
    [](const Job& job, const std::string& data) { return engine::decrypt(job, data); },
};
constexpr Functions whiteBox = {engine::whiteBoxEncrypt, engine::whiteBoxDecrypt};

bool isBlockMode(const Job& job)
{
    return job.mode == AVEN_MODE_ECB || job.mode == AVEN_MODE_CBC;
}

// An IV that counts over: its last bytes are all ones.
void raise(Trial& trial, std::string& iv)
{
    const size_t count = trial.below(iv.size()) + 1;
    iv.replace(iv.size() - count, count, count, '\xff');
}

Job randomJob(Trial& trial, const Cipher& cipher, int mode, int padding)
{
    Job job = {cipher.number, mode, padding, trial.bytes(cipher.keyLength), "", ""};
    if (mode != AVEN_MODE_ECB)
        job.iv = trial.bytes(cipher.block);
    if (mode == AVEN_MODE_CTR && trial.oneIn(3))
        raise(trial, job.iv);
    return job;
}

void compareDecryption(Trial& trial, const Functions& functions, const char* what, const Job& job,
                       const std::string& data)
{
    trial.expectSameVerdict(what, data, functions.decrypt(job, data), botan::decrypt(job, data));
}

// Right lengths, unless there is no padding where the mode wants whole blocks.
void compareBothWays(Trial& trial, const Functions& functions, const Cipher& cipher, const Job& job)
{
    std::string text = trial.bytes(trial.size(cipher.block));
    if (isBlockMode(job) && job.padding == AVEN_PADDING_NONE) {
        if (trial.oneIn(4)) {
            trial.expectSameVerdict("text without padding", text, functions.encrypt(job, text),
                                    botan::encrypt(job, text));
            compareDecryption(trial, functions, "ciphertext of any length", job, text);
        }
        text.resize(text.size() - text.size() % cipher.block);
    }
    const std::string encrypted = botan::encrypted(job, text);
    trial.expectSame("encryption", functions.encrypt(job, text), encrypted);
    trial.expectSame("decryption", functions.decrypt(job, encrypted), text);
}

// A key or an IV of another length, which is often one byte off.
void compareLengths(Trial& trial, const Functions& functions, const Job& job)
{
    Job wrong = job;
    std::string& part = trial.oneIn(2) ? wrong.key : wrong.iv;
    const size_t size = part.size();
    const size_t oneOff = size == 0 || trial.oneIn(2) ? size + 1 : size - 1;
    part.resize(trial.oneIn(3) ? trial.below(40) : oneOff);
    if (part.size() == size)
        return;
    trial.expectSameVerdict("length of key or IV", wrong.key + wrong.iv,
                            functions.encrypt(wrong, std::string(16, 'x')),
                            botan::encrypt(wrong, std::string(16, 'x')));
}

// Ends of the text that are like padding, and wrong in one place or right by chance.
std::string almostPadded(Trial& trial, size_t block)
{
    std::string text = trial.bytes(block * (1 + trial.below(3)));
    const size_t count = trial.oneIn(8) ? trial.below(256) : trial.below(block + 2);
    const size_t filled = std::min(count, block);
    text.replace(text.size() - filled, filled, filled, static_cast<char>(count));
    text.back() = static_cast<char>(count);
    if (trial.oneIn(2))
        text[text.size() - 1 - trial.below(block)] = static_cast<char>(trial.below(block + 2));
    return text;
}

// Padding by another hand, each bit of the padding and of the ciphertext, any ciphertext.
void comparePadding(Trial& trial, const Functions& functions, const Cipher& cipher, const Job& job)
{
    const size_t block = cipher.block;
    Job unpadded = job;
    unpadded.padding = AVEN_PADDING_NONE;
    for (int i = 0; i < 4; ++i)
        compareDecryption(trial, functions, "padding", job,
                          botan::encrypted(unpadded, almostPadded(trial, block)));

    const size_t count = 1 + trial.below(block);
    const std::string padded =
        trial.bytes(2 * block - count) + std::string(count, static_cast<char>(count));
    for (size_t bit : trial.bits(8 * block))
        compareDecryption(trial, functions, "a bit of the last block's text", job,
                          botan::encrypted(unpadded, flipped(padded, 8 * block + bit)));
    const std::string right = botan::encrypted(unpadded, padded);
    for (size_t bit : trial.bits(8 * right.size()))
        compareDecryption(trial, functions, "a bit of the ciphertext", job, flipped(right, bit));

    compareDecryption(trial, functions, "any ciphertext", job, trial.bytes(trial.below(6) * block));
    compareDecryption(trial, functions, "ciphertext of any length", job,
                      trial.bytes(trial.size(block)));
}

void compare(Trial& trial, const Functions& functions, const Cipher& cipher, int mode, int padding)
{
    const Job job = randomJob(trial, cipher, mode, padding);
    compareBothWays(trial, functions, cipher, job);
    compareLengths(trial, functions, job);
    if (isBlockMode(job) && padding == AVEN_PADDING_PKCS7)
        comparePadding(trial, functions, cipher, job);
}

}  // namespace

void addSymmetric(Algorithms& all)
{
    for (const Cipher& cipher : support::ciphers)
        for (int mode = AVEN_MODE_ECB; mode <= AVEN_MODE_CTR; ++mode)
            if (support::isSupported(cipher, mode))
                all.push_back({std::string(cipher.name) + "-" + support::modes[mode], 40,
                               [&cipher, mode](Trial& trial) {
                                   const int padding = static_cast<int>(trial.below(2));
                                   compare(trial, ordinary, cipher, mode, padding);
                               }});
    all.push_back({"white-box SM4", 40, [](Trial& trial) {
                       compare(trial, whiteBox, support::ciphers[0], AVEN_MODE_CBC,
                               AVEN_PADDING_PKCS7);
                   }});
}

}  // namespace differential
