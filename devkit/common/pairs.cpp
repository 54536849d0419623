#include "pairs.h"

const std::string* findValue(const Pairs& pairs, const std::string& name)
{
    for (const auto& [pairName, value] : pairs)
        if (pairName == name)
            return &value;
    return nullptr;
}

std::string filled(std::string_view text, const Pairs& values)
{
    std::string out;
    while (!text.empty()) {
        const size_t close = text[0] == '{' ? text.find('}') : std::string_view::npos;
        const std::string* value = close == std::string_view::npos
                                       ? nullptr
                                       : findValue(values, std::string(text.substr(1, close - 1)));
        const size_t taken = value == nullptr ? 1 : close + 1;
        out += value == nullptr ? text.substr(0, 1) : std::string_view(*value);
        text.remove_prefix(taken);
    }
    return out;
}
