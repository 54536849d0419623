// The pool before workers that say something wrong: each single fault in a right conversation ends
// the worker and costs one task at most, and the next worker serves the others.
#include "service/workers/worker_pool.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/conversation.h"
#include "support/files.h"

namespace {

using support::FRAME_LENGTH_SIZE;
using support::numberAt;
using support::printing;
using support::putNumber;
using support::wrongNumbers;

// What a worker sends: when it starts, and for each request that it gets. Then it ends.
using Script = std::vector<std::string>;

constexpr size_t TASKS = 4;

struct Fault {
    std::string what;
    Script script;
};

WireReply answerTo(const std::string& task)
{
    WireReply reply;
    reply.ok = true;
    reply.results = {{"Data", "of " + task}, {"errorCode", "0"}};
    return reply;
}

std::string readyFrame()
{
    WireReply reply;
    reply.kind = WireReply::Ready;
    reply.text = "engine 1.0";
    return encode(reply);
}

// Of the first two tasks.
Script rightScript()
{
    return {readyFrame(), encode(answerTo("first")), encode(answerTo("second"))};
}

// Of an unknown number of tasks, by one answer.
const std::string laterAnswer = encode(answerTo("later"));

// ---- The faults

// The right conversation up to a frame that is replaced by something else.
Script replaced(size_t frame, const std::string& bytes)
{
    Script script = rightScript();
    script.resize(frame);
    script.push_back(bytes);
    return script;
}

// The kind of a reply, which stands behind the length.
constexpr size_t KIND_PLACE = FRAME_LENGTH_SIZE;

std::string ofKind(std::string frame, uint32_t kind)
{
    putNumber(frame, KIND_PLACE, kind);
    return frame;
}

// What may happen to a frame as a whole.
void addWholeFrameFaults(size_t frame, std::vector<Fault>& faults)
{
    const Script right = rightScript();
    const std::string name = "frame " + std::to_string(frame);
    const auto add = [&](const std::string& what, const std::string& bytes) {
        faults.push_back({name + " " + what, replaced(frame, bytes)});
    };
    const std::string& bytes = right[frame];
    add("twice", bytes + bytes);
    add("with a byte more", bytes + '\0');
    for (uint32_t kind = 0; kind <= WireReply::TakenBack + 1U; ++kind)
        if (kind != numberAt(bytes, KIND_PLACE))
            add("of kind " + std::to_string(kind), ofKind(bytes, kind));
    for (size_t size = 0; size < bytes.size(); ++size)
        add("up to byte " + std::to_string(size), bytes.substr(0, size));
    for (size_t other = 0; other < right.size(); ++other)
        if (other != frame) {
            add("is frame " + std::to_string(other), right[other]);
            add("behind frame " + std::to_string(other), right[other] + bytes);
            add("before frame " + std::to_string(other), bytes + right[other]);
        }
}

// Each bit of its length and of its first three numbers, and these set to wrong ones.
void addNumberFaults(size_t frame, std::vector<Fault>& faults)
{
    const std::string right = rightScript()[frame];
    const std::string name = "frame " + std::to_string(frame);
    for (size_t place = 0; place < 4 * FRAME_LENGTH_SIZE; ++place)
        for (unsigned bit = 0; bit < 8; ++bit) {
            std::string bytes = right;
            bytes[place] = static_cast<char>(bytes[place] ^ (1 << bit));
            faults.push_back(
                {name + " bit " + std::to_string(bit) + " of byte " + std::to_string(place),
                 replaced(frame, bytes)});
        }
    for (size_t place = 0; place < 6 * FRAME_LENGTH_SIZE; place += FRAME_LENGTH_SIZE)
        for (const uint32_t number : wrongNumbers(numberAt(right, place))) {
            std::string bytes = right;
            putNumber(bytes, place, number);
            faults.push_back(
                {name + " number " + std::to_string(number) + " at byte " + std::to_string(place),
                 replaced(frame, bytes)});
        }
}

std::vector<Fault> allFaults()
{
    std::vector<Fault> faults;
    for (size_t frame = 0; frame < rightScript().size(); ++frame) {
        addWholeFrameFaults(frame, faults);
        addNumberFaults(frame, faults);
    }
    return faults;
}

// ---- The worker, which the shell plays

// A request has one line feed, so that a line is read for each.
const std::string waiting = "read -r line <&3 || exit\n";

// The first process that finds no file at `mark` plays the script; the others answer each task.
std::string playing(const Script& script, const std::string& mark, const std::string& ending)
{
    std::string program = "if (set -C; : >'" + mark + "') 2>/dev/null; then\n";
    for (size_t i = 0; i < script.size(); ++i)
        program += (i == 0 ? "" : waiting) + printing(script[i]);
    program += ending + "exit\nfi\n" + printing(readyFrame());
    return program + "while :; do\n" + waiting + printing(laterAnswer) + "done\n";
}

// ---- The pool before one of the faults

// How a task ended.
struct End {
    Ending ending = Ending::NotServed;
    std::string reply;  // the frame of an answer
};

class Trial {
public:
    Trial(EventLoop& loop, const Fault& fault, const std::string& mark, Seconds taskTime,
          const std::string& ending = "")
        : m_fault(fault),
          m_pool(
              loop, optionsOf(playing(fault.script, mark, ending), taskTime), [] {},
              [](WorkerLife) {})
    {
    }

