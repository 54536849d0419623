// How the calls of the engine binding pass handles, texts, objects and blocks.
#include <climits>
#include <cstdint>
#include <iterator>

#include "support/engine_calls.h"

using namespace support;

// ---- Handles.

TEST_F(EngineCalls, HandleTextIsNotChecked)
{
    const struct {
        std::string text;
        long long handle;
    } handles[] = {
        {"4096", 4096},
        {"0", 0},
        {"abc", 0},
        {"", 0},
        {"-1", -1},
        {" 17", 17},
        {"12x", 12},
        {"9223372036854775807", LONG_MAX},
        {std::string("7\0"
                     "8",
                     3),
         7},
    };
    for (const Row& row : rows) {
        if (row.function.compare(0, 8, "aven_ke_") != 0 || row.function == "aven_ke_new")
            continue;
        SCOPED_TRACE(row.what);
        for (const auto& handle : handles) {
            start();
            Exchange x("input");
            x.ke = handle.text;

            EXPECT_EQ(0, row.call(engine, x));
            for (const Call& call : journal.calls)
                EXPECT_EQ(handle.handle, call["ke"].number);
        }
    }
}

TEST_F(EngineCalls, NewHandleBecomesDecimalText)
{
    const struct {
        intptr_t handle;
        const char* text;
    } handles[] = {{4096, "4096"}, {0, "0"}, {-1, "-1"}, {INTPTR_MAX, "9223372036854775807"}};
    for (const auto& row : handles) {
        journal.calls.clear();
        stage.engine.on("aven_ke_new").object = reinterpret_cast<void*>(row.handle);
        std::string ke = "before";
        EXPECT_EQ(0, engine.aven_ke_new(ke));
        EXPECT_EQ(row.text, ke);
        EXPECT_EQ(0, journal.only("aven_ke_new")["ke"].number) << "zero before the call";
    }
}

TEST_F(EngineCalls, FailedNewGivesNoText)
{
    stage.engine.on("aven_ke_new").code = 4;
    stage.engine.on("aven_ke_new").object = reinterpret_cast<void*>(16);
    std::string ke = "before";
    EXPECT_EQ(4, engine.aven_ke_new(ke));
    EXPECT_EQ("before", ke);
}

// ---- Optional texts.

TEST_F(EngineCalls, OptionalTextsAreNullWhenEmpty)
{
    using Set = int (CSoftMoudle_aven::*)(std::string, std::string, std::string, std::string);
    const struct {
        const char* function;
        Set set;
        const char* names[2];
    } setters[] = {
        {"aven_ke_set_public_key",
         &CSoftMoudle_aven::aven_ke_set_public_key,
         {"sig_key", "enc_key"}},
        {"aven_ke_set_certificate",
         &CSoftMoudle_aven::aven_ke_set_certificate,
         {"sig_cert", "enc_cert"}},
    };
    for (const auto& setter : setters) {
        SCOPED_TRACE(setter.function);
        for (const unsigned given : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U}) {
            SCOPED_TRACE(given);
            journal.calls.clear();
            const std::string texts[3] = {given & 1 ? std::string("s\0g", 3) : "",
                                          given & 2 ? std::string("e\0c", 3) : "",
                                          given & 4 ? "password" : ""};
            EXPECT_EQ(0, (engine.*setter.set)("16", texts[0], texts[1], texts[2]));
            const Call& call = journal.only(setter.function);
            EXPECT_EQ(16, call["ke"].number);
            for (int i = 0; i < 2; ++i) {
                const std::string name = setter.names[i];
                EXPECT_EQ(texts[i].empty(), call[name].null);
                EXPECT_EQ(texts[i], call[name].bytes);
                EXPECT_EQ(static_cast<long long>(texts[i].size()), call[name + "_len"].number);
            }
            EXPECT_EQ(texts[2].empty(), call["password"].null);
            EXPECT_EQ(texts[2], call["password"].bytes);
        }
    }
}

TEST_F(EngineCalls, OptionalPathsAreNullWhenEmpty)
{
    for (const unsigned given : {0U, 1U, 2U, 3U}) {
        journal.calls.clear();
        const std::string file = given & 1 ? "/etc/ca.pem" : "";
        const std::string path = given & 2 ? "/etc/ca" : "";
        EXPECT_EQ(0, engine.aven_ke_set_root_certificate("16", file, path));
        const Call& call = journal.only("aven_ke_set_root_certificate");
        EXPECT_EQ(file.empty(), call["ca_file"].null);
        EXPECT_EQ(file, call["ca_file"].bytes);
        EXPECT_EQ(path.empty(), call["ca_path"].null);
        EXPECT_EQ(path, call["ca_path"].bytes);
    }
}

