// corvane-host: parameter files, traces and hex of `call`, and `bench`.
#include <fcntl.h>
#include <stdlib.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <random>
#include <regex>
#include <sstream>
#include <vector>

#include "host/commands/latencies.h"
#include "support/host_program.h"

namespace {

using namespace std::string_literals;
using namespace support;

using HostParameterFile = Host;
using HostTrace = Host;
using HostHex = Host;
using HostBench = Host;

// RFC 4231, test case 2.
const Arguments hmac = {"QZaven_crypto_hmac", "strHashAlg=4", "strKey=b64:Jefe",
                        "strdata=b64:what do ya want for nothing?"};
constexpr const char* hmacHex = "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843";

Arguments with(Arguments arguments, const Arguments& more)
{
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
}

// ---- Parameter files.

TEST_F(HostParameterFile, LinesAndJsonAreTaken)
{
    const std::string data = file("data", "what do ya want for nothing?");
    const std::string rows[] = {
        "strHashAlg=4\nstrKey=b64:Jefe\nstrdata=b64:@" + data + "\n",
        "# a key of the RFC\r\n\r\nstrHashAlg=4\r\n  \nstrKey=hex:4a656665\nstrdata=b64:@" + data,
        R"({"strHashAlg": 4, "strKey": "b64:Jefe", "strdata": "b64:@)" + data + "\"}",
        "\n {\"strHashAlg\": \"4\", \"strKey\": \"SmVmZQ==\", \"strdata\": \"b64:@" + data +
            "\"}\n",
    };
    for (const std::string& row : rows) {
        const Arguments arguments = {"QZaven_crypto_hmac", "--raw", "Data", "--hex"};
        const Ended fromFile = call(with(arguments, {"--params-file", file("params", row)}));
        EXPECT_EQ(hmacHex + "\n"s, fromFile.out) << row << fromFile.err;
        const Ended fromInput = call(with(arguments, {"--params-file", "-"}), row);
        EXPECT_EQ(hmacHex + "\n"s, fromInput.out) << row << fromInput.err;
    }
}

TEST_F(HostParameterFile, CommandLineWins)
{
    const std::string params = file("params", "strHashAlg=77\nstrKey=b64:Jefe\n");
    const Ended ended =
        call({"QZaven_crypto_hmac", "--params-file", params, "strHashAlg=4",
              "strdata=b64:what do ya want for nothing?", "--raw", "Data", "--hex"});
    EXPECT_EQ(hmacHex + "\n"s, ended.out) << ended.err;
    EXPECT_FALSE(holds(ended.err, "warning")) << ended.err;
}

TEST_F(HostParameterFile, ValueMayHoldWhatSeparates)
{
    const Ended ended = call({"QZaven_crypto_base64_encode", "--raw", "Data", "--params-file",
                              file("params", "strIn=a=b # c ")});
    EXPECT_EQ("a=b # c ", ended.out) << ended.err;
}

TEST_F(HostParameterFile, MalformedFilesQuoteNoValues)
{
    struct Row {
        std::string text;
        std::string words;
    };
    const Row rows[] = {
        {"strErr=1\n5ecret\n", "line 2 is not written name=value"},
        {"=5ecret", "line 1 is not written name=value"},
        {"[\"5ecret\"]",
         "line 1 is not written name=value; all of a line is one parameter, and JSON "
         "is an object"},
        {"strErr=5ecret\nstrErr=5ecret", "strErr is given twice"},
        {R"({"strErr": "5ecret", "strErr": "5ecret"})", "strErr is given twice"},
        {"5ecret!=1\n5ecret!=1", "standard input: a name is given twice"},
        {R"({"5ecret!": [1]})", "standard input: a name: a value must be a text or an integer"},
        {R"({"strErr": 5ecret})", "standard input:1:14: not JSON: "},
        {R"({"strErr": ["5ecret"]})", "strErr: a value must be a text or an integer"},
        {R"({"strErr": 1.5})", "strErr: a value must be a text or an integer"},
        {R"({"strErr": "hex:5ecret"})", "strErr: hex: takes pairs of hex digits"},
        {"5ecret!=hex:5ecret", "a name: hex: takes pairs of hex digits"},
        {"strErr=@-", "standard input"},
    };
    for (const Row& row : rows) {
        const Ended ended = call({"QZaVen_strerror", "--params-file", "-"}, row.text);
        EXPECT_EQ(USAGE, ended.code) << row.text;
        EXPECT_EQ("", ended.out);
        EXPECT_TRUE(holds(ended.err, row.words)) << ended.err;
        EXPECT_FALSE(holds(ended.err, "5ecret")) << ended.err;
    }
    const Ended absent = call({"QZaVen_strerror", "--params-file", path("absent")});
    EXPECT_EQ(USAGE, absent.code);
    EXPECT_TRUE(holds(absent.err, path("absent"))) << absent.err;
}

