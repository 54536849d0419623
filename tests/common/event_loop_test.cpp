// Descriptors, letters and alarms of a loop, and what is left of them when there are none.
#include "common/event_loop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "common/mailbox.h"

namespace {

using std::chrono::milliseconds;

const Clock::time_point past = Clock::now();

// Runs the loop until an alarm stops it.
void runUntilStopped(EventLoop& loop)
{
    loop.run([] { return -1; });
}

// Runs the loop through so many waits of some milliseconds.
void runFor(EventLoop& loop, int waits)
{
    loop.run([&] {
        if (waits-- == 0)
            loop.stop();
        return 5;
    });
}

// A pipe in which bytes wait for who reads them.
struct Pipe {
    Pipe()
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
            throw std::system_error(errno, std::generic_category(), "pipe");
        out = Descriptor(ends[0]);
        in = Descriptor(ends[1]);
    }
    void put() const { EXPECT_EQ(write(in.get(), "x", 1), 1); }
    void take() const
    {
        char byte;
        EXPECT_EQ(read(out.get(), &byte, 1), 1);
    }
    Descriptor out;
    Descriptor in;
};

bool isOpen(int number)
{
    return fcntl(number, F_GETFD) >= 0;
}

// While it lasts, the process opens so many files beside those that are open.
class NewFiles {
public:
    explicit NewFiles(int count)
    {
        getrlimit(RLIMIT_NOFILE, &m_original);
        rlimit few = m_original;
        few.rlim_cur = 0;
        for (int free = 0; free < count || isOpen(static_cast<int>(few.rlim_cur)); ++few.rlim_cur)
            free += isOpen(static_cast<int>(few.rlim_cur)) ? 0 : 1;
        setrlimit(RLIMIT_NOFILE, &few);
    }
    ~NewFiles() { setrlimit(RLIMIT_NOFILE, &m_original); }
    NewFiles(const NewFiles&) = delete;
    NewFiles& operator=(const NewFiles&) = delete;

private:
    rlimit m_original{};
};

// Makes something with so many new files, and expects that it fails for want of more.
template <class Make>
void expectTooFewFiles(int count, const std::string& what, Make make)
{
    const NewFiles limit(count);
    try {
        make();
        ADD_FAILURE() << "made";
    } catch (const std::system_error& failure) {
        EXPECT_EQ(failure.code(), std::error_code(EMFILE, std::generic_category()));
        EXPECT_EQ(std::string(failure.what()).find(what + ": "), 0U) << failure.what();
    }
}

std::vector<int> openNumbers()
{
    std::vector<int> numbers;
    for (int number = 0; number < 256; ++number)
        if (isOpen(number))
            numbers.push_back(number);
    return numbers;
}

using Letters = Mailbox<std::string>::Letters;

}  // namespace

TEST(EventLoop, IsNotMadeWithoutItsFiles)
{
    for (const int files : {0, 1})
        expectTooFewFiles(files, "cannot make an event loop", [] { const EventLoop loop; });
    EventLoop loop;
    expectTooFewFiles(0, "cannot make a mailbox", [&] { const Mailbox<int> mailbox(loop); });
}

TEST(EventLoop, ItsFilesAreNotInherited)
{
    const std::vector<int> before = openNumbers();
    EventLoop loop;
    const Mailbox<int> mailbox(loop);
    const std::vector<int> numbers = openNumbers();
    EXPECT_EQ(numbers.size(), before.size() + 3);
    for (const int number : numbers)
        if (std::find(before.begin(), before.end(), number) == before.end()) {
            EXPECT_NE(fcntl(number, F_GETFD) & FD_CLOEXEC, 0) << number;
        }
}

TEST(EventLoop, RunsAgainAfterItWasStopped)
{
    EventLoop loop;
    for (int run = 0; run < 3; ++run) {
        int rounds = 0;
        loop.run([&] {
            if (++rounds == 2)
                loop.stop();
            return 0;
        });
        EXPECT_EQ(rounds, 2);
    }
}

TEST(EventLoop, ASignalEndsAWaitAndNothingElse)
{
    struct sigaction action = {}, original = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &original);
    const itimerval often = {{0, 5000}, {0, 5000}}, never = {};
    setitimer(ITIMER_REAL, &often, nullptr);
    EventLoop loop;
    int rounds = 0;
    loop.run([&] {
        if (++rounds == 3)
            loop.stop();
        return 60000;
    });
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &original, nullptr);
    EXPECT_EQ(rounds, 3);
}

