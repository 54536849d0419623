// Names as people write them: what is near to them, and what they find.
#include "host/catalogue/names.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

// ---- Near names.

TEST(EditDistance, CountsLettersAndSwappedNeighbours)
{
    struct Row {
        const char* a;
        const char* b;
        size_t distance;
    };
    for (const Row& row : {Row{"", "", 0},
                           {"", "abc", 3},
                           {"abc", "", 3},
                           {"abc", "ABC", 0},
                           {"abc", "abd", 1},
                           {"abc", "xbc", 1},
                           {"abc", "ab", 1},
                           {"abc", "bc", 1},
                           {"ab", "ba", 1},
                           {"abcd", "acbd", 1},
                           {"abcd", "abdc", 1},
                           {"xabcdy", "xbadcy", 2},
                           {"kitten", "sitting", 3},
                           {"ca", "abc", 3},
                           {"aab", "aba", 1},
                           {"abab", "baba", 2},
                           {"abc", "cba", 2}}) {
        EXPECT_EQ(row.distance, editDistance(row.a, row.b)) << row.a << " " << row.b;
        EXPECT_EQ(row.distance, editDistance(row.b, row.a)) << row.b << " " << row.a;
    }
}

TEST(NearNames, DifferInAThirdOfTheirLettersAtMost)
{
    EXPECT_EQ("abcdef", nearName({"xyz", "abcdef"}, "abcdxy"));
    EXPECT_EQ("", nearName({"abcdef"}, "abcxyz"));
    EXPECT_EQ("", nearName({"abcde"}, "abcxy"));
    EXPECT_EQ("ab", nearName({"ab"}, "ax"));  // or in one
    EXPECT_EQ("", nearName({"ab"}, "xy"));
    EXPECT_EQ("abc", nearName({"abc", "abd"}, "abx"));  // the first of those that are as near
    EXPECT_EQ("", nearName({}, "ab"));
    EXPECT_EQ("", nearName({"a"}, ""));
    const std::string longest(100, 'x');
    EXPECT_EQ(longest, nearName({longest}, longest));
    EXPECT_EQ("", nearName({longest + "x"}, longest + "x"));
}

TEST(NearNames, OfRequestsAreThoseThatEndSo)
{
    EXPECT_EQ((Texts{"QZaven_ke_hmac", "QZaven_crypto_hmac"}), likelyRequests("HMAC"));
    EXPECT_EQ((Texts{"QZaven_crypto_hmac"}), likelyRequests("crypto_hmac"));
    EXPECT_EQ((Texts{"QZaven_ke_new"}), likelyRequests("QZaven_ke_nwe"));
    EXPECT_EQ(Texts(), likelyRequests("mac"));
    EXPECT_EQ(Texts(), likelyRequests(""));
    EXPECT_EQ("QZaven_ke_free", nearestRequest("ke_fre"));
}

TEST(NearNames, OfParametersDifferInHalfOfTheirLettersAtMost)
{
    EXPECT_EQ("abcd", nearParameter({"abcd"}, "abxy"));
    EXPECT_EQ("", nearParameter({"abcd"}, "axyz"));
    EXPECT_EQ("", nearParameter({"abcde"}, "abxyz"));
    // Without what nearly all begin with.
    EXPECT_EQ("", nearParameter({"strabcd"}, "strwxyd"));
    EXPECT_EQ("strKey", nearParameter({"strKey"}, "STRkye"));
    EXPECT_EQ("strKey", nearParameter({"strKey"}, "key"));
    EXPECT_EQ("str", nearParameter({"str"}, "stx"));
    EXPECT_EQ("abcd", nearParameter({"abcd", "abce"}, "abcx"));
    EXPECT_EQ("abce", nearParameter({"abdf", "abce"}, "abcx"));
    const std::string longest(64, 'x');
    EXPECT_EQ(longest, nearParameter({longest}, longest));
    EXPECT_EQ("", nearParameter({longest + "x"}, longest + "x"));
}

const Parameter& parameterOf(const char* name)
{
    return *findParameter(*findRequest("QZaven_crypto_encrypt"), name);
}

TEST(NearNames, OfNumbersAreThoseThatHoldTheTextElseTheNearest)
{
    const Parameter& cipher = parameterOf("strCipherAlg");
    EXPECT_EQ("aes-128, aes-192, aes-256 or 3des", nearestChoices(cipher, "es"));
    EXPECT_EQ("camellia-256", nearestChoices(cipher, "CAM"));
    const Parameter& mode = parameterOf("strMode");
    EXPECT_EQ("cfb", nearestChoices(mode, "xfb"));  // the first of those that are as near
    EXPECT_EQ("ofb", nearestChoices(mode, "ofz"));
    EXPECT_EQ("gcm", nearestChoices(mode, "gcm-with-much-behind-it"));
    // No name is longer than 64 characters.
    EXPECT_EQ("gcm", nearestChoices(mode, std::string(61, 'x') + "gcm"));
    EXPECT_EQ("cbc", nearestChoices(mode, std::string(62, 'x') + "gcm"));
    EXPECT_EQ("ecb", nearestChoices(mode, ""));
}

// ---- Numbers.

