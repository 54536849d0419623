// The requests of the catalogue with parameters that they accept.
#ifndef CORVANE_BENCH_REQUESTS_H
#define CORVANE_BENCH_REQUESTS_H

#include <string>
#include <vector>

#include "host.h"

struct RequestCase {
    std::string name;
    std::string payloadName;  // "" if it takes none
    Pairs others;

    bool hasPayload() const { return !payloadName.empty(); }
    // `payload` counts bytes before Base64, which the catalogue asks for.
    Pairs parameters(size_t payload) const;
};

const std::vector<RequestCase>& requestCases();

// A symmetric encryption in CBC mode, with which the whole path is measured.
const RequestCase& encryption();

// The same bytes at each call.
std::string noise(size_t size);
std::string url64(const std::string& bytes);

#endif
