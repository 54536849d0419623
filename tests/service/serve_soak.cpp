// A long run of requests over HTTP to corvane-host, while its workers are killed, all of them are
// replaced, and it opens its log anew and reads its tokens again; every answer is checked.
//
//   build/release/tests/serve_soak [--seconds N | --requests N] [--connections N] [--seed N]
//
// Runs for 60 seconds with 16 connections unless told otherwise. A connection sends its next
// request when it has its answer, and is replaced by another one after some hundred. Prints what
// was sent and what happened, the rate, and memory and open descriptors over the run. Ends with 0
// only if all of these hold:
//   - no answer was wrong, and no connection ended without an answer,
//   - no request was refused but one at most for each worker that was killed,
//   - the host counts as many requests as were sent,
//   - it has no more descriptors at the end than before the first connection,
//   - memory does not grow: once a third of the run is over, the line fitted to the front's
//     resident memory rises by less than 1 MiB, or by less than 32 KiB in a million requests. The
//     same holds for the largest worker's.
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <random>
#include <string_view>
#include <system_error>

#include "support/base64_text.h"
#include "support/long_run.h"
#include "support/served_host.h"

namespace {

using support::FigurePoint;
using support::HttpConnection;
using support::Json;
using support::ServedHost;
using Clock = std::chrono::steady_clock;

constexpr size_t MOMENTS = 30;  // at which memory is measured
constexpr size_t WARM_UP = 10;  // of them
constexpr double ALLOWED = 1 << 20;
constexpr size_t WORKERS = 2;

// Means, in seconds, of the times between two of them.
constexpr double BETWEEN_KILLS = 1;
constexpr double BETWEEN_RELOADS = 2;
constexpr double BETWEEN_ROLLS = 10;
constexpr unsigned MOST_ON_A_CONNECTION = 1000;

constexpr char REQUEST[] = "QZaven_crypto_hmac";

struct Plan {
    uint64_t seconds = 60;
    uint64_t requests = 0;  // if not 0, instead of the seconds
    uint64_t connections = 16;
    uint64_t seed = std::random_device()();
};

[[noreturn]] void usage()
{
    fprintf(stderr,
            "usage: serve_soak [--seconds N | --requests N] [--connections N] [--seed N]\n");
    exit(2);
}

Plan planOf(int argc, char** argv)
{
    Plan plan;
    if (!support::readNumbers(argc, argv,
                              {{"--seconds", &plan.seconds},
                               {"--requests", &plan.requests},
                               {"--connections", &plan.connections},
                               {"--seed", &plan.seed}}) ||
        plan.connections == 0 || plan.connections > 512 ||
        (plan.seconds == 0 && plan.requests == 0))
        usage();
    return plan;
}

// A request and what its answer must hold.
struct Question {
    std::string text;
    std::string expected;
};

// HMAC-SHA-256 of random texts, computed by OpenSSL; each is another one, so that an answer that
// goes to another client is found out.
std::vector<Question> questionsTo(const ServedHost& host, std::mt19937_64& random)
{
    std::vector<Question> questions;
    for (int i = 0; i < 256; ++i) {
        std::string key(1 + random() % 64, '\0');
        std::string data(1 + random() % 100, '\0');
        for (std::string* bytes : {&key, &data})
            for (char& byte : *bytes)
                byte = static_cast<char>(random());
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned size = 0;
        HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
             reinterpret_cast<const unsigned char*>(data.data()), data.size(), digest, &size);
        const Json parameters = {{"strHashAlg", 4},
                                 {"strKey", support::toUrlBase64(key)},
                                 {"strdata", support::toUrlBase64(data)}};
        const std::string answer =
            support::toUrlBase64(std::string(reinterpret_cast<char*>(digest), size));
        questions.push_back({host.text("POST", std::string("/v1/requests/") + REQUEST,
                                       {{"Content-Type", "application/json"}}, parameters.dump()),
                             "{\"Data\":\"" + answer + "\",\"errorCode\":\"0\"}"});
    }
    return questions;
}