TEST(NamesOfNumbersThemselves, HaveAtMost64Characters)
{
    const RequestInfo& request = *findRequest("QZaven_crypto_encrypt");
    const auto numberOf = [&](const std::string& value, Given given = Given::Plain) {
        const std::string* number = numberNamed(&request, "strCipherAlg", given, value);
        return number == nullptr ? std::string() : *number;
    };
    EXPECT_EQ("1", numberOf("sm4"));
    EXPECT_EQ("1", numberOf("sm4" + std::string(61, '-')));
    EXPECT_EQ("", numberOf("sm4" + std::string(62, '-')));
    EXPECT_EQ("7", numberOf("_D.E/S#E D-E3"));
    EXPECT_EQ("", numberOf("sm"));
    EXPECT_EQ("", numberOf("sm44"));
    EXPECT_EQ("", numberOf("-"));
    EXPECT_EQ("", numberOf(""));
    EXPECT_EQ("", numberOf("sm4", Given::Text));
    EXPECT_EQ("", numberOf("sm4", Given::Raw));
    EXPECT_EQ(nullptr, numberNamed(nullptr, "strCipherAlg", Given::Plain, "sm4"));
    EXPECT_EQ(nullptr, numberNamed(&request, "strNothing", Given::Plain, "sm4"));
}

TEST(NamesOfNumbersThemselves, WhatIsNoneLacksSomething)
{
    const RequestInfo& request = *findRequest("QZaven_crypto_encrypt");
    const auto lackOf = [&](const char* parameter, const std::string& value) {
        const auto lack = noNumber(&request, parameter, Given::Plain, value);
        return lack ? lack->nearest + ": " + lack->allowed : "";
    };
    EXPECT_EQ("aes-256: 1 to 7", lackOf("strCipherAlg", "aes-265"));
    EXPECT_EQ("pkcs7: one of 0 1", lackOf("strCipherPadding", "pkcs8"));
    EXPECT_EQ(": 4 to 16", lackOf("strgcmTagLen", "x"));
    for (const char* number : {"4", "+4", "-4", " 4\r\n", "\t04", ""})
        EXPECT_EQ("", lackOf("strgcmTagLen", number)) << number;
    for (const char* none : {" ", "+", "--4", "4-", "4 4", "4.0"})
        EXPECT_EQ(": 4 to 16", lackOf("strgcmTagLen", none)) << none;
    EXPECT_EQ("", lackOf("strKey", "x"));
    EXPECT_EQ("", lackOf("strNothing", "x"));
    EXPECT_FALSE(noNumber(nullptr, "strgcmTagLen", Given::Plain, "x"));
    EXPECT_FALSE(noNumber(&request, "strgcmTagLen", Given::Raw, "x"));
}

TEST(NamesOfNumbersThemselves, AChoiceIsFoundAsThePlugInReadsNumbers)
{
    const Parameter& cipher = parameterOf("strCipherAlg");
    for (const char* number : {"4", " 4", "04", "4x", "+4"})
        EXPECT_EQ("AES-256", choiceOf(cipher, number)->text) << number;
    EXPECT_EQ(nullptr, choiceOf(cipher, "0"));
    EXPECT_EQ(nullptr, choiceOf(cipher, "10"));
}

// ---- Words.

TEST(Words, AreFoundWhereTheyBegin)
{
    RequestInfo request = {"get_TheThing2x", "Some group", "Says it.", "key-word AB", {}, {}, {}};
    for (const char* word :
         {"get", "gettheth", "thething", "THING", "some", "group", "says", "it", "key", "word",
          "keyword", "ab", "key-word", "word-group", "-word--group-", "", "-"})
        EXPECT_TRUE(isAbout(request, {word})) << word;
    for (const char* word : {"hing", "et", "2x", "x", "roup", "ord", "b", "itx", "wordx-group",
                             "word-groupx", "ordgroup", "nothing-"})
        EXPECT_FALSE(isAbout(request, {word})) << word;
    EXPECT_TRUE(isAbout(request, {}));
    EXPECT_TRUE(isAbout(request, {"get", "it"}));
    EXPECT_FALSE(isAbout(request, {"get", "that"}));

    Parameter parameter = parameterOf("strMode");
    parameter.choices = {{"1", "text", {"one", "first name"}}, {"2", "text", {"two"}}};
    request.parameters = {parameter};
    for (const char* word : {"mode", "first", "name", "firstn", "two", "thing-two"})
        EXPECT_TRUE(isAbout(request, {word})) << word;
    EXPECT_FALSE(isAbout(request, {"strMode"}));  // what all begin with says nothing
    EXPECT_FALSE(isAbout(request, {"text"}));

    const auto valuesAbout = [&](const Texts& words) {
        std::string values;
        for (const Choice& choice : choicesAbout(parameter, words))
            values += choice.value;
        return values;
    };
    EXPECT_EQ("1", valuesAbout({"NAME"}));
    EXPECT_EQ("12", valuesAbout({"tw", "one"}));
    EXPECT_EQ("", valuesAbout({"ame", "wo"}));
    EXPECT_EQ("", valuesAbout({}));
}

TEST(Words, AreToldInSentences)
{
    EXPECT_EQ("", anyOf({}));
    EXPECT_EQ("a", anyOf({"a"}));
    EXPECT_EQ("a or b", anyOf({"a", "b"}));
    EXPECT_EQ("a, b or c", anyOf({"a", "b", "c"}));
    EXPECT_EQ("; did you mean a?", didYouMean("a"));
    EXPECT_EQ("", didYouMean(""));
    EXPECT_EQ("aes256cbc", foldedName("-A.ES_25/6 C#bC"));
    EXPECT_EQ("a_1", toldName("a_1"));
    EXPECT_EQ("a name", toldName("a-1"));
}

}  // namespace
