// The program's own output: standard output, without what libraries print there, and files.
#ifndef CORVANE_HOST_OUTPUT_H
#define CORVANE_HOST_OUTPUT_H

#include <stdexcept>
#include <string>
#include <string_view>

// A wrong command line or script, or a file that cannot be read or written. Several mistakes stand
// in lines of their own.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Collects what is wrong, so that all of it is told at once.
class Mistakes {
public:
    void add(const std::string& mistake) { m_all += (m_all.empty() ? "" : "\n") + mistake; }
    // Throws a UsageError if there are some.
    void refuse() const
    {
        if (!m_all.empty())
            throw UsageError(m_all);
    }

private:
    std::string m_all;
};

// The lines of a text, each behind the prefix.
std::string inEachLine(const std::string& prefix, const std::string& text);

// Takes standard output over: only this object writes to it, and what anything else
// writes to descriptor 1 goes to standard error.
class Output {
public:
    Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    // Writes all of it, or throws a UsageError.
    void write(std::string_view text) const;

    // Whether a person reads it.
    bool isTerminal() const;
    // For a writer that must not wait, as write() may.
    int descriptor() const { return m_descriptor; }

    // Makes descriptor 1 standard output again, before another program is executed.
    void giveBack() const;

private:
    int m_descriptor;
};

// A file of results. Only its owner may read it, as it may hold a key. It is there when it is
// whole: an unfinished one is removed, and a file that is to be replaced stays until then. A
// symbolic link is replaced and not followed. Devices and pipes are just written to.
class OutputFile {
public:
    // Opens the file, so that an error comes before there are results. Throws a UsageError, also
    // if the file exists, unless it may be replaced.
    OutputFile(const std::string& path, bool mayReplace);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // All that the file shall hold; to be called once. Throws a UsageError.
    void write(std::string_view text);
    // Leaves what was written in its place. Throws a UsageError.
    void keep();

private:
    void openBeside();

    std::string m_path;
    std::string m_unfinished;  // the file to remove unless it is kept, or ""
    int m_file = -1;
};

// When what is written has colours.
enum class Colours {
    Auto,  // on a terminal, unless NO_COLOR is set (no-color.org)
    Always,
    Never,
};
bool hasColours(Colours colours, int descriptor);

// How many columns a terminal's lines have, 40 to 120, or 80 if it does not tell; 0 for what is no
// terminal.
size_t columnsOf(int descriptor);

// Whether a path stands for standard output, as "-", "/dev/stdout" and "" do.
bool isStandardOutput(const std::string& path);

#endif
