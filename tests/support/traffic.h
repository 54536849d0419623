// Traffic for the plug-in in front of the development engine: clients that draw requests of
// all names by chance, right ones and wrong ones, and know what each must answer.
//
// The answers are computed by libcrypto (oracle.h) and the key exchange's other side
// (devkit/peer). All data begins with a nonce of the client and the request, so that an answer
// that belongs to another request is noticed.
#ifndef CORVANE_TESTS_TRAFFIC_H
#define CORVANE_TESTS_TRAFFIC_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/devkit_host.h"

namespace support {

constexpr size_t NONCE = 12;          // bytes
constexpr size_t REQUEST_NAMES = 27;  // that clients draw from

// What clients have sent and what they did not like.
struct TrafficCount {
    uint64_t sent = 0;
    std::map<std::string, uint64_t> sentByName;
    uint64_t wrong = 0;                   // answers
    std::vector<std::string> complaints;  // about the first of them

    void add(const TrafficCount& other)
    {
        sent += other.sent;
        for (const auto& [name, times] : other.sentByName)
            sentByName[name] += times;
        wrong += other.wrong;
        complaints.insert(complaints.end(), other.complaints.begin(), other.complaints.end());
    }
};

// Keys, certificates and the server of key exchanges, for all clients. Making it takes a
// moment; it holds a directory for temporary files.
class TrafficSetting {
public:
    TrafficSetting();
    TrafficSetting(const TrafficSetting&) = delete;
    TrafficSetting& operator=(const TrafficSetting&) = delete;
    ~TrafficSetting();

    struct Content;
    const Content& content() const { return *m_content; }

private:
    std::unique_ptr<Content> m_content;
};

// One client, for one thread. What it sends follows from number and seed alone, but for what
// libcrypto draws. Requests that read key pairs are sent by one client at a time, since the
// plug-in remembers the key pair's type for the whole process.
class TrafficClient {
public:
    // Data has at least `smallest` bytes; with fewer than NONCE a mix-up may go unnoticed.
    TrafficClient(const DevkitHost& host, const TrafficSetting& setting, uint32_t number,
                  uint64_t seed, size_t smallest = NONCE);
    TrafficClient(const TrafficClient&) = delete;
    TrafficClient& operator=(const TrafficClient&) = delete;
    ~TrafficClient();

    // Sends one of the requests; a key exchange is several.
    void act();
    // Sends each of them.
    void actInEveryWay();
    // Ends the key-exchange session, if there is one.
    void leave();

    const TrafficCount& count() const;

private:
    class Work;
    std::unique_ptr<Work> m_work;
};

}  // namespace support

#endif
