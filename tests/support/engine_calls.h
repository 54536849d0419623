// The calls of the engine binding, one row each, and what their tests share.
#ifndef CORVANE_TESTS_ENGINE_CALLS_H
#define CORVANE_TESTS_ENGINE_CALLS_H

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "engine_binding.h"
#include "engine_interface.h"
#include "support/plugin_test.h"

namespace support {

using Functions = std::vector<std::string>;

constexpr int NOT_LOADED = -20215;
constexpr int NO_MEMORY = -20000;

inline const unsigned char keyBytes[16] = {0x2b, 0x7e};
inline const SymmCipherParams modeTwo = {1, 2, 0, keyBytes, 16, keyBytes, 16, nullptr, 0};
inline const SymmCipherParams gcm = {1, 6, 0, keyBytes, 16, keyBytes, 12, keyBytes, 4};
inline const PkeyCipherParams pkey = {nullptr, 1, 0, 1};
inline const MacParams mac = {3, keyBytes, 16};
inline const EnvelopeParams envelope = {2, 2, nullptr, nullptr};

inline std::string everyByte()
{
    std::string bytes;
    for (int i = 0; i < 256; ++i)
        bytes += static_cast<char>(i);
    return bytes;
}

// What a call takes and gives. Prepared before a call, so that nothing is copied, and no
// memory is needed, between arming a fault and the call itself.
struct Exchange {
    explicit Exchange(std::string input) : in(std::move(input)) {}

    std::string ke = "4096";
    std::string in;
    std::string a = "first argument of its own";
    std::string b = "second argument of its own";
    std::string c = "third argument of its own";
    std::string out = "output as it was before";
    std::string tag = "tag as it was before";
    void* object = nullptr;

