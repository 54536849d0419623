// Whom a proxy's list of addresses speaks for.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/output.h"
#include "service/operation/trusted_proxies.h"

namespace {

using namespace std::string_literals;

std::string clientOf(const TrustedProxies& proxies, const std::string& peer,
                     const std::string& forwarded)
{
    const auto client = proxies.clientOf(
        peer == "unix" ? std::nullopt : IpAddress::of(std::string_view(peer)), forwarded);
    return client ? client->text() : "unix";
}

std::optional<IpAddress> addressOf(const std::string& text)
{
    return IpAddress::of(std::string_view(text));
}

// ---- Addresses.

TEST(IpAddress, IsOneHoweverItIsWritten)
{
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"192.0.2.1", "192.0.2.1"},
        {"::ffff:192.0.2.1", "192.0.2.1"},
        {"::FFFF:c000:201", "192.0.2.1"},
        {"0:0:0:0:0:ffff:192.0.2.1", "192.0.2.1"},
        {"2001:DB8:0:0::1", "2001:db8::1"},
        {"::1", "::1"},
        {"::", "::"},
    };
    for (const auto& [text, same] : rows) {
        ASSERT_TRUE(addressOf(text)) << text;
        EXPECT_EQ(same, addressOf(text)->text()) << text;
    }
    for (const std::string& text : {""s,
                                    " "s,
                                    "1"s,
                                    "1.2.3"s,
                                    "1.2.3.4.5"s,
                                    "256.1.1.1"s,
                                    "1.2.3.04"s,
                                    "0x1.2.3.4"s,
                                    "1.2.3.4 "s,
                                    " 1.2.3.4"s,
                                    "1.2.3.4\0"s,
                                    "1.2.3.4\0.5"s,
                                    "fe80::1%eth0"s,
                                    "1:2:3:4:5:6:7"s,
                                    ":::"s,
                                    "1::2::3"s,
                                    "::ffff:1.2.3.400"s,
                                    "localhost"s,
                                    std::string(100, '1'),
                                    "[::1]"s,
                                    "1,2"s,
                                    "::1\n"s})
        EXPECT_FALSE(addressOf(text)) << text;
}

TEST(IpAddress, StandsForItsClient)
{
    EXPECT_EQ("192.0.2.1", addressOf("::ffff:192.0.2.1")->client());
    EXPECT_EQ("2001:db8:1:2::", addressOf("2001:db8:1:2:ff03:4:5:6")->client());
}

TEST(IpAddress, IsReadFromASocketsAddress)
{
    const auto text = [](const auto& address) {
        const auto found = IpAddress::of(reinterpret_cast<const sockaddr*>(&address));
        return found ? found->text() : "none";
    };
    sockaddr_in ipv4 = {};
    ipv4.sin_family = AF_INET;
    ASSERT_EQ(1, inet_pton(AF_INET, "192.0.2.1", &ipv4.sin_addr));
    EXPECT_EQ("192.0.2.1", text(ipv4));
    sockaddr_in6 ipv6 = {};
    ipv6.sin6_family = AF_INET6;
    ASSERT_EQ(1, inet_pton(AF_INET6, "2001:db8::1", &ipv6.sin6_addr));
    EXPECT_EQ("2001:db8::1", text(ipv6));
    sockaddr_storage unixSocket = {};
    unixSocket.ss_family = AF_UNIX;
    EXPECT_EQ("none", text(unixSocket));
}

// ---- Who is trusted.

TEST(TrustedProxies, AreAddressesAndNetworks)
{
    const TrustedProxies proxies({"192.0.2.1", "10.0.0.0/8", "172.16.0.0/12", "2001:db8::/33",
                                  "::1", "198.51.100.7/31", "203.0.113.1/32", "2001:db9::1/128"});
    for (const char* text : {"192.0.2.1", "::ffff:192.0.2.1", "10.255.255.255", "10.0.0.0",
                             "172.16.0.0", "172.31.255.255", "2001:db8::", "2001:db8:7fff::1",
                             "::1", "198.51.100.6", "198.51.100.7", "203.0.113.1", "2001:db9::1"})
        EXPECT_TRUE(proxies.trusts(addressOf(text))) << text;
    for (const char* text :
         {"192.0.2.0", "192.0.2.2", "9.255.255.255", "11.0.0.0", "172.15.0.1", "172.32.0.0",
          "2001:db8:8000::", "2001:db7::", "::2", "::", "198.51.100.5", "198.51.100.8",
          "::10.0.0.1", "203.0.113.0", "2001:db9::"})
        EXPECT_FALSE(proxies.trusts(addressOf(text))) << text;
    EXPECT_FALSE(proxies.trusts(std::nullopt));
    EXPECT_TRUE(TrustedProxies({"unix"}).trusts(std::nullopt));
    EXPECT_FALSE(TrustedProxies({"unix"}).trusts(addressOf("127.0.0.1")));
    EXPECT_FALSE(TrustedProxies({}).trusts(addressOf("::")));
    // Of IPv4 in either way of writing.
    EXPECT_TRUE(TrustedProxies({"::ffff:10.0.0.0/104"}).trusts(addressOf("10.9.9.9")));
    EXPECT_FALSE(TrustedProxies({"::ffff:10.0.0.0/104"}).trusts(addressOf("11.9.9.9")));
}