TEST_F(EngineCalls, OptionalKeyTextsAreNullWhenEmpty)
{
    for (const unsigned given : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U}) {
        SCOPED_TRACE(given);
        journal.calls.clear();
        const std::string sk = given & 1 ? std::string("s\0k", 3) : "";
        const std::string pk = given & 2 ? std::string("p\0k", 3) : "";
        const std::string password = given & 4 ? "password" : "";
        void* keypair = nullptr;
        EXPECT_EQ(0, engine.aven_keypair_read(7, sk, pk, password, &keypair));
        const Call& pair = journal.only("aven_keypair_unmarshal");
        EXPECT_EQ(7, pair["type"].number);
        EXPECT_EQ(sk.empty(), pair["private_key"].null);
        EXPECT_EQ(sk, pair["private_key"].bytes);
        EXPECT_EQ(static_cast<long long>(sk.size()), pair["private_key_len"].number);
        EXPECT_EQ(pk.empty(), pair["public_key"].null);
        EXPECT_EQ(pk, pair["public_key"].bytes);
        EXPECT_EQ(static_cast<long long>(pk.size()), pair["public_key_len"].number);
        EXPECT_EQ(password.empty(), pair["password"].null);
        EXPECT_EQ(password, pair["password"].bytes);

        void* certificate = nullptr;
        EXPECT_EQ(0, engine.aven_certificate_read(sk, password, &certificate));
        const Call& cert = journal.only("aven_certificate_unmarshal");
        EXPECT_EQ(sk.empty(), cert["cert"].null);
        EXPECT_EQ(sk, cert["cert"].bytes);
        EXPECT_EQ(static_cast<long long>(sk.size()), cert["cert_len"].number);
        EXPECT_EQ(password.empty(), cert["password"].null);
        EXPECT_EQ(password, cert["password"].bytes);
    }
}

TEST_F(EngineCalls, TextThatBeginsWithNulIsNotEmpty)
{
    const std::string nul("\0secret", 7);
    void* object = nullptr;
    engine.aven_ke_set_public_key("16", "", "", nul);
    engine.aven_ke_set_certificate("16", "", "", nul);
    engine.aven_keypair_read(1, "", "", nul, &object);
    engine.aven_certificate_read("", nul, &object);
    ASSERT_EQ(4U, journal.calls.size());
    for (const Call& call : journal.calls) {
        EXPECT_FALSE(call["password"].null) << call.function;
        EXPECT_EQ("", call["password"].bytes) << call.function;
    }
    engine.aven_ke_set_root_certificate("16", nul, nul);
    EXPECT_FALSE(journal.calls.back()["ca_file"].null);
    EXPECT_FALSE(journal.calls.back()["ca_path"].null);
}

// ---- Key exchange.

TEST_F(EngineCalls, ServersFourValuesArePassedInOrder)
{
    std::string out;
    const std::string sign = everyByte();
    EXPECT_EQ(0, engine.aven_ke_client_key_exchange("16", "random", std::string("s\0c", 3), "enc",
                                                    sign, out));
    const Call& call = journal.only("aven_ke_client_key_exchange");
    const std::pair<const char*, std::string> arguments[] = {{"srvr_rand", "random"},
                                                             {"srvr_sig_cert", {"s\0c", 3}},
                                                             {"srvr_enc_cert", "enc"},
                                                             {"srvr_sign", sign}};
    for (const auto& [name, bytes] : arguments) {
        EXPECT_EQ(bytes, call[name].bytes) << name;
        EXPECT_EQ(static_cast<long long>(bytes.size()), call[std::string(name) + "_len"].number);
    }
    EXPECT_EQ(doubles::pattern(200), out);
}

TEST_F(EngineCalls, ServersEmptyValuesAreNotNull)
{
    std::string out;
    engine.aven_ke_client_key_exchange("16", "", "", "", "", out);
    const Call& call = journal.only("aven_ke_client_key_exchange");
    for (const std::string name : {"srvr_rand", "srvr_sig_cert", "srvr_enc_cert", "srvr_sign"}) {
        EXPECT_FALSE(call[name].null) << name;
        EXPECT_EQ(0, call[name + "_len"].number) << name;
    }
}

TEST_F(EngineCalls, TenBytesUnderASessionAreOfferedSeventyFour)
{
    std::string out = "before";
    stage.engine.on("aven_ke_encrypt").reported = 0;
    EXPECT_EQ(0, engine.aven_ke_encrypt("16", "0123456789", out));
    EXPECT_EQ(74, journal.only("aven_ke_encrypt")["out_len"].number);
    EXPECT_EQ("", out);
}

// ---- Objects and blocks.

TEST_F(EngineCalls, ObjectsGoFromTheEngineToTheCallerAndBack)
{
    void* keypair = nullptr;
    void* certificate = nullptr;
    ASSERT_EQ(0, engine.aven_keypair_read(1, "k", "", "", &keypair));
    ASSERT_EQ(0, engine.aven_certificate_read("c", "", &certificate));
    EXPECT_EQ(1U, stage.engine.keypairs.live.count(keypair));
    EXPECT_EQ(1U, stage.engine.certificates.live.count(certificate));
    EXPECT_EQ(0, engine.aven_keypair_free(keypair));
    EXPECT_EQ(0, engine.aven_certificate_free(certificate));
    EXPECT_EQ(1, stage.engine.keypairs.freed);
    EXPECT_EQ(1, stage.engine.certificates.freed);
    EXPECT_EQ(0, engine.aven_keypair_free(nullptr));
    EXPECT_EQ(0, engine.aven_certificate_free(nullptr));
    EXPECT_EQ(1, stage.engine.keypairs.nullsFreed);
    EXPECT_EQ(1, stage.engine.certificates.nullsFreed);
}

