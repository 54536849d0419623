// Parameters and results as the host carries them.
#ifndef CORVANE_COMMON_PAIRS_H
#define CORVANE_COMMON_PAIRS_H

#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Names and values in the order in which they are stored or were written. Both may
// hold any bytes.
using Pairs = std::vector<std::pair<std::string, std::string>>;

// The first value of that name, or null.
const std::string* findValue(const Pairs& pairs, const std::string& name);

// The text with the value of a name for each {name}. Other braces stay.
std::string filled(std::string_view text, const Pairs& values);

#endif
