// The pool's rolls. Nothing of the ways of tasks is here: an alarm looks from time to time how
// far the roll has come, so that rolls cost nothing while there are none.
#include <cstdio>

#include "worker_pool.h"

namespace {

constexpr Seconds interval{0.02};

// A worker that was replaced has nothing to do: this is for the engine's cleaning up.
constexpr Seconds departure{2};

}  // namespace

void WorkerPool::roll(std::function<bool(size_t)> isNeeded)
{
    if (m_stopping)
        return;
    m_isNeeded = std::move(isNeeded);
    if (m_roll.step != Roll::None) {
        m_roll.isAskedAgain = true;
        return;
    }
    fprintf(stderr, "corvane-host: all workers are being replaced, one after the other\n");
    m_roll = Roll();
    m_roll.step = Roll::Starting;
    m_roll.slot = extraSlot();
    m_slots[extraSlot()].failedStarts = 0;
    start(extraSlot());
    m_rolls.set(after(interval));
}

void WorkerPool::goOnRolling()
{
    m_rolls.set(after(interval));
    if (m_departed && Clock::now() >= m_departedUntil)
        m_departed.reset();

    const size_t slot = m_roll.slot;
    Slot& place = m_slots[slot];
    if (m_roll.step == Roll::Starting)
        return onRollStarted();
    // Whatever became of the process meanwhile: the next one in its place is a new one.
    if (!place.info.isLeaving)
        return slot == extraSlot() ? endRoll() : void(m_roll.step = Roll::Starting);
    const bool isKept = Clock::now() < m_roll.until && m_isNeeded(slot);
    if (place.sent.empty() && place.bound.empty() && !isKept && !m_departed)
        depart(slot);
}

// Perhaps it has not started yet.
void WorkerPool::onRollStarted()
{
    const size_t slot = m_roll.slot;
    Slot& place = m_slots[slot];
    if (place.info.everReady)
        return drain(m_roll.isStopped ? extraSlot() : slot == extraSlot() ? 0 : slot + 1);
    if (place.failedStarts == 0 || m_roll.isStopped)
        return;
    m_roll.isStopped = true;
    fprintf(stderr,
            "corvane-host: a new worker does not start: no further worker is replaced, and the "
            "others keep the libraries that they have\n");
    if (slot != extraSlot())
        return;
    place.alarm->clear();
    endRoll();
}

void WorkerPool::drain(size_t slot)
{
    m_roll.step = Roll::Draining;
    m_roll.slot = slot;
    m_roll.until = after(m_options.rollTime);
    Slot& place = m_slots[slot];
    place.failedStarts = 0;
    place.info.isLeaving = place.process != nullptr;
    // One that waits for its next start need not wait.
    if (!place.info.isLeaving) {
        place.alarm->clear();
        if (slot != extraSlot())
            start(slot);
    }
    goOnRolling();
}

// The worker ends by itself, and another one takes its place. Who was too late for it is told.
void WorkerPool::depart(size_t slot)
{
    Slot& place = m_slots[slot];
    place.process->hangUp();
    m_loop.unwatch(place.watch);
    m_departed = std::move(place.process);
    m_departedUntil = after(departure);
    end(slot, Ending::LifeIsOver);
}

void WorkerPool::endRoll()
{
    if (!m_roll.isStopped)
        fprintf(stderr, "corvane-host: all workers have been replaced\n");
    const bool isAskedAgain = m_roll.isAskedAgain;
    m_roll = Roll();
    m_rolls.clear();
    if (isAskedAgain)
        roll(m_isNeeded);
}
