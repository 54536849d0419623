// What the tests of the request handlers share: a plug-in that tells what a request did,
// the ways to vary a parameter, and the facts that hold for every request.
#ifndef CORVANE_TESTS_HANDLERS_H
#define CORVANE_TESTS_HANDLERS_H

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <functional>
#include <locale>
#include <memory>
#include <new>
#include <ostream>
#include <string>
#include <vector>

#include "support/allocation_fault.h"
#include "support/base64_text.h"
#include "support/plugin_test.h"

namespace support {

// ---- Values

// A text with the NUL bytes of its literal.
template <size_t size>
std::string text(const char (&literal)[size])
{
    return std::string(literal, size - 1);
}

// In quotes, with everything but printable ASCII as \xNN.
inline std::string quoted(const std::string& bytes)
{
    constexpr char DIGITS[] = "0123456789ABCDEF";
    std::string shown = "\"";
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte > 0x7E)
            shown += {'\\', 'x', DIGITS[byte >> 4], DIGITS[byte & 15]};
        else
            shown += c;
    }
    return shown + "\"";
}

// ---- Parameters and results

inline Pairs without(Pairs pairs, const std::string& name)
{
    pairs.erase(std::remove_if(pairs.begin(), pairs.end(),
                               [&name](const auto& pair) { return pair.first == name; }),
                pairs.end());
    return pairs;
}

inline Pairs with(Pairs pairs, const std::string& name, const std::string& value)
{
    for (auto& pair : pairs) {
        if (pair.first == name) {
            pair.second = value;
            return pairs;
        }
    }
    pairs.emplace_back(name, value);
    return pairs;
}

// The results of a failed request.
inline Pairs failure(int code, const std::vector<std::string>& names = {"Data", "errorCode"})
{
    Pairs results;
    for (const std::string& name : names)
        results.emplace_back(name, name == "errorCode" ? std::to_string(code) : "");
    return results;
}

inline Pairs success(const std::string& data)
{
    return {{"Data", data}, {"errorCode", "0"}};
}

// The first session that the engine double gives out, and its text.
constexpr uintptr_t FIRST_SESSION = 0x5E550000;
constexpr char FIRST_SESSION_TEXT[] = "1582628864";

constexpr int MISSING = -20001;
constexpr int INVALID = -20084;
constexpr int NOT_LOADED = -20215;
constexpr int NO_MEMORY = -20000;

// ---- The plug-in

// An initialised plug-in in front of the doubles.
class Plugin : public PluginHost {
public:
    explicit Plugin(const std::string& enginePath = engineDouble(),
                    const std::string& paramsPath = paramsDouble())
        : PluginHost(enginePath, paramsPath)
    {
        init();
    }
    ~Plugin() { free(); }

    // Sends a request and returns its results in the order in which they were written.
    // Expects what every request owes: results emptied first, request parameters last,
    // no engine object left.
    Pairs reply(const std::string& name, const Pairs& parameters = {})
    {
        const Pairs stored = request(name, parameters);
        std::vector<std::string> functions = journal.functions();
        functions.erase(std::remove(functions.begin(), functions.end(), "syslog"), functions.end());
        const size_t count = functions.size();
        EXPECT_TRUE(count > 2 && functions[0] == "ClearRetParams" &&
                    functions[1] == "ClearRetCustomParam" &&
                    functions[count - 1] == "ClearHttpParams");
        EXPECT_EQ("", params.custom);
        EXPECT_TRUE(params.http.empty());
        EXPECT_EQ("", printed);
        EXPECT_EQ(resultsWritten(), stored);
        expectNoObjects();
        return resultsWritten();
    }

    void expectNoObjects() const
    {
        for (const auto* objects : {&engine.keypairs, &engine.certificates}) {
            EXPECT_TRUE(objects->live.empty()) << "an engine object was not freed";
            EXPECT_EQ(0, objects->strangersFreed) << "an engine object was freed twice";
        }
    }

    // The same, told as a transcript.
    std::string play(const std::string& name, const Pairs& parameters = {})
    {
        reply(name, parameters);
        return transcript();
    }

