// What the development engine's functions need of room, and that they keep to it.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/engine_limits.h"

namespace {

using support::dataOf;
using support::server;
using support::sizeOf;

// Bytes whose end is the end of what the process may touch, and filled with a pattern.
class AtTheEdge {
public:
    explicit AtTheEdge(size_t size) : m_size(size)
    {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        m_whole = (size / page + 2) * page;
        void* memory =
            mmap(nullptr, m_whole, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
            abort();
        m_memory = static_cast<unsigned char*>(memory);
        m_data = m_memory + m_whole - page - size;
        if (mprotect(m_memory + m_whole - page, page, PROT_NONE) != 0)
            abort();
        memset(m_memory, FILL, m_whole - page);
    }
    AtTheEdge(const AtTheEdge&) = delete;
    AtTheEdge& operator=(const AtTheEdge&) = delete;
    ~AtTheEdge() { munmap(m_memory, m_whole); }

    unsigned char* data() const { return m_data; }
    std::string text(size_t size) const { return {reinterpret_cast<char*>(m_data), size}; }

    // Whether neither the bytes nor those before them have changed.
    bool untouched() const { return text(m_size) == std::string(m_size, FILL) && frontIntact(); }
    bool frontIntact() const
    {
        return std::all_of(m_memory, m_data, [](unsigned char byte) { return byte == FILL; });
    }

private:
    static constexpr char FILL = 0x5A;

    size_t m_size;
    size_t m_whole;
    unsigned char* m_memory;
    unsigned char* m_data;
};

class EngineCapacities : public support::EngineLimits {
protected:
    // The call with arguments as given succeeds with capacities from the needed one on,
    // always with the same result if `isRandom` is false, and fails with less.
    void expectCapacities(const char* name, uint32_t needed, const Call& call,
                          bool isRandom = false)
    {
        SCOPED_TRACE(name);
        for (uint32_t capacity : {0u, 1u, needed - 1}) {
            if (capacity >= needed)
                continue;
            const AtTheEdge room(capacity);
            uint32_t length = capacity;
            EXPECT_EQ(call(room.data(), &length), AVEN_E_BUFFER_TOO_SMALL) << capacity;
            EXPECT_EQ(length, needed) << capacity;
            EXPECT_TRUE(room.untouched()) << capacity;
        }
        std::string first;
        for (uint32_t capacity : {needed, needed + 1, needed + 5000}) {
            const AtTheEdge room(capacity);
            uint32_t length = capacity;
            ASSERT_EQ(call(room.data(), &length), 0) << capacity;
            ASSERT_LE(length, needed) << capacity;
            EXPECT_TRUE(room.frontIntact()) << capacity;
            if (capacity == needed)
                first = room.text(length);
            else
                EXPECT_EQ(room.text(length) == first, !isRandom) << capacity;
            EXPECT_EQ(length, first.size()) << capacity;
        }
        named.push_back(name);
    }

    void textFunctions();
    void sessionFunctions();
    void channelFunctions();
    void cipherFunctions();
    void macFunctions();
    void publicKeyFunctions();
    void envelopeFunctions();
    void whiteBoxFunctions();

    // What the calls read: 40 bytes.
    const unsigned char* in = dataOf(data);
    const uint32_t inLen = sizeOf(data);

    // The functions that were called.
    std::vector<std::string> named;
};

constexpr bool RANDOM = true;  // a call gives other bytes each time

using Out = unsigned char*;
using Length = uint32_t*;

#define CAPACITIES(function, needed, ...)                                                \
    expectCapacities(#function, needed, [&](Out to, Length n) {                        \
        return engine.function(__VA_ARGS__);                                           \
    }

void EngineCapacities::textFunctions()
{
    const std::string encoded = support::toBase64(data);
    CAPACITIES(aven_crypto_base64_encode, 56, in, inLen, to, n));
    CAPACITIES(aven_crypto_base64_decode, 40, dataOf(encoded), sizeOf(encoded), to, n));
}

