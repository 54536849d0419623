// Files that a person names, or standard input.
#ifndef CORVANE_HOST_INPUT_H
#define CORVANE_HOST_INPUT_H

#include <optional>
#include <string>

// All that can be read; nothing, with errno set, if something cannot.
std::optional<std::string> readAll(int descriptor);
std::optional<std::string> readFile(const std::string& path);

// How a path is called: "-" is standard input.
std::string inputName(const std::string& path);

// All of a file, or of standard input for "-". Throws a UsageError that says why not.
std::string readInput(const std::string& path);

#endif