    // What the last request did, a line for each step:
    //   read <name> <name> ...       the parameters read in a row
    //   aven_...(<arguments>)        an engine call
    //   <name>="<value>"             a result written
    // A buffer and its length appear as one text; an output as name[capacity], with "!"
    // if it was not zero-filled; a null pointer as null, with its length if that is not
    // 0. Key pairs and certificates are "given" if they are the last one given out.
    std::string transcript() const
    {
        std::string lines;
        bool reading = false;
        for (const Call& call : journal.calls) {
            if (call.function == "GetHttpParams" && call["value"].null) {
                lines += (reading ? " " : "read ") + call["name"].bytes;
                reading = true;
                continue;
            }
            if (call.function == "GetHttpParams")
                continue;
            lines += reading ? "\n" : "";
            reading = false;
            if (call.function == "AddRetParams")
                lines += call["name"].bytes + "=" + quoted(call["value"].bytes) + "\n";
            else if (call.function.compare(0, 5, "aven_") == 0)
                lines += spelled(call) + "\n";
        }
        return lines;
    }

    // The engine's part of the transcript, with no line for the other steps.
    std::string engineCalls() const
    {
        std::string lines;
        for (const Call& call : journal.calls)
            if (call.function.compare(0, 5, "aven_") == 0)
                lines += spelled(call) + "\n";
        return lines;
    }

private:
    static bool oneOf(const std::string& name, const std::vector<std::string>& names)
    {
        return std::find(names.begin(), names.end(), name) != names.end();
    }

    std::string spelledAddress(const doubles::Argument& argument, const std::string& name) const
    {
        const auto& objects = name == "keypair" ? engine.keypairs : engine.certificates;
        if (argument.null)
            return "null";
        if (name != "ke" && argument.number == static_cast<long long>(objects.next - 0x10))
            return "given";
        return std::to_string(argument.number);
    }

    std::string spelled(const Call& call) const
    {
        std::string list;
        for (const auto& argument : call.arguments) {
            std::string name = argument.name;
            if (name.compare(0, 7, "params.") == 0)
                name.erase(0, 7);
            const bool encryptionTag = call.function == "aven_crypto_encrypt";
            std::string shown;
            if (name == "params" && !argument.null)
                continue;
            if (name.size() > 4 && name.compare(name.size() - 4, 4, "_len") == 0 &&
                !(name == "tag_len" && encryptionTag))
                continue;  // told with its buffer
            if (name == "out" || (name == "tag" && encryptionTag))
                shown = argument.null ? name + "=null"
                                      : name + "[" + std::to_string(argument.number) + "]" +
                                            (argument.zeroed ? "" : "!");
            else if (oneOf(name, {"ke", "keypair", "certificate"}))
                shown = name + "=" + spelledAddress(argument, name);
            else if (oneOf(name, {"alg", "mode", "padding", "rsa_padding_e", "no_asn1", "no_c1c3c2",
                                  "type", "kind", "code", "tag_len"}))
                shown = name + "=" + std::to_string(argument.number);
            else
                shown = name + "=" + (argument.null ? "null" : quoted(argument.bytes));
            if (argument.null && !oneOf(name, {"ke", "keypair", "certificate"}) &&
                argument.number != 0 && name != "tag")
                shown += ":" + std::to_string(argument.number);
            list += (list.empty() ? "" : ", ") + shown;
        }
        return call.function + "(" + list + ")";
    }
};

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

// ---- What holds for every request

// A host's C++ locale that writes 1.234.567.
class GroupingLocale {
public:
    GroupingLocale() : m_previous(std::locale::global(std::locale(std::locale(), new Digits))) {}
    GroupingLocale(const GroupingLocale&) = delete;
    GroupingLocale& operator=(const GroupingLocale&) = delete;
    ~GroupingLocale() { std::locale::global(m_previous); }

private:
    struct Digits : std::numpunct<char> {
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };

    std::locale m_previous;
};

