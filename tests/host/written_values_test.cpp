// Values, files of parameters and steps of scripts as people write them: what is read, and the
// sentences for what is not.
#include "host/values.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "host/input.h"
#include "host/json_text.h"
#include "host/output.h"
#include "host/parameters.h"
#include "host/script_steps.h"
#include "support/files.h"

namespace {

using namespace std::string_literals;
using Json = nlohmann::ordered_json;

// What the work throws.
std::string refusal(const std::function<void()>& work)
{
    try {
        work();
    } catch (const UsageError& e) {
        return e.what();
    }
    return "nothing is refused";
}

// A file, or a folder, in place of standard input.
class StandardInput {
public:
    explicit StandardInput(const std::string& path) : m_saved(dup(STDIN_FILENO))
    {
        const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        dup2(file, STDIN_FILENO);
        close(file);
    }
    ~StandardInput()
    {
        dup2(m_saved, STDIN_FILENO);
        close(m_saved);
    }
    StandardInput(const StandardInput&) = delete;
    StandardInput& operator=(const StandardInput&) = delete;

private:
    int m_saved;
};

const support::TemporaryFolder& folder()
{
    static const support::TemporaryFolder made;
    return made;
}

std::string file(const std::string& bytes)
{
    return folder().write("a file", bytes);
}

// ---- JSON.

std::string jsonRefusal(const std::string& text)
{
    try {
        parseJson(text);
    } catch (const JsonError& e) {
        return std::to_string(e.at) + " " + e.what();
    }
    return "nothing is refused";
}

TEST(JsonOfPeople, IsRefusedAtItsPlace)
{
    EXPECT_EQ("0 not JSON: unexpected end of input; expected '[', '{', or a literal",
              jsonRefusal(""));
    EXPECT_EQ("0 not JSON: unexpected '}'; expected '[', '{', or a literal", jsonRefusal("}"));
    EXPECT_EQ("3 not JSON: unexpected ']'; expected end of input", jsonRefusal("[1]]"));
    EXPECT_EQ("3 not JSON: a comma too many before it", jsonRefusal("[1,]"));
    EXPECT_EQ("7 not JSON: a comma too many before it", jsonRefusal("[1, \t\r\n]"));
    EXPECT_EQ("8 not JSON: a comma too many before it", jsonRefusal("{\"a\":1 ,}"));
    EXPECT_EQ("2 not JSON: a word without quotes, or a number that is none", jsonRefusal("[5x]"));
    EXPECT_EQ(0U, jsonRefusal("[1,,").find("3 not JSON: unexpected ','"));
    EXPECT_EQ("0 a number is out of range", jsonRefusal("1e999"));
    EXPECT_EQ("1 a number is out of range", jsonRefusal("[1e999 ,2]"));
    EXPECT_EQ("3 a number is out of range", jsonRefusal("[\n -1.0E+999]"));
}

TEST(JsonOfPeople, HasEachNameOnce)
{
    EXPECT_EQ("7 a is given twice", jsonRefusal(R"({"a":1,"a":2})"));
    EXPECT_EQ("26 a is given twice", jsonRefusal(R"({"b":[],"a":{"a":1,"b":1},"a":2})"));
    EXPECT_EQ(R"(9 a\ is given twice)", jsonRefusal(R"({"a\\":1,"a\\" :2})"));
    EXPECT_EQ("10 \" is given twice", jsonRefusal(R"({ "\"": 1,"\"": 2})"));
    EXPECT_EQ("nothing is refused", jsonRefusal(R"({"a":{"a":1},"b":{"a":1},"c":[{"a":1}]})"));
}

TEST(JsonOfPeople, PlacesAreLinesAndColumns)
{
    const std::string text = "ab\nc\n\nd";
    EXPECT_EQ("1:1", placeIn(text, 0));
    EXPECT_EQ("1:3", placeIn(text, 2));
    EXPECT_EQ("2:1", placeIn(text, 3));
    EXPECT_EQ("4:1", placeIn(text, 6));
    EXPECT_EQ("4:2", placeIn(text, 7));
    EXPECT_EQ("4:2", placeIn(text, 100));
    EXPECT_EQ("1:1", placeIn("", 0));
}

TEST(JsonOfPeople, ElementsAreFoundWhereTheyBegin)
{
    std::string text = " [";
    std::vector<size_t> places;
    for (const char* element : {R"({"a":[1,2],"b":{"c":[{},[]]}})", R"("x,]\"[y\\")", "[3,{}]", "4",
                                "\"\"", "[]", R"(["]"])", "null", R"("\\\"")"}) {
        text += places.empty() ? "\n" : " , \t";
        places.push_back(text.size());
        text += element;
    }
    EXPECT_EQ(places, elementPlaces(text + " ] "));
    EXPECT_EQ((std::vector<size_t>{1, 3}), elementPlaces("[1,2]"));
    EXPECT_EQ(std::vector<size_t>(), elementPlaces("[ ]"));
    EXPECT_EQ(std::vector<size_t>(), elementPlaces(""));
}

