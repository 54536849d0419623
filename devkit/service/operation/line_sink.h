// Whole lines to a descriptor, without ever waiting for who reads them.
#ifndef CORVANE_SERVICE_OPERATION_LINE_SINK_H
#define CORVANE_SERVICE_OPERATION_LINE_SINK_H

#include <sys/types.h>

#include <string>
#include <string_view>

class LineSink {
public:
    // The descriptor stays the caller's and must stay open.
    explicit LineSink(int descriptor);

    // Takes a line with its line end, or drops it if it cannot be written now, as a pipe or
    // a disk is full; false then. What is begun is finished before anything else, so that
    // lines stay whole.
    bool write(std::string_view line);

private:
    ssize_t writeSome() const;
    bool writeRest();

    const int descriptor_;
    bool isSocket_ = false;
    std::string rest_;  // of a line that is begun
};

// Descriptors 0 to 2, where they are closed, lead nowhere, so that nothing else gets their
// numbers and what is written for people.
void openStandardStreams();

// Standard error, and standard output with it, never keeps this process or those that it
// starts waiting. The flag for that holds for all who share an opening of a pipe or a
// terminal, so that it is opened once more. Sockets and other users' pipes cannot be: there
// a LineSink does not wait, and a worker that does is ended after its time.
void unblockStandardError();

#endif
