// The plug-in as it was built, looked at by the binutils.
#ifndef CORVANE_TESTS_BUILT_LIBRARY_H
#define CORVANE_TESTS_BUILT_LIBRARY_H

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "shell.h"

namespace support {

inline const std::string LIBRARY = CORVANE_PLUGIN_LIBRARY;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

// The output of one of the binutils over the library, line by line.
inline std::vector<std::string> tool(const std::string& command)
{
    std::vector<std::string> lines;
    const ShellOutcome ended = shell(CORVANE_TOOLCHAIN + command + " '" + LIBRARY + "'");
    EXPECT_EQ(ended.status, 0) << command << ended.output;
    std::istringstream stream(ended.output);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    EXPECT_FALSE(lines.empty()) << command;
    return lines;
}

inline bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

}  // namespace support

#endif
