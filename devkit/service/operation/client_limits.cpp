#include "client_limits.h"

#include <utility>

namespace {

// Bodies that are kept at once, as a multiple of the largest one.
constexpr size_t mostBodies = 16;

constexpr Seconds betweenSweeps{1};

}  // namespace

ClientLimits::ClientLimits(const ServeOptions& options)
    : m_mostPerAddress(options.connectionsPerAddress),
      m_mostBodyBytes(mostBodies * options.bodyBytes),
      m_rates(options.rate, options.burst)
{
}

bool ClientLimits::takeRequest(const std::string& client)
{
    const std::lock_guard lock(m_mutex);
    return m_rates.take(client, Clock::now());
}

size_t ClientLimits::connections() const
{
    const std::lock_guard lock(m_mutex);
    return m_connections;
}

bool ClientLimits::takeRoom(size_t bytes)
{
    const std::lock_guard lock(m_mutex);
    if (m_bodyBytes + bytes > m_mostBodyBytes)
        return false;
    m_bodyBytes += bytes;
    return true;
}

void ClientLimits::giveRoom(size_t bytes)
{
    if (bytes == 0)
        return;
    const std::lock_guard lock(m_mutex);
    m_bodyBytes -= bytes;
}

void ClientLimits::sweep()
{
    const std::lock_guard lock(m_mutex);
    const Clock::time_point now = Clock::now();
    if (now - m_swept < betweenSweeps)
        return;
    m_swept = now;
    m_rates.sweep(now);
}

ClientLimits::Place::Place(ClientLimits& limits, std::string client, bool isLimited)
    : m_limits(limits), m_client(std::move(client))
{
    const std::lock_guard lock(m_limits.m_mutex);
    m_isWithin = ++m_limits.m_perAddress[m_client] <= m_limits.m_mostPerAddress || !isLimited;
    ++m_limits.m_connections;
}

ClientLimits::Place::~Place()
{
    const std::lock_guard lock(m_limits.m_mutex);
    --m_limits.m_connections;
    const auto found = m_limits.m_perAddress.find(m_client);
    if (--found->second == 0)
        m_limits.m_perAddress.erase(found);
}
