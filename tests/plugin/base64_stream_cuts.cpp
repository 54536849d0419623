// The streaming Base64 codec with each way to cut a short text into pieces: what it gives is the
// same as in one piece, and no call writes anything but what it returns.
#include "base64_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/base64_text.h"
#include "support/each_kernel.h"
#include "support/stream_bytes.h"
#include "support/stream_decoder_model.h"

namespace {

using support::CANARY;
using support::DecoderModel;
using support::LONGER_THAN_ANY_VECTOR;
using support::toBase64;
using support::withEachKernel;

constexpr size_t LONGEST_CUT = 12;

// The pieces of a text. Bit i of `cuts` is set if there is a cut behind its character i.
std::vector<std::string> piecesOf(const std::string& text, unsigned cuts)
{
    std::vector<std::string> pieces(1);
    for (size_t i = 0; i < text.size(); ++i) {
        pieces.back() += text[i];
        if (i + 1 < text.size() && (cuts >> i & 1) != 0)
            pieces.emplace_back();
    }
    return pieces;
}

// Calls `body` with each cutting of each beginning of a text of up to twelve characters.
template <class Body>
void withEachCut(const std::string& whole, Body body)
{
    ASSERT_LE(whole.size(), LONGEST_CUT);
    for (size_t size = 1; size <= whole.size(); ++size) {
        const std::string part = whole.substr(0, size);
        for (unsigned cuts = 0; cuts < 1U << (size - 1); ++cuts) {
            SCOPED_TRACE(testing::PrintToString(part) + ", cuts " + std::to_string(cuts));
            body(part, cuts);
            if (testing::Test::HasFailure())
                return;
        }
    }
}

// Room for what calls write, between bytes that none may touch.
class Room {
public:
    // Calls `write` with a place for some bytes; the result is what is there afterwards. Nothing
    // may have been written behind them or before.
    template <class Write>
    std::string with(size_t size, Write write)
    {
        m_bytes.assign(GUARD + size + GUARD, static_cast<char>(CANARY));
        write(reinterpret_cast<unsigned char*>(m_bytes.data()) + GUARD);
        EXPECT_EQ(std::count(m_bytes.begin(), m_bytes.begin() + GUARD, CHAR), GUARD);
        EXPECT_EQ(std::count(m_bytes.end() - GUARD, m_bytes.end(), CHAR), GUARD);
        return m_bytes.substr(GUARD, size);
    }

private:
    static constexpr int GUARD = 80;  // no vector reaches further
    static constexpr char CHAR = static_cast<char>(CANARY);
    std::string m_bytes;
};

unsigned char* bytesOf(std::string& text)
{
    return reinterpret_cast<unsigned char*>(text.data());
}

// The text of all pieces. Each call gives the whole groups that it completes, and writes no more.
std::string encoded(std::vector<std::string> pieces)
{
    unsigned char* state = nullptr;
    encodeini(&state);
    Room room;
    std::string text;
    size_t given = 0;
    for (std::string& piece : pieces) {
        given += piece.size();
        const size_t expected = given / 3 * 4 - text.size();
        int count = -1;
        text += room.with(expected, [&](unsigned char* out) {
            count = encodeupdate(bytesOf(piece), static_cast<int>(piece.size()), out, state);
        });
        EXPECT_EQ(count, static_cast<int>(expected));
    }
    const size_t expected = given % 3 == 0 ? 0 : 4;
    int count = -1;
    text += room.with(expected, [&](unsigned char* out) { count = encodefinish(out, state); });
    EXPECT_EQ(count, static_cast<int>(expected));
    free(state);
    return text;
}

struct Decoded {
    std::string bytes;
    std::string left;  // the characters that decodefinish hands out

