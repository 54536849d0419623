// Counts for /metrics, in Prometheus' text format (version 0.0.4).
#ifndef CORVANE_SERVICE_OPERATION_METRICS_H
#define CORVANE_SERVICE_OPERATION_METRICS_H

#include <sys/types.h>

#include <array>
#include <atomic>
#include <map>
#include <string>
#include <utility>

class Metrics {
public:
    // An outcome: the result code, or the host's own code.
    void countRequest(const std::string& name, const std::string& code, double seconds);
    // Of three digits. Any thread may call this; the other functions are for one.
    void countAnswer(unsigned status) { ++m_answers.at(status); }

    std::string text() const;

private:
    static constexpr std::array<double, 12> bounds = {0.0001, 0.0002, 0.0005, 0.001, 0.002, 0.005,
                                                      0.01,   0.05,   0.1,    0.5,   1,     10};
    struct Histogram {
        std::array<uint64_t, bounds.size() + 1> counts = {};
        double sum = 0;
    };

    std::map<std::pair<std::string, std::string>, uint64_t> m_requests;
    std::map<std::string, Histogram> m_times;
    std::array<std::atomic<uint64_t>, 1000> m_answers = {};
};

// One line of the format, with its type if it is the first of its name.
std::string gauge(const std::string& name, double value, const std::string& labels = "",
                  const char* type = "gauge");

// Bytes of a process in memory, 0 if it is gone.
size_t residentBytes(pid_t pid);
size_t openDescriptors();

#endif
