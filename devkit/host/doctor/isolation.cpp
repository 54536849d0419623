#include "isolation.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string_view>
#include <system_error>
#include <thread>

#include "host/values.h"

namespace {

using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

constexpr int deathsAtMost = 3;

struct Descriptor {
    int number;
    ~Descriptor() { closeNow(); }
    void closeNow()
    {
        if (number >= 0)
            close(number);
        number = -1;
    }
};

[[noreturn]] void fail(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

// A line to the parent: a finding, or the number of checks that have ended.
void sendLine(int pipe, const Json& json)
{
    const std::string line = jsonText(json, -1) + "\n";
    std::string_view rest = line;
    while (!rest.empty()) {
        const ssize_t count = ::write(pipe, rest.data(), rest.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            _exit(1);  // the parent has gone
        rest.remove_prefix(static_cast<size_t>(count));
    }
}

[[noreturn]] void runAsChild(const std::vector<Check>& checks, size_t first, int pipe, int messages)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    dup2(messages, STDOUT_FILENO);
    dup2(messages, STDERR_FILENO);

    const Tell tell = [&](const Finding& finding) {
        sendLine(pipe, {{"name", finding.name},
                        {"status", finding.status},
                        {"detail", finding.detail},
                        {"hint", finding.hint},
                        {"loading", finding.loading}});
    };
    for (size_t i = first; i < checks.size(); ++i) {
        try {
            checks[i].run(tell);
        } catch (const std::exception& e) {
            tell({checks[i].name, Status::Fail, e.what(), "", checks[i].loading});
        }
        sendLine(pipe, i + 1);
    }
    _exit(0);
}

// The last line that the child or its libraries have printed, or "".
std::string lastWords(int messages)
{
    char buffer[1024];
    const off_t size = lseek(messages, 0, SEEK_END);
    const off_t at = std::max<off_t>(0, size - static_cast<off_t>(sizeof buffer));
    const ssize_t count = pread(messages, buffer, sizeof buffer, at);
    std::string text(buffer, static_cast<size_t>(std::max<ssize_t>(0, count)));
    text.erase(text.find_last_not_of(" \n\r") + 1);
    const size_t line = text.rfind('\n');
    return line == std::string::npos ? text : text.substr(line + 1);
}

class Child {
public:
    Child(const std::vector<Check>& checks, size_t first) : m_ended(first)
    {
        int ends[2];
        if (m_messages.number < 0 || pipe2(ends, O_CLOEXEC) != 0)
            fail("cannot make a pipe");
        m_pipe.number = ends[0];
        Descriptor writing{ends[1]};
        m_pid = fork();
        if (m_pid < 0)
            fail("cannot start a process");
        if (m_pid == 0)
            runAsChild(checks, first, writing.number, m_messages.number);
    }

    // Until the child has ended, by itself or for the time. The pipe's end would not tell:
    // what a library has started may keep it open.
    void wait(std::chrono::seconds limit)
    {
        const auto deadline = Clock::now() + limit;
        fcntl(m_pipe.number, F_SETFL, O_NONBLOCK);
        for (bool running = true; running;) {
            running = waitpid(m_pid, &m_status, WNOHANG) == 0;
            if (running && Clock::now() >= deadline) {
                kill(m_pid, SIGKILL);
                waitpid(m_pid, &m_status, 0);
                m_timedOut = true;
                running = false;
            }
            take();
            if (running)
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }

    // How many checks have ended, those before this child too.
    size_t ended() const { return m_ended; }
    const Findings& findings() const { return m_findings; }

    std::string death(std::chrono::seconds limit) const
    {
        std::string text;
        if (m_timedOut)
            text = "did not return within " + std::to_string(limit.count()) + " s";
        else if (WIFSIGNALED(m_status))
            text = "ended its process: signal " + std::to_string(WTERMSIG(m_status)) + ", " +
                   strsignal(WTERMSIG(m_status));
        else
            text = "ended its process with exit code " + std::to_string(WEXITSTATUS(m_status));
        const std::string words = lastWords(m_messages.number);
        return words.empty() ? text : text + "; last message: " + words;
    }

private:
    // Takes what has come.
    void take()
    {
        char buffer[4096];
        for (ssize_t count; (count = read(m_pipe.number, buffer, sizeof buffer)) > 0;)
            m_received.append(buffer, static_cast<size_t>(count));
        for (size_t end; (end = m_received.find('\n')) != std::string::npos;) {
            const Json line = Json::parse(m_received.substr(0, end));
            m_received.erase(0, end + 1);
            if (line.is_number())
                m_ended = line;
            else
                m_findings.push_back({line["name"], line["status"].get<Status>(), line["detail"],
                                      line["hint"], line["loading"]});
        }
    }

    Descriptor m_messages{memfd_create("messages", MFD_CLOEXEC)};
    Descriptor m_pipe{-1};
    pid_t m_pid = -1;
    int m_status = 0;
    bool m_timedOut = false;
    size_t m_ended;
    std::string m_received;
    Findings m_findings;
};

}  // namespace

Findings runIsolated(const std::vector<Check>& checks, std::chrono::seconds limit)
{
    Findings findings;
    size_t next = 0;
    for (int deaths = 0; next < checks.size() && deaths < deathsAtMost; ++deaths) {
        Child child(checks, next);
        child.wait(limit);
        findings.insert(findings.end(), child.findings().begin(), child.findings().end());
        next = child.ended();
        if (next == checks.size())
            break;
        findings.push_back({checks[next].name, Status::Fail, child.death(limit),
                            "a host that must outlive this library loads it in a process of its "
                            "own, as corvane-host serve does",
                            checks[next].loading});
        ++next;
    }
    if (next < checks.size())
        findings.push_back({"checks left out", Status::Fail,
                            std::to_string(checks.size() - next) + ", from " + checks[next].name +
                                " on: too many processes were lost",
                            "mend the failures above first"});
    return findings;
}
