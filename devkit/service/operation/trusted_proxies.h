// The proxies that are believed whom they speak for.
#ifndef CORVANE_SERVICE_OPERATION_TRUSTED_PROXIES_H
#define CORVANE_SERVICE_OPERATION_TRUSTED_PROXIES_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ip_address.h"

class TrustedProxies {
public:
    // Each text is an address, a network such as "10.0.0.0/8", or "unix" for whoever comes by a
    // unix socket. Throws a UsageError.
    explicit TrustedProxies(const std::vector<std::string>& texts);

    // Without an address: a peer of a unix socket.
    bool trusts(const std::optional<IpAddress>& peer) const;

    // Who sent what a trusted peer passes on. `forwarded` is the list of X-Forwarded-For, to
    // which each proxy adds, at the end, the address it was spoken to from. So the last one that
    // is no proxy's is the client's; whatever stands before that may be the client's own
    // invention. Where an entry is no address, the last one behind it counts, which a proxy
    // told, and without one the peer.
    std::optional<IpAddress> clientOf(const std::optional<IpAddress>& peer,
                                      std::string_view forwarded) const;

private:
    struct Network {
        IpAddress address;
        unsigned bits;
    };

    std::vector<Network> m_networks;
    bool m_trustsUnix = false;
};

#endif
