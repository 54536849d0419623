// A worker as the front reads it: a program of the shell that sends frames of the greatest sizes.
#include "common/worker_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "support/conversation.h"
#include "support/files.h"
#include "support/held.h"
#include "support/longest_frame.h"
#include "support/tested.h"

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

std::unique_ptr<WorkerProcess> started(const std::string& program)
{
    return std::make_unique<WorkerProcess>("/bin/sh",
                                           std::vector<std::string>{"sh", "-c", program});
}

// Waits for what the worker sends next, or for its end.
void waitFor(const WorkerProcess& worker)
{
    pollfd waiting = {worker.socket(), POLLIN, 0};
    EXPECT_EQ(poll(&waiting, 1, -1), 1);
}

int statusOf(pid_t pid)
{
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return status;
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

TEST(WorkerProcess, FindsItsDescriptorsAndItsWords)
{
    const support::TemporaryFolder folder;
    const std::string program = "ls -l /proc/$$/fd >'" + folder.path("files") +
                                "'; tr '\\0' '|' </proc/$$/cmdline >'" + folder.path("words") + "'";
    const auto worker = std::make_unique<WorkerProcess>(
        "/bin/sh", std::vector<std::string>{"a name", "-c", program, "", "last"});
    EXPECT_EQ(statusOf(worker->pid()), 0);
    const std::string files = folder.read("files");
    EXPECT_NE(files.find(" 0 -> /dev/null\n"), std::string::npos) << files;
    EXPECT_NE(files.find(" 3 -> socket:"), std::string::npos) << files;
    EXPECT_NE(files.find(" 4 -> /memfd:claims"), std::string::npos) << files;
    EXPECT_EQ(folder.read("words"), "a name|-c|" + program + "||last|");
}

TEST(WorkerProcess, StartsWithAllSignalsAsTheyAreByDefault)
{
    if (support::emulated)
        GTEST_SKIP() << "NOT TESTED: the emulator leaves its own signals to its programs";
    const support::TemporaryFolder folder;
    sigset_t blocked, before;
    sigfillset(&blocked);
    pthread_sigmask(SIG_SETMASK, &blocked, &before);
    const auto former = signal(SIGUSR2, SIG_IGN);
    // In the same process: a shell blocks all signals while it starts another.
    const auto worker =
        started("exec grep -E '^Sig(Blk|Ign)' /proc/self/status >'" + folder.path("signals") + "'");
    signal(SIGUSR2, former);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(statusOf(worker->pid()), 0);
    const std::string told = folder.read("signals");
    const auto numberBehind = [&](const std::string& name) {
        return std::stoull(told.substr(told.find(name) + name.size()), nullptr, 16);
    };
    // The C library has two signals for itself.
    const unsigned long long ofTheLibrary = 3ULL << 31;
    EXPECT_EQ(numberBehind("SigBlk:"), 0U) << told;
    EXPECT_EQ(numberBehind("SigIgn:") & ~ofTheLibrary, 0U) << told;
}

TEST(WorkerProcess, IsKilledAtTheEnd)
{
    const size_t before = support::Held::now().descriptors;
    auto worker = started("exec sleep 5");
    const pid_t pid = worker->pid();
    EXPECT_EQ(support::Held::now().descriptors, before + 3);  // socket, claims, process
    worker.reset();
    const int status = statusOf(pid);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    EXPECT_EQ(support::Held::now().descriptors, before);
}

TEST(WorkerProcess, EndsByItselfWhenNothingMoreIsSent)
{
    const auto worker = started("while read -r line <&3; do :; done; exit 7");
    worker->post(SecretText("line\n"), {});
    EXPECT_TRUE(worker->send());
    worker->hangUp();
    EXPECT_EQ(WEXITSTATUS(statusOf(worker->pid())), 7);
}

TEST(WorkerProcess, WhyItDoesNotStartIsTold)
{
    if (support::emulated)
        GTEST_SKIP() << "NOT TESTED: the emulator does not tell that a program cannot be started";
    const auto failure = [](const std::string& program) {
        try {
            const WorkerProcess worker(program, {"worker"});
        } catch (const std::system_error& error) {
            return std::to_string(error.code().value()) + " " + error.what();
        }
        return std::string("started");
    };
    EXPECT_EQ(failure("/no/such program"),
              std::to_string(ENOENT) + " cannot start a worker: No such file or directory");
    const auto isOpen = [](rlim_t number) { return fcntl(static_cast<int>(number), F_GETFD) >= 0; };
    const char* const steps[] = {"cannot share memory with a worker", "cannot make a socket pair",
                                 "cannot make a socket pair", "cannot make a worker's files",
                                 "cannot make a worker's files"};
    const size_t before = support::Held::now().descriptors;
    rlimit original = {};
    getrlimit(RLIMIT_NOFILE, &original);
    for (size_t free = 0; free < std::size(steps); ++free) {
        rlimit few = original;
        few.rlim_cur = 0;
        for (size_t found = 0; found < free || isOpen(few.rlim_cur); ++few.rlim_cur)
            found += isOpen(few.rlim_cur) ? 0 : 1;
        setrlimit(RLIMIT_NOFILE, &few);
        const std::string told = failure("/bin/true");
        setrlimit(RLIMIT_NOFILE, &original);
        EXPECT_EQ(told, std::to_string(EMFILE) + " " + steps[free] + ": Too many open files");
        EXPECT_EQ(support::Held::now().descriptors, before) << free;
    }
}

TEST(WorkerProcess, SendsAsMuchAsTheSocketTakes)
{
    const size_t before = support::Held::now().descriptors;
    const size_t size = size_t{4} << 20;
    const auto worker = started("read -r line <&3; head -c " + std::to_string(size - 5) +
                                " <&3 | tr -d x >&2; exec sleep 60");
    EXPECT_EQ(worker->unsent(), 0U);
    std::vector<Descriptor> files;
    files.emplace_back(dup(STDERR_FILENO));
    worker->post(SecretText("line"), std::move(files));
    EXPECT_EQ(worker->unsent(), 4U);
    worker->post(SecretText("\n" + std::string(size - 5, 'x')), {});
    EXPECT_EQ(worker->unsent(), size);
    errno = EINTR;  // of something before
    EXPECT_TRUE(worker->send());
    EXPECT_GT(worker->unsent(), 0U);
    EXPECT_LT(worker->unsent(), size);
    // The files go with the first byte.
    EXPECT_EQ(support::Held::now().descriptors, before + 3);
    const auto sendTheRest = [&] {
        while (worker->unsent() > 0) {
            pollfd waiting = {worker->socket(), POLLOUT, 0};
            ASSERT_EQ(poll(&waiting, 1, -1), 1);
            ASSERT_TRUE(worker->send());
        }
    };
    sendTheRest();
    EXPECT_TRUE(worker->send());
    EXPECT_EQ(worker->unsent(), 0U);
    worker->post(SecretText("next"), {});
    EXPECT_EQ(worker->unsent(), 4U);
    sendTheRest();
    const pid_t pid = worker->pid();
    kill(pid, SIGKILL);
    statusOf(pid);
}

TEST(WorkerProcess, FilesAreSentOnce)
{
    const auto worker = started("cat <&3 >/dev/null");
    const size_t before = support::Held::now().descriptors;
    for (int i = 0; i < 2; ++i) {
        std::vector<Descriptor> files;
        files.emplace_back(dup(STDERR_FILENO));
        worker->post(SecretText("frame"), std::move(files));
        EXPECT_EQ(support::Held::now().descriptors, before + 1);
        EXPECT_TRUE(worker->send());
        EXPECT_EQ(support::Held::now().descriptors, before);
    }
    worker->hangUp();
    statusOf(worker->pid());
}

TEST(WorkerProcess, TellsThatItIsGone)
{
    const auto worker = started("exit 0");
    statusOf(worker->pid());
    errno = EINTR;
    EXPECT_FALSE(worker->receive());
    worker->post(SecretText("frame"), {});
    errno = EINTR;
    EXPECT_FALSE(worker->send());
}

TEST(WorkerProcess, TakesRepliesThatComeInPieces)
{
    const std::vector<std::string> frames = support::framesOf(support::conversationReplies());
    const std::string second = frames[1] + frames[2];
    const auto worker =
        started(support::printing(frames[0].substr(0, 1)) + "read -r line <&3\n" +
                support::printing(frames[0].substr(1) + second.substr(0, 10)) +
                "read -r line <&3\n" + support::printing(second.substr(10)) + "read -r line <&3\n");
    const auto goOn = [&] {
        worker->post(SecretText("\n"), {});
        errno = EINTR;
        EXPECT_TRUE(worker->send());
    };
    WireReply reply;
    bool good = false;
    const auto next = [&] {
        good = false;
        while (!worker->take(reply, good)) {
            EXPECT_TRUE(good);
            waitFor(*worker);
            errno = EINTR;
            if (!worker->receive())
                return std::string();
        }
        EXPECT_TRUE(good);
        return std::string(encode(reply));
    };
    waitFor(*worker);
    EXPECT_TRUE(worker->receive());
    EXPECT_FALSE(worker->take(reply, good));
    EXPECT_TRUE(good);
    goOn();
    EXPECT_EQ(next(), frames[0]);
    EXPECT_FALSE(worker->take(reply, good));
    EXPECT_TRUE(good);
    EXPECT_TRUE(worker->receive());  // nothing new
    goOn();
    EXPECT_EQ(next(), frames[1]);
    EXPECT_EQ(next(), frames[2]);
    EXPECT_FALSE(worker->take(reply, good));
    EXPECT_TRUE(good);
    goOn();
    waitFor(*worker);
    EXPECT_FALSE(worker->receive());
    statusOf(worker->pid());
}

TEST(TieToParent, EndsTheProcessWithItsParentAndNotBySignals)
{
    const pid_t child = fork();
    if (child == 0) {
        tieToParent();
        for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGUSR2})
            raise(number);
        int number = 0;
        prctl(PR_GET_PDEATHSIG, &number);
        _exit(number == SIGKILL ? 0 : 1);
    }
    EXPECT_EQ(statusOf(child), 0);
}