    // Each task once the one before has ended: what a task waits counts against it.
    void goOn()
    {
        if (!isOver() && m_ends.size() == m_submitted)
            submit(++m_submitted);
        m_pool.flush();
    }
    bool isOver() const { return m_ends.size() >= TASKS; }
    WorkerPool& pool() { return m_pool; }
    const std::vector<std::pair<size_t, End>>& ends() const { return m_ends; }
    const Fault& fault() const { return m_fault; }
    auto timedOut() const
    {
        return std::count_if(m_ends.begin(), m_ends.end(),
                             [](const auto& end) { return end.second.ending == Ending::TimedOut; });
    }

    // Each task ended once, by an answer that a worker gave to it or with the faulty worker.
    void expectAllWell()
    {
        SCOPED_TRACE(m_fault.what);
        size_t ended = 0;
        size_t lost = 0;
        for (const auto& entry : m_ends) {
            const End& end = entry.second;
            EXPECT_EQ(entry.first, ++ended) << "each once, one after the other";
            if (end.ending != Ending::Answered) {
                EXPECT_TRUE(end.ending == Ending::Died || end.ending == Ending::TimedOut);
                ++lost;
            } else if (end.reply != laterAnswer) {
                const uint32_t kind = numberAt(end.reply, KIND_PLACE);
                EXPECT_TRUE(kind != WireReply::Ready && kind != WireReply::TakenBack);
                // Byte by byte what the worker sent: nothing was made up, or left out.
                const auto& script = m_fault.script;
                EXPECT_TRUE(std::any_of(script.begin(), script.end(), [&](const auto& sent) {
                    return sent.find(withoutTime(end.reply)) != std::string::npos ||
                           withoutTime(sent).find(withoutTime(end.reply)) != std::string::npos;
                })) << testing::PrintToString(end.reply);
            }
        }
        EXPECT_EQ(ended, TASKS);
        EXPECT_LE(lost, 1U);
        // The faulty worker knew two answers; it is gone.
        ASSERT_FALSE(m_ends.empty());
        EXPECT_EQ(m_ends.back().second.reply, laterAnswer);
        EXPECT_EQ(m_pool.info(0).restarts, 1U);
        EXPECT_EQ(m_pool.version(), "engine 1.0");
    }

private:
    static PoolOptions optionsOf(const std::string& program, Seconds taskTime)
    {
        PoolOptions options;
        options.program = "/bin/sh";
        options.command = {"sh", "-c", program};
        options.taskTime = taskTime;
        return options;
    }

    // Too long a time is told as the longest.
    static std::string withoutTime(std::string frame)
    {
        constexpr size_t place = 3 * FRAME_LENGTH_SIZE;
        if (frame.size() >= place + FRAME_LENGTH_SIZE)
            putNumber(frame, place, 0);
        return frame;
    }

    void submit(size_t number)
    {
        Task task;
        task.request.name = "task";
        task.request.parameters = {{"strdata", "\n"}};
        task.done = [this, number](Ending ending, WireReply& reply, WorkerLife) {
            End end;
            end.ending = ending;
            if (ending == Ending::Answered)
                end.reply = encode(reply);
            m_ends.emplace_back(number, end);
        };
        m_pool.submit(std::move(task));
    }