// The common option of that beginning chooses a library.
TEST_F(HostParameterFile, IsNotTakenForTheModule)
{
    EXPECT_EQ(SUCCESS, run({"call", "QZaVen_GetVersion", "--params", params}).code);
}

TEST_F(HostParameterFile, MembersThatComeTwiceStopAScript)
{
    const Ended ended =
        script(R"([{"request": "QZaVen_GetVersion", "params": {"a": "1", "a": "2"}}])");
    EXPECT_EQ(USAGE, ended.code);
    EXPECT_TRUE(holds(ended.err, "a is given twice")) << ended.err;
}

// ---- Hex.

TEST_F(HostHex, StandsForBytesOfEachForm)
{
    EXPECT_EQ(hmacHex, call(with(hmac, {"--hex"})).json()["Data"]);
    EXPECT_EQ("0", call(with(hmac, {"--hex"})).json()["errorCode"]);
    EXPECT_EQ("fbff00",
              call({"QZaven_crypto_base64_Decode", "strIn=-_8A", "--hex"}).json()["Data"]);
    const std::string version = call({"QZaVen_GetVersion", "--raw", "Data"}).out;
    const std::string digits = call({"QZaVen_GetVersion", "--hex"}).json()["Data"];
    EXPECT_EQ(2 * version.size(), digits.size());
    EXPECT_EQ(0U, digits.find("536f66744d6f64756c65")) << digits;  // SoftModule
}

TEST_F(HostHex, RefusalKeepsItsCode)
{
    const Ended ended = call({"QZaven_crypto_gen_symmkey", "strCipherAlg=8", "--hex"});
    EXPECT_EQ(REFUSED, ended.code);
    EXPECT_EQ((Json{{"Data", ""}, {"errorCode", "-20084"}}), ended.json());
}

// ---- Traces.

TEST_F(HostTrace, TellsFormsLengthsAndTimes)
{
    const Ended ended = call(with(hmac, {"--trace"}));
    EXPECT_EQ(SUCCESS, ended.code);
    EXPECT_EQ("0", ended.json()["errorCode"]);
    const std::regex expected(
        "trace: load [0-9.]+ us\n"
        "trace: QZaven_crypto_hmac\n"
        "trace: -> strHashAlg +text +4\n"
        "trace: -> strKey +base64 +8 bytes, Base64 of 4\n"
        "trace: -> strdata +base64 +40 bytes, Base64 of 28\n"
        "trace: <- Data +base64 +44 bytes, Base64 of 32\n"
        "trace: <- errorCode +text +0\n"
        "trace: store [0-9.]+ us, request [0-9.]+ us, read [0-9.]+ us\n");
    std::string traced;
    std::istringstream lines(ended.err);
    for (std::string line; std::getline(lines, line);)
        if (line.rfind("trace: ", 0) == 0)
            traced += line + "\n";
    EXPECT_TRUE(std::regex_match(traced, expected)) << traced;
}

TEST_F(HostTrace, TellsTheTimeOfTheCallAsTheResultsDo)
{
    const Ended ended = call(with(hmac, {"--trace", "--time"}));
    double store = 0;
    double request = 0;
    double read = 0;
    const size_t at = ended.err.find("trace: store ");
    ASSERT_NE(std::string::npos, at) << ended.err;
    ASSERT_EQ(3, sscanf(ended.err.c_str() + at, "trace: store %lf us, request %lf us, read %lf us",
                        &store, &request, &read))
        << ended.err;
    EXPECT_NEAR(ended.json()["microseconds"].get<double>(), request, 0.06);
    EXPECT_GT(store, 0);
}

TEST_F(HostTrace, ShowsShortNumbersAlone)
{
    const auto told = [&](const std::string& value) {
        const std::string err = call({"QZaven_crypto_hmac", "strHashAlg=" + value, "--trace"}).err;
        const std::string before = "trace: -> strHashAlg         text      ";
        const size_t at = err.find(before);
        return at == std::string::npos
                   ? err
                   : err.substr(at + before.size(), err.find('\n', at) - at - before.size());
    };
    EXPECT_EQ("-12345", told("-12345"));
    EXPECT_EQ("7 bytes", told("-123456"));
    const std::string unknown = call({"QZaven_unknown", "a=5ecret", "--trace", "--force"}).err;
    EXPECT_TRUE(holds(unknown, "\ntrace: -> a                  unknown   6 bytes\n")) << unknown;
}

