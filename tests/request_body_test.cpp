// Bodies of requests, and the frames in which they reach a worker.
#include "serve/request_body.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "serve/json_tree.h"
#include "serve/wire.h"

namespace {

using namespace std::string_literals;

const std::string json = "application/json";
const std::string form = "application/x-www-form-urlencoded";
const std::string multipart = "multipart/form-data; boundary=B";

struct Read {
    Fields fields;
    std::string code;  // of a refusal, and its field
    std::string field;
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
        result.text = refusal.what();
    }
    return result;
}

std::string codeOf(const std::string& type, const std::string& body, BodyLimits limits = {})
{
    return read(type, body, limits).code;
}

std::string batchCode(const std::string& body, std::string* field = nullptr)
{
    try {
        readBatch(json, body, {});
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
                          "\"f\": {\"hex\": \"00fF\"}, \"g\": 18446744073709551615}");
    ASSERT_EQ("", got.code) << got.text;
    ASSERT_EQ(7U, got.fields.size());
    const std::vector<std::pair<std::string, bool>> expected = {{"text \xc3\xa9\0"s, false},
                                                                {"-12", false},
                                                                {"{}", false},
                                                                {"\xfb\xff", true},
                                                                {"\xfb\xff", true},
                                                                {"\0\xff"s, true},
                                                                {"18446744073709551615", false}};
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(std::string(1, static_cast<char>('a' + i)), got.fields[i].name);
        EXPECT_EQ(expected[i].first, got.fields[i].value) << i;
        EXPECT_EQ(expected[i].second, got.fields[i].isBytes) << i;
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
    for (const char* value : {"true", "null", "1.5", "1e3", "[]", "99999999999999999999"})
        EXPECT_EQ("wrong_type", codeOf(json, "{\"p\": "s + value + "}")) << value;
    for (const char* value : {"{}", "{\"text\": 1}", "{\"texts\": \"\"}",
                              "{\"text\": \"\", \"hex\": \"\"}", "{\"hex\": null}"}) {
        const Read got = read(json, "{\"p\": "s + value + "}");
        EXPECT_EQ("wrong_type", got.code) << value;
        EXPECT_EQ("p", got.field) << value;
    }
    for (const char* body : {"[]", "\"\"", "1", "null"})
        EXPECT_EQ("wrong_type", codeOf(json, body)) << body;
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
    EXPECT_EQ("duplicate_parameter", codeOf(json, "{\"a\": 1, \"\\u0061\": 1}"));
    EXPECT_EQ("duplicate_parameter", codeOf(json, "{\"a\": {\"hex\": \"\", \"hex\": \"\"}}"));
    EXPECT_EQ("malformed", codeOf(json, "{\"\": 1}"));
    EXPECT_EQ("malformed", codeOf(json, "{\"a\\u0000\": 1}"));
    EXPECT_EQ("malformed", codeOf(json, "{\"a\\n\": 1}"));
    EXPECT_EQ("", codeOf(json, "{\"" + std::string(128, 'a') + "\": 1}"));
    EXPECT_EQ("malformed", codeOf(json, "{\"" + std::string(129, 'a') + "\": 1}"));
}

TEST(JsonBody, HasLimits)
{
    std::string most = "{";
    for (int i = 0; i < 64; ++i)
        most += (i == 0 ? "\"p" : ", \"p") + std::to_string(i) + "\": 1";
    EXPECT_EQ(64U, read(json, most + "}").fields.size());
    EXPECT_EQ("too_many_parameters", codeOf(json, most + ", \"q\": 1}"));

    BodyLimits limits;
    limits.parameterBytes = 4;
    EXPECT_EQ("", codeOf(json, "{\"a\": \"1234\", \"b\": {\"hex\": \"01020304\"}}", limits));
    EXPECT_EQ("parameter_too_large", codeOf(json, "{\"a\": \"12345\"}", limits));
    EXPECT_EQ("a", read(json, "{\"a\": {\"hex\": \"0102030405\"}}", limits).field);

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
    EXPECT_FALSE(got.fields[3].isBytes);
}

TEST(FormBody, BadOnesAreRefused)
{
    for (const char* body : {"a=%", "a=%4", "a=%zz", "%=1"})
        EXPECT_EQ("bad_encoding", codeOf(form, body)) << body;
    EXPECT_EQ("a", read(form, "a=%").field);
    EXPECT_EQ("duplicate_parameter", codeOf(form, "a=1&b=2&%61=3"));
    EXPECT_EQ("malformed", codeOf(form, "=1"));
    EXPECT_EQ("malformed", codeOf(form, "a%00=1"));
    std::string many;
    for (int i = 0; i < 65; ++i)
        many += "p" + std::to_string(i) + "=&";
    EXPECT_EQ("too_many_parameters", codeOf(form, many));
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
    EXPECT_FALSE(got.fields[0].isBytes);
    EXPECT_EQ("b", got.fields[1].name);
    EXPECT_EQ("\0\r\n--x"s, got.fields[1].value);
    EXPECT_TRUE(got.fields[1].isBytes);
    EXPECT_TRUE(got.fields[2].isBytes);
    EXPECT_EQ("", got.fields[2].value);
}

