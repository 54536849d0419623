// JSON written as text, for what is written with every request: a tree of values would take
// longer than the rest of it.
#ifndef CORVANE_SERVICE_OPERATION_JSON_TEXT_H
#define CORVANE_SERVICE_OPERATION_JSON_TEXT_H

#include <string>
#include <string_view>

// Appends a JSON string with its quotes. Bytes that are not UTF-8 become U+FFFD. Leaves no copy
// behind when `out` must move to grow.
void appendJsonText(std::string& out, std::string_view text);

#endif