    bool operator==(const Decoded& other) const
    {
        return bytes == other.bytes && left == other.left;
    }
};

// What all pieces give. Each call returns and writes what the model does.
Decoded decoded(std::vector<std::string> pieces)
{
    unsigned char* state = nullptr;
    EXPECT_EQ(decodeini(&state), 0);
    Room room;
    DecoderModel model;
    Decoded all;
    for (std::string& piece : pieces) {
        std::string expected;
        const int expectedCount = model.update(piece, expected);
        int count = -1;
        const std::string written = room.with(expected.size(), [&](unsigned char* out) {
            count = decodeupdate(bytesOf(piece), static_cast<int>(piece.size()), out, state);
        });
        EXPECT_EQ(count, expectedCount);
        EXPECT_EQ(written, expected);
        all.bytes += written.substr(0, static_cast<size_t>(std::max(count, 0)));
    }
    int count = -1;
    all.left = room.with(model.pending.size(),
                         [&](unsigned char* out) { count = decodefinish(out, &state); });
    EXPECT_EQ(count, static_cast<int>(model.pending.size()));
    EXPECT_EQ(all.left, model.pending);
    EXPECT_EQ(state, nullptr);
    return all;
}

// Bytes of which each gives other characters, and those that tables and signs get wrong.
const std::string BYTES[] = {
    std::string("\x00\x10\x83\x10\x51\x87\x20\x92\x8B\x30\xD3\x8F", 12),
    std::string(12, '\xFF'),
    std::string(12, '\0'),
    std::string("\x7F\x80\xFB\xEF\xBE\n\r \xFE\x01=/", 12),
};

// No padding, so that the text means the same in one piece and in many.
const std::string UNPADDED[] = {
    "Zm9vYmFyYmF6",
    "Zm9v\nYmFy\r\nY",
    "\n\nZ\nm\n9\nv\n\nZ",
    "+/+/-_Zm*9.v",
    std::string("\0Zm\x80 9v\xFFYmF\t", 12),
    "AAAA%2BAAAAA",
};

// Padding ends a call and not the text: what follows it counts in the next piece.
const std::string PADDED[] = {
    "Zm9vYmFyYg==", "Zm9vYmFyYmE=", "Zg==Zm8=Zm9v", "Zg=\n=Zm8\r\n=Z",
    "A===Zm9vYmFy", "====Zm9v====", "=Zm9=vAB=CZm", "Zm9vA=B=Zg==",
};

}  // namespace

TEST(EncodeCuts, GiveTheSameTextForEachCutting)
{
    for (const std::string& bytes : BYTES)
        withEachCut(bytes, [](const std::string& part, unsigned cuts) {
            EXPECT_EQ(encoded(piecesOf(part, cuts)), toBase64(part));
        });
}

// The text of which all cuttings are tried stands between pieces that a kernel takes.
TEST(EncodeCuts, GiveTheSameTextBetweenLongPieces)
{
    const std::string before(LONGER_THAN_ANY_VECTOR, '\xFB');
    const std::string behind(LONGER_THAN_ANY_VECTOR, '\x07');
    const std::string& bytes = BYTES[0];
    const std::string expected = toBase64(before + bytes + behind);
    withEachKernel([&] {
        for (unsigned cuts = 0; cuts < 1U << (LONGEST_CUT - 1); ++cuts) {
            std::vector<std::string> pieces = piecesOf(bytes, cuts);
            pieces.front() = before + pieces.front();
            pieces.back() += behind;
            ASSERT_EQ(encoded(pieces), expected) << "cuts " << cuts;
        }
    });
}

TEST(DecodeCuts, GiveTheSameBytesForEachCutting)
{
    for (const std::string& text : UNPADDED)
        withEachCut(text, [](const std::string& part, unsigned cuts) {
            EXPECT_TRUE(decoded(piecesOf(part, cuts)) == decoded({part}));
        });
}

TEST(DecodeCuts, FollowTheModelThroughPadding)
{
    for (const std::string& text : PADDED)
        withEachCut(text,
                    [](const std::string& part, unsigned cuts) { decoded(piecesOf(part, cuts)); });
}

// A text with its padding at the end is one of those that mean the same however they are cut.
TEST(DecodeCuts, GiveTheSameBytesIfPaddingEndsTheText)
{
    for (const std::string& bytes : BYTES)
        for (size_t size = 1; size <= 9; ++size) {
            const std::string part = bytes.substr(0, size);
            const std::string text = toBase64(part);
            for (unsigned cuts = 0; cuts < 1U << (text.size() - 1); ++cuts)
                ASSERT_TRUE((decoded(piecesOf(text, cuts)) == Decoded{part, ""}))
                    << text << ", cuts " << cuts;
        }
}

TEST(DecodeCuts, GiveTheSameBytesBetweenLongPieces)
{
    const std::string before = toBase64(std::string(LONGER_THAN_ANY_VECTOR / 4 * 3, '\xFB'));
    const std::string behind = toBase64(std::string(LONGER_THAN_ANY_VECTOR / 4 * 3 - 1, '\x07'));
    for (const std::string text : {"Zm9vYmFyYmF6", "Zm9v\nYmFy\r\nY"}) {
        const Decoded expected = decoded({before + text + behind});
        withEachKernel([&] {
            for (unsigned cuts = 0; cuts < 1U << (text.size() - 1); ++cuts) {
                std::vector<std::string> pieces = piecesOf(text, cuts);
                pieces.front() = before + pieces.front();
                pieces.back() += behind;
                ASSERT_TRUE(decoded(pieces) == expected) << "cuts " << cuts;
            }
        });
    }
}
