// RSA encryption (RFC 8017): OAEP with SHA-256, and PKCS#1 v1.5.

#include <botan/numthry.h>
#include <botan/system_rng.h>

#include <utility>

#include "differential/algorithm.h"
#include "differential/prepared_keys.h"

namespace differential {

namespace {

using Botan::BigInt;

constexpr size_t DIGEST = 32;

struct Padding {
    int number;  // the engine's
    const char* name;
    const char* botan;
    size_t size;  // of the block that it takes at the least
};
constexpr Padding paddings[] = {
    {AVEN_RSA_OAEP, "OAEP", "OAEP(SHA-256)", 2 * DIGEST + 2},
    {AVEN_RSA_PKCS1, "PKCS#1 v1.5", "PKCS1v15", 11},
};

// A key with a padding, on both sides.
class Recipient {
public:
    Recipient(size_t bits, const Padding& padding)
        : m_key(rsaKey(bits)),
          m_padding(padding),
          m_decryptor(*m_key.botan, Botan::system_rng(), padding.botan)
    {
    }

    const Padding& padding() const { return m_padding; }
    const BigInt& modulus() const { return m_key.botan->get_n(); }
    size_t size() const { return modulus().bytes(); }

    Answer engineEncrypt(const std::string& text) const
    {
        return m_key.engine.encrypt({nullptr, m_padding.number, 0, 0}, text);
    }
    Answer botanEncrypt(const std::string& text, Trial& trial) const
    {
        return botan::answerOf(
            [&] { return botan::encrypt(*m_key.botan, m_padding.botan, text, trial); });
    }
    Answer engineDecrypt(const std::string& ciphertext) const
    {
        return m_key.engine.decrypt({nullptr, m_padding.number, 0, 0}, ciphertext);
    }
    // Botan reads a number of any length; RFC 8017, 7.1.2 and 7.2.2, want the modulus's.
    Answer botanDecrypt(const std::string& ciphertext) const
    {
        return ciphertext.size() == size() ? botan::decrypt(m_decryptor, ciphertext) : std::nullopt;
    }

