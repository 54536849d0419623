// GCM (SP 800-38D): tags, their lengths, and the counter.

#include "differential/algorithm.h"
#include "differential/botan_side.h"
#include "differential/engine_side.h"

namespace differential {

namespace {

using support::Cipher;
using support::Job;

constexpr size_t BLOCK = 16;

// ---- An IV whose first counter is a wanted one. No other way leads to a counter that is about to
// end: with an IV of 12 bytes it starts at 1, with others at a GHASH of them.

// A number of GF(2^128) as GCM writes it: the highest bit of the first byte is the coefficient
// of 1.
using Element = std::string;

Element sum(Element a, const Element& b)
{
    for (size_t i = 0; i < BLOCK; ++i)
        a[i] = static_cast<char>(a[i] ^ b[i]);
    return a;
}

Element timesX(const Element& a)
{
    Element out(BLOCK, '\0');
    unsigned carry = 0;
    for (size_t i = 0; i < BLOCK; ++i) {
        const auto byte = static_cast<unsigned char>(a[i]);
        out[i] = static_cast<char>(byte >> 1 | carry << 7);
        carry = byte & 1;
    }
    if (carry != 0)
        out[0] = static_cast<char>(out[0] ^ 0xe1);
    return out;
}

Element product(const Element& a, Element b)
{
    Element out(BLOCK, '\0');
    for (size_t bit = 0; bit < 8 * BLOCK; ++bit, b = timesX(b))
        if ((a[bit / 8] >> (7 - bit % 8) & 1) != 0)
            out = sum(out, b);
    return out;
}

// a to the power of 2^128 - 2.
Element inverse(const Element& a)
{
    Element out(BLOCK, '\0');
    out[0] = '\x80';  // 1
    Element square = a;
    for (int i = 1; i < 128; ++i) {
        square = product(square, square);
        out = product(out, square);
    }
    return out;
}

// SP 800-38D, 7.1: for 16 bytes, counter = (IV * H + length) * H.
std::string ivForCounter(const Job& job, const std::string& counter)
{
    const Element h = botan::encryptBlock(job.alg, job.key, std::string(BLOCK, '\0'));
    Element length(BLOCK, '\0');
    length[BLOCK - 1] = '\x80';  // 128 bits
    const Element inverted = inverse(h);
    return product(sum(product(counter, inverted), length), inverted);
}

std::string endingCounter(Trial& trial)
{
    std::string counter = trial.bytes(BLOCK - 4) + std::string(4, '\xff');
    counter.back() = static_cast<char>(0xff - trial.below(8));
    return counter;
}

// ---- The comparison

Job randomJob(Trial& trial, const Cipher& cipher)
{
    Job job = {cipher.number, AVEN_MODE_GCM, 0, trial.bytes(cipher.keyLength), "", ""};
    if (trial.oneIn(8))
        job.iv = ivForCounter(job, endingCounter(trial));
    else
        job.iv = trial.bytes(trial.oneIn(2) ? 12 : 1 + trial.below(AVEN_GCM_IV_MAX));
    if (!trial.oneIn(4))
        job.aad = trial.bytes(trial.size(BLOCK));
    return job;
}

void compareOpening(Trial& trial, const char* what, const Job& job, const std::string& sealed,
                    size_t tagSize)
{
    trial.expectSameVerdict(what, sealed, engine::decrypt(job, sealed, tagSize),
                            botan::decrypt(job, sealed, tagSize));
}

// One bit of what the tag is about, whose sizes are as they come.
void compareDamaged(Trial& trial, const Job& job, const std::string& sealed, size_t tagSize)
{
    Job damaged = job;
    for (std::string* part : {&damaged.key, &damaged.iv, &damaged.aad}) {
        const std::string whole = *part;
        if (whole.empty())
            continue;
        *part = flipped(whole, trial.below(8 * whole.size()));
        compareOpening(trial, "a bit of key, IV or additional data", damaged, sealed, tagSize);
        *part = whole;
    }
    compareOpening(trial, "a bit of the ciphertext or tag", job,
                   flipped(sealed, trial.below(8 * sealed.size())), tagSize);
    compareOpening(trial, "another length", job,
                   sealed.substr(trial.below(sealed.size() - tagSize + 1)), tagSize);
}

void compareTags(Trial& trial, const Job& job)
{
    const size_t tagSize =
        trial.oneIn(2) ? size_t{AVEN_GCM_TAG_MAX} : AVEN_GCM_TAG_MIN + trial.below(13);
    const std::string text = trial.bytes(trial.below(3 * BLOCK));
    const std::string sealed = botan::encrypted(job, text, tagSize);
    for (size_t bit : trial.bits(8 * tagSize))
        compareOpening(trial, "a bit of the tag", job, flipped(sealed, 8 * text.size() + bit),
                       tagSize);
    compareDamaged(trial, job, sealed, tagSize);

    const size_t wrongSize = trial.oneIn(2) ? trial.below(4) : 17 + trial.below(4);
    trial.expectSameVerdict("tag size", text, engine::encrypt(job, text, wrongSize),
                            botan::encrypt(job, text, wrongSize));
}

void compare(Trial& trial, const Cipher& cipher)
{
    const Job job = randomJob(trial, cipher);
    const size_t tagSize = AVEN_GCM_TAG_MIN + trial.below(13);
    const std::string text = trial.bytes(trial.size(BLOCK));
    const std::string sealed = botan::encrypted(job, text, tagSize);
    trial.expectSame("encryption", engine::encrypt(job, text, tagSize), sealed);
    trial.expectSame("decryption", engine::decrypt(job, sealed, tagSize), text);
    compareTags(trial, job);
}

}  // namespace

void addGcm(Algorithms& all)
{
    for (const Cipher& cipher : support::ciphers)
        if (support::isSupported(cipher, AVEN_MODE_GCM))
            all.push_back({std::string(cipher.name) + "-GCM", 60,
                           [&cipher](Trial& trial) { compare(trial, cipher); }});
}

}  // namespace differential