    const Fault m_fault;
    size_t m_submitted = 0;
    std::vector<std::pair<size_t, End>> m_ends;
    WorkerPool m_pool;
};

// Runs the trials at once, and collects their processes, until all are over and so much more time
// has passed.
void run(EventLoop& loop, const std::vector<std::unique_ptr<Trial>>& trials,
         Clock::duration longer = Clock::duration::zero())
{
    Clock::time_point over = Clock::time_point::max();
    loop.run([&] {
        for (pid_t pid; (pid = waitpid(-1, nullptr, WNOHANG)) > 0;)
            for (const auto& trial : trials)
                trial->pool().childEnded(pid);
        for (const auto& trial : trials)
            trial->goOn();
        if (std::all_of(trials.begin(), trials.end(),
                        [](const auto& trial) { return trial->isOver(); }))
            over = std::min(over, Clock::now());
        if (over <= Clock::now() - longer)
            loop.stop();
        return 10;
    });
}

class WorkerPoolFaults : public testing::Test {
protected:
    // What the pool says of each worker that has ended is not of interest.
    void SetUp() override { testing::internal::CaptureStderr(); }
    void TearDown() override { testing::internal::GetCapturedStderr(); }

    std::string mark() { return m_folder.path(std::to_string(++m_marks)); }

    support::TemporaryFolder m_folder;
    int m_marks = 0;
};

}  // namespace

TEST_F(WorkerPoolFaults, ARightConversationIsAnswered)
{
    EventLoop loop;
    std::vector<std::unique_ptr<Trial>> trials;
    trials.push_back(
        std::make_unique<Trial>(loop, Fault{"none", rightScript()}, mark(), Seconds(60)));
    run(loop, trials);
    const auto& ends = trials[0]->ends();
    EXPECT_EQ(ends[0].second.reply, rightScript()[1]);
    EXPECT_EQ(ends[1].second.reply, rightScript()[2]);
    trials[0]->expectAllWell();
}

TEST_F(WorkerPoolFaults, AWorkerWithoutATaskHasAllTime)
{
    constexpr Seconds taskTime(1);
    EventLoop loop;
    std::vector<std::unique_ptr<Trial>> trials;
    trials.push_back(std::make_unique<Trial>(loop, Fault{"none", rightScript()}, mark(), taskTime));
    run(loop, trials, std::chrono::duration_cast<Clock::duration>(2 * taskTime));
    trials[0]->expectAllWell();
}

TEST_F(WorkerPoolFaults, EachEndsTheWorkerAndCostsOneTaskAtMost)
{
    constexpr size_t atOnce = 32;
    const std::vector<Fault> faults = allFaults();
    for (size_t first = 0; first < faults.size(); first += atOnce) {
        EventLoop loop;
        std::vector<std::unique_ptr<Trial>> trials;
        for (size_t i = first; i < std::min(first + atOnce, faults.size()); ++i)
            trials.push_back(std::make_unique<Trial>(loop, faults[i], mark(), Seconds(60)));
        run(loop, trials);
        for (const auto& trial : trials)
            trial->expectAllWell();
    }
}

const std::string stayingThere = "while read -r line <&3; do :; done\n";

// Not when its time is over: the worker does not end by itself.
TEST_F(WorkerPoolFaults, AWrongFrameEndsTheWorkerAtOnce)
{
    const std::string right = rightScript()[1];
    std::string tooLong = right;
    putNumber(tooLong, 0, static_cast<uint32_t>(longestFrame) + 1);
    std::string tooShort = right;
    putNumber(tooShort, 0, numberAt(right, 0) - 1);
    const std::vector<Fault> faults = {
        {"unknown kind", replaced(1, ofKind(right, WireReply::TakenBack + 1U))},
        {"taken back by nobody", replaced(1, ofKind(right, WireReply::TakenBack))},
        {"ready once more", replaced(1, ofKind(right, WireReply::Ready))},
        {"longer than any frame", replaced(1, tooLong)},
        {"shorter than it is", replaced(1, tooShort)},
        {"an answer that nobody waits for", replaced(1, right + right)},
        {"an answer before it is ready", replaced(0, right)},
        {"an answer before the first task", replaced(0, readyFrame() + right)},
    };
    EventLoop loop;
    std::vector<std::unique_ptr<Trial>> trials;
    for (const Fault& fault : faults)
        trials.push_back(std::make_unique<Trial>(loop, fault, mark(), Seconds(60), stayingThere));
    run(loop, trials);
    for (const auto& trial : trials) {
        trial->expectAllWell();
        EXPECT_EQ(trial->timedOut(), 0) << trial->fault().what;
    }
}

