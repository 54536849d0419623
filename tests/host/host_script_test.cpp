// Scripts on the command line: several requests in one process.
#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "support/host_program.h"

namespace {

using namespace std::string_literals;
using namespace support;

using HostScript = Host;

constexpr const char* roundTrip = R"([
  {"id": "k", "request": "QZaven_crypto_gen_symmkey", "params": {"strCipherAlg": 4}},
  {"id": "e", "request": "QZaven_crypto_encrypt",
   "params": {"strCipherAlg": 4, "strMode": "6", "strKey": "${k.Data}", "strIV": "hex:000102030405060708090a0b",
              "straad": "b64:header", "strdata": "b64:plain text"}},
  {"id": "d", "request": "QZaven_crypto_decrypt",
   "params": {"strCipherAlg": 4, "strMode": "6", "strKey": "${k.Data}", "strIV": "hex:000102030405060708090a0b",
              "straad": "b64:header", "strtag": "${e.gcmOutTag}", "strdata": "${e.Data}"}}
])";

TEST_F(HostScript, LaterStepsUseEarlierResults)
{
    const Ended ended = script(roundTrip);
    ASSERT_EQ(SUCCESS, ended.code) << ended.err;
    const Json answers = ended.json();
    ASSERT_EQ(3U, answers.size());
    EXPECT_EQ("d", answers[2]["id"]);
    EXPECT_EQ("QZaven_crypto_decrypt", answers[2]["request"]);
    EXPECT_EQ(true, answers[2]["ok"]);
    EXPECT_EQ("cGxhaW4gdGV4dA==", answers[2]["results"]["Data"]);
    EXPECT_FALSE(answers[2].contains("microseconds"));
}

TEST_F(HostScript, TitleIsForTheReader)
{
    const Ended ended = lines(R"({"title": "a text", "request": "QZaVen_GetVersion"})");
    ASSERT_EQ(SUCCESS, ended.code) << ended.err;
    EXPECT_FALSE(ended.json().contains("title"));
    EXPECT_EQ(USAGE, lines(R"({"title": 1, "request": "QZaVen_GetVersion"})").code);
}

// The walk that devkit/demo.sh sends and checks.
TEST_F(HostScript, TheWalkHasEveryRequest)
{
    std::set<std::string> walked;
    std::istringstream walk(readWhole(CORVANE_SOURCE_DIR "/devkit/walk.jsonl"));
    for (std::string line; std::getline(walk, line);)
        walked.insert(Json::parse(line)["request"]);
    std::set<std::string> known;
    for (const Json& request : run({"list", "--json"}).json())
        known.insert(request["name"]);
    EXPECT_EQ(known, walked);
}

// Standard error and output are often one terminal.
TEST_F(HostScript, ALineEndsBehindEachAnswer)
{
    const std::string out = script(roundTrip).out;
    EXPECT_EQ(5, std::count(out.begin(), out.end(), '\n')) << out;
    EXPECT_EQ('\n', out.back());
    EXPECT_TRUE(holds(out, "}\n,{")) << out;
}

TEST_F(HostScript, AnswersAreWhole)
{
    const std::string first =
        R"({"id":"a","request":"QZaven_crypto_base64_encode","params":{"strIn":"x"}})";
    const std::string second =
        R"({"request":"QZaven_crypto_gen_symmkey","params":{"strCipherAlg":8},"allowFailure":true})";
    const std::string firstAnswer =
        R"({"id":"a","request":"QZaven_crypto_base64_encode","ok":true,)"
        R"("results":{"Data":"eA==","errorCode":"0"}})"
        "\n";
    const std::string secondAnswer =
        R"({"request":"QZaven_crypto_gen_symmkey","ok":false,)"
        R"("results":{"Data":"","errorCode":"-20084"},"error":{"code":"-20084",)"
        R"("text":"plug-in: parameter value is outside its allowed set or range"}})"
        "\n";
    const std::string asLines = first + "\n\n" + second;
    const std::string asArray = "[" + first + ",\n" + second + "]";
    for (const Ended& ended : {lines(asLines), script(asLines), lines(" \n" + asLines + "\n")}) {
        EXPECT_EQ(SUCCESS, ended.code) << ended.err;
        EXPECT_EQ(firstAnswer + secondAnswer, ended.out);
        EXPECT_FALSE(holds(ended.err, "failed")) << ended.err;
    }
    for (const Ended& ended : {lines("\n" + asArray), script(asArray)}) {
        EXPECT_EQ(SUCCESS, ended.code) << ended.err;
        EXPECT_EQ("[\n" + firstAnswer + "," + secondAnswer + "]\n", ended.out);
    }
}

