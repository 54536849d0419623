// A line of a hex dump as its definition reads, and bytes to dump.
#ifndef CORVANE_TESTS_DUMP_MODEL_H
#define CORVANE_TESTS_DUMP_MODEL_H

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>

namespace support {

// `room` is the size of the buffer.
inline std::string lineModel(const std::string& bytes, int rowsize, int groupsize, size_t room,
                             bool ascii)
{
    const size_t row = rowsize == 32 ? 32 : 16;
    const std::string shown = bytes.substr(0, row);
    size_t group = groupsize == 8 || groupsize == 4 || groupsize == 2 ? size_t(groupsize) : 1;
    if (shown.size() % group != 0)
        group = 1;

    std::string line;
    size_t column;
    if (room == 0 || bytes.empty())
        return line;
    if (group == 1) {
        for (char byte : shown) {
            if (line.size() + 3 > room)
                break;
            char digits[4];
            snprintf(digits, sizeof digits, "%02x ", static_cast<unsigned>(byte) & 0xff);
            line += digits;
        }
        if (!line.empty())
            line.pop_back();
        column = 3 * row + 2;
    } else {
        for (size_t at = 0; at < shown.size(); at += group) {
            std::string native = shown.substr(at, group);
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
            std::reverse(native.begin(), native.end());
#endif
            if (at > 0)
                line += ' ';
            for (char byte : native) {
                char digits[3];
                snprintf(digits, sizeof digits, "%02x", static_cast<unsigned>(byte) & 0xff);
                line += digits;
            }
        }
        column = (2 * group + 1) * (shown.size() / group) + 2;
        line = line.substr(0, room - 1);
    }
    if (ascii) {
        while (line.size() < std::min(column - 1, room - 1))
            line += ' ';
        for (size_t i = 0; i < shown.size() && line.size() + 2 < room; i++)
            line += shown[i] >= 0x20 && shown[i] <= 0x7e ? shown[i] : '.';
    }
    return line;
}

inline std::string someBytes(size_t size)
{
    std::mt19937 random(static_cast<unsigned>(size));
    std::string bytes;
    while (bytes.size() < size)
        bytes += static_cast<char>(random() % 3 == 0 ? random() : 0x20 + random() % 0x5f);
    return bytes;
}

}  // namespace support

#endif
