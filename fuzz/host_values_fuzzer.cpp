// The host's text forms: what is written reads back, what is read is of its form, and a
// value is what its prefixes say. Files and standard input are this program's. Input: one
// byte that tells whether standard input is free, then the text.

#include "host/values.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "common/codec.h"
#include "fuzz.h"
#include "host/output.h"
#include "host_files.h"
#include "oracles.h"

namespace {

using Json = nlohmann::ordered_json;

// ---- The forms, by other means.

bool isHexDigit(char c)
{
    return std::string("0123456789abcdefABCDEF").find(c) != std::string::npos;
}

char byteOf(const std::string& digits)
{
    return static_cast<char>(strtol(digits.c_str(), nullptr, 16));
}

std::optional<std::string> hexOracle(const std::string& text)
{
    if (text.size() % 2 != 0 || !std::all_of(text.begin(), text.end(), isHexDigit))
        return std::nullopt;
    std::string bytes;
    for (size_t i = 0; i < text.size(); i += 2)
        bytes += byteOf(text.substr(i, 2));
    return bytes;
}

std::optional<std::string> percentOracle(const std::string& text)
{
    std::string bytes;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            bytes += text[i];
            continue;
        }
        const std::string digits = text.substr(i + 1, 2);
        if (digits.size() != 2 || !isHexDigit(digits[0]) || !isHexDigit(digits[1]))
            return std::nullopt;
        bytes += byteOf(digits);
        i += 2;
    }
    return bytes;
}

std::optional<std::string> base64Oracle(const std::string& text)
{
    const size_t end = text.find_last_not_of('=');
    const std::string body = fuzz::fromUrl(text.substr(0, end + 1));
    const size_t padding = text.size() - body.size();
    const bool isPadded = padding == 0 || (padding <= 2 && text.size() % 4 == 0);
    if (!isPadded || body.size() % 4 == 1 || fuzz::lengthOfAlphabet(body) != body.size())
        return std::nullopt;
    return fuzz::base64Decoded(body);
}

bool isUtf8Oracle(const std::string& bytes)
{
    try {
        Json(bytes).dump();
        return true;
    } catch (const Json::exception&) {
        return false;
    }
}

void checkForms(const std::string& text)
{
    HOLDS(toBase64(text) == fuzz::toBase64(text));
    HOLDS(toUrlBase64(text) == fuzz::toUrl(fuzz::toBase64(text)));
    HOLDS(fromBase64(text) == base64Oracle(text));
    HOLDS(fromBase64(toUrlBase64(text)) == text);
    const auto size = base64Size(text);
    HOLDS(size.has_value() == base64Oracle(text).has_value());
    HOLDS(!size || *size == base64Oracle(text)->size());
    HOLDS(fromHex(text) == hexOracle(text));
    HOLDS(percentDecode(text) == percentOracle(text));
    HOLDS(percentDecode(fuzz::escaped(text)) == text);
    HOLDS(isUtf8(text) == isUtf8Oracle(text));
}

void checkResults(const std::string& bytes)
{
    HOLDS(decodeResult(Form::Text, bytes) == bytes);
    HOLDS(decodeResult(Form::Base64, toUrlBase64(bytes)) == bytes);
    HOLDS(decodeResult(Form::Escaped, fuzz::escaped(fuzz::escaped(bytes))) == bytes);
    const auto once = percentOracle(bytes);
    HOLDS(decodeResult(Form::Escaped, bytes) == (once ? percentOracle(*once) : std::nullopt));

    const Json json = Json::parse(jsonText(toJson(bytes), -1));
    HOLDS(isUtf8Oracle(bytes) ? json == bytes : json["base64"] == fuzz::toBase64(bytes));
}

// ---- Values.

const Allowed any = {Allowed::Any, 0, 0, "", 0};
const RequestInfo request = {
    "request",
    "",
    "",
    "",
    {{"text", Form::Text, Need::Never, any, "", "", {{"4", "", {"<aes-256>"}}}},
     {"base64", Form::Base64, Need::Never, any, "", ""},
     {"key", Form::KeyText, Need::Never, any, "", ""}},
    {},
    {}};

