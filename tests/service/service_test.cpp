// Requests on their way through the service, without HTTP. This program plays its workers too.
#include "service/requests/service.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "common/version.h"
#include "support/files.h"
#include "support/served_host.h"

namespace fs = std::filesystem;

namespace {

using namespace std::string_literals;
using support::readWhole;
using support::rowOf;
using support::writeWhole;
using Json = nlohmann::ordered_json;

constexpr const char* jsonType = "application/json";
constexpr const char* hmac = "QZaven_crypto_hmac";
constexpr const char* makeSession = "QZaven_ke_new";
constexpr const char* useSession = "QZaven_ke_client_hello";
constexpr const char* freeSession = "QZaven_ke_free";
constexpr const char* setRoot = "QZaven_ke_set_root_certificate";

// ---- The worker.

// Adds a line to a file, as many processes may do.
void note(const std::string& file, const std::string& line)
{
    const Descriptor out(open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600));
    [[maybe_unused]] const ssize_t count = write(out.get(), (line + "\n").data(), line.size() + 1);
}

void waitFor(const std::string& file)
{
    while (!fs::exists(file))
        usleep(1000);
}

// Notes each request in its folder, and does what the request's parameter "do" says.
int work(const fs::path& folder)
{
    note(folder / "pids", std::to_string(getpid()));
    if (fs::exists(folder / "slow"))
        waitFor(folder / "start");
    WireReply ready;
    ready.kind = WireReply::Ready;
    ready.text = "engine 1.0";
    writeFrame(3, encode(ready));
    RequestReader requests(3);
    WireRequest request;
    for (std::vector<Descriptor> files; requests.next(request, files); files.clear()) {
        std::string line = request.name + " " + request.session;
        for (size_t i = 0; i < files.size(); ++i)
            line += " " + request.files[i] + "=" +
                    readWhole("/proc/self/fd/" + std::to_string(files[i].get()));
        note(folder / "requests", line);
        const std::string* given = findValue(request.parameters, "do");
        const std::string what = given == nullptr ? "" : *given;
        WireReply reply;
        reply.ok = what != "refuse";
        reply.code = what == "refuse" ? "-20084" : "";
        reply.results = {
            {"Data", request.name == makeSession ? std::string(request.session) : "x"}};
        if (what == "die")
            _exit(1);
        if (what == "hold")
            waitFor(folder / "go");
        if (what == "fail" || what == "forget") {
            reply.kind = what == "fail" ? WireReply::Failed : WireReply::SessionGone;
            reply.text = "no library";
        }
        if (request.name == hmac && fs::exists(folder / "right"))
            reply.results = {{"Data", findRequest(hmac)->sample->data}};
        writeFrame(3, encode(reply));
    }
    return 0;
}

// ---- The service.

class ServiceTest : public testing::Test {
protected:
    void SetUp() override
    {
        NEEDS_WORKERS();
        testing::internal::CaptureStderr();  // what the pool says of workers that end
        m_options.workers = 1;
        m_options.parameterBytes = 1000;
    }
    void TearDown() override
    {
        if (!support::emulated)
            testing::internal::GetCapturedStderr();
    }

    std::string path(const std::string& name) const { return m_folder.path(name); }

    PoolOptions pool(size_t workers) const
    {
        PoolOptions pool;
        pool.program = "/proc/self/exe";
        pool.command = {"service_test", "worker", m_folder.path()};
        pool.workers = workers;
        pool.taskTime = Seconds(60);
        pool.rollTime = Seconds(600);
        return pool;
    }
    // With all of its workers, if they start at once.
    void start(bool offersPeer = false)
    {
        m_service.emplace(m_loop, m_options, pool(m_options.workers), m_metrics, [] {});
        if (offersPeer)
            m_service->offerPeer(pool(1));
        if (!fs::exists(path("slow")))
            until([&] { return row("corvane_workers_ready") == double(m_options.workers); });
    }