// Each parameter of each request with a text that is easily found.
TEST_F(HostTrace, ShowsNothingThatMayBeSecret)
{
    for (const Json& request : run({"list", "--json"}).json()) {
        Arguments arguments = {request["name"], "unknown=5ecret", "--trace"};
        for (const Json& parameter : request["parameters"]) {
            const bool isNumber = parameter.contains("range") || parameter.contains("oneOf");
            if (parameter["form"] != "path")
                arguments.push_back(parameter["name"].get<std::string>() +
                                    (isNumber ? "=raw:5ecret" : "=5ecret"));
        }
        const Ended ended = call(arguments);
        EXPECT_TRUE(holds(ended.err, "trace: store")) << ended.err;
        EXPECT_FALSE(holds(ended.err, "5ecret")) << ended.err;
    }
    const Ended ended = call({"QZaven_crypto_base64_encode", "strIn=5ecret", "--trace"});
    EXPECT_FALSE(holds(ended.err, "5ecret")) << ended.err;
    EXPECT_FALSE(holds(ended.err, "NWVjcmV0")) << ended.err;  // as a result
}

TEST_F(HostTrace, ShowsPaths)
{
    const Ended ended =
        call({"QZaven_ke_set_root_certificate", "strKe=1", "strCa_file=/no/such", "--trace"});
    EXPECT_TRUE(holds(ended.err, "/no/such")) << ended.err;
}

// ---- Measurements.

TEST_F(HostBench, CountsAndTimesRequests)
{
    const Ended ended = run(with({"bench"}, with(hmac, {"--count", "50", "--json"})));
    ASSERT_EQ(SUCCESS, ended.code) << ended.err;
    const Json json = ended.json();
    EXPECT_EQ("QZaven_crypto_hmac", json["request"]);
    EXPECT_EQ(50, json["requests"]);
    EXPECT_EQ(0, json["failed"]);
    EXPECT_EQ(Json::object(), json["codes"]);
    EXPECT_GT(json["perSecond"], 0);
    double last = 0;
    for (const char* name : {"p50", "p90", "p99", "p99.9", "max"}) {
        EXPECT_GE(json["microseconds"][name], last);
        last = json["microseconds"][name];
    }
    EXPECT_GT(last, 0);
    const double seconds = json["seconds"];
    EXPECT_LE(last, seconds * 1e6);
    EXPECT_NEAR(50, json["perSecond"].get<double>() * seconds, 1e-6);
    // Times are whole nanoseconds.
    for (const auto& [name, microseconds] : json["microseconds"].items()) {
        const double nanoseconds = microseconds.get<double>() * 1000;
        EXPECT_NEAR(std::round(nanoseconds), nanoseconds, 1e-4) << name;
    }
}

// One call before all others tells what a failure means, and a tenth of the run is not measured.
TEST_F(HostBench, WarmsUp)
{
    const auto failed = [&](const char* faultyCall, const char* count) {
        setenv("CORVANE_ENGINE_FAULTS",
               ("aven_crypto_gen_symmkey:"s + faultyCall + "=-4711").c_str(), 1);
        const Ended ended = run(
            {"bench", "QZaven_crypto_gen_symmkey", "strCipherAlg=1", "--json", "--count", count});
        unsetenv("CORVANE_ENGINE_FAULTS");
        return ended.json()["failed"];
    };
    EXPECT_EQ(0, failed("11", "100"));
    EXPECT_EQ(1, failed("12", "100"));
    EXPECT_EQ(1, failed("111", "100"));
    EXPECT_EQ(0, failed("112", "100"));
    EXPECT_EQ(1, failed("2", "1"));
}

