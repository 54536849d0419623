#include "json_tree.h"

#include <algorithm>

#include "common/codec.h"
#include "json_tokens.h"
#include "refusal.h"

namespace {

constexpr size_t longestName = 128;

class TreeReader {
public:
    TreeReader(std::string& text, const JsonLimits& limits) : m_tokens(text), m_limits(limits) {}

    JsonNode read()
    {
        next();
        readValue({});
        next();
        expect(JsonTokens::End);
        return std::move(m_root);
    }

private:
    void next() { m_token = m_tokens.next(); }
    void expect(JsonTokens::Kind token) const
    {
        if (m_token != token)
            throw Refusal(Reason::not_json, where(),
                          {{"position", std::to_string(m_tokens.position())}});
    }

    // The one that begins with the last token.
    void readValue(std::string_view name)
    {
        switch (m_token) {
            case JsonTokens::BeginObject:
                open(JsonNode::Object, name);
                return readMembers();
            case JsonTokens::BeginArray:
                open(JsonNode::Array, name);
                return readItems();
            case JsonTokens::Integer:
                place(name, {JsonNode::Integer, m_tokens.text(), {}});
                return;
            case JsonTokens::Number:
            case JsonTokens::Word:
                place(name, {});
                return;
            case JsonTokens::TooLarge:
                throw Refusal(Reason::number_too_large, where());
            default:
                expect(JsonTokens::Text);
                place(name, {JsonNode::Text, m_tokens.text(), {}});
        }
    }

    // Of the innermost object, whose brace has been taken.
    void readMembers()
    {
        next();
        if (m_token != JsonTokens::EndObject)
            for (;;) {
                const std::string_view name = readName();
                next();
                expect(JsonTokens::Colon);
                next();
                readValue(name);
                next();
                if (m_token != JsonTokens::Comma)
                    break;
                next();
            }
        expect(JsonTokens::EndObject);
        m_path.pop_back();
    }

    std::string_view readName() const
    {
        expect(JsonTokens::Text);
        const std::string_view name = m_tokens.text();
        if (!isName(name))
            throw Refusal(Reason::bad_name, where());
        const JsonNode& object = *m_path.back();
        if (object.find(name) != nullptr)
            throw Refusal(Reason::name_twice, memberOf(where(), name),
                          {{"name", std::string(name)}});
        if (object.members.size() >= m_limits.members)
            throw Refusal(Reason::too_many_members, where(),
                          {{"most", std::to_string(m_limits.members)}});
        return name;
    }

    // Of the innermost array, whose bracket has been taken.
    void readItems()
    {
        next();
        if (m_token != JsonTokens::EndArray)
            for (;;) {
                readValue({});
                next();
                if (m_token != JsonTokens::Comma)
                    break;
                next();
            }
        expect(JsonTokens::EndArray);
        m_path.pop_back();
    }

    // In the innermost object or array, if there is one.
    JsonNode& place(std::string_view name, JsonNode node)
    {
        if (m_path.empty())
            return m_root = std::move(node);
        JsonNode& parent = *m_path.back();
        if (parent.kind == JsonNode::Array && m_limits.items == 0)
            throw Refusal(m_path.size() == 1 ? Reason::not_parameters : Reason::not_a_value,
                          where());
        if (parent.kind == JsonNode::Array && parent.members.size() >= m_limits.items)
            throw Refusal(Reason::too_many_items, where(),
                          {{"most", std::to_string(m_limits.items)}});
        return parent.members.emplace_back(name, std::move(node)).second;
    }

    // Nothing is added to a node's parent while the node is open, so pointers stay good.
    void open(JsonNode::Kind kind, std::string_view name)
    {
        if (m_path.size() >= m_limits.depth)
            throw Refusal(Reason::too_deep, where());
        m_path.push_back(&place(name, {kind, {}, {}}));
    }

    // Of the innermost object or array.
    std::string where() const
    {
        std::string place;
        for (size_t i = 0; i + 1 < m_path.size(); ++i)
            place = m_path[i]->kind == JsonNode::Array
                        ? itemOf(place, m_path[i]->members.size() - 1)
                        : memberOf(place, m_path[i]->members.back().first);
        return place;
    }

    JsonTokens m_tokens;
    JsonTokens::Kind m_token = JsonTokens::End;
    const JsonLimits& m_limits;
    JsonNode m_root;
    std::vector<JsonNode*> m_path;  // the open ones, from the root on
};

}  // namespace

const JsonNode* JsonNode::find(std::string_view name) const
{
    const auto found = std::find_if(members.begin(), members.end(),
                                    [&](const auto& member) { return member.first == name; });
    return found == members.end() ? nullptr : &found->second;
}

JsonNode readJsonTree(std::string& text, const JsonLimits& limits)
{
    if (!isUtf8(text))
        throw Refusal(Reason::not_utf8);
    // For other readers it is where the text ends.
    if (text.find('\0') != std::string::npos)
        throw Refusal(Reason::zero_byte);
    return TreeReader(text, limits).read();
}

std::string memberOf(const std::string& where, std::string_view name)
{
    return (where.empty() ? "" : where + ".").append(name);
}

std::string itemOf(const std::string& where, size_t index)
{
    return where + "[" + std::to_string(index) + "]";
}

bool isName(std::string_view name)
{
    return !name.empty() && name.size() <= longestName && isUtf8(name) &&
           std::none_of(name.begin(), name.end(),
                        [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; });
}
