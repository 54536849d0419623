// Captures what the plug-in says to the system: syslog, the dynamic loader's calls and
// standard output. A test program that links this answers syslog, openlog, closelog,
// dlopen and dlclose itself, for the plug-in as well; syslog messages go nowhere else.
#ifndef CORVANE_TESTS_CAPTURE_H
#define CORVANE_TESTS_CAPTURE_H

#include <map>
#include <string>

#include "doubles/journal.h"

namespace support {

// While it lives, the calls go into the journal:
//   syslog    priority, format, text (formatted), function, file, line (the prefix's)
//   openlog   ident, options, facility
//   closelog
//   dlopen    path, flags, handle
//   dlclose   handle
class SystemCapture {
public:
    explicit SystemCapture(doubles::Journal& journal);
    SystemCapture(const SystemCapture&) = delete;
    SystemCapture& operator=(const SystemCapture&) = delete;
    ~SystemCapture();

private:
    doubles::Journal* previous;
};

// While it lives, dlopen opens the file that stands beside a name in place of the name.
class LoaderDetour {
public:
    using Files = std::map<std::string, std::string>;  // by name

    LoaderDetour();
    LoaderDetour(const LoaderDetour&) = delete;
    LoaderDetour& operator=(const LoaderDetour&) = delete;
    ~LoaderDetour();

    Files files;
};

// While it lives, standard output goes into a file of its own.
class StdoutCapture {
public:
    StdoutCapture();
    StdoutCapture(const StdoutCapture&) = delete;
    StdoutCapture& operator=(const StdoutCapture&) = delete;
    ~StdoutCapture();

    // What was printed so far.
    std::string text();
    // The same, which is forgotten then.
    std::string take();

private:
    int file;
    int original;
};

// What `body` prints. A failed expectation inside ends up in it as well.
template <class Body>
std::string printedBy(Body body)
{
    StdoutCapture output;
    body();
    return output.text();
}

}  // namespace support

#endif
