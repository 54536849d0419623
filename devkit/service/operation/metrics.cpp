#include "metrics.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace {

// An engine may have any number of codes; so many rows are kept apart.
constexpr size_t mostRows = 1024;

std::string text(double value)
{
    std::ostringstream out;
    out.precision(15);
    out << value;
    return out.str();
}

std::string line(const std::string& name, const std::string& labels, double value)
{
    return name + (labels.empty() ? "" : "{" + labels + "}") + " " + text(value) + "\n";
}

std::string type(const std::string& name, const char* kind)
{
    return "# TYPE " + name + " " + kind + "\n";
}

std::string label(const char* name, const std::string& value)
{
    return std::string(name) + "=\"" + value + "\"";
}

// Codes are numbers or words; anything else that an engine wrote is not repeated.
bool isPlain(const std::string& code)
{
    return !code.empty() && code.size() <= 32 &&
           code.find_first_not_of("-0123456789_abcdefghijklmnopqrstuvwxyz") == std::string::npos;
}

}  // namespace

void Metrics::countRequest(const std::string& name, const std::string& code, double seconds)
{
    auto key = std::pair(name, isPlain(code) ? code : "other");
    if (m_requests.size() >= mostRows && m_requests.count(key) == 0)
        key.second = "other";
    ++m_requests[key];

    Histogram& histogram = m_times[name];
    const auto bound = std::lower_bound(bounds.begin(), bounds.end(), seconds);
    ++histogram.counts[static_cast<size_t>(bound - bounds.begin())];
    histogram.sum += seconds;
}

std::string Metrics::text() const
{
    std::string out = type("corvane_requests_total", "counter");
    for (const auto& [key, count] : m_requests)
        out += line("corvane_requests_total",
                    label("name", key.first) + "," + label("code", key.second),
                    static_cast<double>(count));

    out += type("corvane_request_seconds", "histogram");
    for (const auto& [name, histogram] : m_times) {
        uint64_t sum = 0;
        for (size_t i = 0; i <= bounds.size(); ++i) {
            sum += histogram.counts[i];
            const std::string bound = i < bounds.size() ? ::text(bounds[i]) : "+Inf";
            out += line("corvane_request_seconds_bucket",
                        label("name", name) + "," + label("le", bound), static_cast<double>(sum));
        }
        out += line("corvane_request_seconds_sum", label("name", name), histogram.sum);
        out += line("corvane_request_seconds_count", label("name", name), static_cast<double>(sum));
    }

    out += type("corvane_http_answers_total", "counter");
    for (size_t status = 0; status < m_answers.size(); ++status)
        if (const uint64_t count = m_answers[status]; count > 0)
            out += line("corvane_http_answers_total", label("status", std::to_string(status)),
                        static_cast<double>(count));
    return out;
}

std::string gauge(const std::string& name, double value, const std::string& labels,
                  const char* kind)
{
    return (kind != nullptr ? type(name, kind) : "") + line(name, labels, value);
}

size_t residentBytes(pid_t pid)
{
    size_t total = 0;
    size_t resident = 0;
    std::ifstream("/proc/" + std::to_string(pid) + "/statm") >> total >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

size_t openDescriptors()
{
    std::error_code failed;
    const std::filesystem::directory_iterator descriptors("/proc/self/fd", failed);
    if (failed)
        return 0;
    // One of them is the iterator's own.
    return static_cast<size_t>(std::distance(begin(descriptors), {})) - 1;
}
