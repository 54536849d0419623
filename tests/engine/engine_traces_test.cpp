// What ciphers, MACs, key derivation and Base64 leave in memory of keys and data.
#include "engine_traces.h"

namespace {

using namespace support;

struct Size {
    const char* name;
    size_t bytes;
};
constexpr Size SIZES[] = {{"64", 64}, {"1000", 1000}, {"1 MiB", 1 << 20}};

size_t keyLength(int cipher)
{
    constexpr size_t lengths[] = {16, 16, 24, 32, 32, 32, 24};
    return lengths[cipher - 1];
}

// One cipher in one mode, there and back and with what goes wrong.
class CipherTraces : public EngineTraces, public testing::WithParamInterface<std::tuple<int, int>> {
protected:
    void SetUp() override
    {
        EngineTraces::SetUp();
        params.alg = std::get<0>(GetParam());
        params.mode = std::get<1>(GetParam());
        params.padding = AVEN_PADDING_PKCS7;
        params.iv = iv.data;
        params.iv_len = params.mode == AVEN_MODE_ECB ? 0 : params.alg == AVEN_CIPHER_3DES ? 8 : 16;
        tagLength = params.mode == AVEN_MODE_GCM ? 16 : 0;
    }

    void newKey()
    {
        const Held key = secret("key", keyLength(params.alg));
        params.key = key.data;
        params.key_len = key.size;
    }

    int encrypt(Held in, Held& out, uint32_t capacity)
    {
        out.size = capacity;
        return code([&] {
            return engine.aven_crypto_encrypt(&params, in.data, in.size, out.data, &out.size,
                                              static_cast<int>(tagLength), tag.data);
        });
    }

    int decrypt(Held in, Held& out, uint32_t capacity)
    {
        out.size = capacity;
        return code([&] {
            return engine.aven_crypto_decrypt(&params, in.data, in.size, tag.data, tagLength,
                                              out.data, &out.size);
        });
    }

