// The ways to vary a parameter of a request, and what must become of it and of the output.
#ifndef CORVANE_TESTS_HANDLER_PARAMETERS_H
#define CORVANE_TESTS_HANDLER_PARAMETERS_H

#include <climits>
#include <string>
#include <vector>

#include "support/base64_text.h"
#include "support/handlers.h"

namespace support {

// ---- Varying one parameter of a request that succeeds

// Where a parameter arrives: an argument of an engine function.
struct Place {
    std::string request;
    Pairs good;
    std::string parameter;
    std::string function;
    std::string argument;
    Pairs refusal = failure(INVALID);
};

// The engine's argument when the parameter has a value.
inline doubles::Argument arriving(Plugin& plugin, const Place& place, const std::string& value)
{
    plugin.reply(place.request, with(place.good, place.parameter, value));
    return plugin.journal.at(place.function)[place.argument];
}

inline void expectRefused(Plugin& plugin, const Place& place, const std::string& value)
{
    SCOPED_TRACE(place.parameter + "=" + quoted(value));
    EXPECT_EQ(place.refusal, plugin.reply(place.request, with(place.good, place.parameter, value)));
    EXPECT_EQ(0u, plugin.journal.count(place.function));
}

// Base64 texts of either alphabet, and what they decode to.
inline Pairs decodings()
{
    return {
        {"-_8=", "\xFB\xFF"},
        {"+/8=", "\xFB\xFF"},
        {"+_8=", "\xFB\xFF"},
        {"-/8=", "\xFB\xFF"},
        {"AB-_", text("\x00\x1F\xBF")},
        {"AB+/", text("\x00\x1F\xBF")},
        {"YWJjZA==", "abcd"},
        {"YWJjZA=", "abcd"},
        {"YWJjZA", "abcd"},
        {"YWJjZ", "abc"},
        {"AAECAw==", text("\0\1\2\3")},
        // The first foreign character ends the value.
        {"YWJj\nZGVm", "abc"},
        {"YWJj ZGVm", "abc"},
        {"YWJj=ZGVm", "abc"},
        {"YWJj*ZGVm", "abc"},
        {"YWJj%2BGVm", "abc"},
        {"YWJj\xC3\xA9GVm", "abc"},
        {text("YWJj\0ZGVm"), "abc"},
        {"YWJjZG\r\nVm", "abcd"},
        // Present, but nothing in it.
        {"Y", ""},
        {"=", ""},
        {" YWJj", ""},
        {"!", ""},
        {text("\0"), ""},
    };
}

// The parameter is Base64 and arrives decoded, never as null.
inline void expectDecoded(const Place& place)
{
    Plugin plugin;
    for (const auto& [encoded, bytes] : decodings()) {
        SCOPED_TRACE(place.parameter + "=" + quoted(encoded));
        const auto argument = arriving(plugin, place, encoded);
        EXPECT_FALSE(argument.null);
        EXPECT_EQ(quoted(bytes), quoted(argument.bytes));
    }
}

// The parameter arrives as text with "+" for each "-" and "/" for each "_".
inline void expectRewritten(const Place& place)
{
    Plugin plugin;
    const Pairs rewritings = {
        {"ab-c_d==", "ab+c/d=="},
        {"ab+c/d==", "ab+c/d=="},
        {"-", "+"},
        {"__--+/", "//+++/"},
        {"-----BEGIN KEY-----\nAA-_\n", "+++++BEGIN KEY+++++\nAA+/\n"},
        {"A=B C%2D*", "A=B C%2D*"},
        {text("a-\0_b"), text("a+\0/b")},
        {"\xC3\xA9", "\xC3\xA9"},
    };
    for (const auto& [given, expected] : rewritings) {
        SCOPED_TRACE(place.parameter + "=" + quoted(given));
        const auto argument = arriving(plugin, place, given);
        EXPECT_FALSE(argument.null);
        EXPECT_EQ(quoted(expected), quoted(argument.bytes));
    }
}

// The parameter arrives as it was sent; a text argument up to its first NUL.
inline void expectUnchanged(const Place& place, bool upToNul = false)
{
    Plugin plugin;
    for (const std::string& value : {
             text("ab-c_d+/=="),
             text("YWJj"),
             text("%41 \n\r\t"),
             text("\xC3\xA9\xFF\x80"),
             text("0"),
             text("a\0-_b"),
             text("\0a"),
         }) {
        SCOPED_TRACE(place.parameter + "=" + quoted(value));
        const auto argument = arriving(plugin, place, value);
        EXPECT_FALSE(argument.null);
        EXPECT_EQ(quoted(upToNul ? value.c_str() : value), quoted(argument.bytes));
    }
}

// Texts that read as the number up to their first foreign character.
inline std::vector<std::string> textsOf(int number)
{
    const std::string sign = number < 0 ? "-" : "";
    const std::string digits = std::to_string(number).substr(sign.size());
    std::vector<std::string> texts;
    texts.push_back(sign + digits);
    texts.push_back(" \t\n" + sign + digits);
    texts.push_back(sign + "00" + digits);
    for (const std::string& end : {text(" "), text("x"), text(".9"), text(",5"), text("e3"),
                                   text("\n"), text("\0"), text("\0") + "5", text("-1")})
        texts.push_back(sign + digits + end);
    if (number >= 0)
        texts.push_back("+" + digits);
    return texts;
}

// Texts that read as 0 because they do not begin with a number.
inline std::vector<std::string> numberlessTexts(const std::string& digit)
{
    return {"x" + digit,  "abc",       " ",          text("\0"), text("\0") + digit, "--" + digit,
            "+ " + digit, "." + digit, "\"" + digit, "-",        "\xEF\xBC\x91"};
}

// The parameter is a number, read up to its first foreign character, in a range.
inline void expectNumber(const Place& place, int low, int high)
{
    Plugin plugin;
    for (const int number : {low, low + 1, high - 1, high}) {
        for (const std::string& value : textsOf(number)) {
            SCOPED_TRACE(place.parameter + "=" + quoted(value));
            EXPECT_EQ(number, arriving(plugin, place, value).number);
        }
    }
    for (const int number : {low - 1, high + 1})
        for (const std::string& value : textsOf(number))
            expectRefused(plugin, place, value);
    for (const std::string& value : numberlessTexts(std::to_string(high))) {
        if (low > 0) {
            expectRefused(plugin, place, value);
        } else {
            SCOPED_TRACE(place.parameter + "=" + quoted(value));
            EXPECT_EQ(0, arriving(plugin, place, value).number);
        }
    }
}

// The parameter is exactly one of some one-digit texts.
inline void expectChoice(const Place& place, const std::string& digits)
{
    Plugin plugin;
    for (const char digit : digits) {
        const std::string value(1, digit);
        SCOPED_TRACE(place.parameter + "=" + quoted(value));
        EXPECT_EQ(digit - '0', arriving(plugin, place, value).number);
        for (const std::string& refused :
             {"0" + value, " " + value, value + " ", "+" + value, "-" + value, value + ".0",
              value + "\n", value + "x", value + text("\0"), text("\0") + value, value + value,
              "\"" + value + "\""})
            expectRefused(plugin, place, refused);
    }
    for (const char other : std::string("0123456789"))
        if (digits.find(other) == std::string::npos)
            expectRefused(plugin, place, std::string(1, other));
    for (const std::string& refused :
         {text("true"), text("yes"), text("x"), text(" "), text("\0"), text("\xEF\xBC\x91")})
        expectRefused(plugin, place, refused);
}

// Each of the parameters, and all of them, absent or empty: the code for missing ones.
// `engine` is what reaches the engine all the same.
inline void expectRequired(const std::string& request, const Pairs& good,
                           const std::vector<std::string>& required,
                           const Pairs& refusal = failure(MISSING), const std::string& engine = "")
{
    Plugin plugin;
    Pairs none = good;
    for (const std::string& name : required) {
        SCOPED_TRACE(name);
        none = without(none, name);
        EXPECT_EQ(refusal, plugin.reply(request, without(good, name))) << "absent";
        EXPECT_EQ(engine, plugin.engineCalls());
        EXPECT_EQ(refusal, plugin.reply(request, with(good, name, ""))) << "empty";
        EXPECT_EQ(engine, plugin.engineCalls());
    }
    EXPECT_EQ(refusal, plugin.reply(request, none)) << "all absent";
    EXPECT_EQ(engine, plugin.engineCalls());
}

// ---- Outputs

// An output as it becomes "Data".
using Encoding = std::string (*)(const std::string& bytes);

// What the engine writes into the buffer of `function` becomes "Data", up to the
// capacity and no further, whatever length it tells. `good` must reach that function.
inline void expectOutput(const std::string& request, const Pairs& good, const std::string& function,
                         size_t capacity, Encoding encoding = toUrlBase64)
{
    Plugin plugin;
    doubles::Step& step = plugin.engine.on(function);
    std::string full;
    while (full.size() < capacity)
        full += text("\xFB\xFF\xBF\0aB");
    full.resize(capacity);

    const auto data = [&] { return plugin.reply(request, good).front().second; };
    for (const std::string& output :
         {text("\xFB\xFF"), text("\0"), text("a\0b"), text("\n\xFF\xFE")}) {
        if (output.size() > capacity)
            continue;
        step.output = output;
        EXPECT_EQ(encoding(output), data()) << quoted(output);
    }

    step.output = full;
    EXPECT_EQ(encoding(full), data());
    step.reported = static_cast<long long>(capacity) + 1;
    EXPECT_EQ(encoding(full), data()) << "one byte beyond the capacity is told";
    step.reported = UINT_MAX;
    EXPECT_EQ(encoding(full), data()) << "the greatest length is told";
    step.reported = 1;
    EXPECT_EQ(encoding(full.substr(0, 1)), data()) << "less than was written is told";
}

}  // namespace support

#endif
