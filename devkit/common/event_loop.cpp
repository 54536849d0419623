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
    : m_epoll(epoll_create1(EPOLL_CLOEXEC)),
      m_clock(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC))
{
    if (!m_epoll || !m_clock)
        fail("cannot make an event loop");
    watch(m_clock.get(), EPOLLIN, [this](uint32_t) { ring(); });
}

EventLoop::WatchId EventLoop::watch(int descriptor, uint32_t events,
                                    std::function<void(uint32_t)> ready)
{
    const WatchId id = ++m_lastId;
    m_watches[id] = {descriptor, events,
                     std::make_shared<const std::function<void(uint32_t)>>(std::move(ready))};
    epoll_event event = {};
    event.events = events;
    event.data.u64 = id;
    if (epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, descriptor, &event) != 0) {
        m_watches.erase(id);
        fail("cannot watch a descriptor");
    }
    return id;
}

void EventLoop::change(WatchId id, uint32_t events)
{
    Watch& watch = m_watches.at(id);
    if (std::exchange(watch.events, events) == events)
        return;
    epoll_event event = {};
    event.events = events;
    event.data.u64 = id;
    epoll_ctl(m_epoll.get(), EPOLL_CTL_MOD, watch.descriptor, &event);
}

void EventLoop::unwatch(WatchId id)
{
    const auto found = m_watches.find(id);
    if (found == m_watches.end())
        return;
    epoll_ctl(m_epoll.get(), EPOLL_CTL_DEL, found->second.descriptor, nullptr);
    m_watches.erase(found);
}

void EventLoop::arm()
{
    if (m_alarms.empty() || m_alarms.begin()->first >= m_armedFor)
        return;
    m_armedFor = m_alarms.begin()->first;
    const auto left = std::max<Clock::duration>(m_armedFor - Clock::now(), Clock::duration(1));
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    itimerspec setting = {};
    setting.it_value.tv_sec = seconds.count();
    setting.it_value.tv_nsec = std::chrono::nanoseconds(left - seconds).count();
    timerfd_settime(m_clock.get(), 0, &setting, nullptr);
}

void EventLoop::ring()
{
    uint64_t ignored;
    [[maybe_unused]] const ssize_t count = read(m_clock.get(), &ignored, sizeof ignored);
    m_armedFor = never;
    const Clock::time_point now = Clock::now();
    while (!m_alarms.empty() && m_alarms.begin()->first <= now) {
        Alarm& alarm = *m_alarms.begin()->second;
        alarm.clear();
        const auto call = alarm.m_call;  // lives on if it ends the alarm
        withoutFailure("a timer", *call);
    }
    arm();
}

void EventLoop::run(const std::function<int()>& between)
{
    m_stopped = false;
    std::array<epoll_event, 64> events;
    while (!m_stopped) {
        const int timeout = between();
        if (m_stopped)
            return;
        const int count =
            epoll_wait(m_epoll.get(), events.data(), static_cast<int>(events.size()), timeout);
        if (count < 0 && errno != EINTR)
            fail("cannot wait for events");
        for (int i = 0; i < count; ++i) {
            const epoll_event& event = events[static_cast<size_t>(i)];
            // One that an earlier event of this round has removed is not called. The copy
            // keeps the function while it removes itself.
            const WatchId id = event.data.u64;  // unaligned there: no reference may be bound to it
            const auto found = m_watches.find(id);
            if (found == m_watches.end())
                continue;
            const auto ready = found->second.ready;
            withoutFailure("an event", [&] { (*ready)(event.events); });
        }
    }
}

Alarm::Alarm(EventLoop& loop, std::function<void()> call)
    : m_loop(loop),
      m_call(std::make_shared<const std::function<void()>>(std::move(call))),
      m_place(loop.m_alarms.emplace(EventLoop::never, this))
{
}

Alarm::~Alarm()
{
    m_loop.m_alarms.erase(m_place);
}

void Alarm::set(Clock::time_point time)
{
    auto node = m_loop.m_alarms.extract(m_place);
    node.key() = time;
    m_place = m_loop.m_alarms.insert(std::move(node));
    m_loop.arm();
}

// The clock may still go off for the time before; nothing is due then.
void Alarm::clear()
{
    set(EventLoop::never);
}
