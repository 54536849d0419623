// A handler for its base's text utilities, and texts for them.
#ifndef CORVANE_TESTS_TEXT_HANDLER_H
#define CORVANE_TESTS_TEXT_HANDLER_H

#include <gtest/gtest.h>

#include <string>

#include "WebServerBase.h"

namespace support {

inline const std::string LETTERS_AND_DIGITS =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";

class Handler : public CWebServerBase {
public:
    std::string Request() override { return ""; }
};

class Text : public testing::Test {
protected:
    Handler handler;
};

inline std::string escaped(const std::string& text)
{
    const std::string kept = LETTERS_AND_DIGITS + "-_.~!*'()";
    std::string out;
    for (char c : text) {
        if (kept.find(c) != std::string::npos) {
            out += c;
        } else {
            char escape[4];
            snprintf(escape, sizeof escape, "%%%02X", static_cast<unsigned>(c) & 0xff);
            out += escape;
        }
    }
    return out;
}

inline std::string allBytes()
{
    std::string bytes;
    for (int byte = 0; byte < 256; byte++)
        bytes += static_cast<char>(byte);
    return bytes;
}

}  // namespace support

#endif
