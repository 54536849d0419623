// JSON texts as trees, beside what another reader makes of them.
#include "service/bodies/json_tree.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <random>
#include <set>

#include "common/codec.h"
#include "service/bodies/refusal.h"

namespace {

using namespace std::string_literals;

constexpr JsonLimits wide = {100, 1000, 1000};

// A tree, or why there is none, in one line.
std::string lineOf(const JsonNode& node)
{
    std::string line;
    switch (node.kind) {
        case JsonNode::Other:
            return "? ";
        case JsonNode::Text:
            return "\"" + std::string(node.text) + "\" ";
        case JsonNode::Integer:
            return std::string(node.text) + " ";
        case JsonNode::Array:
            for (const auto& [name, item] : node.members)
                line += std::string(name) + lineOf(item);
            return "[" + line + "] ";
        case JsonNode::Object:
            for (const auto& [name, member] : node.members)
                line += std::string(name) + ": " + lineOf(member);
            return "{" + line + "} ";
    }
    return line;
}

std::string lineOf(const Refusal& refusal)
{
    const auto error = refusal.json()["error"];
    return error["reason"].get<std::string>() + error["values"].value("position", "");
}

std::string lineOf(std::string text, const JsonLimits& limits = wide)
{
    try {
        return lineOf(readJsonTree(text, limits));
    } catch (const Refusal& refusal) {
        return lineOf(refusal);
    }
}

// The same line by the other reader's events.
class Events : public nlohmann::json_sax<nlohmann::json> {
public:
    std::string line;

    bool null() override { return add("? "); }
    bool boolean(bool /*value*/) override { return add("? "); }
    bool number_integer(number_integer_t value) override
    {
        return add(std::to_string(value) + " ");
    }
    bool number_unsigned(number_unsigned_t value) override
    {
        return add(std::to_string(value) + " ");
    }
    bool number_float(number_float_t /*value*/, const string_t& /*text*/) override
    {
        return add("? ");
    }
    bool binary(binary_t& /*value*/) override { return false; }
    bool string(string_t& value) override { return add("\"" + value + "\" "); }
    bool start_object(size_t /*size*/) override
    {
        m_names.emplace_back();
        return add("{");
    }
    bool end_object() override
    {
        m_names.pop_back();
        return add("} ");
    }
    bool start_array(size_t /*size*/) override { return add("["); }
    bool end_array() override { return add("] "); }
    bool key(string_t& name) override
    {
        if (!isName(name))
            return fail(Refusal(Reason::bad_name));
        if (!m_names.back().insert(name).second)
            return fail(Refusal(Reason::name_twice));
        return add(name + ": ");
    }
    bool parse_error(size_t position, const std::string& /*token*/,
                     const nlohmann::detail::exception& error) override
    {
        if (error.id == 406)
            return fail(Refusal(Reason::number_too_large));
        return fail(Refusal(Reason::not_json, "", {{"position", std::to_string(position)}}));
    }

private:
    bool add(const std::string& text)
    {
        line += text;
        return true;
    }
    bool fail(const Refusal& refusal)
    {
        line = lineOf(refusal);
        return false;
    }

    std::vector<std::set<std::string>> m_names;
};

std::string otherLineOf(const std::string& text)
{
    Events events;
    nlohmann::json::sax_parse(text, &events);
    return events.line;
}

const std::string texts[] = {
    R"({"strdata": "text", "b": -12, "c": {"base64": "AA=="}, "d": [], "e": {}, "f": [[1], 2]})",
    R"([0, -0, 1.5, -1e3, 1E+2, 0.5e-7, 18446744073709551615, 18446744073709551616])",
    R"([9223372036854775807, -9223372036854775808, -9223372036854775809, 1e400, -1e400, 1e-400])",
    R"(["\"\\\/\b\f\n\r\t", "\u0041\u00e9\u20AC\ud83d\ude00", "a\u0000b", "caf\u00e9 au lait"])",
    R"({"a\u0062": true, "c": false, "d": null, "\u00e9": "\uD800", "g": "\uDC00"})",
    "\xEF\xBB\xBF {\"requests\": [{\"name\": \"x\", \"parameters\": {\"a\": \"b\"}}, {}]}\r\n\t ",
    "[\"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\", \"\\ud83d\\u0041\", \"\\ud83dx\", \"\\u12g4\"]",
    // The first and the last character of each length in UTF-8, and the halves of pairs.
    R"(["\u0000\u007f\u0080\u07ff\u0800\ud7ff\ue000\uffff\ud800\udc00\udbff\udfff"])",
    R"(["\u0001\u0fff\u1000\uffc0\ud8bf\udfc0\ud8c0\udc3f\udac0\udd00"])",
    R"(["\ud800"])",
    R"(["\udbff"])",
    R"(["\udc00"])",
    R"(["\udfff"])",
    R"(["\ud800\udbff"])",
    R"(["\udbff\ue000"])",
    R"(["\ud800xudc00"])",
    "1.5",
    "-1.25E+10",
    "1e-3",
    "\"text\"",
    "12",
    "-",
    "tru",
    "nul",
    "",
    " ",
    "{",
    "[1,",
    "{\"a\"",
    "{\"a\":",
    "\"\\",
};

