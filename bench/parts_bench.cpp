// The other parts of a request: rewriting, escaping, reading a parameter, finding the
// handler.

#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

#include "WebOperateAvenSoftModule.h"
#include "host.h"
#include "measure.h"
#include "requests.h"

namespace {

void BM_ReplaceInChar(benchmark::State& state)
{
    CWebOperateAvenSoftModule handler;
    std::string text = url64(noise(static_cast<size_t>(state.range(0))));
    text.resize(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        handler.ReplaceInChar(text.data(), static_cast<int>(text.length()), '-', '+');
        touched(text.data());
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ReplaceInChar)->RangeMultiplier(32)->Range(1 << 10, 1 << 20);

void BM_JsonUrlEncode(benchmark::State& state)
{
    CWebOperateAvenSoftModule handler;
    const std::string bytes = noise(static_cast<size_t>(state.range(0)));
    for (auto _ : state)
        touched(handler.JsonUrlEncode(bytes).data());
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_JsonUrlEncode)->RangeMultiplier(32)->Range(1 << 10, 1 << 20);

// The same for text that needs no escapes, as most of what is decoded does.
void BM_JsonUrlEncodePlainText(benchmark::State& state)
{
    CWebOperateAvenSoftModule handler;
    const std::string text(static_cast<size_t>(state.range(0)), 'a');
    for (auto _ : state)
        touched(handler.JsonUrlEncode(text).data());
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_JsonUrlEncodePlainText)->RangeMultiplier(32)->Range(1 << 10, 1 << 20);

void BM_ReadParameter(benchmark::State& state)
{
    const BareHost host;
    CWebOperateAvenSoftModule handler;
    host.store({{"strdata", noise(static_cast<size_t>(state.range(0)))}});
    for (auto _ : state)
        touched(handler.GetFindNameStringValueFromMapParams("strdata").data());
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ReadParameter)->Arg(1)->RangeMultiplier(32)->Range(1 << 10, 1 << 20);

void BM_GetFunctionID(benchmark::State& state)
{
    CWebOperateAvenSoftModule handler;
    for (auto _ : state)
        benchmark::DoNotOptimize(handler.GetFunctionID("QZaven_crypto_encrypt"));
}
BENCHMARK(BM_GetFunctionID);

}  // namespace

BENCHMARK_MAIN();
