// Counts for /metrics, in Prometheus' text format (version 0.0.4).
#ifndef CORVANE_SERVICE_OPERATION_METRICS_H
#define CORVANE_SERVICE_OPERATION_METRICS_H

#include <sys/types.h>

#include <array>
#include <atomic>
#include <map>
#include <string>
#include <utility>
#include <vector>

// The code as logs and metrics have it. Codes are numbers or words; what else an engine wrote in
// place of one is "other".
std::string plainCode(const std::string& code);

class Metrics {
public:
    // An outcome: the result code, or the host's own code. `seconds` from sending to a worker until
    // its answer; 0 if the request was not sent, which no time is counted for.
    void countRequest(const std::string& name, const std::string& code, double seconds);
    // What came of asking a worker for a known answer.
    void countReadiness(const std::string& status) { ++m_readiness[status]; }
    // Of three digits. Any thread may call this; the other functions are for one.
    void countAnswer(unsigned status) { ++m_answers.at(status); }

    std::string text() const;

private:
    // From the fastest request without waiting to --request-seconds as it is by default. Each is at
    // most 3 times the one before, so that quantiles are told within that.
    static constexpr std::array<double, 18> bounds = {0.00005, 0.0001, 0.0002, 0.0005, 0.001, 0.002,
                                                      0.005,   0.01,   0.02,   0.05,   0.1,   0.2,
                                                      0.5,     1,      2,      5,      10,    30};
    struct Histogram {
        std::array<uint64_t, bounds.size() + 1> counts = {};
        double sum = 0;
    };

    std::map<std::pair<std::string, std::string>, uint64_t> m_requests;
    std::map<std::string, Histogram> m_times;
    std::map<std::string, uint64_t> m_readiness;
    std::array<std::atomic<uint64_t>, 1000> m_answers = {};
};

struct MetricInfo {
    const char* name;
    const char* type;
    const char* help;
};
// Every metric that there is.
const std::vector<MetricInfo>& metricInfos();

using Labels = std::vector<std::pair<const char*, std::string>>;

// The lines before a metric's rows. Throws a std::logic_error if it is not among metricInfos().
std::string metricHead(const std::string& name);
// A row; values of labels may be any text.
std::string metricRow(const std::string& name, double value, const Labels& labels = {});
// Both, for a metric of one row.
std::string metric(const std::string& name, double value, const Labels& labels = {});

// What is known of any process by the same names: of this one.
std::string processMetrics();

// Bytes of a process in memory, 0 if it is gone.
size_t residentBytes(pid_t pid);

#endif
