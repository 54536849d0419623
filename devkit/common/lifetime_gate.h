// A gate between the calls into a library and the end of what they use.
//
// Calls pass it together. Whoever makes or frees the state that calls use passes it alone: it
// waits for the calls that are inside, and the next ones wait for it. The lock itself favours
// calls; a second one, held while waiting for it, gives the others their turn among threads that
// call without a pause.
//
// A gate of static storage can be used before and after everything else in the process: it needs
// no code to begin or to end.
#ifndef CORVANE_COMMON_LIFETIME_GATE_H
#define CORVANE_COMMON_LIFETIME_GATE_H

#include <mutex>
#include <shared_mutex>
#include <type_traits>

class LifetimeGate {
public:
    // Inside as long as the lock lives. Nobody may enter twice.
    std::shared_lock<std::shared_mutex> enter()
    {
        const std::lock_guard<std::mutex> waiting(m_turn);
        return std::shared_lock<std::shared_mutex>(m_inside);
    }

    std::unique_lock<std::shared_mutex> enterAlone()
    {
        const std::lock_guard<std::mutex> waiting(m_turn);
        return std::unique_lock<std::shared_mutex>(m_inside);
    }

private:
    std::mutex m_turn;
    std::shared_mutex m_inside;
};

// A process may exit while other threads still call.
static_assert(std::is_trivially_destructible_v<LifetimeGate>);

#endif
