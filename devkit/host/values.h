// Parameter values as they are written on the command line and in scripts, and result
// values as they are shown.
//
//     VALUE   = "b64:" BYTES      URL-safe Base64 of the bytes
//             | "hex:" DIGITS     URL-safe Base64 of the bytes that the digits stand for
//             | BYTES             the bytes as they are
//     BYTES   = "@" PATH          a file's
//             | "@-"              standard input's
//             | "text:" TEXT      the text's, whatever it begins with
//             | TEXT              the text's
#ifndef CORVANE_HOST_VALUES_H
#define CORVANE_HOST_VALUES_H

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "catalogue.h"

// Turns the text of a value into what it stands for; the forms' prefixes are gone.
using Expand = std::function<std::string(const std::string& text)>;

class ValueReader {
public:
    // Standard input can serve one value, unless it holds the script.
    explicit ValueReader(bool standardInputIsFree) : standardInputIsFree_(standardInputIsFree) {}

    // Throws a UsageError that names the parameter and quotes no value.
    std::string read(const std::string& name, const std::string& written, const Expand& expand);

private:
    std::string readBytes(const std::string& name, const std::string& written,
                          const Expand& expand);

    bool standardInputIsFree_;
};

// The bytes that a result stands for, or nothing if it is not of its form.
std::optional<std::string> decodeResult(Form form, const std::string& value);

// A result in JSON: a string, or {"base64": ...} in the standard alphabet if the bytes
// are not UTF-8.
nlohmann::ordered_json toJson(const std::string& value);
nlohmann::ordered_json toJson(const Pairs& results);

// JSON as text; never throws for its strings.
std::string write(const nlohmann::ordered_json& json, int indent);

#endif
