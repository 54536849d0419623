#include "request_id.h"

#include <sys/random.h>

#include <array>

std::string makeId()
{
    std::array<unsigned char, 8> random = {};
    [[maybe_unused]] const ssize_t count = getrandom(random.data(), random.size(), 0);
    std::string id;
    for (const unsigned byte : random) {
        id += "0123456789abcdef"[byte >> 4U];
        id += "0123456789abcdef"[byte & 15U];
    }
    return id;
}
