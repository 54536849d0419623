// A fixed number of worker processes. Each serves one task at a time. A worker that ends is
// replaced; one that takes too long for a task is ended.
//
// While all workers are busy, small tasks are sent ahead: a worker receives them while it still
// serves another task, which saves system calls, as one call sends or receives several. A task
// that was sent ahead has not begun. If the task before it takes long, or the worker ends, it is
// taken back and given to another worker. So only the task that a worker was serving is lost
// when the worker ends.
//
// A roll replaces all workers, one after the other, by processes that load the libraries anew
// (worker_roll.cpp). Meanwhile there is one worker more.
#ifndef CORVANE_SERVICE_WORKERS_WORKER_POOL_H
#define CORVANE_SERVICE_WORKERS_WORKER_POOL_H

#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/event_loop.h"
#include "common/wire.h"
#include "common/worker_process.h"

// Names one worker process: its place in the pool, and which of the processes that were started
// there one after the other. A key-exchange session lives in one process and ends with it.
struct WorkerLife {
    size_t slot = 0;
    uint64_t generation = 0;

    bool operator==(const WorkerLife& other) const
    {
        return slot == other.slot && generation == other.generation;
    }
};

enum class Ending {
    Answered,    // there is a reply
    Died,        // the worker ended while it served the task
    TimedOut,    // the task took too long, and the worker was ended
    LifeIsOver,  // the task was bound to a process that ended before it began the task
    NotServed,   // no worker was free in time, or the pool has stopped
};

struct Task {
    WireRequest request;
    std::vector<Descriptor> files;
    std::optional<WorkerLife> bound;  // the only process that may serve it, if there is one
    // Called once, with how the task ended, the reply and the process that served it. If there
    // is no memory for the call, the function is destroyed without having been called.
    std::function<void(Ending, WireReply&, WorkerLife)> done;
};

struct PoolOptions {
    std::string program;               // the file to start
    std::vector<std::string> command;  // its name and arguments
    size_t workers = 1;
    Seconds taskTime{30};     // each for a task, for its waiting before, and for a worker's start
    bool sendsAhead = false;  // only for a program that claims tasks before it begins them
    Seconds rollTime{0};      // how long a roll leaves a worker to those who need it
};

class WorkerPool {
public:
    enum class State { Starting, Idle, Busy };

    struct WorkerInfo {
        State state = State::Starting;
        bool isLeaving = false;  // gets nothing but what is bound to it, as a roll replaces it
        bool everReady = false;  // this process has been ready
        pid_t pid = -1;          // -1 between two processes
        uint64_t generation = 0;
        uint64_t restarts = 0;
        uint64_t served = 0;  // tasks, by all processes in this place
    };

    // `onReady` is called when a worker can serve; `onEnd` when one has ended, after `done` of
    // the tasks that ended with it.
    WorkerPool(EventLoop& loop, PoolOptions options, std::function<void()> onReady,
               std::function<void(WorkerLife)> onEnd);
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    void submit(Task task);
    // Writes the tasks that are due to the workers' sockets. Call it before each wait for events.
    void flush();
    // How many tasks no worker has begun.
    size_t queued() const { return m_queued; }
    size_t busy() const;
    size_t ready() const;
    const std::string& version() const { return m_version; }

    // Places with a worker; during a roll one more.
    size_t size() const { return extraSlot() + (m_roll.step != Roll::None ? 1 : 0); }
    WorkerInfo info(size_t slot) const;
    // Whether the roll that is under way, if there is one, leaves the place's worker alone so far.
    bool stays(size_t slot) const { return slot != extraSlot() && !m_slots[slot].info.isLeaving; }

    // Begins a roll, or another one after that which is under way. A worker is kept for
    // `rollTime` at most while `isNeeded` says so of its place. Once a new process does not
    // start, no further worker is replaced, and standard error says so.
    void roll(std::function<bool(size_t)> isNeeded);

