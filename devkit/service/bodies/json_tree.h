// JSON as a tree of texts, as far as the bodies of requests need it. What is nested too deep, has
// too many members or has a member twice is refused as soon as it is seen.
#ifndef CORVANE_SERVICE_BODIES_JSON_TREE_H
#define CORVANE_SERVICE_BODIES_JSON_TREE_H

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/secrets.h"

struct JsonNode {
    enum Kind { Other, Text, Integer, Object, Array };

    Kind kind = Other;
    SecretText text;  // a text's, or the digits of an integer
    // Of an object, or the items of an array, which have no names.
    std::vector<std::pair<std::string, JsonNode>> members;

    const JsonNode* find(const std::string& name) const;
};

struct JsonLimits {
    size_t depth;    // of arrays and objects
    size_t members;  // of an object
    size_t items;    // of an array
};

// Throws a Refusal.
JsonNode readJsonTree(std::string_view text, const JsonLimits& limits);

// "requests[3].parameters" and such.
std::string memberOf(const std::string& where, const std::string& name);
std::string itemOf(const std::string& where, size_t index);

// Whether a name is short and printable. Others are refused, and not quoted in the refusal.
bool isName(std::string_view name);

#endif
