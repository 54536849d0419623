// What a process holds and must not hold more and more of.
#ifndef CORVANE_TESTS_HELD_H
#define CORVANE_TESTS_HELD_H

#include <malloc.h>
#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace support {

// Whether memory that was freed is held back for a while.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool sanitized = true;
#elif defined(__has_feature)
constexpr bool sanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool sanitized = false;
#endif

// Whether this runs in an emulator, which makes programs slower and keeps memory of its own.
constexpr bool emulated = sizeof CORVANE_EMULATOR > 1;

// The step of loops that damage a message at every place, larger where programs are many times
// slower.
constexpr size_t EVERY_PLACE = emulated || sanitized ? 7 : 1;

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
