// One thread's loop over descriptors and times.
#ifndef CORVANE_HOST_SERVE_EVENT_LOOP_H
#define CORVANE_HOST_SERVE_EVENT_LOOP_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>

#include "descriptor.h"

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

inline Clock::time_point after(Seconds seconds)
{
    return Clock::now() + std::chrono::duration_cast<Clock::duration>(seconds);
}

class EventLoop {
public:
    using Timers = std::multimap<Clock::time_point, std::function<void()>>;
    using Timer = Timers::iterator;
    using WatchId = uint64_t;

    EventLoop();

    // Calls `ready` with the EPOLL events of a descriptor until it is removed. The caller
    // removes it before it closes the descriptor.
    WatchId watch(int descriptor, uint32_t events, std::function<void(uint32_t)> ready);
    void change(WatchId id, uint32_t events);
    void unwatch(WatchId id);

    // Calls once. A timer is forgotten before its call; it must not be cancelled then.
    Timer at(Clock::time_point time, std::function<void()> call);
    void cancel(Timer timer);

    // Runs until stopped. `between` is called before each wait and tells for how many
    // milliseconds to wait at most; -1 for any time.
    void run(const std::function<int()>& between);
    void stop() { stopped_ = true; }

private:
    struct Watch {
        int descriptor;
        std::function<void(uint32_t)> ready;
    };

    void arm();
    void runTimers();

    Descriptor epoll_;
    Descriptor clock_;
    std::map<WatchId, Watch> watches_;
    WatchId lastId_ = 0;
    Timers timers_;
    Clock::time_point armedFor_ = Clock::time_point::max();
    bool stopped_ = false;
};

#endif
