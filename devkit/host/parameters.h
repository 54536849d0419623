// The parameters of a request as people write them: arguments "name=value", or a file of
// such lines or with a JSON object, as a script's "params". values.h has the values' forms.
#ifndef CORVANE_HOST_PARAMETERS_H
#define CORVANE_HOST_PARAMETERS_H

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "host/catalogue/catalogue.h"

// JSON text. Throws a UsageError, also for two members of the same name; it quotes no
// value, as that may be secret.
nlohmann::ordered_json parseJson(const std::string& text);

// A value in JSON as it would be written elsewhere: a text, or an integer's decimal text.
// Throws a UsageError for others.
std::string writtenValue(const std::string& name, const nlohmann::ordered_json& value);

struct WrittenParameters {
    std::vector<std::string> arguments;
    std::string file;  // "-" for standard input; "" for none

    // Throws a UsageError if an argument is not written name=value, or comes twice.
    void check() const;

    // Names and values to send: the file's, in its order, in which arguments take the place
    // of those of the same name; then the other arguments. `request` may be null. May read
    // standard input. Throws a UsageError that quotes no value.
    Pairs read(const RequestInfo* request) const;
};

#endif
