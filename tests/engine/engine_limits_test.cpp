// The development engine's limits, function by function: null pointers, capacities from
// zero to more than enough, lengths up to the largest, and numbers that mean nothing.
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <tuple>
#include <utility>

#include "support/engine_everything.h"
#include "support/held.h"

namespace {

using support::certificatePem;
using support::dataOf;
using support::openssl;
using support::pattern;
using support::privatePem;
using support::publicPem;
using support::server;
using support::sizeOf;

constexpr int NUL = AVEN_E_NULL_POINTER;

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

// The largest length that there is, readable as zeros that take no memory until read.
class Endless {
public:
    static constexpr uint32_t SIZE = UINT32_MAX;

    Endless()
        : m_memory(
              mmap(nullptr, SIZE, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0))
    {
        if (m_memory == MAP_FAILED)
            abort();
    }
    Endless(const Endless&) = delete;
    Endless& operator=(const Endless&) = delete;
    ~Endless() { munmap(m_memory, SIZE); }

    const unsigned char* data() const { return static_cast<const unsigned char*>(m_memory); }

private:
    void* m_memory;
};

template <class Type>
struct AsIs {
    using type = Type;
};

class EngineLimits : public support::KeyedEngineTest {
protected:
    void SetUp() override
    {
        KeyedEngineTest::SetUp();
        rsa = privateKey("rsa2048");
        sm2 = privateKey("sm2");
        rsaCertificate = certificate("rsa2048");
        cbc = {AVEN_CIPHER_AES_128, AVEN_MODE_CBC, 1, dataOf(key), 16, dataOf(iv), 16, nullptr, 0};
        gcm = {AVEN_CIPHER_AES_128,
               AVEN_MODE_GCM,
               0,
               dataOf(key),
               16,
               dataOf(iv),
               12,
               dataOf(aad),
               20};
        mac = {AVEN_HASH_SM3, dataOf(key), 16};
        rsaPkey = {rsa, AVEN_RSA_OAEP, 0, 0};
        sm2Raw = {sm2, 0, 1, 0};
        envelope = {AVEN_CIPHER_AES_128, AVEN_MODE_CBC, rsa, rsaCertificate};
    }

    // Calls with each pointer in turn null, all else as given; `expected` has the codes in
    // the order of the pointers.
    template <class... Parameters>
    void expectNulls(const char* name, int (*function)(Parameters...), std::vector<int> expected,
                     typename AsIs<Parameters>::type... arguments)
    {
        SCOPED_TRACE(name);
        const std::tuple<Parameters...> good(arguments...);
        size_t pointers = 0;
        eachNull(function, good, expected, pointers, std::index_sequence_for<Parameters...>());
        EXPECT_EQ(pointers, expected.size());
        named.push_back(name);
    }

    // The call with arguments as given succeeds with capacities from the needed one on,
    // always with the same result if `isRandom` is false, and fails with less.
    using Call = std::function<int(unsigned char* out, uint32_t* outLength)>;
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
        capacitiesOf.push_back(name);
    }

    void* newSession()
    {
        void* ke = nullptr;
        EXPECT_EQ(engine.aven_ke_new(&ke), 0);
        return ke;
    }

    void* greetedSession(std::string& hello)
    {
        void* ke = newSession();
        const std::string& roots = server(KeyKind::Rsa).rootFile();
        EXPECT_EQ(engine.aven_ke_set_root_certificate(ke, roots.c_str(), nullptr), 0);
        unsigned char bytes[32];
        uint32_t length = 32;
        EXPECT_EQ(engine.aven_ke_client_hello(ke, bytes, &length), 0);
        hello.assign(reinterpret_cast<char*>(bytes), length);
        return ke;
    }

    void* establishedSession(std::shared_ptr<ChannelKeys>& keys)
    {
        void* ke = newSession();
        EXPECT_EQ(server(KeyKind::Rsa).establish(engine, ke, keys), 0);
        return ke;
    }

    std::string sealed(const Call& call)
    {
        std::string text(5000, '\0');
        uint32_t length = sizeOf(text);
        EXPECT_EQ(call(reinterpret_cast<unsigned char*>(text.data()), &length), 0);
        text.resize(length);
        return text;
    }

    const std::string key = pattern(16), iv = pattern(16, 2), aad = pattern(20, 3);
    const std::string data = pattern(40, 4);
    void* rsa = nullptr;
    void* sm2 = nullptr;
    void* rsaCertificate = nullptr;
    SymmCipherParams cbc, gcm;
    MacParams mac;
    PkeyCipherParams rsaPkey, sm2Raw;
    EnvelopeParams envelope;

