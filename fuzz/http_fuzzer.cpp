// A connection to the host's server, with any bytes on it and a stand-in for the service behind:
// what reaches the service is what another reader of HTTP sees, with the token; answers are well
// formed, with the promised headers and no more of them than requests; they are the same in
// whatever pieces the bytes come; the log has a line of JSON for each; and others are served as
// before. Input: bytes that choose the peer, when answers come, how the connection ends and how
// many bytes come at a time; then the connection's bytes, where 0xFE with two more bytes stands
// for many of the first one.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <list>
#include <nlohmann/json.hpp>
#include <set>

#include "common/text.h"
#include "fuzz.h"
#include "http_reader.h"
#include "oracles.h"
#include "service/http/server.h"
#include "support/files.h"

namespace {

using fuzz::HttpAnswer;
using fuzz::HttpRequest;
using fuzz::HttpRequests;
using Json = nlohmann::ordered_json;

const std::string token = "the-token-of-those-who-may-come-in";
const std::string proxy = "10.0.0.1";
const std::string node = "node-a";
constexpr size_t mostBody = 2048;
constexpr double burst = 8;

enum class Peer { Unix, Client, Proxy };
enum class When { AtOnce, Later, AtTheEnd, Never };
enum class End { Open, HalfClosed, Closed, Drained };

struct Setting {
    Peer peer;
    When when;
    End end;
    size_t piece;  // bytes at a time; 0: all at once
};

// ---- The stand-in for the service.

std::string answerTo(const Call& call)
{
    const std::string more(call.body == "much" ? 300000 : 0, '.');
    return "[" + std::to_string(static_cast<int>(call.target)) + ",\"" + fuzz::toBase64(call.name) +
           "\",\"" + fuzz::toBase64(call.body) + "\",\"" + more + "\"]";
}

class StandIn : public Calls {
public:
    explicit StandIn(When when) : m_when(when) {}

    void begin(Call call, Service::Done done) override
    {
        calls.push_back(call);
        if (m_when == When::AtOnce)
            return give(call, done);
        if (m_when != When::Never)
            m_waiting.emplace_back(std::move(call), std::move(done));
    }
    // The answer that has been waited for longest; false if there is none.
    bool giveOne()
    {
        if (m_waiting.empty())
            return false;
        const auto [call, done] = std::move(m_waiting.front());
        m_waiting.pop_front();
        give(call, done);
        return true;
    }

    std::vector<Call> calls;

private:
    static void give(const Call& call, const Service::Done& done)
    {
        Answer answer;
        answer.body = answerTo(call);
        done(std::move(answer));
    }

    const When m_when;
    std::list<std::pair<Call, Service::Done>> m_waiting;
};

// ---- A server with all that it needs.

ServeOptions optionsFor(const Setting& setting)
{
    ServeOptions options;
    options.bodyBytes = mostBody;
    options.trustedProxies = {proxy};
    options.rate = setting.peer == Peer::Client ? 1e-6 : 0;
    options.burst = burst;
    options.readSeconds = 3600;
    options.node = setting.peer == Peer::Proxy ? node : "";
    return options;
}

const BearerTokens& tokens()
{
    static const BearerTokens* const made = [] {
        const support::TemporaryFolder folder;
        support::writeWhole(folder.path("token"), token);
        chmod(folder.path("token").c_str(), S_IRUSR);
        return new BearerTokens({folder.path("token")});
    }();
    return *made;
}

// A file in memory, which the access log opens by its path.
class LogFile {
public:
    std::string path() const { return "/proc/self/fd/" + std::to_string(m_file.get()); }
    // Its lines, each with its line end; it is empty afterwards.
    std::string take()
    {
        struct stat info = {};
        HOLDS(fstat(m_file.get(), &info) == 0);
        std::string text(static_cast<size_t>(info.st_size), '\0');
        HOLDS(pread(m_file.get(), text.data(), text.size(), 0) == info.st_size);
        HOLDS(ftruncate(m_file.get(), 0) == 0);
        return text;
    }

private:
    Descriptor m_file{memfd_create("log", MFD_CLOEXEC)};
};

struct Client {
    Descriptor socket;
    std::string received;
    bool isEnded = false;

