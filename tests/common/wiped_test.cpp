// What is done to keep secrets out of memory that others see.
#include "common/secrets.h"

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/locked_memory.h"
#include "support/allocation_fault.h"
#include "support/files.h"

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

// Of the calling process: whether it has these effective capabilities and no others.
bool keepCapabilities(unsigned first, unsigned second)
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[2] = {};
    if (syscall(SYS_capget, &header, sets) != 0)
        return false;
    if ((sets[0].permitted & first) != first || (sets[1].permitted & second) != second)
        return false;
    sets[0].effective = first;
    sets[1].effective = second;
    return syscall(SYS_capset, &header, sets) == 0;
}

constexpr unsigned LOCKS = 1U << CAP_IPC_LOCK;
constexpr int NOT_TESTED = 77;

size_t lockedBytes()
{
    const std::string status = support::readWhole("/proc/self/status");
    return std::stoul(status.substr(status.find("VmLck:") + 6)) * 1024;
}

// What `lockMemory` says under these limits and capabilities; "" if it locks.
std::string lockedUnder(rlimit limit, unsigned first, unsigned second = 0)
{
    int ends[2];
    if (pipe(ends) != 0)
        return "no pipe";
    const int status = inAChild([&] {
        if (setrlimit(RLIMIT_MEMLOCK, &limit) != 0 || !keepCapabilities(first, second))
            return NOT_TESTED;
        try {
            lockMemory();
            return 0;
        } catch (const LockError& error) {
            const ssize_t count = write(ends[1], error.what(), strlen(error.what()));
            return count > 0 ? 1 : 2;
        }
    });
    close(ends[1]);
    char text[512];
    const ssize_t count = read(ends[0], text, sizeof text);
    close(ends[0]);
    if (status == NOT_TESTED)
        return "not tested";
    return std::string(text, static_cast<size_t>(std::max<ssize_t>(count, 0)));
}

#define SKIP_IF_NOT_TESTED(said) \
    if ((said) == "not tested")  \
    GTEST_SKIP() << "NOT TESTED: this user may not change limits and capabilities"

TEST(LockMemory, LocksWhatComesLaterAndTakesNothingInAdvance)
{
    const int status = inAChild([] {
        rlimit limit = {1 << 16, RLIM_INFINITY};
        constexpr size_t large = size_t{256} << 20, small = size_t{4} << 20;
        if (setrlimit(RLIMIT_MEMLOCK, &limit) != 0 || !keepCapabilities(0, 0))
            return NOT_TESTED;
        const int rights = PROT_READ | PROT_WRITE, kind = MAP_PRIVATE | MAP_ANONYMOUS;
        void* const unused = mmap(nullptr, large, rights, kind, -1, 0);
        lockMemory();
        unsigned char pages[large >> 12];
        if (mincore(unused, large, pages) != 0 ||
            std::count(std::begin(pages), std::end(pages), 0) != large >> 12)
            return 1;
        const size_t before = lockedBytes();
        void* const later = mmap(nullptr, small, rights, kind, -1, 0);
        if (later == MAP_FAILED || lockedBytes() < before + small)
            return 2;
        if (mincore(later, small, pages) != 0 ||
            std::count(pages, pages + (small >> 12), 0) != small >> 12)
            return 3;
        return 0;
    });
    if (status == NOT_TESTED)
        GTEST_SKIP() << "NOT TESTED: this user may not change limits and capabilities";
    EXPECT_EQ(status, 0);
}

TEST(LockMemory, WantsNoLimitOrTheCapability)
{
    const rlimit some = {1 << 16, rlim_t{1} << 40};
    const std::string refused = lockedUnder(some, 0);
    SKIP_IF_NOT_TESTED(refused);
    EXPECT_EQ(refused,
              "--lock-memory: memory cannot be locked; the limit RLIMIT_MEMLOCK is 1099511627776 "
              "and has to be off (systemd: LimitMEMLOCK=infinity; shell: ulimit -l unlimited)");
    const std::string allowed = lockedUnder(some, LOCKS);
    SKIP_IF_NOT_TESTED(allowed);
    EXPECT_EQ(allowed, "");
    EXPECT_EQ(lockedUnder({1 << 16, RLIM_INFINITY}, 0), "");
    // Other capabilities do not count.
    const std::string others = lockedUnder(some, LOCKS << 1 | LOCKS >> 1 | 1U);
    SKIP_IF_NOT_TESTED(others);
    EXPECT_EQ(others, refused);
}

}  // namespace
