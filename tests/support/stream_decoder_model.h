// What the streaming Base64 decoder does, for tests that look at each of its calls.
#ifndef CORVANE_TESTS_STREAM_DECODER_MODEL_H
#define CORVANE_TESTS_STREAM_DECODER_MODEL_H

#include <string>

#include "support/stream_bytes.h"

namespace support {

// What the decoder has to do, one character at a time.
struct DecoderModel {
    bool skips(char c) const { return c != '=' && ALPHABET.find(c) == std::string::npos; }
    static unsigned sextet(char c) { return static_cast<unsigned>(ALPHABET.find(c)); }
    // What a call returns; `out` receives what it has written.
    int update(const std::string& text, std::string& out)
    {
        out.clear();
        std::string group = pending;
        pending.clear();
        for (char c : text) {
            if (skips(c))
                continue;
            group += c;
            if (group.size() < 4)
                continue;
            size_t padding = group.find('=');
            if (padding == std::string::npos) {
                append(group, 3, out);
            } else {
                if (padding < 2 || group.find_first_not_of('=', padding) != std::string::npos)
                    return 0;
                append(group, padding - 1, out);
                return static_cast<int>(out.size());
            }
            group.clear();
        }
        pending = group;
        return static_cast<int>(out.size());
    }
    static void append(const std::string& group, size_t count, std::string& out)
    {
        unsigned bits = 0;
        for (char c : group)
            bits = bits << 6 | (c == '=' ? 0 : sextet(c));
        for (size_t i = 0; i < count; i++)
            out += static_cast<char>(bits >> (16 - 8 * i));
    }

    std::string pending;
};

}  // namespace support

#endif