TEST_F(HostScript, LinesStopAtTheFirstFailureToo)
{
    const std::string step = R"({"request":"QZaven_crypto_gen_symmkey","params":{"strCipherAlg":)";
    const std::string text = step + "1}}\n" + step + "8}}\n" + step + "2}}\n";
    const auto answers = [](const Ended& ended) {
        EXPECT_EQ(REFUSED, ended.code) << ended.err;
        return std::count(ended.out.begin(), ended.out.end(), '\n');
    };
    EXPECT_EQ(2, answers(lines(text)));
    EXPECT_EQ(2, answers(script(text)));
    EXPECT_EQ(3, answers(script(text, {"--keep-going"})));
    EXPECT_EQ(3, answers(run({"script", "--keep-going", "-"}, text)));
}

TEST_F(HostScript, LinesBeforeTheFirstStepAreCounted)
{
    const std::string wrong = R"({"request": "QZaven_hmac"})";
    EXPECT_TRUE(holds(lines("\n \n" + wrong).err, "standard input:3:1: step 1: there is no"));
    EXPECT_TRUE(holds(script("\n \n" + wrong).err, ":3:1: step 1: there is no"));
}

TEST_F(HostScript, TimeIsTold)
{
    for (const Json& answer : script(roundTrip, {"--time"}).json())
        EXPECT_GT(answer["microseconds"].get<double>(), 0);
}

TEST_F(HostScript, ReferencesStandInsideText)
{
    const Ended ended = lines(
        R"({"id":"a","request":"QZaven_crypto_base64_encode","params":{"strIn":"x"}})"
        "\n\n"
        R"({"request":"QZaven_crypto_base64_encode","params":{"strIn":"<${a.Data}${a.errorCode}> $${a} $"}})"
        "\n"
        R"({"request":"QZaven_crypto_base64_encode","params":{"strIn":"b64:${a.Data}"}})");
    ASSERT_EQ(SUCCESS, ended.code) << ended.err;
    std::istringstream answers(ended.out);
    std::string line;
    std::getline(answers, line);
    std::getline(answers, line);
    EXPECT_EQ("PGVBPT0wPiAke2F9ICQ=", Json::parse(line)["results"]["Data"]);  // <eA==0> ${a} $
    std::getline(answers, line);
    EXPECT_EQ("WlVFOVBRPT0=", Json::parse(line)["results"]["Data"]);  // of ZUE9PQ==, of eA==
}

// A result that begins like a file's name must stay a text.
TEST_F(HostScript, ResultsAreNotReadAsValueForms)
{
    const Ended ended =
        script(R"([
        {"id": "a", "request": "QZaVen_GetVersion"},
        {"id": "b", "request": "QZaven_crypto_base64_encode", "params": {"strIn": "${a.Data}"}},
        {"id": "c", "request": "QZaven_crypto_base64_Decode", "params": {"strIn": "${b.Data}"}}])",
               {"--engine", patched(engine, "SoftModuleaven dev", "@oftModuleaven dev")});
    ASSERT_EQ(SUCCESS, ended.code) << ended.err;
    const Json answers = ended.json();
    EXPECT_EQ(0U, answers[0]["results"]["Data"].get<std::string>().find("@oft"));
    EXPECT_EQ(0U, answers[2]["results"]["Data"].get<std::string>().find("%2540oft"));
}

constexpr const char* failing = R"([
  {"request": "QZaven_crypto_gen_symmkey", "params": {"strCipherAlg": 1}},
  {"request": "QZaven_crypto_gen_symmkey", "params": {"strCipherAlg": 8}%s},
  {"request": "QZaven_crypto_gen_symmkey", "params": {"strCipherAlg": 2}}
])";

std::string failingScript(const std::string& more)
{
    std::string text = failing;
    return text.replace(text.find("%s"), 2, more);
}

