// The key-exchange sessions by their tokens: in which process each lives, and why those that are
// over have ended.
#ifndef CORVANE_SERVICE_REQUESTS_SESSIONS_H
#define CORVANE_SERVICE_REQUESTS_SESSIONS_H

#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "common/event_loop.h"
#include "common/secrets.h"
#include "host/catalogue/host_reasons.h"
#include "service/workers/worker_pool.h"

class Sessions {
public:
    Sessions(size_t workers, size_t mostPerWorker);

    // The room for a session that is being made. Its destructor gives the room back, unless the
    // session was added.
    class Reservation;
    // Null if the worker has as many sessions as it may.
    std::shared_ptr<Reservation> reserve(WorkerLife life);

    // As long as it exists, the session is not idle.
    class Use;
    // Null if there is no such session.
    std::shared_ptr<Use> enter(const SecretText& token);
    // Where it lives, or null.
    const WorkerLife* find(const SecretText& token) const;

    void end(const SecretText& token, Reason reason);
    void endAllOf(WorkerLife life, Reason reason);
    // Why there is no session of this token.
    Reason reasonOf(std::string_view token) const;

    std::vector<SecretText> idleSince(Clock::time_point time) const;

    size_t count() const { return m_live.size(); }
    // Of one worker, with those that are being made.
    size_t countOf(size_t slot) const { return m_perWorker[slot]; }

private:
    struct Session {
        WorkerLife life;
        Clock::time_point lastUse;
        size_t users = 0;
    };

    struct HashOfToken {
        size_t operator()(const SecretText& token) const
        {
            return std::hash<std::string_view>()(token);
        }
    };

    std::unordered_map<SecretText, Session, HashOfToken> m_live;
    std::vector<size_t> m_perWorker;
    const size_t m_mostPerWorker;
    // The last ones that ended, with the reason. Their tokens are forgotten but for the hashes.
    std::unordered_map<size_t, Reason> m_ended;
    std::deque<size_t> m_endedInOrder;
};

class Sessions::Reservation {
public:
    Reservation(Sessions& sessions, WorkerLife life) : m_sessions(sessions), m_life(life) {}
    ~Reservation() { cancel(); }
    Reservation(const Reservation&) = delete;
    Reservation& operator=(const Reservation&) = delete;

    WorkerLife life() const { return m_life; }
    // The session has been made; it keeps the room.
    void add(const SecretText& token);
    void cancel();

private:
    Sessions& m_sessions;
    const WorkerLife m_life;
    bool m_isOver = false;
};

class Sessions::Use {
public:
    Use(Sessions& sessions, SecretText token, WorkerLife life)
        : m_sessions(sessions), m_token(std::move(token)), m_life(life)
    {
    }
    ~Use();
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

    WorkerLife life() const { return m_life; }

private:
    Sessions& m_sessions;
    const SecretText m_token;
    const WorkerLife m_life;
};

#endif
