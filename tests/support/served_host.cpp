#include "support/served_host.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace fs = std::filesystem;

namespace support {

namespace {

// Against hangs alone.
constexpr int patienceMilliseconds = 60000;

pid_t startHost(const std::vector<std::string>& arguments, const std::vector<std::string>& more,
                const std::string& out, const std::string& err)
{
    std::vector<char*> argv = {const_cast<char*>(hostProgram.c_str())};
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> environment;
    for (char** variable = environ; *variable != nullptr; ++variable)
        environment.push_back(*variable);
    for (const std::string& variable : more)
        environment.push_back(const_cast<char*>(variable.c_str()));
    environment.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environment.data()) != 0)
        throw std::runtime_error("the host does not start");
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

int exitCodeOf(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

bool eventually(const std::function<bool()>& holds)
{
    const auto start = std::chrono::steady_clock::now();
    while (!holds()) {
        if (std::chrono::steady_clock::now() - start > std::chrono::minutes(1))
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

std::pair<int, std::string> runHost(const std::vector<std::string>& arguments)
{
    const TemporaryFolder folder;
    const pid_t pid = startHost(arguments, {}, folder.path("out"), folder.path("err"));
    int status = 0;
    waitpid(pid, &status, 0);
    return {exitCodeOf(status), folder.read("err")};
}

bool isRunning(pid_t pid)
{
    const std::string stat = readWhole("/proc/" + std::to_string(pid) + "/stat");
    const size_t end = stat.rfind(')');
    return end != std::string::npos && stat.compare(end, 3, ") Z") != 0;
}

double processorSeconds(pid_t pid)
{
    const std::string stat = readWhole("/proc/" + std::to_string(pid) + "/stat");
    const size_t end = stat.rfind(')');
    unsigned long user = 0;
    unsigned long system = 0;
    if (end != std::string::npos)
        sscanf(stat.c_str() + end, ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user,
               &system);
    return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

std::vector<pid_t> childrenOf(pid_t pid, const std::string& command)
{
    std::vector<pid_t> children;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        const std::string stat = readWhole(entry.path() / "stat");
        const size_t end = stat.rfind(')');
        char state = 'Z';
        int parent = -1;
        if (end != std::string::npos &&
            sscanf(stat.c_str() + end, ") %c %d", &state, &parent) == 2 && parent == pid &&
            state != 'Z' && readWhole(entry.path() / "cmdline").c_str() == command)
            children.push_back(atoi(name.c_str()));
    }
    std::sort(children.begin(), children.end());
    return children;
}

// ---- HTTP.

std::string HttpAnswer::code() const
{
    const Json whole = json();
    if (!whole.is_object() || !whole.contains("error") || !whole["error"].is_object())
        return "";
    return whole["error"].value("code", "");
}

std::string HttpAnswer::result(const std::string& name) const
{
    const Json whole = json();
    if (!whole.is_object() || !whole.contains("results") || !whole["results"].contains(name) ||
        !whole["results"][name].is_string())
        return "";
    return whole["results"][name];
}

HttpConnection::HttpConnection(int port) : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(m_socket);
        m_socket = -1;
    }
}

HttpConnection::HttpConnection(const std::string& socketPath)
    : m_socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
    if (::connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(m_socket);
        m_socket = -1;
    }
}

HttpConnection::~HttpConnection()
{
    if (m_socket >= 0)
        close(m_socket);
}

bool HttpConnection::send(const std::string& bytes) const
{
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t count =
            ::send(m_socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0)
            return false;
        sent += static_cast<size_t>(count);
    }
    return true;
}

bool HttpConnection::receiveMore()
{
    if (m_socket < 0)
        return false;
    pollfd waiting = {m_socket, POLLIN, 0};
    if (poll(&waiting, 1, patienceMilliseconds) <= 0) {
        ADD_FAILURE() << "neither an answer nor an end for a minute";
        return false;
    }
    std::array<char, 65536> buffer;
    const ssize_t count = recv(m_socket, buffer.data(), buffer.size(), 0);
    if (count <= 0)
        return false;
    m_bytes.append(buffer.data(), static_cast<size_t>(count));
    return true;
}