TEST(MultipartBody, BadOnesAreRefused)
{
    const std::string good = part("name=\"a\"", "x");
    EXPECT_EQ("", codeOf(multipart, good + "--B--"));
    EXPECT_EQ("malformed", codeOf("multipart/form-data", good + "--B--"));
    EXPECT_EQ("malformed", codeOf("multipart/form-data; boundary=" + std::string(71, 'B'), good));
    for (const std::string& body :
         {good, "x"s, "--B"s, "--B\r\n"s, "--B\r\n\r\n\r\n--B--"s, good + "--Bx"s,
          "--B\r\nContent-Disposition: form-data\r\n\r\nx\r\n--B--"s,
          "--B\r\nContent-Disposition: attachment; name=a\r\n\r\nx\r\n--B--"s,
          "--B\r\nContent-Disposition: form-data; name=\"a\r\n\r\nx\r\n--B--"s,
          "--B\r\nContent-Disposition\r\n\r\nx\r\n--B--"s,
          "--B\r\nContent-Disposition: form-data; name=a\r\nContent-Disposition: form-data; "
          "name=b\r\n\r\nx\r\n--B--"s})
        EXPECT_NE("", codeOf(multipart, body)) << body;
    EXPECT_EQ("duplicate_parameter", codeOf(multipart, good + good + "--B--"));
    EXPECT_EQ("unsupported_type", codeOf(multipart,
                                         "--B\r\nContent-Disposition: form-data; name=a\r\n"
                                         "Content-Transfer-Encoding: base64\r\n\r\nx\r\n--B--"));
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
                             "{\"requests\": [{\"name\": \"x\"}], \"more\": 1}"})
        EXPECT_EQ("wrong_type", batchCode(body)) << body;
    EXPECT_EQ("malformed", batchCode("{\"requests\": []}"));
    EXPECT_EQ("malformed", batchCode("{\"requests\": [{\"name\": \"x\", \"more\": 1}]}"));

    std::string field;
    EXPECT_EQ("duplicate_parameter",
              batchCode("{\"requests\": [{\"name\": \"x\"}, {\"name\": \"x\", \"parameters\": "
                        "{\"a\": 1, \"a\": 2}}]}",
                        &field));
    EXPECT_EQ("requests[1].parameters.a", field);

    std::string many = "{\"requests\": [{\"name\": \"x\"}";
    for (int i = 0; i < 255; ++i)
        many += ", {\"name\": \"x\"}";
    EXPECT_EQ("", batchCode(many + "]}"));
    EXPECT_EQ("too_many_parameters", batchCode(many + ", {\"name\": \"x\"}]}"));
}

// ---- Parameters.

TEST(Prepare, BytesTakeTheFormOfTheirParameter)
{
    Fields fields = {{"strKey", "\xfb\xff", true, "strKey"},
                     {"strHashAlg", "\xfb", true, "strHashAlg"},
                     {"strdata", "-_8", false, "strdata"},
                     {"unknown", "\xff", true, "unknown"}};
    const Prepared prepared = prepare(*findRequest("QZaven_crypto_hmac"), fields);
    const Pairs expected = {
        {"strKey", "-_8="}, {"strHashAlg", "\xfb"}, {"strdata", "-_8"}, {"unknown", "\xff"}};
    EXPECT_EQ(expected, prepared.parameters);
    EXPECT_FALSE(prepared.upload);
    EXPECT_TRUE(fields.empty());
}

TEST(Prepare, FilesAreUploadedAndHandlesAreText)
{
    const RequestInfo& request = *findRequest("QZaven_ke_set_root_certificate");
    Fields upload = {{"strCa_file", "PEM", true, "strCa_file"}};
    EXPECT_EQ("PEM", prepare(request, upload).upload.value_or(""));
    for (const char* name : {"strKe", "strCa_path"}) {
        Fields fields = {{name, "x", true, name}};
        EXPECT_THROW(prepare(request, fields), Refusal) << name;
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
    const std::string frame = encode(WireRequest());
    ASSERT_EQ(static_cast<ssize_t>(frame.size()), sendSome(left.get(), frame, files));
    ASSERT_EQ(static_cast<ssize_t>(frame.size()), sendSome(left.get(), frame, {}));

    std::string got;
    std::vector<Descriptor> gotFiles;
    ASSERT_TRUE(readFrame(right.get(), got, gotFiles));
    ASSERT_EQ(1U, gotFiles.size());
    ASSERT_EQ(1, write(gotFiles[0].get(), "x", 1));
    char byte = 0;
    ASSERT_EQ(1, ::read(reader.get(), &byte, 1));
    EXPECT_EQ('x', byte);
    ASSERT_TRUE(readFrame(right.get(), got, gotFiles));
    EXPECT_TRUE(gotFiles.empty());
}

}  // namespace