TEST_F(HostBench, TellsWhatIsWrong)
{
    const Ended ended = run({"-q", "bench", "QZaVen_strerror", "x=1", "--count", "3"});
    EXPECT_EQ(REFUSED, ended.code);
    EXPECT_EQ(
        "corvane-host: warning: QZaVen_strerror: x is not a parameter of QZaVen_strerror\n"
        "corvane-host: warning: QZaVen_strerror: strErr is missing (required)\n"
        "corvane-host: QZaVen_strerror failed: no text\n",
        ended.err);
    const std::regex expected(
        "QZaVen_strerror: 3 requests in [0-9]+\\.[0-9]{2} s, 3 failed\n"
        "[0-9]+ requests per second\n"
        "microseconds: p50 [0-9.]+, p90 [0-9.]+, p99 [0-9.]+, p99\\.9 [0-9.]+, max [0-9.]+\n"
        "failed with no code: 3\n");
    EXPECT_TRUE(std::regex_match(ended.out, expected)) << ended.out;
    EXPECT_TRUE(
        holds(run({"bench", "QZaven_crypto_gen_symmkey", "strCipherAlg=8", "--count", "1"}).err,
              "\ncorvane-host: what to do: "));
}

TEST_F(HostBench, RunsForSeconds)
{
    const Ended ended = run(with({"bench"}, with(hmac, {"--seconds", "0.1"})));
    EXPECT_EQ(SUCCESS, ended.code) << ended.err;
    EXPECT_TRUE(holds(ended.out, " requests in 0.1")) << ended.out;
    for (const char* words : {"p50 ", "p90 ", "p99 ", "p99.9 ", "max "})
        EXPECT_TRUE(holds(ended.out, words)) << ended.out;
    double count = 0;
    double seconds = 0;
    double perSecond = 0;
    ASSERT_EQ(3,
              sscanf(ended.out.c_str(),
                     "QZaven_crypto_hmac: %lf requests in %lf s, 0 failed\n%lf requests per second",
                     &count, &seconds, &perSecond))
        << ended.out;
    // The seconds are rounded to hundredths.
    EXPECT_NEAR(count, seconds * perSecond, count / 10);
    double median = 0;
    double most = 0;
    EXPECT_EQ(
        2, sscanf(ended.out.c_str() + ended.out.find("microseconds: "),
                  "microseconds: p50 %lf, p90 %*f, p99 %*f, p99.9 %*f, max %lf", &median, &most));
    EXPECT_LT(median, most) << ended.out;
}

TEST_F(HostBench, FailuresAreCountedByCode)
{
    setenv("CORVANE_ENGINE_FAULTS", "aven_crypto_gen_symmkey:*=-4711", 1);
    const Arguments arguments = {"bench", "QZaven_crypto_gen_symmkey", "strCipherAlg=1", "--count",
                                 "20"};
    const Ended json = run(with(arguments, {"--json"}));
    const Ended text = run(arguments);
    unsetenv("CORVANE_ENGINE_FAULTS");
    EXPECT_EQ(REFUSED, json.code);
    EXPECT_EQ(20, json.json()["failed"]);
    EXPECT_EQ((Json{{"-4711", 20}}), json.json()["codes"]);
    EXPECT_EQ(REFUSED, text.code);
    EXPECT_TRUE(holds(text.out, "failed with -4711: 20")) << text.out;
    EXPECT_TRUE(holds(text.err, "failed with -4711: ")) << text.err;
}

TEST_F(HostBench, SomeFailuresAreFailuresToo)
{
    setenv("CORVANE_ENGINE_FAULTS", "aven_crypto_gen_symmkey:30=-4711", 1);
    const Ended ended =
        run({"bench", "QZaven_crypto_gen_symmkey", "strCipherAlg=1", "--count", "50", "--json"});
    unsetenv("CORVANE_ENGINE_FAULTS");
    EXPECT_EQ(REFUSED, ended.code);
    EXPECT_EQ(1, ended.json()["failed"]);
}

TEST_F(HostBench, WrongCommandLinesAreRefused)
{
    const Arguments rows[] = {
        {"bench"},
        {"bench", "QZaven_unknown"},
        {"bench", "QZaVen_GetVersion", "--count", "0"},
        {"bench", "QZaVen_GetVersion", "--count", "x"},
        {"bench", "QZaVen_GetVersion", "--seconds", "0"},
        {"bench", "QZaVen_GetVersion", "--seconds", "nan"},
        {"bench", "QZaVen_GetVersion", "--seconds", "inf"},
        {"doctor", "--seconds", "nan"},
        {"bench", "QZaVen_GetVersion", "--seconds", "1", "--count", "1"},
        {"bench", "QZaVen_GetVersion", "5ecret"},
    };
    for (const Arguments& row : rows) {
        const Ended ended = run(row);
        EXPECT_EQ(USAGE, ended.code);
        EXPECT_FALSE(holds(ended.err, "5ecret")) << ended.err;
    }
    EXPECT_EQ(LOADING, run({"bench", "QZaVen_GetVersion", "--engine", path("absent")}).code);
}

