#include "log.h"

#include <strings.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "secret_text.h"

int _log_level = 4;

void log_open(const char* ident, bool alsoStderr)
{
    openlog(ident, LOG_PID | LOG_CONS | (alsoStderr ? LOG_PERROR : 0), LOG_USER);
}

int log_get_level(const char* name)
{
    static const char* const names[] = {"crit", "err", "warning", "notice", "info", "debug"};
    constexpr int defaultLevel = 4;

    if (name == nullptr)
        return defaultLevel;
    int level = 0;
    for (const char* known : names) {
        if (strcasecmp(name, known) == 0)
            return level;
        ++level;
    }
    return defaultLevel;
}

void log_set_level(int level)
{
    _log_level = level;
}

void log_close(void)
{
    closelog();
}

namespace {

constexpr unsigned long ROW = 16;         // bytes that a dump shows in one line
constexpr unsigned long LINE_SIZE = 200;  // ample for a row's 65 characters

// A dump's line under construction. Never writes beyond the room, of which the last
// byte is kept for the terminator.
struct Line {
    char* text;
    unsigned long room;  // at least 1
    unsigned long at;
};

// Appends the groups of width sizeof(Group), separated by single spaces.
template <class Group, class Printed>
void appendGroups(Line& line, const unsigned char* bytes, unsigned long len, const char* format)
{
    for (unsigned long i = 0; i < len && line.at < line.room; i += sizeof(Group)) {
        Group group;
        memcpy(&group, bytes + i, sizeof group);  // buf need not be aligned
        const int reported = snprintf(line.text + line.at, line.room - line.at, format,
                                      i == 0 ? "" : " ", static_cast<Printed>(group));
        if (reported > 0)
            line.at += static_cast<unsigned long>(reported);
    }
    if (line.at >= line.room)  // snprintf counts what it had no room for
        line.at = line.room - 1;
}

void appendBytes(Line& line, const unsigned char* bytes, unsigned long len)
{
    static const char digits[] = "0123456789abcdef";

    for (unsigned long i = 0; i < len && line.at + 3 <= line.room; ++i) {
        line.text[line.at++] = digits[bytes[i] >> 4];
        line.text[line.at++] = digits[bytes[i] & 15];
        line.text[line.at++] = ' ';
    }
    if (line.at > 0)
        --line.at;
}

void appendText(Line& line, const unsigned char* bytes, unsigned long len, unsigned long column)
{
    while (line.at < column - 1 && line.at < line.room - 1)
        line.text[line.at++] = ' ';
    for (unsigned long i = 0; i < len && line.at + 2 < line.room; ++i) {
        const unsigned char c = bytes[i];
        line.text[line.at++] = c < 128 && isprint(c) ? static_cast<char>(c) : '.';
    }
}

unsigned long rowLength(unsigned long len, unsigned long offset)
{
    return len - offset < ROW ? len - offset : ROW;
}

void formatRow(const void* buf, unsigned long len, unsigned long offset, char* line)
{
    hex_dump_to_buffer(static_cast<const unsigned char*>(buf) + offset, rowLength(len, offset), ROW,
                       1, line, LINE_SIZE, true);
}

// Prints a row unless the level has been lowered meanwhile.
void printRow(const char* line, unsigned long offset)
{
    if (_log_level > 4)
        printf("0x%08x:  %s\n", static_cast<unsigned>(offset), line);
}

}  // namespace

void hex_dump_to_buffer(const void* buf, unsigned long len, int rowsize, int groupsize,
                        char* linebuf, unsigned long linebuflen, bool ascii)
{
    if (linebuflen == 0)
        return;

    const auto* bytes = static_cast<const unsigned char*>(buf);
    const unsigned long row = rowsize == 32 ? 32 : 16;
    Line line = {linebuf, linebuflen, 0};
    if (len > row)
        len = row;

    unsigned long group = groupsize > 0 ? static_cast<unsigned long>(groupsize) : 1;
    if (len % group != 0)
        group = 1;

    if (len > 0) {
        unsigned long column = 0;  // of the text beside the digits, counted from 1
        switch (group) {
            case 8:
                appendGroups<uint64_t, unsigned long long>(line, bytes, len, "%s%16.16llx");
                column = 17 * (len / group) + 2;
                break;
            case 4:
                appendGroups<uint32_t, unsigned>(line, bytes, len, "%s%8.8x");
                column = 9 * (len / group) + 2;
                break;
            case 2:
                appendGroups<uint16_t, unsigned>(line, bytes, len, "%s%4.4x");
                column = 5 * (len / group) + 2;
                break;
            default:
                appendBytes(line, bytes, len);
                column = 3 * row + 2;
        }
        if (ascii)
            appendText(line, bytes, len, column);
    }
    line.text[line.at] = '\0';
}

void print_hex_dump(int level, const void* buf, unsigned long len)
{
    if (buf == nullptr || len == 0)
        return;

    char line[LINE_SIZE];
    const WipedBytes wiped(line, sizeof line);
    for (unsigned long i = 0; i < len; i += ROW) {
        formatRow(buf, len, i, line);
        if (level >= 0 && level <= 5)
            CORVANE_LOG_FORMAT(level, "0x%08x:  %s", static_cast<unsigned>(i), line);
        else
            printRow(line, i);
    }
}

void print_hex_buf(const char* caption, const void* buf, unsigned long len)
{
    if (_log_level <= 4 || buf == nullptr || len == 0)
        return;

    char line[LINE_SIZE];
    const WipedBytes wiped(line, sizeof line);
    printf("\n");
    printf("inner--->  %s size: %d \n", caption, static_cast<int>(len));
    for (unsigned long i = 0; i < len; i += ROW) {
        formatRow(buf, len, i, line);
        printRow(line, i);
    }
    printf("\n");
}
