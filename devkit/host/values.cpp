#include "values.h"

#include <unistd.h>

#include <cerrno>
#include <nlohmann/json.hpp>
#include <system_error>

#include "common/codec.h"
#include "host/catalogue/names.h"
#include "input.h"
#include "output.h"

namespace {

// Whether the text begins with the prefix, which is then removed.
bool takePrefix(std::string& text, const std::string& prefix)
{
    if (text.compare(0, prefix.size(), prefix) != 0)
        return false;
    text.erase(0, prefix.size());
    return true;
}

// Whether a file holds keys or certificates as tools write them: in PEM, or DER, which begins with
// its own length.
bool isKeyFile(std::string_view bytes)
{
    constexpr std::string_view pem = "-----BEGIN ";
    if (bytes.find(pem) != bytes.npos)
        return true;
    const auto at = [&](size_t i) { return static_cast<unsigned char>(bytes[i]); };
    if (bytes.size() < 2 || at(0) != 0x30)
        return false;
    const size_t more = at(1) < 0x80 ? 0 : at(1) & 0x7FU;  // bytes of the length
    if (more > 3 || bytes.size() < 2 + more)
        return false;
    size_t length = more == 0 ? at(1) : 0;
    for (size_t i = 0; i < more; ++i)
        length = length << 8U | at(2 + i);
    return bytes.size() == 2 + more + length;
}

std::string textOf(const NoNumber& lack)
{
    if (lack.nearest.empty())
        return "takes a whole number, " + lack.allowed + ";";
    return "is no number and no name that is known here; did you mean " + lack.nearest + "?";
}

}  // namespace

WrittenValue splitValue(const std::string& written)
{
    WrittenValue value = {WrittenValue::Plain, false, written};
    if (takePrefix(value.rest, "text:")) {
        value.kind = WrittenValue::Text;
        return value;
    }
    if (takePrefix(value.rest, "hex:")) {
        value.kind = WrittenValue::Hex;
        return value;
    }
    if (takePrefix(value.rest, "b64:"))
        value.kind = WrittenValue::Base64;
    else if (takePrefix(value.rest, "raw:"))
        value.kind = WrittenValue::Raw;
    value.isFile = !takePrefix(value.rest, "text:") && takePrefix(value.rest, "@");
    return value;
}

std::string ValueReader::read(const RequestInfo* request, const std::string& name,
                              const std::string& written, const Expand& expand)
{
    const WrittenValue split = splitValue(written);
    auto [given, value] = resolve(name, split, expand);
    if (const std::string* number = numberNamed(request, name, given, value))
        return *number;
    if (const auto lack = noNumber(request, name, given, value))
        throw UsageError(name + " " + textOf(*lack) + " raw: sends it as it is");
    const Form form = formOf(request, name);
    if (isMisencoded(form, given, value)) {
        if (split.isFile && form == Form::KeyText && isKeyFile(value))
            return toUrlBase64(value);
        // A key in PEM is what people paste here.
        const char* remedy = ": write text:TEXT, hex:DIGITS or b64:@FILE";
        if (split.isFile)
            remedy = ": write b64:@FILE for a file's bytes";
        else if (form == Form::KeyText)
            remedy = ": write b64:@FILE, also for PEM, or text:PEM";
        throw UsageError(name + " " + notBase64 + remedy + ", or raw: to send it as it is");
    }
    return isEncoded(form, given) ? toUrlBase64(value) : value;
}

std::pair<Given, std::string> ValueReader::resolve(const std::string& name,
                                                   const WrittenValue& value, const Expand& expand)
{
    switch (value.kind) {
        case WrittenValue::Text:
            return {Given::Text, expand(value.rest)};
        case WrittenValue::Hex:
            if (auto bytes = fromHex(value.rest))
                return {Given::Bytes, *std::move(bytes)};
            throw UsageError(toldName(name) + ": hex: takes pairs of hex digits");
        case WrittenValue::Base64:
            return {Given::Raw, toUrlBase64(readBytes(name, value, expand))};
        case WrittenValue::Raw:
            return {Given::Raw, readBytes(name, value, expand)};
        case WrittenValue::Plain:
            break;
    }
    return {Given::Plain, readBytes(name, value, expand)};
}

std::string ValueReader::readBytes(const std::string& name, const WrittenValue& value,
                                   const Expand& expand)
{
    if (!value.isFile)
        return expand(value.rest);

    const bool isStandardInput = value.rest == "-";
    if (isStandardInput && !m_standardInputIsFree)
        throw UsageError(toldName(name) + ": standard input is in use already");
    if (isStandardInput)
        m_standardInputIsFree = false;
    auto bytes = isStandardInput ? readAll(STDIN_FILENO) : readFile(value.rest);
    if (!bytes)
        throw UsageError(toldName(name) + ": cannot read " +
                         (isStandardInput ? "standard input" : value.rest) + ": " +
                         std::generic_category().message(errno));
    return *std::move(bytes);
}

std::optional<std::string> decodeResult(Form form, const std::string& value)
{
    if (form == Form::Base64)
        return fromBase64(value);
    if (form != Form::Escaped)
        return value;
    const auto once = percentDecode(value);
    return once ? percentDecode(*once) : std::nullopt;
}

nlohmann::ordered_json toJson(const std::string& value)
{
    if (isUtf8(value))
        return value;
    return {{"base64", toBase64(value)}};
}

nlohmann::ordered_json toJson(const Pairs& results)
{
    auto json = nlohmann::ordered_json::object();
    for (const auto& [name, value] : results)
        json[name] = toJson(value);
    return json;
}

std::string jsonText(const nlohmann::ordered_json& json, int indent)
{
    return json.dump(indent, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}
