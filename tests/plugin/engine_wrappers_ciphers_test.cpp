// What the engine binding's ciphers, key generation and key derivation have of their own.
#include <climits>
#include <cstdint>

#include "support/engine_calls.h"

using namespace support;

// ---- Symmetric ciphers: their tags and keys.

TEST_F(EngineCalls, TagIsWrittenInModeSixOnly)
{
    for (const int mode : {-6, 0, 1, 2, 3, 4, 5, 6, 7, 262}) {
        SCOPED_TRACE(mode);
        journal.calls.clear();
        SymmCipherParams block = gcm;
        block.mode = mode;
        std::string out;
        std::string tag = "before";

        EXPECT_EQ(0, engine.aven_crypto_encrypt(&block, "in", out, tag, 12));
        const Call& call = journal.only("aven_crypto_encrypt");
        EXPECT_EQ(mode == 6 ? 12 : 0, call["tag_len"].number);
        EXPECT_EQ(mode != 6, call["tag"].null);
        EXPECT_EQ(mode == 6, call["tag"].zeroed);
        EXPECT_EQ(mode == 6 ? doubles::pattern(12) : "before", tag);
        EXPECT_EQ("in", out);
    }
}

TEST_F(EngineCalls, WithoutABlockThereIsNoTag)
{
    std::string out;
    std::string tag = "before";
    EXPECT_EQ(0, engine.aven_crypto_encrypt(nullptr, "in", out, tag, 12));
    const auto& encrypted = journal.only("aven_crypto_encrypt");
    EXPECT_EQ(0, encrypted["tag_len"].number);
    EXPECT_TRUE(encrypted["tag"].null);
    EXPECT_EQ("before", tag);
    EXPECT_EQ("in", out);

    journal.calls.clear();
    EXPECT_EQ(0, engine.aven_crypto_decrypt(nullptr, "in", "tag", out));
    const auto& decrypted = journal.only("aven_crypto_decrypt");
    EXPECT_EQ(0, decrypted["tag_len"].number);
    EXPECT_TRUE(decrypted["tag"].null);
}

TEST_F(EngineCalls, TagHasTheLengthAskedForWhateverTheEngineWrote)
{
    const struct {
        int tagLen;
        size_t size;
    } lengths[] = {{4, 4}, {16, 16}, {0, 0}, {511, 511}, {512, 512}};
    for (const auto& row : lengths) {
        SCOPED_TRACE(row.tagLen);
        journal.calls.clear();
        stage.engine.on("aven_crypto_encrypt").tag = "\1\2";
        std::string out;
        std::string tag = "before";
        EXPECT_EQ(0, engine.aven_crypto_encrypt(&gcm, "in", out, tag, row.tagLen));
        EXPECT_EQ(row.tagLen, journal.only("aven_crypto_encrypt")["tag_len"].number);
        std::string expected = "\1\2";
        expected.resize(row.size, '\0');
        EXPECT_EQ(expected, tag);
    }
}

TEST_F(EngineCalls, TagBeyondItsBufferIsNeitherOfferedNorRead)
{
    for (const int tagLen : {513, 1024, 1 << 20, INT_MAX}) {
        std::string out;
        std::string tag;
        journal.calls.clear();
        EXPECT_EQ(0, engine.aven_crypto_encrypt(&gcm, "in", out, tag, tagLen));
        EXPECT_EQ(512, journal.only("aven_crypto_encrypt")["tag_len"].number) << tagLen;
        EXPECT_LE(tag.size(), 512U) << tagLen;
        EXPECT_EQ("in", out);
    }
    for (const int tagLen : {-1, INT_MIN}) {
        std::string out;
        std::string tag = "before";
        journal.calls.clear();
        EXPECT_NO_THROW(engine.aven_crypto_encrypt(&gcm, "in", out, tag, tagLen));
        EXPECT_EQ(0, journal.only("aven_crypto_encrypt")["tag_len"].number) << tagLen;
        EXPECT_EQ("", tag) << tagLen;
    }
}

