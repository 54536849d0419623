// What the tests of an engine's requests share: how they send, and what they come to.
#ifndef CORVANE_HOST_DOCTOR_ENGINE_CLIENT_H
#define CORVANE_HOST_DOCTOR_ENGINE_CLIENT_H

#include <functional>
#include <optional>
#include <string>

#include "finding.h"
#include "host/catalogue/catalogue.h"
#include "host/exchange.h"

struct Verdict {
    Status status;
    std::string detail;
    std::string hint = {};
};

inline Verdict fine(const std::string& detail)
{
    return {Status::Ok, detail};
}

// A request failed that had to succeed.
struct Refused {
    std::string request;
    std::string code;
    std::string text;
};

// Sends requests for the tests.
class Client {
public:
    explicit Client(HostSession& session) : m_session(session) {}

    Outcome ask(const std::string& name, const Pairs& parameters = {})
    {
        return exchange(m_session, findRequest(name), name, parameters);
    }

    // The bytes of a result. Throws Refused.
    std::string bytes(const std::string& name, const Pairs& parameters,
                      const std::string& result = "Data")
    {
        return bytesOf(name, get(name, parameters), result);
    }

    Outcome get(const std::string& name, const Pairs& parameters)
    {
        Outcome outcome = ask(name, parameters);
        if (!outcome.ok)
            throw Refused{name, outcome.code, outcome.text};
        return outcome;
    }

    static std::string bytesOf(const std::string& name, const Outcome& outcome,
                               const std::string& result)
    {
        return resultBytes(findRequest(name), outcome, result);
    }

    // Nothing if it was refused.
    std::optional<std::string> tryBytes(const std::string& name, const Pairs& parameters)
    {
        try {
            return bytes(name, parameters);
        } catch (const Refused&) {
            return std::nullopt;
        }
    }

    bool hasDevelopmentEngine()
    {
        return ask("QZaVen_GetVersion").results.at(0).second.find("development engine") !=
               std::string::npos;
    }

private:
    HostSession& m_session;
};

using Test = std::function<Verdict(Client&)>;

#endif
