// Which names the host is known by, which pages may use it, and how many requests an address may
// send.
#include "service/operation/authorization.h"

#include <gtest/gtest.h>

namespace {

using std::chrono::milliseconds;

class ARate : public testing::Test {
protected:
    // At so many milliseconds since the first.
    bool take(int at, const std::string& address = "a")
    {
        return rates.take(address, begin + milliseconds(at));
    }

    const Clock::time_point begin = Clock::now();
    Rates rates{2, 3};  // a second; at once
};

TEST_F(ARate, AllowsABurstAndThenOneByOne)
{
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(take(0)) << i;
    EXPECT_FALSE(take(0));
    EXPECT_FALSE(take(499));
    EXPECT_TRUE(take(500));
    EXPECT_FALSE(take(998));
    EXPECT_TRUE(take(1000));
    EXPECT_FALSE(take(1001));
}

// Time that has been counted is not counted again, also of what was refused.
TEST_F(ARate, FillsOncePerTime)
{
    for (int i = 0; i < 3; ++i)
        take(0);
    int taken = 0;
    for (int at = 0; at <= 10000; at += 10)
        taken += take(at) ? 1 : 0;
    EXPECT_EQ(20, taken);
}

TEST_F(ARate, FillsUpToTheBurst)
{
    for (int i = 0; i < 3; ++i)
        take(0);
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(take(60000)) << i;
    EXPECT_FALSE(take(60000));
}

TEST_F(ARate, IsOfEachAddress)
{
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(take(0));
    EXPECT_FALSE(take(0));
    EXPECT_TRUE(take(0, "b"));
}

TEST_F(ARate, ForgetsFullBucketsAlone)
{
    for (int i = 0; i < 3; ++i)
        take(0);
    rates.sweep(begin + milliseconds(1499));
    EXPECT_TRUE(take(1499));
    EXPECT_TRUE(take(1499));
    EXPECT_FALSE(take(1499));
    rates.sweep(begin + milliseconds(3000));
    EXPECT_TRUE(take(3000));
}

TEST(SlowRate, AllowsOneByOne)
{
    Rates rates(1, 1);
    const Clock::time_point now = Clock::now();
    EXPECT_TRUE(rates.take("a", now));
    EXPECT_FALSE(rates.take("a", now));
    EXPECT_FALSE(rates.take("a", now + milliseconds(999)));
    EXPECT_TRUE(rates.take("a", now + milliseconds(1001)));
}

TEST(NoRate, AllowsAll)
{
    Rates rates(0, 3);
    const Clock::time_point now = Clock::now();
    for (int i = 0; i < 100; ++i)
        EXPECT_TRUE(rates.take("a", now));
}

// ---- Names.

TEST(HostName, IsInLowerCaseAndWithoutThePort)
{
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"a", "a"},         {"a:8", "a"},
        {"a:80", "a"},      {"AMZ.@[`amz{", "amz.@[`amz{"},
        {"[::1]", "[::1]"}, {"[::A]:80", "[::a]"},
        {"", ""},           {":", ""},
        {":80", ""},        {"a:", ""},
        {"a:x", ""},        {"a:8x", ""},
        {"a:80:80", ""},    {"[::1]:", ""},
        {"::1", ""},
    };
    for (const auto& [header, name] : rows)
        EXPECT_EQ(name, hostName(header)) << header;
}

TEST(AllowedSites, AreTheHostsOwnAndThoseOfTheOperator)
{
    ServeOptions options;
    options.host = "Host.Example";
    options.allowHosts = {"Other.Example:80", "third"};
    const AllowedSites sites(options);
    for (const char* host :
         {"localhost", "LOCALHOST:1", "127.0.0.1", "127.0.0.1:8720", "[::1]", "[::1]:80",
          "host.example", "HOST.example:443", "other.example", "other.example:81", "third"})
        EXPECT_TRUE(sites.isHost(host)) << host;
    for (const char* host : {"", ":80", "127.0.0.2", "::1", "[::2]", "example",
                             "other.example:", "xlocalhost", "localhostx", "localhost:x"})
        EXPECT_FALSE(sites.isHost(host)) << host;

    options = {};
    options.host = "2001:DB8::1";
    EXPECT_TRUE(AllowedSites(options).isHost("[2001:db8::1]:80"));
    EXPECT_FALSE(AllowedSites(options).isHost("2001:db8::1"));
    // At a unix socket there is none.
    EXPECT_FALSE(AllowedSites(ServeOptions()).isHost(""));
}

TEST(AllowedSites, ArePagesOfTheHostAndThoseOfTheOperator)
{
    ServeOptions options;
    options.allowOrigins = {"https://a", "https://b:1"};
    for (const bool tls : {false, true}) {
        options.tlsCert = tls ? "file" : "";
        const AllowedSites sites(options);
        EXPECT_EQ(!tls, sites.isOrigin("http://localhost:1", "localhost:1"));
        EXPECT_EQ(tls, sites.isOrigin("https://localhost:1", "localhost:1"));
        EXPECT_EQ(tls, sites.isOrigin("HTTPS://LocalHost:1", "localhost:1"));
        EXPECT_FALSE(sites.isOrigin("http://localhost:2", "localhost:1"));
        EXPECT_FALSE(sites.isOrigin("", "localhost:1"));
        EXPECT_TRUE(sites.isOrigin("https://a", "localhost:1"));
        EXPECT_TRUE(sites.isOrigin("https://b:1", "localhost:1"));
        EXPECT_FALSE(sites.isOrigin("https://b", "localhost:1"));
        EXPECT_FALSE(sites.isOrigin("https://A", "localhost:1"));
    }
}

}  // namespace