    // Goes on until something holds.
    void until(const std::function<bool()>& holds)
    {
        const auto deadline = after(Seconds(60));
        bool isReached = false;
        m_loop.run([&] {
            m_service->collectChildren();
            m_service->flush();
            isReached = holds();
            if (isReached || Clock::now() > deadline)
                m_loop.stop();
            return 5;
        });
        ASSERT_TRUE(isReached);
    }

    // A request's answer, once there is one. What is refused before has an answer at once.
    struct Asked {
        std::optional<Answer> answer;

        Json json() const { return Json::parse(answer->body); }
        std::string told() const
        {
            if (!answer)
                return "no answer so far";
            const Json error = json()["error"];
            return error["reason"].get<std::string>() + " " + error["field"].dump() + " " +
                   error["values"].dump();
        }
    };
    using Pending = std::shared_ptr<Asked>;

    template <class Call>
    Pending asked(Call call)
    {
        auto pending = std::make_shared<Asked>();
        try {
            call([pending](Answer answer) {
                EXPECT_FALSE(pending->answer) << "a second answer";
                pending->answer = std::move(answer);
            });
        } catch (const Refusal& refusal) {
            EXPECT_FALSE(pending->answer) << "refused after an answer";
            pending->answer = answerOf(refusal);
        }
        return pending;
    }
    Pending send(const std::string& name, const Json& parameters = Json::object(),
                 const Addressee& to = {})
    {
        return asked(
            [&](auto done) { m_service->request(name, to, jsonType, parameters.dump(), done); });
    }
    Pending sendBatch(const Json& requests)
    {
        return asked([&](auto done) {
            m_service->batch({}, jsonType, Json{{"requests", requests}}.dump(), done);
        });
    }
    Pending sendStep(const std::string& step, const Json& members)
    {
        return asked([&](auto done) { m_service->peer(step, {}, jsonType, members.dump(), done); });
    }
    Pending probe()
    {
        return asked([&](auto done) { m_service->probe(done); });
    }
    Pending wait(const Pending& pending)
    {
        until([&] { return pending->answer.has_value(); });
        return pending;
    }
    std::string newSession() { return wait(send(makeSession))->json()["results"]["Data"]; }

    Json status() const { return m_service->status({}); }
    double row(const std::string& name) const { return rowOf(m_service->metricsText(), name); }
    size_t sessionsIn(size_t slot) const { return status()["workers"][slot]["sessions"]; }

    std::vector<std::string> noted(const std::string& file) const
    {
        std::vector<std::string> lines;
        std::istringstream text(readWhole(path(file)));
        for (std::string line; std::getline(text, line);)
            lines.push_back(line);
        return lines;
    }
    std::vector<pid_t> processes() const
    {
        std::vector<pid_t> pids;
        for (const std::string& line : noted("pids"))
            pids.push_back(std::stoi(line));
        return pids;
    }

    support::TemporaryFolder m_folder;
    EventLoop m_loop;
    ServeOptions m_options;
    Metrics m_metrics;
    std::optional<Service> m_service;
};

// ---- What operators see.