TEST(JsonTree, IsWhatAnotherReaderSees)
{
    for (const std::string& text : texts)
        for (size_t size = 0; size <= text.size(); ++size) {
            const std::string cut = text.substr(0, size);
            const std::string expected = isUtf8(cut) ? otherLineOf(cut) : "not_utf8";
            EXPECT_EQ(expected, lineOf(cut)) << cut;
        }
}

TEST(JsonTree, IsThatTooWithAnyByteInAnyPlace)
{
    for (const std::string& whole : std::initializer_list<std::string>{
             R"(["\u00e9\uD83d\uDe00"])", "[-10.25e+7,0]", R"({"a":[true,false,null]})"}) {
        for (size_t place = 0; place < whole.size(); ++place) {
            for (int byte = 1; byte < 0x80; ++byte) {  // NUL has a refusal of its own
                std::string text = whole;
                text[place] = static_cast<char>(byte);
                ASSERT_EQ(otherLineOf(text), lineOf(text)) << text;
            }
        }
    }
}

TEST(JsonTree, OfChangedTextsIsTooAndSoIsThePlaceOfWhatIsWrong)
{
    const std::string pieces[] = {"{",
                                  "}",
                                  "[",
                                  "]",
                                  ":",
                                  ",",
                                  "\"",
                                  "\\",
                                  "\\u",
                                  "\\ud83d",
                                  "\\ude00",
                                  "0",
                                  "1",
                                  "9",
                                  "-",
                                  "+",
                                  ".",
                                  "e",
                                  "E",
                                  "true",
                                  "null",
                                  "fals",
                                  " ",
                                  "\n",
                                  "\x1f",
                                  "\x7f",
                                  "/",
                                  "a",
                                  "1e999",
                                  "\xC3\xA9",
                                  "99999999999999999999",
                                  "\"b\":",
                                  "\"x\""};
    std::mt19937 random(20);  // the same texts in each run
    const auto below = [&](size_t size) { return random() % size; };
    size_t trees = 0;
    for (int i = 0; i < 40000; ++i) {
        std::string text = texts[below(std::size(texts))];
        for (size_t changes = below(4); changes > 0; --changes)
            text.replace(below(text.size() + 1), below(3), pieces[below(std::size(pieces))]);
        // What begins like a mark of the byte order and is none, the other reader counts apart.
        if (!isUtf8(text) || (text[0] == '\xEF' && text.substr(0, 3) != "\xEF\xBB\xBF"))
            continue;
        const std::string line = lineOf(text);
        trees += line.back() == ' ' ? 1 : 0;
        ASSERT_EQ(otherLineOf(text), line) << text;
    }
    EXPECT_GT(trees, 4000U);
}

TEST(JsonTree, LiesInItsText)
{
    std::string text = R"({"\u0061": "\u00e9\n", "b": 12})";
    const JsonNode tree = readJsonTree(text, wide);
    for (const std::string_view part :
         {tree.members.at(0).first, tree.members.at(0).second.text, tree.find("b")->text}) {
        EXPECT_GE(part.data(), text.data());
        EXPECT_LE(part.data() + part.size(), text.data() + text.size());
    }
    EXPECT_EQ("\xC3\xA9\n", tree.find("a")->text);
    EXPECT_EQ(nullptr, tree.find("c"));
}

TEST(JsonTree, HasLimits)
{
    const JsonLimits few = {2, 2, 2};
    EXPECT_EQ("{a: [] } ", lineOf(R"({"a": []})", few));
    EXPECT_EQ("too_deep", lineOf(R"({"a": [{)", few));
    EXPECT_EQ("too_many_members", lineOf(R"({"a": 1, "b": 2, "c")", few));
    EXPECT_EQ("too_many_items", lineOf("[1, 2, 3", few));
    EXPECT_EQ("too_many_items", lineOf("[1, [], [", few));
    EXPECT_EQ("too_deep", lineOf("[1, [[", few));
    EXPECT_EQ("not_utf8", lineOf("[\"\xff\"]"));
    EXPECT_EQ("zero_byte", lineOf("[]\0"s));
}

}  // namespace
