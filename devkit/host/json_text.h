// JSON that people write: whoever reads an error finds the place, and nobody finds a value in it.
#ifndef CORVANE_HOST_JSON_TEXT_H
#define CORVANE_HOST_JSON_TEXT_H

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "output.h"

// The text is no JSON, or an object has two members of the same name.
struct JsonError : UsageError {
    JsonError(const std::string& reason, size_t place) : UsageError(reason), at(place) {}

    size_t at;  // bytes before the place
};

// Throws a JsonError.
nlohmann::ordered_json parseJson(const std::string& text);

// "LINE:COLUMN" of a byte, both from 1, columns in bytes.
std::string placeIn(std::string_view text, size_t at);

// Where the elements of a JSON array begin.
std::vector<size_t> elementPlaces(std::string_view array);

#endif
