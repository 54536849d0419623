// Texts of headers: what they are compared by, and what stands around them.
#ifndef CORVANE_COMMON_TEXT_H
#define CORVANE_COMMON_TEXT_H

#include <string_view>

// Of ASCII letters.
bool equalIgnoringCase(std::string_view a, std::string_view b);
// Without the blanks and tabs around it.
std::string_view trimmed(std::string_view text);

#endif