    // The number with the modulus's length, if it has no more.
    Answer bytesOf(const BigInt& number) const
    {
        if (number.bytes() > size())
            return std::nullopt;
        return botan::textOf(BigInt::encode_1363(number, size()));
    }
    // A padded block of any kind, encrypted; nothing if it is not below the modulus.
    Answer encryptBlock(const std::string& block) const
    {
        const BigInt number(botan::bytesOf(block), block.size());
        if (number >= modulus())
            return std::nullopt;
        return bytesOf(Botan::power_mod(number, m_key.botan->get_e(), modulus()));
    }

private:
    const RsaKey& m_key;
    const Padding& m_padding;
    Botan::PK_Decryptor_EME m_decryptor;
};

void compareDecryption(Trial& trial, const Recipient& key, const char* what,
                       const std::string& ciphertext)
{
    trial.expectSameVerdict(what, ciphertext, key.engineDecrypt(ciphertext),
                            key.botanDecrypt(ciphertext));
}

void compareBothWays(Trial& trial, const Recipient& key)
{
    const size_t most = key.size() - key.padding().size;
    const std::string text = trial.bytes(trial.sizeBelow(most + 1));
    const Answer byEngine = key.engineEncrypt(text), byBotan = key.botanEncrypt(text, trial);
    must(byEngine && byBotan, "a text is not encrypted");
    trial.expectSame("Botan decrypts the engine's", text, key.botanDecrypt(*byEngine));
    trial.expectSame("the engine decrypts Botan's", key.engineDecrypt(*byBotan), text);
    trial.expectSame("the engine decrypts its own", key.engineDecrypt(*byEngine), text);

    const std::string longText = trial.bytes(most + 1 + trial.sizeBelow(100));
    trial.expectSameVerdict("text that is too long", longText, key.engineEncrypt(longText),
                            key.botanEncrypt(longText, trial));
}

// A ciphertext with other bits, another length or another number.
void compareCiphertexts(Trial& trial, const Recipient& key)
{
    const Answer right = key.botanEncrypt(trial.bytes(16), trial);
    must(right.has_value(), "a text is not encrypted");
    for (size_t bit : trial.bits(8 * key.size()))
        compareDecryption(trial, key, "a bit of the ciphertext", flipped(*right, bit));

    const std::string zero(1, '\0');
    for (const std::string& wrong : {right->substr(1), right->substr(0, key.size() - 1),
                                     zero + *right, *right + zero, std::string()})
        compareDecryption(trial, key, "length of the ciphertext", wrong);

    const BigInt number(botan::bytesOf(*right), right->size());
    for (const BigInt& other :
         {BigInt(0), BigInt(1), key.modulus() - 1, key.modulus(), key.modulus() + 1,
          number + key.modulus(), BigInt::power_of_2(8 * key.size()) - 1})
        if (const Answer bytes = key.bytesOf(other))
            compareDecryption(trial, key, "number of the ciphertext", *bytes);
}

// ---- Padded blocks, right ones and wrong ones

void compareBlock(Trial& trial, const Recipient& key, const char* what, const std::string& block)
{
    if (const Answer ciphertext = key.encryptBlock(block))
        compareDecryption(trial, key, what, *ciphertext);
}

std::string withoutZeros(std::string bytes)
{
    for (char& byte : bytes)
        byte = byte == '\0' ? '\x5a' : byte;
    return bytes;
}

// 00 02, bytes that are not zero, 00, text.
std::string pkcs1Block(Trial& trial, size_t size, size_t textSize)
{
    return std::string("\0\2", 2) + withoutZeros(trial.bytes(size - 3 - textSize)) +
           std::string(1, '\0') + trial.bytes(textSize);
}

void comparePkcs1Blocks(Trial& trial, const Recipient& key)
{
    const size_t size = key.size();
    // From no byte of padding on; eight are wanted.
    const size_t paddingSize = trial.oneIn(2) ? trial.below(12) : trial.below(size - 2);
    compareBlock(trial, key, "size of the padding",
                 pkcs1Block(trial, size, size - 3 - paddingSize));

    std::string block = std::string("\0\2", 2) + withoutZeros(trial.bytes(size - 2));
    compareBlock(trial, key, "padding without an end", block);
    block.back() = '\0';
    compareBlock(trial, key, "no text", block);
    block[2 + trial.below(10)] = '\0';
    compareBlock(trial, key, "padding that ends early", block);

    block = pkcs1Block(trial, size, 16);
    for (size_t bit : trial.bits(8 * size))
        compareBlock(trial, key, "a bit of the padded block", flipped(block, bit));
}

std::string mask(const std::string& seed, std::string bytes)
{
    std::string stream;
    for (char counter = 0; stream.size() < bytes.size(); ++counter)
        stream += botan::hash("SHA-256", seed + std::string(3, '\0') + counter);
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(bytes[i] ^ stream[i]);
    return bytes;
}

// RFC 8017, 7.1.1, steps 2d to 2i; the first byte should be 0.
std::string oaepBlock(Trial& trial, const std::string& data, char first = 0)
{
    const std::string seed = trial.bytes(DIGEST);
    const std::string masked = mask(seed, data);
    return first + mask(masked, seed) + masked;
}

// The block's data: hash of no label, zeros, 01, text.
std::string oaepData(Trial& trial, size_t size, size_t textSize)
{
    return botan::hash("SHA-256", "") + std::string(size - DIGEST - 1 - textSize, '\0') + '\1' +
           trial.bytes(textSize);
}

void compareOaepBlocks(Trial& trial, const Recipient& key)
{
    const size_t size = key.size() - 1 - DIGEST;
    const std::string right = oaepData(trial, size, 16);
    compareBlock(trial, key, "first byte", oaepBlock(trial, right, '\1'));
    compareBlock(trial, key, "size of the text",
                 oaepBlock(trial, oaepData(trial, size, trial.sizeBelow(size - DIGEST))));
    compareBlock(trial, key, "no end of the zeros",
                 oaepBlock(trial, botan::hash("SHA-256", "") + std::string(size - DIGEST, '\0')));
    compareBlock(trial, key, "hash of a label",
                 oaepBlock(trial, botan::hash("SHA-256", "label") + right.substr(DIGEST)));
    for (size_t byte : {size_t{0}, DIGEST - 1})
        compareBlock(trial, key, "the hash's first byte, and its last",
                     oaepBlock(trial, flipped(right, 8 * byte + trial.below(8))));
    for (size_t bit : trial.bits(8 * size))
        compareBlock(trial, key, "a bit of the data", oaepBlock(trial, flipped(right, bit)));

    const std::string block = oaepBlock(trial, right);
    compareBlock(trial, key, "a bit of the masked block",
                 flipped(block, trial.below(8 * block.size())));
}

void compare(Trial& trial, size_t bits, const Padding& padding)
{
    const Recipient& key = kept<Recipient>(std::pair(bits, padding.number), [bits, &padding] {
        return std::make_unique<Recipient>(bits, padding);
    });
    compareBothWays(trial, key);
    compareCiphertexts(trial, key);
    if (padding.number == AVEN_RSA_OAEP)
        compareOaepBlocks(trial, key);
    else
        comparePkcs1Blocks(trial, key);
}

}  // namespace

void addRsa(Algorithms& all)
{
    // A modulus of 2049 bits has a byte more than a padded block needs.
    constexpr struct {
        size_t bits;
        unsigned share;
    } sizes[] = {{2048, 10}, {2049, 6}, {3072, 4}, {4096, 2}};
    for (const Padding& padding : paddings)
        for (const auto& [bits, share] : sizes)
            all.push_back(
                {"RSA-" + std::to_string(bits) + " " + padding.name, share,
                 [bits = bits, &padding](Trial& trial) { compare(trial, bits, padding); }});
}

}  // namespace differential