struct Count {
    uint64_t sent = 0;
    uint64_t right = 0;
    uint64_t refused = 0;  // by the code for a worker that has failed
    uint64_t wrong = 0;
    uint64_t connections = 0;
    uint64_t kills = 0;
    uint64_t reloads = 0;
    uint64_t rolls = 0;
    std::vector<std::string> complaints;
};

// What the front and its workers hold.
struct Moment {
    double seconds;
    uint64_t sent;
    size_t front;        // bytes of memory
    size_t worker;       // likewise, of the largest one
    size_t descriptors;  // of the front
};

size_t residentOf(pid_t pid)
{
    size_t total = 0;
    size_t resident = 0;
    std::istringstream(support::readWhole("/proc/" + std::to_string(pid) + "/statm")) >> total >>
        resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

size_t descriptorsOf(pid_t pid)
{
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

// The first answer in the bytes, whole; nothing if there is none yet.
std::string_view wholeAnswer(std::string_view bytes)
{
    constexpr std::string_view lengthName = "\r\nContent-Length: ";
    const size_t end = bytes.find("\r\n\r\n");
    const size_t length = bytes.substr(0, end).find(lengthName);
    if (end == std::string_view::npos || length == std::string_view::npos)
        return {};
    const size_t size = end + 4 + strtoul(bytes.data() + length + lengthName.size(), nullptr, 10);
    return bytes.size() < size ? std::string_view() : bytes.substr(0, size);
}

// The clients, in one thread.
class Run {
public:
    Run(const Plan& plan, ServedHost& host)
        : m_plan(plan),
          m_host(host),
          m_random(plan.seed),
          m_questions(questionsTo(host, m_random)),
          m_epoll(epoll_create1(EPOLL_CLOEXEC)),
          m_clients(plan.connections)
    {
        for (Client& client : m_clients)
            connect(client);
    }
    ~Run() { close(m_epoll); }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    // Until the plan is fulfilled.
    std::vector<Moment> go()
    {
        std::vector<Moment> moments;
        while (moments.size() < MOMENTS) {
            serveEvents();
            disturb();
            if (done() * MOMENTS >= static_cast<double>(moments.size() + 1))
                moments.push_back(moment());
            showProgress(moments.size());
        }
        m_isOver = true;
        while (m_open > 0)
            serveEvents();
        return moments;
    }

    Moment moment() const
    {
        size_t worker = 0;
        for (const pid_t pid : support::childrenOf(m_host.pid()))
            worker = std::max(worker, residentOf(pid));
        return {seconds(), m_count.sent, residentOf(m_host.pid()), worker,
                descriptorsOf(m_host.pid())};
    }
    const Count& count() const { return m_count; }
    double seconds() const { return std::chrono::duration<double>(Clock::now() - m_start).count(); }

private:
    struct Client {
        std::unique_ptr<HttpConnection> connection;
        std::string bytes;  // of its answer
        const Question* question = nullptr;
        unsigned left = 0;  // requests on this connection
    };

    void connect(Client& client)
    {
        client.connection = std::make_unique<HttpConnection>(m_host.port());
        client.bytes.clear();
        client.left = 1 + static_cast<unsigned>(m_random() % MOST_ON_A_CONNECTION);
        ++m_count.connections;
        ++m_open;
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.ptr = &client;
        if (epoll_ctl(m_epoll, EPOLL_CTL_ADD, client.connection->descriptor(), &event) != 0)
            throw std::system_error(errno, std::generic_category(), "no connection");
        ask(client);
    }

    void ask(Client& client)
    {
        client.question = &m_questions[m_random() % m_questions.size()];
        ++m_count.sent;
        if (!client.connection->send(client.question->text))
            complain("a connection takes no request");
    }

    // With another connection in its place, unless the run is over.
    void end(Client& client)
    {
        client.connection.reset();
        --m_open;
        if (!m_isOver)
            connect(client);
    }

    void serveEvents()
    {
        std::array<epoll_event, 64> events;
        const int count = epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()), 100);
        for (int i = 0; i < count; ++i)
            receive(*static_cast<Client*>(events[static_cast<size_t>(i)].data.ptr));
    }

    void receive(Client& client)
    {
        std::array<char, 4096> part;
        const ssize_t got = recv(client.connection->descriptor(), part.data(), part.size(), 0);
        if (got <= 0) {
            complain("a connection ended without an answer");
            return end(client);
        }
        client.bytes.append(part.data(), static_cast<size_t>(got));
        const std::string_view answer = wholeAnswer(client.bytes);
        if (answer.empty())
            return;
        check(answer, *client.question);
        if (answer.size() != client.bytes.size())
            complain("more than an answer: " + client.bytes);
        client.bytes.clear();
        if (m_isOver || --client.left == 0)
            return end(client);
        ask(client);
    }

    void check(std::string_view answer, const Question& question)
    {
        if (answer.compare(0, 13, "HTTP/1.1 200 ") == 0 &&
            answer.find(question.expected) != std::string_view::npos)
            ++m_count.right;
        else if (answer.compare(0, 13, "HTTP/1.1 502 ") == 0 &&
                 answer.find("\"worker_failed\"") != std::string_view::npos)
            ++m_count.refused;
        else
            complain("instead of " + question.expected + ": " + std::string(answer));
    }

    void complain(const std::string& complaint)
    {
        ++m_count.wrong;
        if (m_count.complaints.size() < 10)
            m_count.complaints.push_back(complaint);
    }

    // ---- What happens to the host meanwhile

    Clock::time_point next(double mean)
    {
        const auto parts = static_cast<double>(m_random() % 2000) / 1000;
        return Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                  std::chrono::duration<double>(mean * parts));
    }

    void disturb()
    {
        const Clock::time_point now = Clock::now();
        if (now >= m_nextKill) {
            m_nextKill = next(BETWEEN_KILLS);
            const std::vector<pid_t> workers = support::childrenOf(m_host.pid());
            if (!workers.empty() && kill(workers[m_random() % workers.size()], SIGKILL) == 0)
                ++m_count.kills;
        }
        if (now >= m_nextReload) {
            m_nextReload = next(BETWEEN_RELOADS);
            // As programs do that keep logs small. The log may still be missing since the last
            // time.
            std::error_code ignored;
            std::filesystem::rename(m_host.path("access.log"), m_host.path("access.old"), ignored);
            m_host.signal(SIGHUP);
            ++m_count.reloads;
        }
        if (now >= m_nextRoll) {
            m_nextRoll = next(BETWEEN_ROLLS);
            m_host.signal(SIGUSR2);
            ++m_count.rolls;
        }
    }

    // The part of the plan that is fulfilled; 1 for all of it.
    double done() const
    {
        return m_plan.requests != 0
                   ? static_cast<double>(m_count.sent) / static_cast<double>(m_plan.requests)
                   : seconds() / static_cast<double>(m_plan.seconds);
    }

    void showProgress(size_t moments)
    {
        if (isatty(STDERR_FILENO) != 0 && std::exchange(m_shown, moments) != moments)
            fprintf(stderr, "%zu of %zu, %" PRIu64 " requests, %.0f s\n", moments, MOMENTS,
                    m_count.sent, seconds());
    }

    const Plan& m_plan;
    ServedHost& m_host;
    std::mt19937_64 m_random;
    const std::vector<Question> m_questions;
    const int m_epoll;
    const Clock::time_point m_start = Clock::now();
    Clock::time_point m_nextKill = next(BETWEEN_KILLS);
    Clock::time_point m_nextReload = next(BETWEEN_RELOADS);
    Clock::time_point m_nextRoll = next(BETWEEN_ROLLS);
    Count m_count;
    size_t m_open = 0;
    bool m_isOver = false;
    size_t m_shown = 0;
    std::vector<Client> m_clients;
};