TEST_F(EngineCalls, PlaceOfTheObjectIsTheCallers)
{
    void* keypair = reinterpret_cast<void*>(0x77);
    stage.engine.on("aven_keypair_unmarshal").code = 5;
    EXPECT_EQ(5, engine.aven_keypair_read(1, "k", "", "", &keypair));
    EXPECT_EQ(0x77, journal.only("aven_keypair_unmarshal")["keypair"].number);
    EXPECT_EQ(reinterpret_cast<void*>(0x77), keypair);

    void* certificate = reinterpret_cast<void*>(0x78);
    stage.engine.on("aven_certificate_unmarshal").code = 5;
    EXPECT_EQ(5, engine.aven_certificate_read("c", "", &certificate));
    EXPECT_EQ(0x78, journal.only("aven_certificate_unmarshal")["certificate"].number);
    EXPECT_EQ(reinterpret_cast<void*>(0x78), certificate);
}

TEST_F(EngineCalls, BlocksArePassedAsTheyAre)
{
    std::string out;
    std::string tag;
    engine.aven_crypto_encrypt(&gcm, "in", out, tag, 16);
    engine.aven_crypto_decrypt(&modeTwo, "in", "", out);
    engine.aven_crypto_public_encrypt(&pkey, "in", out);
    engine.aven_crypto_private_decrypt(&pkey, "in", out);
    engine.aven_crypto_hmac(&mac, "in", out);
    engine.aven_crypto_cmac(&mac, "in", out);
    engine.aven_crypto_envelope_encrypt(&envelope, "in", out);
    engine.aven_crypto_envelope_decrypt(&envelope, "in", out);
    const void* const blocks[] = {&gcm, &modeTwo, &pkey, &pkey, &mac, &mac, &envelope, &envelope};
    ASSERT_EQ(std::size(blocks), journal.calls.size());
    for (size_t i = 0; i < std::size(blocks); ++i)
        EXPECT_EQ(static_cast<long long>(reinterpret_cast<intptr_t>(blocks[i])),
                  journal.calls[i]["params"].number)
            << journal.calls[i].function;
}

// ---- The key pair type, which the process remembers.

class KeyPairType : public EngineCalls {
protected:
    // The margin that public encryption now offers.
    long long margin(CSoftMoudle_aven& binding)
    {
        std::string out;
        binding.aven_crypto_public_encrypt(&pkey, std::string(100, 'i'), out);
        return journal
                   .at("aven_crypto_public_encrypt",
                       journal.count("aven_crypto_public_encrypt") - 1)["out_len"]
                   .number -
               100;
    }

    int read(CSoftMoudle_aven& binding, int type)
    {
        void* keypair = nullptr;
        return binding.aven_keypair_read(type, "key", "", "", &keypair);
    }
};

TEST_F(KeyPairType, OneHasASmallMarginAllOthersALargeOne)
{
    for (const int type : {0, 1, 2, 3, -1, 4, 1, 1, 257, INT_MIN, INT_MAX, 1}) {
        ASSERT_EQ(0, read(engine, type));
        EXPECT_EQ(type == 1 ? 129 : 528, margin(engine)) << type;
        EXPECT_EQ(type == 1 ? 129 : 528, margin(engine)) << type << " again";
    }
}

TEST_F(KeyPairType, IsTheProcesssAndNotTheObjects)
{
    CSoftMoudle_aven other;
    ASSERT_EQ(0, read(other, 1));
    EXPECT_EQ(129, margin(engine));
    ASSERT_EQ(0, read(engine, 3));
    EXPECT_EQ(528, margin(other));
}

TEST_F(KeyPairType, OnlySuccessfulReadsCount)
{
    ASSERT_EQ(0, read(engine, 1));
    stage.engine.on("aven_keypair_unmarshal").code = 5;
    EXPECT_EQ(5, read(engine, 3));
    EXPECT_EQ(129, margin(engine));
    stage.engine.on("aven_keypair_unmarshal").code = 0;
    stage.engine.on("aven_keypair_unmarshal").throws = true;
    EXPECT_EQ(0, read(engine, 3));
    EXPECT_EQ(129, margin(engine));
}

TEST_F(KeyPairType, OutlivesTheKeyPairAndTheEngine)
{
    ASSERT_EQ(0, read(engine, 1));
    engine.aven_keypair_free(nullptr);
    EXPECT_EQ(129, margin(engine));
    engine.unloadLibrary();
    load(engineDouble());
    EXPECT_EQ(129, margin(engine));
    ASSERT_EQ(0, read(engine, 3));
}

TEST_F(KeyPairType, IsNotTouchedByKeyGeneration)
{
    ASSERT_EQ(0, read(engine, 3));
    std::string out;
    engine.aven_crypto_gen_symmkey(1, out);
    EXPECT_EQ(1, journal.only("aven_crypto_gen_symmkey")["type"].number);
    EXPECT_EQ(528, margin(engine));
}
