#include "event_loop.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include "failure.h"

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
    watch(clock_.get(), EPOLLIN, [this](uint32_t) { ring(); });
}

EventLoop::WatchId EventLoop::watch(int descriptor, uint32_t events,
                                    std::function<void(uint32_t)> ready)
{
    const WatchId id = ++lastId_;
    watches_[id] = {descriptor, events,
                    std::make_shared<const std::function<void(uint32_t)>>(std::move(ready))};
    epoll_event event = {};
    event.events = events;
    event.data.u64 = id;
    if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &event) != 0) {
        watches_.erase(id);
        fail("cannot watch a descriptor");
    }
    return id;
}

void EventLoop::change(WatchId id, uint32_t events)
{
    Watch& watch = watches_.at(id);
    if (std::exchange(watch.events, events) == events)
        return;
    epoll_event event = {};
    event.events = events;
    event.data.u64 = id;
    epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, watch.descriptor, &event);
}

void EventLoop::unwatch(WatchId id)
{
    const auto found = watches_.find(id);
    if (found == watches_.end())
        return;
    epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, found->second.descriptor, nullptr);
    watches_.erase(found);
}

void EventLoop::arm()
{
    if (alarms_.empty() || alarms_.begin()->first >= armedFor_)
        return;
    armedFor_ = alarms_.begin()->first;
    const auto left = std::max<Clock::duration>(armedFor_ - Clock::now(), Clock::duration(1));
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    itimerspec setting = {};
    setting.it_value.tv_sec = seconds.count();
    setting.it_value.tv_nsec = std::chrono::nanoseconds(left - seconds).count();
    timerfd_settime(clock_.get(), 0, &setting, nullptr);
}

void EventLoop::ring()
{
    uint64_t ignored;
    [[maybe_unused]] const ssize_t count = read(clock_.get(), &ignored, sizeof ignored);
    armedFor_ = never;
    const Clock::time_point now = Clock::now();
    while (!alarms_.empty() && alarms_.begin()->first <= now) {
        Alarm& alarm = *alarms_.begin()->second;
        alarm.clear();
        const auto call = alarm.call_;  // lives on if it ends the alarm
        withoutFailure("a timer", *call);
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
            withoutFailure("an event", [&] { (*ready)(event.events); });
        }
    }
}

Alarm::Alarm(EventLoop& loop, std::function<void()> call)
    : loop_(loop),
      call_(std::make_shared<const std::function<void()>>(std::move(call))),
      place_(loop.alarms_.emplace(EventLoop::never, this))
{
}

Alarm::~Alarm()
{
    loop_.alarms_.erase(place_);
}

void Alarm::set(Clock::time_point time)
{
    auto node = loop_.alarms_.extract(place_);
    node.key() = time;
    place_ = loop_.alarms_.insert(std::move(node));
    loop_.arm();
}

// The clock may still go off for the time before; nothing is due then.
void Alarm::clear()
{
    set(EventLoop::never);
}
