// The address on which the server listens, and what is told where it cannot.
#include "service/http/listening_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "host/output.h"

namespace {

ServeOptions at(const std::string& host, const std::string& port)
{
    ServeOptions options;
    options.host = host;
    options.port = port;
    options.listen = host + ":" + port;
    return options;
}

std::string errorOf(const ServeOptions& options)
{
    try {
        listenAt(options);
    } catch (const UsageError& e) {
        return e.what();
    }
    return "it listens";
}

sockaddr_storage addressOf(const ListeningSocket& listening)
{
    sockaddr_storage address = {};
    socklen_t size = sizeof address;
    EXPECT_EQ(
        0, getsockname(listening.descriptor.get(), reinterpret_cast<sockaddr*>(&address), &size));
    return address;
}

std::string portOf(const ListeningSocket& listening)
{
    const sockaddr_storage address = addressOf(listening);
    // It stands at the same place in both kinds of addresses.
    return std::to_string(ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port));
}

int optionOf(const ListeningSocket& listening, int level, int name)
{
    int value = -1;
    socklen_t size = sizeof value;
    EXPECT_EQ(0, getsockopt(listening.descriptor.get(), level, name, &value, &size));
    return value;
}

TEST(ListeningSocket, IsAtTheAddressThatItTells)
{
    const ListeningSocket plain = listenAt(at("127.0.0.1", "0"));
    EXPECT_NE("0", portOf(plain));
    EXPECT_EQ("http://127.0.0.1:" + portOf(plain), plain.place);
    const sockaddr_storage address = addressOf(plain);
    EXPECT_EQ(htonl(INADDR_LOOPBACK),
              reinterpret_cast<const sockaddr_in*>(&address)->sin_addr.s_addr);
    EXPECT_EQ(1, optionOf(plain, SOL_SOCKET, SO_ACCEPTCONN));
    // Nobody waits in it, and no other program gets it.
    EXPECT_EQ(O_NONBLOCK, fcntl(plain.descriptor.get(), F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(FD_CLOEXEC, fcntl(plain.descriptor.get(), F_GETFD));

    ServeOptions secret = at("127.0.0.1", "0");
    secret.tlsCert = "cert";
    const ListeningSocket tls = listenAt(secret);
    EXPECT_EQ("https://127.0.0.1:" + portOf(tls), tls.place);

    const ListeningSocket named = listenAt(at("localhost", "0"));
    EXPECT_EQ("http://localhost:" + portOf(named), named.place);
}

// One of all addresses is not one of IPv4, too, for which access is not looked at.
TEST(ListeningSocket, OfIpv6IsOfNothingElse)
{
    if (const Descriptor socket(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0)); [&] {
            sockaddr_in6 address = {};
            address.sin6_family = AF_INET6;
            address.sin6_addr = in6addr_loopback;
            return bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0;
        }())
        GTEST_SKIP() << "NOT TESTED: this machine has no IPv6";
    for (const std::string host : {"::1", "::"}) {
        const ListeningSocket made = listenAt(at(host, "0"));
        EXPECT_EQ("http://[" + host + "]:" + portOf(made), made.place);
        EXPECT_EQ(1, optionOf(made, IPPROTO_IPV6, IPV6_V6ONLY)) << host;
    }
}

// The system remembers connections that the host has ended; the next host does not wait for that.
TEST(ListeningSocket, IsMadeAgainAtOnce)
{
    std::string port;
    {
        const ListeningSocket first = listenAt(at("127.0.0.1", "0"));
        port = portOf(first);
        const sockaddr_storage address = addressOf(first);
        const Descriptor client(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(0, connect(client.get(), reinterpret_cast<const sockaddr*>(&address),
                             sizeof(sockaddr_in)));
        Descriptor taken(accept4(first.descriptor.get(), nullptr, nullptr, SOCK_CLOEXEC));
        ASSERT_TRUE(taken);
        taken.reset();
        char nothing;
        EXPECT_EQ(0, recv(client.get(), &nothing, 1, 0));
    }
    EXPECT_EQ("http://127.0.0.1:" + port, listenAt(at("127.0.0.1", port)).place);
}

TEST(ListeningSocket, ThatIsNotMadeTellsWhy)
{
    const ListeningSocket there = listenAt(at("127.0.0.1", "0"));
    const std::string place = "127.0.0.1:" + portOf(there);
    EXPECT_EQ("cannot listen on " + place +
                  ": Address already in use; another program has this port: --listen takes "
                  "another one, or 0 for any free one",
              errorOf(at("127.0.0.1", portOf(there))));
    // RFC 5737: an address of nobody.
    EXPECT_EQ("cannot listen on 192.0.2.1:0: Cannot assign requested address",
              errorOf(at("192.0.2.1", "0")));
    EXPECT_EQ("cannot listen on 127.0.0.1:no port: Servname not supported for ai_socktype",
              errorOf(at("127.0.0.1", "no port")));
}

}  // namespace