    // For calls that must not, or need not, write.
    unsigned char out[5000];
    uint32_t len = sizeof out;
    unsigned char tag[16];
    void* handle = nullptr;

    std::vector<std::string> named, capacitiesOf;

private:
    template <class Function, class Arguments, size_t... Index>
    void eachNull(Function function, const Arguments& good, const std::vector<int>& expected,
                  size_t& pointers, std::index_sequence<Index...>)
    {
        (oneNull<Index>(function, good, expected, pointers), ...);
    }

    template <size_t Index, class Function, class Arguments>
    void oneNull(Function function, const Arguments& good, const std::vector<int>& expected,
                 size_t& pointers)
    {
        if constexpr (std::is_pointer_v<std::tuple_element_t<Index, Arguments>>) {
            Arguments arguments = good;
            std::get<Index>(arguments) = nullptr;
            len = sizeof out;
            ASSERT_LT(pointers, expected.size());
            EXPECT_EQ(std::apply(function, arguments), expected[pointers]) << "argument " << Index;
            ++pointers;
        }
    }
};

// ---- Null pointers

TEST_F(EngineLimits, EachPointerMayBeNullOrIsRefused)
{
    const unsigned char* in = dataOf(data);
    const uint32_t size = sizeOf(data);
    const std::string keyText = privatePem("rsa2048"), publicText = publicPem("rsa2048");
    const std::string certificateText = certificatePem("rsa2048");
    const std::string encoded = support::toBase64(data);
    const std::string& roots = server(KeyKind::Rsa).rootFile();
    const std::string directory = openssl().path("roots");
    std::filesystem::create_directory(directory);
    std::filesystem::copy(roots, directory);

    std::shared_ptr<ChannelKeys> keys;
    void* ke = establishedSession(keys);
    std::string hello;
    void* greeted = greetedSession(hello);
    void* fresh = newSession();
    const ServerAnswer answer = server(KeyKind::Rsa).answer(hello);
    const std::string message = sealMessage(*keys, data);
    const std::string cipher = sealed([&](unsigned char* to, uint32_t* n) {
        return engine.aven_crypto_encrypt(&cbc, in, size, to, n, 0, nullptr);
    });
    const std::string gcmCipher = sealed([&](unsigned char* to, uint32_t* n) {
        return engine.aven_crypto_encrypt(&gcm, in, size, to, n, 16, tag);
    });
    const std::string rsaCipher = sealed([&](unsigned char* to, uint32_t* n) {
        return engine.aven_crypto_public_encrypt(&rsaPkey, in, size, to, n);
    });
    const std::string enveloped = sealed([&](unsigned char* to, uint32_t* n) {
        return engine.aven_crypto_pkcs7_encrypt(&envelope, in, size, to, n);
    });
    const std::string white = sealed([&](unsigned char* to, uint32_t* n) {
        return engine.aven_wbsm4_encrypt(1, dataOf(key), 16, dataOf(iv), 16, in, size, to, n);
    });

#define NULLS(function, ...) expectNulls(#function, engine.function, __VA_ARGS__)
    NULLS(aven_global_set_logger, {NUL}, "");
    NULLS(aven_crypto_base64_encode, {NUL, NUL, NUL}, in, size, out, &len);
    NULLS(aven_crypto_base64_decode, {NUL, NUL, NUL}, dataOf(encoded), sizeOf(encoded), out, &len);
    NULLS(aven_ke_new, {NUL}, &handle);
    NULLS(aven_ke_free, {NUL}, fresh);
    NULLS(aven_ke_set_public_key, {NUL, NUL, NUL, 0}, fresh, dataOf(keyText), sizeOf(keyText),
          dataOf(keyText), sizeOf(keyText), "");
    NULLS(aven_ke_set_certificate, {NUL, NUL, NUL, 0}, fresh, dataOf(certificateText),
          sizeOf(certificateText), dataOf(certificateText), sizeOf(certificateText), "");
    NULLS(aven_ke_set_root_certificate, {NUL, 0, 0}, fresh, roots.c_str(), directory.c_str());
    NULLS(aven_ke_client_hello, {NUL, NUL, NUL}, fresh, out, &len);
    NULLS(aven_ke_client_key_exchange, {NUL, NUL, NUL, NUL, NUL, NUL, NUL}, greeted,
          dataOf(answer.random), sizeOf(answer.random), dataOf(answer.signingCertificate),
          sizeOf(answer.signingCertificate), dataOf(answer.encryptionCertificate),
          sizeOf(answer.encryptionCertificate), dataOf(answer.signature), sizeOf(answer.signature),
          out, &len);
    NULLS(aven_ke_encrypt, {NUL, NUL, NUL, NUL}, ke, in, size, out, &len);
    NULLS(aven_ke_decrypt, {NUL, NUL, NUL, NUL}, ke, dataOf(message), sizeOf(message), out, &len);
    NULLS(aven_ke_hmac, {NUL, NUL, NUL, NUL}, ke, in, size, out, &len);
    NULLS(aven_ke_cmac, {NUL, NUL, NUL, NUL}, ke, in, size, out, &len);
    NULLS(aven_crypto_public_encrypt, {NUL, NUL, NUL, NUL}, &rsaPkey, in, size, out, &len);
    NULLS(aven_crypto_private_decrypt, {NUL, NUL, NUL, NUL}, &rsaPkey, dataOf(rsaCipher),
          sizeOf(rsaCipher), out, &len);
    NULLS(aven_crypto_encrypt, {NUL, NUL, NUL, NUL, 0}, &cbc, in, size, out, &len, 0, tag);
    NULLS(aven_crypto_encrypt, {NUL, NUL, NUL, NUL, NUL}, &gcm, in, size, out, &len, 16, tag);
    NULLS(aven_crypto_decrypt, {NUL, NUL, 0, NUL, NUL}, &cbc, dataOf(cipher), sizeOf(cipher), tag,
          0, out, &len);
    NULLS(aven_crypto_decrypt, {NUL, NUL, NUL, NUL, NUL}, &gcm, dataOf(gcmCipher),
          sizeOf(gcmCipher), tag, 16, out, &len);
    NULLS(aven_crypto_gen_symmkey, {NUL, NUL}, 1, out, &len);
    NULLS(aven_crypto_hmac, {NUL, NUL, NUL, NUL}, &mac, in, size, out, &len);
    NULLS(aven_keypair_unmarshal, {NUL, NUL, 0, NUL}, 0, dataOf(keyText), sizeOf(keyText),
          dataOf(publicText), sizeOf(publicText), "", &handle);
    NULLS(aven_keypair_free, {0}, rsa);
    NULLS(aven_crypto_cmac, {NUL, NUL, NUL, NUL}, &mac, in, size, out, &len);
    NULLS(aven_certificate_unmarshal, {NUL, 0, NUL}, dataOf(certificateText),
          sizeOf(certificateText), "", &handle);
    NULLS(aven_certificate_free, {0}, rsaCertificate);
    NULLS(aven_crypto_kdf, {NUL, NUL}, 0, in, size, 200, out);
    NULLS(aven_crypto_pkcs7_encrypt, {NUL, NUL, NUL, NUL}, &envelope, in, size, out, &len);
    NULLS(aven_crypto_pkcs7_decrypt, {NUL, NUL, NUL, NUL}, &envelope, dataOf(enveloped),
          sizeOf(enveloped), out, &len);
    NULLS(aven_wbsm4_encrypt, {NUL, NUL, NUL, NUL, NUL}, 1, dataOf(key), 16, dataOf(iv), 16, in,
          size, out, &len);
    NULLS(aven_wbsm4_decrypt, {NUL, NUL, NUL, NUL, NUL}, 1, dataOf(key), 16, dataOf(iv), 16,
          dataOf(white), sizeOf(white), out, &len);
#undef NULLS

    // None that takes a pointer is left out.
#define ROW(result, name, params)                                  \
    EXPECT_EQ(std::count(named.begin(), named.end(), #name) > 0,   \
              std::string(#params).find('*') != std::string::npos) \
        << #name;
    AVEN_ENGINE_FUNCTIONS(ROW)
#undef ROW
}

TEST_F(EngineLimits, PointersInsideBlocksMayNotBeNull)
{
    const unsigned char* in = dataOf(data);
    const auto encrypt = [&](const SymmCipherParams& params) {
        return engine.aven_crypto_encrypt(&params, in, 32, out, &(len = sizeof out), 16, tag);
    };
    const auto decrypt = [&](const SymmCipherParams& params) {
        return engine.aven_crypto_decrypt(&params, in, 32, tag, 16, out, &(len = sizeof out));
    };
    for (auto field : {&SymmCipherParams::key, &SymmCipherParams::iv, &SymmCipherParams::aad}) {
        SymmCipherParams params = gcm;
        params.*field = nullptr;
        EXPECT_EQ(encrypt(params), NUL);
        EXPECT_EQ(decrypt(params), NUL);
    }
    mac.key = nullptr;
    EXPECT_EQ(engine.aven_crypto_hmac(&mac, in, 8, out, &(len = sizeof out)), NUL);
    EXPECT_EQ(engine.aven_crypto_cmac(&mac, in, 8, out, &(len = sizeof out)), NUL);
    rsaPkey.keypair = nullptr;
    EXPECT_EQ(engine.aven_crypto_public_encrypt(&rsaPkey, in, 8, out, &(len = sizeof out)), NUL);
    EXPECT_EQ(engine.aven_crypto_private_decrypt(&rsaPkey, in, 8, out, &(len = sizeof out)), NUL);
    envelope.certificate = envelope.keypair = nullptr;
    EXPECT_EQ(engine.aven_crypto_pkcs7_encrypt(&envelope, in, 8, out, &(len = sizeof out)), NUL);
    EXPECT_EQ(engine.aven_crypto_pkcs7_decrypt(&envelope, in, 8, out, &(len = sizeof out)), NUL);
    EXPECT_EQ(len, 0u);
}

// Nothing to read is no reason to fail, where there may be nothing.
TEST_F(EngineLimits, NullInputOfNoBytesIsInput)
{
    const auto works = [&](int code) { EXPECT_EQ(code, 0); };
    std::shared_ptr<ChannelKeys> keys;
    void* ke = establishedSession(keys);
    works(engine.aven_crypto_base64_encode(nullptr, 0, out, &(len = sizeof out)));
    works(engine.aven_crypto_base64_decode(nullptr, 0, out, &(len = sizeof out)));
    works(engine.aven_crypto_encrypt(&cbc, nullptr, 0, out, &(len = sizeof out), 0, nullptr));
    works(engine.aven_crypto_encrypt(&gcm, nullptr, 0, out, &(len = sizeof out), 16, tag));
    works(engine.aven_crypto_decrypt(&gcm, nullptr, 0, tag, 16, out, &(len = sizeof out)));
    works(engine.aven_crypto_hmac(&mac, nullptr, 0, out, &(len = sizeof out)));
    works(engine.aven_crypto_cmac(&mac, nullptr, 0, out, &(len = sizeof out)));
    works(engine.aven_ke_encrypt(ke, nullptr, 0, out, &(len = sizeof out)));
    works(engine.aven_ke_hmac(ke, nullptr, 0, out, &(len = sizeof out)));
    works(engine.aven_ke_cmac(ke, nullptr, 0, out, &(len = sizeof out)));
    works(engine.aven_crypto_public_encrypt(&rsaPkey, nullptr, 0, out, &(len = sizeof out)));
    works(engine.aven_crypto_pkcs7_encrypt(&envelope, nullptr, 0, out, &(len = sizeof out)));
    works(engine.aven_wbsm4_encrypt(1, dataOf(key), 16, dataOf(iv), 16, nullptr, 0, out,
                                    &(len = sizeof out)));
    EXPECT_EQ(engine.aven_crypto_public_encrypt(&sm2Raw, nullptr, 0, out, &(len = sizeof out)),
              AVEN_E_INPUT_EMPTY);
    EXPECT_EQ(engine.aven_crypto_kdf(0, nullptr, 0, 16, out), AVEN_E_INPUT_EMPTY);
}

// ---- Capacities

TEST_F(EngineLimits, EveryOutputStaysWithinItsCapacity)
{
    const unsigned char* in = dataOf(data);  // 40 bytes
    const uint32_t size = sizeOf(data);
    const std::string encoded = support::toBase64(data);
    constexpr bool RANDOM = true;
    using Out = unsigned char*;
    using Length = uint32_t*;
    std::shared_ptr<ChannelKeys> keys;
    void* ke = establishedSession(keys);
    const std::string message = sealMessage(*keys, data);

#define CAPACITIES(function, needed, ...)                                                \
    expectCapacities(#function, needed, [&](Out to, Length n) {                        \
        return engine.function(__VA_ARGS__);                                           \
    }
    CAPACITIES(aven_crypto_base64_encode, 56, in, size, to, n));
    CAPACITIES(aven_crypto_base64_decode, 40, dataOf(encoded), sizeOf(encoded), to, n));
    CAPACITIES(aven_ke_encrypt, 68, ke, in, size, to, n), RANDOM);
    CAPACITIES(aven_ke_decrypt, 40, ke, dataOf(message), sizeOf(message), to, n));
    CAPACITIES(aven_ke_hmac, 32, ke, in, size, to, n));
    CAPACITIES(aven_ke_cmac, 16, ke, in, size, to, n));
    CAPACITIES(aven_crypto_gen_symmkey, 24, AVEN_CIPHER_3DES, to, n), RANDOM);
    CAPACITIES(aven_crypto_public_encrypt, 256, &rsaPkey, in, size, to, n), RANDOM);
    CAPACITIES(aven_crypto_public_encrypt, 137, &sm2Raw, in, size, to, n), RANDOM);
    CAPACITIES(aven_crypto_hmac, 32, &mac, in, size, to, n));
    CAPACITIES(aven_crypto_cmac, 16, &mac, in, size, to, n));
    CAPACITIES(aven_crypto_encrypt, 48, &cbc, in, size, to, n, 0, nullptr));
    CAPACITIES(aven_crypto_encrypt, 40, &gcm, in, size, to, n, 16, tag));
    CAPACITIES(aven_wbsm4_encrypt, 48, 1, dataOf(key), 16, dataOf(iv), 16, in, size, to, n));

    std::string text = sealed([&](Out to, Length n) {
        return engine.aven_crypto_encrypt(&gcm, in, size, to, n, 16, tag);
    });
    CAPACITIES(aven_crypto_decrypt, 40, &gcm, dataOf(text), sizeOf(text), tag, 16, to, n));
    // Room for the padding too.
    text = sealed([&](Out to, Length n) {
        return engine.aven_crypto_encrypt(&cbc, in, size, to, n, 0, nullptr);
    });
    CAPACITIES(aven_crypto_decrypt, 48, &cbc, dataOf(text), sizeOf(text), nullptr, 0, to, n));
    text = sealed([&](Out to, Length n) {
        return engine.aven_wbsm4_encrypt(1, dataOf(key), 16, dataOf(iv), 16, in, size, to, n);
    });
    CAPACITIES(aven_wbsm4_decrypt, 48, 1, dataOf(key), 16, dataOf(iv), 16, dataOf(text),
               sizeOf(text), to, n));
    text = sealed([&](Out to, Length n) {
        return engine.aven_crypto_public_encrypt(&rsaPkey, in, size, to, n);
    });
    CAPACITIES(aven_crypto_private_decrypt, 40, &rsaPkey, dataOf(text), sizeOf(text), to, n));
    text = sealed([&](Out to, Length n) {
        return engine.aven_crypto_public_encrypt(&sm2Raw, in, size, to, n);
    });
    CAPACITIES(aven_crypto_private_decrypt, 40, &sm2Raw, dataOf(text), sizeOf(text), to, n));
    text = sealed([&](Out to, Length n) {
        return engine.aven_crypto_pkcs7_encrypt(&envelope, in, size, to, n);
    });
    CAPACITIES(aven_crypto_pkcs7_encrypt, sizeOf(text), &envelope, in, size, to, n), RANDOM);
    CAPACITIES(aven_crypto_pkcs7_decrypt, 48, &envelope, dataOf(text), sizeOf(text), to, n));
