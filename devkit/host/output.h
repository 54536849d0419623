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

    // Whether a person reads it.
    bool isTerminal() const;
    // For one that must not wait as write() does.
    int descriptor() const { return m_descriptor; }

    // Gives descriptor 1 back, for a program that takes this one's place.
    void giveBack() const;

private:
    int m_descriptor;
};

// A file of results, its owner's alone, as it may hold a key. It is whole or not there: what
// was not written to the end is removed, and a file that is to be replaced stays until then.
// A link is replaced and not followed. Devices and pipes are just written to.
class OutputFile {
public:
    // Opens it, so that what is in its way is known before there are results. Throws a
    // UsageError, also for a file that exists, unless it may be replaced.
    OutputFile(const std::string& path, bool mayReplace);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // Once. Throws a UsageError.
    void write(std::string_view text);

private:
    void openBeside();

    std::string m_path;
    std::string m_unfinished;  // what to remove if nothing is written; "" if nothing
    int m_file = -1;
};

// Whether a path stands for standard output; the empty one does too.
bool isStandardOutput(const std::string& path);

#endif
