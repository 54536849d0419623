// The tokens of a JSON text (RFC 8259). Strings are decoded where they stand, so that no copy of
// them is made.
#ifndef CORVANE_SERVICE_BODIES_JSON_TOKENS_H
#define CORVANE_SERVICE_BODIES_JSON_TOKENS_H

#include <string>
#include <string_view>

class JsonTokens {
public:
    enum Kind {
        Malformed,
        End,
        BeginObject,
        EndObject,
        BeginArray,
        EndArray,
        Colon,
        Comma,
        Text,
        Integer,   // of 64 bits, signed or not
        Number,    // any other that a double holds
        TooLarge,  // a number beyond that
        Word,      // true, false or null
    };

    // The text has to be UTF-8. It is changed, and must outlive this.
    explicit JsonTokens(std::string& text);

    // Nothing follows what is Malformed, or the End.
    Kind next();
    // The last Text as it is meant, or an Integer's digits with its sign, in the JSON text.
    std::string_view text() const { return m_token; }
    // How many characters have been looked at; the end is one.
    size_t position() const { return m_at; }

private:
    static constexpr int noCharacter = -1;

    int take();
    void giveBack() { --m_at; }
    Kind takeWord(std::string_view rest);
    Kind takeText();
    bool takeEscape(char*& out);
    bool takeCodePoint(char*& out);
    int takeDigits();
    Kind takeNumber(int first);
    int takeDecimals(int c);
    Kind integerOf(std::string_view number);
    static Kind numberOf(std::string_view number);

    std::string& m_text;
    size_t m_at = 0;
    std::string_view m_token;
};

#endif
