#include "worker_pool.h"

#include <sys/epoll.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <cstdio>

#include "common/failure.h"
#include "common/secrets.h"

namespace {

// A start that failed is repeated after a tenth of a second, then after twice the time
// of before, up to this.
constexpr double longestDelay = 5;

// A worker that dies again and again without having served is not started at once.
constexpr unsigned mostIdleLives = 5;

// A worker is sent so many tasks at most, the one that it serves among them.
constexpr size_t mostSent = 8;
static_assert(mostSent <= Claims::most);
// Only tasks of so many bytes are sent ahead, and only behind so many that are still unsent.
constexpr size_t largestAhead = 4096;
// What was sent ahead is taken back from a worker that serves one task for so long.
constexpr Seconds longestAhead{0.001};

constexpr auto isOlder = [](const auto& a, const auto& b) { return a.serial < b.serial; };

bool isSmall(const Task& task)
{
    size_t bytes = 0;
    for (const auto& [name, value] : task.request.parameters)
        bytes += name.size() + value.size();
    return task.files.empty() && !task.bound && bytes <= largestAhead;
}

// By the number of the process, the system's log may tell more. Takes no memory.
void tellOfEnd(pid_t pid, Ending ending, const char* request)
{
    fprintf(stderr, "corvane-host: worker process %d %s%s%s; another one takes its place\n",
            static_cast<int>(pid), ending == Ending::TimedOut ? "took too long" : "ended",
            *request == '\0' ? "" : " in ", request);
}

}  // namespace

WorkerPool::WorkerPool(EventLoop& loop, PoolOptions options, std::function<void()> onReady,
                       std::function<void(WorkerLife)> onEnd)
    : m_loop(loop),
      m_options(std::move(options)),
      m_onReady(std::move(onReady)),
      m_onEnd(std::move(onEnd)),
      m_slots(m_options.workers + 1),
      m_waitedTooLong(loop, [this] { giveUp(); }),
      m_aheadTooLong(loop, [this] { takeBack(); }),
      m_rolls(loop, [this] { goOnRolling(); })
{
    for (size_t slot = 0; slot < m_slots.size(); ++slot)
        m_slots[slot].alarm = std::make_unique<Alarm>(m_loop, [this, slot] { onAlarm(slot); });
    for (size_t slot = 0; slot < extraSlot(); ++slot)
        start(slot);
}

WorkerPool::~WorkerPool()
{
    stop(Seconds(0));
}

void WorkerPool::start(size_t slot)
{
    Slot& place = m_slots[slot];
    ++place.info.generation;
    place.info.state = State::Starting;
    place.info.everReady = false;
    try {
        place.process = std::make_unique<WorkerProcess>(m_options.program, m_options.command);
        place.watch = m_loop.watch(place.process->socket(), EPOLLIN,
                                   [this, slot](uint32_t events) { onEvents(slot, events); });
    } catch (const std::exception& e) {
        tellFailure("a worker does not start", e);
        place.process.reset();
        return startLater(slot);
    }
    place.info.pid = place.process->pid();
    place.servedBefore = place.info.served;
    place.sentCount = place.replyCount = 0;
    place.alarm->set(after(m_options.taskTime));
}

void WorkerPool::startLater(size_t slot)
{
    Slot& place = m_slots[slot];
    const double delay = std::min(0.1 * (1U << std::min(place.failedStarts, 10U)), longestDelay);
    ++place.failedStarts;
    place.alarm->set(after(Seconds(delay)));
}

void WorkerPool::onAlarm(size_t slot)
{
    if (m_slots[slot].process)
        end(slot, Ending::TimedOut);
    else if (!m_stopping)
        start(slot);
}