// ---- Values.

std::string read(const char* request, const std::string& name, const std::string& written,
                 bool standardInputIsFree = true)
{
    return ValueReader(standardInputIsFree)
        .read(findRequest(request), name, written, [](const std::string& text) { return text; });
}

std::string valueRefusal(const char* request, const std::string& name, const std::string& written,
                         bool standardInputIsFree = true)
{
    return refusal([&] { read(request, name, written, standardInputIsFree); });
}

constexpr const char* encrypt = "QZaven_crypto_public_encrypt";
constexpr const char* hmac = "QZaven_crypto_hmac";

TEST(WrittenValues, ThatAreNoBase64AreRefusedWithWhatToWrite)
{
    EXPECT_EQ(
        "strdata is not Base64 (URL-safe): write text:TEXT, hex:DIGITS or b64:@FILE, or "
        "raw: to send it as it is",
        valueRefusal(encrypt, "strdata", "no Base64"));
    EXPECT_EQ(
        "strpk is not Base64 (URL-safe): write b64:@FILE, also for PEM, or text:PEM, or raw: "
        "to send it as it is",
        valueRefusal(encrypt, "strpk", "-----BEGIN PUBLIC KEY-----"));
    for (const char* name : {"strdata", "strpk"})
        EXPECT_EQ(name +
                      " is not Base64 (URL-safe): write b64:@FILE for a file's bytes, or raw: "
                      "to send it as it is"s,
                  valueRefusal(encrypt, name, "@" + file("no Base64")));
    EXPECT_EQ("OutLen takes a whole number, 0 to 65535; raw: sends it as it is",
              valueRefusal("QZaven_crypto_kdf", "OutLen", "x"));
    EXPECT_EQ(
        "strHashAlg is no number and no name that is known here; did you mean sha-256? raw: "
        "sends it as it is",
        valueRefusal(hmac, "strHashAlg", "sha-257"));
    EXPECT_EQ("strKey: hex: takes pairs of hex digits", valueRefusal(hmac, "strKey", "hex:1"));
    EXPECT_EQ("a name: hex: takes pairs of hex digits", valueRefusal(hmac, "a-1", "hex:1"));
}

TEST(WrittenValues, KeysInFilesAreTakenByTheLengthThatTheyBeginWith)
{
    const auto isTaken = [](const std::string& bytes) {
        return valueRefusal(encrypt, "strpk", "@" + file(bytes)) == "nothing is refused";
    };
    EXPECT_TRUE(isTaken("\x30\x00"s));
    EXPECT_TRUE(isTaken("\x30\x81\x01!"s));
    EXPECT_TRUE(isTaken("\x30\x83\x00\x00\x00"s));
    EXPECT_TRUE(isTaken("\x30\x83\x00\x00\x01!"s));
    EXPECT_FALSE(isTaken("\x30\x83\x00\x00"s));
    EXPECT_FALSE(isTaken("\x30\x84\x00\x00\x00\x01!"s));
    EXPECT_FALSE(isTaken("\x31\x01!"s));
    EXPECT_FALSE(isTaken("\x30"));
    EXPECT_TRUE(isTaken("text before -----BEGIN "));
    EXPECT_FALSE(isTaken("-----BEGIN!"));
}

