// Requests to the plug-in as the interface takes and answers them, by worker processes.
// There is no HTTP here but the status of an answer.
#ifndef CORVANE_SERVICE_REQUESTS_SERVICE_H
#define CORVANE_SERVICE_REQUESTS_SERVICE_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "confined_files.h"
#include "request_body.h"
#include "service/operation/metrics.h"
#include "service/operation/options.h"
#include "service/workers/worker_pool.h"
#include "sessions.h"

struct Answer {
    unsigned status = 200;
    std::string body;
    std::string type = "application/json";
    std::string code;  // the host's own, if it refused
};

Answer answerOf(const Refusal& refusal);
Answer answerOf(const nlohmann::ordered_json& json);

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

    // Children of the program that have ended are collected; call on SIGCHLD.
    void collectChildren();
    void stop(Seconds grace);

private:
    using Json = nlohmann::ordered_json;
    using PartDone = std::function<void(Json answer, unsigned status, const std::string& code)>;

    // One request that was checked.
    struct Part {
        const RequestInfo* info = nullptr;
        WireRequest wire;
        std::vector<Descriptor> files;
        Json warnings = Json::array();
        unsigned attempts = 0;
    };

    Part check(const std::string& name, Fields& fields, const std::string& where) const;
    void checkFiles(Part& part, const std::optional<SecretText>& upload,
                    const std::string& where) const;
    void checkRoom(const WorkerPool& pool, size_t parts) const;
    void send(Part part, const PartDone& done);
    void sendNewSession(Part part, const PartDone& done);
    void submit(Part part, std::optional<WorkerLife> bound,
                std::function<void(Ending, WireReply&, WorkerLife)> done);
    void endIdleSessions();
    Json answerTo(const WireReply& reply, Json warnings) const;
    void finish(const RequestInfo& info, Ending ending, const WireReply& reply, Json warnings,
                Clock::time_point start, const PartDone& done);
    Refusal goneRefusal(const std::string& token, const std::string& field) const;

    EventLoop& loop_;
    const ServeOptions& options_;
    const BodyLimits limits_;
    Metrics& metrics_;
    const Clock::time_point start_ = Clock::now();
    Sessions sessions_;
    ConfinedFiles files_;
    std::vector<Done> waitingForProbe_;
    Clock::time_point probed_;
    Answer lastProbe_;
    Alarm idleSessions_;
    std::optional<WorkerPool> peer_;
    WorkerPool pool_;  // the last: its end tells all tasks
};

#endif
