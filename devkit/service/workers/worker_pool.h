// A fixed number of worker processes that serve tasks, each one at a time. Workers that
// end are replaced, and ones that take too long are ended.
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

// One process's life in one place of the pool. A session that lives in a process is bound
// to it, and ends with it.
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
    // Told once, with the life that served it; or it goes without a word, where there was no
    // memory for one.
    std::function<void(Ending, WireReply&, WorkerLife)> done;
};

struct PoolOptions {
    std::string program;               // its file
    std::vector<std::string> command;  // its name and arguments
    size_t workers = 1;
    Seconds taskTime{30};  // for a task, for its waiting, and for a worker's start
};

class WorkerPool {
public:
    enum class State { Starting, Idle, Busy };

    struct WorkerInfo {
        State state = State::Starting;
        bool everReady = false;  // this life
        pid_t pid = -1;          // -1 between two lives
        uint64_t generation = 0;
        uint64_t restarts = 0;
        uint64_t served = 0;
    };

    // `onEnd` hears of each life that is over, after its task.
    WorkerPool(EventLoop& loop, PoolOptions options, std::function<void()> onReady,
               std::function<void(WorkerLife)> onEnd);
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    void submit(Task task);
    size_t queued() const { return queued_; }
    size_t busy() const;
    size_t ready() const;
    const std::string& version() const { return version_; }

    size_t size() const { return slots_.size(); }
    WorkerInfo info(size_t slot) const;

    // A child of the program has ended; others' are passed over.
    void childEnded(pid_t pid);
    // Ends the workers: politely, and after the time by force. Waiting tasks are told.
    void stop(Seconds grace);

private:
    // None of what keeps the pool going takes memory: lists, which move without, and alarms.
    struct Waiting {
        Waiting(WorkerPool& pool, Task itsTask, uint64_t itsSerial);

        Task task;
        uint64_t serial;
        Alarm alarm;
    };
    using Queue = std::list<Waiting>;

    struct Slot {
        WorkerInfo info;
        std::unique_ptr<WorkerProcess> process;
        EventLoop::WatchId watch = 0;
        Queue bound;
        std::optional<Task> current;
        // Without a process, of the next start; else of this one or the current task.
        std::unique_ptr<Alarm> alarm;
        unsigned failedStarts = 0;
        // Lives one after the other that were ready and ended before they served anything.
        unsigned idleLives = 0;
        uint64_t servedBefore = 0;  // this life
    };

    void start(size_t slot);
    void startLater(size_t slot);
    void onEvents(size_t slot, uint32_t events);
    void onReply(size_t slot, WireReply& reply);
    void end(size_t slot, Ending ending);
    void pump();
    void onAlarm(size_t slot);
    void begin(size_t slot, Queue& queue);
    void giveUp(uint64_t serial);
    void limitTime(size_t slot);
    static void tell(Task& task, Ending ending, WireReply& reply, WorkerLife life);
    static void tell(Task& task, Ending ending, WorkerLife life);
    void tellAll(Queue queue, Ending ending, WorkerLife life);
    WorkerLife lifeOf(size_t slot) const { return {slot, slots_[slot].info.generation}; }

    EventLoop& loop_;
    const PoolOptions options_;
    const std::function<void()> onReady_;
    const std::function<void(WorkerLife)> onEnd_;
    std::vector<Slot> slots_;
    Queue shared_;
    size_t queued_ = 0;
    uint64_t lastSerial_ = 0;
    std::string version_;
    bool stopping_ = false;
};

#endif