TEST(TrustedProxies, AreWrittenWell)
{
    for (const std::string& text : {""s,
                                    "/"s,
                                    "10.0.0.0/"s,
                                    "/8"s,
                                    "10.0.0.0/33"s,
                                    "10.0.0.0/-1"s,
                                    "10.0.0.0/+8"s,
                                    "10.0.0.0/8/8"s,
                                    "10.0.0/8"s,
                                    "::/129"s,
                                    "::1/0x8"s,
                                    "localhost"s,
                                    "proxy.example"s,
                                    "10.0.0.1:80"s,
                                    "[::1]"s,
                                    "Unix"s,
                                    "unix:"s,
                                    "*"s,
                                    "10.0.0.0/8 "s,
                                    "10.0.0.0/0008"s,
                                    "10.0.0.1,10.0.0.2"s,
                                    "fe80::1%lo"s})
        try {
            const TrustedProxies proxies({text});
            ADD_FAILURE() << text << " was taken";
        } catch (const UsageError& e) {
            EXPECT_EQ("--trusted-proxy takes an address, a network such as 10.0.0.0/8, or unix"s,
                      e.what());
        }
    for (const std::string& text :
         {"0.0.0.0/0"s, "1.2.3.4/0"s, "::/0"s, "::/00"s, "::ffff:0:0/96"s, "::ffff:1.2.3.4/64"s})
        try {
            const TrustedProxies proxies({text});
            ADD_FAILURE() << text << " was taken";
        } catch (const UsageError& e) {
            EXPECT_EQ("--trusted-proxy " + text + " would let every client choose its address",
                      e.what());
        }
}

// ---- Whom they speak for.

struct Row {
    const char* what;
    std::string peer;
    std::string forwarded;
    std::string client;
};

class Forwarded : public testing::TestWithParam<Row> {};

TEST_P(Forwarded, IsTheLastAddressThatIsNoProxys)
{
    const Row& row = GetParam();
    const TrustedProxies proxies({"10.0.0.0/8", "fd00::/8", "unix"});
    EXPECT_EQ(row.client, clientOf(proxies, row.peer, row.forwarded)) << row.forwarded;
}

