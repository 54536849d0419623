// What the long runs share: numbers on the command line, and whether a figure grows.
#ifndef CORVANE_TESTS_LONG_RUN_H
#define CORVANE_TESTS_LONG_RUN_H

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace support {

// Reads options that are followed by a number each. False if that is not what the command line has.
inline bool readNumbers(int argc, char** argv,
                        const std::vector<std::pair<std::string, uint64_t*>>& options)
{
    for (int i = 1; i < argc; i += 2) {
        const auto option = std::find_if(options.begin(), options.end(),
                                         [&](const auto& known) { return known.first == argv[i]; });
        if (option == options.end() || i + 1 == argc || argv[i + 1][0] < '0' ||
            argv[i + 1][0] > '9')
            return false;
        char* end = nullptr;
        errno = 0;
        *option->second = strtoull(argv[i + 1], &end, 10);
        if (*end != '\0' || errno != 0)
            return false;
    }
    return true;
}

// A figure in bytes once so many requests have been sent.
struct FigurePoint {
    uint64_t sent;
    size_t bytes;
};

// By which a figure rises with each request: the median of the slopes between any two points
// (Theil and Sen's line), as requests under way lift it for a moment now and then.
inline double slopeOf(const std::vector<FigurePoint>& points)
{
    std::vector<double> slopes;
    for (size_t i = 0; i < points.size(); ++i) {
        for (size_t j = i + 1; j < points.size(); ++j) {
            const auto sent = static_cast<double>(points[j].sent - points[i].sent);
            const double bytes =
                static_cast<double>(points[j].bytes) - static_cast<double>(points[i].bytes);
            if (sent > 0)
                slopes.push_back(bytes / sent);
        }
    }
    if (slopes.empty())
        return 0;
    const auto median = slopes.begin() + static_cast<std::ptrdiff_t>(slopes.size() / 2);
    std::nth_element(slopes.begin(), median, slopes.end());
    return *median;
}

// Says how a figure has changed, and returns whether it stays flat: over all of the points it rises
// by less than so many bytes, or in a million requests by less than 32 KiB.
inline bool staysFlat(const char* what, const std::vector<FigurePoint>& points, double allowed)
{
    constexpr double allowedPerMillion = 32 << 10;
    const double rise = slopeOf(points);
    const auto measured = static_cast<double>(points.back().sent - points.front().sent);
    const bool flat = rise * measured < allowed || rise * 1e6 < allowedPerMillion;
    printf("%s: %+.0f bytes per million requests, measured over %.0f%s\n", what, rise * 1e6,
           measured, flat ? "" : ": GROWS");
    return flat;
}

}  // namespace support

#endif
