// Bodies of requests, and the frames in which they reach a worker.
#include "service/bodies/request_body.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <nlohmann/json.hpp>
#include <regex>
#include <thread>

#include "common/claims.h"
#include "common/codec.h"
#include "common/wire.h"
#include "service/bodies/content_type.h"
#include "service/bodies/json_tree.h"
#include "support/allocation_fault.h"

namespace {

using namespace std::string_literals;
using support::FreedBlocks;

const std::string json = "application/json";
const std::string form = "application/x-www-form-urlencoded";
const std::string multipart = "multipart/form-data; boundary=B";

struct Read {
    Fields fields;
    std::string code;  // of a refusal, and its field
    std::string field;
    std::string reason;
    std::string text;
};

Read read(const std::string& type, const std::string& body, BodyLimits limits = {})
{
    Read result;
    try {
        result.fields = readBody(type, body, limits);
    } catch (const Refusal& refusal) {
        const auto error = refusal.json()["error"];
        result.code = error["code"];
        result.field = error["field"].is_null() ? "" : error["field"].get<std::string>();
        result.reason = error["reason"];
        result.text = refusal.what();
        EXPECT_FALSE(std::regex_search(result.text, std::regex("\\{\\w+\\}"))) << result.text;
    }
    return result;
}

std::string codeOf(const std::string& type, const std::string& body, BodyLimits limits = {})
{
    return read(type, body, limits).code;
}

std::string batchCode(const std::string& body, std::string* field = nullptr, BodyLimits limits = {})
{
    try {
        readBatch(json, body, limits);
    } catch (const Refusal& refusal) {
        const auto error = refusal.json()["error"];
        if (field != nullptr && !error["field"].is_null())
            *field = error["field"];
        return error["code"];
    }
    return "";
}

// ---- JSON.

TEST(JsonBody, ValuesAreTextsIntegersOrBytes)
{
    const Read got = read(json + " ; charset=\"UTF-8\"",
                          "{\"a\": \"text \\u00e9\\u0000\", \"b\": -12, \"c\": {\"text\": \"{}\"}, "
                          "\"d\": {\"base64\": \"-_8\"}, \"e\": {\"base64\": \"+/8=\"}, "
                          "\"f\": {\"hex\": \"00fF\"}, \"g\": 18446744073709551615, "
                          "\"h\": {\"raw\": \"\\u0000[]\"}}");
    ASSERT_EQ("", got.code) << got.text;
    ASSERT_EQ(8U, got.fields.size());
    const std::vector<std::pair<std::string, Given>> expected = {
        {"text \xc3\xa9\0"s, Given::Plain},
        {"-12", Given::Plain},
        {"{}", Given::Text},
        {"\xfb\xff", Given::Bytes},
        {"\xfb\xff", Given::Bytes},
        {"\0\xff"s, Given::Bytes},
        {"18446744073709551615", Given::Plain},
        {"\0[]"s, Given::Raw}};
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(std::string(1, static_cast<char>('a' + i)), got.fields[i].name);
        EXPECT_EQ(expected[i].first, got.fields[i].value) << i;
        EXPECT_EQ(expected[i].second, got.fields[i].given) << i;
    }
}

TEST(JsonBody, EmptyMeansNoParameters)
{
    EXPECT_TRUE(read("", "").fields.empty());
    EXPECT_TRUE(read(json, "{}").fields.empty());
    EXPECT_EQ("malformed", codeOf(json, " "));
}

TEST(JsonBody, OtherShapesAreRefused)
{
    for (const char* value :
         {"true", "null", "1.5", "1e3", "[]", "99999999999999999999", "[\"key\"]", "[1, 2]"})
        EXPECT_EQ("wrong_type", codeOf(json, "{\"p\": "s + value + "}")) << value;
    for (const char* value : {"{}", "{\"text\": 1}", "{\"texts\": \"\"}",
                              "{\"text\": \"\", \"hex\": \"\"}", "{\"hex\": null}"}) {
        const Read got = read(json, "{\"p\": "s + value + "}");
        EXPECT_EQ("wrong_type", got.code) << value;
        EXPECT_EQ("p", got.field) << value;
    }
    for (const char* value : {"[\"key\"]", "[1]", "true"}) {
        const Read got = read(json, "{\"p\": "s + value + "}");
        EXPECT_EQ("p", got.field) << value;
        EXPECT_EQ("not_a_value", got.reason) << value;
    }
    for (const char* body : {"[]", "[1]", "[[", "\"\"", "1", "null"}) {
        EXPECT_EQ("not_parameters", read(json, body).reason) << body;
        EXPECT_EQ("wrong_type", codeOf(json, body)) << body;
    }
}

TEST(JsonBody, BytesMustBeWhole)
{
    for (const char* value : {"{\"hex\": \"0\"}", "{\"hex\": \"0g\"}", "{\"base64\": \"A\"}",
                              "{\"base64\": \"AA=\"}", "{\"base64\": \"A A=\"}"}) {
        const Read got = read(json, "{\"p\": "s + value + "}");
        EXPECT_EQ("bad_encoding", got.code) << value;
        EXPECT_EQ("p", got.field) << value;
    }
}

TEST(JsonBody, MalformedTextIsRefusedWithoutBeingQuoted)
{
    for (const std::string& body :
         {"{\"secret\""s, "{\"a\": \"secret}"s, "{a: 1}"s, "{'a': 1}"s, "{\"a\": 01}"s,
          "{\"a\": +1}"s, "{\"a\": NaN}"s, "{} {}"s, "{},"s, "{\"a\": 1,}"s, "{\"a\": \"\\x\"}"s,
          "{\"a\": \"\n\"}"s, "{\"a\": \"\\ud800\"}"s, "/**/{}"s, "{}\0"s, "{}\0secret"s,
          "{\"a\": \"\0\"}"s}) {
        const Read got = read(json, body);
        EXPECT_EQ("malformed", got.code) << body;
        EXPECT_EQ(std::string::npos, got.text.find("secret")) << got.text;
    }
    for (const std::string& body : {"{\"a\": \"\xff\"}"s, "{\"a\": \"\xc0\x80\"}"s,
                                    "{\"a\": \"\xed\xa0\x80\"}"s, "{\"\xe9\": 1}"s})
        EXPECT_EQ("bad_encoding", codeOf(json, body)) << body;
}