    // Given instead of every block, object and place of an object.
    std::optional<void*> instead;
    const void* block(const void* ordinary) const { return instead ? *instead : ordinary; }
    void* given() const { return instead ? *instead : object; }
    void** place() { return instead ? static_cast<void**>(*instead) : &object; }
};

enum Output {
    NONE,          // no output buffer
    HEAP,          // input length and a margin, a zero byte behind
    HEAP_NO_TEST,  // the same; failed allocations are not reported
    HEAP_FIXED,    // a fixed capacity, a zero byte behind
    KDF,           // as HEAP_FIXED; the engine does not tell a length
    ASKED,         // as large as the engine asks for in a first call
    LOCAL,         // a fixed capacity, nothing behind
};

struct Row {
    std::string function;  // the engine's
    Output output;
    uint32_t margin;       // or the fixed capacity
    const char* exported;  // the binding's parameters as the loader knows them
    const char* what;
    int (*call)(CSoftMoudle_aven& engine, Exchange& x);
    std::string other = "";  // a function without which it fails too
};

// clang-format off

// A call: its text, and what makes it.
#define CALL(...)                              \
    #__VA_ARGS__,                              \
        [](CSoftMoudle_aven& e, Exchange& x) { \
            using std::move;                   \
            return e.__VA_ARGS__;              \
        }

inline const Row rows[] = {
    {"aven_crypto_base64_encode",    ASKED,           0, "(bool, text, text&)",                    CALL(aven_crypto_base64_encode(true, move(x.in), x.out)), "aven_crypto_base64_decode"},
    {"aven_crypto_base64_decode",    ASKED,           0, "(bool, text, text&)",                    CALL(aven_crypto_base64_encode(false, move(x.in), x.out)), "aven_crypto_base64_encode"},
    {"aven_ke_new",                  NONE,            0, "(text&)",                                CALL(aven_ke_new(x.out))},
    {"aven_ke_free",                 NONE,            0, "(text)",                                 CALL(aven_ke_free(move(x.ke)))},
    {"aven_ke_set_public_key",       NONE,            0, "(text, text, text, text)",               CALL(aven_ke_set_public_key(move(x.ke), move(x.in), move(x.a), move(x.b)))},
    {"aven_ke_set_certificate",      NONE,            0, "(text, text, text, text)",               CALL(aven_ke_set_certificate(move(x.ke), move(x.in), move(x.a), move(x.b)))},
    {"aven_ke_set_root_certificate", NONE,            0, "(text, text, text)",                     CALL(aven_ke_set_root_certificate(move(x.ke), move(x.a), move(x.b)))},
    {"aven_ke_client_hello",         LOCAL,          32, "(text, text&)",                          CALL(aven_ke_client_hello(move(x.ke), x.out))},
    {"aven_ke_client_key_exchange",  LOCAL,         256, "(text, text, text, text, text, text&)",  CALL(aven_ke_client_key_exchange(move(x.ke), move(x.in), move(x.a), move(x.b), move(x.c), x.out))},
    {"aven_ke_encrypt",              HEAP_NO_TEST,   64, "(text, text, text&)",                    CALL(aven_ke_encrypt(move(x.ke), move(x.in), x.out))},
    {"aven_ke_decrypt",              HEAP_NO_TEST,   64, "(text, text, text&)",                    CALL(aven_ke_decrypt(move(x.ke), move(x.in), x.out))},
    {"aven_ke_hmac",                 ASKED,           0, "(text, text, text&)",                    CALL(aven_ke_hmac(move(x.ke), move(x.in), x.out))},
    {"aven_ke_cmac",                 ASKED,           0, "(text, text, text&)",                    CALL(aven_ke_cmac(move(x.ke), move(x.in), x.out))},
    {"aven_crypto_public_encrypt",   HEAP,          528, "(void const*, text, text&)",             CALL(aven_crypto_public_encrypt(x.block(&pkey), move(x.in), x.out))},
    {"aven_crypto_private_decrypt",  HEAP,           16, "(void const*, text, text&)",             CALL(aven_crypto_private_decrypt(x.block(&pkey), move(x.in), x.out))},
    {"aven_crypto_encrypt",          HEAP,          128, "(void const*, text, text&, text&, int)", CALL(aven_crypto_encrypt(x.block(&modeTwo), move(x.in), x.out, x.tag, 16))},
    {"aven_crypto_encrypt",          HEAP,          128, "(void const*, text, text&, text&, int)", CALL(aven_crypto_encrypt(x.block(&gcm), move(x.in), x.out, x.tag, 16))},
    {"aven_crypto_decrypt",          HEAP,           64, "(void const*, text, text, text&)",       CALL(aven_crypto_decrypt(x.block(&modeTwo), move(x.in), move(x.a), x.out))},
    {"aven_crypto_decrypt",          HEAP,           64, "(void const*, text, text, text&)",       CALL(aven_crypto_decrypt(x.block(&gcm), move(x.in), move(x.a), x.out))},
    {"aven_crypto_gen_symmkey",      LOCAL,        1024, "(int, text&)",                           CALL(aven_crypto_gen_symmkey(3, x.out))},
    {"aven_crypto_hmac",             HEAP_FIXED,     80, "(void const*, text, text&)",             CALL(aven_crypto_hmac(x.block(&mac), move(x.in), x.out))},
    {"aven_crypto_cmac",             HEAP_FIXED,     80, "(void const*, text, text&)",             CALL(aven_crypto_cmac(x.block(&mac), move(x.in), x.out))},
    {"aven_keypair_unmarshal",       NONE,            0, "(int, text, text, text, void**)",        CALL(aven_keypair_read(3, move(x.in), move(x.a), move(x.b), x.place()))},
    {"aven_keypair_free",            NONE,            0, "(void*)",                                CALL(aven_keypair_free(x.given()))},
    {"aven_certificate_unmarshal",   NONE,            0, "(text, text, void**)",                   CALL(aven_certificate_read(move(x.in), move(x.a), x.place()))},
    {"aven_certificate_free",        NONE,            0, "(void*)",                                CALL(aven_certificate_free(x.given()))},
    {"aven_crypto_kdf",              KDF,           777, "(int, text, int, text&)",                CALL(aven_crypto_kdf(2, move(x.in), 777, x.out))},
    {"aven_crypto_pkcs7_encrypt",    HEAP,         3072, "(void const*, text, text&)",             CALL(aven_crypto_envelope_encrypt(x.block(&envelope), move(x.in), x.out))},
    {"aven_crypto_pkcs7_decrypt",    HEAP,           64, "(void const*, text, text&)",             CALL(aven_crypto_envelope_decrypt(x.block(&envelope), move(x.in), x.out))},
    {"aven_wbsm4_encrypt",           HEAP,           32, "(text, text, text&, text&)",             CALL(aven_wbsm4_encrypt(move(x.a), move(x.b), x.in, x.out))},
    {"aven_wbsm4_decrypt",           HEAP,            0, "(text, text, text&, text&)",             CALL(aven_wbsm4_decrypt(move(x.a), move(x.b), x.in, x.out))},
};
#undef CALL
// clang-format on

inline bool hasBuffer(const Row& row)
{
    return row.output != NONE;
}

inline bool takesInput(const Row& row)
{
    return hasBuffer(row) && row.output != LOCAL;
}

inline uint32_t capacityFor(const Row& row, size_t inLen)
{
    if (row.output == HEAP || row.output == HEAP_NO_TEST)
        return static_cast<uint32_t>(inLen) + row.margin;
    return row.output == ASKED ? static_cast<uint32_t>(inLen) : row.margin;
}

class EngineCalls : public ::testing::Test {
protected:
    void SetUp() override { load(engineDouble()); }
    void TearDown() override { engine.unloadLibrary(); }

    void load(const std::string& path)
    {
        stage.changeEngine(path);
        ASSERT_EQ(0, engine.loadLibrary(path.c_str()));
        stage.journal.calls.clear();
    }

    // Each row starts afresh; the last key pair of the process is then of type 3.
    void start()
    {
        stage.engine.forget();
        void* object = nullptr;
        engine.aven_keypair_read(3, "k", "", "", &object);
        stage.journal.calls.clear();
    }

    doubles::Step& on(const Row& row) { return stage.engine.on(row.function); }
    doubles::Step& onQuery(const Row& row) { return stage.engine.onQuery(row.function); }

    // The call that is made, the second one where the first asks for the length.
    const Call& engineCall(const Row& row)
    {
        return journal.at(row.function, row.output == ASKED ? 1 : 0);
    }

    void expectUntouched(const Exchange& x)
    {
        EXPECT_EQ("output as it was before", x.out);
        EXPECT_EQ("tag as it was before", x.tag);
    }

    Stage stage{"", ""};
    doubles::Journal& journal = stage.journal;
    CSoftMoudle_aven engine;
};

}  // namespace support

#endif
