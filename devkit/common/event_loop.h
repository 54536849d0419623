// A loop that waits for descriptors and alarms and calls functions, all in one thread.
#ifndef CORVANE_COMMON_EVENT_LOOP_H
#define CORVANE_COMMON_EVENT_LOOP_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>

#include "descriptor.h"

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

inline Clock::time_point after(Seconds seconds)
{
    return Clock::now() + std::chrono::duration_cast<Clock::duration>(seconds);
}

class Alarm;

class EventLoop {
public:
    using WatchId = uint64_t;

    EventLoop();

    // Calls `ready` with the EPOLL events of a descriptor until it is removed. The caller
    // removes it before it closes the descriptor.
    WatchId watch(int descriptor, uint32_t events, std::function<void(uint32_t)> ready);
    void change(WatchId id, uint32_t events);
    void unwatch(WatchId id);

    // Runs until stopped. `between` is called before each wait; it returns for how many
    // milliseconds to wait at most, -1 for any time. What the functions of watches and alarms
    // throw is written to standard error, and the loop goes on.
    void run(const std::function<int()>& between);
    void stop() { m_stopped = true; }

private:
    friend class Alarm;

    struct Watch {
        int descriptor;
        uint32_t events;
        std::shared_ptr<const std::function<void(uint32_t)>> ready;
    };
    // Alarms that are not set stand at the end of time.
    using Alarms = std::multimap<Clock::time_point, Alarm*>;
    static constexpr Clock::time_point never = Clock::time_point::max();

    void arm();
    void ring();

    Descriptor m_epoll;
    Descriptor m_clock;
    std::map<WatchId, Watch> m_watches;
    WatchId m_lastId = 0;
    Alarms m_alarms;
    Clock::time_point m_armedFor = never;
    bool m_stopped = false;
};

// Calls a function at a time, once each time it is set. Only making it takes memory; setting it
// cannot fail. The loop must outlive it; the function may destroy it.
class Alarm {
public:
    Alarm(EventLoop& loop, std::function<void()> call);
    ~Alarm();
    Alarm(const Alarm&) = delete;
    Alarm& operator=(const Alarm&) = delete;

    // Replaces the time that it was set to before.
    void set(Clock::time_point time);
    void clear();

private:
    friend class EventLoop;

    EventLoop& m_loop;
    const std::shared_ptr<const std::function<void()>> m_call;
    EventLoop::Alarms::iterator m_place;
};

#endif
