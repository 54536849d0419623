// Eight clients at once, each in a thread of its own and with its own data in every request:
// no answer may be wrong, or another client's. Meant to run under ThreadSanitizer too.
#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include "support/held.h"
#include "support/traffic.h"

namespace {

using support::DevkitHost;
using support::TrafficClient;
using support::TrafficCount;
using support::TrafficSetting;

constexpr uint32_t THREADS = 8;
constexpr uint64_t SEED = 20240611;  // with the thread's number; another is as good
// Of each client; the environment's is for slow processors.
const char* const asked = getenv("CORVANE_CLIENT_REQUESTS");
const uint64_t REQUESTS = asked != nullptr                          ? strtoull(asked, nullptr, 10)
                          : support::sanitized || support::emulated ? 500
                                                                    : 5000;

std::string complaintsOf(const TrafficCount& count)
{
    std::string text;
    for (const std::string& complaint : count.complaints)
        text += "\n  " + complaint;
    return text;
}

// Runs `body(client)` with eight clients at once and returns what became of them all.
template <class Body>
TrafficCount withClients(const DevkitHost& host, const TrafficSetting& setting, Body body)
{
    std::vector<TrafficCount> counts(THREADS);
    std::vector<std::thread> threads;
    for (uint32_t number = 0; number < THREADS; ++number) {
        threads.emplace_back([&, number] {
            TrafficClient client(host, setting, number, SEED);
            body(client);
            client.leave();
            counts[number] = client.count();
        });
    }
    for (std::thread& thread : threads)
        thread.join();

    TrafficCount total;
    for (const TrafficCount& count : counts)
        total.add(count);
    return total;
}

TEST(Concurrency, EightClientsGetTheirOwnAnswers)
{
    const TrafficSetting setting;
    const DevkitHost host;
    const TrafficCount total = withClients(host, setting, [](TrafficClient& client) {
        client.actInEveryWay();
        while (client.count().sent < REQUESTS)
            client.act();
    });

    EXPECT_EQ(total.wrong, 0u) << complaintsOf(total);
    EXPECT_EQ(total.sentByName.size(), support::REQUEST_NAMES);
    EXPECT_GE(total.sent, THREADS * REQUESTS);
}

// Threads that come and go, as those of a host that has one for each connection.
TEST(Concurrency, ShortLivedClientsGetTheirOwnAnswers)
{
    const TrafficSetting setting;
    const DevkitHost host;
    TrafficCount total;
    for (int round = 0; round < 5; ++round)
        total.add(
            withClients(host, setting, [](TrafficClient& client) { client.actInEveryWay(); }));

    EXPECT_EQ(total.wrong, 0u) << complaintsOf(total);
    EXPECT_EQ(total.sentByName.size(), support::REQUEST_NAMES);
}

}  // namespace
