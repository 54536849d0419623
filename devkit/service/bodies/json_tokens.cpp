#include "json_tokens.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "common/codec.h"
#include "common/secrets.h"

namespace {

bool isDigit(int c)
{
    return c >= '0' && c <= '9';
}

// What a backslash and the letter stand for; NUL if nothing.
char unescaped(int letter)
{
    switch (letter) {
        case '"':
        case '\\':
        case '/':
            return static_cast<char>(letter);
        case 'b':
            return '\b';
        case 'f':
            return '\f';
        case 'n':
            return '\n';
        case 'r':
            return '\r';
        case 't':
            return '\t';
        default:
            return '\0';
    }
}

// As UTF-8, which takes no more room than the escape did.
void put(char*& out, unsigned codePoint)
{
    const auto byte = [&out](unsigned bits) { *out++ = static_cast<char>(bits); };
    const auto more = [&byte, codePoint](unsigned shift) {
        byte(0x80U | (codePoint >> shift & 0x3FU));
    };
    if (codePoint < 0x80)
        return byte(codePoint);
    if (codePoint < 0x800) {
        byte(0xC0U | codePoint >> 6U);
    } else if (codePoint < 0x10000) {
        byte(0xE0U | codePoint >> 12U);
        more(6);
    } else {
        byte(0xF0U | codePoint >> 18U);
        more(12);
        more(6);
    }
    more(0);
}

}  // namespace

// A mark of the byte order at the beginning means nothing.
JsonTokens::JsonTokens(std::string& text) : m_text(text)
{
    constexpr std::string_view mark = "\xEF\xBB\xBF";
    if (std::string_view(text).substr(0, mark.size()) == mark)
        m_at = mark.size();
}

int JsonTokens::take()
{
    const size_t at = m_at++;
    return at < m_text.size() ? static_cast<unsigned char>(m_text[at]) : noCharacter;
}

JsonTokens::Kind JsonTokens::next()
{
    int c;
    do {
        c = take();
    } while (c == ' ' || c == '\t' || c == '\n' || c == '\r');
    switch (c) {
        case noCharacter:
            return End;
        case '{':
            return BeginObject;
        case '}':
            return EndObject;
        case '[':
            return BeginArray;
        case ']':
            return EndArray;
        case ':':
            return Colon;
        case ',':
            return Comma;
        case '"':
            return takeText();
        case 't':
            return takeWord("rue");
        case 'f':
            return takeWord("alse");
        case 'n':
            return takeWord("ull");
        default:
            return c == '-' || isDigit(c) ? takeNumber(c) : Malformed;
    }
}

JsonTokens::Kind JsonTokens::takeWord(std::string_view rest)
{
    const bool isWhole =
        std::all_of(rest.begin(), rest.end(), [this](char c) { return take() == c; });
    return isWhole ? Word : Malformed;
}

// Behind the first quote.
JsonTokens::Kind JsonTokens::takeText()
{
    char* const begin = m_text.data() + m_at;
    char* out = begin;
    for (;;) {
        // What needs no change, in one piece.
        const char* const piece = m_text.data() + m_at;
        const char* const end = m_text.data() + m_text.size();
        const char* const stop = std::find_if(piece, end, [](char c) {
            return c == '"' || c == '\\' || static_cast<unsigned char>(c) < 0x20;
        });
        const auto size = static_cast<size_t>(stop - piece);
        if (out != piece)
            memmove(out, piece, size);
        out += size;
        m_at += size;
        switch (take()) {
            case '"':
                m_token = {begin, static_cast<size_t>(out - begin)};
                return Text;
            case '\\':
                if (!takeEscape(out))
                    return Malformed;
                break;
            default:
                return Malformed;
        }
    }
}

// Behind the backslash.
bool JsonTokens::takeEscape(char*& out)
{
    const int letter = take();
    if (letter == 'u')
        return takeCodePoint(out);
    const char meant = unescaped(letter);
    if (meant != '\0')
        *out++ = meant;
    return meant != '\0';
}

// Behind the "u". What is beyond 16 bits is written as two.
bool JsonTokens::takeCodePoint(char*& out)
{
    const int first = takeDigits();
    if (first < 0 || (first >= 0xDC00 && first <= 0xDFFF))
        return false;
    auto codePoint = static_cast<unsigned>(first);
    if (first >= 0xD800 && first <= 0xDBFF) {
        if (take() != '\\' || take() != 'u')
            return false;
        const int second = takeDigits();
        if (second < 0xDC00 || second > 0xDFFF)
            return false;
        codePoint =
            0x10000U + ((codePoint - 0xD800U) << 10U) + static_cast<unsigned>(second) - 0xDC00U;
    }
    put(out, codePoint);
    return true;
}

// Four hex digits; negative if they are none.
int JsonTokens::takeDigits()
{
    int value = 0;
    for (int i = 0; i < 4; ++i) {
        const int digit = hexDigit(take());
        if (digit < 0)
            return digit;
        value = value * 16 + digit;
    }
    return value;
}

JsonTokens::Kind JsonTokens::takeNumber(int first)
{
    const size_t begin = m_at - 1;
    int c = first == '-' ? take() : first;
    if (!isDigit(c))
        return Malformed;
    const bool isZero = c == '0';
    c = take();
    while (!isZero && isDigit(c))
        c = take();
    const bool isInteger = c != '.' && c != 'e' && c != 'E';
    if (!isInteger && takeDecimals(c) == 0)
        return Malformed;
    giveBack();  // what ended it
    const std::string_view number(m_text.data() + begin, m_at - begin);
    return isInteger ? integerOf(number) : numberOf(number);
}

// Behind the point or the "e" that is given. Returns the character behind it all, 0 if it is
// malformed.
int JsonTokens::takeDecimals(int c)
{
    if (c == '.') {
        if (!isDigit(take()))
            return 0;
        do {
            c = take();
        } while (isDigit(c));
    }
    if (c != 'e' && c != 'E')
        return c;
    c = take();
    if (c == '+' || c == '-')
        c = take();
    if (!isDigit(c))
        return 0;
    while (isDigit(c))
        c = take();
    return c;
}

JsonTokens::Kind JsonTokens::integerOf(std::string_view number)
{
    const char* const end = number.data() + number.size();
    uint64_t natural = 0;
    int64_t negative = 0;
    const bool fits = number[0] == '-'
                          ? std::from_chars(number.data(), end, negative).ec == std::errc()
                          : std::from_chars(number.data(), end, natural).ec == std::errc();
    if (!fits)
        return numberOf(number);
    m_token = number == "-0" ? number.substr(1) : number;
    return Integer;
}

JsonTokens::Kind JsonTokens::numberOf(std::string_view number)
{
    const SecretText digits(number);
    return std::isfinite(strtod(digits.c_str(), nullptr)) ? Number : TooLarge;
}
