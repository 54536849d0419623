// The lines of the access log, byte by byte and at given times, and how lines leave the process.
#include "service/operation/access_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <vector>

#include "support/files.h"

namespace fs = std::filesystem;

namespace {

// The time of day that the log is shown; none is the system's.
timespec shownTime = {-1, 0};

}  // namespace

// In place of the library's.
extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    if (clock == CLOCK_REALTIME && shownTime.tv_sec >= 0) {
        *time = shownTime;
        return 0;
    }
    return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
}

namespace {

using support::readWhole;

class AccessLogLines : public testing::Test {
protected:
    void TearDown() override { shownTime.tv_sec = -1; }

    static void setTime() { shownTime = {1700000000, 7000000}; }

    const support::TemporaryFolder folder;
    const std::string file = folder.path("log");
};

TEST_F(AccessLogLines, HaveWhatEachAnswerHas)
{
    setTime();
    const mode_t mask = umask(0);
    {
        AccessLog log(file);
        log.write({});
        AccessEntry entry;
        entry.isWhole = false;
        entry.microseconds = 999;
        entry.requests = 1;
        log.write(entry);
        entry = {};
        entry.microseconds = 61001000;
        entry.failed = 3;
        log.write(entry);
    }
    umask(mask);
    const std::string start =
        "{\"time\":\"2023-11-14T22:13:20.007Z\",\"id\":\"\",\"address\":\"\",\"method\":\"\","
        "\"route\":\"\",\"status\":0,\"received\":0,\"sent\":0,\"milliseconds\":";
    EXPECT_EQ(start + "0.000,\"whole\":true}\n" + start +
                  "0.999,\"whole\":false,\"requests\":1,\"failed\":0}\n" + start +
                  "61001.000,\"whole\":true}\n",
              readWhole(file));
    EXPECT_EQ(0600U, static_cast<unsigned>(fs::status(file).permissions()));
}

TEST_F(AccessLogLines, HaveTheTimeToTheMillisecond)
{
    struct Row {
        time_t second;
        long nanoseconds;
        const char* text;
    };
    // Some of the same minute, one after the other, and some of others.
    const Row rows[] = {
        {1700000000, 0, "2023-11-14T22:13:20.000Z"},
        {1700000000, 999999, "2023-11-14T22:13:20.000Z"},
        {1700000000, 1000000, "2023-11-14T22:13:20.001Z"},
        {1700000000, 999999999, "2023-11-14T22:13:20.999Z"},
        {1700000039, 999999999, "2023-11-14T22:13:59.999Z"},
        {1700000040, 0, "2023-11-14T22:14:00.000Z"},
        {1700000049, 998000000, "2023-11-14T22:14:09.998Z"},
        {1700000049, 999000000, "2023-11-14T22:14:09.999Z"},
        {1700000050, 0, "2023-11-14T22:14:10.000Z"},
        {1700000050, 1000000, "2023-11-14T22:14:10.001Z"},
        {1709251199, 5000000, "2024-02-29T23:59:59.005Z"},
        {1709251200, 50000000, "2024-03-01T00:00:00.050Z"},
        {1700000000, 123000000, "2023-11-14T22:13:20.123Z"},
    };
    std::string expected;
    {
        AccessLog log(file);
        for (const Row& row : rows) {
            shownTime = {row.second, row.nanoseconds};
            log.write({});
            expected.append(row.text).append("\n");
        }
    }
    std::istringstream lines(readWhole(file));
    std::string times;
    for (std::string line; std::getline(lines, line);)
        times.append(line, 9, 24).append("\n");
    EXPECT_EQ(expected, times);
}

// Sixteen lines of 4096 bytes are 64 KiB.
TEST_F(AccessLogLines, AreCollectedUpTo64KiB)
{
    setTime();
    AccessLog log(file);
    log.write({});
    log.flush();
    const std::string id(4096 - fs::file_size(file), 'x');
    const auto before = fs::file_size(file);
    AccessEntry entry;
    entry.id = id;
    for (int i = 0; i < 15; ++i)
        log.write(entry);
    EXPECT_EQ(before, fs::file_size(file));
    log.write(entry);
    EXPECT_EQ(before + (64U << 10U), fs::file_size(file));
}

// A pipe that is full: what was dropped is told with the next line, not by itself.
TEST_F(AccessLogLines, TellOfDroppedOnesWithTheNextOne)
{
    setTime();
    ASSERT_EQ(0, mkfifo(file.c_str(), 0600));
    const Descriptor reader(open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    AccessLog log(file);
    const Descriptor writer(open(file.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    const std::string page(PIPE_BUF, 'x');
    while (write(writer.get(), page.data(), page.size()) > 0) {
    }
    for (int i = 0; i < 3; ++i)
        log.write({});
    log.flush();
    EXPECT_EQ(3U, log.dropped());
    std::string text(1 << 20, '\0');
    EXPECT_GT(read(reader.get(), text.data(), text.size()), PIPE_BUF);
    log.flush();
    EXPECT_EQ(-1, read(reader.get(), text.data(), text.size()));
    log.write({});
    log.flush();
    const ssize_t count = read(reader.get(), text.data(), text.size());
    ASSERT_GT(count, 0);
    text.resize(static_cast<size_t>(count));
    const std::string told = "{\"time\":\"2023-11-14T22:13:20.007Z\",\"dropped\":3}\n";
    EXPECT_EQ(told, text.substr(0, told.size()));
    EXPECT_EQ(1, std::count(text.begin() + static_cast<ssize_t>(told.size()), text.end(), '\n'));
    EXPECT_EQ(3U, log.dropped());
}

TEST_F(AccessLogLines, OfPeopleGoToStandardError)
{
    fs::create_directory(folder.path("logs"));
    AccessLog log(folder.path("logs/log"));
    fs::remove_all(folder.path("logs"));
    testing::internal::CaptureStderr();
    log.tell("a sentence");
    log.reopen();
    EXPECT_EQ(
        "corvane-host: a sentence\ncorvane-host: the access log stays where it is: cannot "
        "write " +
            folder.path("logs/log") + ": No such file or directory\n",
        testing::internal::GetCapturedStderr());
}

// ---- Lines through a socket that keeps apart what is written at once.

class LineMessages : public testing::Test {
protected:
    LineMessages()
    {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0) {
            m_reader = Descriptor(ends[0]);
            m_writer = Descriptor(ends[1]);
        }
    }

    std::vector<std::string> messages() const
    {
        std::vector<std::string> all;
        std::string buffer(1 << 20, '\0');
        for (ssize_t count;
             (count = recv(m_reader.get(), buffer.data(), buffer.size(), MSG_DONTWAIT)) >= 0;)
            all.push_back(buffer.substr(0, static_cast<size_t>(count)));
        return all;
    }

    static std::string line(size_t size) { return std::string(size - 1, 'x') + "\n"; }

    Descriptor m_reader;
    Descriptor m_writer;
};

using Messages = std::vector<std::string>;

TEST_F(LineMessages, HaveWholeLinesUpToWhatAPipeTakesAtOnce)
{
    LineSink sink(m_writer.get());
    const std::string whole = line(PIPE_BUF);
    EXPECT_EQ(1U, sink.write(whole));
    EXPECT_EQ(Messages{whole}, messages());
    EXPECT_EQ(2U, sink.write(whole + line(1)));
    EXPECT_EQ((Messages{whole, line(1)}), messages());
    EXPECT_EQ(3U, sink.write(line(96) + line(PIPE_BUF - 96) + line(7)));
    EXPECT_EQ((Messages{line(96) + line(PIPE_BUF - 96), line(7)}), messages());
    EXPECT_EQ(2U, sink.write(line(96) + line(PIPE_BUF - 95)));
    EXPECT_EQ((Messages{line(96), line(PIPE_BUF - 95)}), messages());
    EXPECT_EQ(3U, sink.write(line(PIPE_BUF + 1) + line(2) + line(3)));
    EXPECT_EQ((Messages{line(PIPE_BUF + 1), line(2) + line(3)}), messages());
    EXPECT_EQ(0U, sink.write(""));
    EXPECT_EQ(Messages{}, messages());
}

// Those behind it are dropped too, so that the lines that were taken are the first ones.
TEST_F(LineMessages, EndWithTheFirstThatIsNotTaken)
{
    LineSink sink(m_writer.get());
    const std::string tooLong = line(size_t{16} << 20);
    EXPECT_EQ(0U, sink.write(tooLong + line(2)));
    EXPECT_EQ(1U, sink.write(line(3) + tooLong + line(2)));
    EXPECT_EQ(Messages{line(3)}, messages());
}

}  // namespace
