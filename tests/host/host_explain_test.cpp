// corvane-host explain: codes of plug-in and engine, errors of the service, statuses of HTTP.
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "support/host_program.h"
#include "support/one_line.h"

namespace {

using namespace support;

using HostExplains = Host;

TEST_F(HostExplains, EveryCodeWithCauseAndRemedy)
{
    const Json codes = run({"explain", "--json"}).json();
    EXPECT_GT(codes.size(), 60U);
    std::set<int> seen;
    for (const Json& row : codes) {
        const std::string number = row["code"].dump();
        EXPECT_TRUE(seen.insert(row["code"].get<int>()).second) << number;
        EXPECT_TRUE(row["source"] == "plug-in" || row["source"] == "engine") << row;
        for (const char* member : {"name", "text", "cause", "remedy"})
            EXPECT_NE("", row[member]) << row;
        // What the engine says of itself.
        const Ended ended = call({"QZaVen_strerror", "strErr=" + number, "--raw", "Data"});
        EXPECT_EQ(row["text"], ended.out);
    }
    EXPECT_EQ(1U, seen.count(-20216));
}

TEST_F(HostExplains, ACodeWithAndWithoutItsSign)
{
    const Ended ended = run({"explain", "-20084"});
    EXPECT_EQ(SUCCESS, ended.code) << ended.err;
    EXPECT_TRUE(holds(ended.out, "PARAM_INVALID")) << ended.out;
    EXPECT_TRUE(holds(ended.out, "what to do")) << ended.out;
    EXPECT_EQ(ended.out, run({"explain", "20084"}).out);
    EXPECT_EQ(-20084, run({"explain", "20084", "--json"}).json()["code"]);
    EXPECT_TRUE(holds(run({"explain"}).out, "-30046"));
}

TEST_F(HostExplains, TheHostsOwnCodesByName)
{
    const std::string list = run({"explain"}).out;
    for (const char* name : {"malformed", "session_gone", "worker_timeout"}) {
        const Ended ended = run({"explain", name});
        EXPECT_EQ(SUCCESS, ended.code) << ended.err;
        for (const char* part : {name, "host, HTTP status", "likely cause", "what to do"})
            EXPECT_TRUE(holds(ended.out, part)) << ended.out;
        EXPECT_TRUE(holds(list, "\n" + std::string(name) + " ")) << list;
    }
    const Json row = run({"explain", "session_gone", "--json"}).json();
    EXPECT_EQ("host", row["source"]);
    EXPECT_EQ(410, row["status"]);
    EXPECT_GT(row["reasons"].size(), 3U);
    for (const char* member : {"text", "cause", "remedy"})
        EXPECT_NE("", row[member]) << row;
    EXPECT_NE(row["text"], row["cause"]);
    EXPECT_EQ(503, run({"explain", "busy", "--json"}).json()["status"]);
}

TEST_F(HostExplains, NumbersByTheNamesOfTheirConstants)
{
    EXPECT_EQ(run({"explain", "-20084"}).out, run({"explain", "PARAM_INVALID"}).out);
    EXPECT_EQ(-20084, run({"explain", "PARAM_INVALID", "--json"}).json()["code"]);
}

TEST_F(HostExplains, AMistypedNameWithTheNearestOne)
{
    for (const auto& [typed, meant] :
         std::vector<std::pair<std::string, std::string>>{{"bussy", "busy"},
                                                          {"session-gone", "session_gone"},
                                                          {"PARAM_INVALD", "PARAM_INVALID"}})
        for (const Arguments& arguments :
             {Arguments{"explain", typed}, {"explain", typed, "--json"}}) {
            const Ended ended = run(arguments);
            EXPECT_EQ(USAGE, ended.code) << typed;
            EXPECT_EQ("", ended.out) << typed;
            EXPECT_TRUE(holds(ended.err, "did you mean " + meant + "?")) << ended.err;
        }
}

TEST_F(HostExplains, WhatIsNoCodeIsAnError)
{
    for (const char* wrong : {"7", "-1", "x", "-20084x", "99999999999999999999", "-421", "418",
                              "4294947212", "-20084..", "..", "busy..draining"}) {
        const Ended ended = run({"explain", wrong});
        EXPECT_EQ(USAGE, ended.code) << wrong;
        EXPECT_EQ("", ended.out) << wrong;
    }
}

TEST_F(HostExplains, StatusesAreFrom100To599)
{
    for (const char* status : {"100", "599"})
        EXPECT_TRUE(holds(run({"explain", status}).err, std::string(status) + " is no HTTP status"))
            << status;
    for (const char* code : {"99", "600", "-404"})
        EXPECT_TRUE(holds(run({"explain", code}).err, std::string(code) + " is neither")) << code;
}

TEST_F(HostExplains, SuccessToo)
{
    for (const Arguments& arguments : {Arguments{"explain", "0"}, {"explain", "0", "--json"}}) {
        const Ended ended = run(arguments);
        EXPECT_EQ(SUCCESS, ended.code) << ended.err;
        EXPECT_TRUE(holds(ended.out, "success")) << ended.out;
    }
    EXPECT_EQ((Json{{"code", 0}, {"name", "success"}, {"text", "success"}}),
              run({"explain", "0", "--json"}).json());
}

TEST_F(HostExplains, SeveralCodesAndRanges)
{
    const std::string one = run({"explain", "-30040"}).out;
    const std::string two = run({"explain", "-30041"}).out;
    EXPECT_EQ(one + "\n" + two, run({"explain", "-30040", "-30041"}).out);
    for (const char* range : {"-30040..-30041", "-30041..-30040", "30040..30041"})
        EXPECT_EQ(one + "\n" + two, run({"explain", range}).out) << range;
    const Ended json = run({"explain", "-30040..-30041", "--json"});
    EXPECT_EQ(2U, json.json().size());
    EXPECT_EQ(0U, json.out.find("[\n  {\n    \"")) << json.out;
}

TEST_F(HostExplains, StatusesOfHttp)
{
    const Ended ended = run({"explain", "421"});
    EXPECT_EQ(SUCCESS, ended.code) << ended.err;
    EXPECT_EQ(run({"explain", "wrong_node"}).out, ended.out);
    EXPECT_EQ(ended.out, run({"explain", "HTTP", "421"}).out);
    EXPECT_EQ(ended.out, run({"explain", "HTTP 421"}).out);
    EXPECT_EQ("wrong_node", run({"explain", "421", "--json"}).json()[0]["code"]);
    const std::string busy = run({"explain", "503"}).out;
    for (const char* part : {"/readyz", "busy (host", "draining (host"})
        EXPECT_TRUE(holds(busy, part)) << busy;
    // Whatever the service answers.
    const Json document = run({"openapi"}).json();
    std::set<std::string> statuses;
    for (const auto& path : document["paths"])
        for (const auto& operation : path)
            for (const auto& [status, answer] : operation["responses"].items())
                statuses.insert(status);
    EXPECT_GT(statuses.size(), 5U);
    for (const std::string& status : statuses) {
        EXPECT_EQ(SUCCESS, run({"explain", status}).code) << status;
        // Programs are told the same.
        const std::string text = inOneLine(run({"explain", status}).out);
        const Json rows = run({"explain", status, "--json"}).json();
        EXPECT_FALSE(rows.empty()) << status;
        for (const Json& row : rows) {
            EXPECT_EQ(std::stoi(status), row["status"]) << row;
            EXPECT_TRUE(holds(text, inOneLine(row["text"]))) << row;
        }
    }
    EXPECT_EQ(3U, run({"explain", "503", "--json"}).json().size());
    EXPECT_TRUE(holds(run({"explain"}).out, "421  "));
}

TEST_F(HostExplains, TheCodesAloneForCompletions)
{
    std::istringstream lines(run({"explain", "--brief"}).out);
    size_t count = 0;
    for (std::string line; std::getline(lines, line); ++count)
        EXPECT_EQ(std::string::npos, line.find(' ')) << line;
    EXPECT_GT(count, 80U);
}

}  // namespace
