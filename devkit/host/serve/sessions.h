// Key-exchange sessions by their tokens: where they live and why they ended.
#ifndef CORVANE_HOST_SERVE_SESSIONS_H
#define CORVANE_HOST_SERVE_SESSIONS_H

#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

#include "event_loop.h"
#include "worker_pool.h"

class Sessions {
public:
    Sessions(size_t workers, size_t mostPerWorker);

    // A new token, of 192 random bits.
    static std::string makeToken();

    // Counts a session that is being made; false if the worker has no room.
    bool reserve(WorkerLife life);
    void cancelReservation(WorkerLife life);
    // The reserved one exists now.
    void add(const std::string& token, WorkerLife life);

    // Where it lives, or null. It is in use, and does not expire, until `leave`.
    const WorkerLife* enter(const std::string& token);
    const WorkerLife* find(const std::string& token) const;
    void leave(const std::string& token);

    void end(const std::string& token, const char* reason);
    void endAllOf(WorkerLife life, const char* reason);
    // Why a token is not that of a session.
    std::string reasonOf(const std::string& token) const;

    std::vector<std::string> idleSince(Clock::time_point time) const;

    size_t count() const { return live_.size(); }
    // Made or being made.
    size_t countOf(size_t slot) const { return perWorker_[slot]; }

private:
    struct Session {
        WorkerLife life;
        Clock::time_point lastUse;
        size_t users = 0;
    };

    std::unordered_map<std::string, Session> live_;
    std::vector<size_t> perWorker_;
    const size_t mostPerWorker_;
    // The last ones that ended, with the reason.
    std::unordered_map<std::string, const char*> ended_;
    std::deque<std::string> endedInOrder_;
};

#endif
