#include "sessions.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include "common/codec.h"

namespace {

constexpr size_t mostRemembered = 4096;

}  // namespace

Sessions::Sessions(size_t workers, size_t mostPerWorker)
    : perWorker_(workers), mostPerWorker_(mostPerWorker)
{
}

std::string Sessions::makeToken()
{
    std::array<char, 24> random;
    if (getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size()))
        throw std::system_error(errno, std::generic_category(), "no random bytes");
    return "ke_" + toUrlBase64({random.data(), random.size()});
}

std::shared_ptr<Sessions::Reservation> Sessions::reserve(WorkerLife life)
{
    if (perWorker_[life.slot] >= mostPerWorker_)
        return nullptr;
    auto reservation = std::make_shared<Reservation>(*this, life);
    ++perWorker_[life.slot];
    return reservation;
}

void Sessions::Reservation::cancel()
{
    if (!std::exchange(isOver_, true))
        --sessions_.perWorker_[life_.slot];
}

void Sessions::Reservation::add(const std::string& token)
{
    sessions_.live_[token] = {life_, Clock::now(), 0};
    isOver_ = true;
}

const WorkerLife* Sessions::find(const std::string& token) const
{
    const auto found = live_.find(token);
    return found == live_.end() ? nullptr : &found->second.life;
}

std::shared_ptr<Sessions::Use> Sessions::enter(const std::string& token)
{
    const auto found = live_.find(token);
    if (found == live_.end())
        return nullptr;
    auto use = std::make_shared<Use>(*this, token, found->second.life);
    ++found->second.users;
    return use;
}

Sessions::Use::~Use()
{
    const auto found = sessions_.live_.find(token_);
    if (found == sessions_.live_.end())
        return;
    --found->second.users;
    found->second.lastUse = Clock::now();
}

void Sessions::end(const std::string& token, const char* reason)
{
    const auto found = live_.find(token);
    if (found == live_.end())
        return;
    --perWorker_[found->second.life.slot];
    live_.erase(found);
    ended_[token] = reason;
    endedInOrder_.push_back(token);
    if (endedInOrder_.size() > mostRemembered) {
        ended_.erase(endedInOrder_.front());
        endedInOrder_.pop_front();
    }
}

void Sessions::endAllOf(WorkerLife life, const char* reason)
{
    std::vector<std::string> tokens;
    for (const auto& [token, session] : live_)
        if (session.life == life)
            tokens.push_back(token);
    for (const std::string& token : tokens)
        end(token, reason);
}

std::string Sessions::reasonOf(const std::string& token) const
{
    const auto found = ended_.find(token);
    return found == ended_.end() ? "session_unknown" : found->second;
}

std::vector<std::string> Sessions::idleSince(Clock::time_point time) const
{
    std::vector<std::string> tokens;
    for (const auto& [token, session] : live_)
        if (session.users == 0 && session.lastUse <= time)
            tokens.push_back(token);
    return tokens;
}
