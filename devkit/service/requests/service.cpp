#include "service.h"

#include <sys/wait.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "common/version.h"
#include "host/catalogue/peer_steps.h"
#include "host/catalogue/renderings.h"
#include "service/operation/nodes.h"
#include "service/workers/session_requests.h"

namespace {

using Json = nlohmann::ordered_json;

// How often a new session is tried elsewhere when its worker ends before it began.
constexpr unsigned mostAttempts = 3;

// Has a sample, which tells a wrong answer from a right one.
constexpr const char* probeName = "QZaven_crypto_hmac";

bool isPath(const RequestInfo& info, const char* name)
{
    return std::any_of(info.parameters.begin(), info.parameters.end(), [&](const Parameter& p) {
        return p.form == Form::Path && std::string(p.name) == name;
    });
}

const char* stateName(WorkerPool::State state)
{
    switch (state) {
        case WorkerPool::State::Idle:
            return "idle";
        case WorkerPool::State::Busy:
            return "busy";
        case WorkerPool::State::Starting:
            break;
    }
    return "starting";
}

// The parts of a batch as they are answered.
struct Gathering {
    std::vector<Answer> answers;
    size_t missing;
};

}  // namespace

Service::Service(EventLoop& loop, const ServeOptions& options, PoolOptions pool, Metrics& metrics,
                 std::function<void()> onReady)
    : m_loop(loop),
      m_options(options),
      m_limits{BodyLimits().parameters, options.parameterBytes, BodyLimits().batch},
      m_metrics(metrics),
      m_sessions(pool.workers + 1, options.sessions),  // a roll makes one more
      m_files(options.caFolder),
      m_idleSessions(loop, [this] { endIdleSessions(); }),
      m_pool(loop, std::move(pool), std::move(onReady),
             [this](WorkerLife life) { m_sessions.endAllOf(life, Reason::session_worker_ended); })
{
    endIdleSessions();
}

void Service::offerPeer(PoolOptions pool)
{
    m_peer.emplace(
        m_loop, std::move(pool), [] {}, [](WorkerLife) {});
}

void Service::collectChildren()
{
    for (pid_t pid; (pid = waitpid(-1, nullptr, WNOHANG)) > 0;) {
        m_pool.childEnded(pid);
        if (m_peer)
            m_peer->childEnded(pid);
    }
}

void Service::flush()
{
    m_pool.flush();
    if (m_peer)
        m_peer->flush();
}

void Service::rollWorkers()
{
    m_pool.roll([this](size_t slot) { return m_sessions.countOf(slot) > 0; });
}

void Service::stop(Seconds grace)
{
    if (m_peer)
        m_peer->stop(Seconds(0));
    m_pool.stop(grace);
}

// ---- Checks.

Service::Part Service::check(const std::string& name, const Addressee& to, Fields& fields,
                             const std::string& where) const
{
    Part part;
    part.info = findRequest(name);
    if (part.info == nullptr) {
        // How near a name is takes time by its length.
        const std::string place = where.empty() ? "name" : where + ".name";
        if (name.size() > 64)
            throw Refusal(Reason::no_such_request, place);
        throw Refusal(Reason::misspelt_request, place, {{"nearest", nearestRequest(name)}});
    }
    Prepared prepared = prepare(*part.info, fields);
    part.wire.name = name;
    part.wire.parameters = std::move(prepared.parameters);
    part.warnings = warningsText(complaints(*part.info, part.wire.parameters));

    const std::string place = where.empty() ? "" : where + ".parameters.";
    if (takesSession(*part.info))
        checkSession(part, to, place + sessionParameter);
    checkAddressee(to);
    checkFiles(part, prepared.upload, place);
    return part;
}

// `field` is where the session's token stands.
void Service::checkSession(Part& part, const Addressee& to, const std::string& field) const
{
    const std::string* token = findValue(part.wire.parameters, sessionParameter);
    if (token == nullptr || token->empty())
        return;
    if (!m_options.node.empty())
        ::checkSession(to, *token, m_options.node, field);
    part.wire.session = *token;
    if (m_sessions.find(part.wire.session) == nullptr)
        throw goneRefusal(*token, field);
}

void Service::checkAddressee(const Addressee& to) const
{
    if (!m_options.node.empty())
        checkNode(to, m_options.node);
}

