// A worker as the front reads it: a program of the shell that sends frames of the greatest sizes.
#include "common/worker_process.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <memory>
#include <string>
#include <vector>

#include "support/conversation.h"
#include "support/longest_frame.h"

namespace {

using support::FRAME_LENGTH_SIZE;
using support::putNumber;

// A reply whose frame has so many bytes behind its length, most of them in one value: all that
// stands before that value.
std::string headOfReply(size_t size)
{
    WireReply reply;
    reply.results = {{"", ""}};
    std::string frame = encode(reply);
    const size_t value = size - (frame.size() - FRAME_LENGTH_SIZE);
    putNumber(frame, 0, static_cast<uint32_t>(size));
    putNumber(frame, frame.size() - FRAME_LENGTH_SIZE, static_cast<uint32_t>(value));
    return frame;
}

// A worker that sends the head of a reply and then so many zeros, and waits for its end.
class Worker {
public:
    Worker(const std::string& head, size_t zeros)
    {
        const std::string program = support::printing(head) + "head -c " + std::to_string(zeros) +
                                    " /dev/zero >&3\nread -r line <&3\n";
        m_process = std::make_unique<WorkerProcess>("/bin/sh",
                                                    std::vector<std::string>{"sh", "-c", program});
    }
    ~Worker()
    {
        const pid_t pid = m_process->pid();
        m_process.reset();
        waitpid(pid, nullptr, 0);
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // Reads until there is a reply, and tells whether there is; not if it is malformed.
    bool takeNext(WireReply& reply)
    {
        bool good = true;
        while (!m_process->take(reply, good))
            if (!good || !receive())
                return false;
        return true;
    }

    // Waits for what the worker sends next, and reads it.
    bool receive()
    {
        pollfd waiting = {m_process->socket(), POLLIN, 0};
        return poll(&waiting, 1, -1) == 1 && m_process->receive();
    }

private:
    std::unique_ptr<WorkerProcess> m_process;
};

// The most memory that this process has had so far, in KiB.
long mostMemory()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

}  // namespace

// The first test, before others take as much.
TEST(WorkerProcess, ALengthThatIsOnlyAnnouncedTakesNoMemory)
{
    const long before = mostMemory();
    {
        Worker worker(headOfReply(longestFrame).substr(0, FRAME_LENGTH_SIZE), 0);
        EXPECT_TRUE(worker.receive());
    }
    EXPECT_LT(mostMemory(), before + 65536);
}

TEST(WorkerProcess, TakesTheLongestReply)
{
    SKIP_WITHOUT_MEMORY_FOR_THE_LONGEST_FRAME();
    const std::string head = headOfReply(longestFrame);
    const size_t zeros = longestFrame + FRAME_LENGTH_SIZE - head.size();
    Worker worker(head, zeros);
    WireReply reply;
    ASSERT_TRUE(worker.takeNext(reply));
    ASSERT_EQ(reply.results.size(), 1U);
    EXPECT_EQ(reply.results[0].second.size(), zeros);
}

// At once: the worker waits for the front.
TEST(WorkerProcess, RefusesAReplyThatIsOneByteLonger)
{
    Worker worker(headOfReply(longestFrame + 1), 0);
    WireReply reply;
    EXPECT_FALSE(worker.takeNext(reply));
}
