#include "calls.h"

#include <nlohmann/json.hpp>

void DirectCalls::begin(Call call, Service::Done done)
{
    try {
        switch (call.target) {
            case Target::Request:
                return m_service.request(call.name, call.to, call.contentType, std::move(call.body),
                                         done);
            case Target::Batch:
                return m_service.batch(call.to, call.contentType, std::move(call.body), done);
            case Target::Peer:
                return m_service.peer(call.name, call.to, call.contentType, std::move(call.body),
                                      done);
            case Target::Ready:
                return m_service.probe(done);
            case Target::Status:
                return done(answerOf(m_service.status(call.to)));
            case Target::Metrics:
                return done({200, metricsText(), "text/plain; version=0.0.4; charset=utf-8", ""});
            case Target::Live:
            case Target::Document:
                return;  // need no service
        }
    } catch (const Refusal& refusal) {
        done(answerOf(refusal));
    }
}

std::string DirectCalls::metricsText() const
{
    m_log.flush();
    return m_service.metricsText() +
           metric("corvane_connections", static_cast<double>(m_limits.connections())) +
           metric("corvane_access_log_dropped_total", static_cast<double>(m_log.dropped()));
}