TEST(EventLoopWatches, NothingIsKeptOfOneThatFails)
{
    EventLoop loop;
    const auto held = std::make_shared<int>();
    try {
        loop.watch(-1, EPOLLIN, [held](uint32_t) {});
        ADD_FAILURE() << "watched";
    } catch (const std::system_error& failure) {
        EXPECT_EQ(failure.code(), std::error_code(EBADF, std::generic_category()));
        EXPECT_EQ(std::string(failure.what()).find("cannot watch a descriptor: "), 0U);
    }
    EXPECT_EQ(held.use_count(), 1);
}

TEST(EventLoopWatches, AreCalledOnceForEachRoundWithWhatHappened)
{
    EventLoop loop;
    const Pipe pipe;
    std::vector<uint32_t> calls;
    loop.watch(pipe.out.get(), EPOLLIN, [&](uint32_t events) {
        calls.push_back(events);
        pipe.take();
    });
    runFor(loop, 2);
    EXPECT_TRUE(calls.empty());
    pipe.put();
    pipe.put();
    runFor(loop, 5);
    EXPECT_EQ(calls, (std::vector<uint32_t>{EPOLLIN, EPOLLIN}));
}

TEST(EventLoopWatches, MayWaitForSomethingElse)
{
    EventLoop loop;
    const Pipe pipe;
    int calls = 0;
    const EventLoop::WatchId id = loop.watch(pipe.out.get(), EPOLLIN, [&](uint32_t) { ++calls; });
    pipe.put();
    runFor(loop, 1);
    EXPECT_EQ(calls, 1);
    loop.change(id, 0);
    runFor(loop, 2);
    EXPECT_EQ(calls, 1);
    loop.change(id, 0);
    loop.change(id, EPOLLIN);
    runFor(loop, 1);
    EXPECT_EQ(calls, 2);
}

TEST(EventLoopWatches, OneThatIsRemovedIsForgotten)
{
    EventLoop loop;
    const Pipe pipe;
    pipe.put();
    const auto held = std::make_shared<int>();
    int calls = 0;
    const EventLoop::WatchId id =
        loop.watch(pipe.out.get(), EPOLLIN, [&calls, held](uint32_t) { ++calls; });
    loop.unwatch(id);
    loop.unwatch(id);
    EXPECT_EQ(held.use_count(), 1);
    runFor(loop, 2);
    EXPECT_EQ(calls, 0);
    loop.watch(pipe.out.get(), EPOLLIN, [&](uint32_t) { ++calls; });
    runFor(loop, 1);
    EXPECT_EQ(calls, 1);
}

TEST(EventLoopWatches, OneThatAnEarlierEventHasRemovedIsNotCalled)
{
    EventLoop loop;
    const Pipe first, second;
    first.put();
    second.put();
    EventLoop::WatchId ids[2];
    int calls = 0;
    ids[0] = loop.watch(first.out.get(), EPOLLIN, [&](uint32_t) {
        ++calls;
        loop.unwatch(ids[1]);
    });
    ids[1] = loop.watch(second.out.get(), EPOLLIN, [&](uint32_t) {
        ++calls;
        loop.unwatch(ids[0]);
    });
    runFor(loop, 1);
    EXPECT_EQ(calls, 1);
}

TEST(EventLoopWatches, WhatTheyThrowIsTold)
{
    EventLoop loop;
    const Pipe pipe;
    pipe.put();
    loop.watch(pipe.out.get(), EPOLLIN, [&](uint32_t) {
        pipe.take();
        throw std::runtime_error("of a watch");
    });
    testing::internal::CaptureStderr();
    runFor(loop, 2);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "corvane-host: an event: of a watch\n");
}

// ---- Letters

TEST(Mailbox, LettersComeInTheirOrderAndOnce)
{
    EventLoop loop;
    Mailbox<std::string> mailbox(loop);
    Letters one = {"a", "b"}, two = {"c"};
    mailbox.post(one);
    mailbox.post(two);
    EXPECT_TRUE(one.empty());
    EXPECT_EQ(mailbox.take(), (Letters{"a", "b", "c"}));
    EXPECT_EQ(mailbox.take(), Letters{});
    two = {"d"};
    mailbox.post(two);
    EXPECT_EQ(mailbox.take(), Letters{"d"});
}

TEST(Mailbox, EachPostEndsAWait)
{
    EventLoop loop;
    Mailbox<std::string> mailbox(loop);
    std::string taken;
    std::thread writer;
    for (const char* text : {"first", "second", "third"}) {
        bool hasWaited = false;
        loop.run([&] {
            for (const std::string& letter : mailbox.take()) {
                taken += letter + " ";
                loop.stop();
            }
            if (!hasWaited)
                writer = std::thread([&mailbox, text] {
                    Letters letters = {text};
                    mailbox.post(letters);
                });
            else if (taken.find(text) == std::string::npos) {
                ADD_FAILURE() << "the wait for " << text << " has ended by itself";
                loop.stop();
            }
            hasWaited = true;
            return 10000;
        });
        writer.join();
    }
    EXPECT_EQ(taken, "first second third ");
}