TEST_F(ServiceTest, TellsItsWholeState)
{
    m_options.workers = 2;
    m_options.node = "a";
    m_options.sessions = 3;
    start(true);
    const std::string token = newSession();
    EXPECT_EQ("ke_a.", token.substr(0, 5));
    const auto pending = send(hmac, {{"do", "hold"}});
    until([&] {
        return !noted("requests").empty() && noted("requests").back() == "QZaven_crypto_hmac ";
    });

    Json got = status();
    EXPECT_GE(got["uptime_seconds"], 0);
    EXPECT_LT(got["uptime_seconds"], 600);
    got["uptime_seconds"] = 7;
    const Json expected = {
        {"version", productVersion()},
        {"commit", productCommit()},
        {"node", "a"},
        {"uptime_seconds", 7},
        {"engine", "engine 1.0"},
        {"workers",
         {{{"slot", 0}, {"state", "busy"}, {"restarts", 0}, {"sessions", 1}, {"requests", 1}},
          {{"slot", 1}, {"state", "idle"}, {"restarts", 0}, {"sessions", 0}, {"requests", 0}}}},
        {"sessions", 1},
        {"queue", 0},
        {"limits",
         {{"body_bytes", 16777216},
          {"parameter_bytes", 1000},
          {"parameters", 64},
          {"batch", 256},
          {"sessions_per_worker", 3},
          {"session_idle_seconds", 300.0},
          {"request_seconds", 30.0}}},
        {"peer", true}};
    EXPECT_EQ(expected.dump(1), got.dump(1));
    EXPECT_EQ(1, row("corvane_workers_busy"));
    EXPECT_EQ(2, row("corvane_workers_ready"));
    EXPECT_EQ(6, row("corvane_sessions_limit"));
    EXPECT_EQ(0, row("corvane_queue"));
    EXPECT_GE(row("corvane_uptime_seconds"), 0);
    EXPECT_LT(row("corvane_uptime_seconds"), 600);
    writeWhole(path("go"), "");
    wait(pending);
    EXPECT_GE(row("corvane_request_seconds_sum{name=\"QZaven_crypto_hmac\"}"), 0);
    EXPECT_LT(row("corvane_request_seconds_sum{name=\"QZaven_crypto_hmac\"}"), 600);
}

TEST_F(ServiceTest, TellsTheMemoryOfEachProcess)
{
    m_options.workers = 2;
    start();
    const auto memory = [&](const std::string& process) {
        return row("corvane_resident_bytes{process=\"" + process + "\"}");
    };
    for (const char* process : {"front", "worker0", "worker1"})
        EXPECT_GT(memory(process), 1e5) << process;
    EXPECT_EQ(-1, memory("worker2"));
    // Between two processes there is none.
    writeWhole(path("slow"), "");
    const std::vector<pid_t> before = processes();
    for (const pid_t pid : before)
        kill(pid, SIGKILL);
    bool isSeen = false;
    until([&] {
        isSeen = isSeen || memory("worker0") == 0 || memory("worker1") == 0;
        return row("corvane_worker_restarts_total") == 2;
    });
    EXPECT_NE(1, memory("worker0"));
}

TEST_F(ServiceTest, ProbesAWorkerOnceInASecond)
{
    start();
    const auto statusOf = [](const Pending& pending) {
        return pending->json()["status"].get<std::string>();
    };
    const auto begun = Clock::now();
    // Both wait for the same answer.
    const auto first = probe();
    const auto second = probe();
    wait(first);
    wait(second);
    for (const auto& one : {first, second}) {
        EXPECT_EQ("a worker gives a wrong answer", statusOf(one));
        EXPECT_EQ(503U, one->answer->status);
    }
    EXPECT_EQ(1, row("corvane_readiness_checks_total{status=\"a worker gives a wrong answer\"}"));
    writeWhole(path("right"), "");
    Pending last;
    do {
        const auto asked = Clock::now();
        last = wait(probe());
        if (asked - begun < std::chrono::seconds(1)) {
            EXPECT_EQ("a worker gives a wrong answer", statusOf(last));
            EXPECT_EQ(1U, noted("requests").size());
        }
        usleep(50000);
    } while (noted("requests").size() == 1 && Clock::now() - begun < std::chrono::seconds(30));
    EXPECT_EQ("ok", statusOf(last));
    EXPECT_EQ(200U, last->answer->status);
    EXPECT_EQ(1, row("corvane_readiness_checks_total{status=\"ok\"}"));
}

// ---- What is refused, and what is not.

