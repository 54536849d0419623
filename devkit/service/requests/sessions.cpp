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

void Sessions::Reservation::add(const SecretText& token)
{
    m_sessions.m_live[token] = {m_life, Clock::now(), 0};
    m_isOver = true;
}

const WorkerLife* Sessions::find(const SecretText& token) const
{
    const auto found = m_live.find(token);
    return found == m_live.end() ? nullptr : &found->second.life;
}

std::shared_ptr<Sessions::Use> Sessions::enter(const SecretText& token)
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

void Sessions::end(const SecretText& token, Reason reason)
{
    const auto found = m_live.find(token);
    if (found == m_live.end())
        return;
    --m_perWorker[found->second.life.slot];
    m_live.erase(found);
    const size_t hash = HashOfToken()(token);
    m_ended[hash] = reason;
    m_endedInOrder.push_back(hash);
    if (m_endedInOrder.size() > mostRemembered) {
        m_ended.erase(m_endedInOrder.front());
        m_endedInOrder.pop_front();
    }
}

void Sessions::endAllOf(WorkerLife life, Reason reason)
{
    std::vector<SecretText> tokens;
    for (const auto& [token, session] : m_live)
        if (session.life == life)
            tokens.push_back(token);
    for (const SecretText& token : tokens)
        end(token, reason);
}

Reason Sessions::reasonOf(std::string_view token) const
{
    const auto found = m_ended.find(std::hash<std::string_view>()(token));
    return found == m_ended.end() ? Reason::session_unknown : found->second;
}

std::vector<SecretText> Sessions::idleSince(Clock::time_point time) const
{
    std::vector<SecretText> tokens;
    for (const auto& [token, session] : m_live)
        if (session.users == 0 && session.lastUse <= time)
            tokens.push_back(token);
    return tokens;
}
