// Key-exchange sessions by their tokens: where they live and why they ended.
#ifndef CORVANE_SERVICE_REQUESTS_SESSIONS_H
#define CORVANE_SERVICE_REQUESTS_SESSIONS_H

#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "common/event_loop.h"
#include "service/workers/worker_pool.h"

class Sessions {
public:
    Sessions(size_t workers, size_t mostPerWorker);

    // A new token, of 192 random bits.
    static std::string makeToken();

    // Room for a session that is being made, given back at its end unless the session was
    // added.
    class Reservation;
    // Null if the worker has no room.
    std::shared_ptr<Reservation> reserve(WorkerLife life);

    // A session in use, which does not expire until the end of this.
    class Use;
    // Null if there is none.
    std::shared_ptr<Use> enter(const std::string& token);
    // Where it lives, or null.
    const WorkerLife* find(const std::string& token) const;

    // Reasons are names of hostReasons().
    void end(const std::string& token, const char* reason);
    void endAllOf(WorkerLife life, const char* reason);
    // Why a token is not that of a session: the name of a reason.
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

class Sessions::Reservation {
public:
    Reservation(Sessions& sessions, WorkerLife life) : sessions_(sessions), life_(life) {}
    ~Reservation() { cancel(); }
    Reservation(const Reservation&) = delete;
    Reservation& operator=(const Reservation&) = delete;

    WorkerLife life() const { return life_; }
    // The reserved one exists now.
    void add(const std::string& token);
    void cancel();

private:
    Sessions& sessions_;
    const WorkerLife life_;
    bool isOver_ = false;
};

class Sessions::Use {
public:
    Use(Sessions& sessions, std::string token, WorkerLife life)
        : sessions_(sessions), token_(std::move(token)), life_(life)
    {
    }
    ~Use();
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

    WorkerLife life() const { return life_; }

private:
    Sessions& sessions_;
    const std::string token_;
    const WorkerLife life_;
};

#endif