TEST_F(ServiceTest, RefusesWhatItDoesNotKnow)
{
    start();
    const std::string longest(64, 'x');
    EXPECT_EQ(0U, send(longest)->told().find("misspelt_request \"name\" {\"nearest\":"));
    EXPECT_EQ("no_such_request \"name\" {}", send(longest + "x")->told());
    EXPECT_EQ(0U, send("QZaven_crypto_hmag")
                      ->told()
                      .find("misspelt_request \"name\" {\"nearest\":\"QZaven_crypto_hmac\"}"));
    const Json good = {{"name", hmac}};
    EXPECT_EQ("no_such_request \"requests[1].name\" {}",
              sendBatch({good, {{"name", longest + "x"}}})->told());
    EXPECT_EQ(
        "no_folder \"requests[1].parameters.strCa_file\" {}",
        sendBatch({good, {{"name", setRoot}, {"parameters", {{"strCa_file", "x"}}}}})->told());
    EXPECT_EQ("no_folder \"strCa_path\" {}", send(setRoot, {{"strCa_path", "x"}})->told());
    EXPECT_EQ(
        "session_unknown \"requests[0].parameters.strKe\" {}",
        sendBatch(Json::array({{{"name", useSession}, {"parameters", {{"strKe", "x"}}}}}))->told());
    EXPECT_TRUE(noted("requests").empty());

    // What the plug-in refuses is sent: sessions and paths that are not there or empty, and paths
    // where none is due.
    for (const auto& [name, parameters] : {std::pair(useSession, Json::object()),
                                           {useSession, {{"strKe", ""}}},
                                           {setRoot, {{"strCa_file", ""}, {"strCa_path", ""}}},
                                           {hmac, {{"strCa_file", "/x"}, {"strCa_path", ".."}}}}) {
        const auto sent = wait(send(name, parameters));
        EXPECT_EQ("", sent->answer->code) << sent->answer->body;
    }
    EXPECT_EQ(4U, noted("requests").size());
}

TEST_F(ServiceTest, SendsFilesBesideTheirPaths)
{
    m_options.caFolder = m_folder.path();
    start();
    writeWhole(path("root.crt"), "of root");
    fs::create_directory(path("folder"));
    wait(send(setRoot, {{"strCa_file", "root.crt"}, {"strCa_path", "folder"}}));
    wait(send(setRoot, {{"strCa_file", {{"text", "x"}}}}));
    const auto uploaded =
        wait(send(setRoot, {{"strCa_file", {{"hex", "414243"}}}, {"strCa_path", "folder"}}));
    EXPECT_EQ("", uploaded->answer->code);
    EXPECT_EQ(
        (std::vector<std::string>{"QZaven_ke_set_root_certificate  strCa_file=of root strCa_path=",
                                  "QZaven_ke_set_root_certificate  strCa_file=ABC strCa_path="}),
        noted("requests"));
}

TEST_F(ServiceTest, TakesAsManyAsCanWaitAndBeServed)
{
    m_options.queue = 1;
    start();
    const Json hold = {{"do", "hold"}};
    const Json part = {{"name", hmac}, {"parameters", hold}};
    EXPECT_EQ("queue_full null {}", sendBatch({part, part, part})->told());
    const auto served = send(hmac, hold);
    until([&] { return row("corvane_workers_busy") == 1; });
    EXPECT_EQ("queue_full null {}", sendBatch({part, part})->told());
    const auto waiting = send(hmac, hold);
    EXPECT_EQ(1, row("corvane_queue"));
    EXPECT_EQ("queue_full null {}", send(hmac, hold)->told());
    EXPECT_EQ(1, row("corvane_requests_total{name=\"QZaven_crypto_hmac\",code=\"busy\"}"));
    writeWhole(path("go"), "");
    EXPECT_EQ("", wait(served)->answer->code);
    EXPECT_EQ("", wait(waiting)->answer->code);
    const auto both = wait(sendBatch({part, part}));
    EXPECT_EQ(2U, both->answer->parts);
    EXPECT_EQ(0U, both->answer->failed);
    EXPECT_EQ(4U, noted("requests").size());
}

