#include "engine_binding.h"

#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "dynamic_library.h"
#include "engine_binding_text.h"
#include "engine_interface.h"
#include "secret_text.h"

namespace {

void* g_aVenHandle = nullptr;  // null while no engine is loaded

// The type of the key pair that was last read successfully. It sizes the output of
// public encryption for the whole process, whichever key pair that one uses.
int keyType = 0;

#define DECLARE(result, name, params) result(*p##name) params = nullptr;
AVEN_ENGINE_FUNCTIONS(DECLARE)
#undef DECLARE

// What the binding knows of the engine's numbers.
constexpr int KEY_TYPE_SMALL_MARGIN = 1;  // a key pair type; all others need the large one
constexpr int WHITE_BOX_KIND = 1;
constexpr int TAG_CAPACITY = 512;

// Optional texts: null if empty. A password has no length; one that begins with a NUL
// byte is an empty password, not a missing one.
const unsigned char* optionalBytes(const std::string& text)
{
    return text.empty() ? nullptr : bytes(text);
}

const char* optionalText(const std::string& text)
{
    return text.empty() ? nullptr : text.c_str();
}

void* handleOf(std::string ke)
{
    return reinterpret_cast<void*>(GetPtrForStr(std::move(ke)));
}

// `in` and what the engine may add to it. Computed beyond 32 bits, where a sum could wrap
// to a buffer smaller than the input.
size_t withMargin(const std::string& in, size_t margin)
{
    return size_t{size32(in)} + margin;
}

// So many zero bytes, or none if the memory could not be had.
SecretText zeroBytes(size_t count) noexcept
{
    try {
        return SecretText(count);
    } catch (const std::bad_alloc&) {
        return SecretText();
    }
}

// The engine's output, written where it stays: the capacity and one more byte, zero-filled.
// `len` is the in/out length. False if the memory could not be had.
class OutBuffer {
public:
    explicit OutBuffer(size_t wanted)
        : len(static_cast<uint32_t>(std::min<size_t>(wanted, UINT32_MAX))),
          m_capacity(len),
          m_text(zeroBytes(len))
    {
    }

    explicit operator bool() const { return m_text.length() == m_capacity; }
    unsigned char* data() { return reinterpret_cast<unsigned char*>(m_text.data()); }
    std::string&& text()
    {
        m_text[m_capacity] = '\0';  // the one more byte
        m_text.resize(std::min<size_t>(len, m_capacity));
        return std::move(m_text);
    }

    uint32_t len;

private:
    const size_t m_capacity;
    SecretText m_text;
};

// An output whose size the engine's interface fixes.
template <uint32_t Capacity>
struct FixedBuffer {
    unsigned char data[Capacity] = {};
    uint32_t len = Capacity;

    SecretText text() const
    {
        return SecretText(reinterpret_cast<const char*>(data), std::min(len, Capacity));
    }
};

bool isTagged(const void* params)
{
    return params != nullptr && static_cast<const SymmCipherParams*>(params)->mode == AVEN_MODE_GCM;
}

// What becomes of a call whose heap buffer cannot be had: the Base64 and key-exchange
// calls do not report it and end with the code held so far, 0.
enum class NoMemory { Unreported, Returned, ReturnedAndStored };

// The output of a call that has it written into a heap buffer.
struct Output {
    std::string& out;
    size_t capacity;
    NoMemory noMemory;
};

}  // namespace

