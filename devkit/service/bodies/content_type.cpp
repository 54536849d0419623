#include "content_type.h"

#include <algorithm>

#include "common/text.h"
#include "refusal.h"

namespace {

// Takes a parameter's value, in quotes or not, up to the next ";" or the end.
std::string takeValue(std::string_view& text)
{
    text.remove_prefix(std::min(text.size(), text.find_first_not_of(" \t")));
    std::string value;
    if (text.substr(0, 1) != "\"") {
        value = trimmed(text.substr(0, text.find(';')));
        if (value.find('"') != std::string::npos)
            throw Refusal(Reason::quote_inside);
    } else {
        size_t end = 1;
        for (; end < text.size() && text[end] != '"'; ++end) {
            // Browsers escape nothing but the quote, and that as %22; others this way.
            if (text[end] == '\\' && end + 1 < text.size() &&
                (text[end + 1] == '"' || text[end + 1] == '\\'))
                ++end;
            value += text[end];
        }
        if (end >= text.size())
            throw Refusal(Reason::quote_open);
        text.remove_prefix(end + 1);
        if (!trimmed(text.substr(0, text.find(';'))).empty())
            throw Refusal(Reason::text_behind_quotes);
    }
    text.remove_prefix(std::min(text.size(), text.find(';')));
    return value;
}

}  // namespace

std::optional<std::string> headerParameter(std::string_view value, std::string_view name)
{
    std::optional<std::string> found;
    value.remove_prefix(std::min(value.size(), value.find(';')));
    while (!value.empty()) {
        value.remove_prefix(1);  // the ";"
        const size_t end = std::min(value.size(), value.find_first_of(";="));
        const std::string_view word = trimmed(value.substr(0, end));
        value.remove_prefix(end);
        if (value.substr(0, 1) != "=")
            continue;  // a word alone
        value.remove_prefix(1);
        std::string text = takeValue(value);
        if (!equalIgnoringCase(word, name))
            continue;
        if (found)
            throw Refusal(Reason::header_value_twice);
        found = std::move(text);
    }
    return found;
}
