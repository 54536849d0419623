// The pool before workers that say something wrong: each single fault in a right conversation ends
// the worker and costs one task at most, and the next worker serves the others.
#include "service/workers/worker_pool.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <memory>
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
