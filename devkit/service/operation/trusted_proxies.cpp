#include "trusted_proxies.h"

#include <algorithm>

#include "common/text.h"
#include "host/output.h"

namespace {

constexpr unsigned bitsOfIpv6 = 128;
constexpr unsigned bitsOfIpv4 = 32;

bool isNumber(std::string_view text, size_t mostDigits)
{
    return !text.empty() && text.size() <= mostDigits &&
           text.find_first_not_of("0123456789") == std::string_view::npos;
}

// Proxies write addresses with a port or without; one of IPv6 is in brackets then.
std::optional<IpAddress> entryOf(std::string_view text)
{
    constexpr size_t mostDigits = 5;
    if (const auto address = IpAddress::of(text))
        return address;
    const size_t colon = text.rfind(':');
    if (!text.empty() && text.back() != ']' && colon != std::string_view::npos) {
        if (!isNumber(text.substr(colon + 1), mostDigits))
            return std::nullopt;
        text = text.substr(0, colon);
    }
    const bool isBracketed = text.size() > 2 && text.front() == '[' && text.back() == ']';
    if (isBracketed)
        text = text.substr(1, text.size() - 2);
    const auto address = IpAddress::of(text);
    const bool hasColon = text.find(':') != std::string_view::npos;
    return address && hasColon == isBracketed ? address : std::nullopt;
}

}  // namespace

TrustedProxies::TrustedProxies(const std::vector<std::string>& texts)
{
    for (const std::string& text : texts) {
        if (text == "unix") {
            m_trustsUnix = true;
            continue;
        }
        const size_t slash = text.find('/');
        const auto address = IpAddress::of(std::string_view(text).substr(0, slash));
        const std::string length = slash == std::string::npos ? "" : text.substr(slash + 1);
        const bool isIpv4 = text.find(':') == std::string::npos;
        const unsigned most = isIpv4 ? bitsOfIpv4 : bitsOfIpv6;
        if (!address || (slash != std::string::npos && !isNumber(length, 3)) ||
            (!length.empty() && static_cast<unsigned>(std::stoi(length)) > most))
            throw UsageError(
                "--trusted-proxy takes an address, a network such as 10.0.0.0/8, or unix");
        const unsigned bits = (length.empty() ? most : static_cast<unsigned>(std::stoi(length))) +
                              (isIpv4 ? bitsOfIpv6 - bitsOfIpv4 : 0);
        if (bits == 0 || (address->isIpv4() && bits <= bitsOfIpv6 - bitsOfIpv4))
            throw UsageError("--trusted-proxy " + text +
                             " would let every client choose its address");
        m_networks.push_back({*address, bits});
    }
}

bool TrustedProxies::trusts(const std::optional<IpAddress>& peer) const
{
    if (!peer)
        return m_trustsUnix;
    return std::any_of(m_networks.begin(), m_networks.end(), [&](const Network& network) {
        return peer->isLike(network.address, network.bits);
    });
}

std::optional<IpAddress> TrustedProxies::clientOf(const std::optional<IpAddress>& peer,
                                                  std::string_view forwarded) const
{
    std::optional<IpAddress> client = peer;
    while (trusts(client) && !forwarded.empty()) {
        const size_t comma = forwarded.rfind(',');
        const size_t begin = comma == std::string_view::npos ? 0 : comma + 1;
        const auto entry = entryOf(trimmed(forwarded.substr(begin)));
        if (!entry)
            break;
        client = entry;
        forwarded = forwarded.substr(0, comma == std::string_view::npos ? 0 : comma);
    }
    return client;
}
