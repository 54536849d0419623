// corvane-host as a service, with what a test does to it: start, ask, look at its
// processes, stop. The client sends bytes as they are given, odd ones too.
#ifndef CORVANE_TESTS_SERVED_HOST_H
#define CORVANE_TESTS_SERVED_HOST_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "files.h"
#include "held.h"

// The emulator does not start programs that start themselves again, which workers are.
#define NEEDS_WORKERS()    \
    if (support::emulated) \
    GTEST_SKIP() << "worker processes do not start in the emulator"

namespace support {

using Json = nlohmann::ordered_json;

struct HttpAnswer {
    int status = 0;                              // 0: the connection ended without an answer
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;

    Json json() const { return Json::parse(body, nullptr, false); }
    // The host's or the plug-in's code, or "".
    std::string code() const;
    std::string result(const std::string& name) const;
};

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

class HttpConnection {
public:
    explicit HttpConnection(int port);
    explicit HttpConnection(const std::string& socketPath);
    ~HttpConnection();
    HttpConnection(const HttpConnection&) = delete;
    HttpConnection& operator=(const HttpConnection&) = delete;

    // False if the other side has ended the connection.
    bool send(const std::string& bytes) const;
    // The next answer. To a HEAD request there is no body.
    HttpAnswer receive(bool hasBody = true);
    // Whether the other side ends the connection, without another answer.
    bool isEnded();
    int descriptor() const { return m_socket; }

private:
    bool receiveMore();

    int m_socket;
    std::string m_bytes;
};

class ServedHost {
public:
    using Options = std::vector<std::string>;

    // On a free port, with two workers, a token and a log in a folder of its own, unless the
    // options say otherwise. Waits until it listens. `errors` names what takes its standard error
    // in place of a file in the folder.
    explicit ServedHost(const Options& options = {}, const Options& environment = {},
                        const Options& libraries = {}, const std::string& errors = "");
    ~ServedHost();
    ServedHost(const ServedHost&) = delete;
    ServedHost& operator=(const ServedHost&) = delete;

    int port() const { return m_port; }
    pid_t pid() const { return m_pid; }
    const std::string& token() const { return m_token; }
    std::string host() const
    {
        return m_socket.empty() ? "127.0.0.1:" + std::to_string(m_port) : "localhost";
    }
    HttpConnection connect() const;
    std::string path(const std::string& name) const { return m_folder.path(name); }

    // A whole request, with Host and token unless they are given ("" leaves one out).
    std::string text(const std::string& method, const std::string& target,
                     const HttpHeaders& headers = {}, const std::string& body = "") const;
    HttpAnswer ask(const std::string& method, const std::string& target,
                   const HttpHeaders& headers = {}, const std::string& body = "") const;
    HttpAnswer get(const std::string& target) const { return ask("GET", target); }
    // A request to the plug-in, its parameters as JSON.
    HttpAnswer request(const std::string& name, const Json& parameters = Json::object()) const;
    HttpAnswer batch(const Json& requests) const;
    // The bytes alone, over a connection of their own.
    HttpAnswer raw(const std::string& bytes) const;

    Json status() const { return get("/v1/status").json(); }
    // A row of the metrics; -1 without it.
    double metric(const std::string& row) const;

    // The line of the log in its folder that has this number, once it is there.
    Json logged(const std::string& id) const;

    // Its workers, once `count` of them run and can serve.
    std::vector<pid_t> workers(size_t count = 2) const;
    // The process of the key exchange's other side.
    pid_t peer() const;

    void signal(int number) const;
    // Whether it has ended by itself.
    bool hasEnded();
    // Ends it and gives its exit code, -1 for a signal's.
    int stop(int number = 15);
    int wait();

    // What it has written so far.
    std::string output() const;
    std::string errors() const;

private:
    TemporaryFolder m_folder;
    pid_t m_pid = -1;
    int m_exitCode = -1;
    int m_port = 0;
    std::string m_socket;  // the path, if it listens there
    std::string m_token;
};

// A suite with one host for all of its tests, which limits no rate.
class ServedSuite : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        if (!emulated)
            m_host = new ServedHost({"--rate", "0"});
    }
    static void TearDownTestSuite()
    {
        delete m_host;
        m_host = nullptr;
    }
    void SetUp() override { NEEDS_WORKERS(); }

    static ServedHost& host() { return *m_host; }

private:
    inline static ServedHost* m_host = nullptr;
};

// A row's value in the text of metrics; -1 without it.
double rowOf(const std::string& metrics, const std::string& row);

// Runs the program to its end: its exit code, and what it wrote to standard error.
std::pair<int, std::string> runHost(const std::vector<std::string>& arguments);

// Waits until something holds; false if it does not within a minute.
bool eventually(const std::function<bool()>& holds);

// Whether a process exists and has not ended, collected or not.
bool isRunning(pid_t pid);

// The time that processors have spent on a process.
double processorSeconds(pid_t pid);

// The children of a process that were started under this name: its workers.
std::vector<pid_t> childrenOf(pid_t pid, const std::string& command = "corvane-host");

}  // namespace support

#endif
