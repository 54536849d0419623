// What clients and web pages with bad intent send. Each case is refused with the status
// that says why, and the host is afterwards as it was before: alive, with the same
// workers and as many open descriptors.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>

#include <chrono>
#include <functional>
#include <memory>
#include <ostream>
#include <set>
#include <thread>

#include "support/served_host.h"

namespace {

using namespace std::string_literals;
using support::eventually;
using support::HttpAnswer;
using support::HttpConnection;
using support::HttpHeaders;
using support::Json;
using support::ServedHost;

const std::string hmac = "/v1/requests/QZaven_crypto_hmac";
const HttpHeaders jsonType = {{"Content-Type", "application/json"}};

HttpHeaders with(HttpHeaders headers, const HttpHeaders& more)
{
    headers.insert(headers.end(), more.begin(), more.end());
    return headers;
}

std::string post(const ServedHost& host, const std::string& path, const std::string& body,
                 const HttpHeaders& headers = jsonType)
{
    return host.text("POST", path, headers, body);
}

std::string batchOf(const std::string& requests)
{
    return "{\"requests\": [" + requests + "]}";
}

std::string repeated(const std::string& text, size_t count)
{
    std::string out;
    for (size_t i = 0; i < count; ++i)
        out += text;
    return out;
}

struct Attack {
    const char* name;
    int status;
    const char* code;  // "": the answer is the library's own
    std::function<std::string(const ServedHost&)> bytes;
};

void PrintTo(const Attack& attack, std::ostream* out)
{
    *out << attack.name;
}

// A GET with a header that takes the place of the usual one.
std::function<std::string(const ServedHost&)> getWith(const std::string& name,
                                                      const std::string& value,
                                                      const std::string& path = "/v1/status")
{
    return [=](const ServedHost& host) { return host.text("GET", path, {{name, value}}); };
}

std::function<std::string(const ServedHost&)> getPath(const std::string& path)
{
    return [=](const ServedHost& host) { return host.text("GET", path); };
}

std::function<std::string(const ServedHost&)> postBody(const std::string& body,
                                                       const std::string& path = hmac,
                                                       const std::string& type = "application/json")
{
    return [=](const ServedHost& host) { return post(host, path, body, {{"Content-Type", type}}); };
}

std::function<std::string(const ServedHost&)> lines(const std::string& first,
                                                    const std::string& headers,
                                                    const std::string& body = "")
{
    return [=](const ServedHost& host) {
        return first + "\r\nHost: " + host.host() + "\r\nAuthorization: Bearer " + host.token() +
               "\r\n" + headers + "\r\n" + body;
    };
}

std::function<std::string(const ServedHost&)> chunks(const std::string& bytes)
{
    return lines("POST " + hmac + " HTTP/1.1",
                 "Content-Type: application/json\r\nTransfer-Encoding: chunked\r\n", bytes);
}

const std::string tokenPath = "/v1/requests/QZaven_ke_client_hello";

const Attack attacks[] = {
    // ---- Pages in a browser.
    {"Rebinding", 403, "forbidden_host", getWith("Host", "attacker.example")},
    {"RebindingWithPort", 403, "forbidden_host", getWith("Host", "attacker.example:8720")},
    {"RebindingToTheConsole", 403, "forbidden_host", getWith("Host", "attacker.example", "/")},
    {"HostThatBeginsLikeTheRightOne", 403, "forbidden_host",
     getWith("Host", "localhost.attacker.example")},
    {"HostWithUser", 403, "forbidden_host", getWith("Host", "localhost:1@attacker.example")},
    {"HostWithoutName", 403, "forbidden_host", getWith("Host", ":80")},
    {"NoHostInHttp10", 403, "forbidden_host",
     [](const ServedHost& host) {
         return "GET /v1/status HTTP/1.0\r\nAuthorization: Bearer " + host.token() + "\r\n\r\n";
     }},
    {"NoHostInHttp11", 400, "",
     [](const ServedHost& host) {
         return "GET /v1/status HTTP/1.1\r\nAuthorization: Bearer " + host.token() + "\r\n\r\n";
     }},
    {"TwoHosts", 400, "malformed", lines("GET /v1/status HTTP/1.1", "Host: attacker.example\r\n")},
    {"CrossOrigin", 403, "forbidden_origin", getWith("Origin", "http://attacker.example")},
    {"CrossOriginPost", 403, "forbidden_origin",
     [](const ServedHost& host) {
         return post(host, hmac, "{}", with(jsonType, {{"Origin", "https://attacker.example"}}));
     }},
    {"OpaqueOrigin", 403, "forbidden_origin", getWith("Origin", "null")},
    {"OriginOfAnotherPort", 403, "forbidden_origin", getWith("Origin", "http://127.0.0.1:1")},
    {"OriginOfAnotherScheme", 403, "forbidden_origin",
     [](const ServedHost& host) {
         return host.text("GET", "/v1/status", {{"Origin", "https://" + host.host()}});
     }},
    {"OriginThatBeginsLikeTheRightOne", 403, "forbidden_origin",
     [](const ServedHost& host) {
         return host.text("GET", "/v1/status",
                          {{"Origin", "http://" + host.host() + ".attacker.example"}});
     }},
    {"CrossSiteWithoutOrigin", 403, "forbidden_origin", getWith("Sec-Fetch-Site", "cross-site")},
    {"SameSiteWithoutOrigin", 403, "forbidden_origin", getWith("Sec-Fetch-Site", "same-site")},
    {"Preflight", 403, "forbidden_origin",
     [](const ServedHost& host) {
         return host.text(
             "OPTIONS", hmac,
             {{"Origin", "http://attacker.example"}, {"Access-Control-Request-Method", "POST"}});
     }},

    // ---- Tokens.
    {"NoToken", 401, "unauthorized", getWith("Authorization", "")},
    {"NoTokenForMetrics", 401, "unauthorized", getWith("Authorization", "", "/metrics")},
    {"NoTokenForAnUnknownPath", 401, "unauthorized", getWith("Authorization", "", "/v1/x")},
    {"EmptyToken", 401, "unauthorized", getWith("Authorization", "Bearer ")},
    {"WrongToken", 401, "unauthorized", getWith("Authorization", "Bearer " + std::string(43, 'A'))},
    {"PrefixOfTheToken", 401, "unauthorized",
     [](const ServedHost& host) {
         return host.text("GET", "/v1/status",
                          {{"Authorization", "Bearer " + host.token().substr(0, 42)}});
     }},
    {"TokenAndMore", 401, "unauthorized",
     [](const ServedHost& host) {
         return host.text("GET", "/v1/status",
                          {{"Authorization", "Bearer " + host.token() + host.token()}});
     }},
    {"TokenOfAnotherScheme", 401, "unauthorized",
     [](const ServedHost& host) {
         return host.text("GET", "/v1/status", {{"Authorization", "Basic " + host.token()}});
     }},
    {"TokenInTheQuery", 401, "unauthorized",
     [](const ServedHost& host) {
         return host.text("GET", "/v1/status?token=" + host.token(), {{"Authorization", ""}});
     }},
    {"TwoTokens", 400, "malformed",
     lines("GET /v1/status HTTP/1.1", "Authorization: Bearer x\r\n")},

    // ---- Key-exchange tokens.
    {"ForgedSession", 410, "session_gone",
     postBody("{\"strKe\": \"ke_" + std::string(32, 'A') + "\"}", tokenPath)},
    {"HandleAsSession", 410, "session_gone",
     postBody("{\"strKe\": \"94837483748374\"}", tokenPath)},
    {"NumberAsSession", 410, "session_gone", postBody("{\"strKe\": 1}", tokenPath)},
    {"BytesAsSession", 400, "wrong_type", postBody("{\"strKe\": {\"hex\": \"31\"}}", tokenPath)},
    {"ForgedSessionInABatch", 410, "session_gone",
     postBody(batchOf("{\"name\": \"QZaVen_GetVersion\"}, {\"name\": \"QZaven_ke_free\", "
                      "\"parameters\": {\"strKe\": \"1\"}}"),
              "/v1/batch")},

    // ---- Sizes.
    {"BodyLargerThanTaken", 413, "too_large",
     lines("POST " + hmac + " HTTP/1.1", "Content-Length: 1048577\r\n")},
    {"BodyOfAnAbsurdLength", 413, "too_large",
     lines("POST " + hmac + " HTTP/1.1", "Content-Length: 999999999999999999\r\n")},
    {"ChunksLargerThanTaken", 413, "too_large",
     lines("POST " + hmac + " HTTP/1.1",
           "Content-Type: application/json\r\nTransfer-Encoding: chunked\r\n",
           repeated("10000\r\n" + std::string(65536, ' ') + "\r\n", 17))},
    {"ParameterLargerThanTaken", 413, "parameter_too_large",
     postBody("{\"strdata\": \"" + std::string(600000, 'A') + "\"}")},
    {"ManyHeaders", 431, "headers_too_large",
     lines("GET /v1/status HTTP/1.1", repeated("X-A: b\r\n", 100))},
    {"LongHeader", 431, "headers_too_large",
     lines("GET /v1/status HTTP/1.1", "X-A: " + std::string(20000, 'b') + "\r\n")},
    {"HeadersBeyondAllMeasure", 431, "",
     lines("GET /v1/status HTTP/1.1", "X-A: " + std::string(100000, 'b') + "\r\n")},
    {"ManyParameters", 400, "too_many_parameters",
     postBody("{" +
              [] {
                  std::string names;
                  for (int i = 0; i < 65; ++i)
                      names += (i == 0 ? "\"p" : ", \"p") + std::to_string(i) + "\": 1";
                  return names;
              }() +
              "}")},
    {"BatchOfTooMany", 400, "too_many_parameters",
     postBody(batchOf(repeated("{\"name\": \"QZaVen_GetVersion\"}, ", 256) +
                      "{\"name\": \"QZaVen_GetVersion\"}"),
              "/v1/batch")},
    {"BatchBomb", 400, "too_many_parameters",
     postBody(batchOf(repeated("{},", 300000) + "{}"), "/v1/batch")},
    {"BatchInABatch", 404, "unknown_request",
     postBody(batchOf("{\"name\": \"/v1/batch\"}"), "/v1/batch")},

    // ---- JSON.
    {"CutJson", 400, "malformed", postBody("{\"strKey\": \"AA")},
    {"DeepJson", 400, "malformed", postBody(repeated("{\"a\":", 100000))},
    {"DeepArrays", 400, "wrong_type", postBody(std::string(1000000, '['))},
    {"DuplicateMember", 400, "duplicate_parameter",
     postBody("{\"strKey\": \"AA\", \"strKey\": \"BB\"}")},
    {"DuplicateByEscape", 400, "duplicate_parameter",
     postBody("{\"strKey\": \"AA\", \"str\\u004bey\": \"BB\"}")},
    {"HugeNumber", 400, "wrong_type",
     postBody("{\"strHashAlg\": 1" + std::string(500000, '0') + "}")},
    {"HugeExponent", 400, "wrong_type", postBody("{\"strHashAlg\": 1e999999999}")},
    {"NotANumber", 400, "malformed", postBody("{\"strHashAlg\": NaN}")},
    {"InvalidUtf8", 400, "bad_encoding", postBody("{\"strKey\": \"\xff\xfe\"}")},
    {"LoneSurrogate", 400, "malformed", postBody("{\"strKey\": \"\\udc00\"}")},
    {"NulBehindJson", 400, "malformed", postBody("{}\0{\"strKey\": 1}"s)},
    {"NulInAName", 400, "malformed", postBody("{\"strKe\\u0000y\": \"1\"}")},
    {"Utf16", 415, "unsupported_type", postBody("{}", hmac, "application/json; charset=utf-16")},
    {"Prototype", 200, "-20001", postBody("{\"__proto__\": \"x\"}")},
    {"BadBase64", 400, "bad_encoding", postBody("{\"strKey\": {\"base64\": \"*\"}}")},

    // ---- Other bodies.
    {"Xml", 415, "unsupported_type",
     postBody("<!DOCTYPE a SYSTEM \"file:///etc/passwd\">", hmac, "text/xml")},
    {"NoType", 415, "unsupported_type", postBody("{}", hmac, "")},
    {"SimpleRequestOfAForm", 415, "unsupported_type", postBody("{}", hmac, "text/plain")},
    {"CompressedBody", 415, "unsupported_type",
     [](const ServedHost& host) {
         return post(host, hmac, "\x1f\x8b", with(jsonType, {{"Content-Encoding", "gzip"}}));
     }},
    {"BadEscapeInAForm", 400, "bad_encoding",
     postBody("strKey=%zz", hmac, "application/x-www-form-urlencoded")},
    {"MultipartWithoutEnd", 400, "malformed",
     postBody("--B\r\nContent-Disposition: form-data; name=\"strKey\"\r\n\r\nAA", hmac,
              "multipart/form-data; boundary=B")},
    {"MultipartWithoutBoundary", 400, "malformed", postBody("--B--", hmac, "multipart/form-data")},
    {"BodyOfAGet", 400, "malformed",
     lines("GET /v1/status HTTP/1.1", "Content-Length: 2\r\n", "{}")},

    // ---- Two readers of one request.
    {"TwoLengths", 400, "malformed",
     lines("POST " + hmac + " HTTP/1.1", "Content-Length: 2\r\nContent-Length: 30\r\n", "{}")},
    {"TwoEqualLengths", 400, "malformed",
     lines("POST " + hmac + " HTTP/1.1", "Content-Length: 2\r\nContent-Length: 2\r\n", "{}")},
    {"LengthAndChunks", 400, "malformed",
     lines("POST " + hmac + " HTTP/1.1", "Content-Length: 4\r\nTransfer-Encoding: chunked\r\n",
           "0\r\n\r\nGET /smuggled HTTP/1.1\r\n\r\n")},
    {"DisguisedChunks", 400, "malformed",
     lines("POST " + hmac + " HTTP/1.1", "Transfer-Encoding: xchunked\r\n", "0\r\n\r\n")},
    {"ChunksTwice", 400, "malformed",
     lines("POST " + hmac + " HTTP/1.1",
           "Transfer-Encoding: chunked\r\nTransfer-Encoding: identity\r\n", "0\r\n\r\n")},
    {"BlankBeforeTheColon", 400, "malformed",
     lines("POST " + hmac + " HTTP/1.1", "Transfer-Encoding : chunked\r\n", "0\r\n\r\n")},
    {"LengthWithASign", 400, nullptr,
     lines("POST " + hmac + " HTTP/1.1", "Content-Length: +2\r\n", "{}")},
    {"NegativeLength", 400, nullptr,
     lines("POST " + hmac + " HTTP/1.1", "Content-Length: -1\r\n", "{}")},
    {"LengthInHex", 400, nullptr,
     lines("POST " + hmac + " HTTP/1.1", "Content-Length: 0x2\r\n", "{}")},
    {"HeaderWithoutColon", 400, nullptr, lines("GET /v1/status HTTP/1.1", "X-A\r\n")},
    {"ControlInAHeader", 400, "malformed", lines("GET /v1/status HTTP/1.1", "X-A: \x01\r\n")},

    // ---- Methods and paths.
    {"UnknownMethod", 405, "method_not_allowed", lines("HACK /v1/status HTTP/1.1", "")},
    {"Trace", 405, "method_not_allowed", lines("TRACE / HTTP/1.1", "")},
    {"Connect", 405, "method_not_allowed", lines("CONNECT / HTTP/1.1", "")},
    {"Delete", 405, "method_not_allowed", lines("DELETE /v1/status HTTP/1.1", "")},
    {"GetOfARequest", 405, "method_not_allowed", getPath("/v1/requests/QZaVen_GetVersion")},
    {"ParametersInTheQuery", 400, "malformed",
     lines("POST " + hmac + "?strKey=AA HTTP/1.1", "Content-Length: 0\r\n")},
    {"ParentPath", 404, "not_found", getPath("/../../etc/passwd")},
    {"EncodedParentPath", 404, "not_found", getPath("/%2e%2e/%2e%2e/etc/passwd")},
    {"TwiceEncodedParentPath", 404, "not_found", getPath("/%252e%252e/etc/passwd")},
    {"BackslashPath", 404, "not_found", getPath("/..\\..\\etc\\passwd")},
    {"OverlongUtf8Path", 404, "not_found", getPath("/%c0%ae%c0%ae/etc/passwd")},
    {"NulInAPath", 404, "not_found", getPath("/v1/status%00.html")},
    {"EncodedLetterOfAPath", 404, "not_found", getPath("/v1/%73tatus")},
    {"TwoSlashes", 404, "not_found", getPath("//v1/status")},
    {"SlashBehind", 404, "not_found", getPath("/v1/status/")},
    {"DotSegment", 404, "not_found", getPath("/v1/./status")},
    {"AbsoluteTarget", 404, "not_found", getPath("http://attacker.example/v1/status")},
    {"NameWithSlash", 404, "not_found", postBody("{}", "/v1/requests/../batch")},
    {"NameWithEscapes", 404, "unknown_request", postBody("{}", "/v1/requests/QZaven_ke_new%00")},
    {"LongName", 404, "unknown_request", postBody("{}", "/v1/requests/" + std::string(8000, 'Q'))},
    {"MistypedName", 404, "unknown_request", postBody("{}", "/v1/requests/QZaven_crypto_hmacs")},

    // ---- Files.
    {"AbsoluteFile", 400, "bad_path",
     postBody("{\"strCa_file\": \"/etc/passwd\"}", "/v1/requests/QZaven_ke_set_root_certificate")},
    {"FileAbove", 400, "bad_path",
     postBody("{\"strCa_file\": \"../etc/passwd\"}",
              "/v1/requests/QZaven_ke_set_root_certificate")},
    {"FileOfTheProcess", 400, "bad_path",
     postBody("{\"strCa_file\": \"/proc/self/environ\"}",
              "/v1/requests/QZaven_ke_set_root_certificate")},
    {"FileWithNul", 400, "bad_path",
     postBody("{\"strCa_file\": \"a\\u0000b\"}", "/v1/requests/QZaven_ke_set_root_certificate")},
    {"FolderAbove", 400, "bad_path",
     postBody("{\"strCa_path\": \"..\"}", "/v1/requests/QZaven_ke_set_root_certificate")},
    {"FolderAsBytes", 400, "wrong_type",
     postBody("{\"strCa_path\": {\"hex\": \"2e\"}}",
              "/v1/requests/QZaven_ke_set_root_certificate")},

    // ---- Heads that two readers could take for different ones.
    {"NulInHost", 400, "malformed",
     [](const ServedHost& host) {
         return host.text("GET", "/v1/status", {{"Host", host.host() + "\0.attacker.example"s}});
     }},
    {"NulInTheToken", 400, "malformed",
     [](const ServedHost& host) {
         return host.text("GET", "/v1/status",
                          {{"Authorization", "Bearer " + host.token() + "\0x"s}});
     }},
    {"NulInALength", 400, "malformed",
     lines("POST " + hmac + " HTTP/1.1", "Content-Length: 2\0" "0\r\n"s, "{}")},
    {"NulInAnEncoding", 400, "malformed",
     lines("POST " + hmac + " HTTP/1.1", "Transfer-Encoding: chunked\0, gzip\r\n"s, "0\r\n\r\n")},
    {"NulInAnUnknownHeader", 400, "malformed",
     lines("GET /v1/status HTTP/1.1", "X-A: a\0b\r\n"s)},
    {"NulAtTheEndOfAHeader", 400, "malformed",
     lines("GET /v1/status HTTP/1.1", "X-A: a\0\r\n"s)},
    {"NulInAHeadersName", 400, "", lines("GET /v1/status HTTP/1.1", "X\0A: b\r\n"s)},
    {"NulInTheTarget", 400, "malformed", lines("GET /livez\0/../v1/status HTTP/1.1"s, "")},
    {"NulInTheQuery", 400, "malformed", lines("GET /?a\0b HTTP/1.1"s, "")},
    {"NulInTheMethod", 400, "malformed", lines("GET\0X /livez HTTP/1.1"s, "")},
    {"ControlInTheMethod", 400, "malformed", lines("G\rT /livez HTTP/1.1", "")},
    {"MethodThatIsNoWord", 400, "malformed", lines("G(T /livez HTTP/1.1", "")},
    {"ControlInTheTarget", 400, "malformed", lines("GET /live\rz HTTP/1.1", "")},
    {"ControlInTheQuery", 400, "malformed", lines("GET /?a=\rb HTTP/1.1", "")},
    {"NulInTheVersion", 400, "", lines("GET /livez HTTP/1.\0"s, "")},
    {"FoldedHeader", 400, "malformed", lines("GET /v1/status HTTP/1.1", "X-A: a\r\n b\r\n")},
    {"FoldedEncoding", 400, "malformed",
     lines("POST " + hmac + " HTTP/1.1", "Transfer-Encoding:\r\n chunked\r\n", "0\r\n\r\n")},
    {"FoldedBehindTheEncoding", 400, "malformed",
     lines("POST " + hmac + " HTTP/1.1", "Transfer-Encoding: chunked\r\n\t\r\n", "0\r\n\r\n")},
    {"FoldedHost", 400, "",
     [](const ServedHost& host) {
         return "GET /livez HTTP/1.1\r\nHost: " + host.host() + "\r\n .attacker\r\n\r\n";
     }},
    {"BlankBeforeTheFirstHeader", 400, "malformed",
     [](const ServedHost& host) {
         return "GET /livez HTTP/1.1\r\n X-A: b\r\nHost: " + host.host() + "\r\n\r\n";
     }},
    {"ChunksInHttp10", 400, "malformed",
     lines("POST " + hmac + " HTTP/1.0", "Transfer-Encoding: chunked\r\n", "0\r\n\r\n")},
    {"LinesWithoutCarriageReturn", 400, "malformed",
     [](const ServedHost& host) { return "GET /livez HTTP/1.1\nHost: " + host.host() + "\n\n"; }},
    {"FirstLineWithoutCarriageReturn", 400, "malformed",
     [](const ServedHost& host) {
         return "GET /livez HTTP/1.1\nHost: " + host.host() + "\r\n\r\n";
     }},
    {"HeaderWithoutCarriageReturn", 400, "malformed",
     lines("GET /livez HTTP/1.1", "X-A: b\nX-B: c\r\n")},
    {"EndOfHeadersWithoutCarriageReturn", 400, "malformed",
     [](const ServedHost& host) {
         return "GET /livez HTTP/1.1\r\nHost: " + host.host() + "\r\n\n";
     }},
    {"LengthBehindABareLineFeed", 400, "malformed",
     lines("POST " + hmac + " HTTP/1.1", "X-A: b\nContent-Length: 2\r\n", "{}")},
    {"BareCarriageReturn", 400, "malformed",
     lines("GET /livez HTTP/1.1", "X-A: b\rX-B: c\r\n")},
    {"EmptyHeaderName", 400, "malformed", lines("GET /livez HTTP/1.1", ": b\r\n")},
    {"EqualHosts", 400, "malformed",
     [](const ServedHost& host) {
         return "GET /livez HTTP/1.1\r\nHost: " + host.host() + "\r\nhOST: " + host.host() +
                "\r\n\r\n";
     }},
    {"BlankInTheTarget", 0, "", lines("GET /livez /x HTTP/1.1", "")},
    {"TwoBlanksInTheFirstLine", 400, "malformed", lines("GET  /livez HTTP/1.1", "")},
    {"BlankBehindTheVersion", 400, "", lines("GET /livez HTTP/1.1 ", "")},
    {"VersionInLowerCase", 400, "", lines("GET /livez http/1.1", "")},
    {"VersionTwo", 505, "", lines("GET /livez HTTP/2.0", "")},
    {"OldVersion", 505, "", lines("GET /livez HTTP/0.9", "")},

    // ---- Chunks.
    {"ChunkSizeWithASign", 400, "", chunks("+2\r\n{}\r\n0\r\n\r\n")},
    {"NegativeChunkSize", 400, "", chunks("-2\r\n{}\r\n0\r\n\r\n")},
    {"ChunkSizeWithAPrefix", 400, "", chunks("0x2\r\n{}\r\n0\r\n\r\n")},
    {"BlankBeforeAChunkSize", 400, "", chunks(" 2\r\n{}\r\n0\r\n\r\n")},
    {"BlankBehindAChunkSize", 400, "", chunks("2 \r\n{}\r\n0\r\n\r\n")},
    {"NoChunkSize", 400, "", chunks("\r\n{}\r\n0\r\n\r\n")},
    {"ChunkLongerThanItsSize", 400, "", chunks("1\r\n{}\r\n0\r\n\r\n")},
    {"ChunkSizeBeyondAllNumbers", 413, "", chunks("10000000000000002\r\n{}\r\n0\r\n\r\n")},
    {"LongTrailer", 431, "",
     chunks("2\r\n{}\r\n0\r\nX-A: " + std::string(100000, 'a') + "\r\n\r\n")},
    {"TrailerWithoutColon", 400, "", chunks("2\r\n{}\r\n0\r\nX-A\r\n\r\n")},

    // ---- Heads that end in the library.
    {"LongTarget", 414, "", getPath("/" + std::string(100000, 'a'))},
    {"TenThousandHeaders", 431, "",
     lines("GET /livez HTTP/1.1", repeated("X: y\r\n", 10000))},
    {"ManyCookies", 0, "",
     lines("GET /" + std::string(40000, 'a') + " HTTP/1.1",
           "Cookie: " + repeated("a=b; ", 2500) + "\r\n")},

    // ---- Other requests of the kind.
    {"OptionsOfTheHost", 404, "not_found", lines("OPTIONS * HTTP/1.1", "")},
    {"ConnectToAHost", 404, "not_found", lines("CONNECT attacker.example:443 HTTP/1.1", "")},
    {"AbsoluteTargetOfTheHost", 404, "not_found",
     [](const ServedHost& host) { return host.text("GET", "http://" + host.host() + "/livez"); }},
    {"MethodInLowerCase", 405, "method_not_allowed", lines("get /livez HTTP/1.1", "")},
    {"LongMethod", 405, "method_not_allowed",
     lines(std::string(10000, 'A') + " /livez HTTP/1.1", "")},
    {"ContinueOfAnAbsurdLength", 413, "too_large",
     lines("POST " + hmac + " HTTP/1.1",
           "Expect: 100-continue\r\nContent-Length: 999999999999999999\r\n")},
    {"LengthBeyondAllNumbers", 413, "",
     lines("POST " + hmac + " HTTP/1.1", "Content-Length: 99999999999999999999999\r\n")},
    {"CrossSiteInCapitals", 403, "forbidden_origin", getWith("Sec-Fetch-Site", "Cross-Site")},
    {"SiteOfAnUnknownKind", 403, "forbidden_origin", getWith("Sec-Fetch-Site", "near-site")},

    // ---- Not HTTP.
    {"Garbage", 400, nullptr, [](const ServedHost&) { return "\x16\x03\x01\x02\r\n\r\n"s; }},
    {"NoVersion", 400, nullptr, [](const ServedHost&) { return "GET /v1/status\r\n\r\n"s; }},
};

class ServeAttack : public testing::TestWithParam<Attack> {
protected:
    static void SetUpTestSuite()
    {
        if (support::emulated)
            return;
        m_host = new ServedHost({"--rate", "0", "--body-bytes", "1048576", "--parameter-bytes",
                                 "524288", "--ca-folder", "/usr/share"});
        m_host->workers();
    }
    static void TearDownTestSuite()
    {
        delete m_host;
        m_host = nullptr;
    }
    void SetUp() override { NEEDS_WORKERS(); }

