// Hex dumps into buffers of an exact size, against a model that writes a line whole and
// then cuts it. Input: five bytes for group size, row size, text column, buffer length and
// level, then the bytes.

#include <syslog.h>

#include <cstdarg>
#include <string>
#include <vector>

#include "fuzz.h"
#include "log.h"

using fuzz::Exact;

namespace {

struct Message {
    int priority;
    std::string text;
};

std::vector<Message> messages;

std::string hexOf(unsigned char byte)
{
    char digits[3];
    snprintf(digits, sizeof digits, "%02x", static_cast<unsigned>(byte));
    return digits;
}

std::string textOf(const std::string& bytes)
{
    std::string text;
    for (const char c : bytes)
        text += c >= ' ' && c <= '~' ? c : '.';
    return text;
}

// As many of the bytes as have room, each with a blank behind it but the last.
std::string byteColumn(const std::string& bytes, size_t room)
{
    std::string column;
    for (size_t i = 0; i < bytes.size() && 3 * (i + 1) <= room; ++i)
        column += hexOf(static_cast<unsigned char>(bytes[i])) + " ";
    return column.substr(0, column.empty() ? 0 : column.size() - 1);
}

// Groups of a machine with the low byte first, cut where the room ends.
std::string groupColumn(const std::string& bytes, size_t group, size_t room)
{
    std::string column;
    for (size_t i = 0; i < bytes.size(); i += group) {
        column += i == 0 ? "" : " ";
        for (size_t k = group; k-- > 0;)
            column += hexOf(static_cast<unsigned char>(bytes[i + k]));
    }
    return column.substr(0, room - 1);
}

std::string line(std::string bytes, int rowSize, int groupSize, size_t room, bool ascii)
{
    const size_t row = rowSize == 32 ? 32 : 16;
    bytes = bytes.substr(0, row);
    if (bytes.empty())
        return "";
    const bool inGroups = (groupSize == 2 || groupSize == 4 || groupSize == 8) &&
                          bytes.size() % static_cast<size_t>(groupSize) == 0;
    const size_t group = inGroups ? static_cast<size_t>(groupSize) : 1;

    std::string line = inGroups ? groupColumn(bytes, group, room) : byteColumn(bytes, room);
    if (!ascii)
        return line;
    // One blank for each group or place for a byte, and one more.
    const size_t column = inGroups ? (2 * group + 1) * (bytes.size() / group) + 1 : 3 * row + 1;
    while (line.size() < column && line.size() < room - 1)
        line += ' ';
    for (const char c : textOf(bytes))
        if (line.size() + 2 < room)
            line += c;
    return line;
}

void checkLine(const std::string& bytes, int rowSize, int groupSize, size_t room, bool ascii)
{
    Exact in(bytes);
    Exact out(room, 0xA5);
    hex_dump_to_buffer(in.data(), in.size(), rowSize, groupSize, out.chars(), room, ascii);
    if (room == 0)
        return;
    const std::string expected = line(bytes, rowSize, groupSize, room, ascii);
    HOLDS(out.text(expected.size() + 1) == expected + '\0');
}

void checkMessages(const std::string& bytes, int level, int threshold)
{
    Exact in(bytes);
    messages.clear();
    log_set_level(threshold);
    print_hex_dump(level, in.data(), in.size());

    size_t expected = 0;
    for (size_t at = 0; at < bytes.size() && threshold >= level; at += 16, ++expected) {
        char offset[16];
        snprintf(offset, sizeof offset, "0x%08zx:  ", at);
        const std::string tail = offset + line(bytes.substr(at, 16), 16, 1, 200, true);
        HOLDS(expected < messages.size());
        const Message& message = messages[expected];
        HOLDS(message.priority == 170 - 7 * level && message.text.front() == '[');
        HOLDS(message.text.size() > tail.size() &&
              message.text.substr(message.text.size() - tail.size()) == tail);
    }
    HOLDS(messages.size() == expected);
}

}  // namespace

extern "C" void syslog(int priority, const char* format, ...)
{
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    messages.push_back({priority, text});
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    const int groupSize = static_cast<int>(input.pick(18)) - 1;
    const int rowSize = input.pick(2) == 1 ? 32 : static_cast<int>(input.pick(40)) - 1;
    const bool ascii = input.pick(2) == 1;
    const size_t room = input.pick(256);
    const int level = static_cast<int>(input.pick(6));
    const int threshold = static_cast<int>(input.pick(8)) - 1;
    const std::string bytes = input.rest();

    checkLine(bytes, rowSize, groupSize, room, ascii);
    checkMessages(bytes, level, threshold);
    return 0;
}