HttpAnswer HttpConnection::receive(bool hasBody)
{
    HttpAnswer answer;
    size_t end;
    while ((end = m_bytes.find("\r\n\r\n")) == std::string::npos)
        if (!receiveMore())
            return answer;

    size_t at = m_bytes.find("\r\n") + 2;
    const int status = atoi(m_bytes.substr(m_bytes.find(' ') + 1, 3).c_str());
    while (at < end + 2) {
        const size_t next = m_bytes.find("\r\n", at);
        const std::string line = m_bytes.substr(at, next - at);
        const size_t colon = line.find(": ");
        std::string name = line.substr(0, colon);
        std::transform(name.begin(), name.end(), name.begin(),
                       [](unsigned char c) { return static_cast<char>(tolower(c)); });
        if (colon != std::string::npos)
            answer.headers[name] = line.substr(colon + 2);
        at = next + 2;
    }
    m_bytes.erase(0, end + 4);
    if (status == 100)
        return receive(hasBody);

    const size_t size = answer.headers.count("content-length") != 0 && hasBody && status != 304
                            ? std::stoul(answer.headers["content-length"])
                            : 0;
    while (m_bytes.size() < size)
        if (!receiveMore())
            return answer;
    answer.status = status;
    answer.body = m_bytes.substr(0, size);
    m_bytes.erase(0, size);
    return answer;
}

bool HttpConnection::isEnded()
{
    while (m_bytes.empty())
        if (!receiveMore())
            return true;
    return false;
}

// ---- The host.

ServedHost::ServedHost(const Options& options, const Options& environment, const Options& libraries,
                       const std::string& errors)
{
    const auto has = [&](const std::string& name) {
        return std::find(options.begin(), options.end(), name) != options.end();
    };
    Options arguments = libraries;
    if (libraries.empty())
        arguments = {"--plugin", plugin, "--params", params, "--engine", engine};
    arguments.push_back("serve");
    if (!has("--listen"))
        arguments.insert(arguments.end(), {"--listen", "127.0.0.1:0"});
    if (!has("--workers"))
        arguments.insert(arguments.end(), {"--workers", "2"});
    // So that a suite can be run with another number than most machines have.
    if (const char* threads = getenv("CORVANE_FRONT_THREADS");
        threads != nullptr && !has("--front-threads"))
        arguments.insert(arguments.end(), {"--front-threads", threads});
    if (!has("--token-file") && !has("--no-auth"))
        arguments.insert(arguments.end(), {"--token-file", path("token")});
    if (!has("--access-log"))
        arguments.insert(arguments.end(), {"--access-log", path("access.log")});
    arguments.insert(arguments.end(), options.begin(), options.end());
    m_pid = startHost(arguments, environment, path("out"), errors.empty() ? path("err") : errors);

    const bool listens = eventually([this] {
        const std::string out = output();
        return std::count(out.begin(), out.end(), '\n') >= 2 || hasEnded();
    });
    const std::string out = output();
    const size_t at = out.find("listening on ");
    if (!listens || at == std::string::npos)
        throw std::runtime_error("the host does not listen: " + this->errors());
    if (const size_t path = out.find("unix:", at); path != std::string::npos)
        m_socket = out.substr(path + 5, out.find('\n', path) - path - 5);
    else
        m_port = atoi(out.c_str() + out.find(':', out.find("//", at)) + 1);
    const auto file = std::find(arguments.begin(), arguments.end(), "--token-file");
    if (file != arguments.end())
        m_token = readWhole(*std::next(file));
    m_token.erase(std::min(m_token.size(), m_token.find('\n')));
}

ServedHost::~ServedHost()
{
    stop();
}

