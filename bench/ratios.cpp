// Measures the ratios that the plug-in is held to, and prints a row for each. What is
// divided was measured in turn, in this process. ratios.sh runs each part under the heap
// settings that it needs:
//     ratios warm        codec, replacement, requests; memory stays with the heap
//     ratios default     the large request under the heap's own settings
//     ratios growth      16 MiB and 512 MiB; all large memory comes from the system
//     ratios throughput  for the chart: GB/s of payload by size, tab-separated

#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "WebOperateAvenSoftModule.h"
#include "base64.h"
#include "host.h"
#include "log.h"
#include "measure.h"
#include "requests.h"
#include "row.h"
#include "skeleton.h"

namespace {

constexpr size_t KiB = 1024;
constexpr size_t MiB = 1024 * KiB;
constexpr int INFO = 4;
constexpr int SILENT = -1;

struct SizedLimits {
    size_t size;
    double must;
    double goal;
};
constexpr SizedLimits encodeLimits[] = {
    {KiB, 22, 11}, {64 * KiB, 5, 2.2}, {MiB, 3, 1.8}, {16 * MiB, 2.3, 1.7}};
constexpr SizedLimits decodeLimits[] = {
    {KiB, 14, 7.5}, {64 * KiB, 5, 2.2}, {MiB, 2.5, 1.1}, {16 * MiB, 3, 1.8}};

const unsigned char* bytes(const std::string& text)
{
    return reinterpret_cast<const unsigned char*>(text.data());
}

std::string encoded(const std::string& in)
{
    return base64_encode(bytes(in), static_cast<unsigned int>(in.length()));
}

// A copy of `in` to memory that is there already.
Contender copying(const std::string& in)
{
    return Contender([&in, out = in]() mutable {
        memcpy(out.data(), in.data(), in.length());
        touched(out.data());
    });
}

Contender encoding(const std::string& in)
{
    return Contender([&in] { touched(encoded(in).data()); });
}

Contender decoding(const std::string& text)
{
    return Contender([&text] { touched(base64_decode(text).data()); });
}

// The symmetric encryption request and its skeleton.
Contender request(const Host& host, const Pairs& parameters)
{
    return Contender([&host] { host.send(encryption().name); },
                     [&host, &parameters] { host.store(parameters); });
}

Contender skeleton(const Host& host, const Pairs& parameters, size_t payload)
{
    return Contender([&host, payload] { encryptionSkeleton(host, payload); },
                     [&host, &parameters] { host.store(parameters); });
}

void codecAgainstCopy()
{
    std::vector<Value> encode, decode;
    for (const SizedLimits& limits : encodeLimits) {
        const std::string in = noise(limits.size);
        Contender copy = copying(in);
        Contender work = encoding(in);
        race({&copy, &work});
        encode.push_back({work.time() / copy.time(), limits.must, limits.goal});
    }
    for (const SizedLimits& limits : decodeLimits) {
        const std::string text = encoded(noise(limits.size / 4 * 3));
        Contender copy = copying(text);
        Contender work = decoding(text);
        race({&copy, &work});
        decode.push_back({work.time() / copy.time(), limits.must, limits.goal});
    }
    printRow("encode, x memcpy of input, 1 KiB / 64 KiB / 1 MiB / 16 MiB", encode);
    printRow("decode, likewise", decode);
}

void codecAgainstOpenssl()
{
    const std::string in = noise(64 * KiB);
    const std::string text = encoded(noise(48 * KiB));
    std::string out(2 * in.length(), '\0');
    auto* const room = reinterpret_cast<unsigned char*>(out.data());

    Contender encode = encoding(in);
    Contender decode = decoding(text);
    Contender evpEncode([&] { EVP_EncodeBlock(room, bytes(in), static_cast<int>(in.length())); });
    Contender evpDecode(
        [&] { EVP_DecodeBlock(room, bytes(text), static_cast<int>(text.length())); });
    race({&encode, &evpEncode, &decode, &evpDecode});
    printRow("encode / decode at 64 KiB, speed against OpenSSL's EVP block functions",
             {{evpEncode.time() / encode.time(), 4, 8}, {evpDecode.time() / decode.time(), 3.5, 7}},
             Better::Higher);
}

void replacement()
{
    CWebOperateAvenSoftModule handler;
    std::string text = encoded(noise(MiB / 4 * 3));
    const std::string in = text;
    Contender copy = copying(in);
    Contender replace([&] {
        handler.ReplaceInChar(text.data(), static_cast<int>(text.length()), '+', '-');
        touched(text.data());
    });
    race({&copy, &replace});
    printRow("in-place replacement, 1 MiB, x memcpy", {{replace.time() / copy.time(), 0.8, 0.55}});
}

void largeRequest(const Host& host)
{
    const Pairs parameters = encryption().parameters(MiB);
    Contender whole = request(host, parameters);
    Contender floor = skeleton(host, parameters, MiB);
    race({&whole, &floor}, 3);
    printRow("symmetric encryption request, 1 MiB, warm heap, x skeleton",
             {{whole.time() / floor.time(), 1.2, 1.12}});
}

void smallRequest(const Host& host)
{
    const Pairs parameters = encryption().parameters(64);
    Contender whole = request(host, parameters);
    Contender floor = skeleton(host, parameters, 64);
    race({&whole, &floor});
    printRow("the same request, 64 B, logging off, microseconds", {{whole.time() / 1e3, 1.1, 0.8}});
    fprintf(stderr, "64 B: skeleton %.0f ns\n", floor.time());

    log_set_level(INFO);
    Contender logged = request(host, parameters);
    race({&logged});
    log_set_level(SILENT);
    fprintf(stderr, "64 B, logging on: %.2f microseconds\n", logged.time() / 1e3);
}

// Skeleton and request do not share a heap's habits, so they are not measured in turn
// here.
void largeRequestInDefaultHeap(const Host& host)
{
    const Pairs parameters = encryption().parameters(MiB);
    const std::string payload = noise(MiB);
    Contender copy = copying(payload);
    Contender whole = request(host, parameters);
    race({&copy, &whole}, 3);
    printRow("the request of 1 MiB, default heap, x memcpy / page faults",
             {{whole.time() / copy.time(), 40, 30}, {whole.faults(), 850, 650}});

    Contender floor = skeleton(host, parameters, MiB);
    race({&floor}, 3);
    fprintf(stderr,
            "1 MiB, default heap: memcpy %.0f us, request %.0f us, skeleton %.0f us, %.0f faults\n",
            copy.time() / 1e3, whole.time() / 1e3, floor.time() / 1e3, floor.faults());
}

// Few rounds, as the large one holds several GiB.
void growth(const Host& host)
{
    double times[2] = {};
    size_t i = 0;
    for (const size_t payload : {16 * MiB, 512 * MiB}) {
        const Pairs parameters = encryption().parameters(payload);
        Contender whole = request(host, parameters);
        for (int round = 0; round < (i == 0 ? 31 : 3); ++round)
            whole.measure();
        times[i++] = whole.time() / static_cast<double>(payload);
        fprintf(stderr, "%zu MiB: %.3f ns a byte, %.0f page faults\n", payload / MiB,
                whole.time() / static_cast<double>(payload), whole.faults());
    }
    printRow("growth: time per byte, 512 MiB x 16 MiB", {{times[1] / times[0], 1.5, 1.15}});
}

// Decoding is of the payload's text.
void throughput(const Host& host)
{
    printf("bytes\tmemcpy\tencode\tdecode\tskeleton\trequest\n");
    for (size_t payload = 64; payload <= 16 * MiB; payload *= 4) {
        const std::string in = noise(payload);
        const std::string text = encoded(in);
        const Pairs parameters = encryption().parameters(payload);
        Contender copy = copying(in);
        Contender encode = encoding(in);
        Contender decode = decoding(text);
        Contender floor = skeleton(host, parameters, payload);
        Contender whole = request(host, parameters);
        printf("%zu", payload);
        const std::vector<Contender*> all = {&copy, &encode, &decode, &floor, &whole};
        race(all);
        for (Contender* contender : all)
            printf("\t%.4f", static_cast<double>(payload) / contender->time());
        printf("\n");
    }
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string part = argc == 2 ? argv[1] : "";

    const BareHost host;
    host.expectSuccess(encryption().name, encryption().parameters(64));
    if (part == "warm") {
        codecAgainstCopy();
        codecAgainstOpenssl();
        replacement();
        largeRequest(host);
        smallRequest(host);
    } else if (part == "default") {
        largeRequestInDefaultHeap(host);
    } else if (part == "growth") {
        growth(host);
    } else if (part == "throughput") {
        throughput(host);
    } else {
        giveUp("usage: ratios warm|default|growth|throughput");
    }
}
