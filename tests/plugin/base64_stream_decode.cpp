// The streaming Base64 codec: decoding in pieces, its state's layout, padding and foreign
// characters.
#include "base64_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>

#include "support/base64_text.h"
#include "support/each_kernel.h"
#include "support/stream_bytes.h"
#include "support/stream_decoder_model.h"

namespace {

using support::ALPHABET;
using support::BeforeTheEdge;
using support::CANARY;
using support::DecoderModel;
using support::ExactBlock;
using support::int32At;
using support::leaveUsedBlock;
using support::LONGER_THAN_ANY_VECTOR;
using support::pieceLength;
using support::randomBytes;
using support::randomCharacters;
using support::toBase64;
using support::withEachKernel;

// One decoder stream beside its model; each update is compared with the model's.
class Decoder {
public:
    Decoder() { EXPECT_EQ(decodeini(&state), 0); }
    ~Decoder()
    {
        unsigned char rest[3];
        decodefinish(rest, &state);
    }
    Decoder(const Decoder&) = delete;
    Decoder& operator=(const Decoder&) = delete;

    int update(const std::string& text)
    {
        std::string written;
        int expected = model.update(text, written);
        ExactBlock in(text);
        ExactBlock out(written.size(), CANARY);
        int n = decodeupdate(in.data.get(), static_cast<int>(text.size()), out.data.get(), state);
        EXPECT_EQ(n, expected) << text;
        EXPECT_EQ(out.text(0, written.size()), written) << text;
        EXPECT_EQ(pending(), static_cast<int>(model.pending.size())) << text;
        EXPECT_EQ(std::string(state + 4, state + 4 + model.pending.size()), model.pending) << text;
        if (n > 0)
            bytes += out.text(0, static_cast<size_t>(n));
        return n;
    }
    int finish(std::string& rest)
    {
        ExactBlock out(model.pending.size(), CANARY);
        int n = decodefinish(out.data.get(), &state);
        rest = out.text(0, out.size);
        EXPECT_EQ(state, nullptr);
        return n;
    }
    int32_t pending() const { return int32At(state, 0); }

