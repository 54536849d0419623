// What the fuzzers of the development engine share.
#ifndef CORVANE_FUZZ_ENGINE_FUZZ_H
#define CORVANE_FUZZ_ENGINE_FUZZ_H

#include <fstream>
#include <iterator>

#include "engine/engine_numbers.h"
#include "engine/exports.h"
#include "fuzz.h"

namespace fuzz {

// Starts the engine, without a log, for the life of the process.
inline void startEngine()
{
    HOLDS(aven_global_init() == AVEN_OK && aven_global_set_logger("") == AVEN_OK);
}

// A key or certificate made for fuzzing.
inline std::string keyFile(const std::string& name)
{
    std::ifstream file(std::string(CORVANE_FUZZ_KEYS "/") + name, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    HOLDS(!text.empty());
    return text;
}

struct Outcome {
    int code;
    std::string bytes;  // none with a failure
    uint32_t length;    // as told, also with a failure
};

inline bool isSuccess(const Outcome& outcome)
{
    return outcome.code == AVEN_OK;
}

// Makes a call with an output buffer of exactly that capacity: `call(out, out_len)`. A call
// that fails leaves nothing in it.
template <class Call>
Outcome withRoom(size_t capacity, Call call)
{
    Exact out(capacity);
    uint32_t length = out.size32();
    const int code = call(out.data(), &length);
    if (code == AVEN_OK)
        return {code, out.text(length), length};
    HOLDS(out.text() == std::string(capacity, '\0'));
    HOLDS(code == AVEN_E_BUFFER_TOO_SMALL ? length > capacity : length == 0);
    return {code, "", length};
}

// A key pair or certificate, freed at the end of the scope, and not twice.
template <int (*Free)(void*)>
struct Handle {
    void* value = nullptr;

    Handle() = default;
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle()
    {
        HOLDS(Free(value) == AVEN_OK);
        HOLDS(value == nullptr || Free(value) == AVEN_E_HANDLE);
    }
};
using KeyPair = Handle<aven_keypair_free>;
using Certificate = Handle<aven_certificate_free>;

inline int readPrivateKey(int type, const std::string& text, const char* password, void** keypair)
{
    Exact in(text);
    const int code =
        aven_keypair_unmarshal(type, in.data(), in.size32(), nullptr, 0, password, keypair);
    HOLDS((code == AVEN_OK) == (*keypair != nullptr));
    return code;
}

inline int readPublicKey(int type, const std::string& text, void** keypair)
{
    Exact in(text);
    const int code =
        aven_keypair_unmarshal(type, nullptr, 0, in.data(), in.size32(), nullptr, keypair);
    HOLDS((code == AVEN_OK) == (*keypair != nullptr));
    return code;
}

inline int readCertificate(const std::string& text, void** certificate)
{
    Exact in(text);
    const int code = aven_certificate_unmarshal(in.data(), in.size32(), nullptr, certificate);
    HOLDS((code == AVEN_OK) == (*certificate != nullptr));
    return code;
}

// Whether a text is PEM that may come in Base64 too. With "0" before its block it would be
// taken for DER then.
inline bool isPem(const std::string& text)
{
    return text.find("-----BEGIN ") != std::string::npos && text[0] != '0';
}

// A change of one byte at any place of a text, which must not be empty.
struct Damage {
    size_t place;
    unsigned char change;

    explicit Damage(Input& input)
        : place(input.pickWide(65536)), change(static_cast<unsigned char>(input.pick(255) + 1))
    {
    }

    std::string in(std::string text) const
    {
        char& c = text[place % text.size()];
        c = static_cast<char>(c ^ change);
        return text;
    }
};

}  // namespace fuzz

#endif
