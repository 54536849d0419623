// JSON as a tree of texts, as far as the bodies of requests need it. What is nested too deep, has
// too many members or has a member twice is refused as soon as it is seen. The tree holds no
// copies: names and texts are decoded in the JSON text, and are parts of it.
#ifndef CORVANE_SERVICE_BODIES_JSON_TREE_H
#define CORVANE_SERVICE_BODIES_JSON_TREE_H

#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct JsonNode {
    enum Kind { Other, Text, Integer, Object, Array };

    Kind kind = Other;
    std::string_view text;  // a text's, or the digits of an integer
    // Of an object, or the items of an array, which have no names.
    std::vector<std::pair<std::string_view, JsonNode>> members;

    const JsonNode* find(std::string_view name) const;
};

struct JsonLimits {
    size_t depth;    // of arrays and objects
    size_t members;  // of an object
    size_t items;    // of an array; 0 where none is due, which is refused as a wrong type
};

// Changes the text, which must outlive the tree. Throws a Refusal, which quotes nothing of it but
// names.
JsonNode readJsonTree(std::string& text, const JsonLimits& limits);

// "requests[3].parameters" and such.
std::string memberOf(const std::string& where, std::string_view name);
std::string itemOf(const std::string& where, size_t index);

// Whether a name is short and printable. Others are refused, and not quoted in the refusal.
bool isName(std::string_view name);

#endif
