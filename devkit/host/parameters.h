// The parameters of a request as people write them: as arguments "name=value", or in a file of
// such lines, or in a file with a JSON object. values.h has the forms of values.
#ifndef CORVANE_HOST_PARAMETERS_H
#define CORVANE_HOST_PARAMETERS_H

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "host/catalogue/catalogue.h"

// A JSON value as it would be written on the command line: a string's text, or an integer's
// digits. Throws a UsageError for other values.
std::string writtenValue(const std::string& name, const nlohmann::ordered_json& value);

struct WrittenParameters {
    std::vector<std::string> arguments;
    std::string file;  // "-" for standard input; "" for none

    // Throws a UsageError if an argument is not written name=value, or comes twice.
    void check() const;

    // The names and values to send: those of the file, in its order, then the arguments. An
    // argument of the same name takes the place of the file's value. `request` may be null. May
    // read standard input. Throws a UsageError that quotes no value.
    Pairs read(const RequestInfo* request) const;
};

#endif