// What a terminal is sent, and `out` besides.
std::string shownOnTerminal(const Arguments& arguments, const std::string& file)
{
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_EQ(0, grantpt(terminal));
    EXPECT_EQ(0, unlockpt(terminal));
    const int side = open(ptsname(terminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
    const int out = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    const pid_t pid = start(arguments, -1, out, side);
    close(side);
    close(out);
    std::string shown;
    char buffer[4096];
    for (ssize_t count; (count = read(terminal, buffer, sizeof buffer)) > 0;)
        shown.append(buffer, static_cast<size_t>(count));
    close(terminal);
    EXPECT_EQ(SUCCESS, exitCode(pid));
    return shown;
}

TEST_F(HostBench, ProgressIsForTerminals)
{
    const Arguments arguments = {"-q",       "bench", "QZaVen_GetVersion", "--seconds", "0.3",
                                 "--engine", engine};
    EXPECT_EQ("", run(arguments).err);

    const std::string shown = shownOnTerminal(arguments, path("out"));
    const std::string erased = "\r\033[K";  // at the end
    ASSERT_GT(shown.size(), erased.size());
    EXPECT_EQ(erased, shown.substr(shown.size() - erased.size()));
    // Ten times a second: a third of the time is over between one and the next but one.
    static const std::regex line("\r\\[(#*)(\\.*)\\] +([0-9]+) %  [0-9]+ requests");
    const std::vector<std::smatch> lines(std::sregex_iterator(shown.begin(), shown.end(), line),
                                         {});
    ASSERT_GE(lines.size(), 1U) << shown;
    ASSERT_LE(lines.size(), 10U);
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(40, lines[i].length(1) + lines[i].length(2)) << lines[i].str();
        const double percent = std::stod(lines[i][3]);
        EXPECT_NEAR(percent * 0.4, static_cast<double>(lines[i].length(1)), 1.3) << lines[i].str();
        EXPECT_GE(percent, static_cast<double>(i) * 33 - 33) << lines[i].str();
    }
}

// The first is shown at once.
TEST_F(HostBench, ProgressIsTheShareOfTheCount)
{
    EXPECT_EQ("\r[" + std::string(40, '#') + "] 100 %  1 requests\r\033[K",
              shownOnTerminal({"-q", "bench", "QZaVen_GetVersion", "--count", "1"}, path("out")));
    const std::string first =
        "\r[" + std::string(10, '#') + std::string(30, '.') + "]  25 %  1 requests\r";
    const std::string shown =
        shownOnTerminal({"-q", "bench", "QZaVen_GetVersion", "--count", "4"}, path("out"));
    EXPECT_EQ(first, shown.substr(0, first.size()));
}

// The nth of a thousand values, when they are sorted.
TEST(Latencies, PercentilesAreTheSortedValues)
{
    std::mt19937_64 random(4711);
    for (const unsigned bits : {4U, 8U, 12U, 20U, 40U, 64U}) {
        Latencies latencies;
        std::vector<uint64_t> values;
        for (int i = 0; i < 1000; ++i) {
            values.push_back(random() >> (64 - bits) >> (random() % bits));
            latencies.add(values.back());
        }
        std::sort(values.begin(), values.end());
        EXPECT_EQ(values.back(), latencies.max());
        EXPECT_EQ(1000U, latencies.total());
        for (const size_t nth : {1U, 500U, 900U, 990U, 999U, 1000U})
            EXPECT_EQ(values[nth - 1], latencies.percentile(static_cast<double>(nth) / 1000));
        EXPECT_EQ(values.back(), latencies.percentile(1));
    }
}

TEST(Latencies, OfMoreThanThereIsRoomForAreDrawnAtRandom)
{
    EXPECT_EQ(1000000U, size_t{Latencies::ROOM});
    constexpr size_t count = 3 * Latencies::ROOM;
    Latencies latencies;
    for (size_t i = 1; i <= count; ++i)
        latencies.add(i);
    EXPECT_EQ(count, latencies.total());
    EXPECT_EQ(count, latencies.percentile(1));
    for (const double share : {0.1, 0.5, 0.9, 0.99})
        EXPECT_NEAR(share, static_cast<double>(latencies.percentile(share)) / count, 0.005);
}

TEST(Latencies, WithoutValuesAreZero)
{
    EXPECT_EQ(0U, Latencies().percentile(0.5));
    EXPECT_EQ(0U, Latencies().percentile(1));
}

}  // namespace
