// corvane-host bench: how fast a request is in one process.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "commands.h"
#include "common/secrets.h"
#include "help.h"
#include "host/catalogue/catalogue.h"
#include "host/exchange.h"
#include "host/parameters.h"
#include "host/values.h"
#include "latencies.h"
#include "options.h"

namespace {

using Clock = std::chrono::steady_clock;

struct BenchOptions {
    std::string request;
    WrittenParameters parameters;
    double seconds = 5;
    uint64_t count = 0;  // 0: as many as the seconds allow
    bool json = false;
};

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// A line on a terminal, and nothing elsewhere.
class ProgressBar {
public:
    ~ProgressBar()
    {
        if (m_drawn)
            fputs("\r\033[K", stderr);
    }

    void show(double share, uint64_t requests)
    {
        if (!m_onTerminal || Clock::now() < m_next)
            return;
        m_next = Clock::now() + std::chrono::milliseconds(100);
        m_drawn = true;
        constexpr int width = 40;
        std::string bar(static_cast<size_t>(width * std::min(1.0, share)), '#');
        bar.resize(width, '.');
        fprintf(stderr, "\r[%s] %3.0f %%  %llu requests", bar.c_str(), 100 * std::min(1.0, share),
                static_cast<unsigned long long>(requests));
        fflush(stderr);
    }

private:
    const bool m_onTerminal = isatty(STDERR_FILENO) == 1;
    bool m_drawn = false;
    Clock::time_point m_next = Clock::now();
};

class Bench {
public:
    Bench(HostSession& session, const RequestInfo& request, const Pairs& parameters)
        : m_session(session), m_request(request), m_parameters(parameters)
    {
    }

    // A time is that of storing the parameters, the request call and reading the results.
    void run(const BenchOptions& options)
    {
        warmUp(options);
        ProgressBar progress;
        const auto start = Clock::now();
        while (!isDone(options)) {
            const auto before = Clock::now();
            const Reply reply = m_session.send(m_request.name, m_parameters);
            const auto after = Clock::now();
            m_times.add(static_cast<uint64_t>(std::chrono::nanoseconds(after - before).count()));
            m_seconds = std::chrono::duration<double>(after - start).count();
            countFailure(reply.results);
            progress.show(options.count == 0 ? m_seconds / options.seconds
                                             : static_cast<double>(m_times.total()) /
                                                   static_cast<double>(options.count),
                          m_times.total());
        }
    }

    uint64_t failed() const { return m_failed; }

    std::string asText() const
    {
        char text[400];
        snprintf(text, sizeof text,
                 "%s: %llu requests in %.2f s, %llu failed\n"
                 "%.0f requests per second\n"
                 "microseconds: p50 %.1f, p90 %.1f, p99 %.1f, p99.9 %.1f, max %.1f\n",
                 m_request.name, static_cast<unsigned long long>(m_times.total()), m_seconds,
                 static_cast<unsigned long long>(m_failed), perSecond(), microseconds(0.5),
                 microseconds(0.9), microseconds(0.99), microseconds(0.999), microseconds(1));
        std::string all = text;
        for (const auto& [code, count] : m_codes)
            all += "failed with " + (code.empty() ? "no code" : code) + ": " +
                   std::to_string(count) + "\n";
        return all;
    }

    nlohmann::ordered_json asJson() const
    {
        auto codes = nlohmann::ordered_json::object();
        for (const auto& [code, count] : m_codes)
            codes[code] = count;
        return {{"request", m_request.name},
                {"seconds", m_seconds},
                {"requests", m_times.total()},
                {"failed", m_failed},
                {"perSecond", perSecond()},
                {"microseconds",
                 {{"p50", microseconds(0.5)},
                  {"p90", microseconds(0.9)},
                  {"p99", microseconds(0.99)},
                  {"p99.9", microseconds(0.999)},
                  {"max", microseconds(1)}}},
                {"codes", codes}};
    }

private:
    // A tenth of the run, a second at most.
    void warmUp(const BenchOptions& options)
    {
        const auto start = Clock::now();
        const double seconds = std::min(1.0, options.count == 0 ? options.seconds / 10 : 1.0);
        const uint64_t count = options.count == 0 ? UINT64_MAX : options.count / 10;
        for (uint64_t i = 0; i < count && secondsSince(start) < seconds; ++i)
            m_session.send(m_request.name, m_parameters);
    }

    bool isDone(const BenchOptions& options) const
    {
        return options.count == 0 ? m_seconds >= options.seconds : m_times.total() >= options.count;
    }

    void countFailure(const Pairs& results)
    {
        if (succeeded(&m_request, results))
            return;
        ++m_failed;
        const std::string* code = findValue(results, "errorCode");
        ++m_codes[code == nullptr ? "" : *code];
    }

    double perSecond() const
    {
        return m_seconds > 0 ? static_cast<double>(m_times.total()) / m_seconds : 0;
    }

    double microseconds(double share) const
    {
        return static_cast<double>(m_times.percentile(share)) / 1000;
    }

    HostSession& m_session;
    const RequestInfo& m_request;
    const Pairs& m_parameters;
    Latencies m_times;
    double m_seconds = 0;
    uint64_t m_failed = 0;
    std::map<std::string, uint64_t> m_codes;
};

ExitCode bench(Program& program, const BenchOptions& options)
{
    const RequestInfo* request = requestByName(options.request, false);
    options.parameters.check();
    const auto session = program.openSession();
    const SecretPairs parameters = options.parameters.read(request);

    // One to tell what a failure means.
    warn(request, parameters);
    const Outcome first = exchange(*session, request, options.request, parameters);
    if (!first.ok) {
        tell(failureLine(options.request, first));
        tell(remedyLine(first));
    }

    Bench bench(*session, *request, parameters);
    bench.run(options);
    program.output.write(options.json ? jsonText(bench.asJson(), 2) + "\n" : bench.asText());
    return bench.failed() == 0 ? SUCCESS : REFUSED;
}

}  // namespace

void addBench(CLI::App& app, Program& program)
{
    const auto options = std::make_shared<BenchOptions>();
    CLI::App* command = app.add_subcommand("bench", "Measure how fast one request is");
    addRequestName(*command, options->request);
    addParameterOptions(*command, options->parameters);
    CLI::Option* seconds = addNumber(*command, "--seconds", options->seconds,
                                     {NumberKind::Plain, 0.01, 86400, false}, "How long to send")
                               ->capture_default_str();
    addNumber(*command, "--count", options->count, {NumberKind::Counts, 1, 1e12, true},
              "How many to send instead of --seconds")
        ->excludes(seconds);
    command->add_flag("--json", options->json, "As JSON");
    command->footer(std::string(valueForms) + R"(
Numbers may have K, M or G behind them, powers of 1000.

Examples:
  corvane-host bench QZaVen_GetVersion --count 1K
  corvane-host bench QZaven_crypto_hmac strHashAlg=4 strKey=text:key \
      strdata=text:data --seconds 0.5 --json)");
    command->callback([options, &program] { program.exitCode = bench(program, *options); });
}