// It says that it has more to send, and neither sends it nor ends.
TEST_F(WorkerPoolFaults, AFrameThatIsNeverWholeCostsTheTimeOfATask)
{
    EventLoop loop;
    std::vector<std::unique_ptr<Trial>> trials;
    for (const size_t frame : {0U, 1U, 2U})
        for (const uint32_t more : {1U, static_cast<uint32_t>(longestFrame) / 2}) {
            std::string bytes = rightScript()[frame];
            putNumber(bytes, 0, numberAt(bytes, 0) + more);
            const std::string what = "frame " + std::to_string(frame) + " is never whole";
            trials.push_back(std::make_unique<Trial>(loop, Fault{what, replaced(frame, bytes)},
                                                     mark(), Seconds(1), stayingThere));
        }
    run(loop, trials);
    for (const auto& trial : trials) {
        SCOPED_TRACE(trial->fault().what);
        EXPECT_EQ(trial->ends().size(), TASKS);
        EXPECT_EQ(trial->ends().back().second.reply, laterAnswer);
        const bool isOfTheStart = trial->fault().what == "frame 0 is never whole";
        EXPECT_EQ(trial->timedOut(), isOfTheStart ? 0 : 1);
    }
}

// The process ends before it is ready: the next one is started some time later.
TEST_F(WorkerPoolFaults, ATaskOfALifeThatIsOverWaitsForNone)
{
    EventLoop loop;
    PoolOptions options;
    options.program = "/bin/true";
    options.command = {"true"};
    WorkerPool* pool = nullptr;
    unsigned endings = 0;
    WorkerPool itself(
        loop, options, [] {},
        [&](WorkerLife life) {
            Task task;
            task.bound = life;
            task.done = [&](Ending ending, WireReply&, WorkerLife) {
                EXPECT_EQ(Ending::LifeIsOver, ending);
                ++endings;
            };
            pool->submit(std::move(task));
            EXPECT_EQ(1U, endings);
            loop.stop();
        });
    pool = &itself;
    loop.run([&] {
        for (pid_t pid; (pid = waitpid(-1, nullptr, WNOHANG)) > 0;)
            itself.childEnded(pid);
        return 10;
    });
}

// ---- The pool before workers that do as they should, end, or do not start.

namespace {

const std::string answering =
    printing(readyFrame()) + "while :; do\n" + waiting + printing(laterAnswer) + "done\n";

class ShellPool : public testing::Test {
protected:
    void SetUp() override { testing::internal::CaptureStderr(); }
    void TearDown() override
    {
        if (!m_isTold)
            testing::internal::GetCapturedStderr();
    }

    std::string told()
    {
        m_isTold = true;
        return testing::internal::GetCapturedStderr();
    }

    void start(const std::string& program, Seconds time = Seconds(60), size_t workers = 1)
    {
        PoolOptions options;
        options.program = "/bin/sh";
        options.command = {"sh", "-c", program};
        options.workers = workers;
        options.taskTime = options.rollTime = time;
        pool = std::make_unique<WorkerPool>(
            loop, options,
            [this] {
                if (onReady)
                    onReady();
            },
            [this](WorkerLife life) {
                if (onEnd)
                    onEnd(life);
            });
    }

    // A task of this name, whose end is told as "name ending slot generation".
    void submit(const std::string& name, std::optional<WorkerLife> bound = {})
    {
        Task task;
        task.request.name = name;
        task.request.parameters = {{"strdata", "\n"}};
        task.bound = bound;
        task.done = [this, name](Ending ending, WireReply&, WorkerLife life) {
            const char* const endings[] = {"Answered", "Died", "TimedOut", "LifeIsOver",
                                           "NotServed"};
            ends.push_back(name + " " + endings[static_cast<size_t>(ending)] + " " +
                           std::to_string(life.slot) + " " + std::to_string(life.generation));
            if (onTaskEnd)
                onTaskEnd();
        };
        pool->submit(std::move(task));
    }

