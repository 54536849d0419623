// What a process holds and must not hold more and more of.
#ifndef CORVANE_TESTS_HELD_H
#define CORVANE_TESTS_HELD_H

#include <malloc.h>
#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tested.h"

namespace support {

// The step of loops that damage a message at every place, larger where programs are many times
// slower.
inline const size_t EVERY_PLACE = emulated || sanitized ? 7 : 1;

struct Held {
    size_t resident = 0;     // bytes of the process in memory, an emulator's too
    size_t allocated = 0;    // bytes that malloc has given out; 0 with a sanitizer's malloc
    size_t descriptors = 0;  // open ones

    // Once the allocator has returned what it keeps for later.
    static Held now()
    {
        malloc_trim(0);
        Held held;
        size_t total = 0;
        std::ifstream("/proc/self/statm") >> total >> held.resident;
        held.resident *= static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const struct mallinfo2 info = mallinfo2();
        held.allocated = info.uordblks + info.hblkhd;
        const std::filesystem::directory_iterator descriptors("/proc/self/fd");
        // One of them is the iterator's own.
        held.descriptors = static_cast<size_t>(std::distance(begin(descriptors), {})) - 1;
        return held;
    }
};

}  // namespace support

#endif
