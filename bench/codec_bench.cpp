// The string codec, beside a copy of its input and beside OpenSSL's codec.

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <cstring>
#include <string>

#include "base64.h"
#include "measure.h"
#include "requests.h"

namespace {

const unsigned char* bytes(const std::string& text)
{
    return reinterpret_cast<const unsigned char*>(text.data());
}

// Every function here takes state.range(0) bytes of input: text, if it decodes.
std::string inputOf(const benchmark::State& state, bool isText)
{
    const auto size = static_cast<size_t>(state.range(0));
    return isText ? url64(noise(size)).substr(0, size) : noise(size);
}

std::string standard(std::string text)
{
    for (char& c : text)
        c = c == '-' ? '+' : c == '_' ? '/' : c;
    return text;
}

template <class Work>
void run(benchmark::State& state, Work work)
{
    const long before = minorFaults();
    for (auto _ : state)
        work();
    state.SetBytesProcessed(state.iterations() * state.range(0));
    state.counters["faults"] = benchmark::Counter(static_cast<double>(minorFaults() - before),
                                                  benchmark::Counter::kAvgIterations);
}

void BM_Memcpy(benchmark::State& state)
{
    const std::string in = inputOf(state, false);
    std::string out = in;
    run(state, [&] {
        memcpy(out.data(), in.data(), in.length());
        touched(out.data());
    });
}

void BM_Base64Encode(benchmark::State& state)
{
    const std::string in = inputOf(state, false);
    run(state,
        [&] { touched(base64_encode(bytes(in), static_cast<unsigned int>(in.length())).data()); });
}

void BM_Base64EncodeUrl(benchmark::State& state)
{
    const std::string in = inputOf(state, false);
    run(state, [&] { touched(base64_encode_url(bytes(in), in.length()).data()); });
}

void BM_Base64Decode(benchmark::State& state)
{
    const std::string in = standard(inputOf(state, true));
    run(state, [&] { touched(base64_decode(in).data()); });
}

// Works in place, so its input is copied first; what that costs is in the result.
void BM_Base64DecodeUrl(benchmark::State& state)
{
    const std::string in = inputOf(state, true);
    run(state, [&] {
        std::string text = in;
        base64_decode_url(text);
        touched(text.data());
    });
}

void BM_EvpEncodeBlock(benchmark::State& state)
{
    const std::string in = inputOf(state, false);
    std::string out(in.length() / 3 * 4 + 5, '\0');
    run(state, [&] {
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), bytes(in),
                        static_cast<int>(in.length()));
        touched(out.data());
    });
}

void BM_EvpDecodeBlock(benchmark::State& state)
{
    const std::string in = standard(inputOf(state, true));
    std::string out(in.length(), '\0');
    run(state, [&] {
        EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()), bytes(in),
                        static_cast<int>(in.length()));
        touched(out.data());
    });
}

#define SIZES Arg(64)->Arg(1 << 10)->Arg(1 << 16)->Arg(1 << 20)->Arg(1 << 24)
BENCHMARK(BM_Memcpy)->SIZES;
BENCHMARK(BM_Base64Encode)->SIZES;
BENCHMARK(BM_Base64EncodeUrl)->SIZES;
BENCHMARK(BM_Base64Decode)->SIZES;
BENCHMARK(BM_Base64DecodeUrl)->SIZES;
BENCHMARK(BM_EvpEncodeBlock)->SIZES;
BENCHMARK(BM_EvpDecodeBlock)->SIZES;

}  // namespace

BENCHMARK_MAIN();
