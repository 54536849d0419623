// What `call --trace` tells on standard error. Values that may be secret are told as their
// lengths.
#ifndef CORVANE_HOST_COMMANDS_TRACE_H
#define CORVANE_HOST_COMMANDS_TRACE_H

#include <string>

#include "host/exchange.h"

void traceLoading(double microseconds);
// `request` may be null.
void traceParameters(const RequestInfo* request, const std::string& name, const Pairs& parameters);
void traceOutcome(const RequestInfo* request, const Outcome& outcome);

#endif
