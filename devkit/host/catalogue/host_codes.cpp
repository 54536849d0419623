#include "error_codes.h"

namespace {

// clang-format off
#define ROW(status, name, text, cause, remedy) {0, name, "host", text, cause, remedy, status}
const std::vector<ErrorCode> codes = {
    ROW(400, "malformed", "the request is not of its form",
        "a header, the path or the body was made by hand, or was cut on the way",
        "see docs/serving.md and /openapi.json"),
    ROW(400, "wrong_type", "a value has a type that the parameter does not take",
        "a list, a fraction, true, false or null was sent as a value, bytes where a name is due, or another text than a number or a known name where a number is due",
        "send a string, an integer, or {\"text\"}, {\"base64\"}, {\"hex\"} or {\"raw\"} with a string; /v1/catalogue has the names"),
    ROW(400, "bad_encoding", "text is not in the encoding that it claims or that is due",
        "a plain text was sent where Base64 is due, or Base64, hex or an escape is cut",
        "send UTF-8 in JSON, whole Base64, hex and percent-escapes, and {\"text\"} or {\"raw\"} for what is no Base64"),
    ROW(400, "duplicate_parameter", "a name is given twice",
        "two members or fields have the same name",
        "give each name once"),
    ROW(400, "too_many_parameters", "there are more parameters or requests than are taken",
        "one call was filled with what belongs into several",
        "see the limits in /v1/status"),
    ROW(400, "bad_path", "the name does not lead to a file below the host's folder",
        "the file is not there, is a link, or is named from elsewhere; or the host has no folder",
        "name a file below the folder that the host was started with, or upload the file"),
    ROW(401, "unauthorized", "the token is missing or wrong",
        "the header was left out, or the token is another host's or an old one",
        "send \"Authorization: Bearer TOKEN\" with the token from the host's token file"),
    ROW(403, "forbidden_host", "the Host header names a host that is not allowed",
        "the host is reached by a name that it was not told, as behind a proxy",
        "use the address that the host prints, or start it with --allow-host"),
    ROW(403, "forbidden_origin", "the request comes from a page of another origin",
        "a page that is not the host's own sent it",
        "use the host's own console, or start it with --allow-origin"),
    ROW(404, "not_found", "there is nothing at this path",
        "the path is misspelt, or the host runs without the bundled peer",
        "see /openapi.json for the paths"),
    ROW(404, "unknown_request", "no request has this name",
        "the name is misspelt; names are case-sensitive",
        "see /v1/catalogue for the names"),
    ROW(405, "method_not_allowed", "the path does not take this method",
        "GET was sent where POST is due, or the reverse",
        "use a method of the Allow header"),
    ROW(408, "timeout", "the request did not arrive whole in time",
        "the connection is slow, or fewer bytes came than were announced",
        "send it faster, or start the host with a longer --read-seconds"),
    ROW(410, "session_gone", "the key-exchange session has ended or never was",
        "it was freed, was not used for too long, or its worker process ended",
        "begin a new one with QZaven_ke_new"),
    ROW(413, "too_large", "the body is larger than the host takes",
        "the data is too much for one call",
        "send less, or start the host with a larger --body-bytes"),
    ROW(413, "parameter_too_large", "a parameter is larger than the host takes",
        "the data is too much for one parameter",
        "send less, or start the host with a larger --parameter-bytes"),
    ROW(415, "unsupported_type", "the body is of a type that the host does not read",
        "Content-Type is missing or another, or the body is compressed",
        "send application/json, application/x-www-form-urlencoded or multipart/form-data"),
    ROW(421, "wrong_node", "the request is for another node",
        "a balancer sent it here, as it does when the node is down or it was not told of the session",
        "send it to the node that the error names, with X-Corvane-Session for balancers; begin a new session if the node is gone"),
    ROW(429, "too_many_requests", "this address sends more than its share",
        "a client repeats without a pause, or many clients share the address",
        "wait as Retry-After says"),
    ROW(431, "headers_too_large", "the headers are larger or more than the host takes",
        "cookies or a proxy's headers were added to the request",
        "send fewer or shorter headers"),
    ROW(502, "worker_failed", "the process that served the request ended in it",
        "the engine crashed, or there was no memory",
        "try again; the host's log and the engine's may tell why"),
    ROW(503, "busy", "the host has as much to do as it takes",
        "more requests, sessions or bytes came at once than its limits allow",
        "wait as Retry-After says"),
    ROW(503, "draining", "the host is stopping",
        "it was told to stop before the request began",
        "try again later"),
    ROW(504, "worker_timeout", "the request took longer than the host allows",
        "there is much data, or the engine hangs",
        "send less, or start the host with a longer --request-seconds"),
};
#undef ROW

const std::vector<StatusText> statuses = {
    {200, "the request was carried out; whether it succeeded is told by errorCode in the answer"},
    {304, "the document is the one that the client has, by its ETag"},
    {400, "an answer that is no JSON: what arrived is not HTTP, or TLS where none is spoken"},
    {413, "an answer that is no JSON: Content-Length is larger than any number that is taken"},
    {414, "the request's first line is too long: parameters belong into the body"},
    {431, "an answer that is no JSON: the headers do not fit into the memory for them"},
    {503, "of /readyz: the host cannot take requests now; an error \"busy\" or \"draining\" says why a request was not taken"},
    {505, "the version of HTTP is neither 1.0 nor 1.1"},
};
// clang-format on

}  // namespace

const std::vector<ErrorCode>& hostCodes()
{
    return codes;
}

const std::vector<StatusText>& otherStatuses()
{
    return statuses;
}
