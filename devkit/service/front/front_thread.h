// A server on a thread of its own, which sends its calls to the service's thread and gets
// them back with their answers.
#ifndef CORVANE_SERVICE_FRONT_FRONT_THREAD_H
#define CORVANE_SERVICE_FRONT_FRONT_THREAD_H

#include <sys/socket.h>

#include <atomic>
#include <list>
#include <memory>
#include <optional>
#include <thread>

#include "common/mailbox.h"
#include "service/http/server.h"

class FrontThread;

// A call on its way to the service's thread and back. Only its own front's thread calls,
// copies or destroys `done`.
struct Errand {
    FrontThread& home;
    Call call;
    Service::Done done;
    std::optional<Answer> answer;  // stays empty where there was no memory for it
};
using Errands = std::list<Errand>;

// A connection that was made.
struct Newcomer {
    Descriptor socket;
    sockaddr_storage address = {};
    socklen_t size = 0;
};
using Newcomers = std::list<Newcomer>;

// What the constructor and the public functions are called by is the service's thread.
class FrontThread : private Calls {
public:
    // Errands go to `service`. Throws what Server throws.
    FrontThread(ServerShared& shared, Mailbox<Errand>& service);
    // Ends the thread, and the connections that are left.
    ~FrontThread() override;
    FrontThread(const FrontThread&) = delete;
    FrontThread& operator=(const FrontThread&) = delete;

    // Gives it a connection.
    void take(Newcomers& one);
    // How many it has, with those that it is about to take. `service` is woken when there are
    // fewer.
    size_t load() const { return m_given - m_ended; }

    // Where errands wait to be sent home. It may outlive the thread.
    const std::shared_ptr<Errands>& returning() const { return m_returning; }
    // Sends them.
    void sendHome();

    // As the server's; the thread ends once it has no connections left.
    void drain() { enter(Stage::Draining); }
    void endWaiting() { enter(Stage::Ending); }
    // Whether it has not ended; `service` is told when it does.
    bool isBusy() const { return !m_hasEnded; }

private:
    enum class Stage { Serving, Draining, Ending, Over };

    void enter(Stage stage);
    void begin(Call call, Service::Done done) override;
    void work();
    int round();

    Mailbox<Errand>& m_service;
    AccessLog& m_log;
    const std::shared_ptr<Errands> m_returning = std::make_shared<Errands>();
    size_t m_given = 0;  // connections, ever
    std::atomic<size_t> m_ended{0};
    std::atomic<Stage> m_stage{Stage::Serving};
    std::atomic<bool> m_hasEnded{false};
    // The thread's own from here on.
    EventLoop m_loop;
    Mailbox<Errand> m_inbox{m_loop};
    Mailbox<Newcomer> m_newcomers{m_loop};
    size_t m_taken = 0;  // connections, ever
    Errands m_leaving;
    Server m_server;
    std::thread m_thread;  // the last: it uses all of them
};

#endif