    void send(std::string_view bytes)
    {
        while (!bytes.empty()) {
            const ssize_t count =
                ::send(socket.get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (count < 0)
                return;  // it was closed, or does not read
            bytes.remove_prefix(static_cast<size_t>(count));
        }
    }
    // Whether there was something.
    bool receive()
    {
        std::array<char, 65536> buffer;
        bool isAny = false;
        while (socket && !isEnded) {
            const ssize_t count = recv(socket.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (count < 0 && errno == EAGAIN)
                break;
            isAny = true;
            isEnded = count <= 0;
            received.append(buffer.data(), static_cast<size_t>(std::max<ssize_t>(count, 0)));
        }
        return isAny;
    }
};

class World {
public:
    World(const Setting& setting, LogFile& logFile)
        : m_options(optionsFor(setting)),
          m_log(logFile.path()),
          m_shared{m_options,
                   &tokens(),
                   AllowedSites(m_options),
                   TrustedProxies(m_options.trustedProxies),
                   m_metrics,
                   m_log,
                   ClientLimits(m_options)},
          service(setting.when),
          m_server(m_loop, m_shared, service, Descriptor())
    {
    }

    Client connect(Peer peer)
    {
        sockaddr_storage address = {};
        socklen_t size = sizeof(sa_family_t);
        address.ss_family = AF_UNIX;
        if (peer != Peer::Unix) {
            auto& ipv4 = reinterpret_cast<sockaddr_in&>(address);
            ipv4.sin_family = AF_INET;
            ipv4.sin_addr.s_addr = htonl(peer == Peer::Proxy ? 0x0A000001 : 0xC0000201);
            size = sizeof ipv4;
        }
        int pair[2];
        HOLDS(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair) == 0);
        m_server.add(Descriptor(pair[0]), address, size);
        return {Descriptor(pair[1]), "", false};
    }

    // Until there is nothing to do. The library is also busy with what it cannot do; the server
    // ends that after many rounds, but nobody waits for it here.
    void run(Client& client)
    {
        constexpr unsigned mostRounds = 60;
        bool isMore = true;
        for (unsigned i = 0; isMore && i < mostRounds; ++i) {
            const bool isBusy = m_server.run() == 0;
            isMore = client.receive() || isBusy;
        }
        m_log.flush();
    }

    void drain() { m_server.drain(); }
    size_t connections() const { return m_server.connections(); }

private:
    const ServeOptions m_options;
    EventLoop m_loop;
    Metrics m_metrics;
    AccessLog m_log;
    ServerShared m_shared;

public:
    StandIn service;

private:
    Server m_server;
};

// ---- What others get meanwhile.

const std::string genuineRequest =
    "POST /v1/requests/Genuine HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer " + token +
    "\r\nContent-Type: application/json\r\nContent-Length: 2\r\n\r\n{}";

void checkGenuine(World& world, Client& client, When when)
{
    const size_t before = world.service.calls.size();
    world.run(client);
    HOLDS(world.service.calls.size() == before + 1);
    const Call& call = world.service.calls.back();
    HOLDS(call.target == Target::Request && call.name == "Genuine" && call.body == "{}");
    while (world.service.giveOne())
        world.run(client);
    HttpRequests requests;
    requests.whole.resize(1);
    const auto answers = fuzz::readAnswers(client.received, requests);
    HOLDS(answers.size() == 1);
    HOLDS(answers[0].status == (when == When::Never ? 502 : 200));
    HOLDS(when == When::Never || answers[0].body == answerTo(call));
}

// ---- What is promised of an answer.

bool isId(const std::string& text)
{
    return !text.empty() && text.size() <= 64 && std::all_of(text.begin(), text.end(), [](char c) {
        return fuzz::isLetterOrDigit(c) || strchr("-_.", c) != nullptr;
    });
}

// As the host would route it, by its head.
const Route* routeOf(const HttpRequest& request)
{
    return findRoute(request.path());
}

std::string hostOf(const HttpRequest& request)
{
    const std::string host = request.headers.value("host");
    const size_t colon = host.rfind(':');
    const bool hasPort = colon != std::string::npos && colon + 1 < host.size() &&
                         host.find_first_not_of("0123456789", colon + 1) == std::string::npos;
    return hasPort ? host.substr(0, colon) : host;
}

bool showsToken(const HttpRequest& request)
{
    const std::string shown = request.headers.value("authorization");
    return shown.size() == token.size() + 7 &&
           equalIgnoringCase(std::string_view(shown).substr(0, 7), "Bearer ") &&
           shown.substr(7) == token;
}

bool isCallOf(const Call& call, const HttpRequest& request)
{
    const Route* route = routeOf(request);
    return route != nullptr && route->target == call.target &&
           request.target == route->path + call.name && request.body == call.body &&
           request.headers.value("content-type") == call.contentType &&
           request.headers.value("x-corvane-node") == call.to.node &&
           request.headers.value("x-corvane-session") == call.to.session;
}

bool mayBeCarriedOut(const HttpRequest& request)
{
    const std::string host = hostOf(request);
    const std::string method = routeOf(request)->method;
    return (equalIgnoringCase(host, "localhost") || host == "127.0.0.1" || host == "[::1]") &&
           (!needsToken(request.path()) || showsToken(request)) &&
           (request.method == method || (method == "GET" && request.method == "HEAD")) &&
           (request.body.empty() || request.headers.value("content-encoding").empty()) &&
           request.body.size() <= mostBody;
}

// Each is one of the requests that may be carried out, in their order.
void checkCalls(const std::vector<Call>& calls, const HttpRequests& requests)
{
    auto next = requests.whole.begin();
    for (const Call& call : calls) {
        next = std::find_if(next, requests.whole.end(), [&](const HttpRequest& request) {
            return isCallOf(call, request) && mayBeCarriedOut(request);
        });
        HOLDS(next != requests.whole.end());
        ++next;
    }
}

std::set<unsigned> statusesAt(const HttpRequest& request)
{
    if (const Route* route = routeOf(request))
        return statusesOf(*route);
    std::set<unsigned> statuses = {200, 304, 401, 403, 404, 405, 408, 429};
    statuses.insert(libraryStatuses().begin(), libraryStatuses().end());
    return statuses;
}

void checkOwnHeaders(const HttpAnswer& answer, const Setting& setting)
{
    for (const char* once :
         {"x-request-id", "content-type", "cache-control", "x-content-type-options"})
        HOLDS(answer.headers.count(once) == 1);
    HOLDS(isId(answer.headers.value("x-request-id")));
    HOLDS(answer.headers.value("x-corvane-node") == (setting.peer == Peer::Proxy ? node : ""));
    HOLDS(answer.headers.count("www-authenticate") == (answer.status == 401 ? 1 : 0));
    HOLDS(answer.headers.count("allow") == (answer.status == 405 ? 1 : 0));
    HOLDS(answer.headers.count("retry-after") ==
          (answer.status == 429 || answer.status == 503 ? 1 : 0));
    if (answer.status >= 400) {
        HOLDS(answer.headers.value("content-type") == "application/json");
        HOLDS(answer.headers.value("cache-control") == "no-store");
    }
    for (const auto& [name, value] : answer.headers)
        HOLDS(name.compare(0, 15, "access-control-") != 0);
}

void checkAnswers(const std::vector<HttpAnswer>& answers, const HttpRequests& requests,
                  const Setting& setting)
{
    HOLDS(answers.size() <= requests.whole.size() + (requests.rest.empty() ? 0 : 1));
    for (size_t i = 0; i < answers.size(); ++i) {
        const HttpAnswer& answer = answers[i];
        const bool isLast = i + 1 == answers.size();
        if (answer.headers.count("x-request-id") > 0)
            checkOwnHeaders(answer, setting);
        else
            HOLDS(libraryStatuses().count(answer.status) == 1 && isLast);
        HOLDS(isLast || !equalIgnoringCase(answer.headers.value("connection"), "close"));
        // Larger ones are documents that are the same each time.
        if (answer.headers.value("content-type") == "application/json" && !answer.body.empty() &&
            answer.body.size() < 4096)
            HOLDS(Json::accept(answer.body));
        HOLDS(answer.body.find(token) == std::string::npos);
        if (i >= requests.whole.size()) {
            HOLDS(answer.status >= 400);
            continue;
        }
        const HttpRequest& request = requests.whole[i];
        HOLDS(statusesAt(request).count(answer.status) == 1);
        if (answer.status < 400)
            HOLDS(!needsToken(request.path()) || showsToken(request));
    }
}

// One line of JSON for each request whose first line came, of characters that can be printed.
void checkLog(const std::string& lines, size_t requests)
{
    HOLDS(lines.empty() || lines.back() == '\n');
    HOLDS(static_cast<size_t>(std::count(lines.begin(), lines.end(), '\n')) <= requests);
    HOLDS(lines.find(token) == std::string::npos);
    for (size_t begin = 0; begin < lines.size();) {
        const std::string line = lines.substr(begin, lines.find('\n', begin) - begin);
        begin += line.size() + 1;
        HOLDS(std::all_of(line.begin(), line.end(), [](char c) { return c >= 0x20 && c < 0x7F; }));
        const Json entry = Json::parse(line, nullptr, false);
        HOLDS(entry.is_object());
        const std::string address = entry["address"];
        HOLDS(address == "unix" || IpAddress::of(address));
        HOLDS(isId(entry["id"].get<std::string>()));
    }
}

// ---- One connection.

struct Outcome {
    std::vector<std::string> calls;
    std::vector<std::string> answers;  // without what differs each time
    bool operator==(const Outcome& other) const
    {
        return calls == other.calls && answers == other.answers;
    }
};

std::string textOf(const HttpAnswer& answer)
{
    std::string text = std::to_string(answer.status);
    for (const auto& [name, value] : answer.headers)
        if (name != "x-request-id" && name != "date")
            text.append("\n").append(name).append(":").append(value);
    return text + "\n\n" + answer.body;
}

Outcome serve(const std::string& bytes, const Setting& setting)
{
    static LogFile logFile;
    constexpr size_t mostPieces = 24;
    const HttpRequests requests = fuzz::readRequests(bytes);
    Outcome outcome;
    {
        World world(setting, logFile);
        Client other = world.connect(Peer::Unix);
        const size_t half = genuineRequest.size() / 2;
        other.send(std::string_view(genuineRequest).substr(0, half));
        world.run(other);

        Client client = world.connect(setting.peer);
        const size_t least = bytes.size() / mostPieces + 1;
        const size_t size = setting.piece == 0 ? bytes.size() : std::max(setting.piece, least);
        for (size_t at = 0; at < bytes.size(); at += size) {
            if (setting.end == End::Drained && at > bytes.size() / 2)
                world.drain();
            client.send(std::string_view(bytes).substr(at, size));
            world.run(client);
            if (setting.when == When::Later)
                world.service.giveOne();
        }
        if (setting.end == End::HalfClosed)
            shutdown(client.socket.get(), SHUT_WR);
        if (setting.end == End::Closed)
            client.socket.reset();
        do
            world.run(client);
        while (world.service.giveOne());

        const std::vector<Call> calls = world.service.calls;
        checkCalls(calls, requests);
        for (const Call& call : calls)
            outcome.calls.push_back(answerTo(call));
        if (setting.end != End::Closed) {
            const auto answers = fuzz::readAnswers(client.received, requests);
            checkAnswers(answers, requests, setting);
            if (setting.end == End::Open && !client.isEnded)
                HOLDS(answers.size() == requests.whole.size());
            for (const HttpAnswer& answer : answers)
                outcome.answers.push_back(textOf(answer));
        }

        other.send(std::string_view(genuineRequest).substr(half));
        checkGenuine(world, other, setting.when);
        Client another = world.connect(Peer::Unix);
        another.send(genuineRequest);
        checkGenuine(world, another, setting.when);
    }
    constexpr size_t genuine = 2;
    checkLog(logFile.take(), requests.whole.size() + 1 + genuine);
    return outcome;
}

// Long texts in short inputs.
std::string expanded(const std::string& bytes)
{
    constexpr size_t mostBytes = size_t{96} << 10;
    std::string text;
    for (size_t i = 0; i < bytes.size() && text.size() < mostBytes; ++i) {
        const bool isMany = bytes[i] == '\xFE' && i + 2 < bytes.size();
        text.append(isMany ? static_cast<unsigned char>(bytes[i + 2]) * size_t{64} : 1,
                    isMany ? bytes[i + 1] : bytes[i]);
        i += isMany ? 2 : 0;
    }
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    Setting setting = {};
    setting.peer = static_cast<Peer>(input.pick(3));
    setting.when = static_cast<When>(input.pick(4));
    setting.end = static_cast<End>(input.pick(4));
    setting.piece = input.pick(64);
    const std::string bytes = expanded(input.rest());
    const Outcome outcome = serve(bytes, setting);
    // What expects to go on without a body to follow, the library does not answer if more has come.
    const bool mayDiffer =
        bytes.find("100-") != std::string::npos || !fuzz::readRequests(bytes).isProper;
    if (setting.piece != 0 && setting.end == End::Open && !mayDiffer) {
        setting.piece = 0;
        HOLDS(serve(bytes, setting) == outcome);
    }
    return 0;
}
