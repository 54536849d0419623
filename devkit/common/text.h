// Comparing and trimming the texts of headers.
#ifndef CORVANE_COMMON_TEXT_H
#define CORVANE_COMMON_TEXT_H

#include <string_view>

// Whether the texts are the same but for the case of ASCII letters.
bool equalIgnoringCase(std::string_view a, std::string_view b);
// The text without the blanks and tabs at its ends.
std::string_view trimmed(std::string_view text);

#endif