TEST_F(HostScript, StopsAtTheFirstFailure)
{
    const Ended ended = script(failingScript(""));
    EXPECT_EQ(REFUSED, ended.code);
    const Json answers = ended.json();
    ASSERT_EQ(2U, answers.size());
    EXPECT_EQ(false, answers[1]["ok"]);
    EXPECT_EQ("-20084", answers[1]["error"]["code"]);
    EXPECT_NE("", answers[1]["error"]["text"]);
}

TEST_F(HostScript, KeepsGoingIfAsked)
{
    const Ended ended = script(failingScript(""), {"--keep-going"});
    EXPECT_EQ(REFUSED, ended.code);
    EXPECT_EQ(3U, ended.json().size());
}

TEST_F(HostScript, AllowedFailureIsNone)
{
    const Ended ended = script(failingScript(R"(, "allowFailure": true)"));
    EXPECT_EQ(SUCCESS, ended.code);
    EXPECT_EQ(3U, ended.json().size());
    EXPECT_EQ(false, ended.json()[1]["ok"]);
}

TEST_F(HostScript, EmptyScriptsSucceed)
{
    EXPECT_EQ("[]\n", script("[]").out);
    EXPECT_EQ("", lines("").out);
    EXPECT_EQ(SUCCESS, lines(" \n").code);
}

TEST_F(HostScript, MalformedScriptsQuoteNoValues)
{
    const char* const rows[] = {
        R"([{"request": "QZaVen_strerror", "params": {"strErr": "5ecret}])",
        R"([{"request": "QZaVen_strerror", "params": {"strErr": 5ecret}}])",
        R"([{"request": "QZaVen_strerror", "params": {"strErr": "${5ecret"}}])",
        R"([{"request": "QZaVen_strerror", "params": {"strErr": ["5ecret"]}}])",
        R"([{"request": "QZaVen_strerror", "params": {"strErr": 1.5}}])",
        R"([{"request": "QZaVen_strerror", "params": {"strErr": 1e999}}])",
        R"([{"request": "QZaVen_strerror", "params": ["5ecret"]}])",
        R"([{"request": "QZaVen_strerror", "allowfailure": "5ecret"}])",
        R"([{"request": "QZaVen_strerror", "id": "a.b"}])",
        R"([{"request": "QZaven_unknown"}])",
        R"([{"params": {}}])",
        R"(["5ecret"])",
        R"(5ecret)",
        "[{\"request\": \"\xFF\"}]",
    };
    for (const char* row : rows) {
        const Ended ended = script(row);
        EXPECT_EQ(USAGE, ended.code) << row;
        EXPECT_FALSE(holds(ended.err, "5ecret")) << ended.err;
        EXPECT_TRUE(ended.out.empty() || ended.out == "[]\n") << ended.out;
    }
}

TEST_F(HostScript, WrongReferencesStopTheScript)
{
    const std::string first = R"([{"id": "a", "request": "QZaVen_GetVersion"},)";
    for (const char* reference : {"${b.Data}", "${a.gcmOutTag}", "${a}", "${}"}) {
        const Ended ended =
            script(first + R"({"request": "QZaVen_strerror", "params": {"strErr": ")" + reference +
                   "\"}}]");
        EXPECT_EQ(USAGE, ended.code);
        EXPECT_TRUE(holds(ended.err, "step 2: strErr: ")) << ended.err;
        EXPECT_EQ("", ended.out);
    }
    const Ended twice = script(first + R"({"id": "a", "request": "QZaVen_GetVersion"}])");
    EXPECT_EQ(USAGE, twice.code);
    EXPECT_TRUE(holds(twice.err, "id a is taken")) << twice.err;
}

// A step that fails may give fewer results than the catalogue has.
TEST_F(HostScript, AResultThatDidNotComeStopsTheScript)
{
    const Ended ended =
        run({"script", "--force", "--keep-going", "-"},
            "{\"id\": \"a\", \"request\": \"QZaven_unknown\"}\n"
            "{\"request\": \"QZaVen_strerror\", \"params\": {\"strErr\": \"${a.Data}\"}}");
    EXPECT_EQ(USAGE, ended.code);
    EXPECT_TRUE(
        holds(ended.err, "standard input:2:1: step 2: ${a.Data}: step a gave no result Data"))
        << ended.err;
}

