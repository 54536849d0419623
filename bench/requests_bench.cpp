// Whole requests of each kind, from the call to its return; storing the parameters is the
// host's work and not counted. Beside them, for the symmetric encryption, its skeleton and
// a copy of the payload.

#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

#include "host.h"
#include "log.h"
#include "measure.h"
#include "requests.h"
#include "skeleton.h"

namespace {

constexpr int SILENT = -1;
constexpr int INFO = 4;

constexpr size_t sizes[] = {64, 1 << 10, 1 << 16, 1 << 20, 1 << 24};

// Measures `work` after `prepare`, which is not counted.
template <class Prepare, class Work>
void run(benchmark::State& state, size_t payload, Prepare prepare, Work work)
{
    const bool isShort = payload <= 1 << 10;
    const Clock clock = isShort ? Clock::Wall : Clock::Processor;
    long faults = 0;
    for (auto _ : state) {
        prepare();
        const long before = isShort ? 0 : minorFaults();
        const double start = nanoseconds(clock);
        work();
        const double passed = nanoseconds(clock) - start - clockCost(clock);
        faults += isShort ? 0 : minorFaults() - before;
        state.SetIterationTime(passed * 1e-9);
    }
    if (payload > 0)
        state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(payload));
    if (!isShort)
        state.counters["faults"] =
            benchmark::Counter(static_cast<double>(faults), benchmark::Counter::kAvgIterations);
}

void request(benchmark::State& state, const Host& host, const RequestCase& request, size_t payload,
             int logLevel)
{
    const Pairs parameters = request.parameters(payload);
    host.expectSuccess(request.name, parameters);
    log_set_level(logLevel);
    run(
        state, request.hasPayload() ? payload : 0, [&] { host.store(parameters); },
        [&] { host.send(request.name); });
    log_set_level(SILENT);
}

void skeleton(benchmark::State& state, const Host& host, size_t payload)
{
    const Pairs parameters = encryption().parameters(payload);
    run(
        state, payload, [&] { host.store(parameters); },
        [&] { encryptionSkeleton(host, payload); });
}

void copy(benchmark::State& state, size_t payload)
{
    const std::string in = noise(payload);
    std::string out = in;
    run(
        state, payload, [] {},
        [&] {
            memcpy(out.data(), in.data(), payload);
            touched(out.data());
        });
}

template <class Function>
void add(const std::string& name, Function function)
{
    benchmark::RegisterBenchmark(name.c_str(), function)->UseManualTime();
}

void addAll(const Host& host)
{
    for (const RequestCase& kind : requestCases()) {
        for (const size_t payload : sizes) {
            const bool sized = kind.hasPayload();
            const std::string suffix = kind.name + (sized ? "/" + std::to_string(payload) : "");
            if (!sized && payload != sizes[0])
                continue;  // one size is as good as another
            add("BM_Request/" + suffix, [&host, &kind, payload](benchmark::State& state) {
                request(state, host, kind, payload, SILENT);
            });
            if (payload <= 1 << 10)
                add("BM_LoggedRequest/" + suffix, [&host, &kind, payload](benchmark::State& state) {
                    request(state, host, kind, payload, INFO);
                });
        }
    }
    for (const size_t payload : sizes) {
        add("BM_Skeleton/" + std::to_string(payload),
            [&host, payload](benchmark::State& state) { skeleton(state, host, payload); });
        add("BM_Memcpy/" + std::to_string(payload),
            [payload](benchmark::State& state) { copy(state, payload); });
    }
}

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    const BareHost host;
    addAll(host);
    benchmark::RunSpecifiedBenchmarks();
}
