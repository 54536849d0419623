// Looks whether times tell what they must not: for each comparison, which of two kinds an input
// was of. Prints a table.
//
//   --samples N          calls of each comparison (1000000)
//   --private-samples N  of those with a private key's operation (100000)
//   --only TEXT          those alone that have the text in their line, and the leaks
//
// Exits with 1 if one of them leaks, or if a leak that is there on purpose is not found.
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "timing/comparison.h"
#include "timing/welch.h"

namespace {

using namespace timing;

struct Options {
    size_t samples = 1000000;
    size_t privateSamples = 100000;
    std::string only;
};

size_t numberOf(const char* text)
{
    const size_t number = std::stoul(text);
    return number < 2 * CroppedWelch::LEAST ? throw std::runtime_error("too few samples") : number;
}

Options read(int argc, char** argv)
{
    Options options;
    for (int i = 1; i < argc; i += 2) {
        const std::string name = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : throw std::runtime_error("no value");
        if (name == "--samples")
            options.samples = numberOf(value);
        else if (name == "--private-samples")
            options.privateSamples = numberOf(value);
        else if (name == "--only")
            options.only = value;
        else
            throw std::runtime_error("unknown option " + name);
    }
    return options;
}

// Prints the comparison's line; returns whether it is as it must be.
bool isRight(const Comparison& comparison, size_t samples, Random& random)
{
    std::vector<double> attempts;
    double typical = 0;
    std::string shown;
    while (isUndecided(attempts)) {
        const Times times = measure(comparison, samples, random);
        attempts.push_back(times.mostT);
        typical = times.typical;
        char text[32];
        snprintf(text, sizeof text, "%s%.1f", shown.empty() ? "" : ", ", times.mostT);
        shown += text;
    }
    const bool isLeak = leaks(attempts);
    const char* verdict = isLeak                ? comparison.mustLeak ? "found" : "LEAKS"
                          : comparison.mustLeak ? "NOT FOUND"
                                                : "holds";
    printf("%s|%s|%zu|%.2f us|%s|%s\n", comparison.what.c_str(), comparison.kinds.c_str(), samples,
           typical / 1000, shown.c_str(), verdict);
    fflush(stdout);
    return isLeak == comparison.mustLeak;
}

int run(int argc, char** argv)
{
    const Options options = read(argc, argv);
    std::random_device device;
    const uint64_t seed = uint64_t{device()} << 32 | device();
    Random random(seed);
    fprintf(stderr, "seed %llu\n", static_cast<unsigned long long>(seed));

    std::vector<Comparison> all;
    addLeaks(all, random);
    addSymmetric(all, random);
    addTokens(all, random);
    addPrivateKeys(all, random);

    bool well = true;
    printf("what|kinds of input|samples|time|largest t|verdict\n");
    for (const Comparison& comparison : all) {
        const std::string line = comparison.what + " " + comparison.kinds;
        if (!comparison.mustLeak && line.find(options.only) == std::string::npos)
            continue;
        const bool isFast = comparison.cost == Cost::Microseconds;
        well =
            isRight(comparison, isFast ? options.samples : options.privateSamples, random) && well;
    }
    return well ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception& e) {
        fprintf(stderr, "timing_check: %s\n", e.what());
        return 2;
    }
}