void Service::checkFiles(Part& part, const std::optional<SecretText>& upload,
                         const std::string& where) const
{
    for (const char* name : {rootFileParameter, rootFolderParameter}) {
        const std::string* value = findValue(part.wire.parameters, name);
        if (!isPath(*part.info, name) || value == nullptr || value->empty())
            continue;
        const bool isFile = name == rootFileParameter;
        part.wire.files.emplace_back(name);
        if (isFile && upload)
            part.files.push_back(ConfinedFiles::upload(*upload));
        else if (isFile)
            part.files.push_back(m_files.openFile(*value, where + name));
        else
            part.files.push_back(m_files.openFolder(*value, where + name));
    }
}

void Service::checkRoom(const WorkerPool& pool, size_t parts) const
{
    const size_t free = pool.ready() - pool.busy();
    if (pool.queued() + parts > m_options.queue + free)
        throw Refusal(Reason::queue_full);
}

Refusal Service::goneRefusal(const std::string& token, const std::string& field) const
{
    return Refusal(m_sessions.reasonOf(token), field);
}

// ---- Sending.

void Service::request(const std::string& name, const Addressee& to, const std::string& contentType,
                      SecretText body, Done done)
{
    try {
        Fields fields = readBody(contentType, std::move(body), m_limits);
        Part part = check(name, to, fields, "");
        checkRoom(m_pool, 1);
        send(std::move(part), std::move(done));
    } catch (const Refusal& refusal) {
        if (findRequest(name) != nullptr)
            m_metrics.countRequest(name, refusal.code().name, 0);
        throw;
    }
}

void Service::batch(const Addressee& to, const std::string& contentType, SecretText body,
                    const Done& done)
{
    std::vector<BatchPart> read = readBatch(contentType, std::move(body), m_limits);
    std::vector<Part> parts;
    parts.reserve(read.size());
    for (BatchPart& part : read)
        parts.push_back(check(part.name, to, part.fields, part.where));
    checkRoom(m_pool, parts.size());

    const auto gathering = std::make_shared<Gathering>();
    gathering->answers.resize(parts.size());
    gathering->missing = parts.size();
    for (size_t i = 0; i < parts.size(); ++i)
        send(std::move(parts[i]), [gathering, done, i](Answer answer) {
            gathering->answers[i] = std::move(answer);
            if (--gathering->missing == 0)
                done(batchAnswer(gathering->answers));
        });
}

void Service::peer(const std::string& step, const Addressee& to, const std::string& contentType,
                   SecretText body, Done done)
{
    checkAddressee(to);
    const PeerStep* known = findPeerStep(step);
    if (!m_peer || known == nullptr)
        throw Refusal(m_peer ? Reason::no_such_step : Reason::no_peer);

    Task task;
    task.request.name = known->name;
    Fields fields = readBody(contentType, std::move(body), m_limits);
    for (Field& field : fields) {
        if (field.given != Given::Plain)
            throw Refusal(Reason::not_for_peer, field.where);
        task.request.parameters.emplace_back(std::move(field.name), std::move(field.value));
    }
    for (const char* member : known->members)
        if (findValue(task.request.parameters, member) == nullptr)
            throw Refusal(Reason::missing_for_peer, member, {{"name", member}});
    checkRoom(*m_peer, 1);

    task.done = [done = std::move(done)](Ending ending, WireReply& reply, WorkerLife) {
        const bool isAnswer = ending == Ending::Answered && reply.kind == WireReply::Answer;
        done(isAnswer ? peerAnswer(reply) : answerOf(refusalOf(ending, reply)));
    };
    m_peer->submit(std::move(task));
}

void Service::submit(Part part, std::optional<WorkerLife> bound,
                     std::function<void(Ending, WireReply&, WorkerLife)> done)
{
    Task task;
    task.request = std::move(part.wire);
    task.files = std::move(part.files);
    task.bound = bound;
    task.done = std::move(done);
    m_pool.submit(std::move(task));
}

void Service::send(Part part, Done done)
{
    Waiter waiter = {part.info, std::move(part.warnings), Clock::now(), std::move(done)};
    if (part.wire.name == newSessionRequest)
        return sendNewSession(std::move(part), waiter, 1);
    if (!part.wire.session.empty())
        return sendToSession(std::move(part), waiter);
    submit(std::move(part), std::nullopt,
           [this, waiter = std::move(waiter)](Ending ending, WireReply& reply, WorkerLife) {
               finish(waiter, ending, reply);
           });
}