TEST(WrittenValues, StandardInputIsReadOnce)
{
    const std::string in = file("bytes\n");
    {
        const StandardInput input(in);
        EXPECT_EQ("bytes\n", read("QZaVen_strerror", "strErr", "@-"));
    }
    EXPECT_EQ("strErr: standard input is in use already",
              valueRefusal("QZaVen_strerror", "strErr", "@-", false));
    const StandardInput input(folder().path(""));
    EXPECT_EQ("strErr: cannot read standard input: Is a directory",
              valueRefusal("QZaVen_strerror", "strErr", "b64:@-"));
    EXPECT_EQ("cannot read standard input: Is a directory", refusal([] { readInput("-"); }));
    EXPECT_EQ("strErr: cannot read " + folder().path("absent") + ": No such file or directory",
              valueRefusal("QZaVen_strerror", "strErr", "raw:@" + folder().path("absent")));
}

TEST(WrittenValues, FilesAreReadWhole)
{
    for (const size_t size : {0, 1, 65535, 65536, 65537, 200000}) {
        std::string bytes;
        for (size_t i = 0; i < size; ++i)
            bytes += static_cast<char>(i * 7 / 3);
        EXPECT_TRUE(bytes == readInput(file(bytes))) << size;
    }
    EXPECT_EQ("standard input", inputName("-"));
    EXPECT_EQ("--", inputName("--"));
}

TEST(ResultValues, AreDecodedByTheirForm)
{
    EXPECT_EQ("a%25", decodeResult(Form::Text, "a%25"));
    EXPECT_EQ("a", decodeResult(Form::Base64, "YQ=="));
    EXPECT_EQ(std::nullopt, decodeResult(Form::Base64, "!"));
    EXPECT_EQ("%", decodeResult(Form::Escaped, "%2525"));
    EXPECT_EQ(std::nullopt, decodeResult(Form::Escaped, "%"));
    EXPECT_EQ(std::nullopt, decodeResult(Form::Escaped, "%25"));
}

TEST(ResultValues, AreJsonOfTextsOrOfBase64)
{
    const Pairs results = {{"b", "\xc3\xa4\n"}, {"a", "\xff\xfe"}};
    EXPECT_EQ("{\"b\":\"\xc3\xa4\\n\",\"a\":{\"base64\":\"//4=\"}}", jsonText(toJson(results), -1));
    EXPECT_EQ("{\n  \"a\": \"\xef\xbf\xbd\"\n}", jsonText(Json{{"a", "\xff"}}, 2));
}

// ---- Parameters.

std::string readRefusal(const WrittenParameters& written)
{
    return refusal([&] { written.read(nullptr); });
}

TEST(FilesOfParameters, HaveAParameterInEachLine)
{
    EXPECT_EQ((Pairs{{"a", "1"}, {"b c", " 2 = 3"}, {" #d", "4"}, {"e#", ""}, {"f", "5\r"}}),
              (WrittenParameters{{},
                                 file("# a=0\r\na=1\r\n\r\n \t\nb c= 2 = 3\n#\n #d=4\n"
                                      "e#=\nf=5\r\r\n")}
                   .read(nullptr)));
    EXPECT_EQ(Pairs(), (WrittenParameters{{}, file("")}.read(nullptr)));
    EXPECT_EQ(Pairs(), (WrittenParameters{{}, file(" \r\n\t")}.read(nullptr)));
}

TEST(FilesOfParameters, AreRefusedAtTheirLines)
{
    const std::string place = file("#\n\na=1\nno value\n") + ": line 4 is not written name=value";
    const std::string advice = "; all of a line is one parameter, and JSON is an object";
    EXPECT_EQ(place + advice, readRefusal({{}, folder().path("a file")}));
    file("#\n\na=1\n=2\n");
    EXPECT_EQ(place + advice, readRefusal({{}, folder().path("a file")}));
    file("#\n\na=1\nstrKey\n");
    EXPECT_EQ(place + ": strKey has neither \"=\" nor a value; there is no blank around \"=\"",
              readRefusal({{}, folder().path("a file")}));
    file("a=1\na=2\n");
    EXPECT_EQ(folder().path("a file") + ": a is given twice",
              readRefusal({{}, folder().path("a file")}));
}

