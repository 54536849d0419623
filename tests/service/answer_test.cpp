// Answers as text, judged by trees of the same content.
#include "service/requests/answer.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>

#include "host/values.h"
#include "support/files.h"

namespace {

using namespace std::string_literals;
using Json = nlohmann::ordered_json;

WireReply good(Pairs results)
{
    WireReply reply;
    reply.ok = true;
    reply.results = std::move(results);
    return reply;
}

Json treeOf(const WireReply& reply)
{
    return {{"results", toJson(reply.results)},
            {"error", Json()},
            {"warnings", Json::array()},
            {"microseconds", reply.microseconds}};
}

TEST(Answer, IsTheTextOfItsTree)
{
    for (const Pairs& results :
         {Pairs{}, Pairs{{"Data", "W9zB"}, {"errorCode", "0"}}, Pairs{{"", ""}},
          Pairs{{"a\"b", "c\\\n\x01\x7f"}}, Pairs{{"Data", "\xC3\xA4"}},
          Pairs{{"Data", "\xff\0 bytes"s}, {"b", "\xE2\x82"}},
          Pairs{{"a", "first"}, {"b", "other"}, {"a", "last"}, {"b", "\xff"}, {"c", "d"}}}) {
        const WireReply reply = good(results);
        EXPECT_EQ(jsonText(treeOf(reply), -1), pluginAnswer(reply, "[]").body);
        const Answer answer = pluginAnswer(reply, "[]");
        EXPECT_EQ(200U, answer.status);
        EXPECT_EQ("application/json", std::string(answer.type));
        EXPECT_EQ(0U, answer.parts);
        EXPECT_EQ(0U, answer.failed);
    }
}

TEST(Answer, TellsTheTimeInTenthsOfAMicrosecond)
{
    WireReply reply = good({});
    for (const double microseconds : {0.0, 0.1, 0.9, 1.0, 9.9, 12.3, 120.0, 99999.9, 4e8}) {
        reply.microseconds = microseconds;
        EXPECT_EQ(jsonText(treeOf(reply), -1), pluginAnswer(reply, "[]").body);
    }
}

TEST(Answer, OfARefusalExplainsItsCode)
{
    WireReply reply;
    reply.code = "-20084";
    reply.text = "text \xff \"quoted\"";
    reply.results = {{"Data", ""}, {"errorCode", "-20084"}};
    const Json json = Json::parse(pluginAnswer(reply, "[]").body);
    EXPECT_EQ((Json{{"Data", ""}, {"errorCode", "-20084"}}), json["results"]);
    EXPECT_EQ("-20084", json["error"]["code"]);
    EXPECT_EQ("text \xEF\xBF\xBD \"quoted\"", json["error"]["text"]);
    EXPECT_NE("", json["error"]["remedy"]);
    EXPECT_EQ("-20084", pluginAnswer(reply, "[]").code);
    EXPECT_EQ("", pluginAnswer(good({}), "[]").code);

    const Json peer = Json::parse(peerAnswer(reply).body);
    EXPECT_EQ("peer", peer["error"]["source"]);
    EXPECT_FALSE(peer.contains("microseconds"));
    EXPECT_EQ("-20084", peerAnswer(reply).code);
    EXPECT_EQ("", peerAnswer(good({})).code);
    EXPECT_TRUE(Json::parse(peerAnswer(good({})).body)["error"].is_null());
}

// The error of an answer to a reply with this code.
Json errorWith(const std::string& code)
{
    WireReply reply;
    reply.code = code;
    reply.text = "text";
    const std::string body = pluginAnswer(reply, "[]").body;
    const Json error = Json::parse(body)["error"];
    EXPECT_EQ(
        "{\"results\":{},\"error\":" + error.dump() + ",\"warnings\":[],\"microseconds\":0.0}",
        body);
    Json ofThePeer = error;
    ofThePeer["source"] = "peer";
    EXPECT_EQ("{\"results\":{},\"error\":" + ofThePeer.dump() + ",\"warnings\":[]}",
              peerAnswer(reply).body);
    return error;
}

TEST(Answer, ExplainsACodeByTheTable)
{
    for (const ErrorCode& code : errorCodes())
        EXPECT_EQ((Json{{"code", std::to_string(code.code)},
                        {"source", code.source},
                        {"name", code.name},
                        {"text", "text"},
                        {"cause", code.cause},
                        {"remedy", code.remedy}})
                      .dump(),
                  errorWith(std::to_string(code.code)).dump());
}

// The plug-in's own are above -30000.
TEST(Answer, TellsWhoseACodeIsThatIsInNoTable)
{
    for (const auto& [code, source] : {std::pair("0", "plug-in"),
                                       {"no number", "plug-in"},
                                       {"-29999", "plug-in"},
                                       {"-30000", "engine"},
                                       {"-39999", "engine"},
                                       {"1", "engine"}}) {
        ASSERT_EQ(nullptr, findErrorCode(atoi(code)));
        EXPECT_EQ((Json{{"code", code},
                        {"source", source},
                        {"name", ""},
                        {"text", "text"},
                        {"cause", ""},
                        {"remedy", ""}})
                      .dump(),
                  errorWith(code).dump());
    }
}

TEST(Answer, TellsWhyATaskEndedWithoutResults)
{
    WireReply reply;
    reply.text = "no library";
    const auto told = [&](Ending ending) {
        const Json error = refusalOf(ending, reply).json()["error"];
        return error["reason"].get<std::string>() + ": " + error["text"].get<std::string>();
    };
    EXPECT_EQ("not_carried_out: the request could not be carried out: no library",
              told(Ending::Answered));
    EXPECT_EQ("worker_ended: the process that served the request ended in it", told(Ending::Died));
    EXPECT_EQ("too_slow: the request took too long and was ended", told(Ending::TimedOut));
    for (const Ending ending : {Ending::LifeIsOver, Ending::NotServed})
        EXPECT_EQ("no_worker: no process was free for the request in time", told(ending));
}

// What an engine of somebody else's writes for a code may hold anything.
TEST(Answer, GivesLogsNoCodeThatIsNone)
{
    WireReply reply;
    for (const std::string& code :
         {""s, "secret value"s, "KEY"s, "-20084\n"s, "\xff"s, std::string(33, '1')}) {
        reply.code = code;
        EXPECT_EQ("other", pluginAnswer(reply, "[]").code) << code;
        EXPECT_EQ("other", peerAnswer(reply).code) << code;
    }
}

TEST(Answer, OfTheHostsOwnRefusalNamesItsReason)
{
    const Refusal refusal(Reason::queue_full);
    EXPECT_EQ(refusal.json().dump(), answerOf(refusal).body);
    const Json full = Json::parse(answerOf(refusal).body)["error"];
    EXPECT_EQ("busy", full["code"]);
    EXPECT_EQ("queue_full", full["reason"]);
    EXPECT_EQ(Json::object(), full["values"]);
    EXPECT_EQ(nullptr, full["field"]);
    // A value's own braces mean nothing.
    const Refusal large(Reason::value_too_large, "p", {{"name", "{most}{"}, {"most", "7"}});
    const Json error = Json::parse(answerOf(large).body)["error"];
    EXPECT_EQ("{most}{ has more than 7 bytes", error["text"]);
    EXPECT_EQ((Json{{"name", "{most}{"}, {"most", "7"}}), error["values"]);
    EXPECT_EQ("p", error["field"]);
}

TEST(Reasons, StandInTheTableOnce)
{
    std::set<std::string> names;
    std::set<std::string> codes;
    for (const ReasonText& row : hostReasons()) {
        EXPECT_TRUE(names.insert(row.name).second) << row.name;
        codes.insert(row.code);
        EXPECT_NE(nullptr, findHostCode(row.code)) << row.name;
        EXPECT_NE("", std::string(row.text)) << row.name;
    }
    EXPECT_EQ(hostCodes().size(), codes.size()) << "a code has no reason";
}

TEST(Reasons, AreUsed)
{
    std::string sources;
    for (const auto& file :
         std::filesystem::recursive_directory_iterator(CORVANE_SOURCE_DIR "/devkit/service"))
        if (file.is_regular_file())
            sources += support::readWhole(file.path());
    std::set<std::string> used;
    const std::regex use("Reason::(\\w+)");
    for (std::sregex_iterator found(sources.begin(), sources.end(), use), end; found != end;
         ++found)
        used.insert((*found)[1]);
    for (const ReasonText& row : hostReasons())
        EXPECT_EQ(1U, used.count(row.name)) << row.name;
}

TEST(Answer, HasItsWarnings)
{
    EXPECT_EQ("[]", warningsText({}));
    const std::string two = warningsText(
        {{"a\"", "b\n", "first", {}}, {"c", "", "second", {{"n\"", "1"}, {"m", "\t"}}}});
    EXPECT_EQ(R"([{"field":"a\"","text":"b\n","code":"first","values":{}},)"
              R"({"field":"c","text":"","code":"second","values":{"n\"":"1","m":"\t"}}])",
              two);
    EXPECT_EQ(Json::parse(two), Json::parse(pluginAnswer(good({}), two).body)["warnings"]);
}

TEST(Answer, OfABatchHasThoseOfItsPartsInOrder)
{
    EXPECT_EQ(R"({"answers":[]})", batchAnswer({}).body);
    const std::vector<Answer> parts = {pluginAnswer(good({{"a", "1"}}), "[]"),
                                       answerOf(Refusal(Reason::queue_full)),
                                       pluginAnswer(WireReply(), "[]")};
    const Answer answer = batchAnswer(parts);
    EXPECT_EQ("", answer.code);
    EXPECT_EQ(3U, answer.parts);
    EXPECT_EQ(2U, answer.failed);
    const Json json = Json::parse(answer.body);
    ASSERT_EQ(3U, json["answers"].size());
    EXPECT_EQ("1", json["answers"][0]["results"]["a"]);
    EXPECT_EQ("busy", json["answers"][1]["error"]["code"]);
    EXPECT_EQ(503U, parts[1].status);
    EXPECT_EQ("busy", parts[1].code);
}

}  // namespace
