// A long comparison of the development engine, which computes with OpenSSL, with Botan: the same
// inputs, right ones and wrong ones, and what both make of them.
//
//   build/release/tests/differential_check [--cases N] [--seed N] [--only ALGORITHM]
//
// A million cases unless told otherwise. Prints for each algorithm the cases, how many of them were
// of wrong inputs, how many of these both libraries refused, and how many answers differ; for the
// first one that differs, the inputs and how to repeat it. Ends with 0 only if none differs. The
// seconds are of the processor.
//
// What is random in the engine itself, as in public-key encryption, is not repeated; the ciphertext
// is then among the inputs that are printed. Keys of RSA are the same in all runs.
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <random>
#include <stdexcept>

#include "differential/algorithm.h"

namespace {

using namespace differential;

struct Options {
    uint64_t cases = 1000000;
    uint64_t seed = std::random_device()();
    std::string only;
};

uint64_t numberOf(const std::string& text)
{
    size_t end = 0;
    const uint64_t number = std::stoull(text, &end);
    return end == text.size() && text[0] != '-' ? number : throw std::runtime_error("no number");
}

Options read(int argc, char** argv)
{
    Options options;
    for (int i = 1; i < argc; i += 2) {
        const std::string name = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : throw std::runtime_error("no value");
        if (name == "--cases")
            options.cases = numberOf(value);
        else if (name == "--seed")
            options.seed = numberOf(value);
        else if (name == "--only")
            options.only = value;
        else
            throw std::runtime_error("unknown option " + name);
    }
    return options;
}

Algorithms chosen(const std::string& only)
{
    Algorithms some;
    for (const Algorithm& algorithm : algorithms())
        if (only.empty() || algorithm.name == only)
            some.push_back(algorithm);
    return some.empty() ? throw std::runtime_error("no algorithm " + only) : some;
}

void show(const char* name, const Counts& counts, double seconds)
{
    printf("%-28s %10" PRIu64 " %10" PRIu64 " %10" PRIu64 " %10" PRIu64 " %9.1f\n", name,
           counts.cases, counts.negative, counts.refused, counts.differing, seconds);
    fflush(stdout);
}

// The processor's time, which others on the machine do not change.
double secondsSince(clock_t start)
{
    return static_cast<double>(clock() - start) / CLOCKS_PER_SEC;
}

int runAll(const Options& options)
{
    const Algorithms all = chosen(options.only);
    uint64_t shares = 0;
    for (const Algorithm& algorithm : all)
        shares += algorithm.share;

    printf("seed %" PRIu64 "\n\n", options.seed);
    printf("%-28s %10s %10s %10s %10s %9s\n", "algorithm", "cases", "negative", "refused",
           "differing", "seconds");
    Counts total;
    const clock_t start = clock();
    for (const Algorithm& algorithm : all) {
        const clock_t begin = clock();
        const uint64_t cases = (options.cases * algorithm.share + shares - 1) / shares;
        const Outcome outcome = run(algorithm, options.seed, cases, EVERY_BIT);
        show(algorithm.name.c_str(), outcome.counts, secondsSince(begin));
        if (outcome.differingSeed)
            printf("  %s\n  to repeat: %s\n", outcome.complaint.c_str(),
                   repeatedBy(algorithm, outcome).c_str());
        total.add(outcome.counts);
    }
    show("all", total, secondsSince(start));
    puts(total.differing == 0 ? "passed" : "FAILED");
    return total.differing == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        return runAll(read(argc, argv));
    } catch (const std::exception& e) {
        fprintf(stderr, "differential_check: %s\n", e.what());
        return 2;
    }
}
