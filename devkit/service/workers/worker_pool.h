// A fixed number of worker processes that serve tasks, each one at a time. A worker that ends
// is replaced, and one that takes too long for a task is ended.
//
// While all workers are busy, small tasks are sent ahead: they reach a worker before it has
// answered the task before, so that one call sends or receives several. A task that is sent
// ahead still waits. It is taken back and given to another worker as soon as the one that it
// waits for takes long or ends, so that a task is lost only with a worker that was serving it.
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

// One process in one place of the pool: each that is started there has another generation. A
// session lives in one process and ends with it.
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
    Died,        // the worker ended in the task
    TimedOut,    // and this one was ended
    LifeIsOver,  // the worker that the task was bound to ended before it began
    NotServed,   // no worker was free in time, or the pool has stopped
};

struct Task {
    WireRequest request;
    std::vector<Descriptor> files;
    std::optional<WorkerLife> bound;
    // Called once, with how the task ended, the reply and the process that served it. Where
    // there is no memory for the call, it is destroyed without one.
    std::function<void(Ending, WireReply&, WorkerLife)> done;
};

struct PoolOptions {
    std::string program;               // its file
    std::vector<std::string> command;  // its name and arguments
    size_t workers = 1;
    Seconds taskTime{30};     // for a task, for its waiting, and for a worker's start
    bool sendsAhead = false;  // the program claims tasks before it begins them
};

class WorkerPool {
public:
    enum class State { Starting, Idle, Busy };

    struct WorkerInfo {
        State state = State::Starting;
        bool everReady = false;  // this process
        pid_t pid = -1;          // -1 between two processes
        uint64_t generation = 0;
        uint64_t restarts = 0;
        uint64_t served = 0;
    };

    // `onReady` is called when a worker can serve, `onEnd` when one has ended; the tasks that
    // ended with it have been told before.
    WorkerPool(EventLoop& loop, PoolOptions options, std::function<void()> onReady,
               std::function<void(WorkerLife)> onEnd);
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    void submit(Task task);
    // Sends what workers are to get; call it before each wait for events.
    void flush();
    // Tasks that no worker has begun.
    size_t queued() const { return m_queued; }
    size_t busy() const;
    size_t ready() const;
    const std::string& version() const { return m_version; }

    size_t size() const { return m_slots.size(); }
    WorkerInfo info(size_t slot) const;

    // A child of the program has ended; others' are passed over.
    void childEnded(pid_t pid);
    // Ends the workers: politely, and after the time by force. Waiting tasks are told.
    void stop(Seconds grace);

private:
    // None of what keeps the pool going takes memory: lists, which move without, and alarms.
    struct Waiting {
        Task task;
        uint64_t serial;          // of all tasks; older ones go first
        Clock::time_point until;  // waits no longer
        bool isSmall;             // may be sent ahead
        uint64_t number = 0;      // of those that its worker was sent
    };
    using Queue = std::list<Waiting>;

    struct Slot {
        WorkerInfo info;
        std::unique_ptr<WorkerProcess> process;
        EventLoop::WatchId watch = 0;
        Queue bound;
        // The task that it is serving, and those that were sent ahead.
        Queue sent;
        Clock::time_point since;  // the first of them is served
        uint64_t sentCount = 0;   // this process, with those that were taken back
        uint64_t replyCount = 0;  // likewise
        // Without a process, of the next start; else of this one or the first task.
        std::unique_ptr<Alarm> alarm;
        unsigned failedStarts = 0;
        // Processes one after the other that were ready and ended before they served anything.
        unsigned idleLives = 0;
        uint64_t servedBefore = 0;  // this process
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
    bool canSendAhead(const Slot& place, const Waiting& waiting) const;
    void takeBack();
    void waitAgain(Queue& tasks);
    void beginFirst(size_t slot);
    void giveUp();
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
};

#endif