struct Handler {
    std::string request;
    Pairs parameters;        // of a request that succeeds
    std::string transcript;  // of that request
    // The engine functions whose failure the request reports; the last does the work.
    std::vector<std::string> calls;
    std::vector<std::string> results = {"Data", "errorCode"};  // written on failure
    std::string engineUnbound = "";  // the engine calls without a parameter module
    int codeIfLacking = NOT_LOADED;
    size_t allocation = 0;          // of AllocatedOutput
    bool writesUnencodable = true;  // of EncodedOutput

    Pairs failed(int code) const { return failure(code, results); }
};

inline std::ostream& operator<<(std::ostream& to, const Handler& handler)
{
    return to << handler.request;
}

class HandlerFrame : public ::testing::TestWithParam<Handler> {
protected:
    const Handler& handler = GetParam();
};

TEST_P(HandlerFrame, ReadsThenCallsThenWrites)
{
    Plugin plugin;
    EXPECT_EQ(handler.transcript, plugin.play(handler.request, handler.parameters));
}

TEST_P(HandlerFrame, NothingIsLeftForTheNextRequest)
{
    Plugin plugin;
    const std::string last = handler.calls.back();
    plugin.play(handler.request, handler.parameters);
    plugin.engine.on(last).code = -7;
    plugin.engine.on(last).nullText = true;
    plugin.play(handler.request, handler.parameters);
    plugin.engine.forget();
    plugin.engine.sessions.next = FIRST_SESSION;
    EXPECT_EQ(handler.transcript, plugin.play(handler.request, handler.parameters));
}

TEST_P(HandlerFrame, LocaleOfTheHostChangesNothing)
{
    Plugin plugin;
    const GroupingLocale locale;
    EXPECT_EQ(handler.transcript, plugin.play(handler.request, handler.parameters));
}

TEST_P(HandlerFrame, EngineThatIsNotLoadedIsReported)
{
    Plugin plugin("", paramsDouble());
    EXPECT_EQ(handler.failed(NOT_LOADED), plugin.reply(handler.request, handler.parameters));
}

TEST_P(HandlerFrame, EachFunctionThatTheEngineLacksIsReported)
{
    for (const std::string& function : handler.calls) {
        SCOPED_TRACE(function);
        Plugin plugin(engineLacking(function));
        EXPECT_EQ(handler.failed(handler.codeIfLacking),
                  plugin.reply(handler.request, handler.parameters));
    }
}

TEST_P(HandlerFrame, ExceptionOfTheEngineEndsWithCodeZero)
{
    Plugin plugin;
    plugin.engine.on(handler.calls.back()).throws = true;
    EXPECT_EQ(handler.failed(0), plugin.reply(handler.request, handler.parameters));
    EXPECT_TRUE(std::any_of(plugin.journal.calls.begin(), plugin.journal.calls.end(),
                            [](const Call& call) { return call.threw; }));
}

// Sends the request once for each parameter that it reads, with the module scripted for that
// one's first or second read. The request must end there: no further parameter is read, the
// engine is called only to free nothing, and the code is 0.
template <class Script>
void expectReadsThatEndTheRequest(const Handler& handler, bool query, Script script)
{
    Plugin plugin;
    plugin.reply(handler.request, handler.parameters);
    const std::vector<std::string> names = plugin.parametersRead();
    for (size_t i = 0; i < names.size(); ++i) {
        SCOPED_TRACE(names[i]);
        const bool stored =
            with(handler.parameters, names[i], "").size() == handler.parameters.size();
        if (!query && !stored)
            continue;  // an absent parameter is not read for a second time
        plugin.params.forget();
        script(query ? plugin.params.onQuery("GetHttpParams", names[i])
                     : plugin.params.on("GetHttpParams", names[i]));
        EXPECT_EQ(handler.failed(0), plugin.reply(handler.request, handler.parameters));
        EXPECT_EQ(std::vector<std::string>(names.begin(), names.begin() + static_cast<long>(i) + 1),
                  plugin.parametersRead());
        EXPECT_EQ(handler.engineUnbound, plugin.engineCalls());
    }
}

