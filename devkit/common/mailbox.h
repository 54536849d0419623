// Hands things over to the thread of a loop.
#ifndef CORVANE_COMMON_MAILBOX_H
#define CORVANE_COMMON_MAILBOX_H

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <list>
#include <mutex>
#include <system_error>
#include <utility>

#include "event_loop.h"

// Neither side takes memory or waits for the other but while the list is moved. The loop
// outlives it.
template <class Letter>
class Mailbox {
public:
    using Letters = std::list<Letter>;

    // Of the loop whose thread takes the letters. Throws if there is no descriptor left.
    explicit Mailbox(EventLoop& loop) : m_loop(loop), m_bell(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
    {
        if (!m_bell)
            throw std::system_error(errno, std::generic_category(), "cannot make a mailbox");
        // Each ring is one event, whatever was counted before, so that nobody has to read it.
        m_watch = m_loop.watch(m_bell.get(), EPOLLIN | EPOLLET, [](uint32_t) {});
    }
    ~Mailbox() { m_loop.unwatch(m_watch); }
    Mailbox(const Mailbox&) = delete;
    Mailbox& operator=(const Mailbox&) = delete;

    // From any thread. The list is empty afterwards; one that is empty only wakes the loop.
    void post(Letters& letters)
    {
        {
            const std::lock_guard lock(m_mutex);
            m_letters.splice(m_letters.end(), letters);
            if (std::exchange(m_isRung, true))
                return;
        }
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t count = write(m_bell.get(), &one, sizeof one);
    }

    // On the loop's thread, in each of its rounds before it waits: what is posted later ends
    // the wait.
    Letters take()
    {
        Letters taken;
        const std::lock_guard lock(m_mutex);
        m_isRung = false;
        taken.swap(m_letters);
        return taken;
    }

private:
    EventLoop& m_loop;
    const Descriptor m_bell;
    EventLoop::WatchId m_watch = 0;
    std::mutex m_mutex;  // of the two that follow
    Letters m_letters;
    bool m_isRung = false;  // since the last take
};

#endif
