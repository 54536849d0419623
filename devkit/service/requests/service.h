// Requests to the plug-in as the interface takes and answers them, by worker processes.
// There is no HTTP here but the status of an answer.
#ifndef CORVANE_SERVICE_REQUESTS_SERVICE_H
#define CORVANE_SERVICE_REQUESTS_SERVICE_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "answer.h"
#include "confined_files.h"
#include "request_body.h"
#include "service/operation/metrics.h"
#include "service/operation/options.h"
#include "service/workers/worker_pool.h"
#include "sessions.h"

class Service {
public:
    using Done = std::function<void(Answer)>;

    // `onReady` is called when a worker can serve.
    Service(EventLoop& loop, const ServeOptions& options, PoolOptions pool, Metrics& metrics,
            std::function<void()> onReady);

    // Offers the other side of a key exchange too, by a process of its own.
    void offerPeer(PoolOptions pool);

    // Everything is checked before anything is sent; throws a Refusal then. Otherwise
    // `done` is called once, perhaps from within the call; or it goes without a call, where
    // there was no memory for an answer.
    void request(const std::string& name, const std::string& contentType, std::string_view body,
                 Done done);
    void batch(const std::string& contentType, std::string_view body, Done done);
    // A step of the peer; see peer_steps.h.
    void peer(const std::string& step, const std::string& contentType, std::string_view body,
              Done done);

    // A request with a known answer, not more often than once a second.
    void probe(Done done);

    nlohmann::ordered_json status() const;
    std::string metricsText() const;

    // Sends what workers are to get; call it before each wait for events.
    void flush();
    // Children of the program that have ended are collected; call on SIGCHLD.
    void collectChildren();
    void stop(Seconds grace);

private:
    // One request that was checked.
    struct Part {
        const RequestInfo* info = nullptr;
        WireRequest wire;
        std::vector<Descriptor> files;
        std::string warnings;  // JSON
    };

    // Who waits for the answer to one of them, and what has to be known when it comes.
    struct Waiter {
        const RequestInfo* info;
        std::string warnings;
        Clock::time_point start;
        Done done;
    };

    Part check(const std::string& name, Fields& fields, const std::string& where) const;
    void checkFiles(Part& part, const std::optional<SecretText>& upload,
                    const std::string& where) const;
    void checkRoom(const WorkerPool& pool, size_t parts) const;
    void send(Part part, Done done);
    void sendToSession(Part part, const Waiter& waiter);
    void sendNewSession(Part part, const Waiter& waiter, unsigned attempt);
    void submit(Part part, std::optional<WorkerLife> bound,
                std::function<void(Ending, WireReply&, WorkerLife)> done);
    void endIdleSessions();
    void finish(const Waiter& waiter, Ending ending, const WireReply& reply);
    void refuse(const Waiter& waiter, const Refusal& refusal, double seconds = 0);
    Refusal goneRefusal(const std::string& token, const std::string& field) const;

    EventLoop& m_loop;
    const ServeOptions& m_options;
    const BodyLimits m_limits;
    Metrics& m_metrics;
    const Clock::time_point m_start = Clock::now();
    Sessions m_sessions;
    ConfinedFiles m_files;
    std::vector<Done> m_waitingForProbe;
    Clock::time_point m_probed;
    Answer m_lastProbe;
    Alarm m_idleSessions;
    std::optional<WorkerPool> m_peer;
    WorkerPool m_pool;  // the last: its end tells all tasks
};

#endif
