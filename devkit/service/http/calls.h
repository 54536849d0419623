// What HTTP passes on to the service once a request is whole: HTTP has no part in it until
// there is an answer.
#ifndef CORVANE_SERVICE_HTTP_CALLS_H
#define CORVANE_SERVICE_HTTP_CALLS_H

#include <string>

#include "common/secrets.h"
#include "host/catalogue/http_routes.h"
#include "service/operation/access_log.h"
#include "service/operation/client_limits.h"
#include "service/requests/service.h"

struct Call {
    Target target;
    std::string name;  // behind the route's path
    Addressee to;
    std::string contentType;
    SecretText body;
};

class Calls {
public:
    virtual ~Calls() = default;

    // `done` is called once and on this thread, perhaps from within this call; or it goes
    // without a call, where there was no memory for an answer.
    virtual void begin(Call call, Service::Done done) = 0;
};

// Has the service carry them out at once, on this thread.
class DirectCalls : public Calls {
public:
    DirectCalls(Service& service, AccessLog& log, const ClientLimits& limits)
        : m_service(service), m_log(log), m_limits(limits)
    {
    }

    void begin(Call call, Service::Done done) override;

private:
    std::string metricsText() const;

    Service& m_service;
    AccessLog& m_log;
    const ClientLimits& m_limits;
};

#endif