#undef CAPACITIES

    // A call that has no room leaves the session as it was, so one will do for all but the
    // successes, which need one each.
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

    // None with such an output is left out.
#define ROW(result, name, params)                                                  \
    EXPECT_EQ(std::count(capacitiesOf.begin(), capacitiesOf.end(), #name) > 0,     \
              std::string(#params).find("uint32_t* out_len") != std::string::npos) \
        << #name;
    AVEN_ENGINE_FUNCTIONS(ROW)
#undef ROW
}

// Its length is an order, not a capacity.
TEST_F(EngineLimits, KdfFillsWhatItIsTold)
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

TEST_F(EngineLimits, TagStaysWithinItsLength)
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

// ---- The largest lengths

TEST_F(EngineLimits, LargestLengthsAreRefused)
{
    if (support::emulated)
        GTEST_SKIP() << "reads gigabytes, which takes the emulator half a minute";
    const Endless endless;
    const unsigned char* in = endless.data();
    const unsigned char* some = dataOf(data);
    constexpr uint32_t MOST = Endless::SIZE;
    std::shared_ptr<ChannelKeys> keys;
    void* ke = establishedSession(keys);
    void* fresh = newSession();
    std::string hello;
    void* greeted = greetedSession(hello);
    const ServerAnswer answer = server(KeyKind::Rsa).answer(hello);

    // With the length that is stored: 0, or what would be needed.
    const auto refused = [&](int line, int expected, uint32_t needed, const auto& call) {
        len = sizeof out;
        EXPECT_EQ(call(), expected) << "line " << line;
        EXPECT_EQ(len, needed) << "line " << line;
    };
#define REFUSED(expected, needed, function, ...) \
    refused(__LINE__, expected, needed, [&] { return function(__VA_ARGS__); })
    uint32_t* n = &len;
    REFUSED(AVEN_E_INPUT_TOO_LONG, 0, engine.aven_crypto_base64_encode, in, MOST, out, n);
    REFUSED(AVEN_E_BASE64_CHARACTER, 0, engine.aven_crypto_base64_decode, in, MOST, out, n);
    REFUSED(AVEN_E_INPUT_TOO_LONG, 0, engine.aven_crypto_encrypt, &cbc, in, MOST, out, n, 0,
            nullptr);
    REFUSED(AVEN_E_BUFFER_TOO_SMALL, MOST, engine.aven_crypto_encrypt, &gcm, in, MOST, out, n, 16,
            tag);
    REFUSED(AVEN_E_BUFFER_TOO_SMALL, MOST, engine.aven_crypto_decrypt, &gcm, in, MOST, tag, 16, out,
            n);
    REFUSED(AVEN_E_BUFFER_TOO_SMALL, MOST, engine.aven_crypto_decrypt, &cbc, in, MOST, nullptr, 0,
            out, n);
    REFUSED(AVEN_E_TAG_LENGTH, 0, engine.aven_crypto_decrypt, &gcm, some, 40, in, MOST, out, n);
    REFUSED(AVEN_E_INPUT_TOO_LONG, 0, engine.aven_wbsm4_encrypt, 1, some, 16, some, 16, in, MOST,
            out, n);
    REFUSED(AVEN_E_BUFFER_TOO_SMALL, MOST, engine.aven_wbsm4_decrypt, 1, some, 16, some, 16, in,
            MOST, out, n);
    REFUSED(AVEN_E_KEY_LENGTH, 0, engine.aven_wbsm4_encrypt, 1, in, MOST, some, 16, some, 40, out,
            n);
    REFUSED(AVEN_E_IV_LENGTH, 0, engine.aven_wbsm4_decrypt, 1, some, 16, in, MOST, some, 40, out,
            n);
    REFUSED(AVEN_E_INPUT_TOO_LONG, 0, engine.aven_crypto_public_encrypt, &rsaPkey, in, MOST, out,
            n);
    REFUSED(AVEN_E_INPUT_TOO_LONG, 0, engine.aven_crypto_public_encrypt, &sm2Raw, in, MOST, out, n);
    REFUSED(AVEN_E_DECRYPTION, 0, engine.aven_crypto_private_decrypt, &rsaPkey, in, MOST, out, n);
    REFUSED(AVEN_E_DECRYPTION, 0, engine.aven_crypto_private_decrypt, &sm2Raw, in, MOST, out, n);
    REFUSED(AVEN_E_INPUT_TOO_LONG, 0, engine.aven_crypto_pkcs7_encrypt, &envelope, in, MOST, out,
            n);
    REFUSED(AVEN_E_ENVELOPE_TEXT, 0, engine.aven_crypto_pkcs7_decrypt, &envelope, in, MOST, out, n);
    REFUSED(AVEN_E_INPUT_TOO_LONG, 0, engine.aven_ke_encrypt, ke, in, MOST, out, n);
    REFUSED(AVEN_E_BUFFER_TOO_SMALL, MOST - 28, engine.aven_ke_decrypt, ke, in, MOST, out, n);

    for (auto lengths : {&SymmCipherParams::key_len, &SymmCipherParams::iv_len}) {
        SymmCipherParams params = cbc;
        params.key = params.iv = in;
        params.*lengths = MOST;
        const bool isKey = lengths == &SymmCipherParams::key_len;
        REFUSED(isKey ? AVEN_E_KEY_LENGTH : AVEN_E_IV_LENGTH, 0, engine.aven_crypto_encrypt,
                &params, some, 40, out, n, 0, nullptr);
    }
    SymmCipherParams params = cbc;
    params.aad = in;
    params.aad_len = MOST;
    REFUSED(AVEN_E_NOT_AUTHENTICATED, 0, engine.aven_crypto_encrypt, &params, some, 40, out, n, 0,
            nullptr);
    params = gcm;
    params.iv = in;
    params.iv_len = MOST;
    REFUSED(AVEN_E_IV_LENGTH, 0, engine.aven_crypto_encrypt, &params, some, 40, out, n, 16, tag);
    mac.key = in;
    mac.key_len = MOST;
    REFUSED(AVEN_E_KEY_LENGTH, 0, engine.aven_crypto_cmac, &mac, some, 40, out, n);

    const auto certificates = [&](const unsigned char* signing, uint32_t signingLength,
                                  const unsigned char* signature, uint32_t signatureLength) {
        return engine.aven_ke_client_key_exchange(
            greeted, dataOf(answer.random), sizeOf(answer.random), signing, signingLength,
            dataOf(answer.encryptionCertificate), sizeOf(answer.encryptionCertificate), signature,
            signatureLength, out, n);
    };
    REFUSED(AVEN_E_INPUT_TOO_LONG, 0, certificates, in, MOST, some, 40);
    REFUSED(AVEN_E_KE_SIGNATURE, 0, certificates, dataOf(answer.signingCertificate),
            sizeOf(answer.signingCertificate), in, MOST);
    REFUSED(AVEN_E_KE_SERVER_RANDOM, 0, engine.aven_ke_client_key_exchange, greeted, in, MOST, some,
            40, some, 40, some, 40, out, n);
#undef REFUSED

    EXPECT_EQ(engine.aven_crypto_kdf(0, in, MOST, 16, out), AVEN_E_INPUT_TOO_LONG);
    EXPECT_EQ(engine.aven_keypair_unmarshal(0, in, MOST, nullptr, 0, nullptr, &handle),
              AVEN_E_INPUT_TOO_LONG);
    EXPECT_EQ(engine.aven_keypair_unmarshal(0, nullptr, 0, in, MOST, nullptr, &handle),
              AVEN_E_INPUT_TOO_LONG);
    EXPECT_EQ(engine.aven_certificate_unmarshal(in, MOST, nullptr, &handle), AVEN_E_INPUT_TOO_LONG);
    EXPECT_EQ(engine.aven_ke_set_public_key(fresh, in, MOST, nullptr, 0, nullptr),
              AVEN_E_INPUT_TOO_LONG);
    EXPECT_EQ(engine.aven_ke_set_certificate(fresh, in, MOST, nullptr, 0, nullptr),
              AVEN_E_INPUT_TOO_LONG);
}

// ---- Numbers that mean nothing

TEST_F(EngineLimits, NumbersOutsideTheirSetsAreRefused)
{
    const unsigned char* in = dataOf(data);
    const std::string keyText = privatePem("sm2");
    const auto encrypt = [&](int alg, int mode, int padding) {
        SymmCipherParams params = cbc;
        params.alg = alg;
        params.mode = mode;
        params.padding = padding;
        const int code =
            engine.aven_crypto_encrypt(&params, in, 32, out, &(len = sizeof out), 0, nullptr);
        EXPECT_EQ(engine.aven_crypto_decrypt(&params, in, 32, nullptr, 0, out, &(len = sizeof out)),
                  code);
        return code;
    };
    for (int number : {INT32_MIN, -1, 0, 7, 8, 100, INT32_MAX}) {
        SCOPED_TRACE(number);
        if (number != 7) {
            EXPECT_EQ(encrypt(number, AVEN_MODE_CBC, 1), AVEN_E_CIPHER_NUMBER);
            EXPECT_EQ(engine.aven_crypto_gen_symmkey(number, out, &(len = sizeof out)),
                      AVEN_E_CIPHER_NUMBER);
            mac.alg = number;
            EXPECT_EQ(engine.aven_crypto_cmac(&mac, in, 8, out, &(len = sizeof out)),
                      AVEN_E_CIPHER_NUMBER);
            const EnvelopeParams params = {number, AVEN_MODE_CBC, rsa, rsaCertificate};
            EXPECT_EQ(engine.aven_crypto_pkcs7_encrypt(&params, in, 8, out, &(len = sizeof out)),
                      AVEN_E_CIPHER_NUMBER);
            EXPECT_EQ(engine.aven_crypto_pkcs7_decrypt(&params, in, 8, out, &(len = sizeof out)),
                      AVEN_E_CIPHER_NUMBER);
        }
        EXPECT_EQ(encrypt(AVEN_CIPHER_SM4, number, 1), AVEN_E_MODE_NUMBER);
        const EnvelopeParams params = {AVEN_CIPHER_SM4, number, rsa, rsaCertificate};
        EXPECT_EQ(engine.aven_crypto_pkcs7_encrypt(&params, in, 8, out, &(len = sizeof out)),
                  AVEN_E_MODE_NUMBER);
        EXPECT_EQ(engine.aven_crypto_pkcs7_decrypt(&params, in, 8, out, &(len = sizeof out)),
                  AVEN_E_MODE_NUMBER);
        mac.alg = number;
        EXPECT_EQ(engine.aven_crypto_hmac(&mac, in, 8, out, &(len = sizeof out)),
                  AVEN_E_HASH_NUMBER);
        if (number != 0) {
            EXPECT_EQ(encrypt(AVEN_CIPHER_SM4, AVEN_MODE_CBC, number), AVEN_E_PADDING_NUMBER);
            EXPECT_EQ(engine.aven_crypto_kdf(number, in, 8, 16, out), AVEN_E_HASH_NUMBER);
            EXPECT_EQ(engine.aven_keypair_unmarshal(number, dataOf(keyText), sizeOf(keyText),
                                                    nullptr, 0, nullptr, &handle),
                      AVEN_E_KEY_TYPE);
            for (PkeyCipherParams pkey : {rsaPkey, sm2Raw}) {
                pkey.rsa_padding_e = number;
                EXPECT_EQ(engine.aven_crypto_public_encrypt(&pkey, in, 8, out, &(len = sizeof out)),
                          AVEN_E_RSA_PADDING);
                EXPECT_EQ(
                    engine.aven_crypto_private_decrypt(&pkey, in, 8, out, &(len = sizeof out)),
                    AVEN_E_RSA_PADDING);
            }
            for (auto flag : {&PkeyCipherParams::no_asn1, &PkeyCipherParams::no_c1c3c2}) {
                PkeyCipherParams pkey = sm2Raw;
                pkey.*flag = number;
                EXPECT_EQ(engine.aven_crypto_public_encrypt(&pkey, in, 8, out, &(len = sizeof out)),
                          AVEN_E_SM2_FORM);
                EXPECT_EQ(
                    engine.aven_crypto_private_decrypt(&pkey, in, 8, out, &(len = sizeof out)),
                    AVEN_E_SM2_FORM);
            }
        }
        EXPECT_EQ(engine.aven_wbsm4_encrypt(number, dataOf(key), 16, dataOf(iv), 16, in, 8, out,
                                            &(len = sizeof out)),
                  AVEN_E_WHITEBOX_KIND);
        EXPECT_EQ(engine.aven_wbsm4_decrypt(number, dataOf(key), 16, dataOf(iv), 16, in, 16, out,
                                            &(len = sizeof out)),
                  AVEN_E_WHITEBOX_KIND);
        EXPECT_EQ(len, 0u);
    }
}

// Handles are looked up, never followed.
TEST_F(EngineLimits, ForeignHandlesAreRefused)
{
    const unsigned char* in = dataOf(data);
    void* ke = newSession();
    void* freed = newSession();
    EXPECT_EQ(engine.aven_ke_free(freed), 0);
    int object = 0;
    void* const foreign[] = {reinterpret_cast<void*>(1), &object, this, freed,
                             reinterpret_cast<void*>(UINTPTR_MAX)};
    const auto notASession = [&](void* handleOfOther) {
        const std::string& text = privatePem("sm2");
        const std::string& roots = server(KeyKind::Rsa).rootFile();
        uint32_t n = sizeof out;
        for (int code : {
                 engine.aven_ke_set_public_key(handleOfOther, dataOf(text), sizeOf(text), nullptr,
                                               0, nullptr),
                 engine.aven_ke_set_certificate(handleOfOther, dataOf(text), sizeOf(text), nullptr,
                                                0, nullptr),
                 engine.aven_ke_set_root_certificate(handleOfOther, roots.c_str(), nullptr),
                 engine.aven_ke_client_hello(handleOfOther, out, &(n = sizeof out)),
                 engine.aven_ke_client_key_exchange(handleOfOther, in, 32, in, 8, in, 8, in, 8, out,
                                                    &(n = sizeof out)),
                 engine.aven_ke_encrypt(handleOfOther, in, 8, out, &(n = sizeof out)),
                 engine.aven_ke_decrypt(handleOfOther, in, 40, out, &(n = sizeof out)),
                 engine.aven_ke_hmac(handleOfOther, in, 8, out, &(n = sizeof out)),
                 engine.aven_ke_cmac(handleOfOther, in, 8, out, &(n = sizeof out)),
                 engine.aven_ke_free(handleOfOther),
             })
            EXPECT_EQ(code, AVEN_E_HANDLE);
    };
    const auto notAKey = [&](void* handleOfOther) {
        rsaPkey.keypair = handleOfOther;
        EXPECT_EQ(engine.aven_crypto_public_encrypt(&rsaPkey, in, 8, out, &(len = sizeof out)),
                  AVEN_E_HANDLE);
        EXPECT_EQ(engine.aven_crypto_private_decrypt(&rsaPkey, in, 8, out, &(len = sizeof out)),
                  AVEN_E_HANDLE);
        envelope.keypair = handleOfOther;
        EXPECT_EQ(engine.aven_crypto_pkcs7_decrypt(&envelope, in, 8, out, &(len = sizeof out)),
                  AVEN_E_HANDLE);
        EXPECT_EQ(engine.aven_keypair_free(handleOfOther), AVEN_E_HANDLE);
    };
    const auto notACertificate = [&](void* handleOfOther) {
        envelope.certificate = handleOfOther;
        EXPECT_EQ(engine.aven_crypto_pkcs7_encrypt(&envelope, in, 8, out, &(len = sizeof out)),
                  AVEN_E_HANDLE);
        EXPECT_EQ(engine.aven_certificate_free(handleOfOther), AVEN_E_HANDLE);
    };
    for (void* other : foreign) {
        notASession(other);
        notAKey(other);
        notACertificate(other);
    }
    notASession(rsa);
    notASession(rsaCertificate);
    notAKey(ke);
    notAKey(rsaCertificate);
    notACertificate(ke);
    notACertificate(rsa);
}

}  // namespace
