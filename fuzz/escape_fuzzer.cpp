// Escapes and character rewriting, against a model and back again. Only well-formed
// escapes are undone: others end the process, as they are meant to. Input: one byte that
// chooses, then the bytes.

#include <cctype>
#include <string>

#include "WebServerBase.h"
#include "fuzz.h"
#include "oracles.h"

using fuzz::Exact;

namespace {

class Handler : public CWebServerBase {
public:
    std::string Request() override { return ""; }
};

// A digit's value counts letters on beyond F.
unsigned digitValue(char c)
{
    return static_cast<unsigned>(
        std::string("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ")
            .find(static_cast<char>(toupper(static_cast<unsigned char>(c)))));
}

std::string unescaped(const std::string& text)
{
    std::string bytes;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            bytes += text[i];
            continue;
        }
        bytes += static_cast<char>(digitValue(text[i + 1]) % 16 * 16 + digitValue(text[i + 2]));
        i += 2;
    }
    return bytes;
}

// The text without the "%" signs that begin no escape.
std::string wellFormed(const std::string& text)
{
    std::string good;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            good += text[i];
        } else if (i + 2 < text.size() && fuzz::isLetterOrDigit(text[i + 1]) &&
                   fuzz::isLetterOrDigit(text[i + 2])) {
            good += text.substr(i, 3);
            i += 2;
        }
    }
    return good;
}

void checkEscapes(Handler& handler, const std::string& bytes)
{
    const std::string once = fuzz::escaped(bytes);
    HOLDS(handler.EncodeURIComponent(bytes) == once);
    HOLDS(handler.DecodeURIComponent(once) == bytes);
    HOLDS(handler.JsonUrlEncode(bytes) == fuzz::escaped(once));
    HOLDS(handler.JsonUrlDecode(fuzz::escaped(once)) == bytes);

    const std::string text = wellFormed(bytes);
    const std::string inner = unescaped(text);
    HOLDS(handler.DecodeURIComponent(text) == inner);
    if (wellFormed(inner) == inner)
        HOLDS(handler.JsonUrlDecode(text) == unescaped(inner));
}

void checkRewriting(Handler& handler, const std::string& bytes, unsigned choice)
{
    const size_t limit = bytes.empty() ? 0 : choice % (bytes.size() + 1);
    const std::string head = bytes.substr(0, limit);
    const std::string tail = bytes.substr(limit);
    const char from = bytes.empty() ? 'a' : bytes[choice % bytes.size()];
    const char to = static_cast<char>(choice);

    Exact some(bytes);
    handler.ReplaceInChar(some.chars(), static_cast<int>(limit), from, to);
    HOLDS(some.text() == fuzz::replaced(head, from, to) + tail);

    const auto exchanged = [](std::string text, const std::string& pairs) {
        for (size_t i = 0; i < pairs.size(); i += 2)
            text = fuzz::replaced(text, pairs[i], pairs[i + 1]);
        return text;
    };
    Exact url(bytes);
    handler.URLDataEncode(url.chars(), static_cast<int>(url.size()));
    HOLDS(url.text() == exchanged(bytes, "+-/_\n*"));
    Exact standard(bytes);
    handler.URLDataDecode(standard.chars(), static_cast<int>(standard.size()));
    HOLDS(standard.text() == exchanged(bytes, "-+_/"));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    const unsigned choice = input.pick(256);
    const std::string bytes = input.rest();
    Handler handler;

    checkEscapes(handler, bytes);
    checkRewriting(handler, bytes, choice);
    return 0;
}