void WorkerPool::onEvents(size_t slot, uint32_t events)
{
    Slot& place = m_slots[slot];
    if (!place.process)
        return;
    const WorkerLife life = lifeOf(slot);
    WorkerProcess& process = *place.process;
    if (process.unsent() > 0 && !process.send())
        return end(slot, Ending::Died);
    if ((events & ~static_cast<uint32_t>(EPOLLOUT)) != 0) {
        bool alive = false;
        bool good = true;
        // One whose reply there is no room for is as good as one that has died.
        withoutFailure("the reply of a worker", [&] {
            // What came before its end counts.
            const bool isThere = process.receive();
            WireReply reply;
            while (life == lifeOf(slot) && place.process && process.take(reply, good))
                onReply(slot, reply);
            alive = isThere;
        });
        if (life == lifeOf(slot) && place.process && (!alive || !good))
            return end(slot, Ending::Died);
    }
    if (life == lifeOf(slot) && place.process)
        m_loop.change(place.watch, process.unsent() > 0 ? EPOLLIN | EPOLLOUT : EPOLLIN);
    pump();
}

void WorkerPool::onReply(size_t slot, WireReply& reply)
{
    Slot& place = m_slots[slot];
    if (reply.kind == WireReply::Ready && !place.info.everReady) {
        m_version = std::move(reply.text);
        place.alarm->clear();
        place.info.everReady = true;
        place.info.state = State::Idle;
        place.failedStarts = 0;
        return m_onReady();
    }
    if (reply.kind == WireReply::Ready || place.replyCount == place.sentCount)
        return end(slot, Ending::Died);
    const uint64_t number = place.replyCount++;
    const bool isExpected = !place.sent.empty() && place.sent.front().number == number;
    // One that was taken back is no longer there, and nobody waits for its reply.
    if (isExpected == (reply.kind == WireReply::TakenBack))
        return end(slot, Ending::Died);
    if (isExpected)
        onAnswer(slot, reply);
}

void WorkerPool::onAnswer(size_t slot, WireReply& reply)
{
    Slot& place = m_slots[slot];
    Task task = std::move(place.sent.front().task);
    place.sent.pop_front();
    place.alarm->clear();
    ++place.info.served;
    if (place.sent.empty())
        place.info.state = State::Idle;
    else
        beginFirst(slot);
    tell(task, Ending::Answered, reply, lifeOf(slot));
    wipe(reply.results);
}

// The worker has nothing else to do: the task's time begins, and it is not sent once more.
void WorkerPool::beginFirst(size_t slot)
{
    Slot& place = m_slots[slot];
    --m_queued;
    wipe(place.sent.front().task.request.parameters);
    place.since = Clock::now();
    place.alarm->set(place.since + std::chrono::duration_cast<Clock::duration>(m_options.taskTime));
}

void WorkerPool::end(size_t slot, Ending ending)
{
    Slot& place = m_slots[slot];
    const WorkerLife life = lifeOf(slot);
    const bool wasReady = place.info.everReady;
    const bool wasIdle =
        place.info.served == place.servedBefore && place.sent.empty() && !place.info.isLeaving;
    place.idleLives = wasReady && wasIdle ? place.idleLives + 1 : 0;
    // One that does not start says why itself.
    if (ending == Ending::TimedOut || (ending == Ending::Died && wasReady))
        tellOfEnd(place.info.pid, ending,
                  place.sent.empty() ? "" : place.sent.front().task.request.name.c_str());
    place.alarm->clear();
    m_loop.unwatch(place.watch);
    place.process.reset();
    place.info.pid = -1;
    place.info.state = State::Starting;
    place.info.everReady = false;
    const bool wasLeaving = std::exchange(place.info.isLeaving, false);

    // The first task ends with it; the others wait once more.
    Queue lost;
    if (!place.sent.empty())
        lost.splice(lost.begin(), place.sent, place.sent.begin());
    waitAgain(place.sent);

    // Replaced before its tasks are told, which takes no time.
    if (!m_stopping && !(wasLeaving && slot == extraSlot())) {
        ++place.info.restarts;
        if (wasLeaving || (wasReady && place.idleLives < mostIdleLives))
            start(slot);
        else
            startLater(slot);
    }

    for (Waiting& waiting : lost)
        tell(waiting.task, ending, life);
    tellAll(std::move(place.bound), Ending::LifeIsOver, life);
    withoutFailure("the end of a worker", [&] { m_onEnd(life); });
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
    m_queued -= queue.size();
    for (Waiting& waiting : queue)
        tell(waiting.task, ending, life);
}

