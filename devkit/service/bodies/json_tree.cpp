#include "json_tree.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "common/codec.h"
#include "refusal.h"

namespace {

constexpr size_t longestName = 128;

// Builds the tree from the parser's events. What it throws passes through the parser.
class Builder : public nlohmann::json_sax<nlohmann::json> {
public:
    explicit Builder(const JsonLimits& limits) : m_limits(limits) {}

    JsonNode take() { return std::move(m_root); }

    bool null() override { return add(JsonNode::Other, ""); }
    bool boolean(bool /*value*/) override { return add(JsonNode::Other, ""); }
    bool number_integer(number_integer_t value) override
    {
        return add(JsonNode::Integer, std::to_string(value));
    }
    bool number_unsigned(number_unsigned_t value) override
    {
        return add(JsonNode::Integer, std::to_string(value));
    }
    bool number_float(number_float_t /*value*/, const string_t& /*text*/) override
    {
        return add(JsonNode::Other, "");
    }
    bool binary(binary_t& /*value*/) override { return false; }
    bool string(string_t& value) override
    {
        add(JsonNode::Text, value);
        wipe(value);
        return true;
    }
    bool start_object(size_t /*size*/) override { return open(JsonNode::Object); }
    bool start_array(size_t /*size*/) override { return open(JsonNode::Array); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }
    bool key(string_t& name) override
    {
        if (!isName(name))
            throw Refusal(Reason::bad_name, where());
        const JsonNode& object = *m_path.back();
        if (object.find(name) != nullptr)
            throw Refusal(Reason::name_twice, memberOf(where(), name), {{"name", name}});
        if (object.members.size() >= m_limits.members)
            throw Refusal(Reason::too_many_members, where(),
                          {{"most", std::to_string(m_limits.members)}});
        m_key = name;
        return true;
    }
    // The parser's message quotes what it read.
    bool parse_error(size_t position, const std::string& /*token*/,
                     const nlohmann::detail::exception& error) override
    {
        constexpr int numberOutOfRange = 406;
        if (error.id == numberOutOfRange)
            throw Refusal(Reason::number_too_large, where());
        throw Refusal(Reason::not_json, where(), {{"position", std::to_string(position)}});
    }

private:
    bool add(JsonNode::Kind kind, const std::string& text)
    {
        JsonNode node;
        node.kind = kind;
        node.text = text;
        place(std::move(node));
        return true;
    }

    JsonNode& place(JsonNode node)
    {
        if (m_path.empty())
            return m_root = std::move(node);
        JsonNode& parent = *m_path.back();
        if (parent.kind == JsonNode::Array && parent.members.size() >= m_limits.items)
            throw Refusal(Reason::too_many_items, where(),
                          {{"most", std::to_string(m_limits.items)}});
        return parent.members.emplace_back(m_key, std::move(node)).second;
    }

    bool open(JsonNode::Kind kind)
    {
        if (m_path.size() >= m_limits.depth)
            throw Refusal(Reason::too_deep, where());
        JsonNode node;
        node.kind = kind;
        m_path.push_back(&place(std::move(node)));
        m_key.clear();
        return true;
    }

    // Nothing is added to a node's parent while the node is open, so pointers stay good.
    bool close()
    {
        m_path.pop_back();
        return true;
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

    const JsonLimits& m_limits;
    JsonNode m_root;
    std::vector<JsonNode*> m_path;
    std::string m_key;
};

}  // namespace

const JsonNode* JsonNode::find(const std::string& name) const
{
    const auto found = std::find_if(members.begin(), members.end(),
                                    [&](const auto& member) { return member.first == name; });
    return found == members.end() ? nullptr : &found->second;
}

JsonNode readJsonTree(std::string_view text, const JsonLimits& limits)
{
    if (!isUtf8(text))
        throw Refusal(Reason::not_utf8);
    // The parser takes such a byte for the end of the text.
    if (text.find('\0') != std::string_view::npos)
        throw Refusal(Reason::zero_byte);
    Builder builder(limits);
    nlohmann::json::sax_parse(text, &builder);
    return builder.take();
}

std::string memberOf(const std::string& where, const std::string& name)
{
    return where.empty() ? name : where + "." + name;
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
