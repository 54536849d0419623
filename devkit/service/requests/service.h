// Takes the bodies of requests and answers them with the help of worker processes. Of HTTP only
// the status of an answer is known here.
#ifndef CORVANE_SERVICE_REQUESTS_SERVICE_H
#define CORVANE_SERVICE_REQUESTS_SERVICE_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "addressee.h"
#include "answer.h"
#include "confined_files.h"
#include "service/bodies/request_body.h"
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

    // Also offers the other side of a key exchange, in a process of its own.
    void offerPeer(PoolOptions pool);

    // Throws a Refusal if anything is wrong with the body, or it is another node's; then nothing
    // has been sent, not even a part of a batch. Otherwise `done` is called once, perhaps before
    // this returns. If there is no memory for an answer, it is destroyed without having been
    // called.
    void request(const std::string& name, const Addressee& to, const std::string& contentType,
                 SecretText body, Done done);
    void batch(const Addressee& to, const std::string& contentType, SecretText body,
               const Done& done);
    // A step of the key exchange's other side; see peer_steps.h.
    void peer(const std::string& step, const Addressee& to, const std::string& contentType,
              SecretText body, Done done);

    // Whether requests are answered: sends one whose answer is known. Within a second the same
    // answer is given again.
    void probe(Done done);
    // From this on it refuses: the host is about to stop. Requests are answered as before.
    void announceEnd() { m_isEnding = true; }

    nlohmann::ordered_json status(const Addressee& to) const;
    std::string metricsText() const;

    // Writes what is due to the workers' sockets. Call it before each wait for events.
    void flush();
    // Collects child processes that have ended. Call it on SIGCHLD.
    void collectChildren();
    // Replaces the workers one after the other. Those with sessions are kept for a time.
    void rollWorkers();
    void stop(Seconds grace);

private:
    // One request, checked and ready to be sent.
    struct Part {
        const RequestInfo* info = nullptr;
        WireRequest wire;
        std::vector<Descriptor> files;
        std::string warnings;  // JSON
    };

    // What has to be known of it when its answer comes, and who gets that.
    struct Waiter {
        const RequestInfo* info;
        std::string warnings;
        Clock::time_point start;
        Done done;
    };

    Part check(const std::string& name, const Addressee& to, Fields& fields,
               const std::string& where) const;
    void checkSession(Part& part, const Addressee& to, const std::string& field) const;
    void checkAddressee(const Addressee& to) const;
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
    bool m_isEnding = false;
    Alarm m_idleSessions;
    std::optional<WorkerPool> m_peer;
    WorkerPool m_pool;  // the last: its destructor calls `done` of all tasks, which use the rest
};

#endif
