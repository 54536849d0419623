// The text of /metrics: its form, and that documents and rules name what is in it.
// tests/prometheus.sh has promtool look at it too.
#include "service/operation/metrics.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>

#include "support/document_table.h"
#include "support/served_host.h"

namespace {

using namespace std::string_literals;
using support::Json;
using support::ServedHost;
using Names = std::set<std::string>;

const Json hmac = {{"strHashAlg", 4}, {"strKey", "Jefe"}, {"strdata", {{"text", "message"}}}};

Names namesOfInfos()
{
    Names names;
    for (const MetricInfo& info : metricInfos())
        names.insert(info.name);
    return names;
}

// What a row is of: a histogram's rows have endings of their own.
std::string metricOf(const std::string& row, const std::string& headed)
{
    const std::string name = row.substr(0, row.find_first_of("{ "));
    for (const char* ending : {"_bucket", "_sum", "_count"})
        if (name == headed + ending)
            return headed;
    return name;
}

// Reads the text as any reader of the format does; the names that have rows.
Names metricsIn(const std::string& text)
{
    static const std::regex head("# HELP ([a-z_]+) [^ ].*\\.");
    static const std::regex row(
        "[a-z_]+(\\{[a-z]+=\"([^\"\\\\]|\\\\[\\\\\"n])*\"(,[a-z]+=\"([^\"\\\\]|\\\\[\\\\\"n])*\")*"
        "\\})?"
        " [-+0-9.e]+");
    Names seen, filled;
    std::string headed;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::smatch parts;
        if (std::regex_match(line, parts, head)) {
            headed = parts[1];
            EXPECT_TRUE(seen.insert(headed).second) << headed << " has two heads";
            std::getline(lines, line);
            EXPECT_EQ(0U, line.rfind("# TYPE " + headed + " ", 0)) << line;
            continue;
        }
        EXPECT_TRUE(std::regex_match(line, row)) << line;
        EXPECT_EQ(headed, metricOf(line, headed)) << line;
        filled.insert(headed);
    }
    EXPECT_EQ(seen, filled) << "a head without rows";
    return filled;
}

// ---- A host's.

class MetricsOfAHost : public testing::Test {
protected:
    void SetUp() override
    {
        NEEDS_WORKERS();
        m_before = time(nullptr);
        const ServedHost host({"--node", "a-1"});
        host.workers();
        host.request("QZaven_crypto_hmac", hmac);
        host.request("QZaven_crypto_hmac", {{"strKey", true}});  // the host refuses it
        host.request("QZaven_crypto_hmac");                      // the plug-in does
        host.request("QZaven_ke_new");
        host.get("/readyz");
        m_text = host.get("/metrics").body;
    }

    double row(const std::string& name) const { return support::rowOf(m_text, name); }

    time_t m_before = 0;
    std::string m_text;
};

TEST_F(MetricsOfAHost, EachHasAHeadAndRows)
{
    EXPECT_EQ(namesOfInfos(), metricsIn(m_text));
}

TEST_F(MetricsOfAHost, TellWhatRunsAndSinceWhen)
{
    EXPECT_TRUE(
        std::regex_search(m_text, std::regex("\ncorvane_build_info\\{version=\"" CORVANE_VERSION
                                             "\",commit=\"[0-9a-f]*\",node=\"a-1\"\\} 1\n")))
        << m_text;
    // The system's boot is known to the second alone.
    EXPECT_NEAR(static_cast<double>(m_before), row("process_start_time_seconds"), 60);
    EXPECT_GE(row("process_start_time_seconds"), static_cast<double>(m_before) - 2);
    EXPECT_GT(row("process_cpu_seconds_total"), 0);
    EXPECT_LT(row("process_cpu_seconds_total"), 60);
    EXPECT_GT(row("process_max_fds"), row("process_open_fds"));
    EXPECT_EQ(1, row("corvane_readiness_checks_total{status=\"ok\"}"));
    EXPECT_EQ(1, row("corvane_sessions"));
    EXPECT_EQ(2 * 1024, row("corvane_sessions_limit"));
    EXPECT_EQ(1024, row("corvane_queue_limit"));
}

TEST_F(MetricsOfAHost, WhatWasNotSentTookNoTime)
{
    EXPECT_EQ(1, row("corvane_requests_total{name=\"QZaven_crypto_hmac\",code=\"wrong_type\"}"));
    EXPECT_EQ(1, row("corvane_requests_total{name=\"QZaven_crypto_hmac\",code=\"-20001\"}"));
    EXPECT_EQ(2, row("corvane_request_seconds_count{name=\"QZaven_crypto_hmac\"}"));
}

// ---- The format.