TEST(JsonBody, NamesAreUniqueShortAndPrintable)
{
    const Read twice = read(json, "{\"a\": 1, \"b\": 2, \"a\": 1}");
    EXPECT_EQ("duplicate_parameter", twice.code);
    EXPECT_EQ("a", twice.field);
    EXPECT_EQ("a is given twice", twice.text);
    EXPECT_EQ("duplicate_parameter", codeOf(json, "{\"a\": 1, \"\\u0061\": 1}"));
    EXPECT_EQ("duplicate_parameter", codeOf(json, "{\"a\": {\"hex\": \"\", \"hex\": \"\"}}"));
    EXPECT_EQ("malformed", codeOf(json, "{\"\": 1}"));
    EXPECT_EQ("malformed", codeOf(json, "{\"a\\u0000\": 1}"));
    for (const char* control : {"\\n", "\\u001f", "\\u007f", "\x7f"})
        EXPECT_EQ("bad_name", read(json, "{\"a"s + control + "\": 1}").reason) << control;
    EXPECT_EQ("", codeOf(json, "{\"a ~\\u0080\": 1}"));
    EXPECT_EQ("", codeOf(json, "{\"" + std::string(128, 'a') + "\": 1}"));
    EXPECT_EQ("malformed", codeOf(json, "{\"" + std::string(129, 'a') + "\": 1}"));
}

TEST(JsonBody, HasLimits)
{
    std::string most = "{";
    for (int i = 0; i < 64; ++i)
        most += (i == 0 ? "\"p" : ", \"p") + std::to_string(i) + "\": 1";
    EXPECT_EQ(64U, read(json, most + "}").fields.size());
    const Read more = read(json, most + ", \"q\": 1}");
    EXPECT_EQ("too_many_parameters", more.code);
    EXPECT_EQ("an object has more than 64 members", more.text);

    BodyLimits limits;
    limits.parameterBytes = 4;
    EXPECT_EQ("", codeOf(json, "{\"a\": \"1234\", \"b\": {\"hex\": \"01020304\"}}", limits));
    EXPECT_EQ("parameter_too_large", codeOf(json, "{\"a\": \"12345\"}", limits));
    const Read large = read(json, "{\"a\": {\"hex\": \"0102030405\"}}", limits);
    EXPECT_EQ("a", large.field);
    EXPECT_EQ("a has more than 4 bytes", large.text);

    // What an operator does not change.
    const std::string full(size_t{16} << 20, 'x');
    EXPECT_EQ("", codeOf(json, "{\"a\": \"" + full + "\"}"));
    EXPECT_EQ("a has more than 16777216 bytes", read(json, "{\"a\": \"" + full + "x\"}").text);

    EXPECT_EQ("malformed", codeOf(json, "{\"a\": {\"text\": {}}}"));
    EXPECT_NE("", codeOf(json, std::string(1000000, '[')));
    std::string deep;
    for (int i = 0; i < 100000; ++i)
        deep += "{\"a\":";
    EXPECT_EQ("malformed", codeOf(json, deep));
}

// ---- Forms.

TEST(FormBody, IsDecoded)
{
    const Read got = read(form, "a=1+2%2B3&b=&c&d=%00%FF&&%61%20=x=y&");
    ASSERT_EQ("", got.code);
    ASSERT_EQ(5U, got.fields.size());
    EXPECT_EQ("1 2+3", got.fields[0].value);
    EXPECT_EQ("", got.fields[1].value);
    EXPECT_EQ("", got.fields[2].value);
    EXPECT_EQ("\0\xff"s, got.fields[3].value);
    EXPECT_EQ("a ", got.fields[4].name);
    EXPECT_EQ("x=y", got.fields[4].value);
    EXPECT_EQ(Given::Plain, got.fields[3].given);
}

TEST(FormBody, BadOnesAreRefused)
{
    for (const char* body : {"a=%", "a=%4", "a=%zz", "%=1"})
        EXPECT_EQ("bad_encoding", codeOf(form, body)) << body;
    EXPECT_EQ("a", read(form, "a=%").field);
    EXPECT_EQ("bad_escape", read(form, "a=%").reason);
    EXPECT_EQ("bad_escape_in_name", read(form, "%=1").reason);
    for (const char* name : {"", "%00", "%FF", "%1F", "%7F"})
        EXPECT_EQ("bad_name", read(form, name + "=1"s).reason) << name;
    EXPECT_EQ("duplicate_parameter", codeOf(form, "a=1&b=2&%61=3"));
    EXPECT_EQ("malformed", codeOf(form, "=1"));
    EXPECT_EQ("malformed", codeOf(form, "a%00=1"));
    std::string many;
    for (int i = 0; i < 65; ++i)
        many += "p" + std::to_string(i) + "=&";
    EXPECT_EQ("too_many_parameters", codeOf(form, many));
    const Read tooMany = read(form, many);
    EXPECT_EQ("there are more than 64 parameters", tooMany.text);
    EXPECT_EQ(64U, read(form, many.substr(0, many.find("p64="))).fields.size());
    BodyLimits limits;
    limits.parameterBytes = 4;
    const Read large = read(form, "a=1234&b=12345", limits);
    EXPECT_EQ("b", large.field);
    EXPECT_EQ("b has more than 4 bytes", large.text);
}

TEST(FormBody, JsonIsToldFromIt)
{
    for (const char* body : {"{}", "{\"a\": 1}", " \t\r\n{\"a\": 1} \t\r\n"}) {
        const Read got = read(form, body);
        EXPECT_EQ("json_as_form", got.reason) << body;
        EXPECT_EQ("Content-Type", got.field) << body;
    }
    for (const char* body : {"a={}", "{a=1", "a}", "{=|", "z}", "a={|", " "})
        EXPECT_EQ("", codeOf(form, body)) << body;
}

std::string part(const std::string& disposition, const std::string& content)
{
    return "--B\r\nContent-Disposition: form-data; " + disposition + "\r\n\r\n" + content + "\r\n";
}

TEST(MultipartBody, TextAndFilesAreRead)
{
    const std::string bytes = "\0\r\n--Bx\r\n-\xff"s;
    const Read got =
        read("Multipart/Form-Data; charset=x; boundary=\"B\"; a=b",
             "preamble\r\n" + part("name=\"a\"", "text") +
                 part("name=b; filename=\"c;\\\"d\"", bytes.substr(0, 3) + "--x") +
                 part("filename=x; name=\"c\"\r\nContent-Type: a/b", "") + "--B--\r\nepilogue");
    ASSERT_EQ("", got.code) << got.text;
    ASSERT_EQ(3U, got.fields.size());
    EXPECT_EQ("text", got.fields[0].value);
    EXPECT_EQ(Given::Plain, got.fields[0].given);
    EXPECT_EQ("b", got.fields[1].name);
    EXPECT_EQ("\0\r\n--x"s, got.fields[1].value);
    EXPECT_EQ(Given::Bytes, got.fields[1].given);
    EXPECT_EQ(Given::Bytes, got.fields[2].given);
    EXPECT_EQ("", got.fields[2].value);
}

