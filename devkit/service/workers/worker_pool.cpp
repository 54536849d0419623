#include "worker_pool.h"

#include <sys/epoll.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>

#include "common/failure.h"
#include "common/secrets.h"

namespace {

// A start that failed is repeated after a tenth of a second, then after twice the time
// of before, up to this.
constexpr double longestDelay = 5;

// A worker that dies again and again without having served is not started at once.
constexpr unsigned mostIdleLives = 5;

}  // namespace

WorkerPool::Waiting::Waiting(WorkerPool& pool, Task itsTask, uint64_t itsSerial)
    : task(std::move(itsTask)),
      serial(itsSerial),
      alarm(pool.loop_, [&pool, itsSerial] { pool.giveUp(itsSerial); })
{
    alarm.set(after(pool.options_.taskTime));
}

WorkerPool::WorkerPool(EventLoop& loop, PoolOptions options, std::function<void()> onReady,
                       std::function<void(WorkerLife)> onEnd)
    : loop_(loop),
      options_(std::move(options)),
      onReady_(std::move(onReady)),
      onEnd_(std::move(onEnd)),
      slots_(options_.workers)
{
    for (size_t slot = 0; slot < slots_.size(); ++slot)
        slots_[slot].alarm = std::make_unique<Alarm>(loop_, [this, slot] { onAlarm(slot); });
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
        place.watch = loop_.watch(place.process->socket(), EPOLLIN,
                                  [this, slot](uint32_t events) { onEvents(slot, events); });
    } catch (const std::exception& e) {
        tellFailure("a worker does not start", e);
        place.process.reset();
        return startLater(slot);
    }
    place.info.pid = place.process->pid();
    place.servedBefore = place.info.served;
    limitTime(slot);
}

void WorkerPool::startLater(size_t slot)
{
    Slot& place = slots_[slot];
    const double delay = std::min(0.1 * (1U << std::min(place.failedStarts, 10U)), longestDelay);
    ++place.failedStarts;
    place.alarm->set(after(Seconds(delay)));
}

void WorkerPool::onAlarm(size_t slot)
{
    if (slots_[slot].process)
        end(slot, Ending::TimedOut);
    else if (!stopping_)
        start(slot);
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
        bool alive = false;
        bool good = true;
        // One whose reply there is no room for is as good as one that has died.
        withoutFailure("the reply of a worker", [&] {
            // What came before its end counts.
            const bool isThere = process.receive();
            WireReply reply;
            if (process.take(reply, good))
                onReply(slot, reply);
            alive = isThere;
        });
        if (life == lifeOf(slot) && place.process && (!alive || !good))
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
        version_ = std::move(reply.text);
        place.alarm->clear();
        place.info.everReady = true;
        place.info.state = State::Idle;
        place.failedStarts = 0;
        return onReady_();
    }
    if (!place.current || reply.kind == WireReply::Ready)
        return end(slot, Ending::Died);

    Task task = std::move(*place.current);
    place.current.reset();
    place.alarm->clear();
    place.info.state = State::Idle;
    ++place.info.served;
    tell(task, Ending::Answered, reply, lifeOf(slot));
    wipe(reply.results);
}

void WorkerPool::limitTime(size_t slot)
{
    slots_[slot].alarm->set(after(options_.taskTime));
}

void WorkerPool::end(size_t slot, Ending ending)
{
    Slot& place = slots_[slot];
    const WorkerLife life = lifeOf(slot);
    const bool wasReady = place.info.everReady;
    const bool wasIdle = place.info.served == place.servedBefore && !place.current;
    place.idleLives = wasReady && wasIdle ? place.idleLives + 1 : 0;
    place.alarm->clear();
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
    tellAll(std::move(place.bound), Ending::LifeIsOver, life);
    withoutFailure("the end of a worker", [&] { onEnd_(life); });
    pump();
}

void WorkerPool::tell(Task& task, Ending ending, WireReply& reply, WorkerLife life)
{
    withoutFailure("an answer is lost", [&] { task.done(ending, reply, life); });
}

void WorkerPool::tell(Task& task, Ending ending, WorkerLife life)
{
    WireReply none;
    wipe(task.request.parameters);
    tell(task, ending, none, life);
}

void WorkerPool::tellAll(Queue queue, Ending ending, WorkerLife life)
{
    queued_ -= queue.size();
    for (Waiting& waiting : queue) {
        waiting.alarm.clear();
        tell(waiting.task, ending, life);
    }
}

void WorkerPool::submit(Task task)
{
    if (stopping_)
        return tell(task, Ending::NotServed, {});
    if (task.bound && !(*task.bound == lifeOf(task.bound->slot)))
        return tell(task, Ending::LifeIsOver, *task.bound);

    auto& queue = task.bound ? slots_[task.bound->slot].bound : shared_;
    queue.emplace_back(*this, std::move(task), ++lastSerial_);
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

void WorkerPool::begin(size_t slot, Queue& queue)
{
    Slot& place = slots_[slot];
    place.current = std::move(queue.front().task);
    queue.pop_front();
    --queued_;

    Task& task = *place.current;
    try {
        place.process->post(encode(task.request), std::move(task.files));
    } catch (const std::exception& e) {
        tellFailure("a request cannot be sent", e);
        Task lost = std::move(*place.current);
        place.current.reset();
        return tell(lost, Ending::NotServed, {});
    }
    place.info.state = State::Busy;
    limitTime(slot);
    task.files.clear();
    wipe(task.request.parameters);
    // A process that is gone is found out by its event.
    place.process->send();
    if (place.process->isSending())
        loop_.change(place.watch, EPOLLIN | EPOLLOUT);
}

void WorkerPool::giveUp(uint64_t serial)
{
    const auto removeFrom = [&](Queue& queue) {
        const auto found = std::find_if(queue.begin(), queue.end(), [&](const Waiting& waiting) {
            return waiting.serial == serial;
        });
        if (found == queue.end())
            return;
        Queue lost;
        lost.splice(lost.begin(), queue, found);
        tellAll(std::move(lost), Ending::NotServed, {});
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
    tellAll(std::move(shared_), Ending::NotServed, {});
}
