#include "json_text.h"

#include <array>
#include <nlohmann/json.hpp>

#include "common/codec.h"
#include "common/secrets.h"

namespace {

void appendEscaped(std::string& out, char c)
{
    constexpr std::string_view special = "\"\\\b\f\n\r\t";
    constexpr std::string_view letters = "\"\\bfnrt";
    const size_t at = special.find(c);
    if (at != std::string_view::npos)
        return appendSecret(out, {std::array<char, 2>{'\\', letters[at]}.data(), 2});
    const auto byte = static_cast<unsigned char>(c);
    constexpr std::string_view digits = "0123456789abcdef";
    appendSecret(out, "\\u00");
    appendSecret(out, digits.substr(byte >> 4U, 1));
    appendSecret(out, digits.substr(byte & 15U, 1));
}

}  // namespace

void appendJsonText(std::string& out, std::string_view text)
{
    using Json = nlohmann::json;
    if (!isUtf8(text))
        return appendSecret(out, Json(text).dump(-1, ' ', false, Json::error_handler_t::replace));

    appendSecret(out, "\"");
    size_t start = 0;  // of what has not been copied yet
    for (size_t i = 0; i < text.size(); ++i) {
        if (static_cast<unsigned char>(text[i]) >= 0x20 && text[i] != '"' && text[i] != '\\')
            continue;
        appendSecret(out, text.substr(start, i - start));
        appendEscaped(out, text[i]);
        start = i + 1;
    }
    appendSecret(out, text.substr(start));
    appendSecret(out, "\"");
}
