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

    // Writes lines, each with its line end, and returns how many of them it took. The others
    // are dropped: they cannot be written now, as a pipe or a disk is full. A line that is
    // begun is finished before anything else is written, so that lines stay whole. Lines up
    // to PIPE_BUF bytes are not mixed with what others write to the same pipe.
    size_t write(std::string_view lines);

private:
    ssize_t writeSome(std::string_view bytes) const;
    size_t writeAll(std::string_view bytes) const;
    bool writeRest();

    const int m_descriptor;
    bool m_isSocket = false;
    bool m_isFile = false;  // which nobody reads from the other end
    std::string m_rest;     // of a line that is begun
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
