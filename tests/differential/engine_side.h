// The engine's functions in the shape in which they are compared. botan_side.h has the same.
//
// Each call has buffers of its own, which are looked at for what was written beside them, with the
// capacities that the plug-in offers. A refusal that blames the engine or the test instead of the
// input throws.
#ifndef CORVANE_TESTS_DIFFERENTIAL_ENGINE_SIDE_H
#define CORVANE_TESTS_DIFFERENTIAL_ENGINE_SIDE_H

#include <string>

#include "differential/trial.h"
#include "support/symmetric_calls.h"

namespace differential::engine {

// Running.
const support::DevkitEngine& library();

// ---- Ciphers. In GCM the tag is behind the ciphertext.

Answer encrypt(const support::Job& job, const std::string& data, size_t tagSize = 0);
Answer decrypt(const support::Job& job, const std::string& sealed, size_t tagSize = 0);

// The job is SM4-CBC with padding.
Answer whiteBoxEncrypt(const support::Job& job, const std::string& data);
Answer whiteBoxDecrypt(const support::Job& job, const std::string& data);

// ---- MACs and key derivation

Answer hmac(int hash, const std::string& key, const std::string& data);
Answer cmac(int cipher, const std::string& key, const std::string& data);
Answer kdf(int hash, const std::string& secret, size_t size);

// ---- Public keys

// A key pair; none if the engine refused the texts.
class KeyPair {
public:
    KeyPair(const std::string& privateText, const std::string& publicText,
            const char* password = nullptr);
    KeyPair(const KeyPair&) = delete;
    KeyPair& operator=(const KeyPair&) = delete;
    ~KeyPair();

    bool isThere() const { return m_handle != nullptr; }

    // `form` with any key pair.
    Answer encrypt(PkeyCipherParams form, const std::string& text) const;
    Answer decrypt(PkeyCipherParams form, const std::string& ciphertext) const;

private:
    void* m_handle = nullptr;
};

// ---- What all of them go through

// What a call gave that wrote into `out`.
Answer answerOf(int code, const support::Fenced& out);

}  // namespace differential::engine

#endif