    // With what the test has to say of events, which is forgotten then.
    void runUntil(const std::function<bool()>& isOver)
    {
        loop.run([&] {
            round = Clock::now();
            for (pid_t pid; (pid = waitpid(-1, nullptr, WNOHANG)) > 0;)
                pool->childEnded(pid);
            pool->flush();
            if (isOver())
                loop.stop();
            return 10;
        });
        onReady = onTaskEnd = nullptr;
        onEnd = nullptr;
    }

    EventLoop loop;
    std::function<void()> onReady;
    std::function<void(WorkerLife)> onEnd;
    std::function<void()> onTaskEnd;
    std::vector<std::string> ends;
    Clock::time_point round;           // when the loop's began
    std::unique_ptr<WorkerPool> pool;  // the last: it tells its tasks' ends to the others

private:
    bool m_isTold = false;
};

using Ends = std::vector<std::string>;

}  // namespace

TEST(WorkerPoolOptions, HaveDefaults)
{
    const PoolOptions options;
    EXPECT_EQ(1U, options.workers);
    EXPECT_EQ(Seconds(30), options.taskTime);
    EXPECT_EQ(Seconds(0), options.rollTime);
    EXPECT_FALSE(options.sendsAhead);
    const WorkerPool::WorkerInfo info;
    EXPECT_EQ(WorkerPool::State::Starting, info.state);
    EXPECT_FALSE(info.isLeaving);
    EXPECT_FALSE(info.everReady);
    EXPECT_EQ(-1, info.pid);
    EXPECT_EQ(0U, info.generation + info.restarts + info.served);
}

TEST_F(ShellPool, CountsWhatWaitsAndWhatWasServed)
{
    start(answering);
    EXPECT_EQ(1U, pool->size());
    for (const char* name : {"a", "b", "c"})
        submit(name);
    EXPECT_EQ(3U, pool->queued());
    EXPECT_EQ(0U, pool->busy());
    EXPECT_EQ(0U, pool->ready());
    onTaskEnd = [&] {
        EXPECT_EQ(3 - ends.size(), pool->queued());
        EXPECT_EQ(0U, pool->busy());
        EXPECT_EQ(1U, pool->ready());
        EXPECT_EQ(ends.size(), pool->info(0).served);
    };
    runUntil([&] { return ends.size() == 3; });
    EXPECT_EQ((Ends{"a Answered 0 1", "b Answered 0 1", "c Answered 0 1"}), ends);
    const WorkerPool::WorkerInfo info = pool->info(0);
    EXPECT_EQ(WorkerPool::State::Idle, info.state);
    EXPECT_TRUE(info.everReady);
    EXPECT_EQ(1U, info.generation);
    EXPECT_EQ(0U, info.restarts);
    EXPECT_EQ("engine 1.0", pool->version());
    EXPECT_EQ("", told());
}

// Those that are bound to the worker and the others.
TEST_F(ShellPool, ServesTasksInTheirOrder)
{
    start(answering);
    submit("a");
    submit("b", WorkerLife{0, 1});
    submit("c", WorkerLife{0, 2});
    submit("d", WorkerLife{0, 0});
    EXPECT_EQ((Ends{"c LifeIsOver 0 2", "d LifeIsOver 0 0"}), ends);
    submit("e");
    submit("f", WorkerLife{0, 1});
    submit("g", WorkerLife{0, 1});
    submit("h");
    EXPECT_EQ(6U, pool->queued());
    runUntil([&] { return ends.size() == 8; });
    ends.erase(ends.begin(), ends.begin() + 2);
    EXPECT_EQ((Ends{"a Answered 0 1", "b Answered 0 1", "e Answered 0 1", "f Answered 0 1",
                    "g Answered 0 1", "h Answered 0 1"}),
              ends);
}