// A call that has no room leaves the session as it was, so one will do for all but the
// successes, which need one each.
void EngineCapacities::sessionFunctions()
{
    const std::string& roots = server(KeyKind::Rsa).rootFile();
    expectCapacities(
        "aven_ke_client_hello", 32,
        [&](Out to, Length n) {
            void* session = newSession();
            EXPECT_EQ(engine.aven_ke_set_root_certificate(session, roots.c_str(), nullptr), 0);
            const int code = engine.aven_ke_client_hello(session, to, n);
            EXPECT_EQ(engine.aven_ke_free(session), 0);
            return code;
        },
        RANDOM);
    expectCapacities(
        "aven_ke_client_key_exchange", 256,
        [&](Out to, Length n) {
            std::string hello;
            void* session = greetedSession(hello);
            const ServerAnswer answer = server(KeyKind::Rsa).answer(hello);
            const int code = engine.aven_ke_client_key_exchange(
                session, dataOf(answer.random), sizeOf(answer.random),
                dataOf(answer.signingCertificate), sizeOf(answer.signingCertificate),
                dataOf(answer.encryptionCertificate), sizeOf(answer.encryptionCertificate),
                dataOf(answer.signature), sizeOf(answer.signature), to, n);
            EXPECT_EQ(engine.aven_ke_free(session), 0);
            return code;
        },
        RANDOM);
}

void EngineCapacities::channelFunctions()
{
    std::shared_ptr<ChannelKeys> keys;
    void* ke = establishedSession(keys);
    const std::string message = sealMessage(*keys, data);
    CAPACITIES(aven_ke_encrypt, 68, ke, in, inLen, to, n), RANDOM);
    CAPACITIES(aven_ke_decrypt, 40, ke, dataOf(message), sizeOf(message), to, n));
    CAPACITIES(aven_ke_hmac, 32, ke, in, inLen, to, n));
    CAPACITIES(aven_ke_cmac, 16, ke, in, inLen, to, n));
}

void EngineCapacities::cipherFunctions()
{
    CAPACITIES(aven_crypto_gen_symmkey, 24, AVEN_CIPHER_3DES, to, n), RANDOM);
    CAPACITIES(aven_crypto_encrypt, 48, &cbc, in, inLen, to, n, 0, nullptr));
    CAPACITIES(aven_crypto_encrypt, 40, &gcm, in, inLen, to, n, 16, tag));

    std::string text = sealed([&](Out to, Length n) {
        return engine.aven_crypto_encrypt(&gcm, in, inLen, to, n, 16, tag);
    });
    CAPACITIES(aven_crypto_decrypt, 40, &gcm, dataOf(text), sizeOf(text), tag, 16, to, n));
    // Room for the padding too.
    text = sealed([&](Out to, Length n) {
        return engine.aven_crypto_encrypt(&cbc, in, inLen, to, n, 0, nullptr);
    });
    CAPACITIES(aven_crypto_decrypt, 48, &cbc, dataOf(text), sizeOf(text), nullptr, 0, to, n));
}

void EngineCapacities::macFunctions()
{
    CAPACITIES(aven_crypto_hmac, 32, &mac, in, inLen, to, n));
    CAPACITIES(aven_crypto_cmac, 16, &mac, in, inLen, to, n));
}

void EngineCapacities::publicKeyFunctions()
{
    CAPACITIES(aven_crypto_public_encrypt, 256, &rsaPkey, in, inLen, to, n), RANDOM);
    CAPACITIES(aven_crypto_public_encrypt, 137, &sm2Raw, in, inLen, to, n), RANDOM);
    for (const PkeyCipherParams& params : {rsaPkey, sm2Raw}) {
        const std::string text = sealed([&](Out to, Length n) {
            return engine.aven_crypto_public_encrypt(&params, in, inLen, to, n);
        });
        CAPACITIES(aven_crypto_private_decrypt, 40, &params, dataOf(text), sizeOf(text), to, n));
    }
}

