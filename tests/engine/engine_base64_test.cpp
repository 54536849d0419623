// The development engine's Base64: RFC 4648's examples, libcrypto as the other side, the
// two passes, and what is refused.
#include "support/base64_text.h"
#include "support/devkit_engine.h"

namespace {

using support::Exact;
using support::Fenced;
using support::pattern;
using support::Sizes;

struct Result {
    int code;
    uint32_t len;
    std::string out;
};

class CryptoBase64 : public support::EngineTest {
protected:
    using Function = int (*)(const unsigned char*, uint32_t, unsigned char*, uint32_t*);

    static Result run(Function function, const std::string& text, size_t capacity)
    {
        const Exact in(text);
        Fenced out(capacity);
        const int code = function(in.data(), in.size(), out.data(), &out.len);
        EXPECT_TRUE(out.fenceIntact());
        return {code, out.len, code == 0 ? out.text() : ""};
    }

    // Both passes, as the plug-in calls them.
    static Result twice(Function function, const std::string& text)
    {
        const Exact in(text);
        uint32_t len = 0;
        const int code = function(in.data(), in.size(), nullptr, &len);
        if (code != 0)
            return {code, len, ""};
        const Result second = run(function, text, len);
        EXPECT_EQ(second.len, len);
        return second;
    }

    Result encode(const std::string& bytes)
    {
        return twice(engine.aven_crypto_base64_encode, bytes);
    }
    Result decode(const std::string& text) { return twice(engine.aven_crypto_base64_decode, text); }
};

TEST_F(CryptoBase64, Rfc4648ExamplesBothWays)
{
    for (const auto& example : support::BASE64_EXAMPLES) {
        EXPECT_EQ(encode(example.bytes).code, 0);
        EXPECT_EQ(encode(example.bytes).out, example.text);
        EXPECT_EQ(decode(example.text).code, 0);
        EXPECT_EQ(decode(example.text).out, example.bytes);
    }
}

TEST_F(CryptoBase64, AgreesWithLibcryptoAndRoundTrips)
{
    for (size_t size = 0; size < 300; ++size) {
        const std::string bytes = pattern(size, static_cast<unsigned>(size));
        const std::string expected = support::toBase64(bytes);
        EXPECT_EQ(encode(bytes).out, expected);
        EXPECT_EQ(decode(expected).out, bytes);
    }
}

TEST_F(CryptoBase64, DecodingTakesTextWithoutPaddingAndWithLineEnds)
{
    EXPECT_EQ(decode("Zm9vYg").out, "foob");
    EXPECT_EQ(decode("Zm9vYmE").out, "fooba");
    EXPECT_EQ(decode(" Zm9v\r\nYm\tFy\n").out, "foobar");
    EXPECT_EQ(decode("Zg=\n=\n").out, "f");
    EXPECT_EQ(decode(" \n").code, 0);
    EXPECT_EQ(decode(" \n").len, 0u);
}

TEST_F(CryptoBase64, ForeignCharactersAreRefused)
{
    for (int c = 0; c < 256; ++c) {
        const bool known = isalnum(c) != 0 || (c != 0 && strchr("+/= \t\r\n", c) != nullptr);
        std::string text = "Zm9vYmFy";
        text[2] = static_cast<char>(c);
        if (c < 128 && known)
            continue;
        EXPECT_EQ(decode(text).code, AVEN_E_BASE64_CHARACTER) << c;
    }
    EXPECT_EQ(decode("-_-_").code, AVEN_E_BASE64_CHARACTER);
}

TEST_F(CryptoBase64, WrongEndingsAreRefused)
{
    // Cut, too little or too much padding, padding inside, bits behind the last byte.
    for (const char* text : {"Z", "Zm9vY", "Zg=", "Zg===", "Zm8==", "Zm9v=", "Zm9v====", "=",
                             "====", "Z===", "Zg==Zg==", "Z=m9", "Zh==", "Zh", "Zm9=", "Zm9"})
        EXPECT_EQ(decode(text).code, AVEN_E_BASE64_ENDING) << text;
}

TEST_F(CryptoBase64, NeverWritesPastTheCapacity)
{
    for (size_t size : Sizes{1, 2, 3, 4, 50}) {
        const std::string bytes = pattern(size);
        const std::string text = encode(bytes).out;
        EXPECT_EQ(run(engine.aven_crypto_base64_encode, bytes, text.size() + 9).out, text);
        for (size_t capacity : {size_t{0}, size_t{1}, text.size() - 1}) {
            const Result small = run(engine.aven_crypto_base64_encode, bytes, capacity);
            EXPECT_EQ(small.code, AVEN_E_BUFFER_TOO_SMALL);
            EXPECT_EQ(small.len, text.size());
        }
        EXPECT_EQ(run(engine.aven_crypto_base64_decode, text, size).out, bytes);
        const Result small = run(engine.aven_crypto_base64_decode, text, size - 1);
        EXPECT_EQ(small.code, AVEN_E_BUFFER_TOO_SMALL);
        EXPECT_EQ(small.len, size);
    }
}

TEST_F(CryptoBase64, NullPointersAreRefused)
{
    for (const Function function :
         {engine.aven_crypto_base64_encode, engine.aven_crypto_base64_decode}) {
        const unsigned char in[] = {'Z', 'm', '9', 'v'};
        uint32_t len = 4;
        EXPECT_EQ(function(in, 4, nullptr, &len), AVEN_E_NULL_POINTER);
        EXPECT_EQ(function(in, 4, nullptr, nullptr), AVEN_E_NULL_POINTER);
        len = 0;
        EXPECT_EQ(function(nullptr, 4, nullptr, &len), AVEN_E_NULL_POINTER);
        len = 0;
        EXPECT_EQ(function(nullptr, 0, nullptr, &len), 0);
        EXPECT_EQ(len, 0u);
    }
}

TEST_F(CryptoBase64, ResultsBeyond32BitsAreRefused)
{
    // Only the length is asked for: the bytes are not read.
    const unsigned char one = 0;
    uint32_t len = 0;
    EXPECT_EQ(engine.aven_crypto_base64_encode(&one, 3221225469u, nullptr, &len), 0);
    EXPECT_EQ(len, 4294967292u);
    len = 0;
    EXPECT_EQ(engine.aven_crypto_base64_encode(&one, 3221225470u, nullptr, &len),
              AVEN_E_INPUT_TOO_LONG);
    unsigned char out[4];
    len = 4;
    EXPECT_EQ(engine.aven_crypto_base64_encode(&one, 3221225470u, out, &len),
              AVEN_E_INPUT_TOO_LONG);
}

}  // namespace