void Service::sendToSession(Part part, const Waiter& waiter)
{
    const SecretText token = part.wire.session;
    // An earlier part of the same batch may have ended it.
    const std::shared_ptr<Sessions::Use> use = m_sessions.enter(token);
    if (use == nullptr)
        return refuse(waiter, goneRefusal(token, sessionParameter));

    const bool frees = part.wire.name == freeSessionRequest;
    // It is in use until the answer: the capture keeps `use`.
    submit(std::move(part), use->life(),
           [this, waiter, token, frees, use](Ending ending, WireReply& reply, WorkerLife) {
               if (ending == Ending::LifeIsOver)
                   return refuse(waiter, Refusal(Reason::session_worker_ended, sessionParameter));
               if (ending == Ending::Answered && reply.kind == WireReply::SessionGone) {
                   m_sessions.end(token, Reason::session_worker_forgot);
                   return refuse(waiter, goneRefusal(token, sessionParameter));
               }
               if (ending == Ending::Answered && frees)
                   m_sessions.end(token, Reason::session_freed);
               finish(waiter, ending, reply);
           });
}

// To the worker with the fewest sessions, if possible one that a roll leaves alone. One that ends
// before it began does not count.
void Service::sendNewSession(Part part, const Waiter& waiter, unsigned attempt)
{
    const auto rank = [this](size_t slot) {
        return std::make_pair(!m_pool.stays(slot), m_sessions.countOf(slot));
    };
    std::optional<WorkerLife> chosen;
    for (size_t slot = 0; slot < m_pool.size(); ++slot)
        if (m_pool.info(slot).pid > 0 && (!chosen || rank(slot) < rank(chosen->slot)))
            chosen = WorkerLife{slot, m_pool.info(slot).generation};
    const auto reservation = chosen ? m_sessions.reserve(*chosen) : nullptr;
    if (reservation == nullptr)
        return refuse(waiter, Refusal(Reason::sessions_full));

    part.wire.session = makeSessionToken(m_options.node);
    const SecretText token = part.wire.session;
    submit(
        std::move(part), *chosen,
        [this, waiter, attempt, token, reservation](Ending ending, WireReply& reply, WorkerLife) {
            if (ending == Ending::Answered && reply.kind == WireReply::Answer && reply.ok)
                reservation->add(token);
            else
                reservation->cancel();
            if (ending == Ending::LifeIsOver && attempt < mostAttempts) {
                Part again;
                again.wire.name = newSessionRequest;
                return sendNewSession(std::move(again), waiter, attempt + 1);
            }
            finish(waiter, ending, reply);
        });
}

void Service::finish(const Waiter& waiter, Ending ending, const WireReply& reply)
{
    const double seconds = Seconds(Clock::now() - waiter.start).count();
    if (ending != Ending::Answered || reply.kind != WireReply::Answer)
        return refuse(waiter, refusalOf(ending, reply), seconds);
    m_metrics.countRequest(waiter.info->name, reply.ok ? "0" : reply.code, seconds);
    waiter.done(pluginAnswer(reply, waiter.warnings));
}

void Service::refuse(const Waiter& waiter, const Refusal& refusal, double seconds)
{
    m_metrics.countRequest(waiter.info->name, refusal.code().name, seconds);
    waiter.done(answerOf(refusal));
}

// As often as makes the time that was promised nearly right.
void Service::endIdleSessions()
{
    const Seconds idle(m_options.sessionSeconds);
    m_idleSessions.set(after(std::clamp(idle / 4, Seconds(0.05), Seconds(5))));
    for (const SecretText& token :
         m_sessions.idleSince(Clock::now() - std::chrono::duration_cast<Clock::duration>(idle))) {
        Part part;
        part.wire.name = freeSessionRequest;
        part.wire.session = token;
        const WorkerLife life = *m_sessions.find(token);
        m_sessions.end(token, Reason::session_idle);
        submit(std::move(part), life, [](Ending, WireReply&, WorkerLife) {});
    }
}

// ---- What operators ask.