const Row rows[] = {
    {"Nothing", "10.0.0.1", "", "10.0.0.1"},
    {"One", "10.0.0.1", "192.0.2.1", "192.0.2.1"},
    {"OneBehindProxies", "10.0.0.1", "192.0.2.1, 10.0.0.3,10.0.0.2", "192.0.2.1"},
    {"OneOfIpv6", "fd00::1", "2001:db8::1, fd00::2", "2001:db8::1"},
    {"OneOfBoth", "10.0.0.1", "2001:db8::1\t,\t10.0.0.3 , fd00::2", "2001:db8::1"},
    {"OneThatIsMapped", "10.0.0.1", "::ffff:192.0.2.1, ::ffff:10.0.0.2", "192.0.2.1"},
    {"BehindASocket", "unix", "192.0.2.1", "192.0.2.1"},
    {"NothingBehindASocket", "unix", "", "unix"},
    {"ProxiesAlone", "10.0.0.1", "10.0.0.3, 10.0.0.2", "10.0.0.3"},
    {"WithAPort", "10.0.0.1", "192.0.2.1:55", "192.0.2.1"},
    {"WithAPortOfIpv6", "10.0.0.1", "[2001:db8::1]:80, 10.0.0.2:65535", "2001:db8::1"},
    {"InBrackets", "10.0.0.1", "[2001:db8::1]", "2001:db8::1"},
    {"MappedInBrackets", "10.0.0.1", "[::ffff:192.0.2.1]:80", "192.0.2.1"},
    // What a client wrote before its proxy did.
    {"ForgedBefore", "10.0.0.1", "203.0.113.9, 192.0.2.1", "192.0.2.1"},
    {"ForgedProxyBefore", "10.0.0.1", "10.9.9.9, 192.0.2.1", "192.0.2.1"},
    {"ForgedLoopbackBefore", "10.0.0.1", "127.0.0.1, 192.0.2.1, 10.0.0.2", "192.0.2.1"},
    {"ForgedSocketBefore", "10.0.0.1", "unix, 192.0.2.1", "192.0.2.1"},
    {"GarbageBefore", "10.0.0.1", "a;b\"c, [, %, 192.0.2.1", "192.0.2.1"},
    {"EmptyBefore", "10.0.0.1", ",,,192.0.2.1", "192.0.2.1"},
    {"ManyBefore", "10.0.0.1", std::string(5000, ',') + "192.0.2.1", "192.0.2.1"},
    // What no proxy writes ends the list: before it, anyone may have written.
    {"Unknown", "10.0.0.1", "203.0.113.9, unknown", "10.0.0.1"},
    {"Hidden", "10.0.0.1", "203.0.113.9, _hidden, 10.0.0.2", "10.0.0.2"},
    {"Socket", "10.0.0.1", "203.0.113.9, unix:", "10.0.0.1"},
    {"SocketInTheMiddle", "10.0.0.1", "203.0.113.9, unix, 10.0.0.2", "10.0.0.2"},
    {"EmptyLast", "10.0.0.1", "203.0.113.9,", "10.0.0.1"},
    {"EmptyInTheMiddle", "10.0.0.1", "203.0.113.9, , 10.0.0.2", "10.0.0.2"},
    {"Blank", "10.0.0.1", "   ", "10.0.0.1"},
    {"TwoInOne", "10.0.0.1", "203.0.113.9 192.0.2.1", "10.0.0.1"},
    {"Semicolon", "10.0.0.1", "203.0.113.9; 192.0.2.1", "10.0.0.1"},
    {"Quoted", "10.0.0.1", "203.0.113.9, \"192.0.2.1\"", "10.0.0.1"},
    {"QuotedComma", "10.0.0.1", "\"203.0.113.9, 192.0.2.1", "192.0.2.1"},
    {"Pair", "10.0.0.1", "for=203.0.113.9", "10.0.0.1"},
    {"Nul", "10.0.0.1", "192.0.2.1\0, 10.0.0.2"s, "10.0.0.2"},
    {"NulInside", "10.0.0.1", "203.0.113.9\0.1"s, "10.0.0.1"},
    {"LineEnd", "10.0.0.1", "203.0.113.9\r\n192.0.2.1", "10.0.0.1"},
    {"BadPort", "10.0.0.1", "192.0.2.1:", "10.0.0.1"},
    {"BadPortText", "10.0.0.1", "192.0.2.1:80x", "10.0.0.1"},
    {"BadPortSize", "10.0.0.1", "192.0.2.1:123456", "10.0.0.1"},
    {"PortAlone", "10.0.0.1", ":80", "10.0.0.1"},
    {"BadBrackets", "10.0.0.1", "[192.0.2.1]", "10.0.0.1"},
    {"OpenBracket", "10.0.0.1", "[2001:db8::1", "10.0.0.1"},
    {"OpenBracketAndAPort", "10.0.0.1", "[2001:db8::1:80", "10.0.0.1"},
    {"ClosingBracketAlone", "10.0.0.1", "2001:db8::1]", "10.0.0.1"},
    {"TextBehindBracket", "10.0.0.1", "[2001:db8::1]80", "10.0.0.1"},
    {"Zone", "10.0.0.1", "fe80::1%eth0", "10.0.0.1"},
    {"Octal", "10.0.0.1", "0300.0.2.1", "10.0.0.1"},
    {"Number", "10.0.0.1", "3221225985", "10.0.0.1"},
    {"Short", "10.0.0.1", "192.513", "10.0.0.1"},
    {"Name", "10.0.0.1", "localhost", "10.0.0.1"},
    {"Network", "10.0.0.1", "192.0.2.0/24", "10.0.0.1"},
    // From a peer that is no proxy, the list says nothing.
    {"OfAStranger", "192.0.2.1", "203.0.113.9", "192.0.2.1"},
    {"OfAStrangerWithAProxy", "192.0.2.1", "203.0.113.9, 10.0.0.1", "192.0.2.1"},
};

INSTANTIATE_TEST_SUITE_P(Of, Forwarded, testing::ValuesIn(rows),
                         [](const auto& row) { return std::string(row.param.what); });

}  // namespace