TEST_F(ServiceTest, ServesWithoutAQueue)
{
    m_options.queue = 0;
    start(true);
    EXPECT_EQ("", wait(send(hmac))->answer->code);
    const auto served = send(hmac, {{"do", "hold"}});
    EXPECT_FALSE(served->answer);
    until([&] { return row("corvane_workers_busy") == 1; });
    EXPECT_EQ("queue_full null {}", send(hmac)->told());
    // So does its peer, once it is there.
    Pending step;
    until([&] {
        step = sendStep("root", {{"do", "hold"}});
        return !step->answer;
    });
    until([&] {
        const std::vector<std::string> lines = noted("requests");
        return std::count(lines.begin(), lines.end(), "root ") == 1;
    });
    EXPECT_EQ("queue_full null {}", sendStep("root", Json::object())->told());
    writeWhole(path("go"), "");
    wait(served);
    EXPECT_EQ(R"({"results":{"Data":"x"},"error":null,"warnings":[]})", wait(step)->answer->body);
}

TEST_F(ServiceTest, TellsWhatBecomesOfAStepOfThePeer)
{
    start(true);
    EXPECT_EQ("no_such_step null {}", sendStep("nothing", Json::object())->told());
    EXPECT_EQ("not_for_peer \"hello\" {}",
              sendStep("answer", {{"hello", {{"hex", "00"}}}})->told());
    EXPECT_EQ("missing_for_peer \"data\" {\"name\":\"data\"}",
              sendStep("encrypt", {{"exchange", "x"}})->told());
    EXPECT_EQ("worker_ended null {}", wait(sendStep("root", {{"do", "die"}}))->told());
    EXPECT_EQ("not_carried_out null {\"why\":\"no library\"}",
              wait(sendStep("root", {{"do", "fail"}}))->told());
    const auto refused = wait(sendStep("root", {{"do", "refuse"}}));
    EXPECT_EQ("-20084", refused->answer->code);
    EXPECT_EQ("peer", refused->json()["error"]["source"]);
}

TEST_F(ServiceTest, TellsWhatBecomesOfARequest)
{
    start();
    EXPECT_EQ("worker_ended null {}", wait(send(hmac, {{"do", "die"}}))->told());
    EXPECT_EQ("not_carried_out null {\"why\":\"no library\"}",
              wait(send(hmac, {{"do", "fail"}}))->told());
    EXPECT_EQ("-20084", wait(send(hmac, {{"do", "refuse"}}))->answer->code);
    const auto count = [&](const std::string& code) {
        return row("corvane_requests_total{name=\"QZaven_crypto_hmac\",code=\"" + code + "\"}");
    };
    EXPECT_EQ(2, count("worker_failed"));
    EXPECT_EQ(1, count("-20084"));
    EXPECT_EQ(-1, count("0"));
    EXPECT_EQ(3, row("corvane_request_seconds_count{name=\"QZaven_crypto_hmac\"}"));
}

// ---- Sessions.

TEST_F(ServiceTest, SessionsAreTheWorkers)
{
    m_options.sessions = 1;
    start();
    const std::string token = newSession();
    EXPECT_EQ("sessions_full null {}", send(makeSession)->told());
    EXPECT_EQ(1, row("corvane_requests_total{name=\"QZaven_ke_new\",code=\"busy\"}"));
    EXPECT_EQ(1, row("corvane_request_seconds_count{name=\"QZaven_ke_new\"}"));
    EXPECT_EQ("", wait(send(useSession, {{"strKe", token}}))->answer->code);
    const auto gone = wait(send(useSession, {{"strKe", token}, {"do", "forget"}}));
    EXPECT_EQ("session_worker_forgot \"strKe\" {}", gone->told());
    EXPECT_EQ(410U, gone->answer->status);
    EXPECT_EQ("session_worker_forgot \"strKe\" {}", send(useSession, {{"strKe", token}})->told());
    EXPECT_EQ(0U, sessionsIn(0));

    const std::string next = newSession();
    EXPECT_EQ("-20084", wait(send(useSession, {{"strKe", next}, {"do", "refuse"}}))->answer->code);
    EXPECT_EQ(1U, sessionsIn(0));
    wait(send(freeSession, {{"strKe", next}}));
    EXPECT_EQ(0U, sessionsIn(0));
    EXPECT_EQ("session_freed \"strKe\" {}", send(useSession, {{"strKe", next}})->told());
    EXPECT_EQ("-20084", wait(send(makeSession, {{"do", "refuse"}}))->answer->code);
    EXPECT_EQ(0U, sessionsIn(0));
}

