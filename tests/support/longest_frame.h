// Frames of the greatest size, which take memory twice: as bytes, and decoded.
#ifndef CORVANE_TESTS_LONGEST_FRAME_H
#define CORVANE_TESTS_LONGEST_FRAME_H

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "common/wire.h"
#include "support/files.h"

namespace support {

inline bool hasMemoryForTheLongestFrame()
{
    std::istringstream lines(readWhole("/proc/meminfo"));
    for (std::string line; std::getline(lines, line);)
        if (line.compare(0, 13, "MemAvailable:") == 0)
            return std::stoull(line.substr(13)) << 10 > 4 * longestFrame;
    return false;
}

}  // namespace support

#define SKIP_WITHOUT_MEMORY_FOR_THE_LONGEST_FRAME() \
    if (!support::hasMemoryForTheLongestFrame())    \
    GTEST_SKIP() << "NOT TESTED: there are not 2 GiB of memory"

#endif