TEST(MultipartBody, BadOnesAreRefused)
{
    const std::string good = part("name=\"a\"", "x");
    EXPECT_EQ("", codeOf(multipart, good + "--B--"));
    EXPECT_EQ("malformed", codeOf("multipart/form-data", good + "--B--"));
    EXPECT_EQ("malformed", codeOf("multipart/form-data; boundary=" + std::string(71, 'B'), good));
    const std::string behind = good.substr(3);
    for (const std::string& line : {""s, " "s, " \t"s}) {
        const Read got = read(multipart, "--B" + line + behind + "--B" + line + behind + "--B--");
        EXPECT_EQ("name_twice", got.reason) << line;
    }
    const std::pair<const char*, std::string> rows[] = {
        {"no_last_boundary", good},
        {"no_boundary", "x"},
        {"no_boundary", "x--B--"},
        {"more_at_boundary", "--B"},
        {"more_at_boundary", "--B-"},
        {"more_at_boundary", "--Bx" + behind + "--B--"},
        {"more_at_boundary", good + "--Bx"},
        {"more_at_boundary", good + "--B x" + behind + "--B--"},
        {"no_last_boundary", "--B\r\n"},
        {"part_without_field", "--B\r\n\r\n\r\n--B--"},
        {"part_without_field", "--B\r\nContent-Disposition: form-data\r\n\r\nx\r\n--B--"},
        {"part_without_field", "--B\r\nContent-Disposition: attachment; name=a\r\n\r\nx\r\n--B--"},
        {"quote_open", "--B\r\nContent-Disposition: form-data; name=\"a\r\n\r\nx\r\n--B--"},
        {"bad_part_header", "--B\r\nContent-Disposition\r\n\r\nx\r\n--B--"},
        {"part_header_twice",
         "--B\r\nContent-Disposition: form-data; name=a\r\nContent-Disposition: form-data; "
         "name=b\r\n\r\nx\r\n--B--"}};
    for (const auto& [reason, body] : rows)
        EXPECT_EQ(reason, read(multipart, body).reason) << body;
    EXPECT_EQ("duplicate_parameter", codeOf(multipart, good + good + "--B--"));
    EXPECT_EQ("unsupported_type", codeOf(multipart,
                                         "--B\r\nContent-Disposition: form-data; name=a\r\n"
                                         "Content-Transfer-Encoding: base64\r\n\r\nx\r\n--B--"));
    for (const char* encoding : {"binary", "8bit", "Binary", "8BIT"})
        EXPECT_EQ("", codeOf(multipart,
                             "--B\r\nContent-Disposition: form-data; name=a\r\n"
                             "Content-Transfer-Encoding: "s +
                                 encoding + "\r\n\r\nx\r\n--B--"))
            << encoding;
}

// A form of one part with these headers.
std::string formOf(const std::string& headers)
{
    return "--B\r\n" + headers + "\r\n\r\nx\r\n--B--";
}

// The same, for a part that says which field it is in this way.
std::string textOf(const std::string& disposition)
{
    return read(multipart, formOf("Content-Disposition: form-data; " + disposition)).text;
}

TEST(MultipartBody, HeadersOfAPartAreFewAndShort)
{
    const std::string named = "Content-Disposition: form-data; name=\"a\"";
    // With the line ends and the empty line.
    const std::string filled = named + "\r\nX: " + std::string(4096 - named.size() - 9, 'x');
    EXPECT_EQ("", codeOf(multipart, formOf(filled)));
    const char* const tooLarge =
        "the form is not whole: a part's headers have more than 4096 bytes";
    EXPECT_EQ(tooLarge, read(multipart, formOf(filled + "x")).text);
    EXPECT_EQ(tooLarge, read(multipart, formOf("X: " + std::string(1 << 20, 'x'))).text);
    EXPECT_EQ(tooLarge, textOf(std::string(1 << 20, ';') + "name=\"a\""));
    EXPECT_EQ(tooLarge, textOf("name=\"" + std::string(1 << 20, 'a') + "\""));
    const char* const open = "the form is not whole: a part's headers do not end";
    EXPECT_EQ(open, read(multipart, "--B\r\n" + named + "\r\nx\r\n--B--").text);
    // As many bytes as there may be, and one more.
    const std::string endless(4096, 'x');
    EXPECT_EQ(open, read(multipart, "--B\r\n" + endless + "\r\n--B--").text);
    EXPECT_EQ(tooLarge, read(multipart, "--B\r\n" + endless + "x\r\n--B--").text);

    std::string many = named;
    for (int i = 0; i < 15; ++i)
        many += "\r\nX: " + std::to_string(i);
    EXPECT_EQ("", codeOf(multipart, formOf(many)));
    EXPECT_EQ("the form is not whole: a part has more than 16 headers",
              read(multipart, formOf(many + "\r\nX: 16")).text);
}

TEST(MultipartBody, NothingIsGivenTwice)
{
    EXPECT_EQ("", textOf("name=a; filename=b"));
    for (const char* twice :
         {"name=a; name=b", "name=a; name=a", "name=\"a\"; NAME=\"b\"",
          "name=a; x; y=z; name=", "name=a; filename=b; filename=c",
          "name=a; filename=; FileName=\"\"", "name=a; filename*=UTF-8''b; filename*=UTF-8''c"})
        EXPECT_NE(std::string::npos, textOf(twice).find(" is given twice")) << twice;
    EXPECT_EQ("malformed", codeOf(multipart, formOf("Content-Disposition: form-data; name=a\r\n"
                                                    "content-disposition: form-data; name=a")));
    const std::string whole = part("name=a", "x") + "--B--";
    for (const char* type :
         {"; boundary=B; boundary=C", "; boundary=C; boundary=B", "; boundary=B; BOUNDARY=\"B\""})
        EXPECT_EQ("malformed", codeOf("multipart/form-data"s + type, whole)) << type;
}

TEST(MultipartBody, ParametersOfAHeaderAreWellFormed)
{
    for (const char* good :
         {"name=a", "name = a ;", ";; name=\"a\" ;", "x;name=a", "name=\"a;b\"", "name=\"a\\\"b\"",
          "name=\"a=b\"; x=\"y\"", "filename=\";name=c\"; name=a"})
        EXPECT_EQ("", textOf(good)) << good;
    for (const char* bad : {"name=\"a", "name=\"a\\\"", "name=\"a\"b", "name=\"a\"\"b\"",
                            "name=\"a\" x; filename=b", "name=a; filename=\"", "name=a\"b", "name"})
        EXPECT_NE("", textOf(bad)) << bad;
    // A name that is hidden in another parameter's text is not one.
    const Read hidden = read(multipart, formOf("Content-Disposition: form-data; "
                                               "filename=\"; name=b; \"; name=a"));
    ASSERT_EQ("", hidden.code) << hidden.text;
    EXPECT_EQ("a", hidden.fields[0].name);
    EXPECT_EQ(Given::Bytes, hidden.fields[0].given);
}

