#include "worker_pool.h"

#include <sys/epoll.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <system_error>

#include "secrets.h"

namespace {

// A start that failed is repeated after a tenth of a second, then after twice the time
// of before, up to this.
constexpr double longestDelay = 5;

// A worker that dies again and again without having served is not started at once.
constexpr unsigned mostIdleLives = 5;

}  // namespace

WorkerPool::WorkerPool(EventLoop& loop, PoolOptions options, std::function<void()> onReady,
                       std::function<void(WorkerLife)> onEnd)
    : loop_(loop),
      options_(std::move(options)),
      onReady_(std::move(onReady)),
      onEnd_(std::move(onEnd)),
      slots_(options_.workers)
{
    for (size_t slot = 0; slot < slots_.size(); ++slot)
        start(slot);
}

WorkerPool::~WorkerPool()
{
    stop(Seconds(0));
}

void WorkerPool::start(size_t slot)
{
    Slot& place = slots_[slot];
    ++place.info.generation;
    place.info.state = State::Starting;
    place.info.everReady = false;
    try {
        place.process = std::make_unique<WorkerProcess>(options_.program, options_.command);
    } catch (const std::system_error& e) {
        fprintf(stderr, "corvane-host: %s\n", e.what());
        return startLater(slot);
    }
    place.info.pid = place.process->pid();
    place.watch = loop_.watch(place.process->socket(), EPOLLIN,
                              [this, slot](uint32_t events) { onEvents(slot, events); });
    place.servedBefore = place.info.served;
    limitTime(slot);
}

void WorkerPool::startLater(size_t slot)
{
    Slot& place = slots_[slot];
    const double delay = std::min(0.1 * (1U << std::min(place.failedStarts, 10U)), longestDelay);
    ++place.failedStarts;
    loop_.at(after(Seconds(delay)), [this, slot] {
        if (!stopping_)
            start(slot);
    });
}

void WorkerPool::onEvents(size_t slot, uint32_t events)
{
    Slot& place = slots_[slot];
    if (!place.process)
        return;
    const WorkerLife life = lifeOf(slot);
    WorkerProcess& process = *place.process;
    if (process.isSending() && !process.send())
        return end(slot, Ending::Died);
    if ((events & ~static_cast<uint32_t>(EPOLLOUT)) != 0) {
        // What came before its end counts.
        const bool alive = process.receive();
        WireReply reply;
        bool good = true;
        if (process.take(reply, good))
            onReply(slot, reply);
        if (life == lifeOf(slot) && (!alive || !good))
            return end(slot, Ending::Died);
    }
    if (life == lifeOf(slot) && place.process)
        loop_.change(place.watch, process.isSending() ? EPOLLIN | EPOLLOUT : EPOLLIN);
    pump();
}

void WorkerPool::onReply(size_t slot, WireReply& reply)
{
    Slot& place = slots_[slot];
    if (reply.kind == WireReply::Ready && !place.info.everReady) {
        unlimitTime(place);
        place.info.everReady = true;
        place.info.state = State::Idle;
        place.failedStarts = 0;
        version_ = reply.text;
        return onReady_();
    }
    if (!place.current || reply.kind == WireReply::Ready)
        return end(slot, Ending::Died);

    Task task = std::move(*place.current);
    place.current.reset();
    unlimitTime(place);
    place.info.state = State::Idle;
    ++place.info.served;
    task.done(Ending::Answered, reply, lifeOf(slot));
    wipe(reply.results);
}

void WorkerPool::limitTime(size_t slot)
{
    slots_[slot].timer = loop_.at(after(options_.taskTime), [this, slot] {
        slots_[slot].timer.reset();
        end(slot, Ending::TimedOut);
    });
}

void WorkerPool::unlimitTime(Slot& place)
{
    if (place.timer)
        loop_.cancel(*place.timer);
    place.timer.reset();
}

void WorkerPool::end(size_t slot, Ending ending)
{
    Slot& place = slots_[slot];
    const WorkerLife life = lifeOf(slot);
    const bool wasReady = place.info.everReady;
    const bool wasIdle = place.info.served == place.servedBefore && !place.current;
    place.idleLives = wasReady && wasIdle ? place.idleLives + 1 : 0;
    unlimitTime(place);
    loop_.unwatch(place.watch);
    place.process.reset();
    place.info.pid = -1;
    place.info.state = State::Starting;
    place.info.everReady = false;

    // Replaced before its tasks are told, which takes no time.
    if (!stopping_) {
        ++place.info.restarts;
        if (wasReady && place.idleLives < mostIdleLives)
            start(slot);
        else
            startLater(slot);
    }

    if (place.current) {
        Task task = std::move(*place.current);
        place.current.reset();
        tell(task, ending, life);
    }
    std::deque<Waiting> bound = std::move(place.bound);
    place.bound.clear();
    for (Waiting& waiting : bound) {
        loop_.cancel(waiting.timer);
        --queued_;
        tell(waiting.task, Ending::LifeIsOver, life);
    }
    onEnd_(life);
    pump();
}