// Its fifth life in a row that served nothing is the last that another one follows at once.
TEST_F(ShellPool, ReplacesAWorkerThatEndsWithoutATask)
{
    std::string expected;
    uint64_t count = 0;
    pid_t pid = -1;
    Clock::time_point ready;
    onReady = [&] {
        if (count >= 5) {
            EXPECT_GE(Clock::now() - ready, std::chrono::milliseconds(100));
        }
        ready = Clock::now();
        pid = pool->info(0).pid;
        EXPECT_EQ(1U, pool->ready());
    };
    onEnd = [&](WorkerLife life) {
        ++count;
        expected += "corvane-host: worker process " + std::to_string(pid) +
                    " ended; another one takes its place\n";
        EXPECT_EQ(0U, life.slot);
        EXPECT_EQ(count, life.generation);
        const WorkerPool::WorkerInfo info = pool->info(0);
        EXPECT_EQ(count >= 5, info.pid == -1) << count;
        EXPECT_EQ(count >= 5 ? count : count + 1, info.generation);
        EXPECT_EQ(count, info.restarts);
        EXPECT_EQ(0U, info.served);
        EXPECT_FALSE(info.everReady);
        EXPECT_FALSE(info.isLeaving);
        EXPECT_EQ(WorkerPool::State::Starting, info.state);
        EXPECT_EQ(0U, pool->ready());
    };
    start(printing(readyFrame()));
    runUntil([&] { return count == 7; });
    EXPECT_EQ(expected, told());
}

// One that served something begins anew.
TEST_F(ShellPool, ReplacesAWorkerThatServedAtOnce)
{
    size_t count = 0;
    onEnd = [&](WorkerLife) {
        ++count;
        EXPECT_NE(-1, pool->info(0).pid) << count;
        submit("task");
    };
    start(printing(readyFrame()) + waiting + printing(laterAnswer));
    submit("task");
    runUntil([&] { return count == 7; });
    EXPECT_EQ(7U, pool->info(0).served);
}

// After a tenth of a second, after two, after four. It says itself why it does not start.
TEST_F(ShellPool, StartsOneThatDoesNotStartMoreAndMoreSlowly)
{
    uint64_t count = 0;
    Clock::time_point before;
    onEnd = [&](WorkerLife life) {
        if (count > 0) {
            EXPECT_GE(Clock::now() - before, std::chrono::milliseconds(50U << count)) << count;
        }
        before = round;
        ++count;
        EXPECT_EQ(count, life.generation);
        EXPECT_EQ(-1, pool->info(0).pid);
        EXPECT_EQ(count, pool->info(0).restarts);
        submit("bound", life);
    };
    start("exit 1");
    runUntil([&] { return count == 4; });
    EXPECT_EQ((Ends{"bound LifeIsOver 0 1", "bound LifeIsOver 0 2", "bound LifeIsOver 0 3",
                    "bound LifeIsOver 0 4"}),
              ends);
    EXPECT_EQ("", told());
}

TEST_F(ShellPool, TellsEachTaskOfAWorkerThatDies)
{
    pid_t pid = -1;
    onReady = [&] { pid = pid == -1 ? pool->info(0).pid : pid; };
    start(printing(readyFrame()) + waiting);
    for (const char* name : {"a", "b"})
        submit(name);
    submit("c", WorkerLife{0, 1});
    runUntil([&] { return ends.size() == 3; });
    EXPECT_EQ((Ends{"a Died 0 1", "c LifeIsOver 0 1", "b Died 0 2"}), ends);
    pool.reset();
    EXPECT_EQ(0U, told().find("corvane-host: worker process " + std::to_string(pid) +
                              " ended in a; another one takes its place\n"));
}

TEST_F(ShellPool, EndsAWorkerThatTakesTooLong)
{
    pid_t pid = -1;
    onReady = [&] { pid = pid == -1 ? pool->info(0).pid : pid; };
    start(printing(readyFrame()) + stayingThere, Seconds(1));
    submit("a");
    submit("b");
    submit("c", WorkerLife{0, 1});
    bool wasBusy = false;
    runUntil([&] {
        if (pool->busy() == 1 && !std::exchange(wasBusy, true)) {
            EXPECT_EQ(2U, pool->queued());
            EXPECT_EQ(WorkerPool::State::Busy, pool->info(0).state);
        }
        return ends.size() == 3;
    });
    EXPECT_TRUE(wasBusy);
    EXPECT_EQ((Ends{"b NotServed 0 0", "c NotServed 0 0", "a TimedOut 0 1"}), ends);
    EXPECT_EQ(0U, pool->queued());
    EXPECT_EQ(1U, pool->info(0).restarts);
    EXPECT_EQ("corvane-host: worker process " + std::to_string(pid) +
                  " took too long in a; another one takes its place\n",
              told());
}

