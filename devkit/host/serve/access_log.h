// One line of JSON for each answer. Values, tokens and paths as clients wrote them are
// not in it.
#ifndef CORVANE_HOST_SERVE_ACCESS_LOG_H
#define CORVANE_HOST_SERVE_ACCESS_LOG_H

#include <nlohmann/json.hpp>
#include <string>

#include "descriptor.h"

class AccessLog {
public:
    // Appends to the file, which is made for the owner alone; an empty name stands for
    // standard error. Throws a UsageError.
    explicit AccessLog(std::string file);

    void write(const nlohmann::ordered_json& entry);
    // After the file was moved away. Keeps the old one if it cannot be made.
    void reopen();

private:
    const std::string file_;
    Descriptor descriptor_;
};

// The time of day in UTC, with milliseconds.
std::string timeText();

#endif