    unsigned char* state = nullptr;
    DecoderModel model;
    std::string bytes;
};

TEST(DecodeState, BeginsZeroed)
{
    leaveUsedBlock(8);
    unsigned char* state = nullptr;
    ASSERT_EQ(decodeini(&state), 0);
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(std::count(state, state + 7, 0), 7);
    EXPECT_EQ(decodefinish(nullptr, &state), 0);
    EXPECT_EQ(state, nullptr);
}

TEST(DecodeState, HoldsRawPendingCharactersBehindTheirCount)
{
    Decoder decoder;
    EXPECT_EQ(decoder.update("Zm9vYg="), 3);
    EXPECT_EQ(decoder.pending(), 3);
    EXPECT_EQ(decoder.state[4], 'Y');
    EXPECT_EQ(decoder.state[5], 'g');
    EXPECT_EQ(decoder.state[6], '=');
}

TEST(DecodeFinish, HandsOutTheRawPendingCharacters)
{
    for (const char* text : {"", "Z", "Zm", "Zm9", "Zg=", "==="}) {
        Decoder decoder;
        std::string rest;
        decoder.update(text);
        EXPECT_EQ(decoder.finish(rest), static_cast<int>(strlen(text)));
        EXPECT_EQ(rest, text);
    }
}

TEST(DecodeFinish, TakesANullState)
{
    unsigned char* state = nullptr;
    unsigned char out[3] = {CANARY, CANARY, CANARY};
    EXPECT_EQ(decodefinish(out, &state), 0);
    EXPECT_EQ(state, nullptr);
    EXPECT_EQ(out[0], CANARY);
}

TEST(DecodeFinish, TakesANullPointerToTheState)
{
    unsigned char out[3] = {CANARY, CANARY, CANARY};
    EXPECT_EQ(decodefinish(out, nullptr), 0);
    EXPECT_EQ(std::count(out, out + 3, CANARY), 3);
}

// The host holds the state as bytes and may have written into it.
TEST(DecodeFinish, CopiesNothingForACountThatNoStateHas)
{
    for (const int32_t count : {4, 5, INT_MAX, 0, -1, INT_MIN}) {
        unsigned char* state = nullptr;
        ASSERT_EQ(decodeini(&state), 0);
        memcpy(state, &count, sizeof count);
        unsigned char out[8];
        std::fill_n(out, sizeof out, CANARY);
        EXPECT_EQ(decodefinish(out, &state), 0) << count;
        EXPECT_EQ(state, nullptr) << count;
        EXPECT_EQ(std::count(out, out + sizeof out, CANARY), 8) << count;
    }
}

TEST(DecodeUpdate, TakesTheCharactersThatThereCanBeForACountThatNoStateHas)
{
    for (const int32_t count : {4, 5, INT_MAX, -1, INT_MIN}) {
        unsigned char* state = nullptr;
        ASSERT_EQ(decodeini(&state), 0);
        memcpy(state, &count, sizeof count);
        memcpy(state + 4, "Zm9", 3);
        ExactBlock in("v");
        ExactBlock out(3, CANARY);
        EXPECT_EQ(decodeupdate(in.data.get(), 1, out.data.get(), state), 3) << count;
        EXPECT_EQ(out.text(0, 3), "foo") << count;
        decodefinish(out.data.get(), &state);
    }
}

TEST(DecodeUpdate, ReturnsZeroForANullStateOrInput)
{
    unsigned char in[] = "Zm9v";
    unsigned char out[3] = {CANARY, CANARY, CANARY};
    EXPECT_EQ(decodeupdate(in, 4, out, nullptr), 0);
    Decoder decoder;
    decoder.update("Zm");
    EXPECT_EQ(decodeupdate(nullptr, 4, out, decoder.state), 0);
    EXPECT_EQ(decoder.pending(), 2);
    EXPECT_EQ(std::count(out, out + 3, CANARY), 3);
}

TEST(DecodeUpdate, ReturnsTheLengthForANullOutput)
{
    unsigned char in[] = "Zm9vZm9";
    Decoder decoder;
    decoder.update("Zm");
    EXPECT_EQ(decodeupdate(in, 7, nullptr, decoder.state), 7);
    EXPECT_EQ(decodeupdate(in, 0, nullptr, decoder.state), 0);
    EXPECT_EQ(decoder.pending(), 2);
}

TEST(DecodeUpdate, SkipsALineFeed)
{
    Decoder decoder;
    EXPECT_EQ(decoder.update("Zm9v\nYmFy"), 6);
    EXPECT_EQ(decoder.bytes, "foobar");
}

TEST(DecodeUpdate, SkipsEachForeignByteAtEachPlace)
{
    const std::string text = "Zm9vAAAAYmE=";
    for (int byte = 0; byte < 256; byte++) {
        if (!DecoderModel().skips(static_cast<char>(byte)))
            continue;
        for (size_t place = 0; place < text.size(); place++) {
            std::string with = text;
            with.insert(place, 1, static_cast<char>(byte));
            Decoder decoder;
            ASSERT_EQ(decoder.update(with), 8) << byte << " at " << place;
            ASSERT_EQ(decoder.bytes, std::string("foo\0\0\0ba", 8));
        }
    }
}

TEST(DecodeUpdate, AgreesWithOpenSslForAllSizes)
{
    std::mt19937 random(63);
    for (size_t size = 0; size <= 512; size++) {
        std::string bytes = randomBytes(random, size);
        Decoder decoder;
        std::string rest;
        ASSERT_EQ(decoder.update(toBase64(bytes)), static_cast<int>(size));
        ASSERT_EQ(decoder.bytes, bytes);
        ASSERT_EQ(decoder.finish(rest), 0);
    }
}

struct PaddingRow {
    const char* text;
    int result;
    const char* written;  // stays in the output, whatever the result
};

const PaddingRow PADDING_ROWS[] = {
    {"Zm8=", 2, "fo"},       {"Zg==", 1, "f"},
    {"====", 0, ""},         {"A===", 0, ""},
    {"=AAA", 0, ""},         {"A=AA", 0, ""},
    {"AB=C", 0, ""},         {"A==A", 0, ""},
    {"A=A=", 0, ""},         {"=A==", 0, ""},
    {"==AA", 0, ""},         {"===A", 0, ""},
    {"=AA=", 0, ""},         {"=A=A", 0, ""},
    {"Zm9vA===", 0, "foo"},  {"Zm9vZm9vAB=C", 0, "foofoo"},
    {"Zm9vZg==", 4, "foof"}, {"Zg==Zm9v", 1, "f"},
    {"Zm8=Zm9v", 2, "fo"},   {"Zg==Z", 1, "f"},
    {"Z\ng =\t=\n", 1, "f"},
};

TEST(DecodeUpdate, EndsTheCallAtAPaddedGroup)
{
    for (const PaddingRow& row : PADDING_ROWS) {
        Decoder decoder;
        EXPECT_EQ(decoder.update(row.text), row.result) << row.text;
        EXPECT_EQ(decoder.pending(), 0) << row.text;

        unsigned char* state = nullptr;
        ASSERT_EQ(decodeini(&state), 0);
        ExactBlock in(row.text);
        ExactBlock out(32, CANARY);
        decodeupdate(in.data.get(), static_cast<int>(in.size), out.data.get(), state);
        size_t written = strlen(row.written);
        EXPECT_EQ(out.text(0, written), row.written) << row.text;
        EXPECT_EQ(out.data[written], CANARY) << row.text;
        unsigned char rest[3];
        EXPECT_EQ(decodefinish(rest, &state), 0) << row.text;
    }
}

TEST(DecodeUpdate, PutsPendingCharactersFirstInThePaddedGroup)
{
    Decoder decoder;
    EXPECT_EQ(decoder.update("Zg"), 0);
    EXPECT_EQ(decoder.update("="), 0);
    EXPECT_EQ(decoder.pending(), 3);
    EXPECT_EQ(decoder.update("=Zm9v"), 1);
    EXPECT_EQ(decoder.bytes, "f");
    EXPECT_EQ(decoder.pending(), 0);
    // The stream can go on; only the call had ended.
    EXPECT_EQ(decoder.update("Zm9v"), 3);
}

TEST(DecodeUpdate, KeepsPendingCharactersThroughEmptyPieces)
{
    Decoder decoder;
    decoder.update("Zm9");
    BeforeTheEdge in("");
    unsigned char out[3];
    EXPECT_EQ(decodeupdate(in.data(), 0, out, decoder.state), 0);
    EXPECT_EQ(decoder.pending(), 3);
    EXPECT_EQ(decoder.update("\n\n"), 0);
    EXPECT_EQ(decoder.pending(), 3);
    EXPECT_EQ(decoder.update("v"), 3);
    EXPECT_EQ(decoder.bytes, "foo");
}

TEST(DecodeUpdate, FollowsTheModelForRandomTextInRandomPieces)
{
    const std::string pool = ALPHABET + ALPHABET + "AAAA====\n\r -_.\x80\xff";
    withEachKernel([&] {
        std::mt19937 random(64);
        for (int round = 0; round < 5000; round++) {
            Decoder decoder;
            std::string rest;
            for (size_t pieces = random() % 6; pieces > 0; pieces--) {
                std::string text;
                for (size_t size = random() % 14; text.size() < size;)
                    text += random() % 60 == 0 ? '\0' : pool[random() % pool.size()];
                // Enough in a row for the kernel, at any place of the piece.
                if (random() % 8 == 0)
                    text.insert(random() % (text.size() + 1),
                                randomCharacters(random, random() % LONGER_THAN_ANY_VECTOR));
                decoder.update(text);
            }
            std::string expected = decoder.model.pending;
            ASSERT_EQ(decoder.finish(rest), static_cast<int>(expected.size()));
            ASSERT_EQ(rest, expected);
            ASSERT_FALSE(HasFailure()) << "round " << round;
        }
    });
}

TEST(DecodeUpdate, GivesTheSameBytesHoweverTheTextIsCut)
{
    withEachKernel([] {
        std::mt19937 random(65);
        for (int round = 0; round < 1000; round++) {
            std::string bytes = randomBytes(random, random() % (2 * LONGER_THAN_ANY_VECTOR));
            std::string text = toBase64(bytes);
            Decoder decoder;
            for (size_t at = 0; at < text.size();) {
                size_t piece = pieceLength(random);
                decoder.update(text.substr(at, piece));
                at += piece;
            }
            ASSERT_EQ(decoder.bytes, bytes);
            ASSERT_EQ(decoder.pending(), 0);
        }
    });
}

TEST(DecodeUpdate, TakesNothingOfANegativeLength)
{
    unsigned char* state = nullptr;
    ASSERT_EQ(decodeini(&state), 0);
    BeforeTheEdge in("");
    unsigned char out[3] = {CANARY};
    EXPECT_EQ(decodeupdate(in.data(), -1, out, state), 0);
    EXPECT_EQ(decodeupdate(in.data(), INT_MIN, out, state), 0);
    EXPECT_EQ(out[0], CANARY);
    EXPECT_EQ(decodefinish(out, &state), 0);
}

}  // namespace
