#include "front_thread.h"

#include <cstdlib>

#include "common/failure.h"
#include "service/operation/memory_end.h"

FrontThread::FrontThread(ServerShared& shared, Mailbox<Errand>& service)
    : m_service(service),
      m_log(shared.log),
      m_server(m_loop, shared, *this, Descriptor()),
      m_thread([this] { work(); })
{
}

FrontThread::~FrontThread()
{
    enter(Stage::Over);
    m_thread.join();
}

void FrontThread::enter(Stage stage)
{
    m_stage = stage;
    Errands none;
    m_inbox.post(none);
}

void FrontThread::take(Newcomers& one)
{
    ++m_given;
    m_newcomers.post(one);
}

void FrontThread::sendHome()
{
    if (!m_returning->empty())
        m_inbox.post(*m_returning);
}

void FrontThread::begin(Call call, Service::Done done)
{
    m_leaving.push_back({*this, std::move(call), std::move(done), std::nullopt});
}

void FrontThread::work()
{
    try {
        m_loop.run([this] { return round(); });
    } catch (const std::exception& e) {
        // One front less would not be noticed until its clients wait for ever.
        tellFailure("the host ends", e);
        _exit(EXIT_FAILURE);
    }
    m_hasEnded = true;
    m_service.post(m_leaving);
}

// Answers first: they make the server send. What it asks then goes out before the wait.
int FrontThread::round()
{
    forgetEndOfMemory();
    // Who said that it is over gave the last newcomer before.
    const Stage stage = m_stage;
    for (Newcomers come = m_newcomers.take(); !come.empty(); come.pop_front(), ++m_taken)
        m_server.add(std::move(come.front().socket), come.front().address, come.front().size);
    for (Errands home = m_inbox.take(); !home.empty(); home.pop_front())
        if (Errand& errand = home.front(); errand.answer)
            withoutFailure("an answer is lost", [&] { errand.done(std::move(*errand.answer)); });
    if (stage >= Stage::Draining)
        m_server.drain();
    if (stage >= Stage::Ending)
        m_server.endWaiting();
    const int timeout = m_server.run();
    const size_t ended = m_taken - m_server.connections();
    const bool haveEnded = m_ended.exchange(ended) != ended;
    if (haveEnded || !m_leaving.empty())
        m_service.post(m_leaving);
    m_log.flush();
    if (stage == Stage::Over || (stage != Stage::Serving && !m_server.isBusy()))
        m_loop.stop();
    return timeout;
}