TEST_P(HandlerFrame, ExceptionInTheFirstReadOfAParameterEndsWithCodeZero)
{
    expectReadsThatEndTheRequest(handler, true, [](doubles::Step& step) { step.throws = true; });
}

TEST_P(HandlerFrame, ExceptionInTheSecondReadOfAParameterEndsWithCodeZero)
{
    // The module has written the value by then.
    expectReadsThatEndTheRequest(handler, false, [](doubles::Step& step) { step.throws = true; });
    expectReadsThatEndTheRequest(
        handler, false, [](doubles::Step& step) { step.during = [] { throw std::bad_alloc(); }; });
}

TEST_P(HandlerFrame, ParameterLongerThanATextCanBeEndsWithCodeZero)
{
    expectReadsThatEndTheRequest(handler, true,
                                 [](doubles::Step& step) { step.reported = LONG_MAX; });
}

TEST_P(HandlerFrame, WithoutAParameterModuleNothingHappens)
{
    Plugin plugin(engineDouble(), "");
    EXPECT_EQ(0, plugin.requestBytes(handler.request.data(),
                                     static_cast<unsigned int>(handler.request.size())));
    EXPECT_EQ(handler.engineUnbound, plugin.transcript());
    EXPECT_EQ("", plugin.printed);
    plugin.expectNoObjects();
}

TEST_P(HandlerFrame, ResultThatCannotBeStoredIsLostWithoutNotice)
{
    for (const std::string& name : handler.results) {
        SCOPED_TRACE(name);
        for (const bool throws : {false, true}) {
            Plugin plugin;
            plugin.params.on("AddRetParams", name).code = 5;
            plugin.params.on("AddRetParams", name).throws = throws;
            const Pairs stored = plugin.request(handler.request, handler.parameters);
            EXPECT_EQ(handler.transcript, plugin.transcript());
            EXPECT_EQ(without(plugin.resultsWritten(), name), stored);
            plugin.expectNoObjects();
        }
    }
}

TEST_P(HandlerFrame, FailureThatCannotBeStoredIsLostWithoutNotice)
{
    Plugin plugin("", paramsDouble());
    for (const bool throws : {false, true}) {
        plugin.params.on("AddRetParams").code = 5;
        plugin.params.on("AddRetParams").throws = throws;
        EXPECT_EQ(Pairs(), plugin.request(handler.request, handler.parameters));
        EXPECT_EQ(handler.failed(NOT_LOADED), plugin.resultsWritten());
    }
}

// Sends the request with a fault that is armed when the handler starts and taken away
// when it has ended. Tells whether the fault struck.
inline bool requestWithFault(Plugin& plugin, const std::string& request, const Pairs& parameters,
                             const std::function<AllocationFault*()>& arm)
{
    std::unique_ptr<AllocationFault> fault;
    bool struck = false;
    plugin.params.on("ClearRetCustomParam").during = [&] { fault.reset(arm()); };
    plugin.params.on("ClearHttpParams").during = [&] {
        struck = fault->struck();
        fault.reset();
    };
    EXPECT_NO_THROW(plugin.request(request, parameters));
    EXPECT_EQ(1u, plugin.journal.count("ClearHttpParams"));
    plugin.params.forget();
    return struck;
}

// Whichever allocation fails, the handler ends in order: no exception, nothing left in
// the engine, and a code of the two that stand for it. Returns how many failed; the last
// request that is sent is one without a fault.
inline size_t failEachAllocation(Plugin& plugin, const std::string& request,
                                 const Pairs& parameters)
{
    size_t failed = 0;
    for (size_t n = 1; n < 1000; ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        plugin.engine.sessions.next = FIRST_SESSION;
        const bool struck = requestWithFault(plugin, request, parameters, [&] {
            return new AllocationFault(AllocationFault::nth(plugin.journal, n));
        });
        plugin.expectNoObjects();
        for (const auto& [name, value] : plugin.resultsWritten())
            if (name == "errorCode") {
                EXPECT_TRUE(value == "0" || value == "-20000") << value;
            }
        if (!struck)
            return failed;
        ++failed;
    }
    ADD_FAILURE() << "the allocations do not end";
    return failed;
}