TEST_F(HostScript, AStepThatFailsIsToldWithItsPlace)
{
    const std::string first = R"({"request": "QZaVen_GetVersion"})";
    const std::string second = R"({"request": "QZaven_crypto_hmac"})";
    EXPECT_TRUE(holds(lines(first + "\n  " + second).err,
                      "standard input:2:3: step 2: QZaven_crypto_hmac"));
    EXPECT_TRUE(
        holds(lines("\n   " + second).err, "standard input:2:4: step 1: QZaven_crypto_hmac"));
    EXPECT_TRUE(holds(lines("  " + second + "\n").err, "standard input:1:3: step 1: "));
    EXPECT_TRUE(holds(lines(" " + first + "\n" + second).err, "standard input:2:1: step 2: "));
    EXPECT_TRUE(holds(script("[" + first + ",\n " + second + "]").err,
                      path("script") + ":2:2: step 2: QZaven_crypto_hmac"));
}

TEST_F(HostScript, AnswersGoToAFileOfItsOwnersAlone)
{
    const std::string steps = file("steps", roundTrip);
    const Ended ended = run({"script", steps, "-o", path("answers")});
    ASSERT_EQ(SUCCESS, ended.code) << ended.err;
    EXPECT_EQ("", ended.out);
    EXPECT_EQ(3U, Json::parse(readWhole(path("answers"))).size());
    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write,
              fs::status(path("answers")).permissions());

    EXPECT_EQ(USAGE, run({"script", steps, "-o", path("answers")}).code);
    EXPECT_EQ(SUCCESS, run({"script", steps, "-o", path("answers"), "--force"}).code);
    EXPECT_EQ(script(roundTrip).json().size(), run({"script", steps, "-o", "-"}).json().size());
}

TEST_F(HostScript, AnswersOfAStoppedScriptAreKeptUnlessItIsWrong)
{
    const std::string failed = file("failed", failingScript(""));
    EXPECT_EQ(REFUSED, run({"script", failed, "-o", path("answers")}).code);
    EXPECT_EQ(2U, Json::parse(readWhole(path("answers"))).size());
    const std::string wrong = file("wrong", "{\"request\": \"QZaVen_GetVersion\"}\n{}");
    EXPECT_EQ(USAGE, run({"script", wrong, "-o", path("none")}).code);
    EXPECT_FALSE(fs::exists(path("none")));
}

TEST_F(HostScript, InputCannotBeScriptAndValue)
{
    const Ended ended = lines(R"({"request": "QZaVen_strerror", "params": {"strErr": "@-"}})");
    EXPECT_EQ(USAGE, ended.code);
    EXPECT_TRUE(holds(ended.err, "standard input")) << ended.err;
    EXPECT_EQ(USAGE, run({"script", path("absent")}).code);
}

// A program at the other end of two pipes sees each answer before it sends the next step.
TEST_F(HostScript, AnswersComeStepByStep)
{
    int toHost[2];
    int fromHost[2];
    ASSERT_EQ(0, pipe2(toHost, O_CLOEXEC));
    ASSERT_EQ(0, pipe2(fromHost, O_CLOEXEC));
    const int err = open(path("err").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    const pid_t pid = start({"script", "-"}, toHost[0], fromHost[1], err);
    close(toHost[0]);
    close(fromHost[1]);
    close(err);

    const auto ask = [&](const std::string& step) {
        EXPECT_EQ(static_cast<ssize_t>(step.size()), write(toHost[1], step.data(), step.size()));
        std::string line;
        for (char c = '\0'; c != '\n' && read(fromHost[0], &c, 1) == 1;)
            line += c;
        return Json::parse(line, nullptr, false);
    };
    const std::string step =
        R"({"request": "QZaven_crypto_base64_encode", "params": {"strIn": "x"}})"
        "\n";
    const Json first = ask(step);
    const Json second = ask(step);
    close(toHost[1]);
    EXPECT_EQ(SUCCESS, exitCode(pid));
    close(fromHost[0]);
    EXPECT_EQ("eA==", first["results"]["Data"]);
    EXPECT_EQ(first, second);
}

}  // namespace