TEST(MultipartBody, LinesOfAPartAreHeaders)
{
    const std::string named = "Content-Disposition: form-data; name=a";
    for (const char* good : {"\r\nX:\ty", "\r\nX:y", "\r\nX:", "\r\nX: ~\x80\xff "})
        EXPECT_EQ("", codeOf(multipart, formOf(named + good))) << good;
    const Read narrow = read(multipart, formOf("Content-Disposition:form-data;name=a"));
    ASSERT_EQ("", narrow.code) << narrow.text;
    EXPECT_EQ("a", narrow.fields[0].name);
    for (const std::string& bad :
         {named + "\r\nno colon"s, named + "\r\n: x"s, named + "\r\n folded: x"s,
          named + "\r\n\tfolded"s, named + "\r\nX : y"s, named + "\r\nX: \0y"s,
          named + "\r\nX\0: y"s, named + "\0"s, named + "\r\nX: a\nContent-Type: b"s,
          named + "\r\nX: a\rb"s, named + "\r\nX: \x7f"s, named + "\r\nX: \x1f"s,
          named + "\r\nnocolon"s, "Content-Disposition : form-data; name=a"s,
          "Content-Disposition: form-data; name=\0a"s, "Content-Disposition: form-dat; name=a"s,
          "X: y"s})
        EXPECT_EQ("malformed", codeOf(multipart, formOf(bad))) << bad;
    EXPECT_EQ("malformed", codeOf(multipart, "--B\r\n\r\nx\r\n--B--"));
}

TEST(MultipartBody, PartsAreNotFormsOrTextsOfOtherCharsets)
{
    const std::string named = "Content-Disposition: form-data; name=a\r\nContent-Type: ";
    for (const char* good : {"text/plain", "text/plain; charset=UTF-8",
                             "text/plain;charset=us-ascii", "application/octet-stream"})
        EXPECT_EQ("", codeOf(multipart, formOf(named + good))) << good;
    for (const char* bad : {"multipart/mixed; boundary=C", "Multipart/Form-Data; boundary=B",
                            "text/plain; charset=utf-16", "text/plain; charset=iso-8859-1"})
        EXPECT_EQ("unsupported_type", codeOf(multipart, formOf(named + bad))) << bad;
    EXPECT_EQ("malformed",
              codeOf(multipart, formOf(named + "text/plain; charset=utf-8; charset=x")));
    // A file's bytes are taken as they are.
    const Read file =
        read(multipart, formOf("Content-Disposition: form-data; name=a; filename=b\r\n"
                               "Content-Type: text/plain; charset=utf-16"));
    EXPECT_EQ("", file.code) << file.text;
}

TEST(MultipartBody, AFileMayHaveANameOfOtherLettersOnly)
{
    const Read got = read(multipart, formOf("Content-Disposition: form-data; name=a; "
                                            "filename*=UTF-8''%e2%82%ac"));
    ASSERT_EQ("", got.code) << got.text;
    EXPECT_EQ(Given::Bytes, got.fields[0].given);
    EXPECT_NE("", textOf("name*=UTF-8''a"));
}

TEST(MultipartBody, BoundariesAreOfTheCharactersForThem)
{
    const auto with = [](const std::string& boundary, const std::string& written) {
        return codeOf("multipart/form-data; boundary=" + written,
                      "--" + boundary +
                          "\r\nContent-Disposition: form-data; name=a\r\n\r\nx\r\n--" + boundary +
                          "--");
    };
    for (const std::string& good :
         {"B"s, std::string(70, '-'), "0aZ'()+_,-./:=?"s, "AZaz09"s, "a b"s})
        EXPECT_EQ("", with(good, "\"" + good + "\"")) << good;
    for (const std::string& bad : {""s, std::string(71, 'B'), "B "s, "a@b"s, "a[b"s, "a`b"s, "a{b"s,
                                   "\xc3\xa9"s, "a\tb"s, "a\0b"s, "a\x7f"s})
        EXPECT_EQ("malformed", with(bad, "\"" + bad + "\"")) << bad;
}

// What looks like a boundary again and again, up to its last character, and what is at the
// limit of everything: it is read whole, or refused for what it has too much of.
TEST(MultipartBody, NearlyBoundariesAndManyOfAllAreRead)
{
    const std::string boundary(70, 'B');
    const std::string type = "multipart/form-data; boundary=" + boundary;
    const std::string nearly = "\r\n--" + boundary.substr(1) + "x";
    std::string content;
    while (content.size() < (1 << 20))
        content += nearly;
    content += std::string(1000, '\r') + "\r\n--";
    const Read got =
        read(type, "--" + boundary + "\r\nContent-Disposition: form-data; name=a\r\n\r\n" +
                       content + "\r\n--" + boundary + "--");
    ASSERT_EQ("", got.code) << got.text;
    EXPECT_EQ(content, got.fields[0].value);

    std::string parts;
    for (int i = 0; i < 10000; ++i)
        parts += part("name=p" + std::to_string(i), "x");
    EXPECT_EQ("too_many_parameters", codeOf(multipart, parts + "--B--"));
    EXPECT_EQ("malformed", codeOf(multipart, "--B" + std::string(1 << 20, ' ')));
}

TEST(FormBody, ManyOfAllAreRead)
{
    EXPECT_TRUE(read(form, std::string(1 << 20, '&')).fields.empty());
    EXPECT_EQ("malformed", codeOf(form, std::string(1 << 20, '=')));
    EXPECT_EQ("malformed", codeOf(form, std::string(1 << 20, 'a')));
    std::string escaped;
    for (int i = 0; i < (1 << 18); ++i)
        escaped += "%41";
    EXPECT_EQ(std::string(1 << 18, 'A'), read(form, "a=" + escaped).fields.at(0).value);
    EXPECT_EQ("bad_encoding", codeOf(form, "a=" + escaped + "%4"));
}

// The value of `name`, or why there is none.
std::string parameterOf(const std::string& header)
{
    try {
        return headerParameter(header, "name").value_or("none");
    } catch (const Refusal& refusal) {
        return refusal.json()["error"]["reason"].get<std::string>() + "!";
    }
}