    // To be called for each child process that has ended. Those that are no workers are ignored.
    void childEnded(pid_t pid);
    // Sends the workers nothing more, so that they end; kills those that have not ended after the
    // time. Tasks without an answer end as NotServed.
    void stop(Seconds grace);

private:
    // Keeping the pool going must not fail for lack of memory: tasks move from list to list, and
    // alarms are set, without any.
    struct Waiting {
        Task task;
        uint64_t serial;          // counts all tasks; older ones go first
        Clock::time_point until;  // when it has waited long enough
        bool isSmall;             // it may be sent ahead
        uint64_t number = 0;      // counts the tasks that its worker was sent
    };
    using Queue = std::list<Waiting>;

    struct Slot {
        WorkerInfo info;
        std::unique_ptr<WorkerProcess> process;
        EventLoop::WatchId watch = 0;
        Queue bound;  // tasks that only this process may serve
        // The task that it is serving, then those that were sent ahead.
        Queue sent;
        Clock::time_point since;  // when it began the first of them
        uint64_t sentCount = 0;   // to this process, with those that were taken back
        uint64_t replyCount = 0;  // from this process, likewise
        // Rings when the next process is to be started or, if there is one, when its start or its
        // first task has taken too long.
        std::unique_ptr<Alarm> alarm;
        unsigned failedStarts = 0;
        // How many processes in a row were ready and ended before they served anything.
        unsigned idleLives = 0;
        uint64_t servedBefore = 0;  // `served` when this process was started
    };

    // Starts the extra worker, drains the first and starts it anew, and so on to the last; then
    // drains the extra one.
    struct Roll {
        enum Step { None, Starting, Draining };
        Step step = None;
        size_t slot = 0;          // whose worker that is
        Clock::time_point until;  // when a worker is no longer kept for those who need it
        bool isStopped = false;   // only the extra worker is still to be drained
        bool isAskedAgain = false;
    };

    void start(size_t slot);
    void startLater(size_t slot);
    void onEvents(size_t slot, uint32_t events);
    void onReply(size_t slot, WireReply& reply);
    void onAnswer(size_t slot, WireReply& reply);
    void end(size_t slot, Ending ending);
    void pump();
    void onAlarm(size_t slot);
    void serve(size_t slot, Queue& queue);
    bool send(size_t slot, Queue& queue);
    void sendAhead();
    static bool canSendAhead(const Slot& place, const Waiting& waiting, Clock::time_point now);
    void takeBack();
    void waitAgain(Queue& tasks);
    void beginFirst(size_t slot);
    void giveUp();
    // The place of the worker that is there during a roll.
    size_t extraSlot() const { return m_options.workers; }
    void goOnRolling();
    void onRollStarted();
    void drain(size_t slot);
    void depart(size_t slot);
    void endRoll();
    static void tell(Task& task, Ending ending, WireReply& reply, WorkerLife life);
    static void tell(Task& task, Ending ending, WorkerLife life);
    void tellAll(Queue queue, Ending ending, WorkerLife life);
    WorkerLife lifeOf(size_t slot) const { return {slot, m_slots[slot].info.generation}; }

    EventLoop& m_loop;
    const PoolOptions m_options;
    const std::function<void()> m_onReady;
    const std::function<void(WorkerLife)> m_onEnd;
    std::vector<Slot> m_slots;
    Queue m_shared;
    size_t m_queued = 0;
    uint64_t m_lastSerial = 0;
    std::string m_version;
    bool m_stopping = false;
    Alarm m_waitedTooLong;
    Alarm m_aheadTooLong;
    bool m_isAheadWatched = false;  // m_aheadTooLong is set
    Roll m_roll;
    std::function<bool(size_t)> m_isNeeded;
    Alarm m_rolls;
    // A worker that was replaced and is to end by itself, and when it is killed.
    std::unique_ptr<WorkerProcess> m_departed;
    Clock::time_point m_departedUntil;
};

#endif
