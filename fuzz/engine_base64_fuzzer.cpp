// The engine's Base64, both ways: it takes what libcrypto writes, in the same form or
// without padding or with blanks in it, and nothing else. Input: the bytes.

#include "engine_fuzz.h"
#include "oracles.h"

using fuzz::Exact;
using fuzz::Outcome;

namespace {

using Function = int (*)(const unsigned char*, uint32_t, unsigned char*, uint32_t*);

// Asks for the length, then calls with that room and with less.
Outcome call(Function function, const std::string& bytes)
{
    Exact in(bytes);
    uint32_t needed = 0;
    const int code = function(in.data(), in.size32(), nullptr, &needed);
    HOLDS(code == AVEN_OK || needed == 0);

    const auto into = [&](unsigned char* out, uint32_t* length) {
        return function(in.data(), in.size32(), out, length);
    };
    const Outcome outcome = fuzz::withRoom(code == AVEN_OK ? needed : bytes.size(), into);
    HOLDS(outcome.code == code && outcome.length == needed);
    if (needed > 0) {
        const Outcome tooSmall = fuzz::withRoom(needed - 1, into);
        HOLDS(tooSmall.code == AVEN_E_BUFFER_TOO_SMALL && tooSmall.length == needed);
    }
    return outcome;
}

std::string without(std::string text, const std::string& characters)
{
    for (size_t at; (at = text.find_first_of(characters)) != std::string::npos;)
        text.erase(at, 1);
    return text;
}

void checkDecoding(const std::string& text)
{
    const std::string dense = without(text, " \t\r\n");
    const std::string bytes = fuzz::base64Decoded(dense);
    const std::string canonical = fuzz::toBase64(bytes);
    const bool isGood = dense == canonical || dense == without(canonical, "=");

    const Outcome outcome = call(aven_crypto_base64_decode, text);
    HOLDS(isSuccess(outcome) == isGood);
    HOLDS(!isGood || outcome.bytes == bytes);
    HOLDS(isGood || outcome.code == AVEN_E_BASE64_CHARACTER ||
          outcome.code == AVEN_E_BASE64_ENDING);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::startEngine();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    const std::string bytes = input.rest();

    const Outcome encoded = call(aven_crypto_base64_encode, bytes);
    HOLDS(isSuccess(encoded) && encoded.bytes == fuzz::toBase64(bytes));
    checkDecoding(encoded.bytes);
    checkDecoding(bytes);
    return 0;
}