void WorkerPool::submit(Task task)
{
    if (m_stopping)
        return tell(task, Ending::NotServed, {});
    // Between two processes the place still has the life that is over.
    if (task.bound &&
        !(*task.bound == lifeOf(task.bound->slot) && m_slots[task.bound->slot].process))
        return tell(task, Ending::LifeIsOver, *task.bound);

    auto& queue = task.bound ? m_slots[task.bound->slot].bound : m_shared;
    const bool small = isSmall(task);
    const Clock::time_point until = after(m_options.taskTime);
    queue.push_back({std::move(task), ++m_lastSerial, until, small});
    if (m_queued++ == 0)
        m_waitedTooLong.set(until);
    pump();
}

// The one that has waited longest of what a worker may take.
void WorkerPool::pump()
{
    for (size_t slot = 0; slot < m_slots.size() && !m_stopping; ++slot) {
        Slot& place = m_slots[slot];
        if (place.info.state != State::Idle || !place.process)
            continue;
        const bool haveBound = !place.bound.empty();
        const bool mayShare = !m_shared.empty() && !place.info.isLeaving;
        if (haveBound && (!mayShare || place.bound.front().serial < m_shared.front().serial))
            serve(slot, place.bound);
        else if (mayShare)
            serve(slot, m_shared);
    }
    if (m_options.sendsAhead && !m_stopping)
        sendAhead();
}

// The first of the queue.
void WorkerPool::serve(size_t slot, Queue& queue)
{
    if (!send(slot, queue))
        return;
    m_slots[slot].info.state = State::Busy;
    beginFirst(slot);
}

// Moves the first of the queue to what a worker was sent. If there is no memory for that, its
// task has ended; false then.
bool WorkerPool::send(size_t slot, Queue& queue)
{
    Slot& place = m_slots[slot];
    Queue moved;
    moved.splice(moved.begin(), queue, queue.begin());
    Waiting& waiting = moved.front();
    Task& task = waiting.task;
    try {
        place.process->post(encode(task.request), std::move(task.files));
    } catch (const std::exception& e) {
        tellFailure("a request cannot be sent", e);
        tellAll(std::move(moved), Ending::NotServed, {});
        return false;
    }
    waiting.number = place.sentCount++;
    place.process->claims().offer(waiting.number);
    task.files.clear();
    place.sent.splice(place.sent.end(), moved);
    return true;
}

// To those that have least to do.
void WorkerPool::sendAhead()
{
    if (m_shared.empty())
        return;
    const Clock::time_point now = Clock::now();
    while (!m_shared.empty()) {
        size_t best = m_slots.size();
        for (size_t slot = 0; slot < m_slots.size(); ++slot)
            if (canSendAhead(m_slots[slot], m_shared.front(), now) &&
                (best == m_slots.size() || m_slots[slot].sent.size() < m_slots[best].sent.size()))
                best = slot;
        if (best == m_slots.size())
            return;
        if (send(best, m_shared) && !std::exchange(m_isAheadWatched, true))
            m_aheadTooLong.set(after(longestAhead));
    }
}

bool WorkerPool::canSendAhead(const Slot& place, const Waiting& waiting, Clock::time_point now)
{
    // Tasks that are bound to it come first, once it is idle.
    return waiting.isSmall && place.info.state == State::Busy && !place.info.isLeaving &&
           place.bound.empty() && place.sent.size() < mostSent &&
           place.sentCount - place.replyCount < Claims::most &&
           place.process->unsent() <= largestAhead && now - place.since < longestAhead;
}

