// How the process ends where nothing can be thrown: by a sentence if memory has ended, else by a
// signal.
#include "service/operation/memory_end.h"
#include "support/tested.h"

#include <gtest/gtest.h>

#include <csignal>
#include <exception>
#include <new>

namespace {

void endMemory()
{
    EXPECT_THROW(std::get_new_handler()(), std::bad_alloc);
}

TEST(MemoryEndDeathTest, IsTold)
{
    EXPECT_EXIT(
        {
            endBySentenceWithoutMemory();
            endMemory();
            std::terminate();
        },
        testing::ExitedWithCode(1), "^corvane-host: the host ends: out of memory\n$");
}

TEST(MemoryEndDeathTest, IsNotTheReasonWhereMemoryNeverEnded)
{
    if (support::emulated)
        GTEST_SKIP() << "NOT TESTED: the emulator tells of each end";
    EXPECT_EXIT(
        {
            endBySentenceWithoutMemory();
            std::terminate();
        },
        testing::KilledBySignal(SIGABRT), "^$");
}

TEST(MemoryEndDeathTest, IsNotTheReasonInALaterRound)
{
    if (support::emulated)
        GTEST_SKIP() << "NOT TESTED: the emulator tells of each end";
    EXPECT_EXIT(
        {
            endBySentenceWithoutMemory();
            endMemory();
            forgetEndOfMemory();
            std::terminate();
        },
        testing::KilledBySignal(SIGABRT), "^$");
}

}  // namespace