void WorkerPool::tell(Task& task, Ending ending, WorkerLife life)
{
    WireReply none;
    wipe(task.request.parameters);
    task.done(ending, none, life);
}

void WorkerPool::submit(Task task)
{
    if (stopping_)
        return tell(task, Ending::NotServed, {});
    if (task.bound && !(*task.bound == lifeOf(task.bound->slot)))
        return tell(task, Ending::LifeIsOver, *task.bound);

    auto& queue = task.bound ? slots_[task.bound->slot].bound : shared_;
    const uint64_t serial = ++lastSerial_;
    const auto timer = loop_.at(after(options_.taskTime), [this, serial] { giveUp(serial); });
    queue.push_back({std::move(task), timer, serial});
    ++queued_;
    pump();
}

// The one that has waited longest of what a worker may take.
void WorkerPool::pump()
{
    for (size_t slot = 0; slot < slots_.size(); ++slot) {
        Slot& place = slots_[slot];
        if (place.info.state != State::Idle || !place.process)
            continue;
        const bool haveBound = !place.bound.empty();
        if (haveBound && (shared_.empty() || place.bound.front().serial < shared_.front().serial))
            begin(slot, place.bound);
        else if (!shared_.empty())
            begin(slot, shared_);
    }
}

void WorkerPool::begin(size_t slot, std::deque<Waiting>& queue)
{
    Slot& place = slots_[slot];
    loop_.cancel(queue.front().timer);
    place.current = std::move(queue.front().task);
    queue.pop_front();
    --queued_;

    place.info.state = State::Busy;
    limitTime(slot);
    Task& task = *place.current;
    place.process->post(encode(task.request), std::move(task.files));
    task.files.clear();
    wipe(task.request.parameters);
    // A process that is gone is found out by its event.
    place.process->send();
    if (place.process->isSending())
        loop_.change(place.watch, EPOLLIN | EPOLLOUT);
}

void WorkerPool::giveUp(uint64_t serial)
{
    const auto removeFrom = [&](std::deque<Waiting>& queue) {
        const auto found = std::find_if(queue.begin(), queue.end(), [&](const Waiting& waiting) {
            return waiting.serial == serial;
        });
        if (found == queue.end())
            return;
        Task task = std::move(found->task);
        queue.erase(found);
        --queued_;
        tell(task, Ending::NotServed, {});
    };
    removeFrom(shared_);
    for (Slot& place : slots_)
        removeFrom(place.bound);
}

size_t WorkerPool::busy() const
{
    return static_cast<size_t>(std::count_if(slots_.begin(), slots_.end(), [](const Slot& place) {
        return place.info.state == State::Busy;
    }));
}

size_t WorkerPool::ready() const
{
    return static_cast<size_t>(std::count_if(
        slots_.begin(), slots_.end(), [](const Slot& place) { return place.info.everReady; }));
}

WorkerPool::WorkerInfo WorkerPool::info(size_t slot) const
{
    return slots_[slot].info;
}

void WorkerPool::childEnded(pid_t pid)
{
    for (size_t slot = 0; slot < slots_.size(); ++slot)
        if (slots_[slot].info.pid == pid) {
            // What it sent before its end counts.
            onEvents(slot, EPOLLIN);
            if (slots_[slot].info.pid == pid)
                end(slot, Ending::Died);
            return;
        }
}

void WorkerPool::stop(Seconds grace)
{
    if (stopping_)
        return;
    stopping_ = true;
    for (Slot& place : slots_)
        if (place.process)
            place.process->hangUp();

    const auto deadline = after(grace);
    for (size_t slot = 0; slot < slots_.size(); ++slot) {
        Slot& place = slots_[slot];
        if (!place.process)
            continue;
        const pid_t pid = place.info.pid;
        bool isCollected = false;
        while (place.info.everReady && !(isCollected = waitpid(pid, nullptr, WNOHANG) == pid) &&
               Clock::now() < deadline)
            usleep(2000);
        end(slot, Ending::NotServed);
        if (!isCollected)
            waitpid(pid, nullptr, 0);
    }
    std::deque<Waiting> shared = std::move(shared_);
    shared_.clear();
    for (Waiting& waiting : shared) {
        loop_.cancel(waiting.timer);
        --queued_;
        tell(waiting.task, Ending::NotServed, {});
    }
}