TEST(FilesOfParameters, MayBeJson)
{
    EXPECT_EQ((Pairs{{"b", "x"}, {"a", "-5"}, {"c", "18446744073709551615"}}),
              (WrittenParameters{
                  {}, file(" \t\r\n{\"b\": \"x\", \"a\": -5, \"c\": 18446744073709551615}")}
                   .read(nullptr)));
    const std::string place = folder().path("a file");
    for (const char* value : {"true", "null", "1.5", "[]", "{}"}) {
        file("{\"a\": "s + value + "}");
        EXPECT_EQ(place + ": a: a value must be a text or an integer", readRefusal({{}, place}));
    }
    file("{\"a secret\": true}");
    EXPECT_EQ(place + ": a name: a value must be a text or an integer", readRefusal({{}, place}));
    file("{\n\"a\": 1,}");
    EXPECT_EQ(place + ":2:8: not JSON: a comma too many before it", readRefusal({{}, place}));
    const StandardInput input(place);
    EXPECT_EQ("standard input:2:8: not JSON: a comma too many before it", readRefusal({{}, "-"}));
}

TEST(WrittenParameters, TakeThePlaceOfTheFiles)
{
    EXPECT_EQ((Pairs{{"a", "1"}, {"b", "9"}, {"c", "3"}, {"d", "4"}}),
              (WrittenParameters{{"b=9", "d=4"}, file("a=1\nb=2\nc=3\n")}.read(nullptr)));
    const StandardInput input(file("a=1\n"));
    EXPECT_EQ("b: standard input is in use already", readRefusal({{"b=@-"}, "-"}));
}

TEST(WrittenParameters, AreCheckedBeforeFilesAreRead)
{
    const auto check = [](const std::vector<std::string>& arguments) {
        return refusal([&] { WrittenParameters{arguments, folder().path("absent")}.check(); });
    };
    EXPECT_EQ("nothing is refused", check({"a=1", "b=", "c=="}));
    EXPECT_EQ("parameter 2 is not written name=value; a value with blanks has quotes around it",
              check({"a=1", "b"}));
    EXPECT_EQ("parameter 1 is not written name=value; a value with blanks has quotes around it",
              check({"=1"}));
    EXPECT_EQ("a is given twice", check({"a=1", "b=2", "a=1"}));
    EXPECT_EQ("a name is given twice", check({"a-=1", "a-=1"}));
}

// ---- Steps of scripts.

std::string expanded(const std::string& text)
{
    return expandReferences(text,
                            [](const std::string& reference) { return "<" + reference + ">"; });
}

TEST(References, StandForResults)
{
    EXPECT_EQ("<a.b>", expanded("${a.b}"));
    EXPECT_EQ("1<a.b><c>2<>", expanded("1${a.b}${c}2${}"));
    EXPECT_EQ("${a.b}", expanded("$${a.b}"));
    EXPECT_EQ("x${a}<b>y", expanded("x$${a}${b}y"));
    EXPECT_EQ("$${a}", expanded("$$${a}"));
    EXPECT_EQ("${${", expanded("$${$${"));
    EXPECT_EQ("$ {a} $a }", expanded("$ {a} $a }"));
    EXPECT_EQ("", expanded(""));
    for (const char* text : {"${a", "x${", "${a}${b"})
        EXPECT_EQ("a reference lacks its }", refusal([&] { expanded(text); })) << text;
}

TEST(References, AreAStepAndAResult)
{
    using Pair = std::pair<std::string, std::string>;
    EXPECT_EQ(Pair("a", "b"), splitReference("a.b"));
    EXPECT_EQ(Pair("a_1-Z", "b.c"), splitReference("a_1-Z.b.c"));
    const std::string longest = "a." + std::string(62, 'x');
    EXPECT_EQ(Pair("a", std::string(62, 'x')), splitReference(longest));
    for (const std::string& wrong :
         {""s, "a"s, ".b"s, "a."s, "."s, "a b.c"s, "a.b+"s, "a.\xc3\xa4"s, "a.b/c"s, longest + "x"})
        EXPECT_EQ("a reference is written ${ID.RESULT}, and a plain ${ is written $${",
                  refusal([&] { splitReference(wrong); }))
            << wrong;
}

