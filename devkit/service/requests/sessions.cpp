#include "sessions.h"

#include <utility>

namespace {

constexpr size_t mostRemembered = 4096;

}  // namespace

Sessions::Sessions(size_t workers, size_t mostPerWorker)
    : m_perWorker(workers), m_mostPerWorker(mostPerWorker)
{
}

std::shared_ptr<Sessions::Reservation> Sessions::reserve(WorkerLife life)
{
    if (m_perWorker[life.slot] >= m_mostPerWorker)
        return nullptr;
    auto reservation = std::make_shared<Reservation>(*this, life);
    ++m_perWorker[life.slot];
    return reservation;
}

void Sessions::Reservation::cancel()
{
    if (!std::exchange(m_isOver, true))
        --m_sessions.m_perWorker[m_life.slot];
}

void Sessions::Reservation::add(const std::string& token)
{
    m_sessions.m_live[token] = {m_life, Clock::now(), 0};
    m_isOver = true;
}

const WorkerLife* Sessions::find(const std::string& token) const
{
    const auto found = m_live.find(token);
    return found == m_live.end() ? nullptr : &found->second.life;
}

std::shared_ptr<Sessions::Use> Sessions::enter(const std::string& token)
{
    const auto found = m_live.find(token);
    if (found == m_live.end())
        return nullptr;
    auto use = std::make_shared<Use>(*this, token, found->second.life);
    ++found->second.users;
    return use;
}

Sessions::Use::~Use()
{
    const auto found = m_sessions.m_live.find(m_token);
    if (found == m_sessions.m_live.end())
        return;
    --found->second.users;
    found->second.lastUse = Clock::now();
}

void Sessions::end(const std::string& token, Reason reason)
{
    const auto found = m_live.find(token);
    if (found == m_live.end())
        return;
    --m_perWorker[found->second.life.slot];
    m_live.erase(found);
    m_ended[token] = reason;
    m_endedInOrder.push_back(token);
    if (m_endedInOrder.size() > mostRemembered) {
        m_ended.erase(m_endedInOrder.front());
        m_endedInOrder.pop_front();
    }
}

void Sessions::endAllOf(WorkerLife life, Reason reason)
{
    std::vector<std::string> tokens;
    for (const auto& [token, session] : m_live)
        if (session.life == life)
            tokens.push_back(token);
    for (const std::string& token : tokens)
        end(token, reason);
}

Reason Sessions::reasonOf(const std::string& token) const
{
    const auto found = m_ended.find(token);
    return found == m_ended.end() ? Reason::session_unknown : found->second;
}

std::vector<std::string> Sessions::idleSince(Clock::time_point time) const
{
    std::vector<std::string> tokens;
    for (const auto& [token, session] : m_live)
        if (session.users == 0 && session.lastUse <= time)
            tokens.push_back(token);
    return tokens;
}