// From workers that serve a task for long, and from all while another one has nothing to do.
void WorkerPool::takeBack()
{
    const bool isAnyIdle = std::any_of(m_slots.begin(), m_slots.end(), [](const Slot& place) {
        return place.info.state == State::Idle && !place.info.isLeaving;
    });
    m_isAheadWatched = false;
    for (Slot& place : m_slots) {
        if (place.sent.size() < 2)
            continue;
        Queue back;
        if (isAnyIdle || Clock::now() - place.since >= longestAhead)
            for (auto waiting = std::next(place.sent.begin()); waiting != place.sent.end();) {
                const auto next = std::next(waiting);
                if (place.process->claims().takeBack(waiting->number))
                    back.splice(back.end(), place.sent, waiting);
                waiting = next;
            }
        waitAgain(back);
        m_isAheadWatched = m_isAheadWatched || place.sent.size() > 1;
    }
    if (m_isAheadWatched)
        m_aheadTooLong.set(after(longestAhead));
    pump();
}

// With the other tasks for any worker, in the order in which they came.
void WorkerPool::waitAgain(Queue& tasks)
{
    tasks.sort(isOlder);
    m_shared.merge(tasks, isOlder);
}

void WorkerPool::flush()
{
    for (Slot& place : m_slots) {
        if (!place.process || place.process->unsent() == 0)
            continue;
        // A process that is gone is found out by its event.
        withoutFailure("a request cannot be sent", [&] { place.process->send(); });
        m_loop.change(place.watch, place.process->unsent() > 0 ? EPOLLIN | EPOLLOUT : EPOLLIN);
    }
}

// All wait for the same time, so that the first of a queue has waited longest.
void WorkerPool::giveUp()
{
    const Clock::time_point now = Clock::now();
    Clock::time_point next = Clock::time_point::max();
    Queue lost;
    const auto look = [&](Queue& queue) {
        while (!queue.empty() && queue.front().until <= now)
            lost.splice(lost.end(), queue, queue.begin());
        if (!queue.empty())
            next = std::min(next, queue.front().until);
    };
    look(m_shared);
    for (Slot& place : m_slots) {
        look(place.bound);
        // Those that were sent ahead are looked at again: they may have to wait once more.
        if (place.sent.size() > 1)
            next = std::min(next, now + std::chrono::milliseconds(10));
    }
    m_waitedTooLong.set(next);
    tellAll(std::move(lost), Ending::NotServed, {});
}

size_t WorkerPool::busy() const
{
    return static_cast<size_t>(std::count_if(m_slots.begin(), m_slots.end(), [](const Slot& place) {
        return place.info.state == State::Busy;
    }));
}

size_t WorkerPool::ready() const
{
    return static_cast<size_t>(std::count_if(
        m_slots.begin(), m_slots.end(), [](const Slot& place) { return place.info.everReady; }));
}

WorkerPool::WorkerInfo WorkerPool::info(size_t slot) const
{
    return m_slots[slot].info;
}

void WorkerPool::childEnded(pid_t pid)
{
    for (size_t slot = 0; slot < m_slots.size(); ++slot)
        if (m_slots[slot].info.pid == pid) {
            // What it sent before its end counts.
            onEvents(slot, EPOLLIN);
            if (m_slots[slot].info.pid == pid)
                end(slot, Ending::Died);
            return;
        }
    if (m_departed && m_departed->pid() == pid)
        m_departed.reset();
}

void WorkerPool::stop(Seconds grace)
{
    if (m_stopping)
        return;
    m_stopping = true;
    m_rolls.clear();
    m_departed.reset();
    for (Slot& place : m_slots)
        if (place.process)
            place.process->hangUp();

    const auto deadline = after(grace);
    for (size_t slot = 0; slot < m_slots.size(); ++slot) {
        Slot& place = m_slots[slot];
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
    tellAll(std::move(m_shared), Ending::NotServed, {});
}