// What the host counts of the request, however it was answered.
double countedBy(const ServedHost& host)
{
    std::istringstream metrics(host.get("/metrics").body);
    const std::string begin = std::string("corvane_requests_total{name=\"") + REQUEST + "\"";
    double sum = 0;
    for (std::string line; std::getline(metrics, line);)
        if (line.compare(0, begin.size(), begin) == 0)
            sum += atof(line.c_str() + line.rfind(' '));
    return sum;
}

bool staysFlat(const char* what, const std::vector<Moment>& moments, size_t Moment::*figure)
{
    std::vector<FigurePoint> points;
    for (size_t i = WARM_UP; i < moments.size(); ++i)
        points.push_back({moments[i].sent, moments[i].*figure});
    return support::staysFlat(what, points, ALLOWED);
}

// Says whether something holds, and returns it.
bool holds(bool fact, const char* complaint)
{
    if (!fact)
        printf("%s\n", complaint);
    return fact;
}

}  // namespace

int main(int argc, char** argv)
{
    const Plan plan = planOf(argc, argv);
    printf("seed %" PRIu64 ", %" PRIu64 " connections\n", plan.seed, plan.connections);
    fflush(stdout);

    ServedHost host({"--rate", "0", "--workers", std::to_string(WORKERS)});
    host.workers(WORKERS);
    const size_t before = descriptorsOf(host.pid());
    Run run(plan, host);
    const std::vector<Moment> moments = run.go();
    const double seconds = run.seconds();
    const Count& count = run.count();

    printf("%12" PRIu64 "  requests over %" PRIu64 " connections in %.0f s, %.0f in a second\n",
           count.sent, count.connections, seconds, static_cast<double>(count.sent) / seconds);
    printf("%12" PRIu64 "  answered right\n", count.right);
    printf("%12" PRIu64 "  refused, of %" PRIu64 " workers that were killed\n", count.refused,
           count.kills);
    printf("%12" PRIu64 "  times all workers were replaced\n", count.rolls);
    printf("%12" PRIu64 "  times the log was opened anew and the tokens read\n", count.reloads);
    printf("\n     seconds      requests   KiB of front   KiB of worker   descriptors\n");
    for (size_t i = WARM_UP - 1; i < moments.size(); i += 5)
        printf("%12.0f  %12" PRIu64 "  %13zu  %14zu  %12zu\n", moments[i].seconds, moments[i].sent,
               moments[i].front >> 10, moments[i].worker >> 10, moments[i].descriptors);

    bool good = staysFlat("front", moments, &Moment::front);
    good = staysFlat("largest worker", moments, &Moment::worker) && good;
    // A roll that is under way has a worker more.
    const bool fewer = support::eventually([&] { return descriptorsOf(host.pid()) <= before; });
    printf("descriptors: %zu at the start, %zu at the end%s\n", before, descriptorsOf(host.pid()),
           fewer ? "" : ": GROWS");
    good = good && fewer;

    printf("wrong answers: %" PRIu64 "\n", count.wrong);
    for (const std::string& complaint : count.complaints)
        printf("  %s\n", complaint.c_str());
    good = count.wrong == 0 && good;
    good = holds(count.refused <= count.kills, "MORE refused than workers killed") && good;
    good = holds(countedBy(host) == static_cast<double>(count.sent),
                 "the host COUNTS another number of requests") &&
           good;
    good = holds(!host.hasEnded() && host.stop() == 0, "the host has FAILED") && good;
    if (!good)
        printf("to repeat: --seed %" PRIu64 " --connections %" PRIu64 "\n", plan.seed,
               plan.connections);
    puts(good ? "passed" : "FAILED");
    return good ? 0 : 1;
}
