// The development engine's null pointers, function by function and field by field.
#include <algorithm>
#include <filesystem>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/engine_limits.h"

namespace {

using support::certificatePem;
using support::dataOf;
using support::openssl;
using support::privatePem;
using support::publicPem;
using support::server;
using support::sizeOf;

constexpr int NUL = AVEN_E_NULL_POINTER;

template <class Type>
struct AsIs {
    using type = Type;
};

class EngineNulls : public support::EngineLimits {
protected:
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

    void textFunctions();
    void sessionFunctions();
    void channelFunctions();
    void keyFunctions();
    void cipherFunctions();
    void macFunctions();
    void envelopeFunctions();
    void whiteBoxFunctions();

    // What the calls read.
    const unsigned char* in = dataOf(data);
    const uint32_t inLen = sizeOf(data);

    // The functions that were called.
    std::vector<std::string> named;

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

#define NULLS(function, ...) expectNulls(#function, engine.function, __VA_ARGS__)

void EngineNulls::textFunctions()
{
    const std::string encoded = support::toBase64(data);
    NULLS(aven_global_set_logger, {NUL}, "");
    NULLS(aven_crypto_base64_encode, {NUL, NUL, NUL}, in, inLen, out, &len);
    NULLS(aven_crypto_base64_decode, {NUL, NUL, NUL}, dataOf(encoded), sizeOf(encoded), out, &len);
}

void EngineNulls::sessionFunctions()
{
    const std::string keyText = privatePem("rsa2048");
    const std::string certificateText = certificatePem("rsa2048");
    const std::string& roots = server(KeyKind::Rsa).rootFile();
    const std::string directory = openssl().path("roots");
    std::filesystem::create_directory(directory);
    std::filesystem::copy(roots, directory);
    std::string hello;
    void* greeted = greetedSession(hello);
    void* fresh = newSession();
    const ServerAnswer answer = server(KeyKind::Rsa).answer(hello);

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
}

void EngineNulls::channelFunctions()
{
    std::shared_ptr<ChannelKeys> keys;
    void* ke = establishedSession(keys);
    const std::string message = sealMessage(*keys, data);
    NULLS(aven_ke_encrypt, {NUL, NUL, NUL, NUL}, ke, in, inLen, out, &len);
    NULLS(aven_ke_decrypt, {NUL, NUL, NUL, NUL}, ke, dataOf(message), sizeOf(message), out, &len);
    NULLS(aven_ke_hmac, {NUL, NUL, NUL, NUL}, ke, in, inLen, out, &len);
    NULLS(aven_ke_cmac, {NUL, NUL, NUL, NUL}, ke, in, inLen, out, &len);
}

void EngineNulls::keyFunctions()
{
    const std::string keyText = privatePem("rsa2048"), publicText = publicPem("rsa2048");
    const std::string certificateText = certificatePem("rsa2048");
    const std::string cipher = sealed([&](unsigned char* to, uint32_t* n) {
        return engine.aven_crypto_public_encrypt(&rsaPkey, in, inLen, to, n);
    });
    NULLS(aven_crypto_public_encrypt, {NUL, NUL, NUL, NUL}, &rsaPkey, in, inLen, out, &len);
    NULLS(aven_crypto_private_decrypt, {NUL, NUL, NUL, NUL}, &rsaPkey, dataOf(cipher),
          sizeOf(cipher), out, &len);
    NULLS(aven_keypair_unmarshal, {NUL, NUL, 0, NUL}, 0, dataOf(keyText), sizeOf(keyText),
          dataOf(publicText), sizeOf(publicText), "", &handle);
    NULLS(aven_keypair_free, {0}, rsa);
    NULLS(aven_certificate_unmarshal, {NUL, 0, NUL}, dataOf(certificateText),
          sizeOf(certificateText), "", &handle);
    NULLS(aven_certificate_free, {0}, rsaCertificate);
}

void EngineNulls::cipherFunctions()
{
    const std::string cipher = sealed([&](unsigned char* to, uint32_t* n) {
        return engine.aven_crypto_encrypt(&cbc, in, inLen, to, n, 0, nullptr);
    });
    const std::string gcmCipher = sealed([&](unsigned char* to, uint32_t* n) {
        return engine.aven_crypto_encrypt(&gcm, in, inLen, to, n, 16, tag);
    });
    NULLS(aven_crypto_encrypt, {NUL, NUL, NUL, NUL, 0}, &cbc, in, inLen, out, &len, 0, tag);
    NULLS(aven_crypto_encrypt, {NUL, NUL, NUL, NUL, NUL}, &gcm, in, inLen, out, &len, 16, tag);
    NULLS(aven_crypto_decrypt, {NUL, NUL, 0, NUL, NUL}, &cbc, dataOf(cipher), sizeOf(cipher), tag,
          0, out, &len);
    NULLS(aven_crypto_decrypt, {NUL, NUL, NUL, NUL, NUL}, &gcm, dataOf(gcmCipher),
          sizeOf(gcmCipher), tag, 16, out, &len);
    NULLS(aven_crypto_gen_symmkey, {NUL, NUL}, 1, out, &len);
}

void EngineNulls::macFunctions()
{
    NULLS(aven_crypto_hmac, {NUL, NUL, NUL, NUL}, &mac, in, inLen, out, &len);
    NULLS(aven_crypto_cmac, {NUL, NUL, NUL, NUL}, &mac, in, inLen, out, &len);
    NULLS(aven_crypto_kdf, {NUL, NUL}, 0, in, inLen, 200, out);
}

void EngineNulls::envelopeFunctions()
{
    const std::string enveloped = sealed([&](unsigned char* to, uint32_t* n) {
        return engine.aven_crypto_pkcs7_encrypt(&envelope, in, inLen, to, n);
    });
    NULLS(aven_crypto_pkcs7_encrypt, {NUL, NUL, NUL, NUL}, &envelope, in, inLen, out, &len);
    NULLS(aven_crypto_pkcs7_decrypt, {NUL, NUL, NUL, NUL}, &envelope, dataOf(enveloped),
          sizeOf(enveloped), out, &len);
}

void EngineNulls::whiteBoxFunctions()
{
    const std::string cipher = sealed([&](unsigned char* to, uint32_t* n) {
        return engine.aven_wbsm4_encrypt(1, dataOf(key), 16, dataOf(iv), 16, in, inLen, to, n);
    });
    NULLS(aven_wbsm4_encrypt, {NUL, NUL, NUL, NUL, NUL}, 1, dataOf(key), 16, dataOf(iv), 16, in,
          inLen, out, &len);
    NULLS(aven_wbsm4_decrypt, {NUL, NUL, NUL, NUL, NUL}, 1, dataOf(key), 16, dataOf(iv), 16,
          dataOf(cipher), sizeOf(cipher), out, &len);
}

#undef NULLS

TEST_F(EngineNulls, EachPointerMayBeNullOrIsRefused)
{
    textFunctions();
    sessionFunctions();
    channelFunctions();
    keyFunctions();
    cipherFunctions();
    macFunctions();
    envelopeFunctions();
    whiteBoxFunctions();

    // None that takes a pointer is left out.
#define ROW(result, name, params)                                  \
    EXPECT_EQ(std::count(named.begin(), named.end(), #name) > 0,   \
              std::string(#params).find('*') != std::string::npos) \
        << #name;
    AVEN_ENGINE_FUNCTIONS(ROW)
#undef ROW
}

TEST_F(EngineNulls, PointersInsideBlocksMayNotBeNull)
{
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
TEST_F(EngineNulls, NullInputOfNoBytesIsInput)
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

// Where a length alone is not to be had, null is no room either for a result without bytes.
TEST_F(EngineNulls, NullOutputOfNoBytesIsNone)
{
    EXPECT_EQ(engine.aven_crypto_encrypt(&gcm, nullptr, 0, nullptr, &(len = 0), 16, tag), NUL);
    EXPECT_EQ(engine.aven_crypto_encrypt(&gcm, nullptr, 0, out, &(len = 0), 16, tag), 0);
    EXPECT_EQ(engine.aven_crypto_decrypt(&gcm, nullptr, 0, tag, 16, nullptr, &(len = 0)), NUL);
    EXPECT_EQ(engine.aven_crypto_decrypt(&gcm, nullptr, 0, tag, 16, out, &(len = 0)), 0);
}

}  // namespace