TEST(Mailbox, NobodyIsWokenWithoutAPost)
{
    EventLoop loop;
    const Mailbox<int> mailbox(loop);
    const Clock::time_point start = Clock::now();
    int rounds = 0;
    loop.run([&] {
        if (++rounds == 2)
            loop.stop();
        return 30;
    });
    EXPECT_GE(Clock::now(), start + milliseconds(30));
}

// ---- Alarms

// The clock still goes off for an alarm that is gone.
TEST(EventLoopAlarms, NoneIsLeftWhenTheClockGoesOff)
{
    EventLoop loop;
    bool isCalled = false;
    {
        Alarm alarm(loop, [&] { isCalled = true; });
        alarm.set(past);
    }
    runFor(loop, 4);
    EXPECT_FALSE(isCalled);

    Alarm next(loop, [&] { loop.stop(); });
    next.set(past);
    runUntilStopped(loop);
}

TEST(EventLoopAlarms, TheOnlyOneMayEndItself)
{
    EventLoop loop;
    int calls = 0;
    std::unique_ptr<Alarm> alarm;
    alarm = std::make_unique<Alarm>(loop, [&] {
        ++calls;
        alarm.reset();
    });
    alarm->set(past);
    runFor(loop, 4);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(alarm, nullptr);

    Alarm next(loop, [&] { loop.stop(); });
    next.set(past);
    runUntilStopped(loop);
}

TEST(EventLoopAlarms, ALoopWithoutAnyRuns)
{
    EventLoop loop;
    runFor(loop, 4);
}

TEST(EventLoopAlarms, OneThatIsClearedDoesNotRing)
{
    EventLoop loop;
    bool isCalled = false;
    Alarm alarm(loop, [&] { isCalled = true; });
    alarm.set(past);
    alarm.clear();
    runFor(loop, 4);
    EXPECT_FALSE(isCalled);
}

TEST(EventLoopAlarms, RingInTheOrderOfTheirTimesEachOnce)
{
    EventLoop loop;
    std::string rung;
    const Clock::time_point start = Clock::now();
    Alarm third(loop, [&] {
        rung += "3";
        loop.stop();
    });
    Alarm first(loop, [&] { rung += "1"; });
    Alarm second(loop, [&] { rung += "2"; });
    third.set(start + milliseconds(30));
    first.set(start + milliseconds(10));
    second.set(start + milliseconds(40));
    second.set(start + milliseconds(20));  // in place of the time before
    runUntilStopped(loop);
    EXPECT_EQ(rung, "123");
    EXPECT_GE(Clock::now(), start + milliseconds(30));
}

TEST(EventLoopAlarms, OneMaySetItselfAgainAndFailuresEndNothing)
{
    EventLoop loop;
    int calls = 0;
    std::unique_ptr<Alarm> alarm;
    alarm = std::make_unique<Alarm>(loop, [&] {
        alarm->set(Clock::now());
        if (++calls == 3)
            loop.stop();
        throw std::runtime_error("of an alarm");
    });
    alarm->set(past);
    testing::internal::CaptureStderr();
    runUntilStopped(loop);
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_EQ(calls, 3);
    const std::string line = "corvane-host: a timer: of an alarm\n";
    EXPECT_EQ(told, line + line + line);
}

// The clock has gone off for one that was cleared, and is set for the next.
TEST(EventLoopAlarms, OneBehindAClearedOneRings)
{
    EventLoop loop;
    bool isCalled = false;
    Alarm first(loop, [&] { ADD_FAILURE() << "the first one rings"; });
    Alarm second(loop, [&] {
        isCalled = true;
        loop.stop();
    });
    const Clock::time_point start = Clock::now();
    first.set(start + milliseconds(5));
    second.set(start + milliseconds(30));
    first.clear();
    int rounds = 0;
    loop.run([&] {
        if (++rounds == 3)
            loop.stop();
        return 5000;
    });
    EXPECT_TRUE(isCalled);
}

TEST(EventLoopAlarms, NothingEndsTheWaitForOne)
{
    EventLoop loop;
    int rounds = 0;
    bool isCalled = false;
    Alarm alarm(loop, [&] {
        isCalled = true;
        loop.stop();
    });
    const Clock::time_point start = Clock::now();
    alarm.set(after(Seconds(1.02)));
    loop.run([&] {
        if (++rounds == 2)
            loop.stop();
        return 3000;
    });
    EXPECT_EQ(rounds, 1);
    EXPECT_TRUE(isCalled);
    EXPECT_GE(Clock::now(), start + milliseconds(1020));
}