TEST(Metrics, BucketsTellFromTheFastestRequestToTheSlowest)
{
    Metrics metrics;
    metrics.countRequest("x", "0", 0.00004);
    metrics.countRequest("x", "0", 0.00005);
    metrics.countRequest("x", "0", 29);
    metrics.countRequest("x", "worker_timeout", 31);
    const std::string text = metrics.text();
    const std::regex bucket(
        "corvane_request_seconds_bucket\\{name=\"x\",le=\"([^\"]+)\"\\} (\\d+)");
    double last = 0;
    std::vector<int> counts;
    for (std::sregex_iterator hit(text.begin(), text.end(), bucket), end; hit != end; ++hit) {
        counts.push_back(std::stoi((*hit)[2]));
        if ((*hit)[1] == "+Inf")
            continue;
        const double bound = std::stod((*hit)[1]);
        EXPECT_GT(bound, last);
        EXPECT_LE(bound, last == 0 ? 0.00005 : 3 * last) << "quantiles are told too roughly";
        last = bound;
    }
    EXPECT_EQ(30, last);
    ASSERT_GT(counts.size(), 2U);
    EXPECT_EQ(2, counts.front());
    EXPECT_EQ(3, counts[counts.size() - 2]);
    EXPECT_EQ(4, counts.back());
}

TEST(Metrics, AreRowsBelowTheirHeads)
{
    Metrics metrics;
    for (const double seconds : {0.25, 0.5, 3.0})
        metrics.countRequest("b", "0", seconds);
    metrics.countRequest("b", "-20001", 0);
    metrics.countRequest("a", "An error", -1);
    for (const unsigned status : {999U, 200U, 0U, 200U})
        metrics.countAnswer(status);
    EXPECT_THROW(metrics.countAnswer(1000), std::out_of_range);
    for (const char* status : {"ok", "busy", "ok"})
        metrics.countReadiness(status);
    std::string expected =
        "# HELP corvane_requests_total Requests to the plug-in by result code, or by the host's "
        "own code.\n"
        "# TYPE corvane_requests_total counter\n"
        "corvane_requests_total{name=\"a\",code=\"other\"} 1\n"
        "corvane_requests_total{name=\"b\",code=\"-20001\"} 1\n"
        "corvane_requests_total{name=\"b\",code=\"0\"} 3\n"
        "# HELP corvane_request_seconds Time from sending a request to a worker until its answer, "
        "with waiting.\n"
        "# TYPE corvane_request_seconds histogram\n";
    for (const auto& [bound, count] : std::vector<std::pair<const char*, int>>{{"5e-05", 0},
                                                                               {"0.0001", 0},
                                                                               {"0.0002", 0},
                                                                               {"0.0005", 0},
                                                                               {"0.001", 0},
                                                                               {"0.002", 0},
                                                                               {"0.005", 0},
                                                                               {"0.01", 0},
                                                                               {"0.02", 0},
                                                                               {"0.05", 0},
                                                                               {"0.1", 0},
                                                                               {"0.2", 0},
                                                                               {"0.5", 2},
                                                                               {"1", 2},
                                                                               {"2", 2},
                                                                               {"5", 3},
                                                                               {"10", 3},
                                                                               {"30", 3},
                                                                               {"+Inf", 3}})
        expected += std::string("corvane_request_seconds_bucket{name=\"b\",le=\"") + bound +
                    "\"} " + std::to_string(count) + "\n";
    expected +=
        "corvane_request_seconds_sum{name=\"b\"} 3.75\n"
        "corvane_request_seconds_count{name=\"b\"} 3\n"
        "# HELP corvane_http_answers_total Answers by status.\n"
        "# TYPE corvane_http_answers_total counter\n"
        "corvane_http_answers_total{status=\"0\"} 1\n"
        "corvane_http_answers_total{status=\"200\"} 2\n"
        "corvane_http_answers_total{status=\"999\"} 1\n"
        "# HELP corvane_readiness_checks_total Asked for a known answer: what came of it.\n"
        "# TYPE corvane_readiness_checks_total counter\n"
        "corvane_readiness_checks_total{status=\"busy\"} 1\n"
        "corvane_readiness_checks_total{status=\"ok\"} 2\n";
    EXPECT_EQ(expected, metrics.text());
    EXPECT_EQ(
        "# HELP corvane_queue Requests that wait for a worker.\n"
        "# TYPE corvane_queue gauge\ncorvane_queue{a=\"b\"} 123456789012345\n",
        metric("corvane_queue", 123456789012345, {{"a", "b"}}));
}

TEST(Metrics, CodesAreNumbersOrWords)
{
    const std::string longest(32, 'z');
    for (const std::string& code : {"0"s, "-20001"s, "a_b-9"s, longest})
        EXPECT_EQ(code, plainCode(code));
    for (const std::string& code : {""s, longest + "z", "A"s, "a b"s, "a\n"s, "1.5"s, "\0"s})
        EXPECT_EQ("other", plainCode(code)) << code;
}

// An engine may have any number of codes; those that come first have rows of their own.
TEST(Metrics, CodesBeyondTheFirst1024AreOne)
{
    Metrics metrics;
    for (int code = 0; code < 1026; ++code)
        metrics.countRequest("x", std::to_string(code), 0);
    metrics.countRequest("x", "7", 0);
    const std::string text = metrics.text();
    const auto row = [&](const std::string& code) {
        return support::rowOf(text, "corvane_requests_total{name=\"x\",code=\"" + code + "\"}");
    };
    EXPECT_EQ(1, row("1023"));
    EXPECT_EQ(2, row("7"));
    EXPECT_EQ(2, row("other"));
    EXPECT_EQ(std::string::npos, text.find("code=\"1024\""));
}