TEST_F(ShellPool, TellsAllTasksWhenItStops)
{
    start(printing(readyFrame()) + stayingThere);
    for (const char* name : {"a", "b"})
        submit(name);
    submit("c", WorkerLife{0, 1});
    runUntil([&] { return pool->busy() == 1; });
    EXPECT_EQ(Ends{}, ends);
    EXPECT_EQ(2U, pool->queued());
    pool->stop(Seconds(0));
    EXPECT_EQ((Ends{"a NotServed 0 1", "c LifeIsOver 0 1", "b NotServed 0 0"}), ends);
    submit("d");
    submit("e", WorkerLife{0, 1});
    ASSERT_EQ(5U, ends.size());
    EXPECT_EQ("d NotServed 0 0", ends[3]);
    EXPECT_EQ("e NotServed 0 0", ends[4]);
    EXPECT_EQ(0U, pool->queued());
    EXPECT_EQ(0U, pool->busy());
    EXPECT_EQ(-1, pool->info(0).pid);
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "a process was not collected";
    EXPECT_EQ("", told());
}

// One that has answered all may end by itself.
TEST_F(ShellPool, LetsWorkersEndWhenItStops)
{
    const support::TemporaryFolder folder;
    start(answering, Seconds(60), 2);
    runUntil([&] { return pool->ready() == 2; });
    const Clock::time_point before = Clock::now();
    pool->stop(Seconds(600));
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(300));
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "a process was not collected";

    start(printing(readyFrame()) + stayingThere + ": >'" + folder.path("mark") + "'\n");
    runUntil([&] { return pool->ready() == 1; });
    pool->stop(Seconds(600));
    EXPECT_TRUE(std::filesystem::exists(folder.path("mark")));

    // One that never was ready is not waited for.
    start("exec sleep 600");
    pool.reset();
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "a process was not collected";
}

TEST_F(ShellPool, RollsFromTheFirstWorkerToTheLast)
{
    std::vector<size_t> ended;
    std::vector<size_t> asked;
    start(answering, Seconds(60), 2);
    EXPECT_EQ(2U, pool->size());
    runUntil([&] { return pool->ready() == 2; });
    onEnd = [&](WorkerLife life) {
        EXPECT_EQ(1U, life.generation);
        ended.push_back(life.slot);
    };
    pool->roll([&](size_t slot) {
        EXPECT_EQ(3U, pool->size());
        EXPECT_TRUE(pool->info(slot).isLeaving);
        EXPECT_FALSE(pool->stays(slot));
        EXPECT_FALSE(pool->stays(2));
        EXPECT_EQ(3U, pool->ready());
        for (size_t other = 0; other < 2; ++other)
            EXPECT_EQ(other != slot, pool->stays(other));
        // Needed once, and then no more.
        const bool isFirst = asked.empty() || asked.back() != slot;
        asked.push_back(slot);
        return isFirst;
    });
    EXPECT_EQ(3U, pool->size());
    runUntil([&] { return pool->size() == 2; });
    EXPECT_EQ((std::vector<size_t>{0, 1, 2}), ended);
    EXPECT_EQ((std::vector<size_t>{0, 0, 1, 1, 2, 2}), asked);
    for (size_t slot = 0; slot < 2; ++slot) {
        EXPECT_EQ(1U, pool->info(slot).restarts);
        EXPECT_EQ(2U, pool->info(slot).generation);
        EXPECT_TRUE(pool->stays(slot));
    }
    EXPECT_EQ(0U, pool->info(2).restarts);
    EXPECT_EQ(-1, pool->info(2).pid);
    EXPECT_EQ(
        "corvane-host: all workers are being replaced, one after the other\n"
        "corvane-host: all workers have been replaced\n",
        told());
}
