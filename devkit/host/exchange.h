// One request and its outcome, as `call` and `script` report it.
#ifndef CORVANE_HOST_EXCHANGE_H
#define CORVANE_HOST_EXCHANGE_H

#include <string>

#include "host/catalogue/catalogue.h"
#include "host_session.h"

struct Outcome {
    Pairs results;
    double microseconds = 0;  // these three as in Reply
    double storeMicroseconds = 0;
    double readMicroseconds = 0;
    bool ok = false;
    std::string code;  // of a failure; empty if the plug-in wrote none
    std::string text;  // the failure's, in the engine's words or the host's
};

// The catalogue's entry; null for an unknown name that is sent all the same. Throws a
// UsageError with the nearest name for an unknown one.
const RequestInfo* requestByName(const std::string& name, bool force);

// Warnings about the parameters of a request, to standard error. `request` may be null.
void warn(const RequestInfo* request, const Pairs& parameters);

// Sends a request and asks the engine what a failure means. `request` may be null.
Outcome exchange(HostSession& session, const RequestInfo* request, const std::string& name,
                 const Pairs& parameters);

// The bytes of a result, decoded by the catalogue; as it is if the catalogue does not
// know it. Throws a UsageError.
std::string resultBytes(const RequestInfo* request, const Outcome& outcome,
                        const std::string& name);

// "NAME failed with CODE: TEXT"
std::string failureLine(const std::string& name, const Outcome& outcome);

// One line to standard error.
void tell(const std::string& line);

#endif