std::string ServedHost::text(const std::string& method, const std::string& target,
                             const HttpHeaders& headers, const std::string& body) const
{
    HttpHeaders all = headers;
    const auto add = [&](const std::string& name, const std::string& value) {
        const bool given = std::any_of(headers.begin(), headers.end(),
                                       [&](const auto& header) { return header.first == name; });
        if (!given)
            all.emplace_back(name, value);
    };
    add("Host", host());
    if (!m_token.empty())
        add("Authorization", "Bearer " + m_token);
    if (!body.empty())
        add("Content-Length", std::to_string(body.size()));
    std::string out = method + " " + target + " HTTP/1.1\r\n";
    for (const auto& [name, value] : all)
        if (!value.empty())
            out.append(name).append(": ").append(value).append("\r\n");
    return out + "\r\n" + body;
}

HttpConnection ServedHost::connect() const
{
    return m_socket.empty() ? HttpConnection(m_port) : HttpConnection(m_socket);
}

HttpAnswer ServedHost::raw(const std::string& bytes) const
{
    HttpConnection connection = connect();
    connection.send(bytes);
    return connection.receive();
}

HttpAnswer ServedHost::ask(const std::string& method, const std::string& target,
                           const HttpHeaders& headers, const std::string& body) const
{
    HttpConnection connection = connect();
    connection.send(text(method, target, headers, body));
    return connection.receive(method != "HEAD");
}

HttpAnswer ServedHost::request(const std::string& name, const Json& parameters) const
{
    return ask("POST", "/v1/requests/" + name, {{"Content-Type", "application/json"}},
               parameters.dump());
}

HttpAnswer ServedHost::batch(const Json& requests) const
{
    return ask("POST", "/v1/batch", {{"Content-Type", "application/json"}},
               Json{{"requests", requests}}.dump());
}

double rowOf(const std::string& metrics, const std::string& row)
{
    const std::string lines = "\n" + metrics;
    const size_t at = lines.find("\n" + row + " ");
    return at == std::string::npos ? -1 : atof(lines.c_str() + at + row.size() + 2);
}

double ServedHost::metric(const std::string& row) const
{
    return rowOf(get("/metrics").body, row);
}

Json ServedHost::logged(const std::string& id) const
{
    Json found;
    EXPECT_TRUE(eventually([&] {
        std::istringstream log(readWhole(path("access.log")));
        for (std::string line; std::getline(log, line);)
            if (line.find("\"id\":\"" + id + "\"") != std::string::npos)
                found = Json::parse(line, nullptr, false);
        return found.is_object();
    })) << id;
    return found;
}

std::vector<pid_t> ServedHost::workers(size_t count) const
{
    eventually([&] { return metric("corvane_workers_ready") == static_cast<double>(count); });
    return childrenOf(m_pid);
}

pid_t ServedHost::peer() const
{
    pid_t pid = -1;
    eventually([&] {
        const std::vector<pid_t> found = childrenOf(m_pid, "corvane-ke-peer");
        pid = found.empty() ? -1 : found.front();
        return pid > 0;
    });
    return pid;
}

void ServedHost::signal(int number) const
{
    // A number below 1 would be many processes.
    if (m_pid > 0)
        kill(m_pid, number);
}

bool ServedHost::hasEnded()
{
    int status = 0;
    if (m_pid > 0 && waitpid(m_pid, &status, WNOHANG) == m_pid) {
        m_pid = -1;
        m_exitCode = exitCodeOf(status);
    }
    return m_pid < 0;
}

int ServedHost::stop(int number)
{
    if (!hasEnded())
        signal(number);
    return wait();
}

int ServedHost::wait()
{
    if (!eventually([this] { return hasEnded(); })) {
        signal(SIGKILL);
        waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }
    return m_exitCode;
}

std::string ServedHost::output() const
{
    return readWhole(path("out"));
}

std::string ServedHost::errors() const
{
    return readWhole(path("err"));
}

}  // namespace support
