// What is done to keep secrets out of memory that others see.
#include "common/secrets.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "support/allocation_fault.h"

namespace {

const std::string marker = "a secret of more than a few characters";

bool isZero(std::string_view bytes)
{
    return bytes.find_first_not_of('\0') == bytes.npos;
}

// ---- Wiping

TEST(Wipe, AllOfTheTextsMemoryIsOverwritten)
{
    for (const size_t size : {3, 15, 16, 1000}) {
        std::string text(size, 'x');
        const size_t room = text.capacity();
        text.resize(1);
        wipe(text);
        EXPECT_TRUE(text.empty());
        EXPECT_EQ(text.capacity(), room);
        EXPECT_TRUE(isZero({text.data(), room})) << size;
    }
}

TEST(Wipe, PairsAreGone)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    Pairs pairs = {{"name", marker}, {"other", marker}};
    const support::FreedBlocks blocks(marker);
    wipe(pairs);
    EXPECT_TRUE(pairs.empty());
    EXPECT_EQ(blocks.counted(), 0U);
}

TEST(Wipe, WhatIsMovedFromKeepsNothing)
{
    SecretText first("short secret");
    const char* const place = first.data();
    const SecretText second(std::move(first));
    EXPECT_EQ(second, "short secret");
    EXPECT_TRUE(isZero({place, 12}));

    SKIP_WITHOUT_ALLOCATION_FAULTS();
    const support::FreedBlocks blocks(marker);
    {
        SecretText text(marker), other("another");
        other = text;
        other = std::move(text);
        EXPECT_EQ(other, marker);
        const SecretPairs pairs = Pairs{{"name", marker}};
        const SecretPairs copy(pairs);
        EXPECT_EQ(copy, pairs);
    }
    // The list that the pairs were written in is the compiler's.
    EXPECT_LE(blocks.counted(), 1U);
}

TEST(AppendSecret, MovesWithoutALeftover)
{
    SKIP_WITHOUT_ALLOCATION_FAULTS();
    std::string text = marker;
    size_t size = marker.size();
    const std::string more(3000, 'm');
    const support::FreedBlocks blocks(marker);
    for (const size_t count : {0, 1, 40, 3000, 1, 2000, 3000}) {
        appendSecret(text, std::string_view(more).substr(0, count));
        size += count;
        EXPECT_EQ(text.size(), size);
    }
    EXPECT_EQ(text.compare(0, marker.size(), marker), 0);
    EXPECT_EQ(text.find_first_not_of('m', marker.size()), text.npos);
    wipe(text);
    EXPECT_EQ(blocks.counted(), 0U);
}

TEST(AppendSecret, StaysInItsPlaceWhileThereIsRoomAndThenHasTwice)
{
    std::string text = "begun";
    text.reserve(100);
    const size_t room = text.capacity();
    const char* const place = text.data();
    appendSecret(text, std::string(room - text.size(), 'x'));
    EXPECT_EQ(text.data(), place);
    EXPECT_EQ(text.size(), room);
    appendSecret(text, "y");
    EXPECT_EQ(text.capacity(), 2 * room);
    EXPECT_EQ(text, "begun" + std::string(room - 5, 'x') + "y");
}

// ---- The process

// Runs something in a process of its own and gives its exit status.
template <class Work>
int inAChild(Work work)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(work());
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(Undumpable, ForbidsCoreDumpsAndLookingInto)
{
    EXPECT_EQ(inAChild([] {
                  {
                      const Undumpable undumpable;
                      rlimit limit = {7, 7};
                      if (getrlimit(RLIMIT_CORE, &limit) != 0 || limit.rlim_cur != 0 ||
                          limit.rlim_max != 0)
                          return 1;
                      if (prctl(PR_GET_DUMPABLE) != 0)
                          return 2;
                  }
                  return prctl(PR_GET_DUMPABLE) == 1 ? 0 : 3;
              }),
              0);
}

}  // namespace
