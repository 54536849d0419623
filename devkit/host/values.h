// Parameter values as they are written on the command line and in scripts, and result
// values as they are shown.
//
//     VALUE   = "text:" TEXT      the text's bytes, whatever it begins with
//             | "hex:" DIGITS     the bytes that the digits stand for
//             | "b64:" BYTES      URL-safe Base64 of the bytes, whatever the parameter takes
//             | "raw:" BYTES      the bytes as they are, whatever the parameter takes
//             | BYTES             the bytes as they are; where Base64 is due they must be that, but
//                                 a file with a key in PEM or DER is encoded where a key is due;
//                                 a name of the parameter's, as "aes-256", for its number
//     BYTES   = "@" PATH          a file's
//             | "@-"              standard input's
//             | "text:" TEXT      the text's, whatever it begins with
//             | TEXT              the text's
//
// The bytes of "text:" and "hex:" are sent as the parameter takes bytes: as URL-safe Base64,
// or as they are.
#ifndef CORVANE_HOST_VALUES_H
#define CORVANE_HOST_VALUES_H

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <utility>

#include "host/catalogue/catalogue.h"

// A written value without its prefixes.
struct WrittenValue {
    enum Kind { Text, Hex, Base64, Raw, Plain } kind;  // as the forms above, in their order
    bool isFile;                                       // the rest names one, or is "-"
    std::string rest;
};
WrittenValue splitValue(const std::string& written);

// Replaces what a script has in the text of a value, such as ${k.Data}. It gets the text without
// the prefix of its form.
using Expand = std::function<std::string(const std::string& text)>;

class ValueReader {
public:
    // Whether a value may be read from standard input, which holds one value, or the script.
    explicit ValueReader(bool standardInputIsFree) : m_standardInputIsFree(standardInputIsFree) {}

    // The value of a request's parameter, as it is sent: a name as its number (names.h).
    // `request` may be null. Throws a UsageError that names the parameter and quotes no value.
    std::string read(const RequestInfo* request, const std::string& name,
                     const std::string& written, const Expand& expand);

private:
    // The bytes that a value stands for, as they are to be sent for what it is given as.
    std::pair<Given, std::string> resolve(const std::string& name, const WrittenValue& value,
                                          const Expand& expand);
    std::string readBytes(const std::string& name, const WrittenValue& value, const Expand& expand);

    bool m_standardInputIsFree;
};

// The bytes that a result stands for. Nothing if it is not of the form.
std::optional<std::string> decodeResult(Form form, const std::string& value);

// A result in JSON: a string, or {"base64": ...} in the standard alphabet if the bytes
// are not UTF-8.
nlohmann::ordered_json toJson(const std::string& value);
nlohmann::ordered_json toJson(const Pairs& results);

// JSON as text. Strings that are not UTF-8 do not make it throw.
std::string jsonText(const nlohmann::ordered_json& json, int indent);

#endif
