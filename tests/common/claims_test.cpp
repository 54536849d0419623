// Descriptors with one owner, and who gets a request: the worker that begins it or the front that
// takes it back.
#include "common/claims.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <system_error>

#include "support/files.h"

namespace {

bool isOpen(int number)
{
    return fcntl(number, F_GETFD) >= 0;
}

Descriptor opened()
{
    return Descriptor(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

// ---- Descriptors

TEST(Descriptor, IsClosedByItsOwner)
{
    int number;
    {
        const Descriptor owner = opened();
        number = owner.get();
        EXPECT_TRUE(owner);
        EXPECT_TRUE(isOpen(number));
    }
    EXPECT_FALSE(isOpen(number));
}

TEST(Descriptor, HasOneOwner)
{
    Descriptor first = opened(), third = opened();
    const int number = first.get(), other = third.get();
    Descriptor second = std::move(first);
    EXPECT_EQ(first.get(), -1);
    EXPECT_FALSE(first);
    EXPECT_EQ(second.get(), number);
    third = std::move(second);
    EXPECT_EQ(third.get(), number);
    EXPECT_EQ(second.get(), other);
    third.reset();
    EXPECT_EQ(third.get(), -1);
    EXPECT_FALSE(isOpen(number));
    EXPECT_EQ(second.release(), other);
    EXPECT_EQ(second.get(), -1);
    EXPECT_TRUE(isOpen(other));
    close(other);
}

TEST(Descriptor, NoneIsOpenedUntilItIsGiven)
{
    const Descriptor none;
    EXPECT_EQ(none.get(), -1);
    EXPECT_FALSE(none);
}

TEST(Descriptor, ZeroIsOneLikeOthers)
{
    const int kept = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    Descriptor source = opened();
    ASSERT_EQ(dup2(source.get(), STDIN_FILENO), STDIN_FILENO);
    Descriptor zero(STDIN_FILENO);
    EXPECT_TRUE(zero);
    zero.reset();
    EXPECT_FALSE(isOpen(STDIN_FILENO));
    if (kept >= 0) {
        dup2(kept, STDIN_FILENO);
        close(kept);
    }
}

// ---- Claims

TEST(Claims, EachRequestIsGotByOneSide)
{
    Claims front;
    Claims worker(front.descriptor());
    for (uint64_t number = 0; number < 3 * Claims::most; number += 2) {
        front.offer(number);
        front.offer(number + 1);
        EXPECT_TRUE(worker.begin(number));
        EXPECT_FALSE(front.takeBack(number));
        EXPECT_FALSE(worker.begin(number));
        EXPECT_TRUE(front.takeBack(number + 1));
        EXPECT_FALSE(worker.begin(number + 1));
        EXPECT_FALSE(front.takeBack(number + 1));
    }
}

TEST(Claims, SixteenAreApart)
{
    EXPECT_EQ(uint64_t{Claims::most}, 16U);
    Claims front;
    Claims worker(front.descriptor());
    for (uint64_t number = 5; number < 5 + 16; ++number)
        front.offer(number);
    for (uint64_t number = 5; number < 5 + 16; ++number)
        EXPECT_TRUE(worker.begin(number)) << number;
    for (uint64_t number = 5; number < 5 + 16; ++number)
        EXPECT_FALSE(front.takeBack(number)) << number;
}

// How often the memory that claims are in is mapped by this process.
size_t mappings()
{
    const std::string maps = support::readWhole("/proc/self/maps");
    size_t count = 0;
    for (size_t at = maps.find("memfd:claims"); at != maps.npos;
         at = maps.find("memfd:claims", at + 1))
        ++count;
    return count;
}

TEST(Claims, GiveTheirMemoryBack)
{
    EXPECT_EQ(mappings(), 0U);
    {
        const Claims front;
        EXPECT_NE(fcntl(front.descriptor().get(), F_GETFD) & FD_CLOEXEC, 0);
        const Claims worker(front.descriptor());
        EXPECT_EQ(mappings(), 2U);
    }
    EXPECT_EQ(mappings(), 0U);
}

template <class Make>
void expectFailure(int code, Make make)
{
    try {
        make();
        FAIL() << "made";
    } catch (const std::system_error& failure) {
        EXPECT_EQ(failure.code(), std::error_code(code, std::generic_category()));
        EXPECT_EQ(std::string(failure.what()).find("cannot share memory with a worker: "), 0U)
            << failure.what();
    }
}

TEST(Claims, CannotBeSharedWithoutADescriptor)
{
    expectFailure(EMFILE, [] {
        const support::NoNewFiles limit;
        const Claims claims;
    });
    expectFailure(EBADF, [] { const Claims claims{Descriptor()}; });
}

}  // namespace