std::string stepRefusal(StepReader& reader, const std::string& step)
{
    return refusal([&] { reader.read(Json::parse(step)); });
}

TEST(Steps, AreCountedAndHaveTitles)
{
    StepReader reader(false);
    const Step first = reader.read(Json::parse(R"({"request": "QZaVen_GetVersion"})"));
    EXPECT_EQ("step 1: ", first.title);
    EXPECT_EQ("", first.id);
    EXPECT_FALSE(first.allowFailure);
    EXPECT_EQ(findRequest("QZaVen_GetVersion"), first.info);
    const Step second =
        reader.read(Json::parse(R"({"id": "k", "request": "QZaVen_strerror", "allowFailure": true,
                        "params": {"strErr": "@a ${b"}, "title": "x"})"));
    EXPECT_EQ("step 2 (k): ", second.title);
    EXPECT_EQ("k", second.id);
    EXPECT_TRUE(second.allowFailure);
    EXPECT_EQ(R"({"strErr":"@a ${b"})", second.params.dump());
    EXPECT_EQ("step 3 (k): id k is taken",
              stepRefusal(reader, R"({"id": "k", "request": "QZaVen_GetVersion"})"));
    StepReader forced(true);
    EXPECT_EQ(nullptr, forced.read(Json::parse(R"({"request": "QZaven_unknown"})")).info);
}

TEST(Steps, ThatAreWrongAreRefusedInSentences)
{
    const std::string member =
        " is unknown or of the wrong kind; a step has \"id\", \"request\", \"params\", \"title\" "
        "and \"allowFailure\"";
    for (const auto& [step, words] : std::vector<std::pair<std::string, std::string>>{
             {"[]", ": a step must be an object"},
             {"{}", ": \"request\" is missing"},
             {R"({"id": "a"})", " (a): \"request\" is missing"},
             {R"({"id": ""})", ": member \"id\"" + member},
             {R"({"id": "a.b"})", ": member \"id\"" + member},
             {R"({"id": "a{"})", ": member \"id\"" + member},
             {R"({"id": "}"})", ": member \"id\"" + member},
             {R"({"id": "$a"})", ": member \"id\"" + member},
             {R"({"id": 1})", ": member \"id\"" + member},
             {R"({"request": 1})", ": member \"request\"" + member},
             {R"({"params": []})", ": member \"params\"" + member},
             {R"({"allowFailure": 1})", ": member \"allowFailure\"" + member},
             {R"({"title": 1})", ": member \"title\"" + member},
             {R"({"Title": "x"})", ": member \"Title\"" + member},
             {R"({"request": "QZaVen_strerror", "params": {"strErr": "x${a"}})",
              ": strErr: a reference lacks its }"},
             {R"({"request": "QZaVen_strerror", "params": {"strErr": "hex:${a"}})",
              ": strErr: hex: takes pairs of hex digits"},
             {R"({"request": "QZaVen_strerror", "params": {"strErr": true}})",
              ": strErr: a value must be a text or an integer"},
             {R"({"request": "QZaVen_strerror", "params": {"strErr": "${a.Data}"}})",
              ": strErr: ${a.Data}: there is no earlier step a"}}) {
        StepReader reader(false);
        EXPECT_EQ("step 1" + words, stepRefusal(reader, step)) << step;
    }
    StepReader reader(false);
    reader.read(Json::parse(R"({"id": "key", "request": "QZaVen_GetVersion"})"));
    reader.read(Json::parse(R"({"id": "other", "request": "QZaven_crypto_encrypt"})"));
    EXPECT_EQ(
        "step 3: a: ${kay.Data}: there is no earlier step kay; did you mean key?\n"
        "step 3: b: ${other.data}: QZaven_crypto_encrypt of step other has no result data; did "
        "you mean Data?\n"
        "step 3: c: ${key.gcmOutTag}: QZaVen_GetVersion of step key has no result gcmOutTag",
        stepRefusal(reader, R"({"request": "QZaVen_strerror", "params": {"a": "${kay.Data}",
            "b": "${other.data}", "c": "${key.gcmOutTag}", "d": "${other.gcmOutTag}"}})"));
}

}  // namespace
