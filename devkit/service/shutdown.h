// How the service ends: announced, then drained, then over.
#ifndef CORVANE_SERVICE_SHUTDOWN_H
#define CORVANE_SERVICE_SHUTDOWN_H

#include "service/front/fronts.h"
#include "service/operation/options.h"
#include "service/requests/service.h"

class Shutdown {
public:
    // It stops the loop, which is the service's.
    Shutdown(EventLoop& loop, const ServeOptions& options, Service& service, Fronts& fronts);

    // For a signal. The first one makes /readyz refuse, so that balancers send elsewhere; all
    // else goes on for the lame duck's time before the fronts drain. The second one stops at
    // once.
    void ask();

    // Stops the loop once nobody is left to be answered; call it before each wait for events.
    void run();

private:
    void drain();

    EventLoop& m_loop;
    const ServeOptions& m_options;
    Service& m_service;
    Fronts& m_fronts;
    bool m_isAsked = false;
    bool m_isDraining = false;
    Alarm m_announced;
    Alarm m_drained;
};

#endif
