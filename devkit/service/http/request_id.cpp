#include "request_id.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "common/codec.h"

std::string makeId()
{
    constexpr size_t size = 8;
    // Of many ids at once, for each thread its own.
    thread_local std::array<unsigned char, 64 * size> random = {};
    thread_local size_t used = random.size();
    if (used == random.size()) {
        [[maybe_unused]] const ssize_t count = getrandom(random.data(), random.size(), 0);
        used = 0;
    }
    const std::string_view bytes(reinterpret_cast<const char*>(random.data()) + used, size);
    used += size;
    return toHex(bytes);
}

bool isRequestId(std::string_view text)
{
    constexpr size_t longest = 64;
    return !text.empty() && text.size() <= longest &&
           std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      std::string_view("-_.").find(c) != std::string_view::npos;
           });
}
