#include "event_loop.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace {

[[noreturn]] void fail(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

EventLoop::EventLoop()
    : epoll_(epoll_create1(EPOLL_CLOEXEC)),
      clock_(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC))
{
    if (!epoll_ || !clock_)
        fail("cannot make an event loop");
    watch(clock_.get(), EPOLLIN, [this](uint32_t) { runTimers(); });
}

EventLoop::WatchId EventLoop::watch(int descriptor, uint32_t events,
                                    std::function<void(uint32_t)> ready)
{
    const WatchId id = ++lastId_;
    epoll_event event = {};
    event.events = events;
    event.data.u64 = id;
    if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &event) != 0)
        fail("cannot watch a descriptor");
    watches_[id] = {descriptor, std::move(ready)};
    return id;
}

void EventLoop::change(WatchId id, uint32_t events)
{
    epoll_event event = {};
    event.events = events;
    event.data.u64 = id;
    epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, watches_.at(id).descriptor, &event);
}

void EventLoop::unwatch(WatchId id)
{
    const auto found = watches_.find(id);
    if (found == watches_.end())
        return;
    epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, found->second.descriptor, nullptr);
    watches_.erase(found);
}

EventLoop::Timer EventLoop::at(Clock::time_point time, std::function<void()> call)
{
    const Timer timer = timers_.emplace(time, std::move(call));
    arm();
    return timer;
}

// The clock may still go off for it; nothing is due then.
void EventLoop::cancel(Timer timer)
{
    timers_.erase(timer);
}

void EventLoop::arm()
{
    if (timers_.empty() || timers_.begin()->first >= armedFor_)
        return;
    armedFor_ = timers_.begin()->first;
    const auto left = std::max<Clock::duration>(armedFor_ - Clock::now(), Clock::duration(1));
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    itimerspec setting = {};
    setting.it_value.tv_sec = seconds.count();
    setting.it_value.tv_nsec = std::chrono::nanoseconds(left - seconds).count();
    timerfd_settime(clock_.get(), 0, &setting, nullptr);
}

void EventLoop::runTimers()
{
    uint64_t ignored;
    [[maybe_unused]] const ssize_t count = read(clock_.get(), &ignored, sizeof ignored);
    armedFor_ = Clock::time_point::max();
    const Clock::time_point now = Clock::now();
    while (!timers_.empty() && timers_.begin()->first <= now) {
        const auto call = std::move(timers_.begin()->second);
        timers_.erase(timers_.begin());
        call();
    }
    arm();
}

void EventLoop::run(const std::function<int()>& between)
{
    stopped_ = false;
    std::array<epoll_event, 64> events;
    while (!stopped_) {
        const int timeout = between();
        if (stopped_)
            return;
        const int count =
            epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), timeout);
        if (count < 0 && errno != EINTR)
            fail("cannot wait for events");
        for (int i = 0; i < count; ++i) {
            const epoll_event& event = events[static_cast<size_t>(i)];
            // One that an earlier event of this round has removed is not called. The copy
            // keeps the function while it removes itself.
            const auto found = watches_.find(event.data.u64);
            if (found == watches_.end())
                continue;
            const auto ready = found->second.ready;
            ready(event.events);
        }
    }
}