void EngineCapacities::envelopeFunctions()
{
    const std::string text = sealed([&](Out to, Length n) {
        return engine.aven_crypto_pkcs7_encrypt(&envelope, in, inLen, to, n);
    });
    CAPACITIES(aven_crypto_pkcs7_encrypt, sizeOf(text), &envelope, in, inLen, to, n), RANDOM);
    CAPACITIES(aven_crypto_pkcs7_decrypt, 48, &envelope, dataOf(text), sizeOf(text), to, n));
}

void EngineCapacities::whiteBoxFunctions()
{
    CAPACITIES(aven_wbsm4_encrypt, 48, 1, dataOf(key), 16, dataOf(iv), 16, in, inLen, to, n));
    const std::string text = sealed([&](Out to, Length n) {
        return engine.aven_wbsm4_encrypt(1, dataOf(key), 16, dataOf(iv), 16, in, inLen, to, n);
    });
    CAPACITIES(aven_wbsm4_decrypt, 48, 1, dataOf(key), 16, dataOf(iv), 16, dataOf(text),
               sizeOf(text), to, n));
}

#undef CAPACITIES

TEST_F(EngineCapacities, EveryOutputStaysWithinItsCapacity)
{
    textFunctions();
    sessionFunctions();
    channelFunctions();
    cipherFunctions();
    macFunctions();
    publicKeyFunctions();
    envelopeFunctions();
    whiteBoxFunctions();

    // None with such an output is left out.
#define ROW(result, name, params)                                                  \
    EXPECT_EQ(std::count(named.begin(), named.end(), #name) > 0,                   \
              std::string(#params).find("uint32_t* out_len") != std::string::npos) \
        << #name;
    AVEN_ENGINE_FUNCTIONS(ROW)
#undef ROW
}

// Its length is an order, not a capacity.
TEST_F(EngineCapacities, KdfFillsWhatItIsTold)
{
    std::string longest;
    for (uint32_t size : {5000u, 1u, 31u, 32u, 33u, 64u}) {
        const AtTheEdge to(size);
        EXPECT_EQ(engine.aven_crypto_kdf(0, dataOf(data), sizeOf(data), size, to.data()), 0);
        EXPECT_TRUE(to.frontIntact());
        if (longest.empty())
            longest = to.text(size);
        EXPECT_EQ(to.text(size), longest.substr(0, size));
    }
    for (uint32_t size : {0u, AVEN_KDF_MAX + 1u, UINT32_MAX})
        EXPECT_EQ(engine.aven_crypto_kdf(0, dataOf(data), sizeOf(data), size, out),
                  AVEN_E_OUTPUT_LENGTH);
}

TEST_F(EngineCapacities, TagStaysWithinItsLength)
{
    for (int size = 4; size <= 16; ++size) {
        const AtTheEdge to(static_cast<size_t>(size));
        EXPECT_EQ(engine.aven_crypto_encrypt(&gcm, dataOf(data), 40, out, &(len = sizeof out), size,
                                             to.data()),
                  0);
        EXPECT_TRUE(to.frontIntact());
    }
    for (int size : {INT32_MIN, -1, 0, 3, 17, INT32_MAX}) {
        EXPECT_EQ(
            engine.aven_crypto_encrypt(&gcm, dataOf(data), 40, out, &(len = sizeof out), size, tag),
            AVEN_E_TAG_LENGTH)
            << size;
        if (size >= 0) {
            EXPECT_EQ(
                engine.aven_crypto_decrypt(&gcm, dataOf(data), 40, tag, static_cast<uint32_t>(size),
                                           out, &(len = sizeof out)),
                AVEN_E_TAG_LENGTH)
                << size;
        }
    }
}

}  // namespace
