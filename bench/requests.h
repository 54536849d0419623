// The 27 requests with parameters that they accept.
#ifndef CORVANE_BENCH_REQUESTS_H
#define CORVANE_BENCH_REQUESTS_H

#include <string>
#include <vector>

#include "host.h"

// How a request takes its payload.
enum class Payload { None, AsIs, Base64 };

struct RequestCase {
    std::string name;
    Payload form;
    std::string payloadName;
    Pairs others;

    // `payload` counts bytes before Base64.
    Pairs parameters(size_t payload) const;
};

const std::vector<RequestCase>& requestCases();

// The symmetric encryption, with which the whole path is measured.
const RequestCase& encryption();

// The same bytes at each call.
std::string noise(size_t size);
std::string url64(const std::string& bytes);

#endif