TEST_F(EngineCalls, TagIsVerifiedInModeSixOnly)
{
    for (const int mode : {1, 2, 5, 6, 7}) {
        for (const std::string& tag : {std::string("t\0g", 3), std::string()}) {
            SCOPED_TRACE(mode);
            journal.calls.clear();
            SymmCipherParams block = gcm;
            block.mode = mode;
            std::string out;
            EXPECT_EQ(0, engine.aven_crypto_decrypt(&block, "in", tag, out));
            const Call& call = journal.only("aven_crypto_decrypt");
            EXPECT_EQ(mode != 6, call["tag"].null) << "an empty tag is no null in mode 6";
            EXPECT_EQ(mode == 6 ? tag : "", call["tag"].bytes);
            EXPECT_EQ(mode == 6 ? static_cast<long long>(tag.size()) : 0, call["tag_len"].number);
        }
    }
}

TEST_F(EngineCalls, KeyTypeIsPassedUnchecked)
{
    for (const int type : {0, 1, 7, 8, -1, INT_MIN}) {
        journal.calls.clear();
        std::string out;
        EXPECT_EQ(0, engine.aven_crypto_gen_symmkey(type, out));
        EXPECT_EQ(type, journal.only("aven_crypto_gen_symmkey")["type"].number);
        EXPECT_EQ(doubles::pattern(16), out);
    }
}

// ---- Key derivation.

TEST_F(EngineCalls, KdfFillsExactlyTheLengthAsked)
{
    const struct {
        int keyLen;
        uint32_t asked;
    } lengths[] = {{0, 0}, {1, 1}, {32, 32}, {65535, 65535}, {-1, 0}, {-5, 0}, {INT_MIN, 0}};
    for (const auto& row : lengths) {
        SCOPED_TRACE(row.keyLen);
        journal.calls.clear();
        std::string out = "before";
        EXPECT_EQ(0, engine.aven_crypto_kdf(-3, std::string("s\0d", 3), row.keyLen, out));
        const Call& call = journal.only("aven_crypto_kdf");
        EXPECT_EQ(-3, call["alg"].number);
        EXPECT_EQ(std::string("s\0d", 3), call["in"].bytes);
        EXPECT_EQ(row.asked, call["out_len"].number);
        EXPECT_FALSE(call["out"].null);
        EXPECT_TRUE(call["out"].zeroed);
        EXPECT_EQ(doubles::pattern(row.asked), out);
    }
}

TEST_F(EngineCalls, KdfThatWritesLessIsFilledUpWithZeros)
{
    stage.engine.on("aven_crypto_kdf").output = "ab";
    std::string out;
    EXPECT_EQ(0, engine.aven_crypto_kdf(1, "in", 5, out));
    EXPECT_EQ(std::string("ab\0\0\0", 5), out);
}

// ---- White box.

TEST_F(EngineCalls, WhiteBoxPassesItsKindKeyAndIv)
{
    using Cipher = int (CSoftMoudle_aven::*)(std::string, std::string, std::string&, std::string&);
    const struct {
        const char* function;
        Cipher cipher;
        long long margin;
    } ciphers[] = {
        {"aven_wbsm4_encrypt", &CSoftMoudle_aven::aven_wbsm4_encrypt, 32},
        {"aven_wbsm4_decrypt", &CSoftMoudle_aven::aven_wbsm4_decrypt, 0},
    };
    for (const auto& row : ciphers) {
        for (const std::string& text : {std::string("k\0y", 3), std::string(), everyByte()}) {
            SCOPED_TRACE(row.function);
            journal.calls.clear();
            std::string in = "some input";
            std::string out;
            EXPECT_EQ(0, (engine.*row.cipher)(text, text, in, out));
            const Call& call = journal.only(row.function);
            EXPECT_EQ(1, call["kind"].number);
            for (const std::string name : {"key", "iv"}) {
                EXPECT_FALSE(call[name].null);
                EXPECT_EQ(text, call[name].bytes);
                EXPECT_EQ(static_cast<long long>(text.size()), call[name + "_len"].number);
            }
            EXPECT_EQ(10 + row.margin, call["out_len"].number);
            EXPECT_EQ("some input", in);
            EXPECT_EQ("some input", out);
        }
    }
}

TEST_F(EngineCalls, OneTextMayBeInputAndOutputOfTheWhiteBox)
{
    std::string text = "in place";
    EXPECT_EQ(0, engine.aven_wbsm4_encrypt("key", "iv", text, text));
    EXPECT_EQ("in place", text);
}
