// Texts whose lines are broken to fit a terminal.
#ifndef CORVANE_TESTS_ONE_LINE_H
#define CORVANE_TESTS_ONE_LINE_H

#include <sstream>
#include <string>

namespace support {

// The words of a text, whatever its lines.
inline std::string inOneLine(const std::string& text)
{
    std::istringstream stream(text);
    std::string line;
    for (std::string word; stream >> word;)
        line += (line.empty() ? "" : " ") + word;
    return line;
}

}  // namespace support

#endif