// One call of the engine on behalf of a binding, whose code it keeps. Whatever differs
// between the calls is in the arguments: the buffer's capacity, the text, the function
// and its arguments in order.
class CSoftMoudle_aven::Call {
public:
    // `secrets` are texts that the engine is given, keys and plaintext among them: they are wiped
    // when the call is over.
    template <class... Texts>
    explicit Call(CSoftMoudle_aven& binding, Texts&... secrets)
        : m_binding(binding), m_secrets{&secrets...}
    {
    }
    ~Call()
    {
        for (std::string* secret : m_secrets)
            if (secret != nullptr)
                wipe(*secret);
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    // The frame of every call: no engine, no call; whatever is thrown ends here, and
    // the code held by then is returned. (If the engine lacks the function, the
    // binding's code stays 0 although the call returns AVEN_NOT_LOADED.) Only `body` may
    // follow a caller's pointer.
    template <class Body>
    int run(bool available, Body body)
    {
        if (!m_binding.isLoad() || !available)
            return AVEN_NOT_LOADED;

        try {
            return body();
        } catch (...) {
            return m_binding.m_errorCode;
        }
    }

    // Keeps the engine's code and leaves the call if it is not 0. The text is for a debugger
    // that stops at the throw; the frame catches it and looks at the code alone.
    void check(int code, const char* text)
    {
        m_binding.m_errorCode = code;
        if (code != 0)
            throw text;
    }

    // A call without an output buffer.
    template <class Function, class... Args>
    int plain(const char* text, Function function, Args... args)
    {
        return run(function != nullptr, [&] {
            check(function(args...), text);
            return 0;
        });
    }

    // A call whose last arguments are a heap buffer and its length.
    template <class Function, class... Args>
    int fill(const Output& to, const char* text, Function function, Args... args)
    {
        return run(function != nullptr, [&] {
            OutBuffer buf(to.capacity);
            if (!buf) {
                if (to.noMemory == NoMemory::ReturnedAndStored)
                    check(AVEN_NO_MEMORY, "ER_MEMORY_OUT");
                return to.noMemory == NoMemory::Returned ? AVEN_NO_MEMORY : 0;
            }
            check(function(args..., buf.data(), &buf.len), text);
            to.out = buf.text();
            return 0;
        });
    }

    // The same with the capacity that the engine asks for in a first call without a
    // buffer.
    template <class Function, class... Args>
    int fillAsAsked(std::string& out, const char* text, Function function, Args... args)
    {
        return run(function != nullptr, [&] {
            uint32_t needed = 0;
            check(function(args..., nullptr, &needed), text);
            return fill({out, needed, NoMemory::Unreported}, text, function, args...);
        });
    }

    // The same with a buffer whose size the interface fixes.
    template <uint32_t Capacity, class Function, class... Args>
    int fillFixed(std::string& out, const char* text, Function function, Args... args)
    {
        return run(function != nullptr, [&] {
            FixedBuffer<Capacity> buf;
            const WipedBytes wiped(buf.data, sizeof buf.data);
            check(function(args..., buf.data, &buf.len), text);
            out = buf.text();
            return 0;
        });
    }

private:
    CSoftMoudle_aven& m_binding;
    std::array<std::string*, 3> m_secrets;
};

long GetPtrForStr(std::string text)
{
    return atol(text.c_str());
}

CSoftMoudle_aven::CSoftMoudle_aven() : m_errorCode(0) {}

CSoftMoudle_aven::~CSoftMoudle_aven() = default;

int CSoftMoudle_aven::loadLibrary(const char* path)
{
    g_aVenHandle = dlopen(path, RTLD_NOW);
    if (g_aVenHandle == nullptr) {
        printf("%s load fail\n", path);
        return AVEN_NOT_LOADED;
    }

#define RESOLVE(result, name, params) resolve(g_aVenHandle, p##name, #name);
    AVEN_ENGINE_FUNCTIONS(RESOLVE)
#undef RESOLVE
    return 0;
}

void CSoftMoudle_aven::unloadLibrary()
{
    if (g_aVenHandle == nullptr)
        return;
    dlclose(g_aVenHandle);
    g_aVenHandle = nullptr;
}

bool CSoftMoudle_aven::isLoad()
{
    m_errorCode = g_aVenHandle != nullptr ? 0 : AVEN_NOT_LOADED;
    return m_errorCode == 0;
}

int CSoftMoudle_aven::get_ErrorCode()
{
    return m_errorCode;
}

std::string CSoftMoudle_aven::GetStrForInt(long value)
{
    try {
        return std::to_string(value);  // no locale groups its digits
    } catch (...) {
        return "";
    }
}

int CSoftMoudle_aven::aven_global_init(std::string logTarget)
{
    Call engine(*this);
    return engine.run(paven_global_init != nullptr, [&] {
        m_errorCode = paven_global_init();
        if (paven_global_set_logger != nullptr)
            paven_global_set_logger(logTarget.c_str());
        return m_errorCode;
    });
}

int CSoftMoudle_aven::aven_global_cleanup()
{
    Call engine(*this);
    return engine.run(paven_global_cleanup != nullptr, [&] {
        m_errorCode = paven_global_cleanup();
        return m_errorCode;
    });
}

std::string CSoftMoudle_aven::aven_version()
{
    std::string text;
    Call(*this).run(paven_version != nullptr, [&] {
        if (const char* version = paven_version())
            text = version;
        return 0;
    });
    return text;
}

std::string CSoftMoudle_aven::aven_strerror(std::string code)
{
    std::string text;
    Call(*this).run(paven_strerror != nullptr, [&] {
        if (const char* error = paven_strerror(atoi(code.c_str())))
            text = error;
        return 0;
    });
    return text;
}

int CSoftMoudle_aven::aven_crypto_base64_encode(bool encode, std::string in, std::string& out)
{
    const auto function = encode ? paven_crypto_base64_encode : paven_crypto_base64_decode;
    const auto other = encode ? paven_crypto_base64_decode : paven_crypto_base64_encode;

    return Call(*this, in).fillAsAsked(
        out, "Error, crypto_base64", other != nullptr ? function : nullptr, bytes(in), size32(in));
}

int CSoftMoudle_aven::aven_ke_new(std::string& ke)
{
    Call engine(*this);
    return engine.run(paven_ke_new != nullptr, [&] {
        void* handle = nullptr;
        engine.check(paven_ke_new(&handle), "Error, create key exchange handle error");
        ke = GetStrForInt(reinterpret_cast<long>(handle));
        return 0;
    });
}

int CSoftMoudle_aven::aven_ke_free(std::string ke)
{
    return Call(*this).plain("Error, free key exchange handle error", paven_ke_free,
                             handleOf(std::move(ke)));
}

int CSoftMoudle_aven::aven_ke_set_public_key(std::string ke, std::string sigKey, std::string encKey,
                                             std::string password)
{
    return Call(*this, sigKey, encKey, password)
        .plain("Error, free key exchange handle error", paven_ke_set_public_key,
               handleOf(std::move(ke)), optionalBytes(sigKey), size32(sigKey),
               optionalBytes(encKey), size32(encKey), optionalText(password));
}

int CSoftMoudle_aven::aven_ke_set_certificate(std::string ke, std::string sigCert,
                                              std::string encCert, std::string password)
{
    return Call(*this, password)
        .plain("Error, free key exchange handle error", paven_ke_set_certificate,
               handleOf(std::move(ke)), optionalBytes(sigCert), size32(sigCert),
               optionalBytes(encCert), size32(encCert), optionalText(password));
}

int CSoftMoudle_aven::aven_ke_set_root_certificate(std::string ke, std::string caFile,
                                                   std::string caPath)
{
    return Call(*this).plain("Error,aven_ke_set_root_certificate", paven_ke_set_root_certificate,
                             handleOf(std::move(ke)), optionalText(caFile), optionalText(caPath));
}

int CSoftMoudle_aven::aven_ke_client_hello(std::string ke, std::string& out)
{
    return Call(*this).fillFixed<32>(out, "Error, aven_ke_client_hello", paven_ke_client_hello,
                                     handleOf(std::move(ke)));
}

int CSoftMoudle_aven::aven_ke_client_key_exchange(std::string ke, std::string srvrRand,
                                                  std::string srvrSigCert, std::string srvrEncCert,
                                                  std::string srvrSign, std::string& out)
{
    return Call(*this).fillFixed<256>(out, "Error, aven_ke_client_key_exchange",
                                      paven_ke_client_key_exchange, handleOf(std::move(ke)),
                                      bytes(srvrRand), size32(srvrRand), bytes(srvrSigCert),
                                      size32(srvrSigCert), bytes(srvrEncCert), size32(srvrEncCert),
                                      bytes(srvrSign), size32(srvrSign));
}

int CSoftMoudle_aven::aven_ke_encrypt(std::string ke, std::string in, std::string& out)
{
    return Call(*this, in).fill({out, withMargin(in, 64), NoMemory::Unreported},
                                "Error, aven_ke_encrypt", paven_ke_encrypt, handleOf(std::move(ke)),
                                bytes(in), size32(in));
}

int CSoftMoudle_aven::aven_ke_decrypt(std::string ke, std::string in, std::string& out)
{
    return Call(*this).fill({out, withMargin(in, 64), NoMemory::Unreported},
                            "Error, aven_ke_decrypt", paven_ke_decrypt, handleOf(std::move(ke)),
                            bytes(in), size32(in));
}

int CSoftMoudle_aven::aven_ke_hmac(std::string ke, std::string in, std::string& out)
{
    return Call(*this, in).fillAsAsked(out, "Error, aven_ke_hmac", paven_ke_hmac,
                                       handleOf(std::move(ke)), bytes(in), size32(in));
}

int CSoftMoudle_aven::aven_ke_cmac(std::string ke, std::string in, std::string& out)
{
    return Call(*this, in).fillAsAsked(out, "Error, aven_ke_cmac", paven_ke_cmac,
                                       handleOf(std::move(ke)), bytes(in), size32(in));
}

int CSoftMoudle_aven::aven_crypto_public_encrypt(const void* params, std::string in,
                                                 std::string& out)
{
    const size_t margin = keyType == KEY_TYPE_SMALL_MARGIN ? 129 : 528;
    return Call(*this, in).fill({out, withMargin(in, margin), NoMemory::Returned},
                                "Error, aven_crypto_public_encrypt", paven_crypto_public_encrypt,
                                params, bytes(in), size32(in));
}

int CSoftMoudle_aven::aven_crypto_private_decrypt(const void* params, std::string in,
                                                  std::string& out)
{
    return Call(*this).fill({out, withMargin(in, 16), NoMemory::Returned},
                            "Error, aven_crypto_private_decrypt", paven_crypto_private_decrypt,
                            params, bytes(in), size32(in));
}

int CSoftMoudle_aven::aven_crypto_encrypt(const void* params, std::string in, std::string& out,
                                          std::string& tag, int tagLen)
{
    Call engine(*this, in);
    return engine.run(paven_crypto_encrypt != nullptr, [&] {
        OutBuffer buf(withMargin(in, 128));
        if (!buf)
            return AVEN_NO_MEMORY;

        const bool tagged = isTagged(params);
        FixedBuffer<TAG_CAPACITY> tagBuf;
        tagBuf.len = tagged ? static_cast<uint32_t>(std::clamp(tagLen, 0, TAG_CAPACITY)) : 0;
        engine.check(
            paven_crypto_encrypt(params, bytes(in), size32(in), buf.data(), &buf.len,
                                 static_cast<int>(tagBuf.len), tagged ? tagBuf.data : nullptr),
            "Error, aven_crypto_encrypt");

        if (tagged)
            tag = tagBuf.text();  // which may fail: neither text is handed over then
        out = buf.text();
        return 0;
    });
}

int CSoftMoudle_aven::aven_crypto_decrypt(const void* params, std::string in, std::string tag,
                                          std::string& out)
{
    Call engine(*this);
    return engine.run(paven_crypto_decrypt != nullptr, [&] {
        const bool tagged = isTagged(params);
        return engine.fill({out, withMargin(in, 64), NoMemory::Returned},
                           "Error, aven_crypto_decrypt", paven_crypto_decrypt, params, bytes(in),
                           size32(in), tagged ? bytes(tag) : nullptr, tagged ? size32(tag) : 0);
    });
}

int CSoftMoudle_aven::aven_crypto_gen_symmkey(int type, std::string& out)
{
    return Call(*this).fillFixed<1024>(out, "Error, aven_crypto_gen_symmkey",
                                       paven_crypto_gen_symmkey, type);
}

int CSoftMoudle_aven::aven_crypto_hmac(const void* params, std::string in, std::string& out)
{
    return Call(*this, in).fill({out, 80, NoMemory::Returned}, "Error, aven_crypto_hmac",
                                paven_crypto_hmac, params, bytes(in), size32(in));
}

int CSoftMoudle_aven::aven_crypto_cmac(const void* params, std::string in, std::string& out)
{
    // The text names the HMAC twin; it never leaves the call.
    return Call(*this, in).fill({out, 80, NoMemory::Returned}, "Error, aven_crypto_hmac",
                                paven_crypto_cmac, params, bytes(in), size32(in));
}

int CSoftMoudle_aven::aven_crypto_kdf(int alg, std::string in, int keyLen, std::string& out)
{
    Call engine(*this, in);
    return engine.run(paven_crypto_kdf != nullptr, [&] {
        OutBuffer buf(static_cast<size_t>(std::max(keyLen, 0)));
        if (!buf)
            return AVEN_NO_MEMORY;
        engine.check(paven_crypto_kdf(alg, bytes(in), size32(in), buf.len, buf.data()),
                     "Error, paven_crypto_kdf");
        out = buf.text();
        return 0;
    });
}

int CSoftMoudle_aven::aven_crypto_envelope_encrypt(const void* params, std::string in,
                                                   std::string& out)
{
    return Call(*this, in).fill({out, withMargin(in, 3072), NoMemory::ReturnedAndStored},
                                "aven_crypto_pkcs7_encrypt error", paven_crypto_pkcs7_encrypt,
                                params, bytes(in), size32(in));
}

int CSoftMoudle_aven::aven_crypto_envelope_decrypt(const void* params, std::string in,
                                                   std::string& out)
{
    return Call(*this).fill({out, withMargin(in, 64), NoMemory::ReturnedAndStored},
                            "paven_crypto_pkcs7_decrypt error", paven_crypto_pkcs7_decrypt, params,
                            bytes(in), size32(in));
}

int CSoftMoudle_aven::aven_keypair_read(int type, std::string privateKey, std::string publicKey,
                                        std::string password, void** keypair)
{
    Call engine(*this, privateKey, password);
    return engine.run(paven_keypair_unmarshal != nullptr, [&] {
        engine.check(paven_keypair_unmarshal(type, optionalBytes(privateKey), size32(privateKey),
                                             optionalBytes(publicKey), size32(publicKey),
                                             optionalText(password), keypair),
                     "Error, aven_keypair_unmarshal");
        keyType = type;
        return 0;
    });
}

int CSoftMoudle_aven::aven_keypair_free(void* keypair)
{
    return Call(*this).plain("Error, aven_keypair_free", paven_keypair_free, keypair);
}

int CSoftMoudle_aven::aven_certificate_read(std::string cert, std::string password,
                                            void** certificate)
{
    return Call(*this, password)
        .plain("Error, paven_certificate_unmarshal", paven_certificate_unmarshal,
               optionalBytes(cert), size32(cert), optionalText(password), certificate);
}

int CSoftMoudle_aven::aven_certificate_free(void* certificate)
{
    return Call(*this).plain("Error, paven_certificate_free", paven_certificate_free, certificate);
}

int CSoftMoudle_aven::aven_wbsm4_encrypt(std::string key, std::string iv, std::string& in,
                                         std::string& out)
{
    return Call(*this, key)
        .fill({out, withMargin(in, 32), NoMemory::Returned}, "paven_wbsm4_encrypt error",
              paven_wbsm4_encrypt, WHITE_BOX_KIND, bytes(key), size32(key), bytes(iv), size32(iv),
              bytes(in), size32(in));
}

int CSoftMoudle_aven::aven_wbsm4_decrypt(std::string key, std::string iv, std::string& in,
                                         std::string& out)
{
    // No margin, unlike encryption: the plaintext is never longer than its ciphertext.
    return Call(*this, key)
        .fill({out, withMargin(in, 0), NoMemory::Returned}, "paven_wbsm4_decrypt error",
              paven_wbsm4_decrypt, WHITE_BOX_KIND, bytes(key), size32(key), bytes(iv), size32(iv),
              bytes(in), size32(in));
}