TEST(HeaderParameter, IsReadAsItIsMeant)
{
    const std::pair<const char*, const char*> rows[] = {
        {"", "none"},
        {"x", "none"},
        {"name=a", "none"},
        {"xname=a", "none"},
        {"x;name=a", "a"},
        {"x;NAME=a", "a"},
        {";name=a", "a"},
        {"x; name=a", "a"},
        {"x; name=a;", "a"},
        {"x; name=a ; y=b", "a"},
        {"x;\tname \t= \t a b\t;y", "a b"},
        {"x; name=", ""},
        {"x; name=;y", ""},
        {"x; name=\"\"", ""},
        {"x; name", "none"},
        {"x; name; name=a", "a"},
        {"x; yname=a; z=name=b", "none"},
        {"x; y=zname=a", "none"},
        {"x; name=a=b", "a=b"},
        {"x; name=a:b", "a:b"},
        {"x; y=\"z:\"; name=a", "a"},
        {"x; y=\"; name=b; \"; name=a", "a"},
        {"x; name= \t\"a\" \t; y", "a"},
        {"x; name=\"a;b=c\"", "a;b=c"},
        {"x; name=\"#a\"", "#a"},
        {"x; name=\"a\\\"b\\\\c\"", "a\"b\\c"},
        {"x; name=\"a\\bc\"", "a\\bc"},
        {"x; name=\"a\\\\\"; y", "a\\"},
        {"x; name=\"a/\"; y", "a/"},
        {"x; name=a#b", "a#b"},
        {"x; name=a\"b", "quote_inside!"},
        {"x; name=a\"", "quote_inside!"},
        {"x; name=\"", "quote_open!"},
        {"x; name=\"a", "quote_open!"},
        {"x; name=\"a\\", "quote_open!"},
        {"x; name=\"a\\\"", "quote_open!"},
        {"x; name=\"a\"b", "text_behind_quotes!"},
        {"x; name=\"a\" b; y", "text_behind_quotes!"},
        {"x; name=\"a\":b", "text_behind_quotes!"},
        {"x; name=\"a\"\"b\"", "text_behind_quotes!"},
        {"x; y=\"a\"b; name=a", "text_behind_quotes!"},
        {"x; name=a; name=a", "header_value_twice!"},
        {"x; name=a; y; Name=\"\"", "header_value_twice!"},
    };
    for (const auto& [header, expected] : rows)
        EXPECT_EQ(expected, parameterOf(header)) << header;
}

TEST(BodyType, ParametersAreGivenOnceAndWhole)
{
    for (const char* type :
         {"; charset=utf-8; charset=utf-16", "; charset=utf-16; charset=utf-8",
          "; charset=utf-8; Charset=utf-8", "; charset=\"utf-16", "; charset=\"utf-8\"x"})
        EXPECT_EQ("malformed", codeOf(json + type, "{}")) << type;
    EXPECT_EQ("", codeOf(json + ";; x; charset=\"utf-8\"; y=\"charset=utf-16\";", "{}"));
}

TEST(BodyType, OthersAreRefused)
{
    for (const char* type : {"", "text/plain", "application/json-seq", "application/jsonx",
                             "application/json; charset=utf-16", "application/xml"})
        EXPECT_EQ("unsupported_type", codeOf(type, "{}")) << type;
    EXPECT_EQ("", codeOf("APPLICATION/JSON;charset=utf-8", "{}"));
}

// ---- Batches.

TEST(BatchBody, IsAListOfRequests)
{
    const auto parts = readBatch(json,
                                 "{\"requests\": [{\"name\": \"x\"}, {\"parameters\": "
                                 "{\"a\": {\"hex\": \"00\"}}, \"name\": \"y\"}]}",
                                 {});
    ASSERT_EQ(2U, parts.size());
    EXPECT_EQ("x", parts[0].name);
    EXPECT_EQ("y", parts[1].name);
    EXPECT_EQ("requests[1]", parts[1].where);
    ASSERT_EQ(1U, parts[1].fields.size());
    EXPECT_EQ("requests[1].parameters.a", parts[1].fields[0].where);
}

TEST(BatchBody, OtherShapesAreRefused)
{
    for (const char* body : {"[]", "{}", "{\"requests\": {}}", "{\"requests\": [1]}",
                             "{\"requests\": [{}]}", "{\"requests\": [{\"name\": 1}]}",
                             "{\"requests\": [{\"name\": \"x\", \"parameters\": []}]}",
                             "{\"requests\": [{\"name\": \"x\", \"parameters\": {\"a\": [1]}}]}",
                             "{\"requests\": [{\"name\": \"x\"}], \"more\": 1}"})
        EXPECT_EQ("wrong_type", batchCode(body)) << body;
    EXPECT_EQ("malformed", batchCode("{\"requests\": []}"));
    EXPECT_EQ("malformed", batchCode("{\"requests\": [{\"name\": \"x\", \"more\": 1}]}"));
    EXPECT_EQ("malformed", batchCode("{\"requests\": [{\"name\": \"x\", \"parameters\": {}, "
                                     "\"more\": 1}]}"));
    EXPECT_EQ("malformed", batchCode("{\"requests\": [{\"name\": \"x\", \"parameters\": "
                                     "{\"a\": {\"text\": {}}}}]}"));

    std::string field;
    EXPECT_EQ("duplicate_parameter",
              batchCode("{\"requests\": [{\"name\": \"x\"}, {\"name\": \"x\", \"parameters\": "
                        "{\"a\": 1, \"a\": 2}}]}",
                        &field));
    EXPECT_EQ("requests[1].parameters.a", field);
    BodyLimits limits;
    limits.parameterBytes = 4;
    const auto sized = [](const std::string& value) {
        return "{\"requests\": [{\"name\": \"x\"}, {\"name\": \"x\", \"parameters\": {\"b\": \"" +
               value + "\"}}]}";
    };
    EXPECT_EQ("", batchCode(sized("1234"), &field, limits));
    EXPECT_EQ("parameter_too_large", batchCode(sized("12345"), &field, limits));
    EXPECT_EQ("requests[1].parameters.b", field);

    std::string many = "{\"requests\": [{\"name\": \"x\"}";
    for (int i = 0; i < 255; ++i)
        many += ", {\"name\": \"x\"}";
    EXPECT_EQ("", batchCode(many + "]}"));
    EXPECT_EQ("too_many_parameters", batchCode(many + ", {\"name\": \"x\"}]}"));
}

// ---- Parameters.

TEST(Prepare, BytesAndTextsTakeTheFormOfTheirParameter)
{
    for (const Given given : {Given::Bytes, Given::Text}) {
        Fields fields = {{"strKey", "\xfb\xff", given, "strKey"},
                         {"strHashAlg", "\xfb", given, "strHashAlg"},
                         {"strdata", "-_8", Given::Plain, "strdata"},
                         {"unknown", "\xff", given, "unknown"}};
        const Prepared prepared = prepare(*findRequest("QZaven_crypto_hmac"), fields);
        const Pairs expected = {
            {"strKey", "-_8="}, {"strHashAlg", "\xfb"}, {"strdata", "-_8"}, {"unknown", "\xff"}};
        EXPECT_EQ(expected, prepared.parameters);
        EXPECT_FALSE(prepared.upload);
        EXPECT_TRUE(fields.empty());
    }
}

// The code of the refusal of a plain or raw value.
std::string refusalOf(const char* request, const char* name, const std::string& value,
                      Given given = Given::Plain)
{
    Fields fields = {{name, value, given, "place"}};
    try {
        const Prepared prepared = prepare(*findRequest(request), fields);
        EXPECT_EQ((Pairs{{name, value}}), prepared.parameters);
    } catch (const Refusal& refusal) {
        EXPECT_EQ("place", refusal.json()["error"]["field"]);
        EXPECT_TRUE(value.empty() || std::string(refusal.what()).find(value) == std::string::npos);
        return refusal.code().name;
    }
    return "";
}