void Service::probe(Done done)
{
    if (m_isEnding)
        return done(answerOf(Refusal(Reason::host_stops)));
    if (m_probed != Clock::time_point() && Clock::now() - m_probed < std::chrono::seconds(1))
        return done(m_lastProbe);
    if (!m_waitingForProbe.empty())
        return m_waitingForProbe.push_back(std::move(done));
    Part part;
    part.wire.name = probeName;
    part.wire.parameters = findRequest(probeName)->sample->parameters;
    // Where nothing comes of it, nobody waits for it any longer.
    const std::shared_ptr<void> end(this, [this](void*) { m_waitingForProbe.clear(); });
    m_waitingForProbe.push_back(std::move(done));
    submit(std::move(part), std::nullopt, [this, end](Ending ending, WireReply& reply, WorkerLife) {
        const std::string* data = findValue(reply.results, "Data");
        const bool isRight = data != nullptr && *data == findRequest(probeName)->sample->data;
        const char* status = "no worker answers";
        if (ending == Ending::Answered)
            status = isRight ? "ok" : "a worker gives a wrong answer";
        m_metrics.countReadiness(status);
        m_lastProbe = answerOf(Json{{"status", status}});
        m_lastProbe.status = isRight ? 200 : 503;
        m_probed = Clock::now();
        for (const Done& one : std::exchange(m_waitingForProbe, {}))
            one(m_lastProbe);
    });
}

Json Service::status(const Addressee& to) const
{
    checkAddressee(to);
    Json workers = Json::array();
    for (size_t slot = 0; slot < m_pool.size(); ++slot) {
        const WorkerPool::WorkerInfo info = m_pool.info(slot);
        workers.push_back({{"slot", slot},
                           {"state", info.isLeaving ? "leaving" : stateName(info.state)},
                           {"restarts", info.restarts},
                           {"sessions", m_sessions.countOf(slot)},
                           {"requests", info.served}});
    }
    Json status = {{"version", productVersion()}, {"commit", productCommit()}};
    if (!m_options.node.empty())
        status["node"] = m_options.node;
    status.update({{"uptime_seconds", static_cast<long>(Seconds(Clock::now() - m_start).count())},
                   {"engine", m_pool.version()},
                   {"workers", workers},
                   {"sessions", m_sessions.count()},
                   {"queue", m_pool.queued()},
                   {"limits",
                    {{"body_bytes", m_options.bodyBytes},
                     {"parameter_bytes", m_limits.parameterBytes},
                     {"parameters", m_limits.parameters},
                     {"batch", m_limits.batch},
                     {"sessions_per_worker", m_options.sessions},
                     {"session_idle_seconds", m_options.sessionSeconds},
                     {"request_seconds", m_options.requestSeconds}}},
                   {"peer", m_peer.has_value()}});
    return status;
}

std::string Service::metricsText() const
{
    const auto number = [](size_t value) { return static_cast<double>(value); };
    uint64_t restarts = 0;
    std::string memory =
        metric("corvane_resident_bytes", number(residentBytes(getpid())), {{"process", "front"}});
    for (size_t slot = 0; slot < m_pool.size(); ++slot) {
        const WorkerPool::WorkerInfo info = m_pool.info(slot);
        restarts += info.restarts;
        memory +=
            metricRow("corvane_resident_bytes", info.pid > 0 ? number(residentBytes(info.pid)) : 0,
                      {{"process", "worker" + std::to_string(slot)}});
    }
    return metric("corvane_build_info", 1,
                  {{"version", productVersion()},
                   {"commit", productCommit()},
                   {"node", m_options.node}}) +
           m_metrics.text() + metric("corvane_workers", number(m_pool.size())) +
           metric("corvane_workers_ready", number(m_pool.ready())) +
           metric("corvane_workers_busy", number(m_pool.busy())) +
           metric("corvane_worker_restarts_total", number(restarts)) +
           metric("corvane_sessions", number(m_sessions.count())) +
           metric("corvane_sessions_limit", number(m_options.sessions * m_pool.size())) +
           metric("corvane_queue", number(m_pool.queued())) +
           metric("corvane_queue_limit", number(m_options.queue)) +
           metric("corvane_uptime_seconds", Seconds(Clock::now() - m_start).count()) + memory +
           processMetrics();
}
