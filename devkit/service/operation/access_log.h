// One line of JSON for each answer. Values, tokens and paths as clients wrote them are
// not in it.
#ifndef CORVANE_SERVICE_OPERATION_ACCESS_LOG_H
#define CORVANE_SERVICE_OPERATION_ACCESS_LOG_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "common/descriptor.h"
#include "line_sink.h"

class AccessLog {
public:
    // Appends to the file, which is made for the owner alone; an empty name stands for
    // standard error. A FIFO must have a reader. Throws a UsageError.
    explicit AccessLog(std::string file);

    // Does not wait: a line that cannot be written now is dropped and counted. The next one
    // that can be is preceded by how many there were.
    void write(const nlohmann::ordered_json& entry);
    // Lines that were dropped since the start.
    uint64_t dropped() const { return dropped_; }
    // After the file was moved away. Keeps the old one if it cannot be made.
    void reopen();

    // A line for people, to standard error. Does not wait either, and may be lost.
    void tell(const std::string& text);

private:
    const std::string file_;
    Descriptor descriptor_;
    LineSink errors_{STDERR_FILENO};
    std::optional<LineSink> lines_;  // the file's; else they go to errors_
    uint64_t dropped_ = 0;
    uint64_t untold_ = 0;  // of them, since the log told
};

// The time of day in UTC, with milliseconds.
std::string timeText();

#endif