    const Held iv = vault.random(16);
    const Held tag = vault.room(16);
    uint32_t tagLength = 0;
    SymmCipherParams params = {};
};

TEST_P(CipherTraces, NoneOfKeyAndDataRemain)
{
    for (const Size& size : SIZES) {
        SCOPED_TRACE(size.name);
        newKey();
        const auto room = static_cast<uint32_t>(size.bytes + 16);
        const Held text = secret("text", size.bytes);
        Held sealed = vault.room(room), opened = vault.room(room);

        EXPECT_EQ(encrypt(text, sealed, room), 0);
        expectNoTraces();
        newKey();
        mark("text", text);
        EXPECT_EQ(encrypt(text, sealed, 1), AVEN_E_BUFFER_TOO_SMALL);
        expectNoTraces();

        newKey();
        mark("text", text);
        EXPECT_EQ(encrypt(text, sealed, room), 0);
        EXPECT_EQ(decrypt(sealed, opened, room), 0);
        EXPECT_EQ(opened.view(), text.view());
        expectNoTraces();
        mark("text", text);
        EXPECT_EQ(decrypt(sealed, opened, 1), AVEN_E_BUFFER_TOO_SMALL);
        expectNoTraces();
    }
}

TEST_P(CipherTraces, NoneRemainOfWhatDoesNotOpen)
{
    newKey();
    const Held text = secret("text", 1000);
    Held sealed = vault.room(1016), opened = vault.room(1016);
    EXPECT_EQ(encrypt(text, sealed, 1016), 0);
    if (params.mode == AVEN_MODE_GCM) {
        tag.data[0] ^= 1;
        EXPECT_EQ(decrypt(sealed, opened, 1016), AVEN_E_TAG_MISMATCH);
    } else if (params.mode <= AVEN_MODE_CBC) {
        // The padding, which becomes the last byte but one of the text's.
        const uint32_t block = params.alg == AVEN_CIPHER_3DES ? 8 : 16;
        sealed.size -= block;
        EXPECT_EQ(decrypt(sealed, opened, 1016), AVEN_E_BAD_PADDING);
    }
    --params.key_len;
    EXPECT_EQ(decrypt(sealed, opened, 1016), AVEN_E_KEY_LENGTH);
    expectNoTraces();
}

std::vector<std::tuple<int, int>> ciphersInModes()
{
    std::vector<std::tuple<int, int>> all;
    for (int cipher = AVEN_CIPHER_SM4; cipher <= AVEN_CIPHER_3DES; ++cipher)
        for (int mode = AVEN_MODE_ECB; mode <= AVEN_MODE_GCM; ++mode)
            if (cipher != AVEN_CIPHER_3DES || mode <= AVEN_MODE_OFB)
                all.emplace_back(cipher, mode);
    return all;
}

std::string nameOf(const testing::TestParamInfo<std::tuple<int, int>>& info)
{
    return "Cipher" + std::to_string(std::get<0>(info.param)) + "Mode" +
           std::to_string(std::get<1>(info.param));
}

INSTANTIATE_TEST_SUITE_P(All, CipherTraces, testing::ValuesIn(ciphersInModes()), nameOf);

TEST_F(EngineTraces, NoneOfNewKeysRemain)
{
    for (int type = AVEN_CIPHER_SM4; type <= AVEN_CIPHER_3DES; ++type) {
        SCOPED_TRACE(type);
        Held key = vault.room(32);
        EXPECT_EQ(code([&] { return engine.aven_crypto_gen_symmkey(type, key.data, &key.size); }),
                  0);
        mark("key", key);
        expectNoTraces();
    }
}

class MacTraces : public EngineTraces {
protected:
    // A key as it goes into HMAC's hash.
    Held paddedKey(Held key, unsigned char padding)
    {
        const Held padded = vault.hold(key.view());
        for (uint32_t i = 0; i < padded.size; ++i)
            padded.data[i] ^= padding;
        return padded;
    }
};

TEST_F(MacTraces, NoneOfMacKeysAndDataRemain)
{
    for (const Size& size : SIZES) {
        SCOPED_TRACE(size.name);
        for (int alg = AVEN_HASH_SM3; alg <= AVEN_HASH_SHA512; ++alg) {
            SCOPED_TRACE(alg);
            for (size_t keySize : {32, 300}) {  // longer than a block: hashed first
                const Held key = secret("key", keySize), text = secret("text", size.bytes);
                mark("key, inner padding", paddedKey(key, 0x36));
                mark("key, outer padding", paddedKey(key, 0x5c));
                const MacParams params = {alg, key.data, key.size};
                Held out = vault.room(64);
                EXPECT_EQ(code([&] {
                              return engine.aven_crypto_hmac(&params, text.data, text.size,
                                                             out.data, &out.size);
                          }),
                          0);
                expectNoTraces();
            }
        }
        for (int alg = AVEN_CIPHER_SM4; alg <= AVEN_CIPHER_3DES; ++alg) {
            SCOPED_TRACE(alg);
            const Held key = secret("key", keyLength(alg)), text = secret("text", size.bytes);
            const MacParams params = {alg, key.data, key.size};
            Held out = vault.room(64);
            EXPECT_EQ(code([&] {
                          return engine.aven_crypto_cmac(&params, text.data, text.size, out.data,
                                                         &out.size);
                      }),
                      0);
            expectNoTraces();
        }
    }
}

TEST_F(EngineTraces, NoneOfDerivedKeysRemain)
{
    for (int alg = AVEN_HASH_DEFAULT; alg <= AVEN_HASH_SHA512; ++alg) {
        for (uint32_t size : {16U, 1000U, 100000U}) {
            SCOPED_TRACE(testing::Message() << "hash " << alg << ", " << size << " bytes");
            const Held source = secret("source", 48);
            const Held out = vault.room(size);
            EXPECT_EQ(code([&] {
                          return engine.aven_crypto_kdf(alg, source.data, source.size, size,
                                                        out.data);
                      }),
                      0);
            mark("derived", out);
            expectNoTraces();
        }
    }
}

TEST_F(EngineTraces, NoneOfBase64Remain)
{
    for (const Size& size : SIZES) {
        SCOPED_TRACE(size.name);
        const Held data = secret("data", size.bytes);
        Held text = vault.room(size.bytes * 2), back = vault.room(size.bytes);
        EXPECT_EQ(code([&] {
                      return engine.aven_crypto_base64_encode(data.data, data.size, text.data,
                                                              &text.size);
                  }),
                  0);
        expectNoTraces();
        mark("data", data);
        EXPECT_EQ(code([&] {
                      return engine.aven_crypto_base64_decode(text.data, text.size, back.data,
                                                              &back.size);
                  }),
                  0);
        EXPECT_EQ(back.view(), data.view());
        expectNoTraces();
        mark("data", data);
        text.data[text.size - 1] = '!';
        back.size = data.size;
        EXPECT_EQ(code([&] {
                      return engine.aven_crypto_base64_decode(text.data, text.size, back.data,
                                                              &back.size);
                  }),
                  AVEN_E_BASE64_CHARACTER);
        expectNoTraces();
    }
}

TEST_F(EngineTraces, NoneOfTheWhiteBoxRemain)
{
    for (const Size& size : SIZES) {
        SCOPED_TRACE(size.name);
        const Held key = secret("key", 16), iv = vault.random(16);
        const Held data = secret("data", size.bytes);
        Held sealed = vault.room(size.bytes + 16), opened = vault.room(size.bytes + 16);
        EXPECT_EQ(code([&] {
                      return engine.aven_wbsm4_encrypt(1, key.data, 16, iv.data, 16, data.data,
                                                       data.size, sealed.data, &sealed.size);
                  }),
                  0);
        EXPECT_EQ(code([&] {
                      return engine.aven_wbsm4_decrypt(1, key.data, 16, iv.data, 16, sealed.data,
                                                       sealed.size, opened.data, &opened.size);
                  }),
                  0);
        EXPECT_EQ(opened.view(), data.view());
        expectNoTraces();
    }
}

}  // namespace