// The reason of the refusal of a text for a key.
std::string reasonOf(Fields fields)
{
    try {
        prepare(*findRequest("QZaven_crypto_hmac"), fields);
    } catch (const Refusal& refusal) {
        return refusal.json()["error"]["reason"];
    }
    return "";
}

TEST(Prepare, RefusalsNameTheWayOutOfTheirBody)
{
    const BodyLimits limits;
    EXPECT_EQ("text_for_base64", reasonOf(readBody(json, "{\"strKey\": \"text:hi\"}", limits)));
    EXPECT_EQ("form_for_base64", reasonOf(readBody(form, "strKey=text%3Ahi", limits)));
    EXPECT_EQ("form_for_base64",
              reasonOf(readBody(multipart, part("name=\"strKey\"", "text:hi") + "--B--", limits)));
}

TEST(Prepare, PlainTextMustBeBase64WhereThatIsDue)
{
    constexpr const char* hmac = "QZaven_crypto_hmac";
    for (const char* value : {"", "AA", "AA==", "-_+/", "AA==\n", "AA==\r\n", "AA\n", "AA\n\n"})
        EXPECT_EQ("", refusalOf(hmac, "strdata", value)) << value;
    for (const std::string& value :
         {"A"s, "AA="s, "AA== "s, " AA=="s, "AA==AA"s, "AAAA\nAAAA"s, "AA\0"s, "\n"s, "="s, "A A"s,
          "AAA\t"s, "\xff\xff"s, "AA==="s}) {
        EXPECT_EQ("bad_encoding", refusalOf(hmac, "strdata", value)) << value;
        EXPECT_EQ("", refusalOf(hmac, "strdata", value, Given::Raw)) << value;
    }
    // What the engine decodes may be broken into lines, not more.
    for (const auto& [request, name] : {std::pair("QZaven_crypto_base64_Decode", "strIn"),
                                        {"QZaven_crypto_private_decrypt", "strsk"}}) {
        EXPECT_EQ("", refusalOf(request, name, "AAAA\r\nAA=\n=\n")) << request;
        for (const char* value : {"AA AA", "-----BEGIN X-----\nAAAA\n", "\n\n", "AA\nA\n=="})
            EXPECT_EQ("bad_encoding", refusalOf(request, name, value)) << request << value;
    }
    // Where it is not due, anything goes.
    EXPECT_EQ("", refusalOf(hmac, "unknown", "4!"));
    EXPECT_EQ("", refusalOf("QZaven_ke_free", "strKe", "ke_!"));
}

TEST(Prepare, NumbersAreWholeNumbersOrNames)
{
    const char* const hmac = "QZaven_crypto_hmac";
    for (const char* value : {"4", " 4", "-1", "+4\n", "007", "99999999999999999999"})
        EXPECT_EQ("", refusalOf(hmac, "strHashAlg", value)) << value;
    for (const std::string& value : {"4!"s, "4 4"s, "0x4"s, "4.0"s, "+-4"s, "4\0"s, "sha-265"s}) {
        EXPECT_EQ("wrong_type", refusalOf(hmac, "strHashAlg", value)) << value;
        EXPECT_EQ("", refusalOf(hmac, "strHashAlg", value, Given::Raw)) << value;
        EXPECT_EQ("", refusalOf(hmac, "strHashAlg", value, Given::Text)) << value;
    }
}

// How a string of that name and value comes in each form of body.
std::vector<Fields> everyWay(const std::string& name, const std::string& value)
{
    const auto object = nlohmann::json{{name, value}};
    const auto batch =
        nlohmann::json{{"requests", {{{"name", "QZaven_crypto_hmac"}, {"parameters", object}}}}};
    std::string escaped;
    for (const char c : value)
        escaped += c == ' ' ? "+" : c == '#' ? "%23" : std::string(1, c);
    return {readBody(json, object.dump(), {}), readBody(form, name + "=" + escaped, {}),
            readBody(multipart,
                     "--B\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" +
                         value + "\r\n--B--",
                     {}),
            readBatch(json, batch.dump(), {}).at(0).fields};
}

TEST(Prepare, NamesOfNumbersAreSentAsTheNumbers)
{
    size_t count = 0;
    for (const RequestInfo& request : catalogue())
        for (const Parameter& parameter : request.parameters)
            for (const Choice& choice : parameter.choices)
                for (const std::string& name : choice.names)
                    for (const std::string& written : {name, "#" + name + " "}) {
                        ++count;
                        for (Fields& fields : everyWay(parameter.name, written))
                            EXPECT_EQ((Pairs{{parameter.name, choice.value}}),
                                      prepare(request, fields).parameters)
                                << request.name << " " << written;
                        // As it is, whatever it is.
                        for (const Given given : {Given::Raw, Given::Text, Given::Bytes}) {
                            Fields marked = {{parameter.name, written, given, ""}};
                            EXPECT_EQ((Pairs{{parameter.name, written}}),
                                      prepare(request, marked).parameters);
                        }
                    }
    EXPECT_GT(count, 150U);
}

TEST(Prepare, FilesAreUploadedAndHandlesAreText)
{
    const RequestInfo& request = *findRequest("QZaven_ke_set_root_certificate");
    Fields upload = {{"strCa_file", "PEM", Given::Bytes, "strCa_file"}};
    const Prepared uploaded = prepare(request, upload);
    EXPECT_EQ("PEM", uploaded.upload.value_or(""));
    // What stands for the path until the plug-in gets one.
    EXPECT_EQ((Pairs{{"strCa_file", "upload"}}), uploaded.parameters);
    for (const char* name : {"strKe", "strCa_path"}) {
        for (const Given given : {Given::Plain, Given::Text, Given::Raw})
            EXPECT_EQ("", refusalOf("QZaven_ke_set_root_certificate", name, "x", given)) << name;
        Fields fields = {{name, "x", Given::Bytes, name}};
        EXPECT_THROW(prepare(request, fields), Refusal) << name;
    }
}

// ---- What is left in memory.

// A long one, and one that a text holds in itself.
const std::string markers[] = {"5ecret5ecret5ecret5ecret5ecret5ecret5ecret5ecret", "5ecret5"};

// A text that has moved away has lost its first character by that alone.
std::string_view restOf(const std::string& marker)
{
    return std::string_view(marker).substr(1);
}

// Reads and prepares a body as the service does, and tells how many blocks with the marker
// are freed on the way.
size_t left(const std::string& marker, const std::string& type, const std::string& body)
{
    BodyLimits limits;
    limits.parameters = 4;
    limits.parameterBytes = 1000;
    const FreedBlocks freed(restOf(marker));
    try {
        Fields fields = readBody(type, body, limits);
        prepare(*findRequest("QZaven_crypto_hmac"), fields);
    } catch (const Refusal&) {
    }
    return freed.counted();
}

