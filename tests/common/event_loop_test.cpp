// Alarms of a loop, and what is left of them when there are none.
#include "common/event_loop.h"

#include <gtest/gtest.h>
#include <sys/epoll.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

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

}  // namespace

TEST(EventLoopWatches, NothingIsKeptOfOneThatFails)
{
    EventLoop loop;
    const auto held = std::make_shared<int>();
    EXPECT_THROW(loop.watch(-1, EPOLLIN, [held](uint32_t) {}), std::system_error);
    EXPECT_EQ(held.use_count(), 1);
}

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
    EXPECT_NE(told.find("of an alarm"), std::string::npos);
}
