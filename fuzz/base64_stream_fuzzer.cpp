// The streaming codec: pieces of any sizes give what one piece gives, and no call writes
// more than it may. Input: pieces' lengths, a byte each, up to one of 0; then the bytes.

#include "base64_stream.h"

#include <string>
#include <vector>

#include "fuzz.h"
#include "oracles.h"

using fuzz::Exact;

namespace {

constexpr unsigned char UNTOUCHED = 0xA5;

// The text cut into pieces of these lengths, and the rest of it.
std::vector<std::string> cut(const std::string& text, const std::vector<unsigned>& lengths)
{
    std::vector<std::string> pieces;
    size_t at = 0;
    for (const unsigned length : lengths) {
        pieces.push_back(text.substr(at, length));
        at += pieces.back().size();
    }
    pieces.push_back(text.substr(at));
    return pieces;
}

// ---- The decoder's rules, over whole texts.

const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";

std::string withoutForeign(const std::string& text)
{
    std::string kept;
    for (const char c : text)
        if (alphabet.find(c) != std::string::npos)
            kept += c;
    return kept;
}

// What a call makes of the waiting characters and a piece.
struct Step {
    std::string bytes;    // written, also where they do not count
    std::string waiting;  // for the next call
    bool refused = false;
};

Step decodeStep(const std::string& characters)
{
    Step step;
    size_t i = 0;
    for (; i + 4 <= characters.size(); i += 4) {
        const std::string group = characters.substr(i, 4);
        const size_t padding = group.find('=');
        step.refused = padding < 2 || (padding == 2 && group[3] != '=');
        if (step.refused)
            return step;
        uint32_t bits = 0;
        for (const char c : group)
            bits = bits << 6 | (c == '=' ? 0 : static_cast<uint32_t>(alphabet.find(c)));
        const std::string bytes = {static_cast<char>(bits >> 16), static_cast<char>(bits >> 8),
                                   static_cast<char>(bits)};
        step.bytes += bytes.substr(0, padding == std::string::npos ? 3 : padding - 1);
        if (padding != std::string::npos)
            return step;  // the rest of the piece is ignored
    }
    step.waiting = characters.substr(i);
    return step;
}

// ---- In pieces.

void checkEncodingInPieces(const std::string& bytes, const std::vector<unsigned>& lengths)
{
    std::string text;
    size_t given = 0;
    unsigned char* state = nullptr;
    encodeini(&state);
    for (const std::string& piece : cut(bytes, lengths)) {
        Exact in(piece);
        Exact out((given % 3 + piece.size()) / 3 * 4);
        given += piece.size();
        const int written = encodeupdate(in.data(), static_cast<int>(in.size()), out.data(), state);
        HOLDS(written == static_cast<int>(out.size()));
        text += out.text();
    }
    Exact last(given % 3 == 0 ? 0 : 4);
    HOLDS(encodefinish(last.data(), state) == static_cast<int>(last.size()));
    free(state);
    HOLDS(text + last.text() == fuzz::toBase64(bytes));
}

// Returns the bytes of all pieces.
std::string decodeInPieces(const std::string& text, const std::vector<unsigned>& lengths)
{
    std::string bytes;
    std::string waiting;
    unsigned char* state = nullptr;
    HOLDS(decodeini(&state) == 0);
    for (const std::string& piece : cut(text, lengths)) {
        const Step step = decodeStep(waiting + withoutForeign(piece));
        Exact in(piece);
        Exact out(step.bytes.size());
        const int written = decodeupdate(in.data(), static_cast<int>(in.size()), out.data(), state);
        HOLDS(written == (step.refused ? 0 : static_cast<int>(step.bytes.size())));
        HOLDS(out.text() == step.bytes);
        bytes += out.text(static_cast<size_t>(written));
        waiting = step.waiting;
    }
    Exact left(waiting.size());
    HOLDS(decodefinish(left.data(), &state) == static_cast<int>(waiting.size()));
    HOLDS(left.text() == waiting && state == nullptr);
    return bytes;
}

// ---- In one call.

void checkEncodingAtOnce(const std::string& bytes, int lineBreak)
{
    std::string expected = fuzz::toBase64(bytes);
    const size_t characters = expected.size();
    size_t announced = characters;
    if (lineBreak == 1) {
        for (size_t at = 64; at <= expected.size(); at += 65)
            expected.insert(at, 1, '\n');
        expected += '\n';
        // A last line that is full ends in two line feeds, of which one is not announced.
        announced = expected.size() - (characters > 0 && characters % 64 == 0 ? 1 : 0);
    }

    Exact in(bytes);
    unsigned length = 12345;
    HOLDS(CV_Base64Encode(in.data(), in.size32(), nullptr, &length, lineBreak) == 0);
    HOLDS(length == announced);
    Exact out(expected.size(), UNTOUCHED);
    HOLDS(CV_Base64Encode(in.data(), in.size32(), out.chars(), &length, lineBreak) == 0);
    HOLDS(length == announced && out.text() == expected);
}

void checkDecodingAtOnce(const std::string& text)
{
    const Step step = decodeStep(withoutForeign(text));
    const bool isIncomplete = !step.refused && !step.waiting.empty();
    Exact in(text);
    unsigned length = 12345;
    HOLDS(CV_Base64Decode(in.chars(), in.size32(), nullptr, &length) == 0);
    HOLDS(length == text.size());

    Exact out(text.size(), UNTOUCHED);
    length = 12345;
    HOLDS(CV_Base64Decode(in.chars(), in.size32(), out.data(), &length) ==
          (isIncomplete ? BASE64_INCOMPLETE : 0));
    HOLDS(length == (isIncomplete || step.refused ? 0 : step.bytes.size()));
    const size_t touched = step.bytes.size() + (step.refused ? 0 : step.waiting.size());
    const std::string behind(out.size() - touched, static_cast<char>(UNTOUCHED));
    HOLDS(out.text(step.bytes.size()) == step.bytes && out.text().substr(touched) == behind);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    std::vector<unsigned> lengths;
    while (const unsigned length = input.pick(256))
        lengths.push_back(length - 1);  // a piece may be empty
    const std::string bytes = input.rest();

    checkEncodingInPieces(bytes, lengths);
    for (const int lineBreak : {0, 1, 2})
        checkEncodingAtOnce(bytes, lineBreak);

    // Any text by the rules, and a well-formed one, also with line feeds, to its bytes.
    decodeInPieces(bytes, lengths);
    checkDecodingAtOnce(bytes);
    std::string text = fuzz::toBase64(bytes);
    HOLDS(decodeInPieces(text, lengths) == bytes);
    for (const unsigned length : lengths)
        text.insert(length % (text.size() + 1), 1, '\n');
    HOLDS(decodeInPieces(text, lengths) == bytes);
    checkDecodingAtOnce(text);
    return 0;
}
