// The same by Botan: what the engine's answers are compared with. See engine_side.h.
//
// Where a standard says more than Botan does, or Botan lacks a piece, that is done here, and a
// comment says so.
#ifndef CORVANE_TESTS_DIFFERENTIAL_BOTAN_SIDE_H
#define CORVANE_TESTS_DIFFERENTIAL_BOTAN_SIDE_H

#include <botan/exceptn.h>
#include <botan/rng.h>

#include <string>
#include <vector>

#include "differential/trial.h"
#include "support/symmetric_calls.h"

namespace differential::botan {

// ---- Ciphers

// Botan's name of a cipher or hash, by the engine's number.
std::string cipherName(int cipher);
std::string hashName(int hash);

Answer encrypt(const support::Job& job, const std::string& data, size_t tagSize = 0);
Answer decrypt(const support::Job& job, const std::string& sealed, size_t tagSize = 0);

// For an input that is right.
std::string encrypted(const support::Job& job, const std::string& data, size_t tagSize = 0);

// One block by the bare cipher.
std::string encryptBlock(int cipher, const std::string& key, const std::string& block);

// ---- MACs and key derivation

Answer hmac(int hash, const std::string& key, const std::string& data);
Answer cmac(int cipher, const std::string& key, const std::string& data);
std::string kdf(int hash, const std::string& secret, size_t size);
std::string hash(const std::string& name, const std::string& data);

// ---- Between the two

inline const uint8_t* bytesOf(const std::string& text)
{
    return reinterpret_cast<const uint8_t*>(text.data());
}

template <class Allocator>
std::string textOf(const std::vector<uint8_t, Allocator>& bytes)
{
    return std::string(bytes.begin(), bytes.end());
}

// What the work returns, or nothing if Botan refuses the input.
template <class Work>
Answer answerOf(Work work)
{
    try {
        return work();
    } catch (const Botan::Decoding_Error&) {
    } catch (const Botan::Invalid_Argument&) {
    } catch (const Botan::Invalid_Authentication_Tag&) {
    }
    return std::nullopt;
}

// A trial's chance, for what Botan draws.
class Chance : public Botan::RandomNumberGenerator {
public:
    explicit Chance(Trial& trial) : m_trial(trial) {}

    void randomize(uint8_t output[], size_t length) override;
    bool accepts_input() const override { return false; }
    void add_entropy(const uint8_t[], size_t) override {}
    std::string name() const override { return "Chance"; }
    void clear() override {}
    bool is_seeded() const override { return true; }

private:
    Trial& m_trial;
};

}  // namespace differential::botan

#endif
