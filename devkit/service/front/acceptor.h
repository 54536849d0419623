// Takes connections for several front threads: each goes to the thread that has the fewest.
#ifndef CORVANE_SERVICE_FRONT_ACCEPTOR_H
#define CORVANE_SERVICE_FRONT_ACCEPTOR_H

#include <memory>
#include <vector>

#include "front_thread.h"

class Acceptor {
public:
    using Threads = std::vector<std::unique_ptr<FrontThread>>;

    // Beyond `most` connections at once, the system keeps them waiting. The threads outlive it.
    Acceptor(EventLoop& loop, Descriptor listening, const Threads& threads, size_t most);
    ~Acceptor();
    Acceptor(const Acceptor&) = delete;
    Acceptor& operator=(const Acceptor&) = delete;

    // Goes on where connections have ended; call it before each wait for events.
    void run();
    // Takes what the system has made already, and then no more.
    void drain();

private:
    bool acceptOne();
    bool hasRoom() const;

    EventLoop& m_loop;
    Descriptor m_listening;
    const Threads& m_threads;
    const size_t m_most;
    EventLoop::WatchId m_watch = 0;
    bool m_isResting = false;
    Alarm m_rested;
};

#endif
