#include "ip_address.h"

#include <arpa/inet.h>

#include <array>
#include <cstring>

namespace {

constexpr size_t ipv4Offset = 12;  // bytes of IPv6 before those of IPv4

in6_addr mapped(const in_addr& ipv4)
{
    in6_addr bytes = {};
    bytes.s6_addr[10] = bytes.s6_addr[11] = 0xFF;
    memcpy(bytes.s6_addr + ipv4Offset, &ipv4, sizeof ipv4);
    return bytes;
}

std::string textOf(int family, const void* bytes)
{
    std::array<char, INET6_ADDRSTRLEN> text = {};
    inet_ntop(family, bytes, text.data(), text.size());
    return text.data();
}

}  // namespace

std::optional<IpAddress> IpAddress::of(std::string_view text)
{
    // The functions below would stop at a NUL.
    if (text.size() >= INET6_ADDRSTRLEN || text.find('\0') != std::string_view::npos)
        return std::nullopt;
    const std::string whole(text);
    IpAddress address;
    in_addr ipv4 = {};
    if (inet_pton(AF_INET, whole.c_str(), &ipv4) == 1)
        address.m_bytes = mapped(ipv4);
    else if (inet_pton(AF_INET6, whole.c_str(), &address.m_bytes) != 1)
        return std::nullopt;
    return address;
}

std::optional<IpAddress> IpAddress::of(const sockaddr* address)
{
    IpAddress found;
    if (address->sa_family == AF_INET)
        found.m_bytes = mapped(reinterpret_cast<const sockaddr_in*>(address)->sin_addr);
    else if (address->sa_family == AF_INET6)
        found.m_bytes = reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
    else
        return std::nullopt;
    return found;
}

std::string IpAddress::text() const
{
    return isIpv4() ? textOf(AF_INET, m_bytes.s6_addr + ipv4Offset) : textOf(AF_INET6, &m_bytes);
}

std::string IpAddress::client() const
{
    if (isIpv4())
        return text();
    in6_addr network = m_bytes;
    memset(network.s6_addr + 8, 0, 8);
    return textOf(AF_INET6, &network);
}

bool IpAddress::isLike(const IpAddress& other, unsigned bits) const
{
    const unsigned whole = bits / 8;
    if (memcmp(m_bytes.s6_addr, other.m_bytes.s6_addr, whole) != 0)
        return false;
    const unsigned rest = bits % 8;
    return rest == 0 || (m_bytes.s6_addr[whole] ^ other.m_bytes.s6_addr[whole]) >> (8 - rest) == 0;
}
