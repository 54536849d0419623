// Requests that chance makes, the same on every machine: their parameters, and what the doubles
// answer to them.
#ifndef CORVANE_TESTS_RANDOM_REQUEST_H
#define CORVANE_TESTS_RANDOM_REQUEST_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "support/answering_doubles.h"

namespace replay {

struct RandomRequest {
    std::string name;
    doubles::Pairs parameters;
    std::vector<support::Answer> answers;  // of the engine, in turn
    long toldLength = -1;                  // of AnsweringParams
};

// Of the request with that number; it depends on nothing else. Of most the name is one that the
// plug-in knows and the parameters are right, or all but one.
RandomRequest randomRequest(size_t number);

// Which engine serves that request: "" for the whole one, the name of the function that it lacks,
// or "none". The same for BLOCK requests in a row.
constexpr size_t BLOCK = 50;
std::string engineOf(size_t number);

}  // namespace replay

#endif
