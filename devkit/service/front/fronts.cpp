#include "fronts.h"

#include <algorithm>

#include "common/failure.h"
#include "service/http/tls_memory.h"

namespace {

// Keeps an errand while the service has its call, and lets it go home when the service has
// done with it, whatever came of it.
class Held {
public:
    Held(Errands& errand, std::shared_ptr<Errands> returning) : m_returning(std::move(returning))
    {
        m_errand.swap(errand);
    }
    ~Held() { m_returning->splice(m_returning->end(), m_errand); }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;

    Call takeCall() { return std::move(m_errand.front().call); }
    void give(Answer answer) { m_errand.front().answer = std::move(answer); }

private:
    Errands m_errand;
    const std::shared_ptr<Errands> m_returning;
};

}  // namespace

Fronts::Fronts(EventLoop& loop, const ServeOptions& options, Service& service, Metrics& metrics,
               AccessLog& log, const BearerTokens* tokens)
    : m_shared{options, tokens, AllowedSites(options), TrustedProxies(options.trustedProxies),
               metrics, log,    ClientLimits(options)},
      m_calls(service, log, m_shared.limits)
{
    ListeningSocket listening = listenAt(options);
    if (!options.tlsCert.empty())
        wipeTlsMemory();
    m_place = std::move(listening.place);
    m_file.emplace(std::move(listening.file));
    if (options.frontThreads == 1) {
        m_server.emplace(loop, m_shared, m_calls, std::move(listening.descriptor));
        return;
    }
    m_inbox.emplace(loop);
    for (size_t i = 0; i < options.frontThreads; ++i)
        m_threads.push_back(std::make_unique<FrontThread>(m_shared, *m_inbox));
    m_acceptor.emplace(loop, std::move(listening.descriptor), m_threads, options.connections);
}

int Fronts::run()
{
    if (m_server)
        return m_server->run();
    Errands taken = m_inbox->take();
    while (!taken.empty()) {
        Errands one;
        one.splice(one.begin(), taken, taken.begin());
        carryOut(one);
    }
    for (const auto& thread : m_threads)
        thread->sendHome();
    m_acceptor->run();
    return -1;
}

// The first and only one of the list.
void Fronts::carryOut(Errands& errand)
{
    const std::shared_ptr<Errands> returning = errand.front().home.returning();
    withoutFailure("a request could not be served", [&] {
        const auto held = std::make_shared<Held>(errand, returning);
        m_calls.begin(held->takeCall(), [held](Answer answer) { held->give(std::move(answer)); });
    });
    // It is still here if there was no memory to hold it.
    returning->splice(returning->end(), errand);
}

void Fronts::drain()
{
    if (m_server)
        m_server->drain();
    if (m_acceptor)
        m_acceptor->drain();
    for (const auto& thread : m_threads)
        thread->drain();
}

bool Fronts::isBusy() const
{
    return m_server ? m_server->isBusy()
                    : std::any_of(m_threads.begin(), m_threads.end(),
                                  [](const auto& thread) { return thread->isBusy(); });
}

void Fronts::endWaiting()
{
    if (m_server)
        m_server->endWaiting();
    for (const auto& thread : m_threads)
        thread->endWaiting();
}
