#include "acceptor.h"

#include <algorithm>
#include <cerrno>
#include <numeric>

namespace {

// In one round of the loop.
constexpr unsigned mostAtOnce = 16;
// Where there is no descriptor for one that waits, or no memory.
constexpr Seconds restTime{0.1};
// How long those are taken that the system has made already.
constexpr Seconds longestAccepting{0.1};

}  // namespace

Acceptor::Acceptor(EventLoop& loop, Descriptor listening, const Threads& threads, size_t most)
    : m_loop(loop),
      m_listening(std::move(listening)),
      m_threads(threads),
      m_most(most),
      m_rested(loop, [this] { m_isResting = false; })
{
    m_watch = m_loop.watch(m_listening.get(), EPOLLIN, [this](uint32_t) {
        for (unsigned i = 0; i < mostAtOnce && hasRoom() && acceptOne(); ++i) {
        }
    });
}

Acceptor::~Acceptor()
{
    m_loop.unwatch(m_watch);
}

bool Acceptor::hasRoom() const
{
    return std::accumulate(m_threads.begin(), m_threads.end(), size_t{0},
                           [](size_t sum, const auto& thread) { return sum + thread->load(); }) <
           m_most;
}

// Whether there was one.
bool Acceptor::acceptOne()
{
    Newcomer newcomer;
    newcomer.size = sizeof newcomer.address;
    newcomer.socket =
        Descriptor(accept4(m_listening.get(), reinterpret_cast<sockaddr*>(&newcomer.address),
                           &newcomer.size, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!newcomer.socket) {
        // Else one that went away before it was taken.
        if (errno != EAGAIN && errno != ECONNABORTED && errno != EINTR) {
            m_isResting = true;
            m_rested.set(after(restTime));
        }
        return false;
    }
    // Where there is no memory for it, it is closed and waits no longer.
    Newcomers one;
    one.push_back(std::move(newcomer));
    (*std::min_element(m_threads.begin(), m_threads.end(), [](const auto& a, const auto& b) {
        return a->load() < b->load();
    }))->take(one);
    return true;
}

void Acceptor::run()
{
    if (m_listening)
        m_loop.change(m_watch, !m_isResting && hasRoom() ? uint32_t{EPOLLIN} : 0);
}

void Acceptor::drain()
{
    const Clock::time_point end = after(longestAccepting);
    while (hasRoom() && acceptOne() && Clock::now() < end) {
    }
    m_loop.unwatch(m_watch);
    m_listening.reset();
}
