// What clients may take together, and that nothing is kept of those who are gone.
#include "service/operation/client_limits.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <optional>

namespace {

using Place = ClientLimits::Place;

ServeOptions options()
{
    ServeOptions options;
    options.connectionsPerAddress = 2;
    options.bodyBytes = 10;
    options.rate = 0.001;
    options.burst = 2;
    return options;
}

TEST(ClientLimits, RequestsAreOfTheRateAndTheBurst)
{
    ClientLimits limits(options());
    EXPECT_TRUE(limits.takeRequest("a"));
    EXPECT_TRUE(limits.takeRequest("a"));
    EXPECT_FALSE(limits.takeRequest("a"));
    EXPECT_TRUE(limits.takeRequest("b"));
}

TEST(ClientLimits, ConnectionsAreCountedForEachClient)
{
    ClientLimits limits(options());
    EXPECT_EQ(0U, limits.connections());
    std::optional<Place> first(std::in_place, limits, "a", true);
    EXPECT_TRUE(first->isWithin());
    {
        const Place second(limits, "a", true);
        EXPECT_TRUE(second.isWithin());
        const Place third(limits, "a", true);
        EXPECT_FALSE(third.isWithin());
        EXPECT_TRUE(Place(limits, "a", false).isWithin()) << "is not limited";
        EXPECT_TRUE(Place(limits, "b", true).isWithin()) << "another client";
        EXPECT_EQ(3U, limits.connections());
    }
    // What is gone counts no more, and what is there still does.
    EXPECT_EQ(1U, limits.connections());
    const Place second(limits, "a", true);
    EXPECT_TRUE(second.isWithin());
    EXPECT_FALSE(Place(limits, "a", true).isWithin());
    first.reset();
    EXPECT_TRUE(Place(limits, "a", true).isWithin());
    EXPECT_EQ(1U, limits.connections());
}

// For sixteen bodies of the largest size.
TEST(ClientLimits, RoomIsForBodiesOfAllClients)
{
    ClientLimits limits(options());
    EXPECT_FALSE(limits.takeRoom(161));
    EXPECT_TRUE(limits.takeRoom(160));
    EXPECT_TRUE(limits.takeRoom(0));
    EXPECT_FALSE(limits.takeRoom(1));
    limits.giveRoom(0);
    EXPECT_FALSE(limits.takeRoom(1));
    limits.giveRoom(1);
    EXPECT_FALSE(limits.takeRoom(2));
    EXPECT_TRUE(limits.takeRoom(1));
    limits.giveRoom(160);
    EXPECT_TRUE(limits.takeRoom(160));
}

// ---- Who is gone. A sanitizer's memory is not measured, and is then as much as before.

constexpr size_t many = 10000;
constexpr size_t muchMemory = 40 * many;

size_t memory()
{
    return mallinfo2().uordblks;
}

std::string client(size_t number)
{
    return "client " + std::to_string(number);
}

TEST(ClientLimits, ForgetWhoHasNoConnection)
{
    ClientLimits limits(options());
    const size_t before = memory();
    for (size_t i = 0; i < many; ++i)
        EXPECT_TRUE(Place(limits, client(i), true).isWithin());
    EXPECT_LT(memory(), before + muchMemory);
}

TEST(ClientLimits, ForgetWhoWasQuietOnceASecond)
{
    ServeOptions fast = options();
    fast.rate = 1e9;  // so that all are quiet at once
    ClientLimits limits(fast);
    const auto takeAll = [&] {
        for (size_t i = 0; i < many; ++i)
            limits.takeRequest(client(i));
    };
    const size_t before = memory();
    takeAll();
    const size_t full = memory();
    const Clock::time_point start = Clock::now();
    limits.sweep();
    if (full > before) {
        EXPECT_LT(memory(), before + muchMemory);
    }
    takeAll();
    limits.sweep();
    if (full > before && Clock::now() - start < Seconds(1)) {
        EXPECT_GT(memory(), before + muchMemory);
    }
}

}  // namespace