std::string nameOf(Form form)
{
    for (const Parameter& parameter : request.parameters)
        if (parameter.form == form)
            return parameter.name;
    return "";
}

// Whether a text is the one name that there is.
bool isName(Form form, const std::string& text)
{
    std::string letters;
    for (const char c : text)
        if (std::string("-_./# ").find(c) == std::string::npos)
            letters += static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return form == Form::Text && text.size() <= 64 && letters == "<aes256>";
}

std::string expand(const std::string& text)
{
    return "<" + text + ">";
}

bool takePrefix(std::string& text, const std::string& prefix)
{
    const bool found = text.substr(0, prefix.size()) == prefix;
    text = text.substr(found ? prefix.size() : 0);
    return found;
}

// Nothing if it cannot be read.
std::optional<std::string> bytesOracle(std::string text, bool inputIsFree)
{
    if (takePrefix(text, "text:"))
        return expand(text);
    if (text == "@-")
        return inputIsFree ? std::optional(standardInput) : std::nullopt;
    if (takePrefix(text, "@"))
        return text.c_str() == std::string("file") ? std::optional(fileContent) : std::nullopt;
    return expand(text);
}

// Whether a decoder of the form takes the whole of a plain text that is not empty.
bool isTaken(Form form, std::string text)
{
    const auto isLineEnd = [](char c) { return c == '\r' || c == '\n'; };
    while (!text.empty() && isLineEnd(text.back()))
        text.pop_back();
    if (form != Form::Base64)
        text.erase(std::remove_if(text.begin(), text.end(), isLineEnd), text.end());
    return !text.empty() && base64Oracle(text);
}

std::optional<std::string> valueOracle(std::string text, Form form, bool inputIsFree)
{
    const bool isBase64 = form != Form::Text;
    const auto encoded = [](const std::optional<std::string>& bytes) {
        return bytes ? std::optional(fuzz::toUrl(fuzz::toBase64(*bytes))) : std::nullopt;
    };
    const auto asTaken = [&](const std::optional<std::string>& bytes) {
        return isBase64 ? encoded(bytes) : bytes;
    };
    if (takePrefix(text, "b64:"))
        return encoded(bytesOracle(text, inputIsFree));
    if (takePrefix(text, "hex:"))
        return asTaken(hexOracle(text));
    if (takePrefix(text, "text:"))
        return asTaken(expand(text));
    const bool isRaw = takePrefix(text, "raw:");
    const auto bytes = bytesOracle(text, inputIsFree);
    if (!isRaw && bytes && isName(form, *bytes))
        return "4";
    const bool isFit = isRaw || !isBase64 || !bytes || bytes->empty() || isTaken(form, *bytes);
    return isFit ? bytes : std::nullopt;
}

std::optional<std::string> read(ValueReader& reader, Form form, const std::string& text)
{
    try {
        return reader.read(&request, nameOf(form), text, expand);
    } catch (const UsageError&) {
        return std::nullopt;
    }
}

void checkValue(const std::string& text, Form form, bool inputIsFree)
{
    ValueReader reader(inputIsFree);
    const HostFiles files;
    const auto first = read(reader, form, text);
    const auto second = read(reader, Form::Text, "@-");
    HOLDS(first == valueOracle(text, form, inputIsFree));
    const bool isTaken = text == "@-" || text == "b64:@-" || text == "raw:@-";
    HOLDS(second == (inputIsFree && !isTaken ? std::optional(standardInput) : std::nullopt));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    const bool inputIsFree = input.pick(2) == 1;
    const std::string text = input.rest();
    checkForms(text);
    checkResults(text);
    for (const Form form : {Form::Text, Form::Base64, Form::KeyText})
        checkValue(text, form, inputIsFree);
    return 0;
}