TEST(Wiping, ValuesInJsonLeaveNothing)
{
    for (const std::string& marker : markers) {
        const std::string value = "\"" + marker + "\"";
        const std::string encoded = "\"" + toUrlBase64(marker) + "\"";
        const std::string digits = "\"" + toHex(marker) + "\"";
        for (const std::string& body :
             {"{\"strdata\": " + value + "}",                                // not Base64
              "{\"strdata\": {\"text\": " + value + "}}",                    //
              "{\"strdata\": {\"raw\": " + value + "}}",                     //
              "{\"strdata\": {\"base64\": " + encoded + "}}",                //
              "{\"strKe\": {\"hex\": " + digits + "}, \"strdata\": \"!\"}",  // then refused
              "{\"a\": " + value + ", \"b\": 1, \"strdata\": \"!\"}",        //
              "{\"a\": " + value + ", \"a\": 1}",                            // twice
              "{\"a\": " + value + ", \"b\": true}",                         // wrong type
              "{\"a\": {\"raw\": " + value + ", \"hex\": " + value + "}}",   //
              "{\"a\": {\"base64\": " + value.substr(0, value.size() - 1) + "!\"}}",
              "{\"a\": {\"hex\": " + digits.substr(0, digits.size() - 1) + "x\"}}",
              "{\"a\": " + value + ", \"b\": 1, \"c\": 1, \"d\": 1, \"e\": 1}",     // too many
              "{\"a\": " + value + ", \"b\": \"" + std::string(1001, 'x') + "\"}",  // too large
              "{\"a\": " + value + ", ",                                            // cut
              "[" + value + "]"})
            EXPECT_EQ(0U, left(marker, json, body)) << body;
    }
}

TEST(Wiping, ValuesInFormsLeaveNothing)
{
    for (const std::string& marker : markers)
        for (const std::string& body :
             {"strdata=" + marker, "strdata=" + marker + "!", "a=" + marker + "&b=%",
              "a=" + marker + "%4", "a=" + marker + "&a=1", "a=" + marker + "+%2B&strdata=!",
              "a=" + marker + "&b&c&d&e", marker + "%", std::string(128, 'x') + marker,
              "a=" + marker + "&b=" + std::string(1001, 'x')})
            EXPECT_EQ(0U, left(marker, form, body)) << body;
}

TEST(Wiping, ValuesInMultipartLeaveNothing)
{
    for (const std::string& marker : markers) {
        const std::string secret = part("name=a", marker);
        for (const std::string& body :
             {secret + "--B--", part("name=strdata", marker + "!") + "--B--",
              part("name=strdata; filename=f", marker) + "--B--",
              part("name=strdata; filename=f", marker) + part("name=strKey", "!") + "--B--",
              secret + secret + "--B--", secret + "--B", secret + part("x=y", "") + "--B--",
              secret + part("name=b", "") + part("name=c", "") + part("name=d", "") +
                  part("name=e", "") + "--B--",
              secret + part("name=b", std::string(1001, 'x')) + "--B--"})
            EXPECT_EQ(0U, left(marker, multipart, body)) << body;
    }
}

TEST(Wiping, UploadsLeaveNothing)
{
    for (const std::string& marker : markers) {
        const std::string body = part("name=strCa_file; filename=f", marker) + "--B--";
        const FreedBlocks freed(restOf(marker));
        {
            Fields fields = readBody(multipart, body, {});
            const Prepared prepared =
                prepare(*findRequest("QZaven_ke_set_root_certificate"), fields);
            EXPECT_TRUE(prepared.upload && *prepared.upload == marker);
        }
        EXPECT_EQ(0U, freed.counted());
    }
}

TEST(Wiping, BatchesLeaveNothing)
{
    for (const std::string& marker : markers) {
        const std::string good =
            "{\"name\": \"QZaven_crypto_hmac\", \"parameters\": {\"strdata\": {\"text\": \"" +
            marker + "\"}}}";
        for (const std::string& other :
             {"{\"name\": 1}"s, "1"s, "{\"name\": \"x\", \"parameters\": {\"a\": true}}"s, good,
              "{\"name\": \"x\", \"more\": \"" + marker + "\"}"}) {
            const std::string body = "{\"requests\": [" + good + ", " + other + "]}";
            const FreedBlocks freed(restOf(marker));
            try {
                for (BatchPart& part : readBatch(json, body, {}))
                    prepare(*findRequest("QZaven_crypto_hmac"), part.fields);
            } catch (const Refusal&) {
            }
            EXPECT_EQ(0U, freed.counted()) << body;
        }
    }
}

TEST(Wiping, RequestsForWorkersLeaveNothing)
{
    for (const std::string& marker : markers) {
        const FreedBlocks freed(restOf(marker));
        {
            WireRequest request;
            request.parameters.emplace_back("strKey", marker);
            WireRequest moved = std::move(request);
            std::vector<WireRequest> several;
            several.push_back(std::move(moved));
            several.emplace_back();
            several.emplace_back();
        }
        EXPECT_EQ(0U, freed.counted());
    }
}

TEST(Wiping, FramesThatAreCutLeaveNothing)
{
    for (const std::string& marker : markers) {
        WireRequest request;
        WireReply reply;
        for (const char* name : {"a", "b", "c", "d"})
            request.parameters.emplace_back(name, marker);
        reply.results = request.parameters;
        const std::string asked = encode(request).substr(4);
        const std::string answered = encode(reply).substr(4);
        const FreedBlocks freed(restOf(marker));
        for (size_t i = 0; i <= asked.size(); ++i)
            decodeRequest(std::string_view(asked).substr(0, i));
        for (size_t i = 0; i <= answered.size(); ++i)
            decodeReply(std::string_view(answered).substr(0, i));
        EXPECT_EQ(0U, freed.counted());
    }
}

// ---- Frames.

TEST(Wire, CarriesWhatItWasGiven)
{
    WireRequest request;
    request.name = "name";
    request.session = "ke_x";
    request.parameters = {{"a", "\0\xff"s}, {"", ""}};
    request.files = {"strCa_file"};
    const std::string frame = encode(request);
    EXPECT_EQ(frame.size(), frameSize(frame).value_or(0));
    const auto back = decodeRequest(frame.substr(4));
    ASSERT_TRUE(back);
    EXPECT_EQ(request.parameters, back->parameters);
    EXPECT_EQ(request.session, back->session);
    EXPECT_EQ(request.files, back->files);

    WireReply reply;
    reply.ok = true;
    reply.microseconds = 12.3;
    reply.text = "text";
    reply.code = "-1";
    reply.results = request.parameters;
    const auto replied = decodeReply(encode(reply).substr(4));
    ASSERT_TRUE(replied);
    EXPECT_EQ(reply.results, replied->results);
    EXPECT_DOUBLE_EQ(12.3, replied->microseconds);
    EXPECT_TRUE(replied->ok);
}

