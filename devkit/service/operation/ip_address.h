// Addresses of IPv4 and IPv6.
#ifndef CORVANE_SERVICE_OPERATION_IP_ADDRESS_H
#define CORVANE_SERVICE_OPERATION_IP_ADDRESS_H

#include <netinet/in.h>
#include <sys/socket.h>

#include <optional>
#include <string>
#include <string_view>

// One of IPv4 is kept as IPv6 writes it, "::ffff:192.0.2.1", so that both ways to write it are
// the same address.
class IpAddress {
public:
    // Numbers alone, as inet_pton takes them. Nothing for another text.
    static std::optional<IpAddress> of(std::string_view text);
    // Nothing for another family.
    static std::optional<IpAddress> of(const sockaddr* address);

    // "192.0.2.1", "2001:db8::1"
    std::string text() const;
    // What stands for its client in limits: the address, or of IPv6 the network of 64 bits, since
    // a client has many addresses there.
    std::string client() const;

    bool isIpv4() const { return IN6_IS_ADDR_V4MAPPED(&m_bytes); }
    // Whether the first bits, of 128, are the same.
    bool isLike(const IpAddress& other, unsigned bits) const;

private:
    in6_addr m_bytes = {};
};

#endif
