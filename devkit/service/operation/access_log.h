// One line of JSON for each answer. Values, tokens and paths as clients wrote them are
// not in it.
#ifndef CORVANE_SERVICE_OPERATION_ACCESS_LOG_H
#define CORVANE_SERVICE_OPERATION_ACCESS_LOG_H

#include <cstdint>
#include <ctime>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "common/descriptor.h"
#include "line_sink.h"

// What a line tells beside the time.
struct AccessEntry {
    std::string_view id;
    std::string_view address;
    std::string_view method;
    std::string_view route;
    unsigned status = 0;
    size_t received = 0;  // bytes of the body
    size_t sent = 0;      // of the answer's
    uint64_t microseconds = 0;
    bool isWhole = true;
    std::string_view request = {};  // its name; these two only where there is one
    std::string_view error = {};    // the code, if it failed
    size_t requests = 0;            // of a batch, which has at least one
    size_t failed = 0;              // of them
};

// All of it may be called by several threads at once.
class AccessLog {
public:
    // Appends to the file, which is made for the owner alone; an empty name stands for
    // standard error. A FIFO must have a reader. Throws a UsageError.
    explicit AccessLog(std::string file);
    // Flushes.
    ~AccessLog();
    AccessLog(const AccessLog&) = delete;
    AccessLog& operator=(const AccessLog&) = delete;

    // Collects a line, for flush() to write.
    void write(const AccessEntry& entry);
    // Writes what was collected; call it before each wait for events. Does not wait: lines
    // that cannot be written now are dropped and counted. The next one that can be is preceded
    // by how many there were.
    void flush() noexcept;
    // Lines that were dropped since the start, as far as they were flushed.
    uint64_t dropped() const;
    // After the file was moved away. Keeps the old one if it cannot be made.
    void reopen();

    // A line for people, to standard error. Does not wait either, and may be lost.
    void tell(const std::string& text);

private:
    // With the lock.
    void flushLocked() noexcept;
    void writeCollected();
    void appendTime(std::string& out);
    void tellLocked(const std::string& text);

    const std::string m_file;
    mutable std::mutex m_mutex;  // of all that follows
    Descriptor m_descriptor;
    LineSink m_errors{STDERR_FILENO};
    std::optional<LineSink> m_sink;  // the file's; else lines go to m_errors
    std::string m_line;              // the one that is being made
    std::string m_collected;         // whole lines
    size_t m_count = 0;              // of them
    uint64_t m_dropped = 0;
    uint64_t m_untold = 0;  // of them, since the log told
    time_t m_minute = 0;    // since 1970, whose text is in m_minuteText
    std::string m_minuteText;
};

#endif
