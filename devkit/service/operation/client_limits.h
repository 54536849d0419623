// What clients may take of the service together, whichever thread they come to.
#ifndef CORVANE_SERVICE_OPERATION_CLIENT_LIMITS_H
#define CORVANE_SERVICE_OPERATION_CLIENT_LIMITS_H

#include <map>
#include <mutex>
#include <string>

#include "authorization.h"
#include "options.h"

// All of it may be called by several threads at once.
class ClientLimits {
public:
    explicit ClientLimits(const ServeOptions& options);

    // A request of a client. False if it sends too many.
    bool takeRequest(const std::string& client);

    // A connection of a client, from the beginning of this to its end.
    class Place;
    size_t connections() const;

    // Room for bytes of bodies. False if others take all there is.
    bool takeRoom(size_t bytes);
    void giveRoom(size_t bytes);

    // Forgets clients that have been quiet; does something once a second at most.
    void sweep();

private:
    const size_t m_mostPerAddress;
    const size_t m_mostBodyBytes;
    mutable std::mutex m_mutex;  // of all that follows
    Rates m_rates;
    std::map<std::string, size_t> m_perAddress;
    size_t m_connections = 0;
    size_t m_bodyBytes = 0;
    Clock::time_point m_swept;
};

class ClientLimits::Place {
public:
    // Of a client that is not limited, connections are counted but never too many.
    Place(ClientLimits& limits, std::string client, bool isLimited);
    ~Place();
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    // Whether the client had so few connections when it came.
    bool isWithin() const { return m_isWithin; }

private:
    ClientLimits& m_limits;
    const std::string m_client;
    bool m_isWithin;
};

#endif