    static ServedHost* m_host;
};

ServedHost* ServeAttack::m_host = nullptr;

// Beside those of connections, all of one moment.
double openDescriptors(const ServedHost& host)
{
    const std::string metrics = host.get("/metrics").body;
    return support::rowOf(metrics, "process_open_fds") -
           support::rowOf(metrics, "corvane_connections");
}

void expectAsBefore(const ServedHost& host, double descriptors, const std::vector<pid_t>& workers)
{
    EXPECT_EQ(workers, support::childrenOf(host.pid()));
    EXPECT_EQ(0, host.metric("corvane_worker_restarts_total"));
    EXPECT_EQ(descriptors, openDescriptors(host));
    // The asking one alone.
    EXPECT_TRUE(eventually([&] { return host.metric("corvane_connections") == 1; }));
    EXPECT_EQ(200, host.request("QZaVen_GetVersion").status);
}

TEST_P(ServeAttack, IsRefused)
{
    const Attack& attack = GetParam();
    const double descriptors = openDescriptors(*m_host);
    const std::vector<pid_t> workers = support::childrenOf(m_host->pid());

    HttpAnswer answer = m_host->raw(attack.bytes(*m_host));
    // Where the code is left open, the library may also end what it cannot read.
    if (attack.code == nullptr) {
        EXPECT_TRUE(answer.status == attack.status || answer.status == 0) << answer.status;
    } else {
        EXPECT_EQ(attack.status, answer.status) << answer.body;
        EXPECT_EQ(attack.code, answer.code()) << answer.body;
    }
    EXPECT_EQ(std::string::npos, answer.body.find(m_host->token()));
    EXPECT_EQ(0U, answer.headers.count("access-control-allow-origin"));
    if (answer.status == 405) {
        EXPECT_EQ(1U, answer.headers.count("allow"));
    }
    // The same request would be refused again.
    EXPECT_EQ(0U, answer.headers.count("retry-after"));
    if (!answer.code().empty()) {
        EXPECT_EQ("nosniff", answer.headers["x-content-type-options"]);
    }
    expectAsBefore(*m_host, descriptors, workers);
}

INSTANTIATE_TEST_SUITE_P(All, ServeAttack, testing::ValuesIn(attacks),
                         [](const auto& given) { return given.param.name; });

TEST_F(ServeAttack, NothingIsSmuggledBehindARefusedRequest)
{
    HttpConnection connection(m_host->port());
    connection.send("POST " + hmac + " HTTP/1.1\r\nHost: " + m_host->host() +
                    "\r\nAuthorization: Bearer " + m_host->token() +
                    "\r\nContent-Length: 4\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n" +
                    m_host->text("GET", "/v1/status"));
    EXPECT_EQ(400, connection.receive().status);
    EXPECT_TRUE(connection.isEnded());
}

TEST_F(ServeAttack, NothingIsSmuggledBehindARefusedBody)
{
    HttpConnection connection(m_host->port());
    connection.send(post(*m_host, hmac, "{}", with(jsonType, {{"Content-Encoding", "gzip"}})) +
                    m_host->text("GET", "/v1/status"));
    EXPECT_EQ(415, connection.receive().status);
    EXPECT_TRUE(connection.isEnded());
}

TEST_F(ServeAttack, AHeadWithABodyIsRefused)
{
    HttpConnection connection(m_host->port());
    connection.send(lines("HEAD /livez HTTP/1.1", "Content-Length: 2\r\n", "{}")(*m_host));
    EXPECT_EQ(400, connection.receive(false).status);
    EXPECT_TRUE(connection.isEnded());
}

// What is odd but means one thing only.
TEST_F(ServeAttack, OddRequestsAreServed)
{
    const auto statusOf = [](const std::string& bytes) { return m_host->raw(bytes).status; };
    EXPECT_EQ(200, statusOf("\r\n\r\n" + m_host->text("GET", "/livez")));
    EXPECT_EQ(200, statusOf("GET /livez HTTP/1.1\r\nHOST:" + m_host->host() + " \t\r\n\r\n"));
    EXPECT_EQ(200, statusOf(m_host->text("GET", "/livez", {{"X-A", std::string(12000, 'a')}})));
    EXPECT_EQ(200, statusOf(m_host->text("GET", "/?a=b&c")));
    EXPECT_EQ(200, statusOf("GET /livez HTTP/1.0\r\nHost: localhost\r\n\r\n"));
    for (const char* site : {"none", "Same-Origin"})
        EXPECT_EQ(200, statusOf(m_host->text("GET", "/v1/status", {{"Sec-Fetch-Site", site}})));
    // Sizes with noughts in front, extensions, trailers.
    for (const char* body :
         {"0000000000000000000000002\r\n{}\r\n0\r\n\r\n", "2;a=\"b\"\r\n{}\r\n0;c\r\n\r\n",
          "2\r\n{}\r\n0\r\nHost: x\r\nContent-Length: 9\r\n\r\n"})
        EXPECT_EQ(200, statusOf(chunks(body)(*m_host))) << body;
}

// Between chunks and behind them the library takes a line feed alone for an end of line, and a line
// behind them that begins with NUL for the end of all. Others read on there: what they take for
// trailers is no request here.
TEST_F(ServeAttack, NothingIsSmuggledBehindChunks)
{
    for (const std::string& body :
         {"2\r\n{}\r\n0\r\n\r\n"s, "2\n{}\n0\n\n"s, "2\r\n{}\r\n0\r\nX-A: b\r\n\0\r\n"s,
          "2\r\n{}\r\n0\r\n\0\0X\n"s}) {
        HttpConnection connection(m_host->port());
        connection.send(chunks(body)(*m_host) + m_host->text("GET", "/livez"));
        HttpAnswer answer = connection.receive();
        EXPECT_EQ("-20001", answer.code()) << body;
        EXPECT_EQ("close", answer.headers["connection"]) << body;
        EXPECT_TRUE(connection.isEnded()) << body;
    }
}

TEST_F(ServeAttack, TheNearestNameIsTold)
{
    const HttpAnswer answer = m_host->request("QZaven_crypto_hmacs");
    EXPECT_NE(std::string::npos,
              answer.json()["error"]["text"].get<std::string>().find("QZaven_crypto_hmac?"));
    // Of names that are not much longer than the longest one.
    const auto reasonOf = [](size_t size) {
        return m_host->request(std::string(size, 'Q')).json()["error"]["reason"];
    };
    EXPECT_EQ("misspelt_request", reasonOf(64));
    EXPECT_EQ("no_such_request", reasonOf(65));
}

// ---- Attacks that take their time.

class ServeSlowly : public testing::Test {
protected:
    void SetUp() override { NEEDS_WORKERS(); }
};

TEST_F(ServeSlowly, RequestsThatDoNotArriveAreEnded)
{
    ServedHost host({"--read-seconds", "0.4"});
    const std::vector<pid_t> workers = host.workers();
    const double descriptors = openDescriptors(host);
    {
        HttpConnection nothing(host.port());
        HttpConnection headers(host.port());
        HttpConnection body(host.port());
        headers.send("GET /v1/status HTTP/1.1\r\nHost: " + host.host() + "\r\nX-A: ");
        const std::string whole = post(host, hmac, "{}");
        body.send(whole.substr(0, whole.size() - 1));
        // A byte now and then does not gain time.
        HttpConnection trickling(host.port());
        EXPECT_TRUE(eventually([&] { return !trickling.send("G"); }));
        for (HttpConnection* connection : {&nothing, &headers, &body}) {
            const HttpAnswer answer = connection->receive();
            EXPECT_EQ(408, answer.status);
            EXPECT_EQ("timeout", answer.code());
            EXPECT_TRUE(connection->isEnded());
        }
        // One that has been answered is ended without a word.
        HttpConnection answered(host.port());
        answered.send(host.text("GET", "/livez"));
        EXPECT_EQ(200, answered.receive().status);
        EXPECT_EQ(0, answered.receive().status);
    }
    expectAsBefore(host, descriptors, workers);
}

// The library has no room for it, and tries again and again.
TEST_F(ServeSlowly, AnEndlessChunkExtensionTakesNoTime)
{
    const std::string attack = "2;" + std::string(100000, 'a');
    ServedHost host({"--read-seconds", "600"});
    host.workers();
    HttpConnection endless(host.port());
    endless.send(chunks(attack)(host));
    EXPECT_TRUE(eventually([&] { return host.metric("corvane_connections") == 2; }));
    EXPECT_TRUE(eventually([&] {
        const double before = support::processorSeconds(host.pid());
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        return support::processorSeconds(host.pid()) < before + 0.1;
    }));
    EXPECT_EQ(200, host.request("QZaVen_GetVersion").status);

    ServedHost hasty({"--read-seconds", "0.4"});
    EXPECT_EQ(408, hasty.raw(chunks(attack)(hasty)).status);
}

TEST_F(ServeSlowly, AnswersThatAreNotReadAreEnded)
{
    ServedHost host({"--read-seconds", "0.2", "--body-bytes", "4194304"});
    const std::vector<pid_t> workers = host.workers();
    const double descriptors = openDescriptors(host);
    {
        HttpConnection reader(host.port());
        const int small = 4096;
        setsockopt(reader.descriptor(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        for (int i = 0; i < 40; ++i)
            reader.send(host.text("GET", "/v1/catalogue"));
        EXPECT_TRUE(eventually([&] { return host.metric("corvane_connections") == 1; }));
    }
    expectAsBefore(host, descriptors, workers);
}

// One that the system has no room for has more time than a request has to arrive.
TEST_F(ServeSlowly, AnswersThatAreReadInTimeAreWhole)
{
    const ServedHost host({"--read-seconds", "1", "--body-bytes", "8388608"});
    const std::string text(6000000, 'a');
    HttpConnection reader(host.port());
    ASSERT_TRUE(reader.send(host.text("POST", "/v1/requests/QZaven_crypto_base64_encode",
                                      {{"Content-Type", "application/json"}},
                                      Json{{"strIn", {{"text", text}}}}.dump())));
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_EQ(8000000U, reader.receive().result("Data").size());
}

TEST_F(ServeSlowly, ManyStalledConnectionsKeepNobodyWaiting)
{
    ServedHost host({"--rate", "0"});
    const std::vector<pid_t> workers = host.workers();
    const double descriptors = openDescriptors(host);
    {
        std::vector<std::unique_ptr<HttpConnection>> stalled;
        for (int i = 0; i < 300; ++i) {
            stalled.push_back(std::make_unique<HttpConnection>(host.port()));
            stalled.back()->send("POST " + hmac + " HTTP/1.1\r\nHost: ");
        }
        for (int i = 0; i < 100; ++i)
            ASSERT_EQ(200, host.request("QZaVen_GetVersion").status);
        EXPECT_GE(host.metric("corvane_connections"), 300);
    }
    expectAsBefore(host, descriptors, workers);
}

TEST_F(ServeSlowly, ConnectionsOfOneAddressAreLimited)
{
    ServedHost host({"--connections-per-address", "3"});
    HttpConnection first(host.port());
    HttpConnection second(host.port());
    HttpConnection third(host.port());
    const std::string request = host.text("GET", "/livez");
    third.send(request);
    EXPECT_EQ(200, third.receive().status);
    HttpConnection fourth(host.port());
    const HttpAnswer answer = fourth.receive();
    EXPECT_EQ(429, answer.status);
    EXPECT_EQ("too_many_requests", answer.code());
    EXPECT_EQ(1U, answer.headers.count("retry-after"));
    EXPECT_TRUE(fourth.isEnded());
    first.send(request);
    EXPECT_EQ(200, first.receive().status);
}

TEST_F(ServeSlowly, RequestsOfOneAddressAreLimited)
{
    ServedHost host({"--rate", "1", "--burst", "5"});
    HttpConnection connection(host.port());
    int refused = 0;
    for (int i = 0; i < 10; ++i) {
        connection.send(host.text("GET", "/livez"));
        const HttpAnswer answer = connection.receive();
        if (answer.status != 429)
            continue;
        ++refused;
        EXPECT_EQ("too_many_requests", answer.code());
        EXPECT_EQ(1U, answer.headers.count("retry-after"));
    }
    EXPECT_GE(refused, 1);
    EXPECT_LE(refused, 5);
}

// Whatever becomes of it, and wherever it ends.
TEST_F(ServeSlowly, EveryRequestCounts)
{
    const std::string cookies = "Cookie: " + repeated("a=b; ", 2500) + "\r\n\r\n";
    for (const std::string& request :
         {"GET /livez HTTP/1.1\r\nHost: attacker.example\r\n\r\n"s,
          "GET /v1/status HTTP/1.1\r\nHost: localhost\r\nOrigin: http://a\r\n\r\n"s,
          "GET /livez HTTP/1.1\r\nHost: localhost\r\nHost: localhost\r\n\r\n"s,
          "GET /" + std::string(40000, 'a') + " HTTP/1.1\r\n" + cookies,
          "GET /livez HTTP/1.1\r\n\r\n"s, "GET /" + std::string(100000, 'a'), "\x16\r\n"s}) {
        ServedHost host({"--rate", "0.001", "--burst", "20"});
        for (int i = 0; i < 20; ++i) {
            HttpConnection connection(host.port());
            connection.send(request);
            EXPECT_NE(200, connection.receive().status);
        }
        // What ends in the library counts when its connection is closed: a little later.
        int asked = 0;
        while (host.get("/livez").status == 200 && ++asked < 10)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_LT(asked, 10) << request.substr(0, 100);
    }
}

TEST_F(ServeSlowly, TheQueueIsLimited)
{
    ServedHost host({"--workers", "1", "--queue", "2", "--request-seconds", "60"});
    const pid_t worker = host.workers(1).at(0);
    kill(worker, SIGSTOP);
    std::vector<std::unique_ptr<HttpConnection>> waiting;
    const auto send = [&] {
        waiting.push_back(std::make_unique<HttpConnection>(host.port()));
        waiting.back()->send(post(host, "/v1/requests/QZaVen_GetVersion", "{}"));
    };
    send();
    EXPECT_TRUE(eventually([&] { return host.metric("corvane_workers_busy") == 1; }));
    send();
    send();
    EXPECT_TRUE(eventually([&] { return host.metric("corvane_queue") == 2; }));
    send();
    const HttpAnswer full = waiting.back()->receive();
    EXPECT_EQ(503, full.status);
    EXPECT_EQ("busy", full.code());
    EXPECT_EQ("1", full.headers.at("retry-after"));
    // A batch is taken whole or not at all.
    EXPECT_EQ("busy", host.batch({{{"name", "QZaVen_GetVersion"}}}).code());
    EXPECT_EQ(2, host.metric("corvane_queue"));
    kill(worker, SIGCONT);
    for (size_t i = 0; i < 3; ++i)
        EXPECT_EQ(200, waiting[i]->receive().status);
}

TEST_F(ServeSlowly, TheQueueOfThePeerIsLimited)
{
    ServedHost host({"--queue", "2", "--request-seconds", "60"});
    const pid_t peer = host.peer();
    const std::string request = post(host, "/v1/peer/root", "{}");
    EXPECT_EQ(200, host.raw(request).status);
    kill(peer, SIGSTOP);
    std::vector<std::unique_ptr<HttpConnection>> waiting;
    for (int i = 0; i < 6; ++i) {
        waiting.push_back(std::make_unique<HttpConnection>(host.port()));
        waiting.back()->send(request);
    }
    // One is in it, two wait.
    EXPECT_TRUE(
        eventually([&] { return host.metric("corvane_http_answers_total{status=\"503\"}") == 3; }));
    EXPECT_EQ("busy", host.raw(request).code());
    kill(peer, SIGCONT);
    std::multiset<int> statuses;
    for (const auto& one : waiting)
        statuses.insert(one->receive().status);
    EXPECT_EQ((std::multiset<int>{200, 200, 200, 503, 503, 503}), statuses);
}

}  // namespace
