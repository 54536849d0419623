// A long run of mixed requests through the plug-in, the reference parameter module and the
// development engine; every answer is checked.
//
//   build/release/tests/soak [--seconds N | --requests N] [--threads N] [--seed N]
//
// Runs for 60 seconds in one thread unless told otherwise. Prints the requests by name, wrong
// answers, the rate, and memory and open descriptors over the run. Ends with 0 only if all of
// these hold:
//   - requests of all names were sent,
//   - no answer was wrong; else the seed to repeat it with is printed,
//   - no more descriptors are open at the end than when the clients started,
//   - memory does not grow: once a third of the run is over, the line fitted to the resident
//     memory rises by less than 256 KiB for each thread, or by less than 32 KiB in a million
//     requests. The same holds for what malloc has given out.
// So a run of ten million requests in one thread notices a byte lost in every few dozen requests.
#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>

#include "support/held.h"
#include "support/long_run.h"
#include "support/traffic.h"

namespace {

using support::DevkitHost;
using support::Held;
using support::TrafficClient;
using support::TrafficCount;
using support::TrafficSetting;
using Clock = std::chrono::steady_clock;

constexpr int MOMENTS = 30;  // at which memory is measured
constexpr int WARM_UP = 10;  // of them
constexpr double ALLOWED_PER_THREAD = 256 << 10;

struct Plan {
    uint64_t seconds = 60;
    uint64_t requests = 0;  // if not 0, instead of the seconds
    uint64_t threads = 1;
    uint64_t seed = std::random_device()();
};

[[noreturn]] void usage()
{
    fprintf(stderr, "usage: soak [--seconds N | --requests N] [--threads N] [--seed N]\n");
    exit(2);
}

Plan planOf(int argc, char** argv)
{
    Plan plan;
    if (!support::readNumbers(argc, argv,
                              {{"--seconds", &plan.seconds},
                               {"--requests", &plan.requests},
                               {"--threads", &plan.threads},
                               {"--seed", &plan.seed}}) ||
        plan.threads == 0 || plan.threads > 1024 || (plan.seconds == 0 && plan.requests == 0))
        usage();
    return plan;
}

struct Moment {
    double seconds;
    uint64_t sent;
    Held held;
};

// The clients, each in a thread of its own.
class Run {
public:
    explicit Run(const Plan& plan) : m_plan(plan), m_counts(plan.threads)
    {
        for (uint32_t number = 0; number < plan.threads; ++number)
            m_threads.emplace_back([this, number] { work(number); });
    }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    // Until the plan is fulfilled.
    std::vector<Moment> watch()
    {
        std::vector<Moment> moments;
        while (moments.size() < MOMENTS) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            showProgress();
            if (done() * MOMENTS >= static_cast<double>(moments.size() + 1))
                moments.push_back({seconds(), m_sent, Held::now()});
        }
        m_stop = true;
        for (std::thread& thread : m_threads)
            thread.join();
        m_seconds = seconds();
        if (isatty(STDERR_FILENO) != 0)
            fprintf(stderr, "\r%*s\r", 60, "");
        return moments;
    }

    TrafficCount total() const
    {
        TrafficCount total;
        for (const TrafficCount& count : m_counts)
            total.add(count);
        return total;
    }
    double rate() const { return static_cast<double>(total().sent) / m_seconds; }
    double duration() const { return m_seconds; }

private:
    void work(uint32_t number)
    {
        TrafficClient client(m_host, m_setting, number, m_plan.seed, 1);
        client.actInEveryWay();
        uint64_t reported = 0;
        while (!m_stop) {
            client.act();
            m_sent += client.count().sent - reported;
            reported = client.count().sent;
        }
        client.leave();
        m_counts[number] = client.count();
    }

    double seconds() const { return std::chrono::duration<double>(Clock::now() - m_start).count(); }

    // The part of the plan that is fulfilled; 1 for all of it.
    double done() const
    {
        return m_plan.requests != 0
                   ? static_cast<double>(m_sent) / static_cast<double>(m_plan.requests)
                   : seconds() / static_cast<double>(m_plan.seconds);
    }

    void showProgress()
    {
        if (isatty(STDERR_FILENO) == 0 || seconds() < m_nextProgress)
            return;
        m_nextProgress = seconds() + 3;
        fprintf(stderr, "\r%5.1f %%, %" PRIu64 " requests, %.0f s", 100 * done(), m_sent.load(),
                seconds());
    }

    const Plan& m_plan;
    TrafficSetting m_setting;
    DevkitHost m_host;
    Clock::time_point m_start = Clock::now();
    std::vector<TrafficCount> m_counts;
    std::vector<std::thread> m_threads;
    std::atomic<uint64_t> m_sent{0};
    std::atomic<bool> m_stop{false};
    double m_nextProgress = 3;
    double m_seconds = 0;
};

// Says how a figure has changed and returns whether that is allowed.
bool staysFlat(const char* what, const Plan& plan, const std::vector<Moment>& moments,
               size_t Held::*figure)
{
    std::vector<support::FigurePoint> points;
    for (size_t i = WARM_UP; i < moments.size(); ++i)
        points.push_back({moments[i].sent, moments[i].held.*figure});
    return support::staysFlat(what, points, ALLOWED_PER_THREAD * static_cast<double>(plan.threads));
}

}  // namespace

int main(int argc, char** argv)
{
    const Plan plan = planOf(argc, argv);
    // Else the allocator keeps the memory of the largest payloads for each thread, and the figures
    // rise until every thread has had one.
    mallopt(M_MMAP_THRESHOLD, 128 << 10);
    printf("seed %" PRIu64 ", %" PRIu64 " threads\n", plan.seed, plan.threads);
    fflush(stdout);

    Run run(plan);
    const std::vector<Moment> moments = run.watch();
    const Held last = Held::now();
    const TrafficCount total = run.total();

    for (const auto& [name, times] : total.sentByName)
        printf("%12" PRIu64 "  %s\n", times, name.c_str());
    printf("%12" PRIu64 "  requests of %zu names in %.0f s, %.0f in a second\n", total.sent,
           total.sentByName.size(), run.duration(), run.rate());

    printf("\n     seconds      requests   KiB resident   KiB allocated   descriptors\n");
    for (size_t i = WARM_UP - 1; i < moments.size(); i += 5)
        printf("%12.0f  %12" PRIu64 "  %13zu  %14zu  %12zu\n", moments[i].seconds, moments[i].sent,
               moments[i].held.resident >> 10, moments[i].held.allocated >> 10,
               moments[i].held.descriptors);
    bool good = staysFlat("resident", plan, moments, &Held::resident);
    good = staysFlat("allocated", plan, moments, &Held::allocated) && good;

    const size_t first = moments.front().held.descriptors;
    printf("descriptors: %zu at the start, %zu at the end%s\n", first, last.descriptors,
           last.descriptors > first ? ": GROWS" : "");
    good = good && last.descriptors <= first;

    if (total.sentByName.size() != support::REQUEST_NAMES) {
        printf("NOT all of the %zu names were sent\n", support::REQUEST_NAMES);
        good = false;
    }
    printf("wrong answers: %" PRIu64 "\n", total.wrong);
    for (const std::string& complaint : total.complaints)
        printf("  %s\n", complaint.c_str());
    if (total.wrong != 0) {
        printf("to repeat: --seed %" PRIu64 " --threads %" PRIu64 "\n", plan.seed, plan.threads);
        good = false;
    }
    puts(good ? "passed" : "FAILED");
    return good ? 0 : 1;
}