TEST(Wire, DamagedFramesAreNotRead)
{
    WireRequest request;
    request.name = "name";
    request.parameters = {{"a", "b"}};
    const std::string frame = encode(request).substr(4);
    for (size_t i = 0; i < frame.size(); ++i)
        EXPECT_FALSE(decodeRequest(frame.substr(0, i))) << i;
    EXPECT_FALSE(decodeRequest(frame + "x"));
    EXPECT_FALSE(decodeReply("\x09"s + std::string(23, '\0')));
    // Counts and lengths beyond the frame.
    EXPECT_FALSE(decodeRequest(std::string(8, '\0') + std::string(4, '\xff')));
    EXPECT_FALSE(decodeRequest(std::string(4, '\xff')));
}

TEST(Wire, DescriptorsTravelBesideFrames)
{
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
    const Descriptor left(pair[0]);
    const Descriptor right(pair[1]);
    int pipes[2];
    ASSERT_EQ(0, pipe(pipes));
    std::vector<Descriptor> files;
    files.emplace_back(pipes[1]);
    const Descriptor reader(pipes[0]);
    WireRequest with;
    with.files = {"a"};
    const std::string plain = encode(WireRequest());
    const std::string frame = encode(with);
    // The first two may be received at once.
    ASSERT_EQ(static_cast<ssize_t>(plain.size()), sendSome(left.get(), plain, {}));
    ASSERT_EQ(static_cast<ssize_t>(frame.size()), sendSome(left.get(), frame, files));
    ASSERT_EQ(static_cast<ssize_t>(plain.size()), sendSome(left.get(), plain, {}));

    RequestReader requests(right.get());
    WireRequest got;
    std::vector<Descriptor> gotFiles;
    ASSERT_TRUE(requests.next(got, gotFiles));
    EXPECT_TRUE(gotFiles.empty());
    ASSERT_TRUE(requests.next(got, gotFiles));
    ASSERT_EQ(1U, gotFiles.size());
    ASSERT_EQ(1, write(gotFiles[0].get(), "x", 1));
    char byte = 0;
    ASSERT_EQ(1, ::read(reader.get(), &byte, 1));
    EXPECT_EQ('x', byte);
    ASSERT_TRUE(requests.next(got, gotFiles));
    EXPECT_TRUE(gotFiles.empty());

    // They may come before the frame that names them.
    ASSERT_EQ(static_cast<ssize_t>(2 * plain.size() + frame.size()),
              sendSome(left.get(), plain + frame + plain, files));
    for (const size_t count : {0, 1, 0}) {
        ASSERT_TRUE(requests.next(got, gotFiles));
        EXPECT_EQ(count, gotFiles.size());
    }
}

// Of all sizes, in pieces of all sizes.
TEST(Wire, RequestsAreReadHoweverTheyArrive)
{
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
    Descriptor left(pair[0]);
    const Descriptor right(pair[1]);
    constexpr size_t sizes[] = {0, 1, 10, 70000, 5, 65536 - 40, 65536, 300000, 3};
    std::string bytes;
    for (const size_t size : sizes) {
        WireRequest request;
        request.name = std::to_string(size);
        request.parameters = {{"a", std::string(size, 'x')}};
        bytes += encode(request);
    }
    for (const size_t piece : {size_t{1000}, size_t{65536}, size_t{65537}, bytes.size()}) {
        std::thread sender([&] {
            for (size_t at = 0; at < bytes.size(); at += piece)
                writeFrame(left.get(), std::string_view(bytes).substr(at, piece));
        });
        RequestReader requests(right.get());
        WireRequest got;
        std::vector<Descriptor> none;
        for (const size_t size : sizes) {
            EXPECT_TRUE(requests.next(got, none));
            EXPECT_EQ(std::to_string(size), got.name);
            ASSERT_EQ(1U, got.parameters.size());
            EXPECT_TRUE(got.parameters[0].second == std::string(size, 'x')) << size;
        }
        sender.join();
    }
    // The end in the middle of one.
    writeFrame(left.get(), std::string_view(bytes).substr(0, 10));
    left.reset();
    RequestReader requests(right.get());
    WireRequest got;
    std::vector<Descriptor> none;
    EXPECT_FALSE(requests.next(got, none));
}

TEST(Claims, EachRequestIsOnesAlone)
{
    Claims front;
    Claims worker(front.descriptor());
    constexpr uint64_t count = 20000;
    std::atomic<uint64_t> offered = 0;
    std::atomic<uint64_t> looked = 0;  // at, by the worker
    uint64_t begun = 0;
    std::thread serving([&] {
        for (uint64_t number = 0; number < count; ++number) {
            while (offered <= number)
                std::this_thread::yield();
            begun += worker.begin(number) ? 1 : 0;
            EXPECT_FALSE(worker.begin(number));
            looked = number + 1;
        }
    });
    uint64_t takenBack = 0;
    for (uint64_t number = 0; number < count; ++number) {
        while (number - looked >= Claims::most)
            std::this_thread::yield();
        front.offer(number);
        offered = number + 1;
        if (number >= Claims::most / 2)
            takenBack += front.takeBack(number - Claims::most / 2) ? 1 : 0;
    }
    serving.join();
    for (uint64_t number = count - Claims::most / 2; number < count; ++number)
        EXPECT_FALSE(front.takeBack(number));
    EXPECT_EQ(count, begun + takenBack);
}

TEST(Wire, AFrameThatIsTooLongIsNotWaitedFor)
{
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
    const Descriptor left(pair[0]);
    const Descriptor right(pair[1]);
    ASSERT_TRUE(writeFrame(left.get(), "\xff\xff\xff\xff"));
    RequestReader requests(right.get());
    WireRequest got;
    std::vector<Descriptor> none;
    EXPECT_FALSE(requests.next(got, none));
}

TEST(Wiping, RequestsThatWereReadLeaveNothing)
{
    for (const std::string& marker : markers) {
        int pair[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
        const Descriptor left(pair[0]);
        const Descriptor right(pair[1]);
        WireRequest request;
        request.parameters = {{"a", marker}};
        std::string frame = encode(request);
        ASSERT_TRUE(writeFrame(left.get(), frame));
        ASSERT_TRUE(writeFrame(left.get(), std::string_view(frame).substr(0, frame.size() - 5)));
        wipe(frame);
        wipe(request.parameters);
        const FreedBlocks freed(restOf(marker));
        {
            RequestReader requests(right.get());
            WireRequest got;
            std::vector<Descriptor> none;
            EXPECT_TRUE(requests.next(got, none));
            shutdown(left.get(), SHUT_WR);
            EXPECT_FALSE(requests.next(got, none));
        }
        EXPECT_EQ(0U, freed.counted());
    }
}

}  // namespace