TEST(Metrics, TellOfThisProcess)
{
    // What it takes of the processor in the system counts as well.
    rusage usage = {};
    while (usage.ru_stime.tv_sec == 0 && usage.ru_stime.tv_usec < 100000) {
        EXPECT_TRUE(std::filesystem::exists("/proc/self/stat"));
        getrusage(RUSAGE_SELF, &usage);
    }
    rlimit limit = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    const double before = static_cast<double>(clock()) / CLOCKS_PER_SEC;
    const std::string text = processMetrics();
    const double after = static_cast<double>(clock()) / CLOCKS_PER_SEC;
    EXPECT_LE(before - 0.05, support::rowOf(text, "process_cpu_seconds_total"));
    EXPECT_GE(after + 0.05, support::rowOf(text, "process_cpu_seconds_total"));
    EXPECT_EQ(static_cast<double>(limit.rlim_cur), support::rowOf(text, "process_max_fds"));
    // One is the iterator's own.
    const auto open = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}) - 1;
    EXPECT_EQ(static_cast<double>(open), support::rowOf(text, "process_open_fds"));
    EXPECT_EQ((Names{"process_start_time_seconds", "process_cpu_seconds_total", "process_open_fds",
                     "process_max_fds"}),
              metricsIn(text));
    EXPECT_GT(residentBytes(getpid()), size_t{1} << 20);
    EXPECT_LT(residentBytes(getpid()), size_t{1} << 40);
    EXPECT_EQ(0U, residentBytes(-1));
}

TEST(Metrics, LabelsMayBeAnyText)
{
    EXPECT_EQ("x{a=\"\\\\ \\\" \\n {}\",b=\"\"} 1\n",
              metricRow("x", 1, {{"a", "\\ \" \n {}"}, {"b", ""}}));
    EXPECT_EQ("x 0.00125\n", metricRow("x", 0.00125));
}

TEST(Metrics, OneThatIsInNoTableIsNotWritten)
{
    EXPECT_THROW(metricHead("corvane_unheard_of"), std::logic_error);
}

// ---- Who names them.

TEST(Metrics, DocumentHasThemAll)
{
    Names listed;
    for (support::TableRow& row : support::tableOf("docs/serving.md", {"name", "what it counts"}))
        for (const std::string& name : support::namesIn(row["name"]))
            listed.insert(name.substr(0, name.find('{')));
    EXPECT_EQ(namesOfInfos(), listed);
}

constexpr const char* rulesFolder = CORVANE_SOURCE_DIR "/packaging/prometheus/";

// What a pattern finds in a text, by its first group.
Names found(const std::string& text, const std::string& pattern)
{
    const std::regex expression(pattern);
    Names names;
    for (std::sregex_iterator hit(text.begin(), text.end(), expression), end; hit != end; ++hit)
        names.insert((*hit)[1]);
    return names;
}

// Names that are recorded by rules have a colon in them.
TEST(Metrics, RulesUseThoseThatAreThere)
{
    const std::string recording = support::readWhole(rulesFolder + "recording.yml"s);
    const std::string both = recording + support::readWhole(rulesFolder + "alerts.yml"s);
    Names used;
    for (const std::string& name :
         found(both, "(?:^|[^:a-z_])((?:corvane|process)_[a-z0-9_]+)(?![a-z0-9_:])"))
        used.insert(metricOf(name, "corvane_request_seconds"));
    EXPECT_GT(used.size(), 10U);
    const Names known = namesOfInfos();
    for (const std::string& name : used)
        EXPECT_EQ(1U, known.count(name)) << name;

    const Names recorded = found(recording, "- record: (\\S+)");
    EXPECT_GT(recorded.size(), 5U);
    for (const std::string& name : found(both, "([a-z_]+:corvane_[a-z0-9_]+(?::[a-z0-9]+)?)"))
        EXPECT_EQ(1U, recorded.count(name)) << name;
}

// tests/prometheus.sh has promtool run these.
TEST(Metrics, EachRuleIsTried)
{
    const std::string planted =
        support::readWhole(CORVANE_SOURCE_DIR "/tests/prometheus_rules.yml");
    const std::string alerts = support::readWhole(rulesFolder + "alerts.yml"s);
    const std::string recording = support::readWhole(rulesFolder + "recording.yml"s);
    EXPECT_EQ(found(alerts, "- alert: (\\w+)"), found(planted, "alertname=\"(\\w+)\""));
    for (const std::string& name : found(recording, "- record: (\\S+)"))
        EXPECT_TRUE(planted.find(name) != std::string::npos ||
                    name == "name_le:corvane_request_seconds_bucket:rate5m")
            << name << " is not asked for, nor by the quantiles that are";
}

}  // namespace
