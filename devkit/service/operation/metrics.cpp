#include "metrics.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <stdexcept>

namespace {

// clang-format off
const std::vector<MetricInfo> infos = {
    {"corvane_build_info",               "gauge",     "1, with what is running."},
    {"corvane_requests_total",           "counter",   "Requests to the plug-in by result code, or by the host's own code."},
    {"corvane_request_seconds",          "histogram", "Time from sending a request to a worker until its answer, with waiting."},
    {"corvane_http_answers_total",       "counter",   "Answers by status."},
    {"corvane_readiness_checks_total",   "counter",   "Asked for a known answer: what came of it."},
    {"corvane_workers",                  "gauge",     "Worker processes."},
    {"corvane_workers_ready",            "gauge",     "Workers that have loaded the libraries."},
    {"corvane_workers_busy",             "gauge",     "Workers that serve a request."},
    {"corvane_worker_restarts_total",    "counter",   "Workers that ended, or were replaced, and were started anew."},
    {"corvane_sessions",                 "gauge",     "Key-exchange sessions."},
    {"corvane_sessions_limit",           "gauge",     "Sessions that the workers take together."},
    {"corvane_queue",                    "gauge",     "Requests that wait for a worker."},
    {"corvane_queue_limit",              "gauge",     "Requests that may wait."},
    {"corvane_connections",              "gauge",     "Open connections."},
    {"corvane_access_log_dropped_total", "counter",   "Lines that the access log did not take."},
    {"corvane_resident_bytes",           "gauge",     "Memory of the front and of each worker."},
    {"corvane_uptime_seconds",           "gauge",     "Time since the service started."},
    {"process_start_time_seconds",       "gauge",     "When the front process started, since 1970."},
    {"process_cpu_seconds_total",        "counter",   "Processor time of the front process."},
    {"process_open_fds",                 "gauge",     "Open descriptors of the front process."},
    {"process_max_fds",                  "gauge",     "Descriptors that the front process may open."},
};
// clang-format on

// An engine may have any number of codes; so many rows are kept apart.
constexpr size_t mostRows = 1024;

// In the fewest digits that tell it, up to 15.
std::string text(double value)
{
    char digits[32];
    return {digits, static_cast<size_t>(snprintf(digits, sizeof digits, "%.15g", value))};
}

std::string escaped(const std::string& value)
{
    std::string out;
    for (const char c : value) {
        if (c == '\\' || c == '"')
            out += '\\';
        out += c == '\n' ? std::string("\\n") : std::string(1, c);
    }
    return out;
}

double number(uint64_t count)
{
    return static_cast<double>(count);
}

// The system's boot, and from there the ticks in field 22 of the process's row. The fields are
// counted behind the program's name, which may hold anything.
double startTime()
{
    std::ifstream row("/proc/self/stat");
    row.ignore(std::numeric_limits<std::streamsize>::max(), ')');
    std::string field;
    for (int i = 3; i < 22; ++i)
        row >> field;
    double ticks = 0;
    row >> ticks;

    std::ifstream system("/proc/stat");
    double boot = 0;
    while (system >> field && field != "btime")
        system.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    system >> boot;
    return boot + ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double processorSeconds()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
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

}  // namespace

std::string plainCode(const std::string& code)
{
    const bool isPlain =
        !code.empty() && code.size() <= 32 &&
        code.find_first_not_of("-0123456789_abcdefghijklmnopqrstuvwxyz") == std::string::npos;
    return isPlain ? code : "other";
}

void Metrics::countRequest(const std::string& name, const std::string& code, double seconds)
{
    auto key = std::pair(name, plainCode(code));
    if (m_requests.size() >= mostRows && m_requests.count(key) == 0)
        key.second = "other";
    ++m_requests[key];
    if (seconds <= 0)
        return;

    Histogram& histogram = m_times[name];
    const auto bound = std::lower_bound(bounds.begin(), bounds.end(), seconds);
    ++histogram.counts[static_cast<size_t>(bound - bounds.begin())];
    histogram.sum += seconds;
}

std::string Metrics::text() const
{
    std::string out = metricHead("corvane_requests_total");
    for (const auto& [key, count] : m_requests)
        out += metricRow("corvane_requests_total", number(count),
                         {{"name", key.first}, {"code", key.second}});

    out += metricHead("corvane_request_seconds");
    for (const auto& [name, histogram] : m_times) {
        uint64_t sum = 0;
        for (size_t i = 0; i <= bounds.size(); ++i) {
            sum += histogram.counts[i];
            const std::string bound = i < bounds.size() ? ::text(bounds[i]) : "+Inf";
            out += metricRow("corvane_request_seconds_bucket", number(sum),
                             {{"name", name}, {"le", bound}});
        }
        out += metricRow("corvane_request_seconds_sum", histogram.sum, {{"name", name}});
        out += metricRow("corvane_request_seconds_count", number(sum), {{"name", name}});
    }

    out += metricHead("corvane_http_answers_total");
    for (size_t status = 0; status < m_answers.size(); ++status)
        if (const uint64_t count = m_answers[status]; count > 0)
            out += metricRow("corvane_http_answers_total", number(count),
                             {{"status", std::to_string(status)}});

    out += metricHead("corvane_readiness_checks_total");
    for (const auto& [status, count] : m_readiness)
        out += metricRow("corvane_readiness_checks_total", number(count), {{"status", status}});
    return out;
}

const std::vector<MetricInfo>& metricInfos()
{
    return infos;
}

std::string metricHead(const std::string& name)
{
    for (const MetricInfo& info : infos)
        if (info.name == name)
            return std::string("# HELP ")
                .append(name)
                .append(" ")
                .append(info.help)
                .append("\n# TYPE ")
                .append(name)
                .append(" ")
                .append(info.type)
                .append("\n");
    throw std::logic_error("no metric is named " + name);
}

std::string metricRow(const std::string& name, double value, const Labels& labels)
{
    std::string list;
    for (const auto& [label, of] : labels)
        list += (list.empty() ? "" : ",") + std::string(label) + "=\"" + escaped(of) + "\"";
    return name + (list.empty() ? "" : "{" + list + "}") + " " + text(value) + "\n";
}

std::string metric(const std::string& name, double value, const Labels& labels)
{
    return metricHead(name) + metricRow(name, value, labels);
}

std::string processMetrics()
{
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    return metric("process_start_time_seconds", startTime()) +
           metric("process_cpu_seconds_total", processorSeconds()) +
           metric("process_open_fds", number(openDescriptors())) +
           metric("process_max_fds", number(limit.rlim_cur));
}

size_t residentBytes(pid_t pid)
{
    size_t total = 0;
    size_t resident = 0;
    std::ifstream("/proc/" + std::to_string(pid) + "/statm") >> total >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}