TEST_F(ServiceTest, IdleSessionsEndAfterTheirTimeInTheWorkerToo)
{
    m_options.sessionSeconds = 0.4;
    start();
    const auto begun = Clock::now();
    const std::string token = newSession();
    EXPECT_EQ(1U, status()["sessions"]);
    until([&] { return status()["sessions"] == 0; });
    EXPECT_GE(Seconds(Clock::now() - begun).count(), 0.4);
    EXPECT_EQ("session_idle \"strKe\" {}", send(useSession, {{"strKe", token}})->told());
    until([&] { return noted("requests").size() == 2; });
    EXPECT_EQ("QZaven_ke_free " + token, noted("requests").back());
}

// Three times in all, as its process ends before it has begun.
TEST_F(ServiceTest, ANewSessionIsTriedElsewhere)
{
    m_options.workers = 3;
    writeWhole(path("slow"), "");
    start();
    until([&] { return processes().size() == 3; });
    std::vector<pid_t> places = processes();
    std::sort(places.begin(), places.end());
    const auto pending = send(makeSession);
    const auto place = [&] {
        size_t slot = 0;
        while (slot < 3 && sessionsIn(slot) == 0)
            ++slot;
        return slot;
    };
    for (int attempt = 1; attempt <= 3; ++attempt) {
        ASSERT_FALSE(pending->answer) << attempt;
        const size_t slot = place();
        ASSERT_LT(slot, 3U);
        const size_t count = noted("pids").size();
        kill(places[slot], SIGKILL);
        until([&] { return noted("pids").size() > count && (pending->answer || place() != slot); });
        places[slot] = processes().back();
    }
    ASSERT_TRUE(pending->answer);
    EXPECT_EQ("no_worker null {}", pending->told());
    EXPECT_EQ(3U, place());

    // A process that lives makes it.
    const auto again = send(makeSession);
    const size_t slot = place();
    kill(places[slot], SIGKILL);
    until([&] { return place() != slot; });
    writeWhole(path("start"), "");
    EXPECT_EQ("", wait(again)->answer->code);
    EXPECT_EQ(1, row("corvane_sessions"));
    const std::string token = again->json()["results"]["Data"];
    EXPECT_EQ("", wait(send(useSession, {{"strKe", token}}))->answer->code);
}

// They would keep the others from being replaced.
TEST_F(ServiceTest, NewSessionsGoToWorkersThatStay)
{
    m_options.workers = 2;
    start();
    std::vector<std::string> tokens;
    for (const size_t slot : {0, 1, 0, 1}) {
        tokens.push_back(newSession());
        EXPECT_EQ(slot == 0 ? (tokens.size() + 1) / 2 : tokens.size() / 2, sessionsIn(slot));
    }
    wait(send(freeSession, {{"strKe", tokens[2]}}));
    m_service->rollWorkers();
    until([&] { return status()["workers"][0]["state"] == "leaving"; });
    newSession();
    EXPECT_EQ(1U, sessionsIn(0));
    EXPECT_EQ(3U, sessionsIn(1));
    EXPECT_EQ(0U, sessionsIn(2));
    const Json workers = status()["workers"];
    EXPECT_EQ(3U, workers.size());
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && argv[1] == "worker"s)
        return work(argv[2]);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
