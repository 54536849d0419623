// Which hosts and pages requests may name, and how many an address may send.
#ifndef CORVANE_SERVICE_OPERATION_AUTHORIZATION_H
#define CORVANE_SERVICE_OPERATION_AUTHORIZATION_H

#include <string>
#include <unordered_map>
#include <vector>

#include "common/event_loop.h"
#include "options.h"

// The name in a Host header, in lower case and without the port; "" if there is none.
std::string hostName(const std::string& header);

// Which names the host is known by, and which pages may use it: a page of another site
// must not reach it through the user's browser, by its address or by a name of its own
// that leads here.
class AllowedSites {
public:
    AllowedSites(const ServeOptions& options);

    bool isHost(const std::string& hostHeader) const;
    // Of the page that sends. `hostHeader` is an allowed one.
    bool isOrigin(const std::string& origin, const std::string& hostHeader) const;

private:
    std::vector<std::string> m_hosts;
    std::vector<std::string> m_origins;
    const char* m_scheme;
};

// What each address has sent lately: a bucket that fills at the rate up to the burst.
class Rates {
public:
    Rates(double perSecond, double burst) : m_perSecond(perSecond), m_burst(burst) {}

    bool take(const std::string& address, Clock::time_point now);
    // Forgets addresses whose bucket is full again.
    void sweep(Clock::time_point now);

private:
    struct Bucket {
        double level;
        Clock::time_point time;
    };
    double levelOf(const Bucket& bucket, Clock::time_point now) const;

    const double m_perSecond;
    const double m_burst;
    std::unordered_map<std::string, Bucket> m_buckets;
};

#endif