TEST_P(HandlerFrame, FailedAllocationStopsInTheHandler)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    Plugin plugin;
    const size_t failed = failEachAllocation(plugin, handler.request, handler.parameters);
    const bool allocates = std::any_of(handler.parameters.begin(), handler.parameters.end(),
                                       [](const auto& pair) { return pair.second.size() > 15; });
    if (allocates) {
        EXPECT_LT(0u, failed);
    }
    EXPECT_EQ(handler.transcript, plugin.transcript());
}

// Requests whose engine functions return codes.
class EngineCodes : public HandlerFrame {};

TEST_P(EngineCodes, CodeOfEachCallIsPassedThrough)
{
    for (const std::string& function : handler.calls) {
        for (const int code : {-7, 5, -20001, INT_MIN, INT_MAX}) {
            SCOPED_TRACE(function + " returns " + std::to_string(code));
            Plugin plugin;
            plugin.engine.on(function).code = code;
            EXPECT_EQ(handler.failed(code), plugin.reply(handler.request, handler.parameters));
        }
    }
}

TEST_P(EngineCodes, CodeHasNoDigitGroups)
{
    Plugin plugin;
    const GroupingLocale locale;
    plugin.engine.on(handler.calls.back()).code = -1234567;
    EXPECT_EQ(handler.failed(-1234567), plugin.reply(handler.request, handler.parameters));
}

TEST_P(EngineCodes, OutputOfAFailingCallIsDropped)
{
    Plugin plugin;
    doubles::Step& step = plugin.engine.on(handler.calls.back());
    step.code = -7;
    step.output = "half";
    step.reported = 4;
    step.tag = "half a tag";
    step.scribble = true;
    EXPECT_EQ(handler.failed(-7), plugin.reply(handler.request, handler.parameters));
}

// Requests that encode the engine's output. The code is 0 by then, and most write the
// output as the engine left it if it cannot be encoded.
class EncodedOutput : public HandlerFrame {};
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(EncodedOutput);

TEST_P(EncodedOutput, FailureToEncodeEndsWithCodeZero)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    Plugin plugin;
    std::unique_ptr<AllocationFault> fault;
    // Encoded, it is the first text of 24 bytes or more after the engine's call.
    const std::string output = "output as it was.";
    doubles::Step& step = plugin.engine.on(handler.calls.back());
    plugin.engine.onQuery(handler.calls.back()).reported = static_cast<long long>(output.size());
    step.output = output;
    step.during = [&] {
        fault.reset(new AllocationFault(AllocationFault::atLeast(plugin.journal, 24)));
    };
    bool struck = false;
    plugin.params.on("AddRetParams").during = [&] { struck = fault->struck(); };
    const Pairs reply = plugin.reply(handler.request, handler.parameters);
    fault.reset();
    EXPECT_TRUE(struck);
    EXPECT_EQ(handler.writesUnencodable ? output : "", reply.at(0).second);
    EXPECT_EQ("0", reply.at(1).second);
}

// Requests whose output buffer is allocated, in the size told by `allocation`, and
// tested.
class AllocatedOutput : public HandlerFrame {};
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(AllocatedOutput);

TEST_P(AllocatedOutput, FailedAllocationIsReported)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    Plugin plugin;
    EXPECT_TRUE(requestWithFault(plugin, handler.request, handler.parameters, [&] {
        return new AllocationFault(AllocationFault::exactly(plugin.journal, handler.allocation));
    }));
    EXPECT_EQ(handler.failed(NO_MEMORY), plugin.resultsWritten());
    for (const Call& call : plugin.journal.calls)
        if (call.function == handler.calls.back()) {
            EXPECT_TRUE(call["out"].null);  // at most the query was made
        }
    plugin.expectNoObjects();
}

}  // namespace support

#endif
