#include "authorization.h"

#include <algorithm>
#include <string_view>

#include "common/text.h"

std::string hostName(const std::string& header)
{
    const size_t bracket = header.rfind(']');
    const size_t colon = header.find(':', bracket == std::string::npos ? 0 : bracket);
    const bool hasPort = colon != std::string::npos && colon + 1 < header.size() &&
                         header.find_first_not_of("0123456789", colon + 1) == std::string::npos;
    if (colon != std::string::npos && !hasPort)
        return "";
    std::string name = header.substr(0, colon);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return name;
}

AllowedSites::AllowedSites(const ServeOptions& options)
    : m_hosts{"localhost", "127.0.0.1", "[::1]"},
      m_origins(options.allowOrigins),
      m_scheme(options.tlsCert.empty() ? "http://" : "https://")
{
    const bool isIpv6 = options.host.find(':') != std::string::npos;
    if (!options.host.empty())
        m_hosts.push_back(hostName(isIpv6 ? "[" + options.host + "]" : options.host));
    for (const std::string& name : options.allowHosts)
        m_hosts.push_back(hostName(name));
}

bool AllowedSites::isHost(const std::string& hostHeader) const
{
    const std::string name = hostName(hostHeader);
    return !name.empty() && std::find(m_hosts.begin(), m_hosts.end(), name) != m_hosts.end();
}

bool AllowedSites::isOrigin(const std::string& origin, const std::string& hostHeader) const
{
    return equalIgnoringCase(origin, m_scheme + hostHeader) ||
           std::find(m_origins.begin(), m_origins.end(), origin) != m_origins.end();
}

double Rates::levelOf(const Bucket& bucket, Clock::time_point now) const
{
    return std::min(m_burst, bucket.level + Seconds(now - bucket.time).count() * m_perSecond);
}

bool Rates::take(const std::string& address, Clock::time_point now)
{
    if (m_perSecond <= 0)
        return true;
    Bucket& bucket = m_buckets.try_emplace(address, Bucket{m_burst, now}).first->second;
    bucket.level = levelOf(bucket, now);
    bucket.time = now;
    if (bucket.level < 1)
        return false;
    bucket.level -= 1;
    return true;
}

void Rates::sweep(Clock::time_point now)
{
    for (auto it = m_buckets.begin(); it != m_buckets.end();)
        it = levelOf(it->second, now) >= m_burst ? m_buckets.erase(it) : std::next(it);
}
