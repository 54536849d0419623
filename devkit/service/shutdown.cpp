#include "shutdown.h"

#include <systemd/sd-daemon.h>

#include <utility>

Shutdown::Shutdown(EventLoop& loop, const ServeOptions& options, Service& service, Fronts& fronts)
    : m_loop(loop),
      m_options(options),
      m_service(service),
      m_fronts(fronts),
      m_announced(loop, [this] { drain(); }),
      m_drained(loop, [this] { m_loop.stop(); })
{
}

void Shutdown::ask()
{
    if (std::exchange(m_isAsked, true))
        return m_loop.stop();
    sd_notify(0, "STOPPING=1");
    m_service.announceEnd();
    if (m_options.lameDuckSeconds > 0)
        m_announced.set(after(Seconds(m_options.lameDuckSeconds)));
    else
        drain();
}

void Shutdown::drain()
{
    m_isDraining = true;
    m_drained.set(after(Seconds(m_options.drainSeconds)));
    m_fronts.drain();
}

void Shutdown::run()
{
    if (m_isDraining && !m_fronts.isBusy())
        m_loop.stop();
}
