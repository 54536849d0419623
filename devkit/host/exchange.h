// Sends one request, and finds out what a failure means. For `call`, `script` and `bench`.
#ifndef CORVANE_HOST_EXCHANGE_H
#define CORVANE_HOST_EXCHANGE_H

#include <string>

#include "common/secrets.h"
#include "host/catalogue/catalogue.h"
#include "host_session.h"

struct Outcome {
    SecretPairs results;
    double microseconds = 0;  // these three are as in Reply
    double storeMicroseconds = 0;
    double readMicroseconds = 0;
    bool ok = false;
    std::string code;  // of a failure; empty if the plug-in wrote none
    std::string text;  // what the failure means, in the engine's words or the host's
};

// The catalogue's entry. For an unknown name it is null if `force` is set; else throws a
// UsageError that tells the likely ones.
const RequestInfo* requestByName(const std::string& name, bool force);

// Warnings about the parameters of a request, to standard error; `step` is "" or that of a script,
// as "step 2 (k): ". `request` may be null.
void warn(const RequestInfo* request, const Pairs& parameters, const std::string& step = "");

// Sends a request and asks the engine what a failure means. `request` may be null.
Outcome exchange(HostSession& session, const RequestInfo* request, const std::string& name,
                 const Pairs& parameters);

// The bytes of a result, decoded as the catalogue says; undecoded if the catalogue does not know
// the result. Throws a UsageError if there is no such result or it is malformed.
std::string resultBytes(const RequestInfo* request, const Outcome& outcome,
                        const std::string& name);

// "NAME failed with CODE: TEXT"
std::string failureLine(const std::string& name, const Outcome& outcome);

// What to do about a failure, with the command that says more; "" if its code is not one that is
// known here, as another engine's.
std::string remedyLine(const Outcome& outcome);

// Whether lines to standard error have colours, and how many columns they are broken to, 0 for
// none: programs look for whole messages. Before the first.
void chooseTelling(bool isColoured, size_t columns);

// A line to standard error for each of the text's: an error, or one that begins with "warning: " or
// "what to do: ". Nothing for no text.
void tell(const std::string& text);

#endif
