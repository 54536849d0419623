// What the tests of the request handlers share: a plug-in that tells what a request did.
#ifndef CORVANE_TESTS_HANDLERS_H
#define CORVANE_TESTS_HANDLERS_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

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

// The lines of a transcript in which the results are written.
inline std::string written(const Pairs& results)
{
    std::string lines;
    for (const auto& [name, value] : results)
        lines += name + "=" + quoted(value) + "\n";
    return lines;
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
                lines += written({{call["name"].bytes, call["value"].bytes}});
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

}  // namespace support

#endif
