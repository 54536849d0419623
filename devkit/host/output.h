// The program's standard output, kept clean of what libraries print.
#ifndef CORVANE_HOST_OUTPUT_H
#define CORVANE_HOST_OUTPUT_H

#include <stdexcept>
#include <string>
#include <string_view>

// A wrong command line or script, or a file that cannot be read or written.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Takes standard output over: only this object writes to it, and what anything else
// writes to descriptor 1 goes to standard error.
class Output {
public:
    Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    // Whole or not at all as far as the program is concerned: throws a UsageError.
    void write(std::string_view text) const;
    // The same to a file, which is made or replaced; an empty path means this output.
    void write(std::string_view text, const std::string& path) const;

    // Whether a person reads it.
    bool isTerminal() const;

    // Gives descriptor 1 back, for a program that takes this one's place.
    void giveBack() const;

private:
    int descriptor_;
};

#endif
